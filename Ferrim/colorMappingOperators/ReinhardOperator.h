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
    /// (k c + 1) c / (c + 1), written as c (k + (1 - k) / (c + 1)): exactly
    /// c for k = 1 and k c at +infinity, where it never overflows early. The
    /// curve is not defined below 0 (a pole at -1): negative values and NaN
    /// take its value at 0, which is 0.
    Float4 mapLanes(Float4 c) const {
        Float4 const k(mK);
        c = max(c, Float4(0.f));
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
