#pragma once
// JSON form of records and entities. An entity is an object with its class
// name under "@class" (no property may use that key) and its properties by
// name; nested entities are written inline, nested groups as objects, lists as
// arrays, colours and vectors as arrays of numbers, enumerations by label.
#include <nlohmann/json.hpp>
#include "QuelinLib/DataObjects.h"

namespace Quelin {

inline constexpr StringView JSON_CLASS_KEY = "@class";

/// Deepest nesting of arrays and objects that the loaders accept. The loaders
/// and the writer walk values recursively, so deeper input is refused before
/// it is walked: a hostile file must not exhaust the stack.
inline constexpr int MAX_JSON_DEPTH = 256;
/// Deepest nesting of entities inside entities (a map's input map, an
/// operator's predecessor written inline) that entityFromJson accepts and
/// entityToJson writes.
inline constexpr int MAX_ENTITY_NESTING = 100;

/// Non-finite floats are written as the texts "inf", "-inf" and "nan", which
/// the readers take back. Entities nested deeper than MAX_ENTITY_NESTING are
/// an Exception.
nlohmann::json toJson(GenericDataObject const& data);
nlohmann::json toJson(PropertyValue const& value, TypeDefinition const& type);
/// Reads the properties present in `json` into `target` (others keep their
/// values). Unknown keys, wrong value types and refused values are errors that
/// name the record type and property; `target` is unchanged then.
Expected<void> fromJson(nlohmann::json const& json, GenericDataObject& target);
Expected<PropertyValue> propertyValueFromJson(nlohmann::json const& json, PropertyDefinition const& property);

nlohmann::json entityToJson(Entity const& entity);
/// Creates the entity named by "@class" through the entity database and loads
/// its record. Values nested deeper than MAX_JSON_DEPTH or entities deeper
/// than MAX_ENTITY_NESTING are refused before anything is created.
Expected<SharedPtr<Entity>> entityFromJson(nlohmann::json const& json);
template <typename T> Expected<EntityHolder<T>> entityFromJsonAs(nlohmann::json const& json) {
    auto e = entityFromJson(json);
    if (!e) return makeError(e.error());
    auto t = std::dynamic_pointer_cast<T>(*e);
    if (!t) return makeError("\"" + (*e)->getClassName() + "\" is not of the expected kind");
    return EntityHolder<T>(t);
}

/// Parses text, turning every error (syntax, numbers beyond the range of a
/// double, nesting deeper than MAX_JSON_DEPTH) into one line with the position.
Expected<nlohmann::json> parseJson(StringView text);

/// A float as JSON: the shortest decimal that reads back exactly, and the
/// texts "inf", "-inf" and "nan" for non-finite values (JSON has none).
nlohmann::json floatToJson(float value);
/// The number as a 32-bit int; empty when it is not an integer or does not fit.
Optional<int> jsonToInt(nlohmann::json const& json);
/// The number as a float (or one of the texts toJson writes for non-finite
/// values); empty when it is not a number or beyond the range of a float.
Optional<float> jsonToFloat(nlohmann::json const& json);
/// A short, printable, one-line description of a value for messages: scalars
/// as written, strings quoted and cut, arrays and objects by kind only.
String describeJson(nlohmann::json const& json);

} // namespace Quelin
