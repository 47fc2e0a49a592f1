#pragma once
// Pipelines of colour-mapping operators: building them from records (with the
// encoding conversions they need), the default pipeline, copies, the flat
// record form used for editing, comparisons, the clean-up of legacy
// operators, and the serialised form (JSON, ".ctm" preset files).
//
// A pipeline is the holder of its last operator; an empty holder is an empty
// pipeline. The flat form lists one record per operator, first operator
// first, every "predecessor" empty: the order alone carries the chain.
#include <nlohmann/json_fwd.hpp>

#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"

namespace Quelin {

/// Whether flattening keeps the conversion and identity operators (group Hidden).
enum class HiddenItemsTreatment : std::uint32_t {
    Skip = 0,  ///< leave them out (the form the user edits)
    Keep = 1,  ///< keep every operator of the chain
};

/// The operators of a chain, first operator first.
FERRIM_EXPORT Stack<EntityHolder<UnaryColorMappingOperator>> getPipelineOperators(EntityHolder<const IColorMappingOperator> pipeline);

/// Builds a chain from a flat list, inserting "Linear to sRGB" where a
/// linear-output operator is followed by an sRGB-input one and "sRGB to Linear"
/// in the opposite case. Records of unknown types are left out; legacy
/// operator records become legacy operators (for removeObsoleteOperatorsFromPipeline).
FERRIM_EXPORT EntityHolder<IColorMappingOperator> createPipeline(Stack<GenericDataObject> const& data);
/// Simple Exposure, White Balance, Green-Magenta Tint, Contrast, Saturation,
/// ACES Output Transform, each with default values and a fresh id.
FERRIM_EXPORT EntityHolder<IColorMappingOperator> createDefaultPipeline();
/// New operators with copies of the records (ids included), sharing nothing
/// with the source.
FERRIM_EXPORT EntityHolder<IColorMappingOperator> createPipelineDeepCopy(EntityHolder<IColorMappingOperator> pipeline);
FERRIM_EXPORT Stack<GenericDataObject> convertPipelineToDataObjects(EntityHolder<const IColorMappingOperator> pipeline,
                                                                    HiddenItemsTreatment treatment);
/// Writes the values of a flat list (in the Skip form) into the operators of
/// an existing chain. The chain is only changed when its visible operators
/// match the list in number and types; returns whether it was.
FERRIM_EXPORT bool updatePipelineWithData(EntityHolder<IColorMappingOperator> pipeline, Stack<GenericDataObject> const& data);
/// Same operator types in the same order with equal property values, "id"
/// included (floats compared exactly). Hidden operators take part, so a chain
/// rebuilt from its flat list, whose conversions get fresh ids, differs.
FERRIM_EXPORT bool arePipelinesSame(EntityHolder<const IColorMappingOperator> a, EntityHolder<const IColorMappingOperator> b);
FERRIM_EXPORT bool areOperatorsDataSame(Stack<GenericDataObject> const& a, Stack<GenericDataObject> const& b);
/// No two operators of the chain carry the same "id".
FERRIM_EXPORT bool hasUniqueIds(EntityHolder<const IColorMappingOperator> pipeline);
/// Removes every legacy operator, linking its successor to its predecessor;
/// returns the removed type names in chain order.
FERRIM_EXPORT Stack<String> removeObsoleteOperatorsFromPipeline(EntityHolder<IColorMappingOperator>& pipeline);
/// The loader's warning for removed legacy operators; empty for an empty list.
FERRIM_EXPORT String formatObsoleteOperatorsWarning(Stack<String> const& removed);

/// The message for stored text that is not a pipeline.
inline constexpr StringView PIPELINE_CORRUPTED_MESSAGE = "The color-mapping pipeline data is corrupted.";

/// A pipeline read from its serialised form, with the loader's warning (empty
/// when nothing had to be removed).
struct LoadedPipeline {
    EntityHolder<IColorMappingOperator> pipeline;
    String warning;
};

/// Most operators a stored pipeline may hold. Real pipelines have a handful;
/// the bound keeps a hostile file from making every pixel run through
/// thousands of them.
inline constexpr std::size_t MAX_PIPELINE_OPERATORS = 1000;
/// Largest ".ctm" file read: far above any pipeline of MAX_PIPELINE_OPERATORS.
inline constexpr std::int64_t MAX_PIPELINE_FILE_BYTES = 16 << 20;

/// The serialised pipeline: {"mimeType": MIME_COLOR_MAPPING, "version": 1,
/// "operators": [records in the Skip form, each with its "@class"]}.
FERRIM_EXPORT String serializePipeline(EntityHolder<const IColorMappingOperator> pipeline);
/// Reads the serialised form; anything that is not a pipeline gives
/// PIPELINE_CORRUPTED_MESSAGE followed by what was wrong.
FERRIM_EXPORT Expected<LoadedPipeline> deserializePipeline(StringView text);
/// The same for the form already parsed (a pipeline inside a scene file).
FERRIM_EXPORT Expected<LoadedPipeline> pipelineFromJson(nlohmann::json const& root);
/// ".ctm" preset files hold the serialised form. Errors name the file.
FERRIM_EXPORT Expected<void> savePipelinePreset(String const& path, EntityHolder<const IColorMappingOperator> pipeline);
FERRIM_EXPORT Expected<LoadedPipeline> loadPipelinePreset(String const& path);
inline constexpr StringView PIPELINE_PRESET_EXTENSION = "ctm";

/// The first operator of a prepared chain that could not use its file (a
/// LUT that is missing, truncated or malformed), as that operator's error
/// text naming the file; empty when every operator could. Such an operator
/// leaves colours unchanged, so callers that must not silently lose a look
/// report this after preparing.
FERRIM_EXPORT Optional<String> findPipelineLoadError(EntityHolder<const IColorMappingOperator> pipeline);

} // namespace Quelin
