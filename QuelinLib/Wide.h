#pragma once
// Wide float vectors for the hot loops, at the width the translation unit is
// compiled for: 16 lanes under AVX-512, 8 under AVX2 with FMA, 4 under SSE
// (Float4 itself), 1 elsewhere or when QUELIN_WIDE_SCALAR is defined. A kernel
// is written once as a template over `Wide::Float`, `Wide::Int` and
// `Wide::Mask` and compiled in one file per instruction set, each with its own
// compiler flags; the caller picks the file's entry points once at run time
// (see WideIsa.h).
//
// The AVX types live in an unnamed namespace: every translation unit keeps its
// own copies, so an inline function compiled with AVX flags can never be the
// one the linker keeps for a file built for the SSE baseline.
//
// Shared interface (Float4.h has the same): LANES, load/store, broadcast
// constructor, + - * /, comparisons giving a Mask, min/max (the second operand
// when either is NaN, as SSE does), abs, sqrt, floor, select(mask, a, b),
// madd(a, b, c) = a * b + c (fused where the ISA has FMA), rcpApprox,
// anyLane, isNaN, truncateToInt, convertToFloat, bitsToFloat, bitsToInt,
// gather(base, index), gatherRgb (four-float entries), lookup8/lookup32 (small tables), loadRgbPlanes/storeRgbPlanes (packed RGB <-> planes).
#include <cmath>
#include <cstdint>

#include "QuelinLib/Float4.h"

