#include "Scene.h"

#include <cmath>
#include <set>

#include "QuelinLib/Json.h"
#include "QuelinLib/MessageText.h"

using namespace Quelin;
using nlohmann::json;

namespace FerrimTool {

namespace {

Expected<void> checkKeys(json const& j, std::set<String> const& allowed, String const& where) {
    for (auto const& [k, v] : j.items())
        if (!allowed.count(k)) return makeError(where + ": unknown key \"" + printableText(k, 40) + "\"");
    return {};
}

Expected<EntityHolder<IMap>> readMap(json const& j, String const& where) {
    auto map = entityFromJsonAs<IMap>(j);
    if (!map) return makeError(where + ": " + map.error());
    return map;
}

Expected<Swatch> readSwatch(json const& j, String const& where) {
    if (!j.is_object()) return makeError(where + ": expected an object");
    if (j.contains(String(JSON_CLASS_KEY))) {
        // A bare map.
        auto map = readMap(j, where);
        if (!map) return makeError(map.error());
        Swatch s;
        s.map = *map;
        s.label = (*map)->getClassName();
        return s;
    }
    if (auto r = checkKeys(j, {"label", "shape", "bump", "tiling", "map", "slot"}, where); !r) return makeError(r.error());
    Swatch s;
    if (j.contains("label")) {
        if (!j["label"].is_string()) return makeError(where + ": \"label\" must be a string");
        s.label = j["label"].get<String>();
    }
    if (j.contains("shape")) {
        String const shape = j["shape"].is_string() ? j["shape"].get<String>() : String();
        if (shape == "plane") s.shape = SwatchShape::Plane;
        else if (shape == "sphere") s.shape = SwatchShape::Sphere;
        else return makeError(where + ": \"shape\" must be \"plane\" or \"sphere\"");
    }
    if (j.contains("bump")) {
        if (!j["bump"].is_boolean()) return makeError(where + ": \"bump\" must be true or false");
        s.bump = j["bump"].get<bool>();
    }
    if (j.contains("tiling")) {
        auto const tiling = j["tiling"].is_number() ? jsonToFloat(j["tiling"]) : std::nullopt;
        if (!tiling || !(*tiling > 0.f) || !std::isfinite(*tiling))
            return makeError(where + ": \"tiling\" must be a positive number, not " + describeJson(j["tiling"]));
        s.tiling = *tiling;
    }
    if (j.contains("map") == j.contains("slot")) return makeError(where + ": give either \"map\" or \"slot\"");
    if (j.contains("map")) {
        auto map = readMap(j["map"], where);
        if (!map) return makeError(map.error());
        s.map = *map;
    } else {
        MaterialMapSlot slot;
        if (auto r = fromJson(j["slot"], slot); !r) return makeError(where + ": slot: " + r.error());
        if (!isValid(slot)) return makeError(where + ": invalid slot (a value is not finite or out of range)");
        s.slot = std::move(slot);
    }
    if (s.label.empty()) s.label = s.map ? s.map->getClassName() : "slot";
    return s;
}

} // namespace

Expected<Scene> parseScene(StringView text, String const& source) {
    auto parsed = parseJson(text);
    if (!parsed) return makeError(source + ": " + parsed.error());
    json const& j = *parsed;
    if (!j.is_object()) return makeError(source + ": a scene must be a JSON object");
    Scene scene;
    if (j.contains(String(JSON_CLASS_KEY)) || (j.contains("map") && !j.contains("swatches"))) {
        json swatch = j;
        scene.pipeline = nullptr;
        if (!j.contains(String(JSON_CLASS_KEY)) && j.contains("pipeline")) {
            scene.pipeline = j["pipeline"];
            swatch.erase("pipeline");
        }
        auto s = readSwatch(swatch, source);
        if (!s) return makeError(s.error());
        scene.swatches.push_back(std::move(*s));
        return scene;
    }
    if (auto r = checkKeys(j, {"swatches", "columns", "samples", "background", "pipeline"}, source); !r)
        return makeError(r.error());
    if (!j.contains("swatches") || !j["swatches"].is_array() || j["swatches"].empty())
        return makeError(source + ": \"swatches\" must be a non-empty array");
    if (j.contains("columns")) {
        auto const columns = jsonToInt(j["columns"]);
        if (!columns || *columns < 1)
            return makeError(source + ": \"columns\" must be a positive 32-bit integer, not " + describeJson(j["columns"]));
        scene.columns = *columns;
    }
    if (j.contains("samples")) {
        auto const samples = jsonToInt(j["samples"]);
        if (!samples || *samples < 1 || *samples > 256)
            return makeError(source + ": \"samples\" must be an integer from 1 to 256, not " + describeJson(j["samples"]));
        scene.samples = *samples;
    }
    if (j.contains("background")) {
        auto const& b = j["background"];
        Optional<float> c[3];
        if (b.is_array() && b.size() == 3)
            for (int i = 0; i < 3; ++i)
                if (b[std::size_t(i)].is_number()) c[i] = jsonToFloat(b[std::size_t(i)]);
        if (!c[0] || !c[1] || !c[2])
            return makeError(source + ": \"background\" must be an array of 3 numbers within the range of a float");
        scene.background = Rgb(*c[0], *c[1], *c[2]);
    }
    if (j.contains("pipeline")) scene.pipeline = j["pipeline"];
    for (std::size_t i = 0; i < j["swatches"].size(); ++i) {
        auto s = readSwatch(j["swatches"][i], source + ": swatch " + std::to_string(i + 1));
        if (!s) return makeError(s.error());
        scene.swatches.push_back(std::move(*s));
    }
    return scene;
}

} // namespace FerrimTool
