#include "DisplayOutput.h"

#include <cmath>
#include <cstdio>

#include "Ferrim/ColorSpaces.h"
#include "Ferrim/colorMappingOperators/ColorMappingPipeline.h"
#include "Ferrim/colorMappingOperators/DisplayViewOperator.h"
#include "Commands.h"
#include "QuelinLib/MessageText.h"
#include "QuelinLibImage/Image.h"

using namespace Quelin;

namespace FerrimTool {

namespace {
EntityHolder<IColorMappingOperator> takeLoaded(Expected<LoadedPipeline> loaded) {
    if (!loaded) throw CommandError{loaded.error()};
    if (!loaded->warning.empty()) std::fprintf(stderr, "ferrim: warning: %s\n", singleLine(loaded->warning).c_str());
    return loaded->pipeline;
}
} // namespace

EntityHolder<IColorMappingOperator> loadPipelineFile(String const& path) {
    if (path.empty()) return createDefaultPipeline();
    return takeLoaded(guardMemory(path, [&] { return loadPipelinePreset(path); }));
}

EntityHolder<IColorMappingOperator> loadScenePipeline(nlohmann::json const& pipeline, String const& source) {
    if (pipeline.is_null()) return createDefaultPipeline();
    auto loaded = guardMemory(source, [&] { return pipelineFromJson(pipeline); });
    if (!loaded) return takeLoaded(makeError(source + ": \"pipeline\": " + loaded.error()));
    EntityHolder<IColorMappingOperator> chain = takeLoaded(std::move(loaded));
    requirePipelineFiles(ColorMapping(chain));
    return chain;
}

void requirePipelineFiles(ColorMapping const& mapping) {
    if (auto error = findPipelineLoadError(mapping.getAppliedChain())) throw CommandError{"LUT " + *error};
}

Expected<void> mapToDisplay(LinearImage& image, nlohmann::json const& pipeline) {
    try {
        mapLinearImageToDisplay(loadScenePipeline(pipeline, "scene"), image.rgba, image.width, image.height);
    } catch (CommandError const& e) {
        return makeError(e.message);
    }
    return {};
}

Expected<void> writeDisplayImage(LinearImage& image, EntityHolder<IColorMappingOperator> const& pipeline, String const& path) {
    Io::Path const out(path);
    String ext = out.extension().string();
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    bool const hdr = ext == ".exr" || ext == ".hdr";
    // HDR files keep scene radiance; display files go through the pipeline.
    if (!hdr) mapLinearImageToDisplay(pipeline, image.rgba, image.width, image.height);
    Image result(Image::Descriptor(Pixel(image.width, image.height), hdr ? PixelFormat::RgbaFloat : PixelFormat::Rgba8));
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            float const* p = &image.rgba[(std::size_t(y) * std::size_t(image.width) + std::size_t(x)) * 4];
            RgbAlpha v(p[0], p[1], p[2], p[3]);
            if (!hdr) v = RgbAlpha(clamp(v.r, 0.f, 1.f), clamp(v.g, 0.f, 1.f), clamp(v.b, 0.f, 1.f), clamp(v.alpha, 0.f, 1.f));
            result.setRgbAlpha(x, y, v);
        }
    // The tag says what the values are: scene-linear radiance, the view of a
    // pipeline that ends in a display/view operator, or the display chain's
    // 2.2 encoding.
    String space = "Linear Rec.709 (sRGB)";
    if (!hdr) {
        auto const view = pipeline ? pipeline.cast<DisplayViewOperator>() : EntityHolder<DisplayViewOperator>();
        auto const viewSpace = view ? ColorSpaces::displayViewSpace(view->get<String>("display"), view->get<String>("view"))
                                    : Expected<String, String>(makeError(String()));
        space = viewSpace ? *viewSpace : String("Gamma 2.2 Rec.709 - Display");
    }
    ImageWriteOptions options;
    options.colorSpace = ColorSpaces::fileTagOf(space);
    options.chromaticities = ColorSpaces::fileEncodingOf(space).chromaticities;
    return writeImage(result, out, options);
}

} // namespace FerrimTool
