#include "QuelinLib/Json.h"

#include <charconv>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <limits>

#include "QuelinLib/MessageText.h"

namespace Quelin {

using nlohmann::json;

namespace {
json floats(std::initializer_list<float> v) {
    json a = json::array();
    for (float x : v) a.push_back(floatToJson(x));
    return a;
}

/// Why a value is not a float, for messages.
String floatProblem(json const& x) {
    if (x.is_number()) return describeJson(x) + " is beyond the range of a float";
    return describeJson(x) + " is not a number";
}

Expected<std::vector<float>> readFloats(json const& j, std::size_t n, String const& what) {
    String const expected = what + " expects an array of " + std::to_string(n) + " numbers";
    if (!j.is_array() || j.size() != n) return makeError(expected);
    std::vector<float> out;
    for (auto const& x : j) {
        auto const v = jsonToFloat(x);
        if (!v) return makeError(expected + ": " + floatProblem(x));
        out.push_back(*v);
    }
    return out;
}

/// Entities being read or written on this thread, outermost first: the
/// nesting bound, and the point where the whole value is checked once.
thread_local int tEntityReadDepth = 0;
thread_local int tEntityWriteDepth = 0;

struct DepthCount {
    explicit DepthCount(int& depth) : mDepth(depth) { ++mDepth; }
    ~DepthCount() { --mDepth; }
    DepthCount(DepthCount const&) = delete;
    DepthCount& operator=(DepthCount const&) = delete;
    int& mDepth;
};

String nestingError(StringView what, int limit) {
    return String(what) + " nested deeper than " + std::to_string(limit) + " levels";
}

/// Checks the nesting of a value already in memory without recursion, so
/// that the recursive loaders only ever see bounded input.
Expected<void> checkNesting(json const& root) {
    struct Item {
        json const* value;
        int depth;
        int entities;
    };
    Stack<Item> pending{{&root, 0, 0}};
    while (!pending.empty()) {
        Item const item = pending.back();
        pending.pop_back();
        int const depth = item.depth + 1;
        if (depth > MAX_JSON_DEPTH) return makeError(nestingError("arrays and objects", MAX_JSON_DEPTH));
        int entities = item.entities;
        if (item.value->is_object() && item.value->contains(String(JSON_CLASS_KEY)) && ++entities > MAX_ENTITY_NESTING)
            return makeError(nestingError("entities", MAX_ENTITY_NESTING));
        for (auto const& child : *item.value)
            if (child.is_structured()) pending.push_back({&child, depth, entities});
    }
    return {};
}

/// The same bound on text, before the parser builds anything from it.
Expected<void> checkTextNesting(StringView text) {
    int depth = 0, line = 1;
    bool inString = false, escaped = false;
    for (char const c : text) {
        if (c == '\n') ++line;
        if (inString) {
            if (escaped) escaped = false;
            else if (c == '\\') escaped = true;
            else if (c == '"') inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            if (++depth > MAX_JSON_DEPTH)
                return makeError(nestingError("arrays and objects", MAX_JSON_DEPTH) + " at line " + std::to_string(line));
        } else if (c == ']' || c == '}') {
            --depth;
        }
    }
    return {};
}
} // namespace

// The shortest decimal that reads back as the same float, so files show 1.1
// rather than 1.100000023841858 and still round-trip exactly.
json floatToJson(float v) {
    if (std::isnan(v)) return "nan";
    if (std::isinf(v)) return v > 0.f ? "inf" : "-inf";
    char buf[32];
    auto const r = std::to_chars(buf, buf + sizeof buf, v);
    return json(std::strtod(String(buf, r.ptr).c_str(), nullptr));
}

Optional<int> jsonToInt(json const& j) {
    if (j.is_number_unsigned()) {
        auto const v = j.get<std::uint64_t>();
        if (v > std::uint64_t(INT_MAX)) return std::nullopt;
        return int(v);
    }
    if (j.is_number_integer()) {
        auto const v = j.get<std::int64_t>();
        if (v < INT_MIN || v > INT_MAX) return std::nullopt;
        return int(v);
    }
    return std::nullopt;
}

Optional<float> jsonToFloat(json const& j) {
    if (j.is_string()) {
        String const& t = j.get_ref<String const&>();
        if (t == "inf") return std::numeric_limits<float>::infinity();
        if (t == "-inf") return -std::numeric_limits<float>::infinity();
        if (t == "nan") return std::numeric_limits<float>::quiet_NaN();
        return std::nullopt;
    }
    if (!j.is_number()) return std::nullopt;
    double const d = j.get<double>();
    // Doubles from here up round to infinity as floats: 2^128 - 2^103 is
    // halfway between the largest float and the next power of two.
    double const limit = std::ldexp(1.0, 128) - std::ldexp(1.0, 103);
    if (!(std::abs(d) < limit)) return std::nullopt;
    return float(d);
}

String describeJson(json const& j) {
    switch (j.type()) {
    case json::value_t::object: return "an object";
    case json::value_t::array: return "an array";
    case json::value_t::string: {
        String text = printableText(j.get_ref<String const&>(), 40);
        text.insert(text.begin(), '"');
        text.push_back('"');
        return text;
    }
    case json::value_t::discarded: return "nothing";
    default: return j.dump();  // null, booleans, numbers: short and printable
    }
}

namespace {
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
    case ValueType::Float: return floatToJson(std::get<float>(value));
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
            for (float x : row) a.push_back(floatToJson(x));
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
    case ValueType::Int: {
        if (!j.is_number_integer()) return wrong("an integer");
        auto const v = jsonToInt(j);
        if (!v) return makeError(what + ": " + describeJson(j) + " does not fit a 32-bit integer");
        return PropertyValue(*v);
    }
    case ValueType::Float: {
        auto const v = jsonToFloat(j);
        if (!v) return makeError(what + ": " + floatProblem(j));
        return PropertyValue(*v);
    }
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
            return makeError(what + ": " + describeJson(j) + " is not one of " + labels);
        }
        if (j.is_number_integer()) {
            auto const v = jsonToInt(j);
            if (!v) return makeError(what + ": " + describeJson(j) + " is not a value of \"" + type.getName() + "\"");
            return PropertyValue(*v);
        }
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
        if (!p) return makeError("\"" + target.getName() + "\" has no property \"" + printableText(key, 40) + "\"");
        auto v = propertyValueFromJson(value, *p);
        if (!v) return makeError("\"" + target.getName() + "\": " + v.error());
        if (auto r = updated.setValue(key, std::move(*v)); !r) return makeError("\"" + target.getName() + "\": " + r.error());
    }
    target = std::move(updated);
    return {};
}

