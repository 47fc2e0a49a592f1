// The batch set-up, and the filter of 8-bit texels through a table, in eight
// lanes; built with AVX2 but without FMA (see Ferrim/CMakeLists.txt): a fused
// multiply-add rounds once where the one-point path rounds twice, and the
// lanes must give its bits. What this file instantiates from the headers is
// inlined or local to it: an out-of-line copy built with AVX2 could otherwise
// stand in for the portable one.
#include "Ferrim/TextureMap/BatchSampling.h"

#include <cstddef>

#if defined(__AVX2__)
#include <immintrin.h>
#endif

namespace Quelin::TextureSampling::Batch {

#if defined(__AVX2__) && !defined(__FMA__)

namespace {

using F8 = __m256;
using I8 = __m256i;

// The set-up's steps are called once per eight points: inlined, their lanes stay in registers.
#define QUELIN_AVX2_INLINE [[gnu::always_inline]] inline

F8 splat(float x) { return _mm256_set1_ps(x); }
I8 splat(int x) { return _mm256_set1_epi32(x); }
F8 pick(F8 mask, F8 yes, F8 no) { return _mm256_blendv_ps(no, yes, mask); }
I8 pick(I8 mask, I8 yes, I8 no) { return _mm256_blendv_epi8(no, yes, mask); }

/// wrapCoordinate of UvMapper.h, lane by lane.
QUELIN_AVX2_INLINE F8 wrap(F8 x, WrapMode mode, F8& inside) {
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
QUELIN_AVX2_INLINE F8 log2Mantissa(F8 m) {
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
QUELIN_AVX2_INLINE F8 lookup(float const* table, I8 index) {
    F8 const low = _mm256_permutevar8x32_ps(_mm256_load_ps(table), index);
    F8 const high = _mm256_permutevar8x32_ps(_mm256_load_ps(table + 8), index);
    return pick(_mm256_castsi256_ps(_mm256_cmpgt_epi32(index, splat(7))), high, low);
}
QUELIN_AVX2_INLINE I8 lookup(std::int32_t const* table, I8 index) {
    static_assert(sizeof(float) == sizeof(std::int32_t));
    return _mm256_castps_si256(lookup(reinterpret_cast<float const*>(table), index));
}

/// bilinearTaps of TextureSampling.h for the levels of the lanes.
QUELIN_AVX2_INLINE void taps(Setup const& s, Block& b, int set, I8 level, F8 u, F8 v) {
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

/// The u and v (and with `footprints`, du and dv) of eight points, in lanes:
/// each point's floats are read in two 16-byte loads and transposed.
template <bool FOOTPRINTS>
QUELIN_AVX2_INLINE void loadPoints(MapLookupPoint const* p, F8& u, F8& v, F8& du, F8& dv) {
    static_assert(sizeof(MapLookupPoint) == 6 * sizeof(float) && offsetof(MapLookupPoint, dUvw) == 3 * sizeof(float));
    float const* const f = reinterpret_cast<float const*>(p);
    // Point i in the low half, point i + 4 in the high one: (u, v, w, du).
    auto const pair = [&](int i, int at) {
        return _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(f + 6 * i + at)), _mm_loadu_ps(f + 6 * (i + 4) + at), 1);
    };
    {
        F8 const a0 = pair(0, 0), a1 = pair(1, 0), a2 = pair(2, 0), a3 = pair(3, 0);
        F8 const uv01 = _mm256_unpacklo_ps(a0, a1), uv23 = _mm256_unpacklo_ps(a2, a3);  // u0 u1 v0 v1, u2 u3 v2 v3
        u = _mm256_shuffle_ps(uv01, uv23, _MM_SHUFFLE(1, 0, 1, 0));
        v = _mm256_shuffle_ps(uv01, uv23, _MM_SHUFFLE(3, 2, 3, 2));
    }
    if constexpr (FOOTPRINTS) {
        // (w, du, dv, dw): the last point's last float is the batch's last.
        F8 const b0 = pair(0, 2), b1 = pair(1, 2), b2 = pair(2, 2), b3 = pair(3, 2);
        F8 const du01 = _mm256_unpacklo_ps(b0, b1), du23 = _mm256_unpacklo_ps(b2, b3);  // w0 w1 du0 du1, ...
        F8 const dv01 = _mm256_unpackhi_ps(b0, b1), dv23 = _mm256_unpackhi_ps(b2, b3);  // dv0 dv1 dw0 dw1, ...
        du = _mm256_shuffle_ps(du01, du23, _MM_SHUFFLE(3, 2, 3, 2));
        dv = _mm256_shuffle_ps(dv01, dv23, _MM_SHUFFLE(1, 0, 1, 0));
    }
}

QUELIN_AVX2_INLINE void prepareAvx2(Setup const& s, MapLookupPoint const* points, Block& b) {
    F8 inside = _mm256_castsi256_ps(_mm256_set1_epi32(-1));
    F8 u, v, du, dv;
    if (s.filtered) loadPoints<true>(points, u, v, du, dv);
    else loadPoints<false>(points, u, v, du, dv);
    u = wrap(u, s.wrapU, inside);
    v = wrap(v, s.wrapV, inside);
    // Lanes outside take the taps of (0, 0), as the scalar set-up does.
    u = _mm256_and_ps(u, inside);
    v = _mm256_and_ps(v, inside);
    I8 const in = _mm256_castps_si256(inside);
    I8 kind = pick(in, splat(int(OneLevel)), splat(int(Outside)));
    I8 level = _mm256_setzero_si256();
    F8 fraction = splat(0.f);
    if (s.filtered) {
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
    if (s.filtered) taps(s, b, 1, _mm256_min_epi32(_mm256_add_epi32(level, splat(1)), splat(s.topLevel)), u, v);
}

// ---- 8-bit texels through a table, eight points at a time: the texels of
// each tap and channel are looked up into the lanes of one register, and the
// blends run on whole registers with the one-point kernels' operations in
// their order (Detail::blendBilinear, then the level blend), lane by lane the
// same bits.

/// The texel addresses of a block, [set][tap][lane]; the taps are top left,
/// top right, bottom left and bottom right.
struct TexelAddresses {
    alignas(32) std::byte const* at[2][4][LANES];
};

/// The addresses of tap set `set`, whose lanes are on levels `level`.
template <int BYTES>
QUELIN_AVX2_INLINE void tapAddresses(Block const& b, int set, I8 level, std::int32_t const* rowBytes,
                                     std::byte const* const* pixels, TexelAddresses& a) {
    auto const load = [](std::int32_t const* p) { return _mm256_load_si256(reinterpret_cast<I8 const*>(p)); };
    auto const bytes = [](I8 x) {
        static_assert(BYTES == 3 || BYTES == 4);
        return BYTES == 4 ? _mm256_slli_epi32(x, 2) : _mm256_add_epi32(x, _mm256_slli_epi32(x, 1));
    };
    // Offsets from the level's first texel in 32 bits (the caller checked the
    // levels' sizes), then added to the level's address in 64.
    I8 const row = lookup(rowBytes, level);
    I8 const r0 = _mm256_mullo_epi32(load(b.y0[set]), row), r1 = _mm256_mullo_epi32(load(b.y1[set]), row);
    I8 const c0 = bytes(load(b.x0[set])), c1 = bytes(load(b.x1[set]));
    I8 const offsets[4] = {_mm256_add_epi32(r0, c0), _mm256_add_epi32(r0, c1), _mm256_add_epi32(r1, c0),
                           _mm256_add_epi32(r1, c1)};
    alignas(32) std::int32_t levels[LANES];
    _mm256_store_si256(reinterpret_cast<I8*>(levels), level);
    auto const base = [&](int i) { return std::int64_t(reinterpret_cast<std::uintptr_t>(pixels[levels[i]])); };
    I8 const low = _mm256_setr_epi64x(base(0), base(1), base(2), base(3));
    I8 const high = _mm256_setr_epi64x(base(4), base(5), base(6), base(7));
    for (int k = 0; k < 4; ++k) {
        I8 const o = offsets[k];
        _mm256_store_si256(reinterpret_cast<I8*>(&a.at[set][k][0]),
                           _mm256_add_epi64(low, _mm256_cvtepi32_epi64(_mm256_castsi256_si128(o))));
        _mm256_store_si256(reinterpret_cast<I8*>(&a.at[set][k][4]),
                           _mm256_add_epi64(high, _mm256_cvtepi32_epi64(_mm256_extracti128_si256(o, 1))));
    }
}

/// The texels at `at` in planes r, g, b, a: Detail::texel lane by lane (the
/// colour bytes through the table; alpha i is i * (1/255), as the table's
/// alpha entries are made, computed on the whole plane).
template <int CHANNELS>
QUELIN_AVX2_INLINE void texelLanes(std::byte const* const* at, float const* table, F8 (&out)[4]) {
    if constexpr (CHANNELS == 4) {
        // One load per texel, split in registers (a quarter of the loads of one
        // per byte), four lanes at a time (fewer texels held in registers).
        __m128 half[2][3];
        __m128i texels[2];
        for (int h = 0; h < 2; ++h) {
            std::uint32_t w[4];
            for (int i = 0; i < 4; ++i) std::memcpy(&w[i], at[4 * h + i], sizeof w[i]);
            auto const e = [&](int i, int c) { return table[(w[i] >> (8 * c)) & 255u]; };
            for (int c = 0; c < 3; ++c) half[h][c] = _mm_setr_ps(e(0, c), e(1, c), e(2, c), e(3, c));
            texels[h] = _mm_setr_epi32(int(w[0]), int(w[1]), int(w[2]), int(w[3]));
        }
        for (int c = 0; c < 3; ++c) out[c] = _mm256_set_m128(half[1][c], half[0][c]);
        I8 const alpha = _mm256_srli_epi32(_mm256_set_m128i(texels[1], texels[0]), 24);
        out[3] = _mm256_mul_ps(_mm256_cvtepi32_ps(alpha), splat(1.f / 255.f));
    } else {
        // Three bytes: a four-byte load could pass the end of the level.
        auto const e = [&](int i, int c) { return table[std::to_integer<unsigned>(at[i][c])]; };
        for (int c = 0; c < 3; ++c)
            out[c] = _mm256_setr_ps(e(0, c), e(1, c), e(2, c), e(3, c), e(4, c), e(5, c), e(6, c), e(7, c));
        out[3] = splat(1.f);
    }
}

/// Detail::blendBilinear's step from `a` to `b` by `f`, on eight lanes.
QUELIN_AVX2_INLINE F8 lerpLanes(F8 a, F8 b, F8 f) { return _mm256_add_ps(a, _mm256_mul_ps(_mm256_sub_ps(b, a), f)); }

/// The bilinear colour (r, g, b, a planes) of a tap set.
template <int CHANNELS>
QUELIN_AVX2_INLINE void bilinearLanes(TexelAddresses const& a, Block const& b, int set, float const* table,
                                      F8 (&out)[4]) {
    F8 const fx = _mm256_load_ps(b.fx[set]), fy = _mm256_load_ps(b.fy[set]);
    F8 left[4], right[4], top[4];
    // Top row, then bottom row: fewer registers live than all four taps.
    texelLanes<CHANNELS>(a.at[set][0], table, left);
    texelLanes<CHANNELS>(a.at[set][1], table, right);
    for (int c = 0; c < 4; ++c) top[c] = lerpLanes(left[c], right[c], fx);
    texelLanes<CHANNELS>(a.at[set][2], table, left);
    texelLanes<CHANNELS>(a.at[set][3], table, right);
    for (int c = 0; c < 4; ++c) out[c] = lerpLanes(top[c], lerpLanes(left[c], right[c], fx), fy);
}

/// Writes lanes [0, count) of the planes as colours.
QUELIN_AVX2_INLINE void storeColours(F8 const (&p)[4], int count, Float4* colours) {
    F8 const rg0 = _mm256_unpacklo_ps(p[0], p[1]), rg1 = _mm256_unpackhi_ps(p[0], p[1]);
    F8 const ba0 = _mm256_unpacklo_ps(p[2], p[3]), ba1 = _mm256_unpackhi_ps(p[2], p[3]);
    // Lanes 0, 1, 2, 3 in the low halves, 4, 5, 6, 7 in the high ones.
    F8 const q[4] = {_mm256_shuffle_ps(rg0, ba0, _MM_SHUFFLE(1, 0, 1, 0)),
                     _mm256_shuffle_ps(rg0, ba0, _MM_SHUFFLE(3, 2, 3, 2)),
                     _mm256_shuffle_ps(rg1, ba1, _MM_SHUFFLE(1, 0, 1, 0)),
                     _mm256_shuffle_ps(rg1, ba1, _MM_SHUFFLE(3, 2, 3, 2))};
    float* const out = reinterpret_cast<float*>(colours);
    static_assert(sizeof(Float4) == 4 * sizeof(float));
    if (count == LANES) {
        for (int i = 0; i < 4; ++i) {
            _mm_storeu_ps(out + 4 * i, _mm256_castps256_ps128(q[i]));
            _mm_storeu_ps(out + 4 * (i + 4), _mm256_extractf128_ps(q[i], 1));
        }
        return;
    }
    for (int i = 0; i < count; ++i)
        _mm_storeu_ps(out + 4 * i, i < 4 ? _mm256_castps256_ps128(q[i]) : _mm256_extractf128_ps(q[i - 4], 1));
}

/// filterChunk for 8-bit texels through a table; false (nothing written) when
/// a level's byte offsets do not fit in 32 bits.
template <PixelFormat F>
bool filterTable8(Setup const& setup, std::span<MapLookupPoint const> points, std::byte const* const* pixels,
                  std::int64_t const* rowBytes, TexelConversion const& cv, Float4* colours, bool* inside) {
    constexpr int BYTES = Detail::bytesOf(F), CHANNELS = Detail::channelsOf(F);
    alignas(32) std::int32_t rowBytes32[WIDE_MAX_LEVELS] = {};
    for (int l = 0; l <= setup.topLevel; ++l) {
        if (rowBytes[l] * std::int64_t(setup.height[l]) > std::numeric_limits<std::int32_t>::max()) return false;
        rowBytes32[l] = std::int32_t(rowBytes[l]);
    }
    std::size_t const n = std::min(points.size(), CHUNK);
    std::size_t const blockCount = (n + LANES - 1) / LANES;
    Block blocks[CHUNK / LANES];
    TexelAddresses addresses[CHUNK / LANES];
    bool twoLevels[CHUNK / LANES];
    I8 const top = splat(setup.topLevel);
    // Every block's set-up and texel addresses first, so that the texels of
    // the blocks ahead can be asked for while one is filtered.
    for (std::size_t k = 0; k < blockCount; ++k) {
        Block& b = blocks[k];
        // Through a lambda: its type is this file's own, so no instantiation
        // built for AVX2 can stand in for the portable build's.
        prepareBlock([](Setup const& s, MapLookupPoint const* p, Block& out) { prepareAvx2(s, p, out); }, setup,
                     points.first(n), k * LANES, b);
        I8 const level = _mm256_load_si256(reinterpret_cast<I8 const*>(b.level));
        tapAddresses<BYTES>(b, 0, level, rowBytes32, pixels, addresses[k]);
        I8 const kind = _mm256_load_si256(reinterpret_cast<I8 const*>(b.kind));
        twoLevels[k] = _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(kind, splat(int(TwoLevels))))) != 0;
        if (twoLevels[k])
            tapAddresses<BYTES>(b, 1, _mm256_min_epi32(_mm256_add_epi32(level, splat(1)), top), rowBytes32, pixels,
                                addresses[k]);
    }
    // The rows of the next block are on their way while one is filtered
    // (further ahead starts more reads than the processor keeps in flight, and
    // measured slower).
    constexpr std::size_t AHEAD = 1;
    auto const ask = [&](std::size_t k) {
        for (int set = 0; set < (twoLevels[k] ? 2 : 1); ++set)
            for (int i = 0; i < LANES; ++i) {
                prefetchLine(addresses[k].at[set][0][i]);
                prefetchLine(addresses[k].at[set][2][i]);
            }
    };
    for (std::size_t k = 0; k < std::min(blockCount, AHEAD); ++k) ask(k);
    for (std::size_t k = 0; k < blockCount; ++k) {
        if (k + AHEAD < blockCount) ask(k + AHEAD);
        Block const& b = blocks[k];
        std::size_t const first = k * LANES;
        int const count = int(std::min<std::size_t>(LANES, n - first));
        F8 colour[4];
        bilinearLanes<CHANNELS>(addresses[k], b, 0, cv.table, colour);
        if (twoLevels[k]) {
            F8 coarse[4];
            bilinearLanes<CHANNELS>(addresses[k], b, 1, cv.table, coarse);
            I8 const kind = _mm256_load_si256(reinterpret_cast<I8 const*>(b.kind));
            F8 const two = _mm256_castsi256_ps(_mm256_cmpeq_epi32(kind, splat(int(TwoLevels))));
            F8 const fraction = _mm256_load_ps(b.fraction);
            // The level blend of the one-point path, a + (b - a) f, where the lane blends.
            for (int c = 0; c < 4; ++c) colour[c] = pick(two, lerpLanes(colour[c], coarse[c], fraction), colour[c]);
        }
        storeColours(colour, count, colours + first);
        // The lanes' inside flags as eight bytes, 1 or 0.
        I8 const in = _mm256_srli_epi32(_mm256_cmpgt_epi32(_mm256_load_si256(reinterpret_cast<I8 const*>(b.kind)),
                                                           _mm256_setzero_si256()), 31);
        __m128i const words = _mm_packs_epi32(_mm256_castsi256_si128(in), _mm256_extracti128_si256(in, 1));
        std::uint64_t const flags = std::uint64_t(_mm_cvtsi128_si64(_mm_packus_epi16(words, words)));
        static_assert(sizeof(bool) == 1);
        std::memcpy(inside + first, &flags, std::size_t(count));
    }
    return true;
}

template <PixelFormat F>
void filterTable8Chunk(Setup const& setup, std::span<MapLookupPoint const> points, std::byte const* const* pixels,
                       std::int64_t const* rowBytes, TexelConversion const& cv, Float4* colours, bool* inside) {
    if (!filterTable8<F>(setup, points, pixels, rowBytes, cv, colours, inside))
        filterChunk<F, Conversion::Table8, &prepareAvx2>(setup, points, pixels, rowBytes, cv, colours, inside);
}

} // namespace

Prepare avx2Prepare() { return &prepareAvx2; }

// The whole loop in this build: a call between builds of different vector
// widths per eight points costs more than the set-up saves.
Filter avx2Filter(PixelFormat format, Conversion conversion) {
    Filter f = nullptr;
    visitBatchFormat(format, conversion, [&]<PixelFormat F, Conversion C>() {
        if constexpr (C == Conversion::Table8 && (F == PixelFormat::Rgba8 || F == PixelFormat::Rgb8))
            f = &filterTable8Chunk<F>;
        else
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
