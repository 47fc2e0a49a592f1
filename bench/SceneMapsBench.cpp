// Cost of the scene maps over the rays they cast: ambient occlusion with 16
// samples on the swatch renderer's Embree stage, beside the same 16 rays cast
// straight at the stage.
#include <benchmark/benchmark.h>

#include <random>

#include "BenchRatios.h"
#include "EmbreeStage.h"
#include "Ferrim/maps/SceneMaps.h"

namespace {

using namespace Quelin;
using FerrimTool::EmbreeStage;

constexpr int POINT_COUNT = 1024;
constexpr int RAYS = 16;

EmbreeStage const& stage() {
    static EmbreeStage const s = [] {
        auto made = EmbreeStage::make(FerrimTool::SwatchShape::Sphere, 1.f);
        if (!made) throw std::runtime_error(made.error());
        return std::move(*made);
    }();
    return s;
}

/// A point on the swatch sphere whose scene queries go to the stage.
class StageShadeContext final : public NullShadeContext {
public:
    StageShadeContext(Dir const& n, Vector2 random) : mNormal(n), mRandom(random) {}
    PrecisePos getPosition() const override { return {mNormal.x, mNormal.y, mNormal.z}; }
    Dir getNormal() const override { return mNormal; }
    Vector2 generateRandom2() const override { return mRandom; }
    int getObjectId() const override { return EmbreeStage::SWATCH; }
    Optional<float> traceOcclusion(PrecisePos const& o, Dir const& d, float maxDistance) const override {
        return stage().traceOcclusion(o, d, maxDistance);
    }
    Dir const& normal() const { return mNormal; }

private:
    Dir mNormal;
    Vector2 mRandom;
};

/// Seeded points over the half of the sphere facing the camera and the box.
std::vector<StageShadeContext> const& points() {
    static std::vector<StageShadeContext> const p = [] {
        std::vector<StageShadeContext> v;
        std::mt19937 rng(77);
        std::uniform_real_distribution<float> u(-1.f, 1.f), r(0.f, 1.f);
        while (int(v.size()) < POINT_COUNT) {
            Dir const d(u(rng), u(rng), u(rng));
            float const l = length(d);
            if (l < 0.1f || l > 1.f || d.z < 0.f) continue;
            v.emplace_back(d / l, Vector2(r(rng), r(rng)));
        }
        return v;
    }();
    return p;
}

void MapsAo16(benchmark::State& state) {
    AmbientOcclusionEvaluator::Settings s;
    s.samples = RAYS;
    s.radius = 1.f;
    AmbientOcclusionEvaluator const e(s, {}, {});
    auto const& pts = points();
    for (auto _ : state)
        for (auto const& c : pts) benchmark::DoNotOptimize(e.evalMono(c, nullptr));
    state.SetItemsProcessed(state.iterations() * std::int64_t(pts.size()));
}

// The peer: the same kind of rays (nearest distance within the radius), 16
// cosine-distributed directions per point worked out before timing.
void MapsEmbree16OcclusionRays(benchmark::State& state) {
    auto const& pts = points();
    std::vector<Dir> directions;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(0.f, 1.f);
    for (auto const& c : pts) {
        SceneMapsDetail::Frame const f(c.normal());
        for (int i = 0; i < RAYS; ++i) {
            float const a = u(rng), phi = TWO_PI * u(rng), r = std::sqrt(a);
            directions.push_back(f.t * (r * std::cos(phi)) + f.b * (r * std::sin(phi)) + f.n * std::sqrt(1.f - a));
        }
    }
    EmbreeStage const& st = stage();
    for (auto _ : state) {
        std::size_t k = 0;
        for (auto const& c : pts) {
            PrecisePos const o = c.getPosition();
            PrecisePos const origin(o.x + 1e-5 * c.normal().x, o.y + 1e-5 * c.normal().y, o.z + 1e-5 * c.normal().z);
            int hits = 0;
            for (int i = 0; i < RAYS; ++i) hits += st.traceOcclusion(origin, directions[k++], 1.f).has_value();
            benchmark::DoNotOptimize(hits);
        }
    }
    state.SetItemsProcessed(state.iterations() * std::int64_t(pts.size()));
}

BENCHMARK(MapsAo16)->Name("Maps/ao16")->Repetitions(3);
BENCHMARK(MapsEmbree16OcclusionRays)->Name("Maps/embree_16_occlusion_rays")->Repetitions(3);

FERRIM_BENCH_RATIO("ao16_vs_embree_16_occlusion_rays", "<= 1.2",
                   FerrimBench::timeRatio("Maps/ao16", "Maps/embree_16_occlusion_rays"));

} // namespace
