#pragma once
// Batched bilinear and trilinear lookups of resident textures, eight points at
// a time. The arithmetic before the texel loads (wrapping, level choice and
// blend fraction, tap indices and weights) runs in eight lanes where the
// processor has AVX2, with the same float operations in the same order as the
// one-point kernels of TextureSampling.h, so each point's result is bit for
// bit the one-point lookup's. The texel loads and the blend then run per point
// with the one-point code, but for 8-bit texels through a table in the AVX2
// build, whose texels are looked up into eight-lane planes and blended eight
// points at a time (BatchSamplingAvx2.cpp). Per-sample code does arithmetic
// and loads only.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>

#include "Ferrim/Export.h"
#include "Ferrim/IMap.h"
#include "Ferrim/TextureMap/TextureSampling.h"
#include "Ferrim/UvMapper.h"

namespace Quelin::TextureSampling::Batch {

constexpr int LANES = 8;
/// Levels of a chain whose sides fit in an int.
constexpr int MAX_LEVELS = 32;
/// Levels the eight-lane set-up reads its shapes from registers for (sides up to 32768).
constexpr int WIDE_MAX_LEVELS = 16;

/// The texel addressing of a wrap mode (no tiling reads as clamped).
inline Address addressOf(WrapMode mode) {
    switch (mode) {
    case WrapMode::NoTiling:
    case WrapMode::Clamp: return Address::Clamp;
    case WrapMode::Repeat: return Address::Repeat;
    case WrapMode::Mirror: return Address::Mirror;
    }
    Quelin::Detail::throwStopException("UvMapper", __LINE__);
}

/// What the lanes of a batch share: the wrap modes, the filtering and the
/// shapes of the levels.
struct Setup {
    WrapMode wrapU = WrapMode::Clamp, wrapV = WrapMode::Clamp;
    Addressing addressing;
    bool filtered = false;
    int topLevel = 0;  ///< levels - 1
    // Levels up to topLevel are set by the caller. The eight-lane set-up reads
    // the first WIDE_MAX_LEVELS entries whatever the chain: those start at zero,
    // the rest is left unset (a set-up is made per batch).
    alignas(32) float widthF[MAX_LEVELS];
    alignas(32) float heightF[MAX_LEVELS];
    alignas(32) int width[MAX_LEVELS];
    alignas(32) int height[MAX_LEVELS];