namespace Quelin::Wide {
namespace {

#if defined(QUELIN_WIDE_SCALAR) || !QUELIN_FLOAT4_SSE

struct Mask1 {
    bool m;
    friend Mask1 operator&(Mask1 a, Mask1 b) { return {a.m && b.m}; }
    friend Mask1 operator|(Mask1 a, Mask1 b) { return {a.m || b.m}; }
};
struct Int1;
struct Float1 {
    static constexpr int LANES = 1;
    float v;
    Float1() : v(0.f) {}
    Float1(float s) : v(s) {}
    static Float1 load(float const* p) { return *p; }
    void store(float* p) const { *p = v; }
    friend Float1 operator+(Float1 a, Float1 b) { return a.v + b.v; }
    friend Float1 operator-(Float1 a, Float1 b) { return a.v - b.v; }
    friend Float1 operator*(Float1 a, Float1 b) { return a.v * b.v; }
    friend Float1 operator/(Float1 a, Float1 b) { return a.v / b.v; }
    friend Float1 operator-(Float1 a) { return -a.v; }
    friend Mask1 operator<(Float1 a, Float1 b) { return {a.v < b.v}; }
    friend Mask1 operator<=(Float1 a, Float1 b) { return {a.v <= b.v}; }
    friend Mask1 operator>(Float1 a, Float1 b) { return {a.v > b.v}; }
    friend Mask1 operator>=(Float1 a, Float1 b) { return {a.v >= b.v}; }
};
struct Int1 {
    std::int32_t v;
    Int1() : v(0) {}
    Int1(std::int32_t s) : v(s) {}
    friend Int1 operator+(Int1 a, Int1 b) { return std::int32_t(std::uint32_t(a.v) + std::uint32_t(b.v)); }
    friend Int1 operator-(Int1 a, Int1 b) { return std::int32_t(std::uint32_t(a.v) - std::uint32_t(b.v)); }
    friend Int1 operator&(Int1 a, Int1 b) { return a.v & b.v; }
    friend Int1 operator|(Int1 a, Int1 b) { return a.v | b.v; }
    Int1 shiftLeft(int n) const { return std::int32_t(std::uint32_t(v) << n); }
    Int1 shiftRight(int n) const { return v >> n; }
};
inline Float1 min(Float1 a, Float1 b) { return a.v < b.v ? a : b; }
inline Float1 max(Float1 a, Float1 b) { return a.v > b.v ? a : b; }
inline Float1 abs(Float1 a) { return std::fabs(a.v); }
inline Float1 sqrt(Float1 a) { return std::sqrt(a.v); }
inline Float1 floor(Float1 a) { return std::floor(a.v); }
inline Float1 select(Mask1 m, Float1 a, Float1 b) { return m.m ? a : b; }
inline Float1 madd(Float1 a, Float1 b, Float1 c) { return a.v * b.v + c.v; }
inline Float1 rcpApprox(Float1 a) { return 1.f / a.v; }
inline bool anyLane(Mask1 m) { return m.m; }
inline Mask1 isNaN(Float1 a) { return {a.v != a.v}; }
inline Int1 truncateToInt(Float1 a) { return std::int32_t(a.v); }
inline Float1 convertToFloat(Int1 a) { return float(a.v); }
inline Float1 bitsToFloat(Int1 a) { float f; __builtin_memcpy(&f, &a.v, 4); return f; }
inline Int1 bitsToInt(Float1 a) { std::int32_t i; __builtin_memcpy(&i, &a.v, 4); return i; }
inline Float1 gather(float const* base, Int1 index) { return base[index.v]; }
inline Float1 lookup8(float const* table, Int1 index) { return table[index.v]; }
inline void gatherRgb(float const* base, Int1 index, Float1& r, Float1& g, Float1& b) {
    r = base[index.v], g = base[index.v + 1], b = base[index.v + 2];
}
inline Float1 lookup32(float const* table, Int1 index) { return table[index.v]; }
inline void loadRgbPlanes(float const* p, Float1& r, Float1& g, Float1& b) { r = p[0], g = p[1], b = p[2]; }
inline void storeRgbPlanes(float* p, Float1 r, Float1 g, Float1 b) { p[0] = r.v, p[1] = g.v, p[2] = b.v; }

using Float = Float1;
using Int = Int1;
using Mask = Mask1;
constexpr char const* ISA_NAME = "scalar";

#elif defined(__AVX512F__) && defined(__AVX512DQ__)

struct Mask16 {
    __mmask16 m;
    friend Mask16 operator&(Mask16 a, Mask16 b) { return {__mmask16(a.m & b.m)}; }
    friend Mask16 operator|(Mask16 a, Mask16 b) { return {__mmask16(a.m | b.m)}; }
};
struct Float16 {
    static constexpr int LANES = 16;
    __m512 v;
    Float16() : v(_mm512_setzero_ps()) {}
    Float16(__m512 x) : v(x) {}
    Float16(float s) : v(_mm512_set1_ps(s)) {}
    static Float16 load(float const* p) { return _mm512_loadu_ps(p); }
    void store(float* p) const { _mm512_storeu_ps(p, v); }
    friend Float16 operator+(Float16 a, Float16 b) { return _mm512_add_ps(a.v, b.v); }
    friend Float16 operator-(Float16 a, Float16 b) { return _mm512_sub_ps(a.v, b.v); }
    friend Float16 operator*(Float16 a, Float16 b) { return _mm512_mul_ps(a.v, b.v); }
    friend Float16 operator/(Float16 a, Float16 b) { return _mm512_div_ps(a.v, b.v); }
    friend Float16 operator-(Float16 a) {
        return _mm512_castsi512_ps(_mm512_xor_si512(_mm512_castps_si512(a.v), _mm512_set1_epi32(INT32_MIN)));
    }
    friend Mask16 operator<(Float16 a, Float16 b) { return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_LT_OQ)}; }
    friend Mask16 operator<=(Float16 a, Float16 b) { return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_LE_OQ)}; }
    friend Mask16 operator>(Float16 a, Float16 b) { return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_GT_OQ)}; }
    friend Mask16 operator>=(Float16 a, Float16 b) { return {_mm512_cmp_ps_mask(a.v, b.v, _CMP_GE_OQ)}; }
};
struct Int16 {
    __m512i v;
    Int16() : v(_mm512_setzero_si512()) {}
    Int16(__m512i x) : v(x) {}
    Int16(std::int32_t s) : v(_mm512_set1_epi32(s)) {}
    friend Int16 operator+(Int16 a, Int16 b) { return _mm512_add_epi32(a.v, b.v); }
    friend Int16 operator-(Int16 a, Int16 b) { return _mm512_sub_epi32(a.v, b.v); }
    friend Int16 operator&(Int16 a, Int16 b) { return _mm512_and_si512(a.v, b.v); }
    friend Int16 operator|(Int16 a, Int16 b) { return _mm512_or_si512(a.v, b.v); }
    Int16 shiftLeft(int n) const { return _mm512_slli_epi32(v, unsigned(n)); }
    Int16 shiftRight(int n) const { return _mm512_srai_epi32(v, unsigned(n)); }
};
inline Float16 min(Float16 a, Float16 b) { return _mm512_min_ps(a.v, b.v); }
inline Float16 max(Float16 a, Float16 b) { return _mm512_max_ps(a.v, b.v); }
inline Float16 abs(Float16 a) { return _mm512_abs_ps(a.v); }
inline Float16 sqrt(Float16 a) { return _mm512_sqrt_ps(a.v); }
inline Float16 floor(Float16 a) { return _mm512_roundscale_ps(a.v, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC); }
inline Float16 select(Mask16 m, Float16 a, Float16 b) { return _mm512_mask_blend_ps(m.m, b.v, a.v); }
inline Float16 madd(Float16 a, Float16 b, Float16 c) { return _mm512_fmadd_ps(a.v, b.v, c.v); }
inline Float16 rcpApprox(Float16 a) { return _mm512_rcp14_ps(a.v); }
inline bool anyLane(Mask16 m) { return m.m != 0; }
inline Mask16 isNaN(Float16 a) { return {_mm512_cmp_ps_mask(a.v, a.v, _CMP_UNORD_Q)}; }
inline Int16 truncateToInt(Float16 a) { return _mm512_cvttps_epi32(a.v); }
inline Float16 convertToFloat(Int16 a) { return _mm512_cvtepi32_ps(a.v); }
inline Float16 bitsToFloat(Int16 a) { return _mm512_castsi512_ps(a.v); }
inline Int16 bitsToInt(Float16 a) { return _mm512_castps_si512(a.v); }
inline Float16 gather(float const* base, Int16 index) { return _mm512_i32gather_ps(index.v, base, 4); }
inline void gatherRgb(float const* base, Int16 index, Float16& r, Float16& g, Float16& b) {
    r = _mm512_i32gather_ps(index.v, base, 4);
    g = _mm512_i32gather_ps(index.v, base + 1, 4);
    b = _mm512_i32gather_ps(index.v, base + 2, 4);
}
/// `table` holds 16 readable floats for lookup8, 32 for lookup32.
inline Float16 lookup8(float const* table, Int16 index) { return _mm512_permutexvar_ps(index.v, _mm512_loadu_ps(table)); }
inline Float16 lookup32(float const* table, Int16 index) {
    return _mm512_permutex2var_ps(_mm512_loadu_ps(table), index.v, _mm512_loadu_ps(table + 16));
}
// Sixteen packed RGB pixels: lane i of a plane is float 3i (+1, +2).
inline __m512i rgbStride() { return _mm512_mullo_epi32(_mm512_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15), _mm512_set1_epi32(3)); }
inline void loadRgbPlanes(float const* p, Float16& r, Float16& g, Float16& b) {
    __m512i const i = rgbStride();
    r = _mm512_i32gather_ps(i, p, 4);
    g = _mm512_i32gather_ps(i, p + 1, 4);
    b = _mm512_i32gather_ps(i, p + 2, 4);
}
inline void storeRgbPlanes(float* p, Float16 r, Float16 g, Float16 b) {
    __m512i const i = rgbStride();
    _mm512_i32scatter_ps(p, i, r.v, 4);
    _mm512_i32scatter_ps(p + 1, i, g.v, 4);
    _mm512_i32scatter_ps(p + 2, i, b.v, 4);
}

