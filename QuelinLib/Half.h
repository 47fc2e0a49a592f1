#pragma once
// IEEE 754 binary16 ("half") conversion. Both directions are exact where the
// value fits; float to half rounds to nearest, ties to even. Infinities and NaNs
// survive (a NaN keeps its top payload bits and stays a NaN).
#include <bit>
#include <cstddef>
#include <cstdint>

namespace Quelin {

inline float halfToFloat(std::uint16_t h) {
    std::uint32_t const sign = std::uint32_t(h & 0x8000u) << 16;
    std::uint32_t exponent = (h >> 10) & 0x1Fu;
    std::uint32_t mantissa = h & 0x3FFu;
    if (exponent == 0x1F) // infinity or NaN
        return std::bit_cast<float>(sign | 0x7F800000u | (mantissa << 13));
    if (exponent == 0) {
        if (mantissa == 0)
            return std::bit_cast<float>(sign);
        // Subnormal half: normalise, every one of them is a normal float.
        std::int32_t e = 1;
        while ((mantissa & 0x400u) == 0) {
            mantissa <<= 1;
            --e;
        }
        return std::bit_cast<float>(sign | (std::uint32_t(e + 112) << 23) | ((mantissa & 0x3FFu) << 13));
    }
    // Re-bias the exponent from 15 to 127.
    return std::bit_cast<float>(sign | ((exponent + 112) << 23) | (mantissa << 13));
}

inline std::uint16_t floatToHalf(float value) {
    std::uint32_t const bits = std::bit_cast<std::uint32_t>(value);
    std::uint16_t const sign = std::uint16_t((bits >> 16) & 0x8000u);
    std::uint32_t const magnitude = bits & 0x7FFFFFFFu;
    if (magnitude >= 0x7F800000u) {
        if (magnitude == 0x7F800000u)
            return sign | 0x7C00u;
        // NaN: keep the payload's top bits and force the quiet bit so it stays a NaN.
        return std::uint16_t(sign | 0x7C00u | 0x200u | ((magnitude >> 13) & 0x3FFu));
    }
    // 65520 is halfway between the largest half (65504) and 2^16; it and all
    // above round to infinity.
    if (magnitude >= 0x477FF000u)
        return sign | 0x7C00u;
    std::uint32_t const exponent = magnitude >> 23;
    if (exponent < 113) {
        // Half subnormal: units of 2^-24. Shifts above 24 leave nothing, and
        // exactly 2^-25 ties to even (zero).
        if (exponent < 102)
            return sign;
        std::uint32_t const mantissa = (magnitude & 0x7FFFFFu) | 0x800000u;
        std::uint32_t const shift = 126 - exponent;
        std::uint32_t result = mantissa >> shift;
        std::uint32_t const rest = mantissa & ((1u << shift) - 1);
        std::uint32_t const halfway = 1u << (shift - 1);
        if (rest > halfway || (rest == halfway && (result & 1u)))
            ++result;
        return std::uint16_t(sign | result); // a carry into 0x400 is the smallest normal
    }
    std::uint32_t result = ((exponent - 112) << 10) | ((magnitude >> 13) & 0x3FFu);
    std::uint32_t const rest = magnitude & 0x1FFFu;
    if (rest > 0x1000u || (rest == 0x1000u && (result & 1u)))
        ++result; // carries into the exponent
    return std::uint16_t(sign | result);
}

inline void halfToFloat(std::uint16_t const* src, float* dst, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        dst[i] = halfToFloat(src[i]);
}

inline void floatToHalf(float const* src, std::uint16_t* dst, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i)
        dst[i] = floatToHalf(src[i]);
}

/// Converts `count` little-endian halves at `source` (any alignment) into
/// floats, eight per instruction where the processor has F16C: millions of
/// values per image or data file, so it runs at memory speed. Exact for every
/// value: zeros, subnormals, infinities; a NaN stays a NaN with its sign and
/// payload, signalling ones becoming quiet (as the processor's conversion does,
/// so both routines agree bit for bit). Values are converted front to back,
/// each read before its float is written, so the halves may sit in the upper
/// half of the destination itself (source = destination + count / 2 floats):
/// an image can be widened in its own memory.
void convertHalvesToFloats(void const* source, float* destination, std::size_t count);

namespace Detail {
/// The portable routine, whatever the processor offers (for tests and benchmarks).
void convertHalvesToFloatsPortable(void const* source, float* destination, std::size_t count);
/// Whether convertHalvesToFloats uses the processor's conversion instruction.
bool usesHardwareHalfConversion();
} // namespace Detail

/// A stored half value: 16 bits in memory, float in arithmetic.
struct Half {
    std::uint16_t bits = 0;
    constexpr Half() = default;
    explicit Half(float v) : bits(floatToHalf(v)) {}
    static constexpr Half fromBits(std::uint16_t b) {
        Half h;
        h.bits = b;
        return h;
    }
    operator float() const { return halfToFloat(bits); }
    bool operator==(Half const&) const = default; // bitwise, as stored
};
static_assert(sizeof(Half) == 2);

} // namespace Quelin
