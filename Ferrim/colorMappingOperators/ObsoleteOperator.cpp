#include "Ferrim/colorMappingOperators/ObsoleteOperator.h"

namespace Quelin {

StaticArray<StringView, 2> const ObsoleteUnaryColorMappingOperator::OBSOLETE_TYPE_NAMES = {"Zatho.AcesRrtOperator",
                                                                                           "Zatho.AcesOtOperator2"};

namespace {
// Stop reports of a legacy operator that reached a chain carry this fixed
// position, not this file's, so that they read the same in every build.
constexpr StringView STOP_SOURCE = "colorMappingOperators/MiscOperators";
constexpr int MAP_STOP_LINE = 369;
constexpr int UNMAP_STOP_LINE = 374;

SharedPtr<DataObjectDefinition const> makeDefinition(StringView typeName) {
    ShadingDataObjectBuilder b;
    addCommonOperatorProperties(b);
    return b.build(String(typeName));
}
} // namespace

SharedPtr<DataObjectDefinition const> ObsoleteUnaryColorMappingOperator::findDefinition(StringView typeName) {
    static StaticArray<SharedPtr<DataObjectDefinition const>, 2> const sDefinitions = {
        makeDefinition(OBSOLETE_TYPE_NAMES[0]), makeDefinition(OBSOLETE_TYPE_NAMES[1])};
    for (std::size_t i = 0; i < OBSOLETE_TYPE_NAMES.size(); ++i)
        if (OBSOLETE_TYPE_NAMES[i] == typeName) return sDefinitions[i];
    return nullptr;
}

ObsoleteUnaryColorMappingOperator::ObsoleteUnaryColorMappingOperator(SharedPtr<DataObjectDefinition const> definition)
    : UnaryColorMappingOperator(std::move(definition), OperatorColorEncoding::Linear, OperatorColorEncoding::Linear,
                                OperatorGroup::Hidden) {}

SharedPtr<Entity> ObsoleteUnaryColorMappingOperator::createNewInstance() const {
    return makeSharedPtr<ObsoleteUnaryColorMappingOperator>(getData().getDefinitionPtr());
}

Rgb ObsoleteUnaryColorMappingOperator::mapImpl(Rgb const&, Pixel) const {
    Detail::throwStopException(STOP_SOURCE, MAP_STOP_LINE);
}

Rgb ObsoleteUnaryColorMappingOperator::unmapImpl(Rgb const&, Flags<ColorMappingExclude>) const {
    Detail::throwStopException(STOP_SOURCE, UNMAP_STOP_LINE);
}

// Nothing to prepare: the operator is only kept until the pipeline removes it.
void ObsoleteUnaryColorMappingOperator::prepareForApplicationImpl(ColorMappingContext const&) {}

namespace {
// Entity classes only, so that scenes holding them still load; the operator
// factory never learns them.
void registerObsoleteOperators() {
    for (StringView name : ObsoleteUnaryColorMappingOperator::OBSOLETE_TYPE_NAMES) {
        auto definition = ObsoleteUnaryColorMappingOperator::findDefinition(name);
        EntityDatabase::registerClass(String(name), [definition] {
            return SharedPtr<Entity>(makeSharedPtr<ObsoleteUnaryColorMappingOperator>(definition));
        });
    }
}

Ferrim::HookRegistrar const sObsoleteOperatorsHook(Ferrim::Hook{
    .startupFunction = &registerObsoleteOperators,
    .name = "Register obsolete operators",
});
} // namespace

} // namespace Quelin
