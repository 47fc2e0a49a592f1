#pragma once
// Four-lane float for hot paths: SSE on x86-64, plain arrays elsewhere.
#include <cmath>
#include <cstdint>
#include <cstring>
#if defined(__SSE4_1__) || defined(__x86_64__) || defined(_M_X64)
#include <immintrin.h>
#define QUELIN_FLOAT4_SSE 1
#endif

namespace Quelin {

#if QUELIN_FLOAT4_SSE
struct Int4;

/// Four floats in one SSE register. Comparisons give lane masks (all bits set
/// or clear) that `select` consumes; no lane branches.
struct Float4 {
    static constexpr int LANES = 4;
    __m128 v;
    Float4() : v(_mm_setzero_ps()) {}
    Float4(__m128 x) : v(x) {}
    Float4(float s) : v(_mm_set1_ps(s)) {}
    Float4(float a, float b, float c, float d) : v(_mm_setr_ps(a, b, c, d)) {}
    static Float4 load(float const* p) { return _mm_loadu_ps(p); }
    /// Four unsigned bytes (any alignment) as 0..255: one load and two unpacks.
    static Float4 fromBytes(void const* p) {
        std::int32_t word;
        std::memcpy(&word, p, 4);
        __m128i const zero = _mm_setzero_si128();
        __m128i const bytes = _mm_cvtsi32_si128(word);
        return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(bytes, zero), zero));
    }
    void store(float* p) const { _mm_storeu_ps(p, v); }
    float operator[](int i) const { alignas(16) float t[4]; _mm_store_ps(t, v); return t[i]; }
    float x() const { return _mm_cvtss_f32(v); }

    friend Float4 operator+(Float4 a, Float4 b) { return _mm_add_ps(a.v, b.v); }
    friend Float4 operator-(Float4 a, Float4 b) { return _mm_sub_ps(a.v, b.v); }
    friend Float4 operator*(Float4 a, Float4 b) { return _mm_mul_ps(a.v, b.v); }
    friend Float4 operator/(Float4 a, Float4 b) { return _mm_div_ps(a.v, b.v); }
    friend Float4 operator-(Float4 a) { return _mm_xor_ps(a.v, _mm_set1_ps(-0.f)); }
    Float4& operator+=(Float4 b) { v = _mm_add_ps(v, b.v); return *this; }
    Float4& operator*=(Float4 b) { v = _mm_mul_ps(v, b.v); return *this; }
    friend Float4 operator<(Float4 a, Float4 b) { return _mm_cmplt_ps(a.v, b.v); }
    friend Float4 operator<=(Float4 a, Float4 b) { return _mm_cmple_ps(a.v, b.v); }
    friend Float4 operator>(Float4 a, Float4 b) { return _mm_cmpgt_ps(a.v, b.v); }
    friend Float4 operator>=(Float4 a, Float4 b) { return _mm_cmpge_ps(a.v, b.v); }
    friend Float4 operator&(Float4 a, Float4 b) { return _mm_and_ps(a.v, b.v); }
    friend Float4 operator|(Float4 a, Float4 b) { return _mm_or_ps(a.v, b.v); }
    /// Bit mask of the lanes whose sign bit is set (comparison results).
    int mask() const { return _mm_movemask_ps(v); }
};

inline Float4 min(Float4 a, Float4 b) { return _mm_min_ps(a.v, b.v); }
inline Float4 max(Float4 a, Float4 b) { return _mm_max_ps(a.v, b.v); }
inline Float4 abs(Float4 a) { return _mm_andnot_ps(_mm_set1_ps(-0.f), a.v); }
inline Float4 sqrt(Float4 a) { return _mm_sqrt_ps(a.v); }
/// mask ? a : b, lane by lane.
inline Float4 select(Float4 mask, Float4 a, Float4 b) {
    return _mm_or_ps(_mm_and_ps(mask.v, a.v), _mm_andnot_ps(mask.v, b.v));
}
inline Float4 floor(Float4 a) {
#if defined(__SSE4_1__)
    return _mm_floor_ps(a.v);
#else
    // Truncate, then step down where truncation rounded up (negative non-integers).
    __m128 const t = _mm_cvtepi32_ps(_mm_cvttps_epi32(a.v));
    return _mm_sub_ps(t, _mm_and_ps(_mm_cmpgt_ps(t, a.v), _mm_set1_ps(1.f)));
#endif
}
inline Float4 madd(Float4 a, Float4 b, Float4 c) { return a * b + c; }
inline float horizontalSum(Float4 a) {
    __m128 s = _mm_add_ps(a.v, _mm_movehl_ps(a.v, a.v));
    s = _mm_add_ss(s, _mm_shuffle_ps(s, s, 1));
    return _mm_cvtss_f32(s);
}

