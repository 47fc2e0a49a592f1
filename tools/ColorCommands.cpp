// `ferrim tonemap`: an HDR (or LDR) image through a colour-mapping pipeline
// into a display image; `ferrim unmap`: a display colour back to radiance.
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "Commands.h"
#include "DisplayOutput.h"
#include "Ferrim/ColorMapping.h"
#include "Ferrim/ColorSpaces.h"
#include "Ferrim/colorMappingOperators/DisplayViewOperator.h"
#include "QuelinLib/MessageText.h"
#include "QuelinLib/TaskScheduler.h"
#include "QuelinLibImage/ImageDecode.h"
#include "QuelinLibImage/ImageLimits.h"

namespace FerrimTool {

using namespace Quelin;

namespace {

struct TonemapOptions {
    String input, output, pipelinePath, lutPath;
    bool useDefault = false;
    Optional<float> exposure;
    Stack<String> sets;
    String inputSpace = String(ColorSpaces::AUTO);
    String display, view;
};

struct UnmapOptions {
    Stack<float> rgb;
    String pipelinePath;
    String exclude;
};

String lower(String s) {
    std::transform(s.begin(), s.end(), s.begin(), [](unsigned char c) { return char(std::tolower(c)); });
    return s;
}

/// The operator type that OPERATOR in --set names: the record type
/// ("Zatho.ContrastOperator"), the class ("ContrastOperator") or the UI name
/// ("Contrast"), case-insensitively.
ColorMappingOperatorDescriptor const* findOperatorType(String const& name, String& typeName) {
    String const wanted = lower(name);
    for (auto const& [type, d] : ColorMappingOperatorFactory::getInstance().getAllDescriptors()) {
        String const t = lower(type);
        if (t == wanted || t == "zatho." + wanted || lower(d.uiName) == wanted) {
            typeName = type;
            return &d;
        }
    }
    return nullptr;
}

Optional<float> parseNumber(String const& text) {
    try {
        std::size_t used = 0;
        float const v = std::stof(text, &used);
        if (used != text.size()) return std::nullopt;
        return v;
    } catch (...) {
        return std::nullopt;
    }
}

/// VALUE of --set in the property's own type.
PropertyValue parseValue(String const& text, PropertyDefinition const& property, String const& what) {
    auto bad = [&](char const* expected) -> CommandError {
        return CommandError{what + ": \"" + text + "\" is not " + expected};
    };
    TypeDefinition const& type = property.getType();
    switch (type.getValueType()) {
    case ValueType::Float: {
        auto v = parseNumber(text);
        if (!v) throw bad("a number");
        return *v;
    }
    case ValueType::Int: {
        auto v = parseNumber(text);
        if (!v || *v != std::floor(*v)) throw bad("an integer");
        return int(*v);
    }
    case ValueType::Bool: {
        String const t = lower(text);
        if (t == "true" || t == "1" || t == "on" || t == "yes") return true;
        if (t == "false" || t == "0" || t == "off" || t == "no") return false;
        throw bad("true or false");
    }
    case ValueType::Enum: {
        if (auto v = type.findEnumValue(text)) return *v;
        for (auto const& e : type.getEnumEntries())
            if (lower(e.label) == lower(text)) return e.value;
        String labels;
        for (auto const& e : type.getEnumEntries()) labels += (labels.empty() ? "" : ", ") + e.label;
        throw CommandError{what + ": \"" + text + "\" is not one of " + labels};
    }
    case ValueType::Color: {
        Rgb c;
        std::size_t start = 0;
        for (int i = 0; i < 3; ++i) {
            std::size_t const end = text.find(',', start);
            if ((i < 2) != (end != String::npos)) throw bad("a colour R,G,B");
            auto v = parseNumber(text.substr(start, end == String::npos ? String::npos : end - start));
            if (!v) throw bad("a colour R,G,B");
            c[i] = *v;
            start = end + 1;
        }
        return c;
    }
    case ValueType::String:
    case ValueType::Path: return text;
    default: throw CommandError{what + " cannot be set from the command line"};
    }
}

Stack<ToneMappingPropertyOverride> parseSets(Stack<String> const& sets, EntityHolder<IColorMappingOperator> const& pipeline) {
    Stack<ToneMappingPropertyOverride> overrides;
    auto const ops = getPipelineOperators(pipeline);
    for (String const& s : sets) {
        std::size_t const eq = s.find('=');
        std::size_t const dot = s.rfind('.', eq);
        if (eq == String::npos || dot == String::npos || dot == 0 || dot + 1 >= eq)
            throw CommandError{"--set expects OPERATOR.PROPERTY=VALUE, not \"" + s + "\""};
        String const opName = s.substr(0, dot), propName = s.substr(dot + 1, eq - dot - 1), value = s.substr(eq + 1);
        String typeName;
        auto const* d = findOperatorType(opName, typeName);
        if (!d) throw CommandError{"--set: unknown operator \"" + opName + "\""};
        bool const present = std::any_of(ops.begin(), ops.end(), [&](auto const& op) { return op->getClassName() == typeName; });
        if (!present) throw CommandError{"--set: the pipeline has no \"" + d->uiName + "\" operator"};
        PropertyDefinition const* property = d->definition->find(propName);
        if (!property || propName == "predecessor" || propName == "id")
            throw CommandError{"--set: \"" + d->uiName + "\" has no property \"" + propName + "\""};
        overrides.push_back({typeName, propName, parseValue(value, *property, "--set " + opName + "." + propName)});
    }
    return overrides;
}

struct LoadedImage {
    int width = 0, height = 0;
    bool hasAlpha = false;
    Stack<RgbAlpha> pixels;  ///< linear
    String colorSpace;       ///< of `pixels`: what the file was read in, or what was written
};

/// A colour-space error of the tool's options as a CommandError.
template <typename T> T orFail(Expected<T, String> value, char const* option) {
    if (!value) throw CommandError{String(option) + ": " + value.error()};
    return std::move(*value);
}

/// `processor` over the colour of every pixel, on all cores; alpha is kept.
void applyToPixels(ColorSpaces::Processor const& processor, Stack<RgbAlpha>& pixels) {
    if (processor.isNoOp()) return;
    parallelFor(0, std::int64_t(pixels.size()), 1 << 14, [&](std::int64_t begin, std::int64_t end) {
        Stack<float> alpha(std::size_t(end - begin));
        for (std::int64_t i = begin; i < end; ++i) alpha[std::size_t(i - begin)] = pixels[std::size_t(i)].alpha;
        processor.applyRgba(&pixels[std::size_t(begin)].r, std::size_t(end - begin));
        for (std::int64_t i = begin; i < end; ++i) pixels[std::size_t(i)].alpha = alpha[std::size_t(i - begin)];
    });
}

/// An image library's error text as one printable line.
String libraryError(String const& text, char const* fallback) {
    String const line = singleLine(text);
    return line.empty() ? String(fallback) : line;
}

/// Reads the file's values as stored; `colorSpace` ("auto": the file's tag,
/// else sRGB for integer files and linear for float ones) is what they are in.
LoadedImage readImage(String const& path, String const& colorSpace) {
    // The library's decoding front door: a regular file only, its declared size
    // checked before allocating, a file cut short refused.
    Image decoded;
    ImageColorTag tag;
    try {
        Io::Path const file = Io::pathFromUtf8(path);
        ImageFormat const format = getImageFormatFromContentType(Io::pathToUtf8(file.extension()), "\"" + path + "\"");
        auto stream = Io::FileInputStream::open(file);
        if (!stream) throw CommandError{stream.error()};
        TaskProgress progress;
        decoded = makeImage(**stream, format, progress, {.associateAlpha = true, .colorTag = &tag});
    } catch (Exception const& e) {
        throw CommandError{"cannot read " + libraryError(e.what(), "the file is damaged")};
    }
    PixelFormat const format = decoded.getFormat();
    ChannelType const type = getChannelType(format);
    LoadedImage image;
    if (colorSpace == ColorSpaces::AUTO) {
        PixelFormat const kind = type == ChannelType::UInt8    ? PixelFormat::Rgb8
                                 : type == ChannelType::UInt16 ? PixelFormat::Rgb16
                                                               : PixelFormat::RgbFloat;
        image.colorSpace = ColorSpaces::spaceForFile(tag.space, tag.gamma, kind);
    } else {
        image.colorSpace = colorSpace;
    }
    image.width = decoded.getWidth();
    image.height = decoded.getHeight();
    image.hasAlpha = getChannelCount(format) == 2 || getChannelCount(format) == 4;
    image.pixels.resize(std::size_t(image.width) * std::size_t(image.height));
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x)
            image.pixels[std::size_t(y) * std::size_t(image.width) + std::size_t(x)] = decoded.getRgbAlpha(x, y);
    return image;
}

/// Tags the image header with what its values are in: OpenImageIO's colour-space
/// attribute (PNG sRGB or gAMA chunks, the EXIF colour space of JPEG and
/// TIFF) and the primaries and white (EXR chromaticities).
void tagColorSpace(OIIO::ImageSpec& spec, String const& space) {
    using Curve = ColorSpaces::FileEncoding::Curve;
    ColorSpaces::FileEncoding const encoding = ColorSpaces::fileEncodingOf(space);
    switch (encoding.curve) {
    case Curve::Srgb:
        spec.attribute("oiio:ColorSpace", "sRGB");
        spec.attribute("Exif:ColorSpace", 1);
        break;
    case Curve::Gamma22:
        spec.attribute("oiio:ColorSpace", "Gamma2.2");
        spec.attribute("oiio:Gamma", 2.2f);
        spec.attribute("Exif:ColorSpace", 0xFFFF);  // uncalibrated
        break;
    case Curve::Linear:
        spec.attribute("oiio:ColorSpace", "Linear");
        spec.attribute("oiio:Gamma", 1.f);
        spec.attribute("Exif:ColorSpace", 0xFFFF);
        break;
    case Curve::Other: spec.attribute("oiio:ColorSpace", space); break;
    }
    if (encoding.chromaticities) spec.attribute("chromaticities", OIIO::TypeDesc(OIIO::TypeDesc::FLOAT, 8), encoding.chromaticities->data());
}

void writeImage(String const& path, LoadedImage const& image) {
    String const ext = lower(std::filesystem::path(path).extension().string());
    OIIO::TypeDesc format = OIIO::TypeDesc::UINT8;
    if (ext == ".exr") format = OIIO::TypeDesc::HALF;
    else if (ext == ".hdr") format = OIIO::TypeDesc::FLOAT;
    else if (ext == ".tif" || ext == ".tiff") format = OIIO::TypeDesc::UINT16;
    // Radiance HDR has no alpha channel.
    int const channels = image.hasAlpha && ext != ".hdr" && ext != ".jpg" && ext != ".jpeg" ? 4 : 3;
    auto out = OIIO::ImageOutput::create(path);
    if (!out) throw CommandError{"cannot write \"" + path + "\": " + libraryError(OIIO::geterror(), "unknown image format")};
    OIIO::ImageSpec spec(image.width, image.height, channels, format);
    if (channels == 4) spec.alpha_channel = 3;
    tagColorSpace(spec, image.colorSpace);
    Stack<float> data(std::size_t(image.width) * std::size_t(image.height) * std::size_t(channels));
    for (std::size_t i = 0; i < image.pixels.size(); ++i) {
        RgbAlpha const& p = image.pixels[i];
        float* d = &data[i * std::size_t(channels)];
        d[0] = p.r;
        d[1] = p.g;
        d[2] = p.b;
        if (channels == 4) d[3] = p.alpha;
    }
    if (!out->open(path, spec) || !out->write_image(OIIO::TypeDesc::FLOAT, data.data()) || !out->close())
        throw CommandError{"cannot write \"" + path + "\": " + libraryError(out->geterror(), "the file could not be written")};
}

/// `pipeline` (none: an empty one) followed by a LUT operator reading `lutPath`,
/// built as a .ctm file holding them would be.
EntityHolder<IColorMappingOperator> appendLut(EntityHolder<IColorMappingOperator> const& pipeline, String const& lutPath) {
    nlohmann::json root = nlohmann::json::parse(serializePipeline(pipeline));
    root["operators"].push_back({{"@class", "Zatho.LutOperator"},
                                 {"path", std::filesystem::absolute(std::filesystem::path(lutPath)).string()}});
    auto loaded = pipelineFromJson(root);
    if (!loaded) throw CommandError{loaded.error()};
    return loaded->pipeline;
}

void runTonemap(TonemapOptions const& o) {
    if (!o.pipelinePath.empty() && o.useDefault) throw CommandError{"--pipeline and --default exclude each other"};
    if (o.display.empty() != o.view.empty()) throw CommandError{"--display and --view go together"};
    String const linear = orFail(ColorSpaces::sceneLinearSpace(), "--input-space");
    // Names are checked before the image is read.
    if (o.inputSpace != ColorSpaces::AUTO) orFail(ColorSpaces::makeConversion(o.inputSpace, linear), "--input-space");
    ColorSpaces::DisplayView const target{linear, o.display.empty() ? String("sRGB - Display") : o.display,
                                          o.view.empty() ? String("Standard") : o.view, String()};
    ColorSpaces::Processor const toDisplay = orFail(ColorSpaces::makeDisplayView(target), "--display");
    LoadedImage image = guardMemory(o.input, [&] { return readImage(o.input, o.inputSpace); });
    applyToPixels(orFail(ColorSpaces::makeConversion(image.colorSpace, linear), "--input-space"), image.pixels);
    // A LUT alone is the whole pipeline unless one is asked for with it.
    bool const lutAlone = !o.lutPath.empty() && o.pipelinePath.empty() && !o.useDefault;
    EntityHolder<IColorMappingOperator> pipeline =
        lutAlone ? EntityHolder<IColorMappingOperator>() : loadPipelineFile(o.useDefault ? String() : o.pipelinePath);
    if (!o.lutPath.empty()) pipeline = appendLut(pipeline, o.lutPath);
    if (!o.sets.empty()) {
        String errors;
        auto const overrides = parseSets(o.sets, pipeline);
        pipeline->applyOverrides(overrides, errors);
        if (!errors.empty()) {
            if (errors.back() == '\n') errors.pop_back();
            std::replace(errors.begin(), errors.end(), '\n', ';');
            throw CommandError{"--set: " + errors};
        }
    }
    if (o.exposure) {
        float const scale = std::exp2(*o.exposure);
        for (RgbAlpha& p : image.pixels) p = RgbAlpha(p.rgb() * scale, p.alpha);
    }
    // The pipeline's values go to the display through the display's view
    // unless the pipeline ends in display values of its own: then they are
    // written as they are (a display/view operator's space, or the pipeline's
    // 2.2 display encoding).
    bool encode = true;
    if (pipeline && pipeline->getOutputEncoding() == OperatorColorEncoding::Srgb) {
        if (!o.display.empty()) throw CommandError{"--display: the pipeline ends in display values already"};
        encode = false;
        auto const last = pipeline.cast<DisplayViewOperator>();
        image.colorSpace = last ? orFail(ColorSpaces::displayViewSpace(last->get<String>("display"), last->get<String>("view")), "pipeline")
                                : String("Gamma 2.2 Rec.709 - Display");
    }
    ColorMappingContext context;
    context.imageSize = Vector2(float(image.width), float(image.height));
    ColorMapping mapping(pipeline, context, false);
    mapping.setContext(context);
    requirePipelineFiles(mapping);
    if (auto const last = mapping.getPipeline().cast<DisplayViewOperator>(); last && !last->getError().empty())
        throw CommandError{"pipeline: " + last->getError()};
    {
        ProgressBar bar("tonemap " + std::filesystem::path(o.input).filename().string());
        // The linear chain (what the display encoding is applied to) or the
        // whole chain of a pipeline that encodes itself. Alpha is carried
        // through; bands report progress as they finish.
        EntityHolder<IColorMappingOperator> const chain = encode ? mapping.getLinearChain() : mapping.getPipeline();
        ColorProgram const program = chain && mapping.isEnabled() ? ColorProgram::compile(chain) : ColorProgram();
        std::atomic<std::int64_t> rowsDone{0};
        int const width = image.width;
        parallelFor(0, image.height, 16, [&](std::int64_t y0, std::int64_t y1) {
            std::span<RgbAlpha> rows(image.pixels.data() + std::size_t(y0) * std::size_t(width),
                                     std::size_t(y1 - y0) * std::size_t(width));
            if (!program.isIdentity())
                program.map(rows, Pixel(0, int(y0)), Pixel(width, int(y1 - y0)));
            bar.update(double(rowsDone += y1 - y0) / double(std::max(1, image.height)));
        });
        bar.finish();
    }
    if (encode) {
        applyToPixels(toDisplay, image.pixels);
        image.colorSpace = orFail(ColorSpaces::displayViewSpace(target.display, target.view), "--display");
    }
    guardMemory(o.output, [&] { writeImage(o.output, image); });
}

Flags<ColorMappingExclude> parseExclude(String const& text) {
    static std::pair<char const*, std::uint32_t> const names[] = {
        {"exposure", 0x1},   {"whitebalance", 0x2},   {"greenmagentatint", 0x4}, {"saturation", 0x8},
        {"reinhard", 0x10},  {"filmic", 0x20},        {"contrast", 0x40},        {"lut", 0x80},
        {"tint", 0x100},     {"srgb", 0x200},         {"curves", 0x400},         {"advancedfilmic", 0x800},
        {"tonecurve", 0x1000}, {"acesot", 0x2000},    {"all", COLOR_MAPPING_EXCLUDE_ALL}};
    std::uint32_t bits = 0;
    std::size_t start = 0;
    while (start <= text.size() && !text.empty()) {
        std::size_t const end = std::min(text.find(',', start), text.size());
        String name = lower(text.substr(start, end - start));
        std::erase_if(name, [](char c) { return c == ' ' || c == '-' || c == '_'; });
        if (!name.empty()) {
            auto it = std::find_if(std::begin(names), std::end(names), [&](auto const& n) { return name == n.first; });
            if (it == std::end(names)) {
                String all;
                for (auto const& n : names) all += (all.empty() ? "" : ", ") + String(n.first);
                throw CommandError{"--exclude: unknown stage \"" + text.substr(start, end - start) + "\" (one of " + all + ")"};
            }
            bits |= it->second;
        }
        start = end + 1;
    }
    return Flags<ColorMappingExclude>::fromBits(bits);
}

void runUnmap(UnmapOptions const& o) {
    if (o.rgb.size() != 3) throw CommandError{"unmap expects three values R G B"};
    for (float v : o.rgb)
        if (!std::isfinite(v)) throw CommandError{"unmap expects finite values"};
    Flags<ColorMappingExclude> const exclude = parseExclude(o.exclude);
    ColorMapping mapping(loadPipelineFile(o.pipelinePath));
    requirePipelineFiles(mapping);
    Rgb const r = mapping.unmap(Rgb(o.rgb[0], o.rgb[1], o.rgb[2]), exclude);
    std::printf("%.6f %.6f %.6f\n", r.r, r.g, r.b);
}

} // namespace

