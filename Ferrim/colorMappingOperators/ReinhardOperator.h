#pragma once
// Highlight compression with the extended Reinhard curve: a channel value
// equal to the white point "highlightCompression" maps to 1. Exactly
// invertible. Switched off (record or context) it keeps the curve with k = 1,
// which is the identity on non-negative values and still maps negatives to 0.
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT ReinhardOperator : public LaneColorMappingOperator<ReinhardOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_DESCRIPTION =
            "Compresses highlights with the extended Reinhard curve; the white point is set by the highlight "
            "compression.";
    };
    ReinhardOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    /// max(0, (k c + 1) c / (c + 1)), written as c (k + (1 - k) / (c + 1)):
    /// exactly c for k = 1, k c at +infinity, and NaN maps to 0. The channel
    /// is taken as it is: values from -1 to 0 give 0, and beyond the pole at
    /// -1 the curve is positive again between -1/k and -1 (k < 1).
    Float4 mapLanes(Float4 c) const {
        Float4 const k(mK);
        return max(c * (k + (Float4(1.f) - k) / (c + Float4(1.f))), Float4(0.f));
    }
    float getCoefficient() const { return mK; }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    float mK = 1.f;
    float mHighlight = 1.f;
    bool mPrepared = false;
};

} // namespace Quelin
