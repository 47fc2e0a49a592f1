// Per-sample cost of the compositing maps beside what they are built from:
// a mix beside evaluating its two inputs alone, and the exact Fresnel map
// beside the same map computing Schlick's approximation instead.
#include <benchmark/benchmark.h>

#include <random>

#include "BenchRatios.h"
#include "Ferrim/maps/FalloffMap.h"
#include "Ferrim/maps/MixMap.h"
#include "Ferrim/maps/NoiseMap.h"

namespace {

using namespace Quelin;

/// A surface point with its own UVW and shading normal, seen along -z.
class BenchShadeContext : public NullShadeContext {
public:
    BenchShadeContext(Pos const& uvw, Dir const& normal) : mUvw(uvw), mNormal(normal) {}
    Pos getUvw(int, std::uint32_t = 0) const override { return mUvw; }
    Dir getDUvw(int) const override { return Dir(1e-3f, 1e-3f, 0.f); }
    Dir getNormal() const override { return mNormal; }
    Dir getViewDirection() const override { return Dir(0, 0, -1); }
    bool isBackFace() const override { return false; }
    Matrix33 getBumpBase(int) const override { return Matrix33(); }

private:
    Pos mUvw;
    Dir mNormal;
};

constexpr int POINT_COUNT = 4096;

std::vector<BenchShadeContext> const& points() {
    static std::vector<BenchShadeContext> const p = [] {
        std::vector<BenchShadeContext> v;
        std::mt19937 rng(99);
        std::uniform_real_distribution<float> d(-10.f, 10.f), n(-1.f, 1.f);
        v.reserve(POINT_COUNT);
        for (int i = 0; i < POINT_COUNT; ++i)
            v.emplace_back(Pos(d(rng), d(rng), d(rng)), normalize(Dir(n(rng), n(rng), std::fabs(n(rng)) + 0.05f)));
        return v;
    }();
    return p;
}

SharedPtr<NoiseMap> makeNoise(float size, Rgb const& c1, Rgb const& c2) {
    auto m = makeSharedPtr<NoiseMap>();
    m->set("size", size);
    GenericDataObject a = m->get<GenericDataObject>("color1");
    a.set("color", c1);
    m->set("color1", a);
    GenericDataObject b = m->get<GenericDataObject>("color2");
    b.set("color", c2);
    m->set("color2", b);
    return m;
}

SharedPtr<NoiseMap> const& noiseA() {
    static auto const m = makeNoise(0.1f, Rgb(0.1f, 0.2f, 0.3f), Rgb(0.9f, 0.8f, 0.7f));
    return m;
}
SharedPtr<NoiseMap> const& noiseB() {
    static auto const m = makeNoise(0.37f, Rgb(0.5f, 0.1f, 0.1f), Rgb(0.1f, 0.5f, 0.9f));
    return m;
}

void MapsMixOfTwoNoises(benchmark::State& state) {
    MixMap mix;
    for (auto [name, map] : {std::pair{"color1", noiseA()}, std::pair{"color2", noiseB()}}) {
        GenericDataObject v = mix.get<GenericDataObject>(name);
        v.set("map", EntityHolder<Entity>(map));
        mix.set(name, v);
    }
    mix.set("amount", 0.35f);
    auto const e = mix.getEvaluator().evaluator;
    for (auto _ : state)
        for (auto const& p : points()) benchmark::DoNotOptimize(e->evalColor(p, nullptr));
    state.SetItemsProcessed(state.iterations() * POINT_COUNT);
}

void MapsTwoNoises(benchmark::State& state) {
    auto const a = noiseA()->getEvaluator().evaluator, b = noiseB()->getEvaluator().evaluator;
    for (auto _ : state)
        for (auto const& p : points()) {
            benchmark::DoNotOptimize(a->evalColor(p, nullptr));
            benchmark::DoNotOptimize(b->evalColor(p, nullptr));
        }
    state.SetItemsProcessed(state.iterations() * POINT_COUNT);
}

/// The Fresnel map's evaluator with Schlick's approximation in place of the
/// exact formula: the same reads of the point, the same result layout.
class SchlickEvaluator final : public IMapEvaluator {
public:
    explicit SchlickEvaluator(float ior) {
        float const r = (ior - 1.f) / (ior + 1.f);
        mR0 = r * r;
        float const ri = (1.f / ior - 1.f) / (1.f / ior + 1.f);
        mR0Inside = ri * ri;
    }
    RgbAlpha evalColor(IShadeContext const& c, MapCache* cache) const override {
        float const f = evalMono(c, cache).value;
        return {f, f, f, 1.f};
    }
    // Kept out of line and out of interprocedural analysis, as the library's
    // evaluator is: the compiler must not inline the bench's own context here.
    [[gnu::noipa]] MonoAlpha evalMono(IShadeContext const& c, MapCache*) const override {
        float const cosine = std::fabs(dot(c.getNormal(), c.getViewDirection()));
        float const r0 = c.isBackFace() ? mR0Inside : mR0;
        float const m = 1.f - std::min(cosine, 1.f);
        float const m2 = m * m;
        return {r0 + (1.f - r0) * m2 * m2 * m, 1.f};
    }
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }

private:
    float mR0, mR0Inside;
};

template <typename E> void runMono(benchmark::State& state, E const& e) {
    for (auto _ : state)
        for (auto const& p : points()) benchmark::DoNotOptimize(e.evalMono(p, nullptr));
    state.SetItemsProcessed(state.iterations() * POINT_COUNT);
}

void MapsFresnel(benchmark::State& state) {
    FresnelMap map;
    map.set("ior", 1.5f);
    runMono(state, *map.getEvaluator().evaluator);
}

void MapsSchlick(benchmark::State& state) {
    SharedPtr<IMapEvaluator> const e = makeSharedPtr<SchlickEvaluator>(1.5f);
    runMono(state, *e);
}

// Repeated, so the fastest run of each (BenchRatios) is the figure.
BENCHMARK(MapsTwoNoises)->Name("Maps/TwoNoises")->Repetitions(5);
BENCHMARK(MapsMixOfTwoNoises)->Name("Maps/MixOfTwoNoises")->Repetitions(5);
BENCHMARK(MapsSchlick)->Name("Maps/Schlick")->Repetitions(5);
BENCHMARK(MapsFresnel)->Name("Maps/Fresnel")->Repetitions(5);

FERRIM_BENCH_RATIO("mix_of_two_noises_vs_two_noises", "<= 1.1",
                   FerrimBench::timeRatio("Maps/MixOfTwoNoises", "Maps/TwoNoises"));
FERRIM_BENCH_RATIO("fresnel_vs_schlick", "<= 1.5", FerrimBench::timeRatio("Maps/Fresnel", "Maps/Schlick"));

} // namespace
