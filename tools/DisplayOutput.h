#pragma once
#include <nlohmann/json.hpp>

#include "Ferrim/ColorMapping.h"
#include "QuelinLib/Io.h"
#include "SwatchRenderer.h"

namespace FerrimTool {

/// The pipeline of a ".ctm" file, the default pipeline for an empty path. The
/// loader's warning goes to standard error; errors are CommandErrors.
Quelin::EntityHolder<Quelin::IColorMappingOperator> loadPipelineFile(Quelin::String const& path);
/// A scene's "pipeline" (null: the default pipeline); `source` names the scene.
Quelin::EntityHolder<Quelin::IColorMappingOperator> loadScenePipeline(nlohmann::json const& pipeline,
                                                                      Quelin::String const& source);
/// Refuses, as a CommandError naming the file, a pipeline that `mapping` has
/// prepared but one of whose operators could not read its file (a LUT): the
/// image would silently come out without it.
void requirePipelineFiles(Quelin::ColorMapping const& mapping);

/// Maps a linear render to display colours through `pipeline` and writes it;
/// HDR formats (EXR, HDR) keep the radiance.
Quelin::Expected<void> writeDisplayImage(LinearImage& image, Quelin::EntityHolder<Quelin::IColorMappingOperator> const& pipeline,
                                         Quelin::String const& path);

} // namespace FerrimTool
