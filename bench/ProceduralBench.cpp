// Per-sample cost of the procedural maps (through their evaluators and UV
// mappers) beside the noise libraries a user would pick instead.
#include <benchmark/benchmark.h>

#include <random>
#include <thread>

#include "BenchRatios.h"
#include "Ferrim/maps/CellularMap.h"
#include "Ferrim/maps/CheckerMap.h"
#include "Ferrim/maps/GradientMap.h"
#include "Ferrim/maps/NoiseMap.h"

#if FERRIM_HAVE_STB
#define STB_PERLIN_IMPLEMENTATION
#include <stb/stb_perlin.h>
#endif
#if FERRIM_HAVE_LIBNOISE
#include <libnoise/noise.h>
#endif

namespace {

using namespace Quelin;

/// A surface point with a fixed UVW, footprint, normal and tangent frame.
class BenchShadeContext : public NullShadeContext {
public:
    explicit BenchShadeContext(Pos const& uvw) : mUvw(uvw) {}
    Pos getUvw(int, std::uint32_t = 0) const override { return mUvw; }
    Dir getDUvw(int) const override { return Dir(1e-3f, 1e-3f, 0.f); }
    Dir getNormal() const override { return Dir(0, 0, 1); }
    Matrix33 getBumpBase(int) const override { return Matrix33(); }
    Pos const& uvw() const { return mUvw; }

private:
    Pos mUvw;
};

constexpr int POINT_COUNT = 4096;

/// The same shading points for every benchmark: UVW in [-10, 10]^3, seeded.
std::vector<BenchShadeContext> const& points() {
    static std::vector<BenchShadeContext> const p = [] {
        std::vector<BenchShadeContext> v;
        std::mt19937 rng(1234);
        std::uniform_real_distribution<float> d(-10.f, 10.f);
        v.reserve(POINT_COUNT);
        for (int i = 0; i < POINT_COUNT; ++i) v.emplace_back(Pos(d(rng), d(rng), d(rng)));
        return v;
    }();
    return p;
}

/// The points scaled as a map of this size sees them, for the peers.
std::vector<Pos> scaledPoints(float size) {
    std::vector<Pos> out;
    for (auto const& c : points()) out.push_back(c.uvw() / size);
    return out;
}

constexpr float NOISE_SIZE = 0.1f;    // the noise map's default
constexpr float CELLULAR_SIZE = 0.3f;  // the cellular map's default

SharedPtr<IMapEvaluator> noiseEvaluator(NoiseMap::Type type, float levels) {
    NoiseMap map;
    map.set("type", type);
    map.set("levels", levels);
    map.set("size", NOISE_SIZE);
    return map.getEvaluatorImpl().evaluator;
}

SharedPtr<IMapEvaluator> cellularEvaluator(CellularMap::CellShape shape) {
    CellularMap map;
    map.set("shape", shape);
    map.set("size", CELLULAR_SIZE);
    return map.getEvaluatorImpl().evaluator;
}

SharedPtr<IMapEvaluator> checkerEvaluator(float soften) {
    CheckerMap map;
    map.set("softenFactor", soften);
    return map.getEvaluatorImpl().evaluator;
}

SharedPtr<IMapEvaluator> gradientEvaluator(GradientMap::Type type) {
    GradientMap map;
    map.set("type", type);
    return map.getEvaluatorImpl().evaluator;
}

template <bool Color> void runEvaluator(benchmark::State& state, IMapEvaluator const& e) {
    auto const& pts = points();
    for (auto _ : state) {
        for (auto const& ctx : pts) {
            if constexpr (Color)
                benchmark::DoNotOptimize(e.evalColor(ctx, nullptr));
            else
                benchmark::DoNotOptimize(e.evalMono(ctx, nullptr));
        }
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(pts.size()));
}

template <typename F> void runPeer(benchmark::State& state, float size, F const& f) {
    auto const pts = scaledPoints(size);
    for (auto _ : state)
        for (auto const& p : pts) benchmark::DoNotOptimize(f(p));
    state.SetItemsProcessed(state.iterations() * std::int64_t(pts.size()));
}

// ---- ours, single thread

void ProceduralNoiseRegularMono(benchmark::State& s) { runEvaluator<false>(s, *noiseEvaluator(NoiseMap::Type::REGULAR, 1.f)); }
void ProceduralNoiseRegularColor(benchmark::State& s) { runEvaluator<true>(s, *noiseEvaluator(NoiseMap::Type::REGULAR, 1.f)); }
void ProceduralNoiseFractal6Mono(benchmark::State& s) { runEvaluator<false>(s, *noiseEvaluator(NoiseMap::Type::FRACTAL, 6.f)); }
void ProceduralNoiseFractal6Color(benchmark::State& s) { runEvaluator<true>(s, *noiseEvaluator(NoiseMap::Type::FRACTAL, 6.f)); }
void ProceduralCellularCircularMono(benchmark::State& s) {
    runEvaluator<false>(s, *cellularEvaluator(CellularMap::CellShape::CIRCULAR));
}
void ProceduralCellularCircularColor(benchmark::State& s) {
    runEvaluator<true>(s, *cellularEvaluator(CellularMap::CellShape::CIRCULAR));
}
void ProceduralCellularChipsMono(benchmark::State& s) { runEvaluator<false>(s, *cellularEvaluator(CellularMap::CellShape::CHIPS)); }
void ProceduralCheckerHardMono(benchmark::State& s) { runEvaluator<false>(s, *checkerEvaluator(0.f)); }
void ProceduralCheckerHardColor(benchmark::State& s) { runEvaluator<true>(s, *checkerEvaluator(0.f)); }
void ProceduralCheckerSoftColor(benchmark::State& s) { runEvaluator<true>(s, *checkerEvaluator(0.05f)); }
void ProceduralGradientLinearMono(benchmark::State& s) { runEvaluator<false>(s, *gradientEvaluator(GradientMap::Type::Linear)); }
void ProceduralGradientLinearColor(benchmark::State& s) { runEvaluator<true>(s, *gradientEvaluator(GradientMap::Type::Linear)); }
void ProceduralGradientSpiralColor(benchmark::State& s) { runEvaluator<true>(s, *gradientEvaluator(GradientMap::Type::Spiral)); }

// A bump sample costs four mono samples plus the frame.
void ProceduralNoiseRegularBump(benchmark::State& state) {
    auto const e = noiseEvaluator(NoiseMap::Type::REGULAR, 1.f);
    auto const& pts = points();
    for (auto _ : state)
        for (auto const& ctx : pts) benchmark::DoNotOptimize(e->evalBump(ctx, nullptr));
    state.SetItemsProcessed(state.iterations() * std::int64_t(pts.size()));
}

// The bare noise function on the points the map sees: the core beside the peers' calls.
void ProceduralNoiseFunction(benchmark::State& s) {
    runPeer(s, NOISE_SIZE, [](Pos const& p) { return NoiseMap::noise(p); });
}

BENCHMARK(ProceduralNoiseFunction);
BENCHMARK(ProceduralNoiseRegularMono);
BENCHMARK(ProceduralNoiseRegularColor);
BENCHMARK(ProceduralNoiseFractal6Mono);
BENCHMARK(ProceduralNoiseFractal6Color);
BENCHMARK(ProceduralNoiseRegularBump);
BENCHMARK(ProceduralCellularCircularMono);
BENCHMARK(ProceduralCellularCircularColor);
BENCHMARK(ProceduralCellularChipsMono);
BENCHMARK(ProceduralCheckerHardMono);
BENCHMARK(ProceduralCheckerHardColor);
BENCHMARK(ProceduralCheckerSoftColor);
BENCHMARK(ProceduralGradientLinearMono);
BENCHMARK(ProceduralGradientLinearColor);
BENCHMARK(ProceduralGradientSpiralColor);

// ---- ours, all cores: one shared evaluator, as render threads use it

int threadCount() { return std::max(1, int(std::thread::hardware_concurrency())); }

void ProceduralNoiseFractal6ColorThreads(benchmark::State& state) {
    static SharedPtr<IMapEvaluator> const e = noiseEvaluator(NoiseMap::Type::FRACTAL, 6.f);
    runEvaluator<true>(state, *e);
}
void ProceduralCellularCircularColorThreads(benchmark::State& state) {
    static SharedPtr<IMapEvaluator> const e = cellularEvaluator(CellularMap::CellShape::CIRCULAR);
    runEvaluator<true>(state, *e);
}
void ProceduralGradientLinearColorThreads(benchmark::State& state) {
    static SharedPtr<IMapEvaluator> const e = gradientEvaluator(GradientMap::Type::Linear);
    runEvaluator<true>(state, *e);
}
BENCHMARK(ProceduralNoiseFractal6ColorThreads)->Threads(threadCount())->UseRealTime();
BENCHMARK(ProceduralCellularCircularColorThreads)->Threads(threadCount())->UseRealTime();
BENCHMARK(ProceduralGradientLinearColorThreads)->Threads(threadCount())->UseRealTime();

// ---- peers, on the same points as the maps see them

#if FERRIM_HAVE_STB
void ProceduralPeerStbPerlinNoise3(benchmark::State& s) {
    runPeer(s, NOISE_SIZE, [](Pos const& p) { return stb_perlin_noise3(p.x, p.y, p.z, 0, 0, 0); });
}
void ProceduralPeerStbFbm6(benchmark::State& s) {
    runPeer(s, NOISE_SIZE, [](Pos const& p) { return stb_perlin_fbm_noise3(p.x, p.y, p.z, 2.f, 0.5f, 6); });
}
void ProceduralPeerStbFbm6Threads(benchmark::State& s) {
    runPeer(s, NOISE_SIZE, [](Pos const& p) { return stb_perlin_fbm_noise3(p.x, p.y, p.z, 2.f, 0.5f, 6); });
}
// stb's noise as a user would wire it in as a map: an evaluator that reads the
// point from the context, scales it by the feature size and maps [-1, 1] to
// [0, 1]. It goes through the same virtual calls as the noise map, so the
// ratio compares the maps, not an inlined loop with a virtual one.
class StbNoiseEvaluator final : public IMapEvaluator {
public:
    explicit StbNoiseEvaluator(float size) : mSize(size) {}
    RgbAlpha evalColor(IShadeContext const& c, MapCache* cache) const override {
        float const v = evalMono(c, cache).value;
        return RgbAlpha(v, v, v, 1.f);
    }
    MonoAlpha evalMono(IShadeContext const& c, MapCache*) const override {
        Pos const p = c.getUvw(0) / mSize;
        return MonoAlpha((stb_perlin_noise3(p.x, p.y, p.z, 0, 0, 0) + 1.f) * 0.5f, 1.f);
    }
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(0.f, 0.f, 0.f); }

private:
    float mSize;
};
void ProceduralPeerStbPerlinNoise3Map(benchmark::State& s) {
    SharedPtr<IMapEvaluator> const e = makeSharedPtr<StbNoiseEvaluator>(NOISE_SIZE);
    runEvaluator<false>(s, *e);
}
BENCHMARK(ProceduralPeerStbPerlinNoise3);
BENCHMARK(ProceduralPeerStbPerlinNoise3Map);
BENCHMARK(ProceduralPeerStbFbm6);
BENCHMARK(ProceduralPeerStbFbm6Threads)->Threads(threadCount())->UseRealTime();
#endif

