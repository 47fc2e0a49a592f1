#pragma once
// JSON form of records and entities. An entity is an object with its class
// name under "@class" (no property may use that key) and its properties by
// name; nested entities are written inline, nested groups as objects, lists as
// arrays, colours and vectors as arrays of numbers, enumerations by label.
#include <nlohmann/json.hpp>
#include "QuelinLib/DataObjects.h"

namespace Quelin {

inline constexpr StringView JSON_CLASS_KEY = "@class";

nlohmann::json toJson(GenericDataObject const& data);
nlohmann::json toJson(PropertyValue const& value, TypeDefinition const& type);
/// Reads the properties present in `json` into `target` (others keep their
/// values). Unknown keys, wrong value types and refused values are errors that
/// name the record type and property; `target` is unchanged then.
Expected<void> fromJson(nlohmann::json const& json, GenericDataObject& target);
/// A record type as hosts see it: its name and, per property, the type,
/// default, validators, hidden flag and UI metadata (what `ferrim types --json`
/// prints and scripting hosts list).
nlohmann::json toJson(DataObjectDefinition const& definition);
Expected<PropertyValue> propertyValueFromJson(nlohmann::json const& json, PropertyDefinition const& property);

nlohmann::json entityToJson(Entity const& entity);
/// Creates the entity named by "@class" through the entity database and loads
/// its record.
Expected<SharedPtr<Entity>> entityFromJson(nlohmann::json const& json);
template <typename T> Expected<EntityHolder<T>> entityFromJsonAs(nlohmann::json const& json) {
    auto e = entityFromJson(json);
    if (!e) return makeError(e.error());
    auto t = std::dynamic_pointer_cast<T>(*e);
    if (!t) return makeError("\"" + (*e)->getClassName() + "\" is not of the expected kind");
    return EntityHolder<T>(t);
}

/// Parses text, turning parse errors into one line with the position.
Expected<nlohmann::json> parseJson(StringView text);

} // namespace Quelin
