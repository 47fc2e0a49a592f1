#pragma once
// AgX: the display transform built on a log2 encoding of the scene over
// 16.5 stops around middle grey, between an inset matrix (which desaturates
// toward the achromatic axis so bright colours bleach to white rather than
// skewing hue) and its inverse, the outset, with a sigmoid contrast curve in
// the encoding. Scene-linear Rec. 709 in, display-linear [0, 1] out. `unmap`
// inverts every step (the sigmoid by Newton steps), exact for display values
// the clamp to [0, 1] left alone. The formula and its constants:
// DisplayTransformMath.h. Exclusion bit: ColorMappingExclude::AcesOt, which
// every display transform answers to.
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT AgxOperator : public LaneColorMappingOperator<AgxOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_NAME = "AgX";
        static constexpr StringView UI_DESCRIPTION =
            "AgX display transform: a log-encoded sigmoid with gentle highlight desaturation, so that very bright "
            "colours turn to white instead of clipping to a saturated hue.";
    };
    AgxOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const;
    void mapPlanes(Float4& r, Float4& g, Float4& b) const;

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;
};

} // namespace Quelin
