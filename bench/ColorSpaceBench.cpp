// Colour spaces by name: a 4096 x 4096 8-bit sRGB texture loaded with "auto"
// (a table for level 0, mip levels averaged in linear light) against the same
// load under the gamma rule; and the display/view operator compiled into a
// colour program on a UHD frame against OpenColorIO's CPU processor alone,
// one thread each.
#include <benchmark/benchmark.h>

#include <cstring>
#include <filesystem>
#include <random>

#include "BenchRatios.h"
#include "SceneFrame.h"
#include "Ferrim/ColorMapping.h"
#include "Ferrim/Ferrim.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/colorMappingOperators/DisplayViewOperator.h"
#include "QuelinLib/TaskScheduler.h"
#include "QuelinLib/DataSource.h"

#if FERRIM_HAVE_OCIO
#include <OpenColorIO/OpenColorIO.h>
#include <sstream>
#include "Ferrim/ColorSpaces.h"
namespace OCIO = OCIO_NAMESPACE;
#endif

using namespace Quelin;

namespace {

// ----------------------------------------------------------- texture loads

std::filesystem::path const& srgbPng() {
    static std::filesystem::path const sPath = [] {
        auto folder = Io::StandardPaths::temporary() / "ferrim_bench_color_space";
        std::filesystem::create_directories(folder);
        auto path = folder / "srgb4096.png";
        if (std::filesystem::exists(path)) return path;
        // Smooth gradients with some noise: compresses like a photograph, not like flat colour.
        Image image(Image::Descriptor(Pixel(4096, 4096), PixelFormat::Rgb8));
        std::mt19937 rng(9);
        for (int y = 0; y < 4096; ++y) {
            auto* row = reinterpret_cast<std::uint8_t*>(image.getData() + std::int64_t(y) * image.getRowBytes());
            for (int x = 0; x < 4096; ++x) {
                int const n = int(rng() % 9) - 4;
                row[3 * x] = std::uint8_t(std::clamp((x >> 4) + n, 0, 255));
                row[3 * x + 1] = std::uint8_t(std::clamp((y >> 4) + n, 0, 255));
                row[3 * x + 2] = std::uint8_t(std::clamp(((x + y) >> 5) + n, 0, 255));
            }
        }
        if (auto r = writeImage(image, path); !r) std::fprintf(stderr, "bench: %s\n", r.error().c_str());
        return path;
    }();
    return sPath;
}

/// A fresh load each time (the loader suspended so that it runs here, on one thread).
void runLoad(benchmark::State& state, String const& colorSpace) {
    auto const source = FileDataSource::make(srgbPng());
    TaskScheduler scheduler("bench.colorspace", 1);
    TaskScheduler::setThreadDefault(&scheduler);
    ImageTextureCache::suspend();
    for (auto _ : state) {
        SharedPtr<ImageTexture> texture = ImageTextureCache::getOrCreateInColorSpace(source, colorSpace);
        if (!texture->hasPixels()) state.SkipWithError(texture->getError().c_str());
        benchmark::DoNotOptimize(texture.get());
    }
    ImageTextureCache::resume();
    TaskScheduler::setThreadDefault(nullptr);
}

// ------------------------------------------------------------ display view

using FerrimBench::HEIGHT;
using FerrimBench::PIXELS;
using FerrimBench::sceneFrame;
using FerrimBench::WIDTH;

void refill(benchmark::State& state, Stack<Rgb>& work) {
    state.PauseTiming();
    std::memcpy(work.data(), sceneFrame().data(), PIXELS * sizeof(Rgb));
    state.ResumeTiming();
}

constexpr char const* DISPLAY = "sRGB - Display";
constexpr char const* INPUT = "ACEScg";

void runDisplayView(benchmark::State& state) {
    auto op = ColorMappingOperatorFactory::getInstance().createOperator("Zatho.DisplayViewOperator").cast<DisplayViewOperator>();
    op->set("inputSpace", String(INPUT));
    op->set("display", String(DISPLAY));
    op->prepareForApplication(ColorMappingContext());
    if (!op->getError().empty()) {
        state.SkipWithError(op->getError().c_str());
        return;
    }
    ColorProgram const program = ColorProgram::compile(op);
    Stack<Rgb> work(PIXELS);
    for (auto _ : state) {
        refill(state, work);
        program.map(std::span<Rgb>(work), Pixel(0, 0), Pixel(WIDTH, HEIGHT));
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(PIXELS));
}

#if FERRIM_HAVE_OCIO
void runOcioDisplayView(benchmark::State& state) {
    // The same config, names and transform, straight through OpenColorIO.
    std::istringstream text{String(ColorSpaces::builtinConfigText())};
    auto const config = OCIO::Config::CreateFromStream(text);
    auto view = OCIO::DisplayViewTransform::Create();
    view->setSrc(INPUT), view->setDisplay(DISPLAY), view->setView("Standard");
    auto group = OCIO::GroupTransform::Create();
    group->appendTransform(view);
    auto const cpu = config->getProcessor(group)->getDefaultCPUProcessor();
    Stack<Rgb> work(PIXELS);
    for (auto _ : state) {
        refill(state, work);
        OCIO::PackedImageDesc image(reinterpret_cast<float*>(work.data()), WIDTH, HEIGHT, 3);
        cpu->apply(image);
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(PIXELS));
}
#endif

bool const sRegistered = [] {
    benchmark::RegisterBenchmark("TextureCache/ColorSpaceLoadAuto", [](benchmark::State& s) { runLoad(s, "auto"); })
        ->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
    benchmark::RegisterBenchmark("TextureCache/ColorSpaceLoadGammaRule", [](benchmark::State& s) { runLoad(s, ""); })
        ->Unit(benchmark::kMillisecond)->UseRealTime()->MinTime(2.0);
    benchmark::RegisterBenchmark("ColorMapping/DisplayView1Thread", runDisplayView)
        ->Unit(benchmark::kMillisecond)->MinTime(2.0);
#if FERRIM_HAVE_OCIO
    benchmark::RegisterBenchmark("ColorMapping/OcioDisplayView1Thread", runOcioDisplayView)
        ->Unit(benchmark::kMillisecond)->MinTime(2.0);
#endif
    return true;
}();

} // namespace

FERRIM_BENCH_RATIO("texture_colorspace_load_vs_plain_load", "<= 1.3",
                   FerrimBench::timeRatio("TextureCache/ColorSpaceLoadAuto/real_time",
                                          "TextureCache/ColorSpaceLoadGammaRule/real_time"));
FERRIM_BENCH_RATIO("display_view_vs_ocio", "<= 1.05",
                   FerrimBench::timeRatio("ColorMapping/DisplayView1Thread", "ColorMapping/OcioDisplayView1Thread"));
