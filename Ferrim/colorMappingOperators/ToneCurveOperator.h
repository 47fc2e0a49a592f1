#pragma once
// Tone Curve: a curve over exposure, drawn in photographic stops.
//
// What it does
//   Reshapes the image's tonal response the way a photographer thinks of it:
//   both axes are in stops (powers of two) relative to middle grey. A point
//   (-2, -3) means "what was two stops under middle grey comes out three stops
//   under": the shadows are deepened. The identity is the diagonal through
//   (0, 0). The operator works on linear (scene-referred) values; the curve
//   acts on log2(value / middle grey) and the result is turned back into a
//   linear value, so it stays meaningful for values far above 1.
//
// Parameters
//   "enabled"                  off leaves the image untouched.
//   "toneCurve_points"         control points (x, y) in stops relative to middle
//                              grey; default (-8, -8), (0, 0), (6, 6): the identity.
//   "toneCurve_middleGrey"     the linear value that sits at 0 stops (0.18).
//   "toneCurve_preserveColor"  on: the curve is applied to the brightest channel
//                              and the other two are scaled with it, so hues and
//                              saturation are kept. Off: each channel goes
//                              through the curve by itself, which desaturates
//                              compressed highlights the way film does.
//   The curve is a smooth monotone cubic through the points (Fritsch-Carlson);
//   beyond the first and last point it continues as a straight line in stops,
//   that is as a power law in linear values. Values at or below 0 pass through.
//
// Undoing
//   `unmap` inverts the curve exactly (to the precision of its table); with
//   "toneCurve_preserveColor" the brightest channel is inverted and the others
//   scaled with it. Exclusion bit: ColorMappingExclude::ToneCurve (0x1000).
#include "Ferrim/colorMappingOperators/CurvesOperator.h"

namespace Quelin {

class FERRIM_EXPORT ToneCurveOperator : public UnaryColorMappingOperator {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    ToneCurveOperator();
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<ToneCurveOperator>(); }
    void compileMapping(ColorProgramBuilder& builder) const override;

protected:
    Rgb mapImpl(Rgb const& color, Pixel pixel) const override;
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    float mapValue(float v) const;
    float unmapValue(float v) const;

    MonotoneCurve mCurve;  ///< stops in, stops out
    float mGrey = 0.18f, mInvGrey = 1.f / 0.18f;
    bool mPreserveColor = false;
};

} // namespace Quelin
