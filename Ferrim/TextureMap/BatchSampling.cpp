#include "Ferrim/TextureMap/BatchSampling.h"

#include <bit>

#include "QuelinLib/WideIsa.h"

namespace Quelin::TextureSampling::Batch {

namespace {

float wrapOne(float x, WrapMode mode, bool& inside) {
    switch (mode) {
    case WrapMode::NoTiling: return wrapCoordinate<WrapMode::NoTiling>(x, inside);
    case WrapMode::Repeat: return wrapCoordinate<WrapMode::Repeat>(x, inside);
    case WrapMode::Mirror: return wrapCoordinate<WrapMode::Mirror>(x, inside);
    case WrapMode::Clamp: break;
    }
    return wrapCoordinate<WrapMode::Clamp>(x, inside);
}

void taps(Setup const& s, Block& b, int i, int set, int level, float u, float v) {
    LevelShape const shape{s.width[level], s.height[level], s.widthF[level], s.heightF[level], 0};
    Detail::BilinearTaps const t = Detail::bilinearTaps(shape, u, v, s.addressing);
    b.x0[set][i] = t.x0;
    b.x1[set][i] = t.x1;
    b.y0[set][i] = t.y0;
    b.y1[set][i] = t.y1;
    b.fx[set][i] = t.fx;
    b.fy[set][i] = t.fy;
}

} // namespace

// The one-point path's steps (wrap of the mapper's modes, level choice of the
// texture map, bilinear taps), lane by lane.
void prepareScalar(Setup const& s, MapLookupPoint const* points, Block& b) {
    for (int i = 0; i < LANES; ++i) {
        MapLookupPoint const& p = points[i];
        bool inside = true;
        float u = wrapOne(p.uvw.x, s.wrapU, inside);
        float v = wrapOne(p.uvw.y, s.wrapV, inside);
        b.kind[i] = inside ? OneLevel : Outside;
        b.level[i] = 0;
        b.fraction[i] = 0.f;
        // A lane outside takes the taps of (0, 0) on level 0, so its fields stay in range.
        if (!inside) u = v = 0.f;
        if (s.filtered && inside) {
            float w = p.dUvw.x < p.dUvw.y ? p.dUvw.x : p.dUvw.y;
            if (!(w >= 1e-8f)) w = 1e-8f;  // NaN too
            std::uint32_t const bits = std::bit_cast<std::uint32_t>(w);
            int const whole = int(bits >> 23) - 127 + s.topLevel;
            if (whole >= s.topLevel) {
                b.level[i] = s.topLevel;
            } else if (whole >= 0) {
                b.level[i] = whole;
                b.kind[i] = TwoLevels;
                b.fraction[i] = log2Approx(std::bit_cast<float>((bits & 0x007FFFFFu) | 0x3F800000u));
            }
        }
        taps(s, b, i, 0, b.level[i], u, v);
        if (s.filtered) taps(s, b, i, 1, std::min(b.level[i] + 1, s.topLevel), u, v);
    }
}

Filter selectFilter(PixelFormat format, Conversion conversion, int levels) {
    static bool const wide = isWideIsaSupported(WideIsa::Avx2) && avx2Prepare();
    if (wide && levels <= WIDE_MAX_LEVELS) return avx2Filter(format, conversion);
    Filter f = nullptr;
    visitBatchFormat(format, conversion, [&]<PixelFormat F, Conversion C>() {
        f = &filterChunk<F, C, &prepareScalar>;
        return true;
    });
    return f;
}

} // namespace Quelin::TextureSampling::Batch
