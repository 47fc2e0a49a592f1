// `ferrim types [NAME] [--json]`: the registered data types as a host's UI sees them.
#include <cstdio>
#include <iostream>

#include "Commands.h"
#include "QuelinLib/Json.h"

using namespace Quelin;
using nlohmann::json;

namespace FerrimTool {

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

json definitionToJson(DataObjectDefinition const& def) {
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

String shortValue(json const& j) {
    String s = j.is_string() ? j.get<String>() : j.dump();
    if (s.size() > 60) s = s.substr(0, 57) + "...";
    return s;
}

void printText(DataObjectDefinition const& def) {
    std::printf("%s\n", def.getName().c_str());
    for (auto const& p : def.getProperties()) {
        json const jp = definitionToJson(def)["properties"][std::size_t(def.findIndex(p->getName()))];
        String type = String(valueTypeName(p->getType().getValueType()));
        if (p->getType().getValueType() == ValueType::Enum) {
            type += " {";
            bool first = true;
            for (auto const& e : p->getType().getEnumEntries()) {
                type += (first ? "" : ", ") + e.label;
                first = false;
            }
            type += "}";
        } else if (p->getType().getValueType() != ValueType::Bool && !p->getType().getName().empty() &&
                   p->getType().getName() != valueTypeName(p->getType().getValueType())) {
            type += " " + p->getType().getName();
        }
        std::printf("  %-28s %-30s default %s\n", p->getName().c_str(), type.c_str(), shortValue(jp["default"]).c_str());
        if (jp.contains("validators"))
            for (auto const& v : jp["validators"]) std::printf("      validator %s\n", v.dump().c_str());
        if (jp.contains("metadata"))
            for (auto const& [k, v] : jp["metadata"].items()) std::printf("      %s = %s\n", k.c_str(), shortValue(v).c_str());
    }
}

} // namespace

void addTypesCommand(CLI::App& app) {
    auto* cmd = app.add_subcommand("types", "List the registered data types with their properties and UI metadata");
    auto name = std::make_shared<String>();
    auto asJson = std::make_shared<bool>(false);
    cmd->add_option("name", *name, "Only this type (for example Zatho.NoiseMap)");
    cmd->add_flag("--json", *asJson, "Machine-readable output");
    cmd->callback([name, asJson] {
        auto types = DataObjects::TypeDatabase::getTypes();
        if (!name->empty()) {
            auto def = DataObjects::TypeDatabase::findType(*name);
            if (!def) throw CommandError{"unknown type \"" + *name + "\" (see `ferrim types` for the list)"};
            types = {def};
        }
        if (*asJson) {
            json out = json::array();
            for (auto const& t : types) out.push_back(definitionToJson(*t));
            std::cout << (name->empty() ? out : out[0]).dump(2) << "\n";
            return;
        }
        for (auto const& t : types) {
            printText(*t);
            std::printf("\n");
        }
    });
}

} // namespace FerrimTool
