#pragma once
// Highlight compression with the extended Reinhard curve: a channel value
// equal to the white point "highlightCompression" maps to 1. Exactly
// invertible.
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
    /// max(0, (k c + 1) c / (c + 1)) with negative input taken as 0 (the raw
    /// curve has a pole at -1 and turns positive again below it).
    Float4 mapLanes(Float4 c) const {
        if (!mActive) return c;
        Float4 const x = max(c, Float4(0.f));
        return max((Float4(mK) * x + Float4(1.f)) * x / (x + Float4(1.f)), Float4(0.f));
    }
    float getCoefficient() const { return mK; }

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;

private:
    float mK = 1.f;
    float mHighlight = 1.f;
    bool mPrepared = false;
    bool mActive = false;  ///< off: both directions are the identity, negatives included
};

} // namespace Quelin
