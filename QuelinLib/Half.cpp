#include "QuelinLib/Half.h"

#include <bit>
#include <cstring>

#include "QuelinLib/HalfF16c.h"
#include "QuelinLib/WideIsa.h"

namespace Quelin {

namespace {

inline float halfBitsToFloat(std::uint16_t h) {
    // Exponent and mantissa moved to their float places; the cases are picked
    // by selects, not branches, so the loop vectorises.
    std::uint32_t const shifted = std::uint32_t(h & 0x7FFFu) << 13;
    std::uint32_t const exponent = shifted & 0x0F800000u;
    std::uint32_t const normal = shifted + 0x38000000u; // re-bias 15 -> 127
    // Infinity or NaN: maximal exponent; NaNs get the quiet bit.
    std::uint32_t const special = shifted | 0x7F800000u | (shifted > 0x0F800000u ? 0x00400000u : 0u);
    // Zero or subnormal: value = mantissa * 2^-24, computed exactly as
    // (2^-14 + mantissa * 2^-24) - 2^-14.
    float const subnormal = std::bit_cast<float>(shifted + 0x38800000u) - std::bit_cast<float>(0x38800000u);
    std::uint32_t const magnitude =
        exponent == 0 ? std::bit_cast<std::uint32_t>(subnormal) : (exponent == 0x0F800000u ? special : normal);
    return std::bit_cast<float>(magnitude | (std::uint32_t(h & 0x8000u) << 16));
}

#if QUELIN_HALF_F16C
// Each group of eight is loaded before it is stored, front to back, which is
// what makes the overlapping in-place use of the header safe.
QUELIN_TARGET_F16C void convertF16c(std::byte const* source, float* destination, std::size_t count) {
    std::size_t i = 0;
    for (; i + 8 <= count; i += 8) {
        __m128i const halves = _mm_loadu_si128(reinterpret_cast<__m128i const*>(source + 2 * i));
        _mm256_storeu_ps(destination + i, _mm256_cvtph_ps(halves));
    }
    Detail::convertHalvesToFloatsPortable(source + 2 * i, destination + i, count - i);
}

bool const sHasF16c = hasHalfConversionInstructions();
#endif

} // namespace

namespace Detail {

void convertHalvesToFloatsPortable(void const* source, float* destination, std::size_t count) {
    auto const* bytes = static_cast<std::byte const*>(source);
    for (std::size_t i = 0; i < count; ++i) {
        std::uint16_t h;
        std::memcpy(&h, bytes + 2 * i, 2);
        if constexpr (std::endian::native == std::endian::big)
            h = std::byteswap(h);
        destination[i] = halfBitsToFloat(h);
    }
}

bool usesHardwareHalfConversion() {
#if QUELIN_HALF_F16C
    return sHasF16c;
#else
    return false;
#endif
}

} // namespace Detail

void convertHalvesToFloats(void const* source, float* destination, std::size_t count) {
#if QUELIN_HALF_F16C
    if (sHasF16c) {
        convertF16c(static_cast<std::byte const*>(source), destination, count);
        return;
    }
#endif
    Detail::convertHalvesToFloatsPortable(source, destination, count);
}

} // namespace Quelin
