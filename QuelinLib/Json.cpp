#include "QuelinLib/Json.h"

#include <charconv>
#include <cmath>
#include <cstdlib>

namespace Quelin {

using nlohmann::json;

namespace {
/// The shortest decimal that reads back as the same float, so files show
/// 1.1 rather than 1.100000023841858 and still round-trip exactly.
json floatJson(float v) {
    if (!std::isfinite(v)) return json(double(v));
    char buf[32];
    auto const r = std::to_chars(buf, buf + sizeof buf, v);
    return json(std::strtod(String(buf, r.ptr).c_str(), nullptr));
}
json floats(std::initializer_list<float> v) {
    json a = json::array();
    for (float x : v) a.push_back(floatJson(x));
    return a;
}

Expected<std::vector<float>> readFloats(json const& j, std::size_t n, String const& what) {
    if (!j.is_array() || j.size() != n) return makeError(what + " expects an array of " + std::to_string(n) + " numbers");
    std::vector<float> out;
    for (auto const& x : j) {
        if (!x.is_number()) return makeError(what + " expects an array of " + std::to_string(n) + " numbers");
        out.push_back(x.get<float>());
    }
    return out;
}
json metadataToJson(MetadataValue const& v) {
    return std::visit(
        [](auto const& x) -> json {
            using T = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<T, MetadataPredicate>) return json{{"predicate", x.expression}};
            else return json(x);
        },
        v);
}

json typeToJson(TypeDefinition const& t) {
    json j{{"kind", valueTypeName(t.getValueType())}};
    switch (t.getValueType()) {
    case ValueType::Enum: {
        j["name"] = t.getName();
        json values = json::array();
        for (auto const& e : t.getEnumEntries()) values.push_back({{"value", e.value}, {"label", e.label}});
        j["values"] = values;
        break;
    }
    case ValueType::EntityRef: j["class"] = t.getName(); break;
    case ValueType::Group:
    case ValueType::List: j["group"] = t.getName(); break;
    default: break;
    }
    return j;
}
} // namespace

json toJson(PropertyValue const& value, TypeDefinition const& type) {
    switch (type.getValueType()) {
    case ValueType::Bool: return std::get<bool>(value);
    case ValueType::Int: return std::get<int>(value);
    case ValueType::Float: return floatJson(std::get<float>(value));
    case ValueType::Color: {
        auto const& c = std::get<Rgb>(value);
        return floats({c.r, c.g, c.b});
    }
    case ValueType::Vector2: {
        auto const& v = std::get<Vector2>(value);
        return floats({v.x, v.y});
    }
    case ValueType::Vector3: {
        auto const& v = std::get<Pos>(value);
        return floats({v.x, v.y, v.z});
    }
    case ValueType::Transform: {
        auto const& t = std::get<AffineTm>(value);
        json a = json::array();
        for (auto const& row : t.m)
            for (float x : row) a.push_back(floatJson(x));
        return a;
    }
    case ValueType::String:
    case ValueType::Path: return std::get<String>(value);
    case ValueType::Enum: {
        int const v = std::get<int>(value);
        if (auto l = type.findEnumLabel(v)) return String(*l);
        return v;
    }
    case ValueType::EntityRef: {
        auto const& h = std::get<EntityHolder<Entity>>(value);
        return h ? entityToJson(*h) : json(nullptr);
    }
    case ValueType::Group: return toJson(*std::get<Box<GenericDataObject>>(value));
    case ValueType::List: {
        auto const& l = std::get<ListPropertyValue>(value);
        json a = json::array();
        for (std::size_t i = 0; i < l.size(); ++i) a.push_back(toJson(l[i]));
        return a;
    }
    }
    return nullptr;
}

json toJson(GenericDataObject const& data) {
    json j = json::object();
    for (auto const& p : data.getProperties()) j[p.definition->getName()] = toJson(p.value, p.definition->getType());
    return j;
}

json toJson(DataObjectDefinition const& def) {
    json props = json::array();
    for (auto const& p : def.getProperties()) {
        json jp{{"name", p->getName()}, {"type", typeToJson(p->getType())}};
        if (p->getDefaultEntityFactory())
            jp["default"] = "a new " + p->getType().getName();
        else
            jp["default"] = toJson(p->getDefault(), p->getType());
        if (p->getKind() == PropertyKind::Hidden) jp["hidden"] = true;
        json validators = json::array();
        for (auto const& v : p->getValidators()) validators.push_back(v->describe());
        if (!validators.empty()) jp["validators"] = validators;
        json meta = json::object();
        for (auto const& [k, v] : p->getMetadata()) meta[k] = metadataToJson(v);
        if (!meta.empty()) jp["metadata"] = meta;
        props.push_back(jp);
    }
    return {{"name", def.getName()}, {"properties", props}};
}

