// The fractal and triplanar maps beside what a user would do instead: stb_perlin's
// own fractal sums, and three plain lookups of the projected texture.
#include <benchmark/benchmark.h>

#include <filesystem>
#include <random>

#include "BenchRatios.h"
#include "Ferrim/TextureMap/TextureMap.h"
#include "Ferrim/maps/FractalMap.h"
#include "Ferrim/maps/TriplanarMap.h"
#include "QuelinLib/DataSource.h"
#include "QuelinLib/Io.h"
#include "QuelinLibImage/Image.h"

#if FERRIM_HAVE_STB
#include <stb/stb_perlin.h>  // the implementation is compiled in ProceduralBench.cpp
#endif

namespace {

using namespace Quelin;

constexpr int POINT_COUNT = 4096;
constexpr float FRACTAL_SIZE = 0.25f;  // the fractal map's default

/// A surface point with the positions, normals and footprint the maps read.
class BenchShadeContext final : public NullShadeContext {
public:
    Pos uvw;
    Dir normal{0.f, 0.f, 1.f};
    Pos getUvw(int, std::uint32_t = 0) const override { return uvw; }
    Dir getDUvw(int) const override { return Dir(1e-4f, 1e-4f, 0.f); }
    Dir getNormal() const override { return normal; }
    Dir getObjectNormal() const override { return normal; }
    Pos getObjectPosition() const override { return uvw; }
    PrecisePos getPosition() const override { return PrecisePos(uvw.x, uvw.y, uvw.z); }
    float getPositionFootprint() const override { return 1e-4f; }
    ShadedKind getShadedKind() const override { return ShadedKind::Surface; }
};

std::vector<Pos> const& points() {
    static std::vector<Pos> const p = [] {
        std::vector<Pos> v;
        std::mt19937 rng(99);
        std::uniform_real_distribution<float> d(-10.f, 10.f);
        for (int i = 0; i < POINT_COUNT; ++i) v.emplace_back(d(rng), d(rng), d(rng));
        return v;
    }();
    return p;
}

SharedPtr<IMapEvaluator> fractalEvaluator(FractalMap::Type type) {
    FractalMap map;
    map.set("type", type);
    map.set("octaves", 6.f);
    map.set("size", FRACTAL_SIZE);
    return map.getEvaluatorImpl().evaluator;
}

void runMono(benchmark::State& state, IMapEvaluator const& e) {
    BenchShadeContext ctx;
    for (auto _ : state)
        for (Pos const& p : points()) {
            ctx.uvw = p;
            benchmark::DoNotOptimize(e.evalMono(ctx, nullptr));
        }
    state.SetItemsProcessed(state.iterations() * POINT_COUNT);
}

template <typename F> void runPeer(benchmark::State& state, F const& f) {
    std::vector<Pos> scaled;
    for (Pos const& p : points()) scaled.push_back(p / FRACTAL_SIZE);
    for (auto _ : state)
        for (Pos const& p : scaled) benchmark::DoNotOptimize(f(p));
    state.SetItemsProcessed(state.iterations() * POINT_COUNT);
}

// ---- the projected texture: a PNG on disk through the texture map. 256 x 256
// RGBA8 (256 KiB) stays in the second-level cache, so the figure is the
// triplanar's own work; with a texture four times as large every lookup of
// these scattered points misses the cache, and the plain loop, with less work
// between its lookups, overlaps more of the misses.

SharedPtr<TextureMap> const& textureMap() {
    static SharedPtr<TextureMap> const m = [] {
        int const size = 256;
        Image image(Image::Descriptor(Pixel(size, size), PixelFormat::Rgba8));
        for (int y = 0; y < size; ++y)
            for (int x = 0; x < size; ++x)
                image.setRgbAlpha(x, y, RgbAlpha(float(x) / size, float(y) / size, float((x ^ y) & 255) / 255.f, 1.f));
        std::filesystem::path const folder = Io::StandardPaths::temporary() / "ferrim_bench_triplanar";
        std::filesystem::create_directories(folder);
        std::filesystem::path const png = folder / "texture.png";
        if (auto r = writeImage(image, png); !r) std::fprintf(stderr, "bench: %s\n", r.error().c_str());
        auto map = makeSharedPtr<TextureMap>();
        map->set("imageSource", EntityHolder<Entity>(FileDataSource::make(png)));
        return map;
    }();
    return m;
}

/// The texture as a map input: the triplanar's three inputs and the peer's lookups share it.
ColorOrMap::Evaluator const& textureInput() {
    static ColorOrMap::Evaluator const e(ColorOrMap{Rgb(0, 0, 0), EntityHolder<IMap>(textureMap()), true});
    return e;
}

IMapEvaluator const& textureEvaluator() { return *textureInput().getMapEvaluator(); }

/// A corner normal: every projection has weight.
Dir const CORNER = normalize(Dir(1.f, 0.8f, 0.9f));

void MapsTriplanarColor(benchmark::State& state) {
    static SharedPtr<TriplanarEvaluator> const e = [] {
        TriplanarEvaluator::Parameters p;
        p.blend = 1.f;
        ColorOrMap::Evaluator const& texture = textureInput();
        return makeSharedPtr<TriplanarEvaluator>(StaticArray<ColorOrMap::Evaluator, 3>{texture, texture, texture}, p);
    }();
    BenchShadeContext ctx;
    ctx.normal = CORNER;
    float sum = 0.f;
    // A pass outside the timing: the texture is read on first use.
    for (Pos const& p : points()) ctx.uvw = p, sum += e->evalColor(ctx, nullptr).g;
    for (auto _ : state)
        for (Pos const& p : points()) {
            ctx.uvw = p;
            sum += e->evalColor(ctx, nullptr).g;
        }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * POINT_COUNT);
}

