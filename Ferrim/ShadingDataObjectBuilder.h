#pragma once
// The builder through which every map and operator declares its record.
#include "Ferrim/Export.h"
#include "QuelinLib/DataObjects.h"
#include "QuelinLib/Flags.h"

namespace Quelin {

class FERRIM_EXPORT ShadingDataObjectBuilder : public IDataObjectBuilder {
public:
    enum class Option : std::uint32_t {
        GroupByPrefix = 1,    ///< properties "a_b" are laid out in a group "a"
        HideHidden = 2,       ///< hidden properties are left out of the layout
    };

    explicit ShadingDataObjectBuilder(Flags<Option> options = {}) : mOptions(options) {}

    SharedPtr<PropertyDefinition> addProperty(StringView name, SharedPtr<TypeDefinition const> type,
                                              PropertyKind kind = PropertyKind::Normal) override;
    GroupLayout buildGroupLayout() const;
    /// Joins the separate colour, map, map-on and amount properties of one
    /// colour-or-map parameter into a single property of the "Zatho.ColorOrMap"
    /// group type; the amount (may be null) becomes metadata.
    SharedPtr<PropertyDefinition> mergeColorOrMapProperties(PropertyDefinition const& target,
                                                            SharedPtr<PropertyDefinition> color,
                                                            SharedPtr<PropertyDefinition> map,
                                                            SharedPtr<PropertyDefinition> mapOn,
                                                            SharedPtr<PropertyDefinition> amount) const;

    // Conveniences: add a property with its default, UI name and description.
    PropertyDefinition& addBool(StringView name, bool value, StringView uiName, StringView description = {});
    PropertyDefinition& addInt(StringView name, int value, StringView uiName, StringView description = {});
    PropertyDefinition& addFloat(StringView name, float value, StringView uiName, StringView description = {});
    PropertyDefinition& addColor(StringView name, Rgb value, StringView uiName, StringView description = {});
    PropertyDefinition& addVector2(StringView name, Vector2 value, StringView uiName, StringView description = {});
    PropertyDefinition& addVector3(StringView name, Pos value, StringView uiName, StringView description = {});
    PropertyDefinition& addTransform(StringView name, AffineTm value, StringView uiName, StringView description = {});
    PropertyDefinition& addString(StringView name, String value, StringView uiName, StringView description = {});
    PropertyDefinition& addPath(StringView name, String value, StringView uiName, StringView description = {});
    PropertyDefinition& addEnum(StringView name, SharedPtr<TypeDefinition const> type, int value, StringView uiName,
                                StringView description = {});
    /// A "Zatho.ColorOrMap" group with the given colour and map on.
    PropertyDefinition& addColorOrMap(StringView name, Rgb value, StringView uiName, StringView description = {});
    /// A reference to a map (any IMap), empty by default.
    PropertyDefinition& addMap(StringView name, StringView uiName, StringView description = {});
    /// The map's own UvMapper: every new record gets a fresh default mapper.
    PropertyDefinition& addUvMapper(StringView name = "uvMapper");
    PropertyDefinition& addEntityRef(StringView name, SharedPtr<TypeDefinition const> type, StringView uiName,
                                     StringView description = {});
    PropertyDefinition& addGroup(StringView name, SharedPtr<DataObjectDefinition const> group, StringView uiName,
                                 StringView description = {});
    PropertyDefinition& addList(StringView name, SharedPtr<DataObjectDefinition const> itemGroup, StringView uiName,
                                StringView description = {});

    Stack<SharedPtr<PropertyDefinition>> const& getProperties() const { return mProperties; }

private:
    PropertyDefinition& addWithUi(StringView name, SharedPtr<TypeDefinition const> type, PropertyValue value,
                                  StringView uiName, StringView description);
    Flags<Option> mOptions;
};

} // namespace Quelin
