#pragma once
// Renders the swatches of a scene into a linear float RGBA image.
#include <functional>

#include "Scene.h"

namespace FerrimTool {

struct LinearImage {
    int width = 0, height = 0;
    Quelin::Stack<float> rgba;  ///< row-major, top row first, 4 floats per pixel
};

/// Renders every swatch into its cell, rows in parallel; `progress` receives
/// the finished fraction from any thread. Sphere and plane swatches stand in
/// an Embree stage (EmbreeStage.h) that answers the maps' scene queries.
LinearImage renderScene(Scene const& scene, int width, int height, std::function<void(double)> const& progress);

/// The cell grid of a scene: columns and rows for its swatch count.
std::pair<int, int> gridOf(Scene const& scene);

} // namespace FerrimTool
