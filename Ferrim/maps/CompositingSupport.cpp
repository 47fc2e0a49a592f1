#include "Ferrim/maps/CompositingSupport.h"

#include "Ferrim/ShadingDataObjectBuilder.h"
#include "QuelinLib/Json.h"

namespace Quelin::MapsDetail {

SharedPtr<TypeDefinition const> const& blendModeType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.BlendMode", {{0, "Mix"}, {1, "Add"}, {2, "Subtract"}, {3, "Multiply"}, {4, "Screen"}, {5, "Overlay"},
                            {6, "Difference"}, {7, "Darken"}, {8, "Lighten"}, {9, "SoftLight"}, {10, "LinearLight"},
                            {11, "ColorDodge"}, {12, "ColorBurn"}});
    return t;
}

void addAmountCurve(ShadingDataObjectBuilder& b, StringView what) {
    auto const curveOn = MetadataPredicate{"useCurve", [](GenericDataObject const& d) { return d.get<bool>("useCurve"); }};
    b.addBool("useCurve", false, "Use curve", String("Shape the ") + String(what) + " with a smoothstep curve");
    b.addFloat("curveLower", 0.f, "Curve lower", "Below this the curve gives 0")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f))
        .setMetadata(Metadata::UI_ENABLED_IF, curveOn);
    b.addFloat("curveUpper", 1.f, "Curve upper", "Above this the curve gives 1")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f))
        .setMetadata(Metadata::UI_ENABLED_IF, curveOn);
}

AmountCurve readAmountCurve(GenericDataObject const& data) {
    return AmountCurve{data.get<bool>("useCurve"), data.get<float>("curveLower"), data.get<float>("curveUpper")};
}

namespace {
thread_local int tBuildDepth = 0;
} // namespace

BuildDepthGuard::BuildDepthGuard(Entity const& map) {
    if (tBuildDepth >= MAX_ENTITY_NESTING)
        throw Exception("Cannot build \"" + map.getClassName() + "\": maps nested deeper than " +
                        std::to_string(MAX_ENTITY_NESTING) + " levels (or a map that contains itself)");
    ++tBuildDepth;
}

BuildDepthGuard::~BuildDepthGuard() { --tBuildDepth; }

IMap::OptimizedResult passThrough(ColorOrMap::Evaluator const& input) {
    if (input.isConstant()) return makeConstantResult(input.getColor());
    IMap::OptimizedResult r;
    r.evaluator = input.getMapEvaluator();
    return r;
}

IMap::OptimizedResult foldToConstant(IMapEvaluator const& evaluator) {
    return makeConstantResult(evaluator.evalColor(NullShadeContext(), nullptr));
}

} // namespace Quelin::MapsDetail