using Float = Float16;
using Int = Int16;
using Mask = Mask16;
constexpr char const* ISA_NAME = "avx512";

#elif defined(__AVX2__) && defined(__FMA__)

struct Float8 {
    static constexpr int LANES = 8;
    __m256 v;
    Float8() : v(_mm256_setzero_ps()) {}
    Float8(__m256 x) : v(x) {}
    Float8(float s) : v(_mm256_set1_ps(s)) {}
    static Float8 load(float const* p) { return _mm256_loadu_ps(p); }
    void store(float* p) const { _mm256_storeu_ps(p, v); }
    friend Float8 operator+(Float8 a, Float8 b) { return _mm256_add_ps(a.v, b.v); }
    friend Float8 operator-(Float8 a, Float8 b) { return _mm256_sub_ps(a.v, b.v); }
    friend Float8 operator*(Float8 a, Float8 b) { return _mm256_mul_ps(a.v, b.v); }
    friend Float8 operator/(Float8 a, Float8 b) { return _mm256_div_ps(a.v, b.v); }
    friend Float8 operator-(Float8 a) { return _mm256_xor_ps(a.v, _mm256_set1_ps(-0.f)); }
    // Masks are vectors with every bit of a lane set or clear.
    friend Float8 operator<(Float8 a, Float8 b) { return _mm256_cmp_ps(a.v, b.v, _CMP_LT_OQ); }
    friend Float8 operator<=(Float8 a, Float8 b) { return _mm256_cmp_ps(a.v, b.v, _CMP_LE_OQ); }
    friend Float8 operator>(Float8 a, Float8 b) { return _mm256_cmp_ps(a.v, b.v, _CMP_GT_OQ); }
    friend Float8 operator>=(Float8 a, Float8 b) { return _mm256_cmp_ps(a.v, b.v, _CMP_GE_OQ); }
    friend Float8 operator&(Float8 a, Float8 b) { return _mm256_and_ps(a.v, b.v); }
    friend Float8 operator|(Float8 a, Float8 b) { return _mm256_or_ps(a.v, b.v); }
};
struct Int8 {
    __m256i v;
    Int8() : v(_mm256_setzero_si256()) {}
    Int8(__m256i x) : v(x) {}
    Int8(std::int32_t s) : v(_mm256_set1_epi32(s)) {}
    friend Int8 operator+(Int8 a, Int8 b) { return _mm256_add_epi32(a.v, b.v); }
    friend Int8 operator-(Int8 a, Int8 b) { return _mm256_sub_epi32(a.v, b.v); }
    friend Int8 operator&(Int8 a, Int8 b) { return _mm256_and_si256(a.v, b.v); }
    friend Int8 operator|(Int8 a, Int8 b) { return _mm256_or_si256(a.v, b.v); }
    Int8 shiftLeft(int n) const { return _mm256_slli_epi32(v, n); }
    Int8 shiftRight(int n) const { return _mm256_srai_epi32(v, n); }
};
inline Float8 min(Float8 a, Float8 b) { return _mm256_min_ps(a.v, b.v); }
inline Float8 max(Float8 a, Float8 b) { return _mm256_max_ps(a.v, b.v); }
inline Float8 abs(Float8 a) { return _mm256_andnot_ps(_mm256_set1_ps(-0.f), a.v); }
inline Float8 sqrt(Float8 a) { return _mm256_sqrt_ps(a.v); }
inline Float8 floor(Float8 a) { return _mm256_floor_ps(a.v); }
inline Float8 select(Float8 m, Float8 a, Float8 b) { return _mm256_blendv_ps(b.v, a.v, m.v); }
inline Float8 madd(Float8 a, Float8 b, Float8 c) { return _mm256_fmadd_ps(a.v, b.v, c.v); }
inline Float8 rcpApprox(Float8 a) { return _mm256_rcp_ps(a.v); }
inline bool anyLane(Float8 m) { return _mm256_movemask_ps(m.v) != 0; }
inline Float8 isNaN(Float8 a) { return _mm256_cmp_ps(a.v, a.v, _CMP_UNORD_Q); }
inline Int8 truncateToInt(Float8 a) { return _mm256_cvttps_epi32(a.v); }
inline Float8 convertToFloat(Int8 a) { return _mm256_cvtepi32_ps(a.v); }
inline Float8 bitsToFloat(Int8 a) { return _mm256_castsi256_ps(a.v); }
inline Int8 bitsToInt(Float8 a) { return _mm256_castps_si256(a.v); }
inline Float8 gather(float const* base, Int8 index) { return _mm256_i32gather_ps(base, index.v, 4); }
// Eight four-float entries by plain loads and a transpose: on some processors
// (AMD Zen 3) three gathers cost several times as much.
inline void gatherRgb(float const* base, Int8 index, Float8& r, Float8& g, Float8& b) {
    alignas(32) std::int32_t i[8];
    _mm256_store_si256(reinterpret_cast<__m256i*>(i), index.v);
    auto pair = [&](int k) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(base + i[k])), _mm_loadu_ps(base + i[k + 4]), 1);
    };
    __m256 const a0 = pair(0), a1 = pair(1), a2 = pair(2), a3 = pair(3);
    __m256 const t0 = _mm256_unpacklo_ps(a0, a1), t1 = _mm256_unpackhi_ps(a0, a1);
    __m256 const t2 = _mm256_unpacklo_ps(a2, a3), t3 = _mm256_unpackhi_ps(a2, a3);
    r = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(1, 0, 1, 0));
    g = _mm256_shuffle_ps(t0, t2, _MM_SHUFFLE(3, 2, 3, 2));
    b = _mm256_shuffle_ps(t1, t3, _MM_SHUFFLE(1, 0, 1, 0));
}
// Small tables by register permutes: far cheaper than a gather.
inline Float8 lookup8(float const* table, Int8 index) { return _mm256_permutevar8x32_ps(_mm256_loadu_ps(table), index.v); }
inline Float8 lookup32(float const* table, Int8 index) {
    __m256 const p0 = _mm256_permutevar8x32_ps(_mm256_loadu_ps(table), index.v);
    __m256 const p1 = _mm256_permutevar8x32_ps(_mm256_loadu_ps(table + 8), index.v);
    __m256 const p2 = _mm256_permutevar8x32_ps(_mm256_loadu_ps(table + 16), index.v);
    __m256 const p3 = _mm256_permutevar8x32_ps(_mm256_loadu_ps(table + 24), index.v);
    // Bits 3 and 4 of the index, moved to the sign bit, pick the register.
    __m256 const bit3 = _mm256_castsi256_ps(_mm256_slli_epi32(index.v, 28));
    __m256 const bit4 = _mm256_castsi256_ps(_mm256_slli_epi32(index.v, 27));
    return _mm256_blendv_ps(_mm256_blendv_ps(p0, p1, bit3), _mm256_blendv_ps(p2, p3, bit3), bit4);
}
// Eight packed RGB pixels (24 floats) as planes: the two halves hold pixels
// 0-3 and 4-7, transposed with the stride-3 shuffles of the SSE form.
inline void loadRgbPlanes(float const* p, Float8& r, Float8& g, Float8& b) {
    __m256 const m03 = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p)), _mm_loadu_ps(p + 12), 1);
    __m256 const m14 = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p + 4)), _mm_loadu_ps(p + 16), 1);
    __m256 const m25 = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(p + 8)), _mm_loadu_ps(p + 20), 1);
    __m256 const xy = _mm256_shuffle_ps(m14, m25, _MM_SHUFFLE(2, 1, 3, 2));
    __m256 const yz = _mm256_shuffle_ps(m03, m14, _MM_SHUFFLE(1, 0, 2, 1));
    r = _mm256_shuffle_ps(m03, xy, _MM_SHUFFLE(2, 0, 3, 0));
    g = _mm256_shuffle_ps(yz, xy, _MM_SHUFFLE(3, 1, 2, 0));
    b = _mm256_shuffle_ps(yz, m25, _MM_SHUFFLE(3, 0, 3, 1));
}
inline void storeRgbPlanes(float* p, Float8 r, Float8 g, Float8 b) {
    __m256 const rxy = _mm256_shuffle_ps(r.v, g.v, _MM_SHUFFLE(2, 0, 2, 0));
    __m256 const ryz = _mm256_shuffle_ps(g.v, b.v, _MM_SHUFFLE(3, 1, 3, 1));
    __m256 const rzx = _mm256_shuffle_ps(b.v, r.v, _MM_SHUFFLE(3, 1, 2, 0));
    __m256 const r03 = _mm256_shuffle_ps(rxy, rzx, _MM_SHUFFLE(2, 0, 2, 0));
    __m256 const r14 = _mm256_shuffle_ps(ryz, rxy, _MM_SHUFFLE(3, 1, 2, 0));
    __m256 const r25 = _mm256_shuffle_ps(rzx, ryz, _MM_SHUFFLE(3, 1, 3, 1));
    _mm_storeu_ps(p, _mm256_castps256_ps128(r03));
    _mm_storeu_ps(p + 4, _mm256_castps256_ps128(r14));
    _mm_storeu_ps(p + 8, _mm256_castps256_ps128(r25));
    _mm_storeu_ps(p + 12, _mm256_extractf128_ps(r03, 1));
    _mm_storeu_ps(p + 16, _mm256_extractf128_ps(r14, 1));
    _mm_storeu_ps(p + 20, _mm256_extractf128_ps(r25, 1));
}

