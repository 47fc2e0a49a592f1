#pragma once
// The scene file of `ferrim render`: swatches of maps or material slots laid
// out as a contact sheet.
//
//   { "columns": 3, "samples": 4, "background": [0.18, 0.18, 0.18],
//     "pipeline": { ...colour-mapping pipeline... },
//     "swatches": [ { "label": "noise", "shape": "sphere", "bump": false,
//                     "tiling": 1, "map": { "@class": "Zatho.NoiseMap", ... } },
//                   { "label": "slot", "shape": "plane", "slot": { ... } } ] }
//
// A file that holds just one entity ({"@class": ...}) or {"map": ...} is a
// one-swatch scene. Unknown keys are errors that name them. A relative "path"
// of a file data source (an image texture) is relative to the scene file.
// The "environment" shape shows a map's environment lookups: a mirror ball in
// front of the environment, seen looking along +y with +z up.
#include <nlohmann/json.hpp>

#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "QuelinLib/Io.h"

namespace FerrimTool {

enum class SwatchShape { Plane, Sphere, Environment };

struct Swatch {
    Quelin::String label;
    SwatchShape shape = SwatchShape::Sphere;
    bool bump = false;       ///< shade with the map's bump instead of its colour
    float tiling = 1.f;      ///< UV repeats across the swatch
    Quelin::EntityHolder<Quelin::IMap> map;
    Quelin::Optional<Quelin::MaterialMapSlot> slot;
};

struct Scene {
    Quelin::Stack<Swatch> swatches;
    int columns = 0;         ///< 0: chosen from the count
    int samples = 4;         ///< per pixel, rounded to a square
    Quelin::Rgb background{0.18f, 0.18f, 0.18f};
    nlohmann::json pipeline; ///< null: the default pipeline
};

/// Reads a scene from JSON text; `source` names the file in errors, relative
/// file paths inside are taken from `baseFolder`.
Quelin::Expected<Scene> parseScene(Quelin::StringView text, Quelin::String const& source,
                                   Quelin::Io::Path const& baseFolder = {});
/// The scene built into the program.
Quelin::StringView getDemoSceneText();
/// The demo scene with its image-texture swatches, whose images the program
/// makes and hands over as memory data sources.
Quelin::Expected<Scene> makeDemoScene();
/// Loads every image texture of the scene (all requested first, then waited
/// for); the first that failed gives one line naming the swatch and the error.
Quelin::Expected<void> loadSceneTextures(Scene const& scene, Quelin::String const& source);

} // namespace FerrimTool
