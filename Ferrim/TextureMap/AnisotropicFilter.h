#pragma once
// Anisotropic filtering by probes along the major axis of a pixel's footprint.
//
// A pixel's footprint in texture space is the ellipse its screen derivatives
// span (Heckbert, "Fundamentals of Texture Mapping and Image Warping", 1989:
// the EWA ellipse of the Jacobian). Seen at a grazing angle it is long and
// thin: one isotropic lookup must either blur along the short axis (width of
// the long one) or alias along the long one (width of the short one). Instead
// several isotropic (trilinear) probes of the short axis's width are spread
// along the long axis and blended with Gaussian weights, as in McCormack et
// al., "Feline: Fast Elliptical Lines for Anisotropic Texture Mapping",
// SIGGRAPH 1999. Chosen over a true EWA sum over texels because the probes
// reuse the mip chain's trilinear kernel: the cost grows with the anisotropy,
// not with the footprint's texel count (an EWA sum over a grazing footprint
// reads hundreds of texels of a fine level), and results stay continuous with
// the isotropic path (one probe when the footprint is round). OpenImageIO's
// TextureSystem filters the same way in its default, anisotropic mode, so
// renders match what users of that library expect.
#include <algorithm>
#include <cmath>

#include "Ferrim/TextureMap/TextureSampling.h"
#include "QuelinLib/Float4.h"

namespace Quelin::TextureSampling {

/// How one screen step in x and in y moves in texture space.
struct UvDerivatives {
    float dudx = 0.f, dvdx = 0.f, dudy = 0.f, dvdy = 0.f;
};

/// The anisotropy's default cap: the probes a lookup may take.
inline constexpr float DEFAULT_MAX_ANISOTROPY = 16.f;
/// Two probes per unit of anisotropy, at the largest cap.
inline constexpr int MAX_PROBES = 128;

struct AnisotropicProbes {
    int count = 1;
    /// From one probe to the next along the long axis.
    float stepU = 0.f, stepV = 0.f;
    /// Each probe's isotropic footprint (the short axis's half-length).
    float width = 0.f;
    float weights[MAX_PROBES] = {1.f};
};

namespace Detail {
/// NaN steps count as none, infinite ones as the whole texture.
inline float finiteStep(float d) { return std::isnan(d) ? 0.f : std::clamp(d, -1.f, 1.f); }
} // namespace Detail

/// The probes of a footprint, for a cap on the long axis over the short one
/// (clamped to [1, 64]; NaN takes the default). The cap widens the short axis
/// rather than dropping the ends of the long one, so the result blurs where
/// it would otherwise alias.
inline AnisotropicProbes planProbes(UvDerivatives d, float maxAnisotropy = DEFAULT_MAX_ANISOTROPY) {
    float const ux = Detail::finiteStep(d.dudx), vx = Detail::finiteStep(d.dvdx);
    float const uy = Detail::finiteStep(d.dudy), vy = Detail::finiteStep(d.dvdy);
    float const cap = std::isnan(maxAnisotropy) ? DEFAULT_MAX_ANISOTROPY : std::clamp(maxAnisotropy, 1.f, float(MAX_PROBES / 2));

    // The ellipse A u^2 + B u v + C v^2 = F and its axes (the eigen-decomposition of [[A, B/2], [B/2, C]]).
    double const A = double(vx) * vx + double(vy) * vy, B = -2.0 * (double(ux) * vx + double(uy) * vy);
    double const C = double(ux) * ux + double(uy) * uy, det = double(ux) * vy - double(uy) * vx, F = det * det;
    double const root = std::sqrt((A - C) * (A - C) + B * B);
    double const smaller = 0.5 * (A + C - root), larger = 0.5 * (A + C + root);
    double major, minor, dirU, dirV;
    if (F > 0.0 && smaller > 0.0) {
        major = std::sqrt(F / smaller);
        minor = std::sqrt(F / larger);
        // The eigenvector of the smaller eigenvalue, from whichever row is better conditioned.
        double const au = 0.5 * B, av = smaller - A, bu = smaller - C, bv = 0.5 * B;
        bool const first = au * au + av * av >= bu * bu + bv * bv;
        dirU = first ? au : bu;
        dirV = first ? av : bv;
    } else {
        // Degenerate (a line or a point): the longer step is the long axis.
        bool const xLonger = C >= A && ux * ux + vx * vx >= uy * uy + vy * vy;
        dirU = xLonger ? ux : uy;
        dirV = xLonger ? vx : vy;
        major = std::sqrt(dirU * dirU + dirV * dirV);
        minor = std::min(std::sqrt(double(ux) * ux + double(vx) * vx), std::sqrt(double(uy) * uy + double(vy) * vy));
    }
    AnisotropicProbes p;
    double const norm = std::sqrt(dirU * dirU + dirV * dirV);
    minor = std::max(minor, major / double(cap));
    p.width = float(minor);
    if (!(norm > 0.0) || !(major > minor)) return p;
    // Two probes per short-axis width along the long axis: each trilinear
    // probe covers about one width, so probes spaced wider would alias
    // between them. (The slack keeps an exact ratio from rounding up.)
    p.count = std::min(int(std::ceil(2.0 * major / minor * (1.0 - 1e-6))), MAX_PROBES);
    if (p.count <= 1) {
        p.count = 1;
        return p;
    }
    // Probes at the centres of count equal stretches of the long axis.
    double const step = 2.0 * major / double(p.count);
    p.stepU = float(dirU / norm * step);
    p.stepV = float(dirV / norm * step);
    float sum = 0.f;
    for (int i = 0; i < p.count; ++i) {
        float const x = (2.f * float(i) + 1.f) / float(p.count) - 1.f;  // (-1, 1) along the axis
        // The derivatives reach a whole pixel each way, twice the pixel's
        // own extent: weights concentrated on the middle half fit the pixel
        // (on a grazing checkerboard, closer to its exact mean than a
        // flatter e^(-2 x^2)).
        p.weights[i] = std::exp(-4.f * x * x);
        sum += p.weights[i];
    }
    for (int i = 0; i < p.count; ++i) p.weights[i] /= sum;
    return p;
}

/// A probe's coordinate brought back into [0, 1] the way its axis addresses
/// texels (probes of a footprint near a border step past it).
inline float wrapProbe(float x, Address mode) {
    if (mode == Address::Repeat) return x - std::floor(x);
    if (mode == Address::Mirror) {
        float const t = x - 2.f * std::floor(0.5f * x);  // [0, 2)
        return t <= 1.f ? t : 2.f - t;
    }
    return x;  // the kernels clamp
}

/// The weighted sum of `probe(u, v, width)` over the planned probes.
template <typename Probe> Float4 filterAnisotropic(float u, float v, AnisotropicProbes const& p, Probe&& probe) {
    if (p.count == 1) return probe(u, v, p.width);
    float const first = -0.5f * float(p.count - 1);
    Float4 sum;
    for (int i = 0; i < p.count; ++i) {
        float const s = first + float(i);
        sum += probe(u + s * p.stepU, v + s * p.stepV, p.width) * Float4(p.weights[i]);
    }
    return sum;
}

} // namespace Quelin::TextureSampling