json entityToJson(Entity const& entity) {
    DepthCount const depth(tEntityWriteDepth);
    if (tEntityWriteDepth > MAX_ENTITY_NESTING)
        throw Exception("Cannot write \"" + entity.getClassName() + "\": " + nestingError("entities", MAX_ENTITY_NESTING));
    json j = json::object();
    j[String(JSON_CLASS_KEY)] = entity.getClassName();
    json const data = entity.saveInternalData();
    for (auto const& [k, v] : data.items()) j[k] = v;
    return j;
}

Expected<SharedPtr<Entity>> entityFromJson(json const& j) {
    if (!j.is_object()) return makeError("an entity must be a JSON object");
    // The outermost call checks the whole value once; nested calls only count.
    if (tEntityReadDepth == 0) {
        if (auto r = checkNesting(j); !r) return makeError(r.error());
    } else if (tEntityReadDepth >= MAX_ENTITY_NESTING) {
        return makeError(nestingError("entities", MAX_ENTITY_NESTING));
    }
    DepthCount const depth(tEntityReadDepth);
    auto it = j.find(String(JSON_CLASS_KEY));
    if (it == j.end() || !it->is_string()) return makeError("an entity needs its class name under \"@class\"");
    String const className = it->get<String>();
    SharedPtr<Entity> e = EntityDatabase::create(className);
    if (!e) return makeError("unknown type " + describeJson(*it));
    if (auto r = e->loadInternalData(j); !r) return makeError(r.error());
    return e;
}

Expected<json> parseJson(StringView text) {
    if (auto r = checkTextNesting(text); !r) return makeError("malformed JSON: " + r.error());
    try {
        return json::parse(text);
    } catch (json::exception const& e) {
        // Syntax errors and numbers beyond a double's range alike. nlohmann's
        // message starts with "[json.exception.parse_error.101] "; keep the
        // readable part, and the bytes it quotes from the text printable.
        String msg = e.what();
        if (auto p = msg.find("] "); p != String::npos) msg = msg.substr(p + 2);
        return makeError("malformed JSON: " + singleLine(msg));
    }
}

// Entity's JSON defaults live here so that DataObjects.cpp needs no JSON parser.
json Entity::saveInternalData() const {
    // Copy under the lock, write without it: nested entities then take their
    // own locks one at a time, not all at once down a deep chain.
    GenericDataObject const data = [&] {
        std::lock_guard lock(mMutex);
        return mData;
    }();
    return toJson(data);
}

Expected<void> Entity::loadInternalData(json const& j) {
    GenericDataObject data(mData.getDefinitionPtr());
    if (auto r = fromJson(j, data); !r) return r;
    return setData(data);
}

} // namespace Quelin
