#include "QuelinLib/ColorMath.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace Quelin {

#if QUELIN_FLOAT4_SSE

Float4 log2Approx(Float4 x) {
    Int4 const bits = asInt4(x);
    Float4 exponent = toFloat4((bits.shiftRight(23) & Int4(0xFF)) - Int4(127));
    Float4 m = asFloat4((bits & Int4(0x007FFFFF)) | Int4(0x3F800000));  // [1, 2)
    // Centre the mantissa on 1 ([0.707, 1.414)) so the series converges fast.
    Float4 const high = m > Float4(1.41421356f);
    m = select(high, m * Float4(0.5f), m);
    exponent = exponent + (high & Float4(1.f));
    // log2 m = 2/ln2 * atanh(t), t = (m - 1) / (m + 1), |t| <= 0.1716.
    Float4 const t = (m - Float4(1.f)) / (m + Float4(1.f));
    Float4 const t2 = t * t;
    float const c1 = 2.8853900817779268f;  // 2 / ln 2
    Float4 p = Float4(c1 / 7.f);
    p = p * t2 + Float4(c1 / 5.f);
    p = p * t2 + Float4(c1 / 3.f);
    p = p * t2 + Float4(c1);
    return exponent + p * t;
}

Float4 exp2Approx(Float4 y) {
    y = min(max(y, Float4(-126.f)), Float4(127.4f));
    Float4 const n = floor(y + Float4(0.5f));
    Float4 const u = (y - n) * Float4(0.69314718f);  // |u| <= ln2 / 2
    // e^u, Taylor to degree 6.
    Float4 p = Float4(1.f / 720.f);
    p = p * u + Float4(1.f / 120.f);
    p = p * u + Float4(1.f / 24.f);
    p = p * u + Float4(1.f / 6.f);
    p = p * u + Float4(0.5f);
    p = p * u + Float4(1.f);
    p = p * u + Float4(1.f);
    Float4 const scale = asFloat4((toInt4Truncate(n) + Int4(127)).shiftLeft(23));
    return p * scale;
}

Float4 powApprox(Float4 x, Float4 e) {
    Float4 const valid = x > Float4(FLT_MIN);
    Float4 const r = exp2Approx(e * log2Approx(max(x, Float4(FLT_MIN))));
    return r & valid;
}

float powApprox(float x, float e) { return powApprox(Float4(x), Float4(e)).x(); }

#else

Float4 log2Approx(Float4 x) { return {std::log2(x[0]), std::log2(x[1]), std::log2(x[2]), std::log2(x[3])}; }
Float4 exp2Approx(Float4 y) { return {std::exp2(y[0]), std::exp2(y[1]), std::exp2(y[2]), std::exp2(y[3])}; }
float powApprox(float x, float e) { return x > FLT_MIN ? std::pow(x, e) : 0.f; }
Float4 powApprox(Float4 x, Float4 e) {
    return {powApprox(x[0], e[0]), powApprox(x[1], e[1]), powApprox(x[2], e[2]), powApprox(x[3], e[3])};
}

#endif

namespace {

// Piecewise Gaussian lobe of the Wyman-Sloan-Shirley observer fit.
double lobe(double lambda, double mu, double sigmaLow, double sigmaHigh) {
    double const t = (lambda - mu) / (lambda < mu ? sigmaLow : sigmaHigh);
    return std::exp(-0.5 * t * t);
}

struct XyzD {
    double x, y, z;
};

XyzD blackBodyXyz(double kelvin) {
    // Planck's law in relative units: 1 / (lambda^5 (exp(c2 / (lambda T)) - 1)),
    // lambda in nm, c2 = hc/k in nm K. The common factor drops out of xy.
    constexpr double C2 = 1.4387769e7;
    XyzD sum{0, 0, 0};
    for (int nm = 360; nm <= 830; ++nm) {
        double const l = double(nm);
        double const l5 = l * l * l * l * l;
        double const radiance = 1e15 / (l5 * std::expm1(C2 / (l * kelvin)));
        double const xBar = 1.056 * lobe(l, 599.8, 37.9, 31.0) + 0.362 * lobe(l, 442.0, 16.0, 26.7) -
                            0.065 * lobe(l, 501.1, 20.4, 26.2);
        double const yBar = 0.821 * lobe(l, 568.8, 46.9, 40.5) + 0.286 * lobe(l, 530.9, 16.3, 31.1);
        double const zBar = 1.217 * lobe(l, 437.0, 11.8, 36.0) + 0.681 * lobe(l, 459.0, 26.0, 13.8);
        sum.x += radiance * xBar;
        sum.y += radiance * yBar;
        sum.z += radiance * zBar;
    }
    return sum;
}

double clampKelvin(double kelvin) { return std::clamp(std::isfinite(kelvin) ? kelvin : 6500.0, 1000.0, 1e6); }

} // namespace

Vector2 planckianChromaticity(double kelvin) {
    XyzD const c = blackBodyXyz(clampKelvin(kelvin));
    double const s = c.x + c.y + c.z;
    return {float(c.x / s), float(c.y / s)};
}

Rgb planckianRgb(double kelvin) {
    XyzD const c = blackBodyXyz(clampKelvin(kelvin));
    double const X = c.x / c.y, Z = c.z / c.y;
    // XYZ to linear Rec.709 (D65 white).
    double const r = 3.2404542 * X - 1.5371385 - 0.4985314 * Z;
    double const g = -0.9692660 * X + 1.8760108 + 0.0415560 * Z;
    double const b = 0.0556434 * X - 0.2040259 + 1.0572252 * Z;
    return {float(r), float(g), float(b)};
}

Rgb colorAdaptation(float kelvin, float referenceKelvin) {
    double const t = clampKelvin(kelvin), ref = clampKelvin(referenceKelvin);
    if (t == ref) return {1.f, 1.f, 1.f};
    Rgb const source = planckianRgb(t);
    Rgb const target = planckianRgb(ref);
    // Very low temperatures leave almost no blue in Rec.709; a floor keeps the
    // gain finite instead of exploding.
    auto gain = [](float to, float from) { return to / std::max(from, 1e-4f); };
    return {gain(target.r, source.r), gain(target.g, source.g), gain(target.b, source.b)};
}

} // namespace Quelin
