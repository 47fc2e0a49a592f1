// `ferrim maketx IN -o OUT.exr|.tif`: a tiled file carrying its whole mip chain,
// so that a texture reads the levels it needs instead of building them on load.
#include <algorithm>
#include <cctype>
#include <cstdio>

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
    String filter = "box";
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
    if (options.filter != "box")
        throw CommandError{"unknown --filter \"" + options.filter +
                           "\" (box: the exact-area filter the texture map builds its own levels with)"};
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
        Stack<Image> coarser = MipGeneration::buildMipChain(levels.front());
        for (Image& level : coarser) levels.push_back(std::move(level));
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
    maketx->add_option("--filter", options->filter, "Mip filter: box (exact-area average)")->capture_default_str();
    maketx->add_option("--format", options->format,
                       "Channel type: half, float, uint8, uint16 (default: the input's depth; 8 and 16 bits become half in EXR)");
    maketx->add_option("--colorspace", options->colorSpace,
                       "The colour space the input's values are in, recorded in the file (default: the input's own tag, "
                       "else sRGB - Texture for integer files and the scene-linear space for float ones)");
    maketx->callback([options] { run(*options); });
}

} // namespace FerrimTool
