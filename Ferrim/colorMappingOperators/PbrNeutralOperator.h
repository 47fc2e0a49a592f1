#pragma once
// Khronos PBR Neutral: the display transform that reproduces base colours
// exactly (c - 0.04 for channels from 0.08 to 0.8 under white light) and
// compresses highlights toward white without hue shifts. Scene-linear Rec.
// 709 in, display-linear [0, 1] out; inverted analytically by `unmap`
// (display white unmaps to a large finite value). The formula and its
// constants: DisplayTransformMath.h. Exclusion bit: ColorMappingExclude::AcesOt,
// which every display transform answers to.
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

class FERRIM_EXPORT PbrNeutralOperator : public LaneColorMappingOperator<PbrNeutralOperator> {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static constexpr StringView UI_NAME = "PBR Neutral";
        static constexpr StringView UI_DESCRIPTION =
            "Khronos PBR Neutral display transform: base colours of materials are reproduced faithfully, and "
            "highlights are compressed toward white without shifting their hue.";
    };
    PbrNeutralOperator();
    SharedPtr<Entity> createNewInstance() const override;
    void compileMapping(ColorProgramBuilder& builder) const override;
    Float4 mapLanes(Float4 c) const;
    void mapPlanes(Float4& r, Float4& g, Float4& b) const;

protected:
    Rgb unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const override;
    void prepareForApplicationImpl(ColorMappingContext const& context) override;
};

} // namespace Quelin
