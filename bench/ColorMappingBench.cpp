// Colour mapping over a UHD frame: the default pipeline against OpenColorIO's
// exposure + white balance + ACES SDR output transform, against a plain 3x3
// matrix pass (the memory-bound floor) and on all threads against one, the
// LUT operator's compiled program against OCIO's file transform on the same
// 33-cube, the display transforms (AgX, PBR Neutral) against the ACES fit,
// and unmapping.
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>

#include "BenchRatios.h"
#include "SceneFrame.h"
#include "Ferrim/ColorMapping.h"
#include "Ferrim/colorMappingOperators/Lut.h"
#include "Ferrim/colorMappingOperators/LutOperator.h"

#if FERRIM_HAVE_OCIO
#include <OpenColorIO/OpenColorIO.h>
namespace OCIO = OCIO_NAMESPACE;
#endif

using namespace Quelin;

namespace {

using FerrimBench::HEIGHT;
using FerrimBench::PIXELS;
using FerrimBench::sceneFrame;
using FerrimBench::WIDTH;

/// Display-range values for the LUT benchmarks.
Stack<Rgb> const& unitFrame() {
    static Stack<Rgb> const frame = [] {
        Stack<Rgb> f(PIXELS);
        std::mt19937 rng(2);
        std::uniform_real_distribution<float> u(0.f, 1.f);
        for (Rgb& p : f) p = Rgb(u(rng), u(rng), u(rng));
        return f;
    }();
    return frame;
}

/// Copies the source into the work frame outside the timed region.
void refill(benchmark::State& state, Stack<Rgb>& work, Stack<Rgb> const& source) {
    state.PauseTiming();
    std::memcpy(work.data(), source.data(), PIXELS * sizeof(Rgb));
    state.ResumeTiming();
}

void runDefaultPipeline(benchmark::State& state, int threads) {
    ColorMapping mapping(createDefaultPipeline());
    ColorMappingContext context;
    context.imageSize = Vector2(WIDTH, HEIGHT);
    mapping.setContext(context);
    Stack<Rgb> work(PIXELS);
    for (auto _ : state) {
        refill(state, work, sceneFrame());
        mapping.mapFrameBuffer(std::span<Rgb>(work), WIDTH, HEIGHT, threads);
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(PIXELS));
}

void ColorMappingDefaultPipeline1Thread(benchmark::State& state) { runDefaultPipeline(state, 1); }
void ColorMappingDefaultPipelineAllThreads(benchmark::State& state) { runDefaultPipeline(state, 0); }
// Two seconds each: the first pass over a fresh 100 MB frame pays page faults
// that would otherwise be the whole measurement.
BENCHMARK(ColorMappingDefaultPipeline1Thread)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(ColorMappingDefaultPipelineAllThreads)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

void ColorMappingMatrixPass(benchmark::State& state) {
    // A white-balance-like matrix: the least work a colour pass can do.
    Matrix33 const m(1.05f, 0.02f, -0.01f, 0.01f, 0.98f, 0.01f, -0.02f, 0.03f, 1.1f);
    Stack<Rgb> work(PIXELS);
    for (auto _ : state) {
        refill(state, work, sceneFrame());
        for (Rgb& p : work) p = m * p;
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(PIXELS));
}
BENCHMARK(ColorMappingMatrixPass)->Unit(benchmark::kMillisecond)->MinTime(2.0);

/// One operator alone, compiled as ColorMapping compiles its chains, over
/// the scene frame on one thread.
void runOperatorProgram(benchmark::State& state, char const* type) {
    auto op = ColorMappingOperatorFactory::getInstance().createOperator(type);
    op->prepareForApplication(ColorMappingContext());
    ColorProgram const program = ColorProgram::compile(op);
    Stack<Rgb> work(PIXELS);
    for (auto _ : state) {
        refill(state, work, sceneFrame());
        program.map(std::span<Rgb>(work), Pixel(0, 0), Pixel(WIDTH, HEIGHT));
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(PIXELS));
}
void ColorMappingAcesFit1Thread(benchmark::State& state) { runOperatorProgram(state, "Zatho.AcesOtOperator"); }
void ColorMappingAgx1Thread(benchmark::State& state) { runOperatorProgram(state, "Zatho.AgxOperator"); }
void ColorMappingPbrNeutral1Thread(benchmark::State& state) { runOperatorProgram(state, "Zatho.PbrNeutralOperator"); }
BENCHMARK(ColorMappingAcesFit1Thread)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(ColorMappingAgx1Thread)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(ColorMappingPbrNeutral1Thread)->Unit(benchmark::kMillisecond)->MinTime(2.0);

void ColorMappingUnmapDefault(benchmark::State& state) {
    ColorMapping mapping(createDefaultPipeline());
    Stack<Rgb> const& source = unitFrame();
    constexpr std::size_t COUNT = 1 << 20;
    for (auto _ : state) {
        float sum = 0.f;
        for (std::size_t i = 0; i < COUNT; ++i) sum += mapping.unmap(source[i]).g;
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(COUNT));
}
BENCHMARK(ColorMappingUnmapDefault)->Unit(benchmark::kMillisecond)->MinTime(2.0);

EntityHolder<LutOperator> makeLutOperator() {
    auto op = ColorMappingOperatorFactory::getInstance().createOperator("Zatho.LutOperator").cast<LutOperator>();
    op->set("path", getDefaultLut());
    op->set("lut_interpolation", int(LutInterpolation::Tetrahedral));
    op->set("lut_applyInSrgb", false);  // the table straight on the values, as OCIO's file transform does
    op->prepareForApplication(ColorMappingContext());
    return op;
}

/// The LUT operator alone, compiled as ColorMapping compiles its chains.
ColorProgram makeLutProgram(EntityHolder<LutOperator> const& op) { return ColorProgram::compile(op); }

void ColorMappingLut33Tetra(benchmark::State& state) {
    auto op = makeLutOperator();
    if (!op->getLoadError().empty()) {
        state.SkipWithError(op->getLoadError().c_str());
        return;
    }
    ColorProgram const program = makeLutProgram(op);
    Stack<Rgb> work(PIXELS);
    for (auto _ : state) {
        refill(state, work, unitFrame());
        program.map(std::span<Rgb>(work), Pixel(0, 0), Pixel(WIDTH, HEIGHT));
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(PIXELS));
}
BENCHMARK(ColorMappingLut33Tetra)->Unit(benchmark::kMillisecond)->MinTime(2.0);

#if FERRIM_HAVE_OCIO
OCIO::ConstCPUProcessorRcPtr makeOcioAces() {
    auto config = OCIO::Config::CreateRaw();
    auto group = OCIO::GroupTransform::Create();
    // Exposure: one stop up, as a scale.
    auto exposure = OCIO::MatrixTransform::Create();
    double const e = 2.0;
    double const scale[4] = {e, e, e, 1.0};
    double m44[16];
    double offset[4];
    OCIO::MatrixTransform::Scale(m44, offset, scale);
    exposure->setMatrix(m44);
    exposure->setOffset(offset);
    group->appendTransform(exposure);
    // White balance: a diagonal von Kries-like matrix.
    auto whiteBalance = OCIO::MatrixTransform::Create();
    double const wb[4] = {1.08, 1.0, 0.91, 1.0};
    OCIO::MatrixTransform::Scale(m44, offset, wb);
    whiteBalance->setMatrix(m44);
    group->appendTransform(whiteBalance);
    // The built-in ACES 1.0 SDR video output transform.
    auto registry = OCIO::BuiltinTransformRegistry::Get();
    char const* style = "ACES-OUTPUT - ACES2065-1_to_CIE-XYZ-D65 - SDR-VIDEO_1.0";
    bool found = false;
    for (std::size_t i = 0; i < registry->getNumBuiltins(); ++i)
        if (std::strcmp(registry->getBuiltinStyle(i), style) == 0) found = true;
    if (!found) {
        for (std::size_t i = 0; i < registry->getNumBuiltins(); ++i)
            if (std::strstr(registry->getBuiltinStyle(i), "SDR-VIDEO")) {
                style = registry->getBuiltinStyle(i);
                break;
            }
    }
    auto aces = OCIO::BuiltinTransform::Create();
    aces->setStyle(style);
    group->appendTransform(aces);
    return config->getProcessor(group)->getOptimizedCPUProcessor(OCIO::BIT_DEPTH_F32, OCIO::BIT_DEPTH_F32,
                                                                 OCIO::OPTIMIZATION_DEFAULT);
}

void ColorMappingOcioAces1Thread(benchmark::State& state) {
    auto cpu = makeOcioAces();
    Stack<Rgb> work(PIXELS);
    for (auto _ : state) {
        refill(state, work, sceneFrame());
        OCIO::PackedImageDesc image(reinterpret_cast<float*>(work.data()), WIDTH, HEIGHT, 3);
        cpu->apply(image);
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(PIXELS));
}
BENCHMARK(ColorMappingOcioAces1Thread)->Unit(benchmark::kMillisecond)->MinTime(2.0);

OCIO::ConstCPUProcessorRcPtr makeOcioLut() {
    auto config = OCIO::Config::CreateRaw();
    auto file = OCIO::FileTransform::Create();
    file->setSrc(getDefaultLut().c_str());
    file->setInterpolation(OCIO::INTERP_TETRAHEDRAL);
    return config->getProcessor(file)->getOptimizedCPUProcessor(OCIO::BIT_DEPTH_F32, OCIO::BIT_DEPTH_F32,
                                                                OCIO::OPTIMIZATION_DEFAULT);
}

void ColorMappingOcioLut33Tetra(benchmark::State& state) {
    auto cpu = makeOcioLut();
    // Same answers first: the comparison means nothing otherwise.
    {
        auto op = makeLutOperator();
        Stack<Rgb> ours(unitFrame().begin(), unitFrame().begin() + 65536);
        Stack<Rgb> theirs = ours;
        makeLutProgram(op).map(std::span<Rgb>(ours), Pixel(0, 0), Pixel(int(ours.size()), 1));
        OCIO::PackedImageDesc image(reinterpret_cast<float*>(theirs.data()), long(theirs.size()), 1, 3);
        cpu->apply(image);
        for (std::size_t i = 0; i < ours.size(); ++i)
            for (int ch = 0; ch < 3; ++ch)
                if (std::abs(ours[i][ch] - theirs[i][ch]) > 1e-5f) {
                    state.SkipWithError("LUT results differ from OpenColorIO's by more than 1e-5");
                    return;
                }
    }
    Stack<Rgb> work(PIXELS);
    for (auto _ : state) {
        refill(state, work, unitFrame());
        OCIO::PackedImageDesc image(reinterpret_cast<float*>(work.data()), WIDTH, HEIGHT, 3);
        cpu->apply(image);
        benchmark::DoNotOptimize(work.data());
    }
    state.SetItemsProcessed(std::int64_t(state.iterations()) * std::int64_t(PIXELS));
}
BENCHMARK(ColorMappingOcioLut33Tetra)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// Throughput over throughput = the peer's time per pixel over ours. Single
// threads are timed by their own processor time (steady on a shared machine);
// the all-threads run by the wall clock, which is what more threads shorten.
FERRIM_BENCH_RATIO("default_pipeline_vs_ocio", ">= 60",
                   FerrimBench::timeRatio("ColorMappingOcioAces1Thread", "ColorMappingDefaultPipeline1Thread"));
FERRIM_BENCH_RATIO("lut33_tetra_vs_ocio", ">= 6",
                   FerrimBench::timeRatio("ColorMappingOcioLut33Tetra", "ColorMappingLut33Tetra"));
#endif

FERRIM_BENCH_RATIO("agx_vs_aces_fit", "<= 1.5", FerrimBench::timeRatio("ColorMappingAgx1Thread", "ColorMappingAcesFit1Thread"));
FERRIM_BENCH_RATIO("pbr_neutral_vs_aces_fit", "<= 1.0",
                   FerrimBench::timeRatio("ColorMappingPbrNeutral1Thread", "ColorMappingAcesFit1Thread"));
FERRIM_BENCH_RATIO("default_pipeline_vs_matrix_pass", "<= 2.0",
                   FerrimBench::timeRatio("ColorMappingDefaultPipeline1Thread", "ColorMappingMatrixPass"));
FERRIM_BENCH_RATIO("default_pipeline_threads_speedup", ">= 1.8",
                   FerrimBench::timeRatio("ColorMappingDefaultPipeline1Thread", "ColorMappingDefaultPipelineAllThreads/real_time"));

} // namespace
