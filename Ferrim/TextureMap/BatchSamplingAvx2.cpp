// The batch set-up in eight lanes; built with AVX2 but without FMA (see
// Ferrim/CMakeLists.txt): a fused multiply-add rounds once where the one-point
// path rounds twice, and the lanes must give its bits. What this file
// instantiates from the headers is inlined or local to it: an out-of-line
// copy built with AVX2 could otherwise stand in for the portable one.
#include "Ferrim/TextureMap/BatchSampling.h"

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace Quelin::TextureSampling::Batch {

#if defined(__AVX2__) && !defined(__FMA__)

namespace {

using F8 = __m256;
using I8 = __m256i;

F8 splat(float x) { return _mm256_set1_ps(x); }
I8 splat(int x) { return _mm256_set1_epi32(x); }
F8 pick(F8 mask, F8 yes, F8 no) { return _mm256_blendv_ps(no, yes, mask); }
I8 pick(I8 mask, I8 yes, I8 no) { return _mm256_blendv_epi8(no, yes, mask); }

/// wrapCoordinate of UvMapper.h, lane by lane.
F8 wrap(F8 x, WrapMode mode, F8& inside) {
    switch (mode) {
    case WrapMode::NoTiling:
        inside = _mm256_and_ps(inside, _mm256_and_ps(_mm256_cmp_ps(x, splat(0.f), _CMP_GE_OQ),
                                                     _mm256_cmp_ps(x, splat(1.f), _CMP_LE_OQ)));
        return x;
    case WrapMode::Repeat: {
        F8 const r = _mm256_sub_ps(x, _mm256_floor_ps(x));
        F8 const ok = _mm256_and_ps(_mm256_cmp_ps(r, splat(0.f), _CMP_GE_OQ), _mm256_cmp_ps(r, splat(1.f), _CMP_LT_OQ));
        F8 const off = pick(_mm256_cmp_ps(r, splat(1.f), _CMP_GE_OQ), splat(0.99999994f), splat(0.f));
        return pick(ok, r, off);
    }
    case WrapMode::Mirror: {
        F8 t = _mm256_sub_ps(x, _mm256_mul_ps(splat(2.f), _mm256_floor_ps(_mm256_mul_ps(x, splat(0.5f)))));
        t = pick(_mm256_cmp_ps(t, splat(2.f), _CMP_LT_OQ), t, splat(0.f));
        return pick(_mm256_cmp_ps(t, splat(1.f), _CMP_LE_OQ), t, _mm256_sub_ps(splat(2.f), t));
    }
    case WrapMode::Clamp: break;
    }
    F8 const inner = pick(_mm256_cmp_ps(x, splat(1.f), _CMP_LT_OQ), x, splat(1.f));
    return pick(_mm256_cmp_ps(x, splat(0.f), _CMP_GT_OQ), inner, splat(0.f));
}

/// log2Approx of ColorMath.h for mantissas in [1, 2): its exponent is 0.
F8 log2Mantissa(F8 m) {
    F8 const high = _mm256_cmp_ps(m, splat(1.41421356f), _CMP_GT_OQ);
    m = pick(high, _mm256_mul_ps(m, splat(0.5f)), m);
    F8 const exponent = _mm256_add_ps(splat(0.f), pick(high, splat(1.f), splat(0.f)));
    F8 const t = _mm256_div_ps(_mm256_sub_ps(m, splat(1.f)), _mm256_add_ps(m, splat(1.f)));
    // log2AtanhSeries of WideMath.h.
    F8 const t2 = _mm256_mul_ps(t, t);
    constexpr float C1 = 2.8853900817779268f;
    F8 p = splat(C1 / 7.f);
    p = _mm256_add_ps(_mm256_mul_ps(p, t2), splat(C1 / 5.f));
    p = _mm256_add_ps(_mm256_mul_ps(p, t2), splat(C1 / 3.f));
    p = _mm256_add_ps(_mm256_mul_ps(p, t2), splat(C1));
    return _mm256_add_ps(exponent, _mm256_mul_ps(p, t));
}

/// Entries `index` of a table of WIDE_MAX_LEVELS, from registers.
F8 lookup(float const* table, I8 index) {
    F8 const low = _mm256_permutevar8x32_ps(_mm256_load_ps(table), index);
    F8 const high = _mm256_permutevar8x32_ps(_mm256_load_ps(table + 8), index);
    return pick(_mm256_castsi256_ps(_mm256_cmpgt_epi32(index, splat(7))), high, low);
}
I8 lookup(std::int32_t const* table, I8 index) {
    static_assert(sizeof(float) == sizeof(std::int32_t));
    return _mm256_castps_si256(lookup(reinterpret_cast<float const*>(table), index));
}

/// bilinearTaps of TextureSampling.h for the levels of the lanes.
void taps(Setup const& s, Block& b, int set, I8 level, F8 u, F8 v) {
    F8 const widthF = lookup(s.widthF, level), heightF = lookup(s.heightF, level);
    I8 const width = lookup(s.width, level), height = lookup(s.height, level);
    F8 const x = _mm256_sub_ps(_mm256_mul_ps(u, widthF), splat(0.5f));
    F8 const y = _mm256_sub_ps(_mm256_mul_ps(_mm256_sub_ps(splat(1.f), v), heightF), splat(0.5f));
    F8 const fx0 = _mm256_floor_ps(x), fy0 = _mm256_floor_ps(y);
    I8 x0 = _mm256_cvttps_epi32(fx0), y0 = _mm256_cvttps_epi32(fy0);
    I8 x1 = _mm256_add_epi32(x0, splat(1)), y1 = _mm256_add_epi32(y0, splat(1));
    I8 const zero = _mm256_setzero_si256(), one = splat(1);
    I8 const lastX = _mm256_sub_epi32(width, one), lastY = _mm256_sub_epi32(height, one);
    bool const repeatU = s.addressing.u == Address::Repeat, repeatV = s.addressing.v == Address::Repeat;
    x0 = pick(_mm256_cmpgt_epi32(zero, x0), repeatU ? lastX : zero, x0);
    x1 = pick(_mm256_cmpgt_epi32(width, x1), x1, repeatU ? zero : lastX);
    y0 = pick(_mm256_cmpgt_epi32(zero, y0), repeatV ? lastY : zero, y0);
    y1 = pick(_mm256_cmpgt_epi32(height, y1), y1, repeatV ? zero : lastY);
    _mm256_store_si256(reinterpret_cast<I8*>(b.x0[set]), x0);
    _mm256_store_si256(reinterpret_cast<I8*>(b.x1[set]), x1);
    _mm256_store_si256(reinterpret_cast<I8*>(b.y0[set]), y0);
    _mm256_store_si256(reinterpret_cast<I8*>(b.y1[set]), y1);
    _mm256_store_ps(b.fx[set], _mm256_sub_ps(x, fx0));
    _mm256_store_ps(b.fy[set], _mm256_sub_ps(y, fy0));
}

/// One field of eight points: loaded one by one, as the points' own stores wrote them.
template <typename Field> F8 gatherPoints(MapLookupPoint const* p, Field field) {
    return _mm256_setr_ps(field(p[0]), field(p[1]), field(p[2]), field(p[3]), field(p[4]), field(p[5]), field(p[6]),
                          field(p[7]));
}

void prepareAvx2(Setup const& s, MapLookupPoint const* points, Block& b) {
    F8 inside = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    F8 u = wrap(gatherPoints(points, [](MapLookupPoint const& p) { return p.uvw.x; }), s.wrapU, inside);
    F8 v = wrap(gatherPoints(points, [](MapLookupPoint const& p) { return p.uvw.y; }), s.wrapV, inside);
    // Lanes outside take the taps of (0, 0), as the scalar set-up does.
    u = _mm256_and_ps(u, inside);
    v = _mm256_and_ps(v, inside);
    I8 const in = _mm256_castps_si256(inside);
    I8 kind = pick(in, splat(int(OneLevel)), splat(int(Outside)));
    I8 level = _mm256_setzero_si256();
    F8 fraction = splat(0.f);
    if (s.filtered) {
        F8 const du = gatherPoints(points, [](MapLookupPoint const& p) { return p.dUvw.x; });
        F8 const dv = gatherPoints(points, [](MapLookupPoint const& p) { return p.dUvw.y; });
        F8 w = _mm256_min_ps(du, dv);  // du < dv ? du : dv
        w = pick(_mm256_cmp_ps(w, splat(1e-8f), _CMP_GE_OQ), w, splat(1e-8f));
        I8 const bits = _mm256_castps_si256(w);
        I8 const top = splat(s.topLevel);
        I8 const whole = _mm256_add_epi32(_mm256_sub_epi32(_mm256_srli_epi32(bits, 23), splat(127)), top);
        I8 const coarsest = _mm256_cmpgt_epi32(whole, _mm256_sub_epi32(top, splat(1)));  // whole >= top
        I8 const between = _mm256_andnot_si256(coarsest, _mm256_cmpgt_epi32(whole, splat(-1)));
        level = pick(coarsest, top, pick(between, whole, level));
        I8 const blended = _mm256_and_si256(between, in);
        kind = pick(blended, splat(int(TwoLevels)), kind);
        F8 const mantissa = _mm256_castsi256_ps(
            _mm256_or_si256(_mm256_and_si256(bits, splat(0x007FFFFF)), splat(0x3F800000)));
        fraction = _mm256_and_ps(log2Mantissa(mantissa), _mm256_castsi256_ps(blended));
        level = _mm256_and_si256(level, in);
    }
    _mm256_store_si256(reinterpret_cast<I8*>(b.kind), kind);
    _mm256_store_si256(reinterpret_cast<I8*>(b.level), level);
    _mm256_store_ps(b.fraction, fraction);
    taps(s, b, 0, level, u, v);
    I8 const next = _mm256_min_epi32(_mm256_add_epi32(level, splat(1)), splat(s.topLevel));
    taps(s, b, 1, next, u, v);
}

} // namespace

Prepare avx2Prepare() { return &prepareAvx2; }

// The whole loop in this build: a call between builds of different vector
// widths per eight points costs more than the set-up saves.
Filter avx2Filter(PixelFormat format, Conversion conversion) {
    Filter f = nullptr;
    visitBatchFormat(format, conversion, [&]<PixelFormat F, Conversion C>() {
        f = &filterChunk<F, C, &prepareAvx2>;
        return true;
    });
    return f;
}

#else

Prepare avx2Prepare() { return nullptr; }
Filter avx2Filter(PixelFormat, Conversion) { return nullptr; }

#endif

} // namespace Quelin::TextureSampling::Batch
