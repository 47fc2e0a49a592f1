// The module's operations written directly against the C++ API, one point or
// one frame at a time on one thread, for the Python tests to compare with.
// Arrays are raw float32 files.
//   eval ENTITY.json color|mono|bump FOOTPRINT POINTS OUT   (9 floats a point: uvw, position, normal)
//   map PIPELINE.ctm WIDTH HEIGHT CHANNELS IN OUT
//   unmap PIPELINE.ctm EXCLUDE_BITS IN OUT                  (3 floats a colour)
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <span>

#include "Ferrim/ColorMapping.h"
#include "Ferrim/IMap.h"
#include "PointShadeContext.h"
#include "QuelinLib/Json.h"

using namespace Quelin;

namespace {

String readFile(String const& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw Exception("cannot read " + path);
    return String(std::istreambuf_iterator<char>(in), {});
}

Stack<float> readFloats(String const& path) {
    String const bytes = readFile(path);
    Stack<float> values(bytes.size() / sizeof(float));
    std::memcpy(values.data(), bytes.data(), values.size() * sizeof(float));
    return values;
}

void writeFloats(String const& path, Stack<float> const& values) {
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<char const*>(values.data()), std::streamsize(values.size() * sizeof(float)));
}

template <typename T> T orThrow(Expected<T> value) {
    if (!value) throw Exception(value.error());
    return std::move(*value);
}

void evalPoints(char** a) {
    auto const map = orThrow(entityFromJsonAs<IMap>(orThrow(parseJson(readFile(a[0])))));
    auto const evaluator = map->getEvaluatorImpl().evaluator;
    String const kind = a[1];
    Stack<float> const in = readFloats(a[3]);
    Stack<float> out;
    for (std::size_t i = 0; i + 9 <= in.size(); i += 9) {
        FerrimPython::PointShadeContext const c({Pos(in[i], in[i + 1], in[i + 2]), Pos(in[i + 3], in[i + 4], in[i + 5]),
                                                 Dir(in[i + 6], in[i + 7], in[i + 8]), std::stof(a[2])});
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
    writeFloats(a[4], out);
}

SharedPtr<ColorMapping> loadMapping(String const& path, int width, int height) {
    ColorMappingContext context;
    context.imageSize = Vector2(float(width), float(height));
    auto mapping = makeSharedPtr<ColorMapping>(orThrow(loadPipelinePreset(path)).pipeline, context, false);
    mapping->setContext(context);
    return mapping;
}

void mapFrame(char** a) {
    int const width = std::stoi(a[1]), height = std::stoi(a[2]);
    auto const mapping = loadMapping(a[0], width, height);
    Stack<float> pixels = readFloats(a[4]);
    std::size_t const count = std::size_t(width) * std::size_t(height);
    if (std::stoi(a[3]) == 3)
        mapping->mapFrameBuffer(std::span(reinterpret_cast<Rgb*>(pixels.data()), count), width, height, 1);
    else
        mapping->mapFrameBuffer(std::span(reinterpret_cast<RgbAlpha*>(pixels.data()), count), width, height, 1);
    writeFloats(a[5], pixels);
}

void unmapColors(char** a) {
    auto const mapping = loadMapping(a[0], 1, 1);
    auto const exclude = Flags<ColorMappingExclude>::fromBits(std::uint32_t(std::stoul(a[1])));
    Stack<float> colors = readFloats(a[2]);
    for (std::size_t i = 0; i + 3 <= colors.size(); i += 3) {
        Rgb const c = mapping->unmap(Rgb(colors[i], colors[i + 1], colors[i + 2]), exclude);
        colors[i] = c.r, colors[i + 1] = c.g, colors[i + 2] = c.b;
    }
    writeFloats(a[3], colors);
}

} // namespace

int main(int argc, char** argv) {
    struct Command {
        char const* name;
        int arguments;
        void (*run)(char**);
    };
    for (Command const c : {Command{"eval", 5, evalPoints}, Command{"map", 6, mapFrame}, Command{"unmap", 4, unmapColors}}) {
        if (argc != c.arguments + 2 || String(argv[1]) != c.name) continue;
        Ferrim::startup();
        int code = 0;
        try {
            c.run(argv + 2);
        } catch (std::exception const& e) {
            std::fprintf(stderr, "ferrim_py_reference: %s\n", e.what());
            code = 1;
        }
        Ferrim::shutdown();
        return code;
    }
    std::fprintf(stderr, "usage: see the head of ReferenceEval.cpp\n");
    return 2;
}
