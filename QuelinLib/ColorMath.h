#pragma once
// Colour maths shared by the colour-mapping operators: a fast power function
// on four lanes and the chromatic adaptation of white balance.
#include "QuelinLib/Float4.h"
#include "QuelinLib/Types.h"

namespace Quelin {

/// x raised to e, lane by lane, as 2^(e * log2 x) with polynomial log2 and
/// exp2 (log2: atanh series around the mantissa, |error| < 5e-8; exp2: degree-6
/// Taylor on [-0.5, 0.5], relative error < 1.3e-7). Relative error against
/// std::pow is below 1e-5 wherever |e * log2 x| < 64 and the result is a normal
/// float, far inside the 1e-4 that colour mapping needs. Bases at or below the
/// smallest normal float (zero, negatives, denormals) give 0; results beyond
/// 2^127 saturate there. Meant for exponents in about [0.05, 20].
Float4 powApprox(Float4 x, Float4 e);
inline Float4 powApprox(Float4 x, float e) { return powApprox(x, Float4(e)); }
float powApprox(float x, float e);

/// log2 of positive normal floats (see powApprox for the error).
Float4 log2Approx(Float4 x);
/// 2^y; y is clamped to [-126, 127.4].
Float4 exp2Approx(Float4 y);

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