    Setup() {
        std::fill_n(widthF, WIDE_MAX_LEVELS, 0.f);
        std::fill_n(heightF, WIDE_MAX_LEVELS, 0.f);
        std::fill_n(width, WIDE_MAX_LEVELS, 0);
        std::fill_n(height, WIDE_MAX_LEVELS, 0);
    }
};

/// How many levels a lane reads: none (outside a NoTiling axis), one, or two blended.
enum Kind : std::int32_t { Outside = 0, OneLevel = 1, TwoLevels = 2 };

/// What the set-up makes of eight points. Tap set 0 is on the finer level,
/// set 1 on the next coarser one (read for two-level lanes only, and set by a
/// filtered set-up only).
struct Block {
    alignas(32) std::int32_t kind[LANES];
    alignas(32) std::int32_t level[LANES];  ///< the finer level
    alignas(32) float fraction[LANES];      ///< weight of the coarser level
    alignas(32) std::int32_t x0[2][LANES], x1[2][LANES], y0[2][LANES], y1[2][LANES];
    alignas(32) float fx[2][LANES], fy[2][LANES];
};

/// Fills `block` from eight points (UV and footprint as given).
using Prepare = void (*)(Setup const& setup, MapLookupPoint const* points, Block& block);

/// Lane by lane with the one-point functions: the reference, and the portable path.
FERRIM_EXPORT void prepareScalar(Setup const& setup, MapLookupPoint const* points, Block& block);
/// Eight lanes at once; null when the library was built without AVX2.
FERRIM_EXPORT Prepare avx2Prepare();

/// Detail::texel; an 8-bit RGBA texel is read in one load and split in
/// registers (the table entries are the same).
template <PixelFormat F, Conversion C> QUELIN_TEXTURE_KERNEL Float4 texel(std::byte const* p, TexelConversion const& cv) {
    if constexpr (F == PixelFormat::Rgba8 && C == Conversion::Table8) {
        std::uint32_t w;
        std::memcpy(&w, p, sizeof w);
        float const* t = cv.table;
        return Float4(t[w & 255u], t[(w >> 8) & 255u], t[(w >> 16) & 255u], t[256u + (w >> 24)]);
    } else {
        return Detail::texel<F, C>(p, cv);
    }
}

/// The texels and blend of lane `i`, `pixels` being the resident levels: the
/// same loads and operations as `sample` and the level blend of the one-point path.
template <PixelFormat F, Conversion C>
QUELIN_TEXTURE_KERNEL Float4 blendLane(Block const& b, int i, std::byte const* const* pixels,
                                       std::int64_t const* rowBytes, TexelConversion const& cv) {
    constexpr std::int64_t B = Detail::bytesOf(F);
    auto const bilinear = [&](int set, int level) {
        std::byte const* const p = pixels[level];
        std::byte const* const r0 = p + std::int64_t(b.y0[set][i]) * rowBytes[level];
        std::byte const* const r1 = p + std::int64_t(b.y1[set][i]) * rowBytes[level];
        std::int64_t const x0 = std::int64_t(b.x0[set][i]) * B, x1 = std::int64_t(b.x1[set][i]) * B;
        return Detail::blendBilinear(texel<F, C>(r0 + x0, cv), texel<F, C>(r0 + x1, cv),
                                     texel<F, C>(r1 + x0, cv), texel<F, C>(r1 + x1, cv),
                                     b.fx[set][i], b.fy[set][i]);
    };
    int const level = b.level[i];
    Float4 const a = bilinear(0, level);
    if (b.kind[i] != TwoLevels) return a;
    return a + (bilinear(1, level + 1) - a) * Float4(b.fraction[i]);
}

/// Starts the read of the cache line at `p`. GCC deletes a loop whose body
/// only prefetches (it has no effect the compiler must keep); volatile
/// assembly stays.
QUELIN_TEXTURE_KERNEL void prefetchLine(void const* p) {
#if defined(__GNUC__) && (defined(__x86_64__) || defined(__i386__))
    asm volatile("prefetcht0 (%0)" : : "r"(p));
#else
    __builtin_prefetch(p);
#endif
}

/// Starts the reads of lane `i`'s texel rows.
template <PixelFormat F>
QUELIN_TEXTURE_KERNEL void prefetchLane(Block const& b, int i, std::byte const* const* pixels, std::int64_t const* rowBytes) {
    if (b.kind[i] == Outside) return;
    constexpr std::int64_t B = Detail::bytesOf(F);
    int const sets = b.kind[i] == TwoLevels ? 2 : 1;
    for (int s = 0; s < sets; ++s) {
        int const level = b.level[i] + s;
        std::byte const* const p = pixels[level] + std::int64_t(b.x0[s][i]) * B;
        prefetchLine(p + std::int64_t(b.y0[s][i]) * rowBytes[level]);
        prefetchLine(p + std::int64_t(b.y1[s][i]) * rowBytes[level]);
    }
}

/// At most this many points per call of a `Filter`.
constexpr std::size_t CHUNK = 64;

/// Filters up to CHUNK points: the bounded linear colour of each point, and
/// whether it is inside the image (its colour is then meaningless otherwise).
/// `pixels` and `rowBytes` hold the resident levels of the set-up.
using Filter = void (*)(Setup const& setup, std::span<MapLookupPoint const> points, std::byte const* const* pixels,
                        std::int64_t const* rowBytes, TexelConversion const& cv, Float4* colours, bool* inside);

/// What selectFilter gives in the AVX2 build (null without it).
Filter avx2Filter(PixelFormat format, Conversion conversion);

/// The filter of a format and conversion for a chain of `levels` levels, in
/// the widest build this processor runs; null for the formats left to the
/// one-point path.
FERRIM_EXPORT Filter selectFilter(PixelFormat format, Conversion conversion, int levels);

/// The formats of typical files, in the conversions their evaluators pick,
/// as `visit.template operator()<F, C>()`; false for the others.
template <typename Visit> bool visitBatchFormat(PixelFormat format, Conversion conversion, Visit&& visit) {
    switch (format) {
    case PixelFormat::Rgba8:
        return conversion == Conversion::Table8 && visit.template operator()<PixelFormat::Rgba8, Conversion::Table8>();
    case PixelFormat::Rgb8:
        return conversion == Conversion::Table8 && visit.template operator()<PixelFormat::Rgb8, Conversion::Table8>();
    case PixelFormat::RgbaFloat:
        return conversion == Conversion::None && visit.template operator()<PixelFormat::RgbaFloat, Conversion::None>();
    case PixelFormat::RgbFloat:
        return conversion == Conversion::None && visit.template operator()<PixelFormat::RgbFloat, Conversion::None>();
    default: return false;
    }
}

/// Block `b` of the points from `first` on: eight whole points, or the last
/// few and harmless ones in the lanes beyond.
template <typename PrepareFn>
inline void prepareBlock(PrepareFn const& prepare, Setup const& setup, std::span<MapLookupPoint const> points,
                         std::size_t first, Block& b) {
    std::size_t const count = std::min<std::size_t>(LANES, points.size() - first);
    if (count == LANES) {
        prepare(setup, points.data() + first, b);
    } else {
        MapLookupPoint tail[LANES] = {};
        std::copy_n(points.data() + first, count, tail);
        prepare(setup, tail, b);
    }
}

/// The filter loop over one build's prepare; instantiated in each build's file.
template <PixelFormat F, Conversion C, Prepare P>
void filterChunk(Setup const& setup, std::span<MapLookupPoint const> points, std::byte const* const* pixels,
                 std::int64_t const* rowBytes, TexelConversion const& cv, Float4* colours, bool* inside) {
    std::size_t const n = std::min(points.size(), CHUNK);
    // All blocks first; then the texels, with the rows of a point PREFETCH
    // places ahead on their way (a long distance starts more reads than the
    // processor keeps in flight, a short one waits for each).
    constexpr std::size_t PREFETCH = 16;
    Block blocks[CHUNK / LANES];
    for (std::size_t first = 0, k = 0; first < n; first += LANES, ++k) prepareBlock(P, setup, points.first(n), first, blocks[k]);
    auto const ask = [&](std::size_t j) { prefetchLane<F>(blocks[j / LANES], int(j % LANES), pixels, rowBytes); };
    for (std::size_t j = 0; j < std::min(n, PREFETCH); ++j) ask(j);
    for (std::size_t first = 0, k = 0; first < n; first += LANES, ++k) {
        Block const& b = blocks[k];
        int const count = int(std::min<std::size_t>(LANES, n - first));
        for (int i = 0; i < count; ++i) {
            std::size_t const at = first + std::size_t(i);
            if (at + PREFETCH < n) ask(at + PREFETCH);
            inside[at] = b.kind[i] != Outside;
            if (!inside[at]) continue;
            Float4 c = blendLane<F, C>(b, i, pixels, rowBytes, cv);
            // Only float texels can hold an alpha above 1 (or a NaN, which min turns into the bound).
            if constexpr (Detail::isFloatFormat(F)) {
                constexpr float INF = std::numeric_limits<float>::infinity();
                c = min(c, Float4(INF, INF, INF, 1.f));
            }
            colours[at] = c;
        }
    }
}

} // namespace Quelin::TextureSampling::Batch
