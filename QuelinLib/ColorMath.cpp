#include "QuelinLib/ColorMath.h"

#include <algorithm>
#include <cfloat>
#include <cmath>

namespace Quelin {


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