/// The peer: the three lookups a triplanar does, with the UVs computed by hand.
void MapsThreeTextureLookups(benchmark::State& state) {
    IMapEvaluator const& e = textureEvaluator();
    BenchShadeContext ctx;
    ctx.normal = CORNER;
    float sum = 0.f;
    for (Pos const& p : points()) ctx.uvw = p, sum += e.evalColor(ctx, nullptr).g;
    for (auto _ : state)
        for (Pos const& p : points()) {
            ctx.uvw = Pos(p.y, p.z, 0.f);
            sum += e.evalColor(ctx, nullptr).g;
            ctx.uvw = Pos(-p.x, p.z, 0.f);
            sum += e.evalColor(ctx, nullptr).g;
            ctx.uvw = Pos(p.x, p.y, 0.f);
            sum += e.evalColor(ctx, nullptr).g;
        }
    benchmark::DoNotOptimize(sum);
    state.SetItemsProcessed(state.iterations() * POINT_COUNT);
}

bool const sRegistered = [] {
    benchmark::RegisterBenchmark("Maps/FractalFbm6Mono", [](benchmark::State& s) {
        static auto const e = fractalEvaluator(FractalMap::Type::FBM);
        runMono(s, *e);
    });
    benchmark::RegisterBenchmark("Maps/FractalRidged6Mono", [](benchmark::State& s) {
        static auto const e = fractalEvaluator(FractalMap::Type::RIDGED);
        runMono(s, *e);
    });
    benchmark::RegisterBenchmark("Maps/FractalTurbulence6Mono", [](benchmark::State& s) {
        static auto const e = fractalEvaluator(FractalMap::Type::TURBULENCE);
        runMono(s, *e);
    });
    benchmark::RegisterBenchmark("Maps/FractalWorley3Mono", [](benchmark::State& s) {
        FractalMap map;
        map.set("type", FractalMap::Type::WORLEY);
        map.set("octaves", 3.f);
        runMono(s, *map.getEvaluatorImpl().evaluator);
    });
    benchmark::RegisterBenchmark("Maps/TriplanarColor", MapsTriplanarColor);
    benchmark::RegisterBenchmark("Maps/PeerThreeTextureLookups", MapsThreeTextureLookups);
#if FERRIM_HAVE_STB
    benchmark::RegisterBenchmark("Maps/PeerStbFbm6", [](benchmark::State& s) {
        runPeer(s, [](Pos const& p) { return stb_perlin_fbm_noise3(p.x, p.y, p.z, 2.f, 0.5f, 6); });
    });
    benchmark::RegisterBenchmark("Maps/PeerStbRidge6", [](benchmark::State& s) {
        runPeer(s, [](Pos const& p) { return stb_perlin_ridge_noise3(p.x, p.y, p.z, 2.f, 0.5f, 1.f, 6); });
    });
#endif
    return true;
}();

} // namespace

FERRIM_BENCH_RATIO("fractal6_vs_stb_fbm6", "<= 1.0", FerrimBench::timeRatio("Maps/FractalFbm6Mono", "Maps/PeerStbFbm6"));
FERRIM_BENCH_RATIO("ridged6_vs_stb_ridge6", "<= 1.0",
                   FerrimBench::timeRatio("Maps/FractalRidged6Mono", "Maps/PeerStbRidge6"));
FERRIM_BENCH_RATIO("triplanar_vs_three_lookups", "<= 1.2",
                   FerrimBench::timeRatio("Maps/TriplanarColor", "Maps/PeerThreeTextureLookups"));