/// Four 32-bit integers.
struct Int4 {
    __m128i v;
    Int4() : v(_mm_setzero_si128()) {}
    Int4(__m128i x) : v(x) {}
    Int4(int s) : v(_mm_set1_epi32(s)) {}
    Int4(int a, int b, int c, int d) : v(_mm_setr_epi32(a, b, c, d)) {}
    int operator[](int i) const { alignas(16) int t[4]; _mm_store_si128(reinterpret_cast<__m128i*>(t), v); return t[i]; }
    friend Int4 operator+(Int4 a, Int4 b) { return _mm_add_epi32(a.v, b.v); }
    friend Int4 operator-(Int4 a, Int4 b) { return _mm_sub_epi32(a.v, b.v); }
    friend Int4 operator&(Int4 a, Int4 b) { return _mm_and_si128(a.v, b.v); }
    friend Int4 operator|(Int4 a, Int4 b) { return _mm_or_si128(a.v, b.v); }
    friend Int4 operator^(Int4 a, Int4 b) { return _mm_xor_si128(a.v, b.v); }
    friend Int4 operator==(Int4 a, Int4 b) { return _mm_cmpeq_epi32(a.v, b.v); }
    Int4 shiftLeft(int n) const { return _mm_slli_epi32(v, n); }
    Int4 shiftRight(int n) const { return _mm_srai_epi32(v, n); }
};
inline Int4 toInt4Truncate(Float4 a) { return _mm_cvttps_epi32(a.v); }
inline Float4 toFloat4(Int4 a) { return _mm_cvtepi32_ps(a.v); }
inline Float4 asFloat4(Int4 a) { return _mm_castsi128_ps(a.v); }
inline Int4 asInt4(Float4 a) { return _mm_castps_si128(a.v); }

