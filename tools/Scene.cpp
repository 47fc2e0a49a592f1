#include "Scene.h"

#include <cmath>
#include <set>

#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/TextureMap.h"
#include "QuelinLib/DataSource.h"
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

/// File data sources reachable from `root` read relative paths from `base`.
void resolveFilePaths(Entity const& root, Io::Path const& base) {
    if (base.empty()) return;
    Stack<SharedPtr<FileDataSource>> sources;
    visitEntityGraphNodes(root, [&](Entity const& e) {
        if (auto const* f = dynamic_cast<FileDataSource const*>(&e))
            sources.push_back(std::const_pointer_cast<FileDataSource>(
                std::static_pointer_cast<FileDataSource const>(f->shared_from_this())));
        return VisitEntityGraphAction::Continue;
    });
    for (auto const& f : sources) {
        Io::Path const path = f->getPhysicalPath();
        if (!path.empty() && path.is_relative()) f->set("path", Io::pathToUtf8(base / path));
    }
}

Expected<EntityHolder<IMap>> readMap(json const& j, String const& where, Io::Path const& base) {
    auto map = entityFromJsonAs<IMap>(j);
    if (!map) return makeError(where + ": " + map.error());
    resolveFilePaths(**map, base);
    return map;
}

Expected<Swatch> readSwatch(json const& j, String const& where, Io::Path const& base) {
    if (!j.is_object()) return makeError(where + ": expected an object");
    if (j.contains(String(JSON_CLASS_KEY))) {
        // A bare map.
        auto map = readMap(j, where, base);
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
        else if (shape == "environment") s.shape = SwatchShape::Environment;
        else return makeError(where + ": \"shape\" must be \"plane\", \"sphere\" or \"environment\"");
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
        auto map = readMap(j["map"], where, base);
        if (!map) return makeError(map.error());
        s.map = *map;
    } else {
        MaterialMapSlot slot;
        if (auto r = fromJson(j["slot"], slot); !r) return makeError(where + ": slot: " + r.error());
        if (!isValid(slot)) return makeError(where + ": invalid slot (a value is not finite or out of range)");
        if (slot.map) resolveFilePaths(*slot.map, base);
        s.slot = std::move(slot);
    }
    if (s.label.empty()) s.label = s.map ? s.map->getClassName() : "slot";
    return s;
}

} // namespace

Expected<Scene> parseScene(StringView text, String const& source, Io::Path const& baseFolder) {
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
        auto s = readSwatch(swatch, source, baseFolder);
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
        auto s = readSwatch(j["swatches"][i], source + ": swatch " + std::to_string(i + 1), baseFolder);
        if (!s) return makeError(s.error());
        scene.swatches.push_back(std::move(*s));
    }
    return scene;
}

Expected<void> loadSceneTextures(Scene const& scene, String const& source) {
    struct Use {
        std::size_t swatch;
        SharedPtr<TextureMap const> map;
    };
    Stack<Use> uses;
    for (std::size_t i = 0; i < scene.swatches.size(); ++i) {
        Swatch const& s = scene.swatches[i];
        for (IMap const* root : {s.map.get(), s.slot ? s.slot->map.get() : nullptr}) {
            if (!root) continue;
            visitEntityGraphNodes(*root, [&](Entity const& e) {
                if (auto const* t = dynamic_cast<TextureMap const*>(&e))
                    uses.push_back({i, std::static_pointer_cast<TextureMap const>(t->shared_from_this())});
                return VisitEntityGraphAction::Continue;
            });
        }
    }
    // All requested before any is waited for, so the loader decodes them in turn.
    Stack<ImageTextureCache::FutureTexture> requests;
    for (Use const& u : uses)
        requests.push_back(ImageTextureCache::getOrCreateInColorSpace(u.map->get<EntityHolder<IDataSource>>("imageSource"),
                                                                      u.map->get<String>("colorSpace"), {}));
    for (Use const& u : uses) {
        auto const info = u.map->getTextureInfo();
        if (!info)
            return makeError(source + ": swatch " + std::to_string(u.swatch + 1) + " (" +
                             scene.swatches[u.swatch].label + "): texture failed to load: " + info.error());
    }
    return {};
}

} // namespace FerrimTool
