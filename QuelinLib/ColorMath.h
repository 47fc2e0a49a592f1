#pragma once
// Colour maths shared by the colour-mapping operators: a fast power function
// on four lanes and the chromatic adaptation of white balance.
#include <bit>
#include <cfloat>
#include <cmath>
#include <cstdint>

#include "QuelinLib/Float4.h"
#include "QuelinLib/Types.h"
#include "QuelinLib/WideMath.h"

namespace Quelin {

/// x raised to e, lane by lane, as 2^(e * log2 x) with polynomial log2 and
/// exp2 (log2: atanh series around the mantissa, |error| < 5e-8; exp2: degree-6
/// Taylor on [-0.5, 0.5], relative error < 1.3e-7). Relative error against
/// std::pow is below 1e-5 wherever |e * log2 x| < 64 and the result is a normal
/// float, far inside the 1e-4 that colour mapping needs. Bases at or below the
/// smallest normal float (zero, negatives, denormals) give 0; results beyond
/// 2^127 saturate there. Meant for exponents in about [0.05, 20].
/// (Defined below; inline because they sit in every per-pixel loop.)
#if QUELIN_FLOAT4_SSE

/// log2 of positive normal floats (see powApprox for the error).
inline Float4 log2Approx(Float4 x) { return WideMath::log2Approx(x); }
/// 2^y; y is clamped to [-126, 127.4].
inline Float4 exp2Approx(Float4 y) { return WideMath::exp2Approx(y); }
inline Float4 powApprox(Float4 x, Float4 e) { return WideMath::powApprox(x, e); }

inline float powApprox(float x, float e) { return powApprox(Float4(x), Float4(e)).x(); }
inline Float4 powApprox(Float4 x, float e) { return powApprox(x, Float4(e)); }

#else

inline Float4 log2Approx(Float4 x) { return {std::log2(x[0]), std::log2(x[1]), std::log2(x[2]), std::log2(x[3])}; }
inline Float4 exp2Approx(Float4 y) { return {std::exp2(y[0]), std::exp2(y[1]), std::exp2(y[2]), std::exp2(y[3])}; }
inline float powApprox(float x, float e) { return x > FLT_MIN ? std::pow(x, e) : 0.f; }
inline Float4 powApprox(Float4 x, Float4 e) {
    return {powApprox(x[0], e[0]), powApprox(x[1], e[1]), powApprox(x[2], e[2]), powApprox(x[3], e[3])};
}
inline Float4 powApprox(Float4 x, float e) { return powApprox(x, Float4(e)); }

#endif

/// Scalar log2 of a positive normal float: the series of the lane version
/// (absolute error < 5e-8) without broadcasting one value into four lanes,
/// for per-sample code that needs a single logarithm (a mip level).
inline float log2Approx(float x) {
    std::uint32_t const bits = std::bit_cast<std::uint32_t>(x);
    float exponent = float(int((bits >> 23) & 0xFFu) - 127);
    float m = std::bit_cast<float>((bits & 0x007FFFFFu) | 0x3F800000u);  // [1, 2)
    bool const high = m > 1.41421356f;  // centred on 1, as the lane version
    m = high ? m * 0.5f : m;
    exponent += high ? 1.f : 0.f;
    return exponent + WideMath::log2AtanhSeries((m - 1.f) / (m + 1.f));
}

/// CIE 1931 xy chromaticity of a black body at `kelvin`: Planck's law
/// integrated from 360 to 830 nm against the CIE 1931 2-degree observer in the
/// multi-lobe Gaussian fit of Wyman, Sloan and Shirley (2013). Within 0.003
/// of the tabulated locus from 2000 K up (the fit's red lobe drifts below
/// that: about 0.01 at 1000 K).
Vector2 planckianChromaticity(double kelvin);

/// Linear Rec.709 colour of a black body at `kelvin`, scaled to luminance 1.
Rgb planckianRgb(double kelvin);

/// White-balance factors: per-channel gains that turn the colour of a black
/// body at `kelvin` into the colour of one at `referenceKelvin` (a von Kries
/// coefficient law in the linear Rec.709 primaries the renderer works in), so
/// a scene lit at `kelvin` looks as if lit at the reference. Both whites have
/// luminance 1, so the illuminant keeps its brightness. Exactly (1, 1, 1) when
/// the two temperatures are equal. Temperatures are clamped to [1000, 1e6] K.
Rgb colorAdaptation(float kelvin, float referenceKelvin = 6500.f);

} // namespace Quelin