Expected<PropertyValue> propertyValueFromJson(json const& j, PropertyDefinition const& property) {
    TypeDefinition const& type = property.getType();
    String const what = "property \"" + property.getName() + "\"";
    auto wrong = [&](char const* expected) { return makeError(what + " expects " + expected); };
    switch (type.getValueType()) {
    case ValueType::Bool:
        if (!j.is_boolean()) return wrong("true or false");
        return PropertyValue(j.get<bool>());
    case ValueType::Int:
        if (!j.is_number_integer()) return wrong("an integer");
        return PropertyValue(j.get<int>());
    case ValueType::Float:
        if (!j.is_number()) return wrong("a number");
        return PropertyValue(j.get<float>());
    case ValueType::Color: {
        auto v = readFloats(j, 3, what);
        if (!v) return makeError(v.error());
        return PropertyValue(Rgb((*v)[0], (*v)[1], (*v)[2]));
    }
    case ValueType::Vector2: {
        auto v = readFloats(j, 2, what);
        if (!v) return makeError(v.error());
        return PropertyValue(Vector2((*v)[0], (*v)[1]));
    }
    case ValueType::Vector3: {
        auto v = readFloats(j, 3, what);
        if (!v) return makeError(v.error());
        return PropertyValue(Pos((*v)[0], (*v)[1], (*v)[2]));
    }
    case ValueType::Transform: {
        auto v = readFloats(j, 12, what);
        if (!v) return makeError(v.error());
        AffineTm t;
        for (int i = 0; i < 12; ++i) t.m[i / 4][i % 4] = (*v)[std::size_t(i)];
        return PropertyValue(t);
    }
    case ValueType::String:
    case ValueType::Path:
        if (!j.is_string()) return wrong("a string");
        return PropertyValue(j.get<String>());
    case ValueType::Enum: {
        if (j.is_string()) {
            if (auto v = type.findEnumValue(j.get<String>())) return PropertyValue(*v);
            String labels;
            for (auto const& e : type.getEnumEntries()) labels += (labels.empty() ? "\"" : ", \"") + e.label + "\"";
            return makeError(what + ": \"" + j.get<String>() + "\" is not one of " + labels);
        }
        if (j.is_number_integer()) return PropertyValue(j.get<int>());
        return wrong("an enumeration label");
    }
    case ValueType::EntityRef: {
        if (j.is_null()) return PropertyValue(EntityHolder<Entity>());
        auto e = entityFromJson(j);
        if (!e) return makeError(what + ": " + e.error());
        return PropertyValue(EntityHolder<Entity>(*e));
    }
    case ValueType::Group: {
        if (!j.is_object()) return wrong("an object");
        GenericDataObject group(type.getGroup());
        if (auto const* d = std::get_if<Box<GenericDataObject>>(&property.getDefault()); d && *d) group = **d;
        if (auto r = fromJson(j, group); !r) return makeError(what + ": " + r.error());
        return PropertyValue(Box<GenericDataObject>(std::move(group)));
    }
    case ValueType::List: {
        if (!j.is_array()) return wrong("an array");
        ListPropertyValue list;
        for (std::size_t i = 0; i < j.size(); ++i) {
            GenericDataObject item(type.getGroup());
            if (!j[i].is_object()) return makeError(what + " item " + std::to_string(i + 1) + " is not an object");
            if (auto r = fromJson(j[i], item); !r) return makeError(what + " item " + std::to_string(i + 1) + ": " + r.error());
            list.push_back(std::move(item));
        }
        return PropertyValue(std::move(list));
    }
    }
    return makeError(what + " has an unknown type");
}

Expected<void> fromJson(json const& j, GenericDataObject& target) {
    if (!j.is_object()) return makeError("\"" + target.getName() + "\" expects an object");
    GenericDataObject updated = target;
    for (auto const& [key, value] : j.items()) {
        if (key == JSON_CLASS_KEY) continue;
        PropertyDefinition const* p = target.getDefinition().find(key);
        if (!p) return makeError("\"" + target.getName() + "\" has no property \"" + key + "\"");
        auto v = propertyValueFromJson(value, *p);
        if (!v) return makeError("\"" + target.getName() + "\": " + v.error());
        if (auto r = updated.setValue(key, std::move(*v)); !r) return makeError("\"" + target.getName() + "\": " + r.error());
    }
    target = std::move(updated);
    return {};
}

json entityToJson(Entity const& entity) {
    json j = json::object();
    j[String(JSON_CLASS_KEY)] = entity.getClassName();
    json const data = entity.saveInternalData();
    for (auto const& [k, v] : data.items()) j[k] = v;
    return j;
}

Expected<SharedPtr<Entity>> entityFromJson(json const& j) {
    if (!j.is_object()) return makeError("an entity must be a JSON object");
    auto it = j.find(String(JSON_CLASS_KEY));
    if (it == j.end() || !it->is_string()) return makeError("an entity needs its class name under \"@class\"");
    String const className = it->get<String>();
    SharedPtr<Entity> e = EntityDatabase::create(className);
    if (!e) return makeError("unknown type \"" + className + "\"");
    if (auto r = e->loadInternalData(j); !r) return makeError(r.error());
    return e;
}

Expected<json> parseJson(StringView text) {
    try {
        return json::parse(text);
    } catch (json::parse_error const& e) {
        // nlohmann's message starts with "[json.exception.parse_error.101] "; keep the readable part.
        String msg = e.what();
        if (auto p = msg.find("] "); p != String::npos) msg = msg.substr(p + 2);
        return makeError("malformed JSON: " + msg);
    }
}

// Entity's JSON defaults live here so that DataObjects.cpp needs no JSON parser.
json Entity::saveInternalData() const {
    std::lock_guard lock(mMutex);
    return toJson(mData);
}

Expected<void> Entity::loadInternalData(json const& j) {
    GenericDataObject data(mData.getDefinitionPtr());
    if (auto r = fromJson(j, data); !r) return r;
    return setData(data);
}

} // namespace Quelin
