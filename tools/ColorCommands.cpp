// `ferrim tonemap`: an HDR (or LDR) image through a colour-mapping pipeline
// into a display image; `ferrim unmap`: a display colour back to radiance.
#include <OpenImageIO/imageio.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <filesystem>

#include "Commands.h"
#include "DisplayOutput.h"
#include "Ferrim/ColorMapping.h"
#include "QuelinLib/MessageText.h"
#include "QuelinLibImage/ImageDecode.h"
#include "QuelinLibImage/ImageLimits.h"

namespace FerrimTool {

using namespace Quelin;

namespace {

struct TonemapOptions {
    String input, output, pipelinePath;
    bool useDefault = false;
    Optional<float> exposure;
    Stack<String> sets;
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

/// The piecewise sRGB transfer, for 8- and 16-bit inputs that store display values.
float srgbToLinear(float v) {
    return v <= 0.04045f ? v / 12.92f : std::pow((v + 0.055f) / 1.055f, 2.4f);
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
};

/// An image library's error text as one printable line.
String libraryError(String const& text, char const* fallback) {
    String const line = singleLine(text);
    return line.empty() ? String(fallback) : line;
}

LoadedImage readImage(String const& path) {
    // The library's decoding front door: a regular file only, its declared size
    // checked before allocating, a file cut short refused.
    Image decoded;
    try {
        Io::Path const file = Io::pathFromUtf8(path);
        ImageFormat const format = getImageFormatFromContentType(Io::pathToUtf8(file.extension()), "\"" + path + "\"");
        auto stream = Io::FileInputStream::open(file);
        if (!stream) throw CommandError{stream.error()};
        TaskProgress progress;
        decoded = makeImage(**stream, format, progress, {.associateAlpha = true});
    } catch (Exception const& e) {
        throw CommandError{"cannot read " + libraryError(e.what(), "the file is damaged")};
    }
    PixelFormat const format = decoded.getFormat();
    ChannelType const type = getChannelType(format);
    // Integer formats store display values; float formats store radiance.
    bool const displayEncoded = type == ChannelType::UInt8 || type == ChannelType::UInt16;
    LoadedImage image;
    image.width = decoded.getWidth();
    image.height = decoded.getHeight();
    image.hasAlpha = getChannelCount(format) == 2 || getChannelCount(format) == 4;
    image.pixels.resize(std::size_t(image.width) * std::size_t(image.height));
    for (int y = 0; y < image.height; ++y)
        for (int x = 0; x < image.width; ++x) {
            RgbAlpha p = decoded.getRgbAlpha(x, y);
            if (displayEncoded) p = RgbAlpha(Rgb(srgbToLinear(p.r), srgbToLinear(p.g), srgbToLinear(p.b)), p.alpha);
            image.pixels[std::size_t(y) * std::size_t(image.width) + std::size_t(x)] = p;
        }
    return image;
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
    spec.attribute("oiio:ColorSpace", "sRGB");
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

void runTonemap(TonemapOptions const& o) {
    if (!o.pipelinePath.empty() && o.useDefault) throw CommandError{"--pipeline and --default exclude each other"};
    LoadedImage image = guardMemory(o.input, [&] { return readImage(o.input); });
    EntityHolder<IColorMappingOperator> pipeline = loadPipelineFile(o.useDefault ? String() : o.pipelinePath);
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
    ColorMappingContext context;
    context.imageSize = Vector2(float(image.width), float(image.height));
    ColorMapping mapping(pipeline, context, false);
    mapping.setContext(context);
    requirePipelineFiles(mapping);
    {
        ProgressBar bar("tonemap " + std::filesystem::path(o.input).filename().string());
        // Alpha is carried through; tiles report progress as they finish.
        mapping.mapFrameBuffer(std::span<RgbAlpha>(image.pixels), image.width, image.height, 0,
                               [&bar](double fraction) { bar.update(fraction); });
        bar.finish();
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
    t->add_option("input", tonemap->input, "Input image; float formats are read as linear radiance, 8- and 16-bit ones as sRGB")
        ->required()
        ->check(CLI::ExistingFile);
    t->add_option("-o,--output", tonemap->output, "Output image; the format follows the extension")->required();
    t->add_option("--pipeline", tonemap->pipelinePath, "A .ctm pipeline preset")->check(CLI::ExistingFile);
    t->add_flag("--default", tonemap->useDefault, "Use the default pipeline (also when --pipeline is not given)");
    t->add_option_function<float>("--exposure", [tonemap](float ev) { tonemap->exposure = ev; },
                                  "Exposure change in stops, applied before the pipeline");
    t->add_option("--set", tonemap->sets, "OPERATOR.PROPERTY=VALUE, e.g. Contrast.contrast=1.3 (repeatable)");
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
