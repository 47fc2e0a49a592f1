#include "Ferrim/ShadingDataObjectBuilder.h"

#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/UvMapper.h"

namespace Quelin {

SharedPtr<PropertyDefinition> ShadingDataObjectBuilder::addProperty(StringView name, SharedPtr<TypeDefinition const> type,
                                                                    PropertyKind kind) {
    auto p = createProperty(name, std::move(type), kind);
    // Growth to the larger of count + 1 and 1.5 x capacity.
    if (mProperties.size() == mProperties.capacity())
        mProperties.reserve(std::max(mProperties.size() + 1, mProperties.capacity() * 3 / 2));
    mProperties.push_back(p);
    return p;
}

GroupLayout ShadingDataObjectBuilder::buildGroupLayout() const {
    GroupLayout layout;
    layout.beginLayout({});
    String openGroup;
    for (auto const& p : mProperties) {
        if (mOptions.has(Option::HideHidden) && p->getKind() == PropertyKind::Hidden) continue;
        if (mOptions.has(Option::GroupByPrefix)) {
            String const& n = p->getName();
            auto const us = n.find('_');
            String const group = us == String::npos ? String() : n.substr(0, us);
            if (group != openGroup) {
                if (!openGroup.empty()) layout.endLayout();
                if (!group.empty()) layout.beginLayout(group);
                openGroup = group;
            }
        }
        layout.addProperty(p->getName());
    }
    if (!openGroup.empty()) layout.endLayout();
    layout.endLayout();
    return layout;
}

SharedPtr<PropertyDefinition> ShadingDataObjectBuilder::mergeColorOrMapProperties(
    PropertyDefinition const& target, SharedPtr<PropertyDefinition> color, SharedPtr<PropertyDefinition> map,
    SharedPtr<PropertyDefinition> mapOn, SharedPtr<PropertyDefinition> amount) const {
    auto merged = makeSharedPtr<PropertyDefinition>(target.getName(), TypeDefinition::makeGroup(ColorOrMap::definition()),
                                                    target.getKind());
    for (auto const& [k, v] : target.getMetadata()) merged->setMetadata(k, v);
    GenericDataObject value(ColorOrMap::definition());
    if (color && std::holds_alternative<Rgb>(color->getDefault())) value.setValue("color", color->getDefault());
    if (map) value.setValue("map", map->getDefault());
    if (mapOn && std::holds_alternative<bool>(mapOn->getDefault())) value.setValue("mapOn", mapOn->getDefault());
    merged->setDefault(Box<GenericDataObject>(std::move(value)));
    if (amount) {
        if (auto const* a = std::get_if<float>(&amount->getDefault()))
            merged->setMetadata(Metadata::UI_COLOR_OR_MAP_FLAGS, String("amount:") + std::to_string(*a));
    }
    return merged;
}

PropertyDefinition& ShadingDataObjectBuilder::addWithUi(StringView name, SharedPtr<TypeDefinition const> type,
                                                        PropertyValue value, StringView uiName, StringView description) {
    auto p = addProperty(name, std::move(type));
    if (!std::holds_alternative<std::monostate>(value)) p->setDefault(std::move(value));
    if (!uiName.empty()) p->setMetadata(Metadata::UI_NAME, String(uiName));
    if (!description.empty()) p->setMetadata(Metadata::UI_DESCRIPTION, String(description));
    return *p;
}

PropertyDefinition& ShadingDataObjectBuilder::addBool(StringView n, bool v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeBool(), v, u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addInt(StringView n, int v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeInt(), v, u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addFloat(StringView n, float v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeFloat(), v, u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addColor(StringView n, Rgb v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeColor(), v, u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addVector2(StringView n, Vector2 v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeVector2(), v, u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addVector3(StringView n, Pos v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeVector3(), v, u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addTransform(StringView n, AffineTm v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeTransform(), v, u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addString(StringView n, String v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeString(), std::move(v), u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addPath(StringView n, String v, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makePath(), std::move(v), u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addEnum(StringView n, SharedPtr<TypeDefinition const> type, int v,
                                                      StringView u, StringView d) {
    return addWithUi(n, std::move(type), v, u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addColorOrMap(StringView n, Rgb v, StringView u, StringView d) {
    GenericDataObject value(ColorOrMap::definition());
    value.set("color", v);
    return addWithUi(n, TypeDefinition::makeGroup(ColorOrMap::definition()), Box<GenericDataObject>(std::move(value)), u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addMap(StringView n, StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeEntityRef<IMap>("Zatho.IMap"), std::monostate(), u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addUvMapper(StringView n) {
    auto& p = addWithUi(n, TypeDefinition::makeEntityRef<UvMapper>("Zatho.UvMapper"), std::monostate(), "UV mapper",
                        "Placement and tiling of the texture coordinates");
    p.setDefaultEntityFactory([] { return SharedPtr<Entity>(makeSharedPtr<UvMapper>()); });
    return p;
}
PropertyDefinition& ShadingDataObjectBuilder::addEntityRef(StringView n, SharedPtr<TypeDefinition const> type,
                                                           StringView u, StringView d) {
    return addWithUi(n, std::move(type), std::monostate(), u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addGroup(StringView n, SharedPtr<DataObjectDefinition const> group,
                                                       StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeGroup(std::move(group)), std::monostate(), u, d);
}
PropertyDefinition& ShadingDataObjectBuilder::addList(StringView n, SharedPtr<DataObjectDefinition const> itemGroup,
                                                      StringView u, StringView d) {
    return addWithUi(n, TypeDefinition::makeList(std::move(itemGroup)), std::monostate(), u, d);
}

} // namespace Quelin
