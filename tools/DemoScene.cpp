#include "Scene.h"

namespace FerrimTool {

// The contact sheet that `ferrim` renders without a scene file: every map of
// the library, two nested graphs, a material slot and a bump-shaded swatch.
Quelin::StringView getDemoSceneText() {
    return R"json({
  "columns": 5,
  "samples": 4,
  "swatches": [
    {"label": "checker, soft edges", "shape": "sphere",
     "map": {"@class": "Zatho.CheckerMap", "softenFactor": 0.02,
             "color1": {"color": [0.05, 0.12, 0.35]}, "color2": {"color": [0.9, 0.85, 0.7]},
             "uvMapper": {"@class": "Zatho.UvMapper", "scale": [4, 4, 1]}}},
    {"label": "noise, regular", "shape": "sphere",
     "map": {"@class": "Zatho.NoiseMap", "type": "REGULAR", "size": 0.15,
             "color1": {"color": [0.02, 0.1, 0.02]}, "color2": {"color": [0.6, 0.8, 0.3]}}},
    {"label": "noise, fractal with thresholds", "shape": "sphere",
     "map": {"@class": "Zatho.NoiseMap", "type": "FRACTAL", "size": 0.25, "levels": 5.5,
             "minThreshold": 0.3, "maxThreshold": 0.7,
             "color1": {"color": [0.9, 0.9, 0.95]}, "color2": {"color": [0.1, 0.25, 0.6]}}},
    {"label": "cellular, circular", "shape": "sphere",
     "map": {"@class": "Zatho.CellularMap", "shape": "CIRCULAR", "size": 0.12,
             "highColor": {"color": [1.0, 0.95, 0.8]}, "midColor": {"color": [0.8, 0.4, 0.1]},
             "lowColor": {"color": [0.15, 0.02, 0.0]}}},
    {"label": "cellular, chips", "shape": "sphere",
     "map": {"@class": "Zatho.CellularMap", "shape": "CHIPS", "size": 0.15,
             "highColor": {"color": [0.9, 0.9, 0.9]}, "midColor": {"color": [0.45, 0.5, 0.55]},
             "lowColor": {"color": [0.05, 0.05, 0.08]}}},
    {"label": "gradient, radial with eased stops", "shape": "plane",
     "map": {"@class": "Zatho.GradientMap", "type": "radial", "customInterpolation": true,
             "stops": [
               {"name": "Stop #1", "position": 0.0, "interpolation": "ease_in_out", "color": {"color": [1.0, 0.9, 0.3]}},
               {"name": "Stop #2", "position": 0.6, "interpolation": "linear", "color": {"color": [0.8, 0.1, 0.3]}},
               {"name": "Stop #3", "position": 1.0, "interpolation": "solid", "color": {"color": [0.05, 0.0, 0.15]}}]}},
    {"label": "material slot: base colour mixed with a spiral gradient", "shape": "plane",
     "slot": {"color": [0.9, 0.35, 0.1], "interpolationMode": "Mix", "alphaBlendMultiplier": 0.6,
              "mapTint": [0.6, 0.8, 1.0], "map": {"@class": "Zatho.GradientMap", "type": "spiral"}}},
    {"label": "checker whose input is a noise map", "shape": "sphere",
     "map": {"@class": "Zatho.CheckerMap",
             "uvMapper": {"@class": "Zatho.UvMapper", "scale": [3, 3, 1]},
             "color1": {"color": [0.1, 0.1, 0.1]},
             "color2": {"map": {"@class": "Zatho.NoiseMap", "type": "FRACTAL", "size": 0.05,
                                "color1": {"color": [0.7, 0.2, 0.05]}, "color2": {"color": [1.0, 0.8, 0.3]}}}}},
    {"label": "gradient whose stop is a cellular map", "shape": "plane",
     "map": {"@class": "Zatho.GradientMap", "type": "diagonal",
             "stops": [
               {"name": "Stop #1", "position": 0.0, "color": {"color": [0.0, 0.2, 0.4]}},
               {"name": "Stop #2", "position": 0.5,
                "color": {"map": {"@class": "Zatho.CellularMap", "size": 0.08,
                                  "highColor": {"color": [1, 1, 1]}, "midColor": {"color": [0.3, 0.7, 0.9]},
                                  "lowColor": {"color": [0.0, 0.1, 0.3]}}}},
               {"name": "Stop #3", "position": 1.0, "color": {"color": [0.9, 0.95, 1.0]}}]}},
    {"label": "bump of a cellular map", "shape": "sphere", "bump": true,
     "map": {"@class": "Zatho.CellularMap", "shape": "CHIPS", "size": 0.1}}
  ]
})json";
}

} // namespace FerrimTool
