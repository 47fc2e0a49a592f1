#pragma once
// Blends each channel toward a fixed filmic S-curve g, with the strength
// running linearly from "richShadows" at 0 to "highlightCompression" at 1 and
// above. g has no closed-form inverse: unmapping solves for the input with a
// bracketed Newton search on four lanes.
#include <cfloat>

#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT FilmicOperator : public LaneColorMappingOperator<FilmicOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_NAME = "Filmic";
        static constexpr StringView UI_DESCRIPTION =
            "Allows highlight compression and shadow saturation control using Filmic S-curve.";
    };

    /// The filmic curve and its derivative (denominator (x + 0.316513)(x + 0.113831)).
    static Float4 curve(Float4 x) {
        return (Float4(1.0003055f) * x + Float4(0.0021391737f)) * x /
               ((x + Float4(0.43034402f)) * x + Float4(0.036029063f));
    }
    static Float4 curveDerivative(Float4 x) {
        Float4 const a = x + Float4(0.316513f), b = x + Float4(0.113831f);
        return Float4(0.491085f) / (a * a) - Float4(0.0627489f) / (b * b);
    }

    FilmicOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    /// Up to FAR_INPUT: x + w(x) (g(x) - x), w(x) = S + (H - S) min(x, 1).
    /// Beyond, where that form loses g to cancellation, (1 - w) x + w g(x)
    /// with g's input bounded where g has saturated (2^60): +inf and huge
    /// values reach g's limit 1.0003055 at H = 1 and grow without bound
    /// (finite) below. g is not defined below 0: negative input takes the
    /// value at 0, which is 0.
    Float4 mapLanes(Float4 x) const {
        if (isNeutral()) return x;
        x = max(x, Float4(0.f));
        Float4 const g = curve(min(x, Float4(CURVE_INPUT_MAX)));
        Float4 const near = x + strength(x) * (g - x);
        Float4 const w = strength(Float4(1.f));
        Float4 const far = w * g + (Float4(1.f) - w) * min(x, Float4(FLT_MAX));
        return select(x > Float4(FAR_INPUT), far, near);
    }
    /// Where mapping switches to the form that cannot cancel.
    static constexpr float FAR_INPUT = 1024.f;
    static constexpr float CURVE_INPUT_MAX = 1152921504606846976.f;  // 2^60
    /// The display value above which unmapping treats colours as the cap.
    float getOutputCap() const { return mCap[0]; }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    Float4 strength(Float4 x) const { return Float4(mShadows) + Float4(mHighlights - mShadows) * min(x, Float4(1.f)); }

    float mHighlights = 0.f, mShadows = 0.f;  ///< H and S in use
    float mUpperBracket = 10000000.f;         ///< B
    Float4 mCap{10000000.f};                  ///< M, per lane
    float mCachedHighlights = 0.f, mCachedShadows = 0.f;
    bool mPrepared = false;
};

} // namespace Quelin
