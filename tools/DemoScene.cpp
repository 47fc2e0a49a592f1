#include "Scene.h"

namespace FerrimTool {

// The contact sheet that `ferrim` renders without a scene file.
Quelin::StringView getDemoSceneText() {
    return R"json({
  "columns": 3,
  "samples": 4,
  "swatches": [
    {"label": "constant colour", "shape": "sphere",
     "map": {"@class": "Zatho.ConstantColorMap", "color": [0.8, 0.3, 0.1], "alpha": 1.0}}
  ]
})json";
}

} // namespace FerrimTool
