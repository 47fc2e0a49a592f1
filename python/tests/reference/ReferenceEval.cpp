// The module's operations written directly against the C++ API, one point or
// one frame at a time on one thread, for the Python tests to compare with.
// Arrays are raw float32 files.
//   eval ENTITY.json color|mono|bump FOOTPRINT POINTS OUT   (9 floats a point: uvw, position, normal)
//   map PIPELINE.ctm WIDTH HEIGHT CHANNELS IN OUT
//   unmap PIPELINE.ctm EXCLUDE_BITS IN OUT                  (3 floats a colour)
//   render SCENE.json|- WIDTH HEIGHT SAMPLES OUT             (- is the demo scene)
#include <cstdio>
#include <cstring>
#include <fstream>
#include <span>
#include <sstream>
#include <string>

#include "DisplayOutput.h"
#include "Ferrim/ColorMapping.h"
#include "Ferrim/Ferrim.h"
#include "PointShadeContext.h"
#include "QuelinLib/Json.h"
#include "SwatchRenderer.h"

using namespace Quelin;

namespace {

struct Failure {
    String message;
};

String readText(String const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw Failure{"cannot read " + path};
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

Stack<float> readFloats(String const& path) {
    String const bytes = readText(path);
    Stack<float> v(bytes.size() / sizeof(float));
    std::memcpy(v.data(), bytes.data(), v.size() * sizeof(float));
    return v;
}

void writeFloats(String const& path, float const* data, std::size_t count) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<char const*>(data), std::streamsize(count * sizeof(float)));
    if (!out)
        throw Failure{"cannot write " + path};
}

template <typename T> T orFail(Expected<T> value) {
    if (!value)
        throw Failure{value.error()};
    if constexpr (!std::is_void_v<T>)
        return std::move(*value);
}

void evalPoints(char** a) {
    auto json = orFail(parseJson(readText(a[0])));
    auto map = orFail(entityFromJsonAs<IMap>(json));
    String const kind = a[1];
    float const footprint = std::stof(a[2]);
    Stack<float> const in = readFloats(a[3]);
    auto const evaluator = map->getEvaluatorImpl().evaluator;
    Stack<float> out;
    for (std::size_t i = 0; i + 9 <= in.size(); i += 9) {
        FerrimPython::ShadingPoint p;
        p.uvw = Pos(in[i], in[i + 1], in[i + 2]);
        p.position = Pos(in[i + 3], in[i + 4], in[i + 5]);
        p.normal = Dir(in[i + 6], in[i + 7], in[i + 8]);
        p.footprint = footprint;
        FerrimPython::PointShadeContext const c(p);
        if (kind == "color") {
            RgbAlpha const v = evaluator->evalColor(c, nullptr);
            out.insert(out.end(), {v.r, v.g, v.b, v.alpha});
        } else if (kind == "mono") {
            MonoAlpha const v = evaluator->evalMono(c, nullptr);
            out.insert(out.end(), {v.value, v.alpha});
        } else {
            Dir const v = evaluator->evalBump(c, nullptr);
            out.insert(out.end(), {v.x, v.y, v.z});
        }
    }
    writeFloats(a[4], out.data(), out.size());
}

SharedPtr<ColorMapping> loadMapping(String const& path, int width, int height) {
    auto loaded = orFail(loadPipelinePreset(path));
    ColorMappingContext context;
    context.imageSize = Vector2(float(width), float(height));
    auto mapping = makeSharedPtr<ColorMapping>(loaded.pipeline, context, false);
    mapping->setContext(context);
    return mapping;
}

void mapFrame(char** a) {
    int const width = std::stoi(a[1]), height = std::stoi(a[2]), channels = std::stoi(a[3]);
    auto const mapping = loadMapping(a[0], width, height);
    Stack<float> pixels = readFloats(a[4]);
    std::size_t const count = std::size_t(width) * std::size_t(height);
    if (channels == 3)
        mapping->mapFrameBuffer(std::span<Rgb>(reinterpret_cast<Rgb*>(pixels.data()), count), width, height, 1);
    else
        mapping->mapFrameBuffer(std::span<RgbAlpha>(reinterpret_cast<RgbAlpha*>(pixels.data()), count), width, height,
                                1);
    writeFloats(a[5], pixels.data(), pixels.size());
}

void unmapColors(char** a) {
    auto const mapping = loadMapping(a[0], 1, 1);
    auto const exclude = Flags<ColorMappingExclude>::fromBits(std::uint32_t(std::stoul(a[1])));
    Stack<float> colors = readFloats(a[2]);
    for (std::size_t i = 0; i + 3 <= colors.size(); i += 3) {
        Rgb const c = mapping->unmap(Rgb(colors[i], colors[i + 1], colors[i + 2]), exclude);
        colors[i] = c.r, colors[i + 1] = c.g, colors[i + 2] = c.b;
    }
    writeFloats(a[3], colors.data(), colors.size());
}

void renderScene(char** a) {
    String const source = a[0];
    String const text = source == "-" ? String(FerrimTool::getDemoSceneText()) : readText(source);
    auto scene = orFail(FerrimTool::parseScene(text, source));
    scene.samples = std::stoi(a[3]);
    FerrimTool::LinearImage image = FerrimTool::renderScene(scene, std::stoi(a[1]), std::stoi(a[2]), {});
    orFail(FerrimTool::mapToDisplay(image, scene.pipeline));
    writeFloats(a[4], image.rgba.data(), image.rgba.size());
}

} // namespace

int main(int argc, char** argv) {
    struct Command {
        char const* name;
        int arguments;
        void (*run)(char**);
    };
    static Command const commands[] = {
        {"eval", 5, evalPoints}, {"map", 6, mapFrame}, {"unmap", 4, unmapColors}, {"render", 5, renderScene}};
    for (Command const& c : commands) {
        if (argc != c.arguments + 2 || String(argv[1]) != c.name)
            continue;
        Ferrim::startup();
        int code = 0;
        try {
            c.run(argv + 2);
        } catch (Failure const& f) {
            std::fprintf(stderr, "ferrim_py_reference: %s\n", f.message.c_str());
            code = 1;
        }
        Ferrim::shutdown();
        return code;
    }
    std::fprintf(stderr, "usage: see the head of ReferenceEval.cpp\n");
    return 2;
}