using Float = Float8;
using Int = Int8;
using Mask = Float8;
constexpr char const* ISA_NAME = "avx2";

#else

using Float = Float4;
using Int = Int4;
using Mask = Float4;
constexpr char const* ISA_NAME = "sse4.1";

#endif

// Four-lane shuffles of Float4 for kernels whose lanes are not points but the
// corners or axes of one point's cell (the gradient noise of the procedural
// maps), written once here so those kernels use no instructions directly.
#if QUELIN_FLOAT4_SSE
/// Lane I in every lane.
template <int I> inline Float4 broadcastLane(Float4 a) { return _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(I, I, I, I)); }
template <int I> inline float lane(Float4 a) { return _mm_cvtss_f32(broadcastLane<I>(a).v); }
template <int I> inline std::int32_t lane(Int4 a) { return _mm_extract_epi32(a.v, I); }
/// (a0, a2, a0, a2) and (a1, a3, a1, a3).
inline Float4 evenLanes(Float4 a) { return _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(2, 0, 2, 0)); }
inline Float4 oddLanes(Float4 a) { return _mm_shuffle_ps(a.v, a.v, _MM_SHUFFLE(3, 1, 3, 1)); }
/// The x, y and z columns of four rows (x, y, z, any).
inline void transpose3(Float4 r0, Float4 r1, Float4 r2, Float4 r3, Float4& x, Float4& y, Float4& z) {
    __m128 const t0 = _mm_unpacklo_ps(r0.v, r1.v);  // r0x r1x r0y r1y
    __m128 const t1 = _mm_unpacklo_ps(r2.v, r3.v);  // r2x r3x r2y r3y
    __m128 const t2 = _mm_unpackhi_ps(r0.v, r1.v);  // r0z r1z . .
    __m128 const t3 = _mm_unpackhi_ps(r2.v, r3.v);  // r2z r3z . .
    x = _mm_movelh_ps(t0, t1);
    y = _mm_movehl_ps(t1, t0);
    z = _mm_movelh_ps(t2, t3);
}
/// (0, a0, a1, a2): every lane moved one place up.
inline Float4 shiftLanesUp(Float4 a) { return _mm_castsi128_ps(_mm_slli_si128(_mm_castps_si128(a.v), 4)); }
/// ~a & b, bit by bit.
inline Float4 andNot(Float4 a, Float4 b) { return _mm_andnot_ps(a.v, b.v); }
inline Int4 loadInt4(std::uint32_t const* p) { return _mm_loadu_si128(reinterpret_cast<__m128i const*>(p)); }
/// The low 32 bits of the lane products (wrap-around multiplication).
inline Int4 multiplyLow(Int4 a, Int4 b) { return _mm_mullo_epi32(a.v, b.v); }
/// Shift that fills with zeros: the lanes as unsigned.
inline Int4 shiftRightLogical(Int4 a, int n) { return _mm_srli_epi32(a.v, n); }
#else
template <int I> inline Float4 broadcastLane(Float4 a) { return Float4(a.l[I]); }
template <int I> inline float lane(Float4 a) { return a.l[I]; }
inline Float4 evenLanes(Float4 a) { return Float4(a.l[0], a.l[2], a.l[0], a.l[2]); }
inline Float4 oddLanes(Float4 a) { return Float4(a.l[1], a.l[3], a.l[1], a.l[3]); }
inline void transpose3(Float4 r0, Float4 r1, Float4 r2, Float4 r3, Float4& x, Float4& y, Float4& z) {
    x = Float4(r0.l[0], r1.l[0], r2.l[0], r3.l[0]);
    y = Float4(r0.l[1], r1.l[1], r2.l[1], r3.l[1]);
    z = Float4(r0.l[2], r1.l[2], r2.l[2], r3.l[2]);
}
inline Float4 shiftLanesUp(Float4 a) { return Float4(0.f, a.l[0], a.l[1], a.l[2]); }
#endif

} // namespace
} // namespace Quelin::Wide
