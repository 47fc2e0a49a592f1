#pragma once
// Colour correction of a colour-or-map input: channel rewiring, invert,
// exposure, hue, saturation, vibrance, lift/gain, brightness/contrast, gamma
// and curves, applied in that order to linear RGB. Nothing is clamped: values
// below 0 or above 1 go through every step by the same formula (gamma and the
// curves mirror or continue straight, see ColorCorrection), so HDR inputs stay
// HDR. A NaN channel stays NaN.
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/colorMappingOperators/CurvesOperator.h"

namespace Quelin {

/// The per-sample arithmetic of the colour correct map, prepared once from the
/// parameters. Every control is neutral at its default.
struct FERRIM_EXPORT ColorCorrection {
    /// Where an output channel comes from.
    enum class Source : int {
        RED = 0, GREEN, BLUE, ALPHA, RED_INVERSE, GREEN_INVERSE, BLUE_INVERSE, ALPHA_INVERSE, MONO, ONE, ZERO
    };
    struct Parameters {
        StaticArray<Source, 4> rewire{Source::RED, Source::GREEN, Source::BLUE, Source::ALPHA};
        bool invert = false;          ///< rgb -> 1 - rgb, after rewiring
        float exposure = 0.f;         ///< stops: rgb * 2^exposure
        float hueShift = 0.f;         ///< degrees of rotation about the grey axis
        float saturation = 1.f;       ///< grey + s (rgb - grey), grey the Rec. 709 luminance
        float vibrance = 0.f;         ///< extra saturation, strongest on the least saturated colours
        Rgb lift{0.f, 0.f, 0.f};      ///< where 0 goes: lift + (gain - lift) rgb
        Rgb gain{1.f, 1.f, 1.f};      ///< where 1 goes
        float brightness = 0.f;       ///< (1 + c) rgb + (b - c / 2)
        float contrast = 0.f;
        float gamma = 1.f;            ///< sign(x) |x|^(1 / gamma)
        Stack<Vector2> masterCurve;   ///< fewer than two points: identity
        StaticArray<Stack<Vector2>, 3> channelCurves;
        bool preserveHue = true;      ///< the master curve keeps each colour's hue
    };

    explicit ColorCorrection(Parameters const& p);
    RgbAlpha apply(RgbAlpha const& c) const;

    /// Rec. 709 luminance weights: the grey of saturation and the mono source.
    static constexpr float LUMA_R = 0.2126f, LUMA_G = 0.7152f, LUMA_B = 0.0722f;
    /// The smallest gamma; smaller (and non-finite) values are raised to it.
    static constexpr float MIN_GAMMA = 0.01f;

private:
    StaticArray<Source, 4> mRewire;
    bool mRewireIdentity;
    bool mInvert;
    float mExposureScale;
    Matrix33 mHue;
    bool mHueIdentity;
    float mSaturation, mVibrance;
    Rgb mLift, mGainMinusLift;
    float mContrastScale, mContrastOffset;
    float mInverseGamma;
    MonotoneCurve mMaster;
    StaticArray<MonotoneCurve, 3> mChannel;
    bool mPreserveHue;
};

class FERRIM_EXPORT ColorCorrectMap : public IMap {
public:
    /// "color", "rewireRed", "rewireGreen", "rewireBlue", "rewireAlpha", "invert",
    /// "exposure", "hueShift", "saturation", "vibrance", "lift", "gain",
    /// "brightness", "contrast", "gamma", "curveMaster", "curveRed",
    /// "curveGreen", "curveBlue", "preserveHue".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& sourceType();
    };

    ColorCorrectMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
    /// The parameters of the record, non-finite values replaced by the neutral ones.
    ColorCorrection::Parameters parameters() const;
};

class FERRIM_EXPORT ColorCorrectEvaluator : public IMapEvaluator {
public:
    ColorCorrectEvaluator(ColorOrMap::Evaluator input, ColorCorrection::Parameters const& parameters);

    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    /// The mean of the corrected colour.
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    /// The input's bump, unchanged: a colour correction does not move the surface.
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;

    ColorCorrection const& correction() const { return mCorrection; }

private:
    ColorOrMap::Evaluator mInput;
    ColorCorrection mCorrection;
};

} // namespace Quelin
