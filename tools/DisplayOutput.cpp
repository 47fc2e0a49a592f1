#include "DisplayOutput.h"

#include <cmath>

#include "QuelinLibImage/Image.h"

using namespace Quelin;

namespace FerrimTool {

namespace {
float srgbEncode(float v) {
    v = clamp(v, 0.f, 1.f);
    return v <= 0.0031308f ? 12.92f * v : 1.055f * std::pow(v, 1.f / 2.4f) - 0.055f;
}
} // namespace

Expected<void> writeDisplayImage(LinearImage& image, nlohmann::json const& pipeline, String const& path) {
    (void)pipeline;
    Io::Path const out(path);
    String ext = out.extension().string();
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    bool const hdr = ext == ".exr" || ext == ".hdr";
    Image result(Image::Descriptor(Pixel(image.width, image.height), hdr ? PixelFormat::RgbaFloat : PixelFormat::Rgba8));
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            float const* p = &image.rgba[(std::size_t(y) * std::size_t(image.width) + std::size_t(x)) * 4];
            RgbAlpha v(p[0], p[1], p[2], p[3]);
            if (!hdr) v = RgbAlpha(srgbEncode(v.r), srgbEncode(v.g), srgbEncode(v.b), clamp(v.alpha, 0.f, 1.f));
            result.setRgbAlpha(x, y, v);
        }
    return writeImage(result, out);
}

} // namespace FerrimTool
