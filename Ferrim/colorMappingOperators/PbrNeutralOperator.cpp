#include "Ferrim/colorMappingOperators/PbrNeutralOperator.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"
#include "Ferrim/colorMappingOperators/DisplayTransformMath.h"

namespace Quelin {

SharedPtr<DataObjectDefinition const> const& PbrNeutralOperator::Data::definition() {
    static auto const def = [] {
        ShadingDataObjectBuilder b;
        addCommonOperatorProperties(b);
        return b.build("Zatho.PbrNeutralOperator");
    }();
    return def;
}

PbrNeutralOperator::PbrNeutralOperator()
    : LaneColorMappingOperator(Data::definition(), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                               OperatorGroup::FinalLook) {
    setNeutral(false);  // active until prepared otherwise
}

SharedPtr<Entity> PbrNeutralOperator::createNewInstance() const { return makeSharedPtr<PbrNeutralOperator>(); }

void PbrNeutralOperator::prepareForApplicationImpl(ColorMappingContext const& context) { setNeutral(!isActive(context)); }

void PbrNeutralOperator::mapPlanes(Float4& r, Float4& g, Float4& b) const {
    if (!isNeutral()) DisplayTransformMath::pbrNeutral(r, g, b);
}

Float4 PbrNeutralOperator::mapLanes(Float4 c) const {
    if (isNeutral()) return c;
    Float4 r(c[0]), g(c[1]), b(c[2]);
    DisplayTransformMath::pbrNeutral(r, g, b);
    return Float4(r[0], g[0], b[0], c[3]);
}

Rgb PbrNeutralOperator::unmapImpl(Rgb const& color, Flags<ColorMappingExclude> exclude) const {
    if (exclude.has(ColorMappingExclude::AcesOt) || isNeutral()) return color;
    Float4 r(color.r), g(color.g), b(color.b);
    DisplayTransformMath::pbrNeutralInverse(r, g, b);
    return {r[0], g[0], b[0]};
}

void PbrNeutralOperator::compileMapping(ColorProgramBuilder& builder) const {
    if (isNeutral()) return;
    ColorProgramBuilder::Step s;
    s.kind = ColorProgramBuilder::Kind::PbrOffset;
    builder.append(s);
    s.kind = ColorProgramBuilder::Kind::PbrNeutral;
    builder.append(s);
}

FERRIM_REGISTER_COLOR_OPERATOR(PbrNeutralOperator, "Khronos PBR Neutral");

} // namespace Quelin
