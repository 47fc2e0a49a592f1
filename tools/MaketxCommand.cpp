// `ferrim maketx IN -o OUT.exr|.tif`: a tiled file carrying its whole mip chain,
// so that a texture reads the levels it needs instead of building them on load.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "Commands.h"
#include "Ferrim/ColorSpaces.h"
#include "Ferrim/TextureMap/MipGeneration.h"
#include "QuelinLib/MessageText.h"
#include "QuelinLibImage/ImageDecode.h"
#include "QuelinLibImage/ImageLevelsWrite.h"

using namespace Quelin;

namespace FerrimTool {

namespace {

struct MaketxOptions {
    String input;
    String output;
    int tile = 64;
    String filter = "area";
    String format;
    String colorSpace;
};

PixelFormat floatFormatWithChannels(int channels) {
    switch (channels) {
    case 1:
        return PixelFormat::MonoFloat;
    case 2:
        return PixelFormat::MonoAlphaFloat;
    case 3:
        return PixelFormat::RgbFloat;
    default:
        return PixelFormat::RgbaFloat;
    }
}

String lowerExtension(String const& path) {
    String ext = Io::pathToUtf8(Io::pathFromUtf8(path).extension());
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return ext;
}

// ------------------------------------------------ the resampling filters
//
// "area" is the texture map's own chain (see MipGeneration.h). The others give
// the levels of OpenImageIO's texture maker (ImageBufAlgo::make_texture with
// "maketx:filtername", OpenImageIO 2.4 manual) for the same name. Each level
// is made from the one before. "box" is what that maker does for the name:
// the finer level interpolated bilinearly at each coarser pixel's centre (the
// 2 x 2 average from even sizes, as "area"). "triangle" and "lanczos3" go
// through its filtered resize (ImageBufAlgo::resize): for a coarser pixel
// centred at c in finer pixels, the finer pixel centred at c + d weighs
// filter(d / s), s being the finer pixels per coarser pixel, the weights
// normalised to add up to 1, with the filter's width in coarser pixels
// (triangle 2, lanczos3 6). Pixels beyond the edge repeat the edge one.

enum class Filter { Area, Box, Triangle, Lanczos3 };

struct FilterName {
    char const* name;
    Filter filter;
    float width;  ///< in coarser pixels, for the resize filters
};
constexpr FilterName FILTERS[] = {{"area", Filter::Area, 0.f},
                                  {"box", Filter::Box, 0.f},
                                  {"triangle", Filter::Triangle, 2.f},
                                  {"lanczos3", Filter::Lanczos3, 6.f}};

float filterWeight(Filter filter, float x) {
    x = std::abs(x);
    switch (filter) {
    case Filter::Box:  // bilinear: a tent over one finer pixel
    case Filter::Triangle: return x < 1.f ? 1.f - x : 0.f;
    case Filter::Lanczos3: {
        if (x >= 3.f) return 0.f;
        if (x < 1e-4f) return 1.f;
        // sinc(x) sinc(x / 3)
        float const px = std::numbers::pi_v<float> * x;
        return 3.f * std::sin(px) * std::sin(px / 3.f) / (px * px);
    }
    case Filter::Area: break;
    }
    return 0.f;
}

/// Source taps and normalised weights of each destination pixel along one axis.
struct Taps {
    int radius = 0;  ///< taps first - radius .. first + radius
    Stack<int> first;
    Stack<float> weights;  ///< (2 radius + 1) per destination pixel
};

Taps tapsOf(Filter filter, float width, int sourceSize, int destinationSize) {
    Taps t;
    float const ratio = float(destinationSize) / float(sourceSize);
    // Bilinear reads two finer pixels at distances in finer pixels; the
    // filters reach over their width at distances in coarser pixels.
    bool const bilinear = filter == Filter::Box;
    float const scale = bilinear ? 1.f : ratio;
    t.radius = bilinear ? 1 : int(std::ceil(width * 0.5f / ratio));
    int const n = 2 * t.radius + 1;
    t.first.resize(std::size_t(destinationSize));
    t.weights.resize(std::size_t(destinationSize) * std::size_t(n));
    for (int x = 0; x < destinationSize; ++x) {
        float const centre = (float(x) + 0.5f) / ratio;
        float const whole = std::floor(centre);
        float const fraction = centre - whole;
        t.first[std::size_t(x)] = int(whole);
        float* w = &t.weights[std::size_t(x) * std::size_t(n)];
        float total = 0.f;
        for (int i = 0; i < n; ++i) total += w[i] = filterWeight(filter, scale * (float(i - t.radius) - (fraction - 0.5f)));
        if (total != 0.f)
            for (int i = 0; i < n; ++i) w[i] /= total;
    }
    return t;
}

/// The next level of a float image by `filter`: rows first, then columns.
Image resampleHalf(Image const& finer, Filter filter, float width) {
    int const sw = finer.getWidth(), sh = finer.getHeight();
    int const dw = std::max(1, sw / 2), dh = std::max(1, sh / 2);
    int const channels = getChannelCount(finer.getFormat());
    Taps const tx = tapsOf(filter, width, sw, dw), ty = tapsOf(filter, width, sh, dh);
    int const nx = 2 * tx.radius + 1, ny = 2 * ty.radius + 1;
    // Horizontal pass: sh rows of dw pixels.
    Stack<float> rows(std::size_t(sh) * std::size_t(dw) * std::size_t(channels), 0.f);
    parallelFor(0, sh, 8, [&](std::int64_t begin, std::int64_t end) {
        for (auto y = int(begin); y < int(end); ++y) {
            auto const* src = reinterpret_cast<float const*>(finer.getData() + std::int64_t(y) * finer.getRowBytes());
            float* out = &rows[std::size_t(y) * std::size_t(dw) * std::size_t(channels)];
            for (int x = 0; x < dw; ++x) {
                float const* w = &tx.weights[std::size_t(x) * std::size_t(nx)];
                for (int i = 0; i < nx; ++i) {
                    if (w[i] == 0.f) continue;
                    int const sx = std::clamp(tx.first[std::size_t(x)] + i - tx.radius, 0, sw - 1);
                    for (int c = 0; c < channels; ++c) out[x * channels + c] += w[i] * src[sx * channels + c];
                }
            }
        }
    });
    Image coarser(Image::Descriptor(Pixel(dw, dh), finer.getFormat()));
    parallelFor(0, dh, 8, [&](std::int64_t begin, std::int64_t end) {
        for (auto y = int(begin); y < int(end); ++y) {
            auto* out = reinterpret_cast<float*>(coarser.getData() + std::int64_t(y) * coarser.getRowBytes());
            std::fill(out, out + std::size_t(dw) * std::size_t(channels), 0.f);
            float const* w = &ty.weights[std::size_t(y) * std::size_t(ny)];
            for (int j = 0; j < ny; ++j) {
                if (w[j] == 0.f) continue;
                int const sy = std::clamp(ty.first[std::size_t(y)] + j - ty.radius, 0, sh - 1);
                float const* row = &rows[std::size_t(sy) * std::size_t(dw) * std::size_t(channels)];
                for (int k = 0; k < dw * channels; ++k) out[k] += w[j] * row[k];
            }
        }
    });
    return coarser;
}

/// The output's channel type: the asked one, else the input's depth where the
/// format stores it (EXR has no integer channels, so 8- and 16-bit inputs
/// become half there).
FileChannelType outputChannelType(MaketxOptions const& options, ChannelType inputType, bool exr) {
    if (options.format == "half") return FileChannelType::Half;
    if (options.format == "float") return FileChannelType::Float;
    if (options.format == "uint8") return FileChannelType::UInt8;
    if (options.format == "uint16") return FileChannelType::UInt16;
    if (!options.format.empty())
        throw CommandError{"unknown --format \"" + options.format + "\" (half, float, uint8 or uint16)"};
    if (inputType == ChannelType::UInt8) return exr ? FileChannelType::Half : FileChannelType::UInt8;
    if (inputType == ChannelType::UInt16) return exr ? FileChannelType::Half : FileChannelType::UInt16;
    return FileChannelType::Float;
}

void run(MaketxOptions const& options) {
    String const ext = lowerExtension(options.output);
    if (ext != ".exr" && ext != ".tif" && ext != ".tiff")
        throw CommandError{"\"" + options.output + "\": a tiled mip-mapped file is an EXR (.exr) or a TIFF (.tif, .tiff)"};
    auto const named = std::find_if(std::begin(FILTERS), std::end(FILTERS),
                                    [&](FilterName const& f) { return options.filter == f.name; });
    if (named == std::end(FILTERS))
        throw CommandError{"unknown --filter \"" + options.filter + "\" (area, box, triangle or lanczos3)"};
    if (options.tile < 16 || options.tile > 4096 || options.tile % 16 != 0)
        throw CommandError{"--tile " + std::to_string(options.tile) + ": a tile side is a multiple of 16 from 16 to 4096"};

    // The library's decoding front door: size checks before allocating, a file
    // cut short refused. Levels the input may carry are rebuilt from level 0.
    Image level0;
    ImageColorTag tag;
    try {
        Io::Path const file = Io::pathFromUtf8(options.input);
        ImageFormat const format = getImageFormatFromContentType(Io::pathToUtf8(file.extension()), "\"" + options.input + "\"");
        auto stream = Io::FileInputStream::open(file);
        if (!stream) throw CommandError{stream.error()};
        TaskProgress progress;
        level0 = guardMemory(options.input, [&] { return makeImage(**stream, format, progress, {.colorTag = &tag}); });
    } catch (Exception const& e) {
        String const why = singleLine(e.what());
        throw CommandError{"cannot read " + (why.empty() ? "\"" + options.input + "\": the file is damaged" : why)};
    }

    ChannelType const inputType = getChannelType(level0.getFormat());
    FileChannelType const channelType = outputChannelType(options, inputType, ext == ".exr");
    if (ext == ".exr" && (channelType == FileChannelType::UInt8 || channelType == FileChannelType::UInt16))
        throw CommandError{"\"" + options.output + "\": EXR stores half or float channels, not --format " + options.format};

    String space = options.colorSpace;
    if (space.empty()) {
        space = ColorSpaces::spaceForFile(tag.space, tag.gamma, level0.getFormat());
    } else {
        auto const names = ColorSpaces::colorSpaceNames();
        if (!names) throw CommandError{names.error()};
        if (std::find(names->begin(), names->end(), space) == names->end())
            throw CommandError{"unknown colour space \"" + space + "\" in " + ColorSpaces::configName()};
    }

    // Levels are filtered in float from the stored values and rounded once, to
    // the output's depth, as they are written: rounding each level before the
    // next is built would let the error grow down the chain.
    Stack<Image> levels;
    guardMemory(options.input, [&] {
        levels.push_back(level0.convertedTo(floatFormatWithChannels(getChannelCount(level0.getFormat()))));
        level0 = Image();
        if (named->filter == Filter::Area) {
            Stack<Image> coarser = MipGeneration::buildMipChain(levels.front());
            for (Image& level : coarser) levels.push_back(std::move(level));
        } else {
            // Each level from the one before, as the texture maker does.
            while (levels.back().getWidth() > 1 || levels.back().getHeight() > 1)
                levels.push_back(resampleHalf(levels.back(), named->filter, named->width));
        }
    });

    ImageWriteOptions write;
    write.channelType = channelType;
    write.colorSpace = ColorSpaces::fileTagOf(space);
    write.chromaticities = ColorSpaces::fileEncodingOf(space).chromaticities;
    if (auto written = writeImageLevels(levels, Io::pathFromUtf8(options.output), write, options.tile); !written)
        throw CommandError{written.error()};
    std::printf("%s: %dx%d, %d levels in %dx%d tiles, %s\n", options.output.c_str(), levels.front().getWidth(),
                levels.front().getHeight(), int(levels.size()), options.tile, options.tile, space.c_str());
}

} // namespace

void addMaketxCommand(CLI::App& app) {
    auto options = std::make_shared<MaketxOptions>();
    auto* maketx = app.add_subcommand("maketx", "Writes an image as a tiled file that carries its mip levels (EXR or TIFF)");
    maketx->add_option("input", options->input, "The image to convert")->required();
    maketx->add_option("-o,--output", options->output, "The texture file to write (.exr, .tif)")->required();
    maketx->add_option("--tile", options->tile, "Side of the square tiles in pixels")->capture_default_str();
    maketx->add_option("--filter", options->filter,
                       "Mip filter: area (exact-area average, the texture map's own levels), or box, triangle, "
                       "lanczos3 as OpenImageIO's maketx filters them")
        ->capture_default_str();
    maketx->add_option("--format", options->format,
                       "Channel type: half, float, uint8, uint16 (default: the input's depth; 8 and 16 bits become half in EXR)");
    maketx->add_option("--colorspace", options->colorSpace,
                       "The colour space the input's values are in, recorded in the file (default: the input's own tag, "
                       "else sRGB - Texture for integer files and the scene-linear space for float ones)");
    maketx->callback([options] { run(*options); });
}

} // namespace FerrimTool