// The same operations under the names that the wider types of QuelinLib/Wide.h
// share, so one kernel template serves every width.
inline Int4 truncateToInt(Float4 a) { return toInt4Truncate(a); }
inline Float4 convertToFloat(Int4 a) { return toFloat4(a); }
inline Float4 bitsToFloat(Int4 a) { return asFloat4(a); }
inline Int4 bitsToInt(Float4 a) { return asInt4(a); }
/// About 12 bits; one Newton step (r * (2 - a * r)) brings it near 23.
inline Float4 rcpApprox(Float4 a) { return _mm_rcp_ps(a.v); }
/// True when any lane of a comparison result is set.
inline bool anyLane(Float4 mask) { return _mm_movemask_ps(mask.v) != 0; }
/// Lanes holding NaN.
inline Float4 isNaN(Float4 a) { return _mm_cmpunord_ps(a.v, a.v); }
/// base[index[i]] per lane (four scalar loads: SSE has no gather).
inline Float4 gather(float const* base, Int4 index) {
    alignas(16) int i[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(i), index.v);
    return Float4(base[i[0]], base[i[1]], base[i[2]], base[i[3]]);
}
/// The first three of the four floats at base + index[i], as three planes
/// (entries of tables kept as four floats each).
inline void gatherRgb(float const* base, Int4 index, Float4& r, Float4& g, Float4& b) {
    alignas(16) int i[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(i), index.v);
    __m128 e0 = _mm_loadu_ps(base + i[0]), e1 = _mm_loadu_ps(base + i[1]);
    __m128 e2 = _mm_loadu_ps(base + i[2]), e3 = _mm_loadu_ps(base + i[3]);
    _MM_TRANSPOSE4_PS(e0, e1, e2, e3);
    r = e0, g = e1, b = e2;
}
/// table[index] for indices below 8 and 32 (the AVX forms permute registers).
inline Float4 lookup8(float const* table, Int4 index) { return gather(table, index); }
inline Float4 lookup32(float const* table, Int4 index) { return gather(table, index); }
/// Four packed RGB pixels (12 floats) as red, green and blue lanes, and back.
inline void loadRgbPlanes(float const* p, Float4& r, Float4& g, Float4& b) {
    // a = r0 g0 b0 r1, c = g1 b1 r2 g2, d = b2 r3 g3 b3; each plane from two
    // pair-duplicating shuffles and one that picks the even lanes.
    __m128 const a = _mm_loadu_ps(p), c = _mm_loadu_ps(p + 4), d = _mm_loadu_ps(p + 8);
    constexpr int EVEN = _MM_SHUFFLE(2, 0, 2, 0);
    r = _mm_shuffle_ps(_mm_shuffle_ps(a, a, _MM_SHUFFLE(3, 3, 0, 0)), _mm_shuffle_ps(c, d, _MM_SHUFFLE(1, 1, 2, 2)), EVEN);
    g = _mm_shuffle_ps(_mm_shuffle_ps(a, c, _MM_SHUFFLE(0, 0, 1, 1)), _mm_shuffle_ps(c, d, _MM_SHUFFLE(2, 2, 3, 3)), EVEN);
    b = _mm_shuffle_ps(_mm_shuffle_ps(a, c, _MM_SHUFFLE(1, 1, 2, 2)), _mm_shuffle_ps(d, d, _MM_SHUFFLE(3, 3, 0, 0)), EVEN);
}
inline void storeRgbPlanes(float* p, Float4 r, Float4 g, Float4 b) {
    constexpr int EVEN = _MM_SHUFFLE(2, 0, 2, 0);
    __m128 const a = _mm_shuffle_ps(_mm_unpacklo_ps(r.v, g.v), _mm_shuffle_ps(b.v, r.v, _MM_SHUFFLE(1, 1, 0, 0)),
                                    _MM_SHUFFLE(2, 0, 1, 0));
    __m128 const c = _mm_shuffle_ps(_mm_shuffle_ps(g.v, b.v, _MM_SHUFFLE(1, 1, 1, 1)),
                                    _mm_shuffle_ps(r.v, g.v, _MM_SHUFFLE(2, 2, 2, 2)), EVEN);
    __m128 const d = _mm_shuffle_ps(_mm_shuffle_ps(b.v, r.v, _MM_SHUFFLE(3, 3, 2, 2)),
                                    _mm_shuffle_ps(g.v, b.v, _MM_SHUFFLE(3, 3, 3, 3)), EVEN);
    _mm_storeu_ps(p, a);
    _mm_storeu_ps(p + 4, c);
    _mm_storeu_ps(p + 8, d);
}

#else
// Portable fallback with the same interface.
struct Float4 {
    float l[4];
    Float4() : l{0, 0, 0, 0} {}
    Float4(float s) : l{s, s, s, s} {}
    Float4(float a, float b, float c, float d) : l{a, b, c, d} {}
    static Float4 load(float const* p) { return {p[0], p[1], p[2], p[3]}; }
    static Float4 fromBytes(void const* p) {
        auto const* b = static_cast<std::uint8_t const*>(p);
        return {float(b[0]), float(b[1]), float(b[2]), float(b[3])};
    }
    void store(float* p) const { for (int i = 0; i < 4; ++i) p[i] = l[i]; }
    float operator[](int i) const { return l[i]; }
    float x() const { return l[0]; }
#define QF4_OP(op) friend Float4 operator op(Float4 a, Float4 b) { return {a.l[0] op b.l[0], a.l[1] op b.l[1], a.l[2] op b.l[2], a.l[3] op b.l[3]}; }
    QF4_OP(+) QF4_OP(-) QF4_OP(*) QF4_OP(/)
#undef QF4_OP
    friend Float4 operator-(Float4 a) { return {-a.l[0], -a.l[1], -a.l[2], -a.l[3]}; }
    Float4& operator+=(Float4 b) { return *this = *this + b; }
    Float4& operator*=(Float4 b) { return *this = *this * b; }
};
#endif

} // namespace Quelin
