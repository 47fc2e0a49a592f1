// `ferrim types [NAME] [--json]`: the registered data types as a host's UI sees them.
#include <cstdio>
#include <iostream>
#include <set>

#include "Commands.h"
#include "QuelinLib/Json.h"

using namespace Quelin;
using nlohmann::json;

namespace FerrimTool {

namespace {

String shortValue(json const& j) {
    String s = j.is_string() ? j.get<String>() : j.dump();
    if (s.size() > 60) s = s.substr(0, 57) + "...";
    return s;
}

/// A registered type, or a group type that one of them holds under a property
/// (TextureMap's "enviroMode") and that is only reachable through it.
struct ListedType {
    SharedPtr<DataObjectDefinition const> definition;
    String heldAs;  ///< "Zatho.TextureMap.enviroMode" for a group type; empty for a registered one
};

/// The registered types, then each group type once, found breadth-first
/// without recursion (groups hold groups).
Stack<ListedType> listedTypes() {
    Stack<ListedType> types;
    std::set<String> seen;
    for (auto const& def : DataObjects::TypeDatabase::getTypes()) {
        seen.insert(def->getName());
        types.push_back({def, {}});
    }
    for (std::size_t i = 0; i < types.size(); ++i) {
        SharedPtr<DataObjectDefinition const> const owner = types[i].definition;
        String const ownerName = types[i].heldAs.empty() ? owner->getName() : types[i].heldAs;
        for (auto const& p : owner->getProperties()) {
            ValueType const kind = p->getType().getValueType();
            auto const& group = p->getType().getGroup();
            if ((kind != ValueType::Group && kind != ValueType::List) || !group || !seen.insert(group->getName()).second)
                continue;
            types.push_back({group, ownerName + "." + p->getName()});
        }
    }
    return types;
}

/// The type called `name`, which may leave out the "Zatho." prefix; a group
/// type also by where it is held ("TextureMap.enviroMode", or "enviroMode"
/// when one type alone holds a group under that name).
Optional<ListedType> findListedType(Stack<ListedType> const& types, String const& name) {
    for (String const& candidate : {name, "Zatho." + name})
        for (auto const& t : types)
            if (t.definition->getName() == candidate || (!t.heldAs.empty() && t.heldAs == candidate)) return t;
    Optional<ListedType> byProperty;
    for (auto const& t : types) {
        if (t.heldAs.size() <= name.size() + 1 || !t.heldAs.ends_with("." + name)) continue;
        if (byProperty) return {};  // ambiguous: the full name is needed
        byProperty = t;
    }
    return byProperty;
}

void printText(ListedType const& type) {
    DataObjectDefinition const& def = *type.definition;
    if (type.heldAs.empty())
        std::printf("%s\n", def.getName().c_str());
    else
        std::printf("%s (group type of %s)\n", def.getName().c_str(), type.heldAs.c_str());
    for (auto const& p : def.getProperties()) {
        json const jp = toJson(def)["properties"][std::size_t(def.findIndex(p->getName()))];
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
    cmd->add_option("name", *name, "Only this type (for example Zatho.NoiseMap or NoiseMap)");
    cmd->add_flag("--json", *asJson, "Machine-readable output");
    cmd->callback([name, asJson] {
        auto types = listedTypes();
        if (!name->empty()) {
            auto const found = findListedType(types, *name);
            if (!found) throw CommandError{"unknown type \"" + *name + "\" (see `ferrim types` for the list)"};
            types = {*found};
        }
        if (*asJson) {
            json out = json::array();
            for (auto const& t : types) {
                json j = toJson(*t.definition);
                if (!t.heldAs.empty()) j["groupOf"] = t.heldAs;
                out.push_back(std::move(j));
            }
            std::cout << (name->empty() ? out : out[0]).dump(2) << "\n";
            return;
        }
        for (auto const& t : types) {
            printText(t);
            std::printf("\n");
        }
    });
}

} // namespace FerrimTool