#if FERRIM_HAVE_LIBNOISE
void ProceduralPeerLibnoisePerlin1(benchmark::State& s) {
    noise::module::Perlin perlin;
    perlin.SetOctaveCount(1);
    runPeer(s, NOISE_SIZE, [&](Pos const& p) { return perlin.GetValue(p.x, p.y, p.z); });
}
void ProceduralPeerLibnoisePerlin6(benchmark::State& s) {
    noise::module::Perlin perlin;
    perlin.SetOctaveCount(6);
    runPeer(s, NOISE_SIZE, [&](Pos const& p) { return perlin.GetValue(p.x, p.y, p.z); });
}
void ProceduralPeerLibnoiseVoronoi(benchmark::State& s) {
    noise::module::Voronoi voronoi;
    runPeer(s, CELLULAR_SIZE, [&](Pos const& p) { return voronoi.GetValue(p.x, p.y, p.z); });
}
BENCHMARK(ProceduralPeerLibnoisePerlin1);
BENCHMARK(ProceduralPeerLibnoisePerlin6);
BENCHMARK(ProceduralPeerLibnoiseVoronoi);
#endif

} // namespace

FERRIM_BENCH_RATIO("noise_regular_vs_stb", "<= 1.0",
                   FerrimBench::timeRatio("ProceduralNoiseRegularMono", "ProceduralPeerStbPerlinNoise3Map"));
FERRIM_BENCH_RATIO("noise_function_vs_stb_function", "<= 1.0",
                   FerrimBench::timeRatio("ProceduralNoiseFunction", "ProceduralPeerStbPerlinNoise3"));
FERRIM_BENCH_RATIO("noise_fractal6_vs_stb_fbm6", "<= 1.0",
                   FerrimBench::timeRatio("ProceduralNoiseFractal6Mono", "ProceduralPeerStbFbm6"));
FERRIM_BENCH_RATIO("cellular_vs_libnoise_voronoi", "<= 0.2",
                   FerrimBench::timeRatio("ProceduralCellularCircularMono", "ProceduralPeerLibnoiseVoronoi"));
