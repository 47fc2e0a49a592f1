#pragma once
#include <nlohmann/json.hpp>

#include "QuelinLib/Io.h"
#include "SwatchRenderer.h"

namespace FerrimTool {

/// Maps a linear render in place to display colours through the scene's
/// colour-mapping pipeline (the default one when `pipeline` is null).
Quelin::Expected<void> mapToDisplay(LinearImage& image, nlohmann::json const& pipeline);
/// Maps a linear render to display colours through the scene's colour-mapping
/// pipeline (the default one when `pipeline` is null) and writes it.
Quelin::Expected<void> writeDisplayImage(LinearImage& image, nlohmann::json const& pipeline, Quelin::String const& path);

} // namespace FerrimTool
