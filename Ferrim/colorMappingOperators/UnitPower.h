#pragma once
// x^e for x in [0, 1] (the display encodings after a bounding step), with
// four-entry table lookups held in registers instead of the wider table
// permutes of the general fixed-exponent power: on processors whose
// cross-lane permutes are slow (AMD Zen 3) those permutes were most of the
// power's time.
//
// With E the biased exponent of x (x = 2^(E - 127) m, m in [1, 2)) and
// E = 64 + 16 i + 4 j + k:
//   x^e = A[i] B[j] C[k] P_s(u)
// where s is the quarter of [1, 2) that m lies in (the top two mantissa bits)
// and P_s a cubic in u = m - (1 + s/4 + 1/8) (within 1.3e-6 of m^e for the
// display exponents; ColorProgram checks each table it makes).
// Inputs below 2^-63 (zero, NaN, negative zero) give 0 (below 2^-48, or
// 2^-11 narrow, with floored tables), and 1 gives 1 exactly (results are at
// most 1). The tables
// (UnitPowerTables, made by ColorProgram) lay out A, B, C and the
// coefficients as four-float rows.
//
// Included by ColorProgramKernelsImpl.h after QuelinLib/Wide.h for each
// instruction set; only the lane types and intrinsics of that set are used.
#include "Ferrim/colorMappingOperators/ColorProgramKernels.h"
#include "QuelinLib/Wide.h"

namespace Quelin::ColorKernels {
namespace {

/// A four-entry table by the low two bits of each lane's index.
struct Lookup4 {
#if defined(QUELIN_WIDE_SCALAR) || !QUELIN_FLOAT4_SSE
    float t[4];
    explicit Lookup4(float const* p) : t{p[0], p[1], p[2], p[3]} {}
    Wide::Float operator()(Wide::Int index) const { return t[index.v & 3]; }
#elif defined(__AVX512F__) && defined(__AVX512DQ__)
    __m512 t;
    explicit Lookup4(float const* p) : t(_mm512_setr4_ps(p[0], p[1], p[2], p[3])) {}
    Wide::Float operator()(Wide::Int index) const { return _mm512_permutevar_ps(t, index.v); }
#elif defined(__AVX2__) && defined(__FMA__)
    __m256 t;
    explicit Lookup4(float const* p) : t(_mm256_broadcast_ps(reinterpret_cast<__m128 const*>(p))) {}
    Wide::Float operator()(Wide::Int index) const { return _mm256_permutevar_ps(t, index.v); }
#else
    // SSE 4.1 has no variable float permute: the bytes of the table by index.
    __m128i t;
    explicit Lookup4(float const* p) : t(_mm_castps_si128(_mm_loadu_ps(p))) {}
    Wide::Float operator()(Wide::Int index) const {
        // Lane index k to the byte offsets 4k .. 4k + 3.
        __m128i const k = _mm_slli_epi32(_mm_and_si128(index.v, _mm_set1_epi32(3)), 2);
        __m128i const bytes = _mm_or_si128(_mm_shuffle_epi8(k, _mm_setr_epi8(0, 0, 0, 0, 4, 4, 4, 4, 8, 8, 8, 8, 12, 12, 12, 12)),
                                           _mm_set1_epi32(0x03020100));
        return _mm_castsi128_ps(_mm_shuffle_epi8(t, bytes));
    }
#endif
};

/// The tables of one exponent, unpacked into registers once per step.
struct UnitPower {
    Lookup4 a, b, c;
    Lookup4 coefficients[UNIT_POW_DEGREE + 1];

    explicit UnitPower(float const* t)
        : a(t), b(t + 4), c(t + 8), coefficients{Lookup4(t + 12), Lookup4(t + 16), Lookup4(t + 20), Lookup4(t + 24)},
          a3(t[3]) {
        static_assert(UNIT_POW_DEGREE == 3, "one table row per coefficient");
    }

    /// x^e; `MODE` as UnitPowerMode. Narrow (exponents of at least 1.5): x
    /// below 2^-15 as 0 (its power is below 2^-22.5) and A taken as A[3] (the
    /// same products for the rest). Floored: the tables' lowest row (A[0],
    /// or B[0] when narrow) is 0, so x is raised to that row first instead of
    /// masking small x afterwards: one step less.
    template <int MODE> Wide::Float apply(Wide::Float x) const {
        using F = Wide::Float;
        using I = Wide::Int;
        constexpr bool NARROW = (MODE & UNIT_POW_NARROW) != 0, FLOORED = (MODE & UNIT_POW_FLOORED) != 0;
        constexpr bool RAISED = (MODE & UNIT_POW_RAISED) != 0;
        constexpr float LOWEST = unitPowFloor(MODE);
        F const in = FLOORED && !RAISED ? max(x, F(LOWEST)) : x;  // NaN to the floor as well
        I const bits = bitsToInt(in);
        I const e = bits.shiftRight(23);
        F const scale = (NARROW ? F(a3) : a(e.shiftRight(4))) * b(e.shiftRight(2)) * c(e);
        I const quarter = bits.shiftRight(21);
        F const u = bitsToFloat((bits & I(0x001FFFFF)) | I(0x3F800000)) - F(1.125f);
        F p = coefficients[UNIT_POW_DEGREE](quarter);
        for (int k = UNIT_POW_DEGREE - 1; k >= 0; --k) p = madd(p, u, coefficients[k](quarter));
        // Never above 1: the tables give at least 1 for x = 1 (see ColorProgram).
        F const result = min(p * scale, F(1.f));
        if constexpr (FLOORED) return result;
        else return select(x >= F(LOWEST), result, F(0.f));
    }

private:
    float a3;
};

} // namespace
} // namespace Quelin::ColorKernels