void addColorCommands(CLI::App& app) {
    auto tonemap = std::make_shared<TonemapOptions>();
    auto* t = app.add_subcommand("tonemap", "Map an image (EXR, HDR, TIFF or PNG) through a colour-mapping pipeline to display values");
    t->add_option("input", tonemap->input,
                  "Input image; read in the colour space its file names, else float formats as linear radiance and "
                  "8- and 16-bit ones as sRGB")
        ->required()
        ->check(CLI::ExistingFile);
    t->add_option("-o,--output", tonemap->output, "Output image; the format follows the extension")->required();
    t->add_option("--pipeline", tonemap->pipelinePath, "A .ctm pipeline preset")->check(CLI::ExistingFile);
    t->add_flag("--default", tonemap->useDefault, "Use the default pipeline (also when --pipeline is not given)");
    t->add_option("--lut", tonemap->lutPath,
                  "A .cube or .3dl LUT applied after the pipeline; alone without --pipeline or --default")
        ->check(CLI::ExistingFile);
    t->add_option_function<float>("--exposure", [tonemap](float ev) { tonemap->exposure = ev; },
                                  "Exposure change in stops, applied before the pipeline");
    t->add_option("--set", tonemap->sets, "OPERATOR.PROPERTY=VALUE, e.g. Contrast.contrast=1.3 (repeatable)");
    t->add_option("--input-space", tonemap->inputSpace,
                  "Colour space of the input, by its name in the OpenColorIO config ($OCIO, else Ferrim's own); "
                  "default auto");
    t->add_option("--display", tonemap->display, "Display of the config the output is for (default sRGB - Display)");
    t->add_option("--view", tonemap->view, "View of that display (default Standard)");
    t->callback([tonemap] { runTonemap(*tonemap); });

    auto unmap = std::make_shared<UnmapOptions>();
    auto* u = app.add_subcommand("unmap", "Find the linear colour that the pipeline displays as R G B");
    u->add_option("rgb", unmap->rgb, "Display colour R G B")->required()->expected(3);
    u->add_option("--pipeline", unmap->pipelinePath, "A .ctm pipeline preset (default: the default pipeline)")
        ->check(CLI::ExistingFile);
    u->add_option("--exclude", unmap->exclude,
                  "Stages left in place, comma-separated: exposure, whitebalance, greenmagentatint, saturation, reinhard, "
                  "filmic, contrast, lut, tint, srgb, curves, advancedfilmic, tonecurve, acesot, all");
    u->callback([unmap] { runUnmap(*unmap); });
}

} // namespace FerrimTool
