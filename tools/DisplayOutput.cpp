#include "DisplayOutput.h"

#include <cmath>
#include <cstdio>

#include "Ferrim/ColorMapping.h"
#include "Ferrim/colorMappingOperators/ColorMappingPipeline.h"
#include "QuelinLibImage/Image.h"

using namespace Quelin;

namespace FerrimTool {

Expected<void> mapToDisplay(LinearImage& image, nlohmann::json const& pipeline) {
    EntityHolder<IColorMappingOperator> chain;
    if (pipeline.is_null()) {
        chain = createDefaultPipeline();
    } else {
        auto loaded = deserializePipeline(pipeline.dump());
        if (!loaded) return makeError("scene pipeline: " + loaded.error());
        if (!loaded->warning.empty()) std::fprintf(stderr, "ferrim: warning: %s\n", loaded->warning.c_str());
        chain = loaded->pipeline;
    }
    mapLinearImageToDisplay(chain, image.rgba, image.width, image.height);
    return {};
}

Expected<void> writeDisplayImage(LinearImage& image, nlohmann::json const& pipeline, String const& path) {
    Io::Path const out(path);
    String ext = out.extension().string();
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    bool const hdr = ext == ".exr" || ext == ".hdr";
    // HDR files keep scene radiance; display files go through the pipeline.
    if (!hdr)
        if (auto r = mapToDisplay(image, pipeline); !r) return r;
    Image result(Image::Descriptor(Pixel(image.width, image.height), hdr ? PixelFormat::RgbaFloat : PixelFormat::Rgba8));
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            float const* p = &image.rgba[(std::size_t(y) * std::size_t(image.width) + std::size_t(x)) * 4];
            RgbAlpha v(p[0], p[1], p[2], p[3]);
            if (!hdr) v = RgbAlpha(clamp(v.r, 0.f, 1.f), clamp(v.g, 0.f, 1.f), clamp(v.b, 0.f, 1.f), clamp(v.alpha, 0.f, 1.f));
            result.setRgbAlpha(x, y, v);
        }
    return writeImage(result, out);
}

} // namespace FerrimTool
