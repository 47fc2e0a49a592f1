#include "Ferrim/SkyMap/HalfConversion.h"
#include "QuelinLib/HalfF16c.h"
#include <cstring>

namespace Quelin {

namespace {

#if QUELIN_HALF_F16C
/// Nine rows, eight columns at a time: the first eight rows are transposed in
/// registers and stored as one vector per column, the ninth goes one by one.
QUELIN_TARGET_F16C inline void convertNineColumnsF16c(std::byte const* source, std::size_t rowStride,
                                                      float const* rowScales, float* out) {
    __m256 r[9];
    for (int row = 0; row < 9; ++row) {
        r[row] = _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<__m128i const*>(source + row * rowStride)));
        if (rowScales)
            r[row] = _mm256_mul_ps(r[row], _mm256_set1_ps(rowScales[row]));
    }
    __m256 const t0 = _mm256_unpacklo_ps(r[0], r[1]), t1 = _mm256_unpackhi_ps(r[0], r[1]);
    __m256 const t2 = _mm256_unpacklo_ps(r[2], r[3]), t3 = _mm256_unpackhi_ps(r[2], r[3]);
    __m256 const t4 = _mm256_unpacklo_ps(r[4], r[5]), t5 = _mm256_unpackhi_ps(r[4], r[5]);
    __m256 const t6 = _mm256_unpacklo_ps(r[6], r[7]), t7 = _mm256_unpackhi_ps(r[6], r[7]);
    __m256 const s0 = _mm256_shuffle_ps(t0, t2, 0x44), s1 = _mm256_shuffle_ps(t0, t2, 0xEE);
    __m256 const s2 = _mm256_shuffle_ps(t1, t3, 0x44), s3 = _mm256_shuffle_ps(t1, t3, 0xEE);
    __m256 const s4 = _mm256_shuffle_ps(t4, t6, 0x44), s5 = _mm256_shuffle_ps(t4, t6, 0xEE);
    __m256 const s6 = _mm256_shuffle_ps(t5, t7, 0x44), s7 = _mm256_shuffle_ps(t5, t7, 0xEE);
    __m256 const columns[8] = {_mm256_permute2f128_ps(s0, s4, 0x20), _mm256_permute2f128_ps(s1, s5, 0x20),
                               _mm256_permute2f128_ps(s2, s6, 0x20), _mm256_permute2f128_ps(s3, s7, 0x20),
                               _mm256_permute2f128_ps(s0, s4, 0x31), _mm256_permute2f128_ps(s1, s5, 0x31),
                               _mm256_permute2f128_ps(s2, s6, 0x31), _mm256_permute2f128_ps(s3, s7, 0x31)};
    alignas(32) float last[8];
    _mm256_store_ps(last, r[8]);
    for (int c = 0; c < 8; ++c) {
        _mm256_storeu_ps(out + c * 9, columns[c]);
        out[c * 9 + 8] = last[c];
    }
}

QUELIN_TARGET_F16C void convertNineRowsF16c(std::byte const* source, std::size_t rowStride, std::size_t count,
                                            float const* rowScales, float* destination) {
    std::size_t j = 0;
    for (; j + 8 <= count; j += 8)
        convertNineColumnsF16c(source + 2 * j, rowStride, rowScales, destination + j * 9);
    if (j == count)
        return;
    // The last few columns go through a padded copy: no reads past the rows.
    std::size_t const rest = count - j;
    std::byte padded[9][16] = {};
    for (int row = 0; row < 9; ++row)
        std::memcpy(padded[row], source + row * rowStride + 2 * j, 2 * rest);
    float out[72];
    convertNineColumnsF16c(&padded[0][0], 16, rowScales, out);
    std::memcpy(destination + j * 9, out, rest * 9 * sizeof(float));
}

#endif

} // namespace

namespace Detail {

void convertHalvesInterleavedPortable(void const* source, std::size_t rowStrideBytes, int rows, std::size_t count,
                                      float const* rowScales, float* destination) {
    auto const* bytes = static_cast<std::byte const*>(source);
    for (int row = 0; row < rows; ++row) {
        float const scale = rowScales ? rowScales[row] : 1.f;
        for (std::size_t j = 0; j < count; ++j) {
            float value;
            convertHalvesToFloatsPortable(bytes + std::size_t(row) * rowStrideBytes + 2 * j, &value, 1);
            destination[j * std::size_t(rows) + std::size_t(row)] = rowScales ? value * scale : value;
        }
    }
}

} // namespace Detail

void convertHalvesInterleaved(void const* source, std::size_t rowStrideBytes, int rows, std::size_t count,
                              float const* rowScales, float* destination) {
#if QUELIN_HALF_F16C
    if (Detail::usesHardwareHalfConversion() && rows == 9) {
        convertNineRowsF16c(static_cast<std::byte const*>(source), rowStrideBytes, count, rowScales, destination);
        return;
    }
#endif
    Detail::convertHalvesInterleavedPortable(source, rowStrideBytes, rows, count, rowScales, destination);
}

} // namespace Quelin
