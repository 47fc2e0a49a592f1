#pragma once
// Advanced Filmic Mapping: a film-like tone curve with separate controls for
// contrast, the toe (shadows), the shoulder (highlights) and the loss of
// colour in bright highlights.
//
// What it does
//   Works on linear (scene-referred) values, channel by channel, in four
//   steps, each of which leaves the image unchanged at its neutral setting:
//   1. Contrast, pivoting on middle grey (0.18): x -> 0.18 * (x / 0.18)^contrast.
//      Above 1 the image gains contrast, below 1 it flattens. Middle grey
//      stays where it is.
//   2. Toe: x -> x^2 / (x + toe), rescaled so that the white point stays put.
//      Darkens and crushes the deepest shadows, the way film's toe does; 0
//      leaves them alone.
//   3. Shoulder: blends the channel with an extended Reinhard curve that
//      reaches 1 at the white point, x(1 + x / white^2) / (1 + x), by
//      "shoulderStrength". Rolls highlights off smoothly instead of clipping;
//      0 leaves them alone, 1 compresses fully.
//   4. Highlight desaturation: bright colours are blended toward their own
//      luminance (Rec. 709 weights), the more the brighter they are (from
//      half of display white up to white), by "highlightDesaturation". Film
//      loses saturation in its highlights; this imitates it. Luminance is kept.
//   Negative channel values are set to 0.
//
// Parameters
//   "enabled"                off leaves the image untouched.
//   "contrast"               0.5 to 2.0, default 1.1 (1.0 is neutral).
//   "toe"                    0.0 to 0.2, default 0.01 (0.0 is neutral).
//   "shoulderStrength"       0.0 to 1.0, default 0.5 (0.0 is neutral).
//   "whitePoint"             1.0 to 1000.0, default 16.0: the linear value the
//                            shoulder maps to display white, and the value
//                            the toe keeps fixed.
//   "highlightDesaturation"  0.0 to 0.95, default 0.25 (0.0 is neutral).
//   The defaults give a gentle filmic look; set all four to their neutral
//   values and the operator changes nothing.
//
// Undoing
//   Every step has a closed-form inverse (a power, two quadratic roots and an
//   unblend that uses the kept luminance), so `unmap` is exact to float
//   precision. Exclusion bit: ColorMappingExclude::AdvancedFilmic (0x800).
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT AdvancedFilmicOperator : public UnaryColorMappingOperator {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    AdvancedFilmicOperator();
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<AdvancedFilmicOperator>(); }
    void compileMapping(ColorProgramBuilder& builder) const override;

protected:
    Rgb mapImpl(Rgb const& color, Pixel pixel) const override;
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    float curve(float x) const;
    float inverseCurve(float y) const;

    // Prepared values; neutral until prepared.
    float mContrast = 1.f;
    float mToe = 0.f;
    float mToeScale = 1.f;      ///< (white + toe) / white
    float mShoulder = 0.f;
    float mInvWhite2 = 1.f / 256.f;
    float mDesaturation = 0.f;
};

} // namespace Quelin
