// `ferrim types [NAME] [--json]`: the registered data types as a host's UI sees them.
#include <cstdio>
#include <iostream>

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

void printText(DataObjectDefinition const& def) {
    std::printf("%s\n", def.getName().c_str());
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
            for (auto const& t : types) out.push_back(toJson(*t));
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
