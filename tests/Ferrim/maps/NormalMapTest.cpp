#include "Ferrim/maps/NormalMap.h"

#include "Ferrim/maps/CheckerMap.h"
#include "Ferrim/maps/MappingRandomizerMap.h"
#include "Ferrim/maps/NoiseMap.h"
#include "MapsTestSupport.h"

#include <map>
#include <random>

namespace Quelin {
namespace {

using namespace MapsTest;

class NormalMapTest : public LibraryFixture {};

/// A surface point with a tilted normal and a frame that is not unit length:
/// dP/du twice and dP/dv three times as long as their directions.
SettableShadeContext tiltedPoint() {
    SettableShadeContext p;
    p.normal = normalize(Dir(0.f, -0.5f, 0.8660254f));
    Dir const t(1.f, 0.f, 0.f);
    Dir const b = cross(p.normal, t);
    p.bumpBase = Matrix33::fromColumns(t * 2.f, b * 3.f, p.normal);
    return p;
}

TEST_F(NormalMapTest, FlatLeavesTheNormalAndAKnownTiltLandsInTheBumpFrame) {
    NormalMap map;
    SettableShadeContext const p = tiltedPoint();
    Testing::expectNear(map.getEvaluator().evaluator->evalBump(p, nullptr), Dir(), 1e-6f);
    auto const bent = [&] { return normalize(p.normal + map.getEvaluator().evaluator->evalBump(p, nullptr)); };
    // 45 degrees towards +u: n = (sin 45, 0, cos 45).
    float const s = 0.70710678f;
    Dir const t = normalize(p.bumpBase.column(0)), b = normalize(p.bumpBase.column(1));
    setInputColor(map, "normalMap", Rgb(0.5f + 0.5f * s, 0.5f, 0.5f + 0.5f * s));
    Testing::expectNear(bent(), normalize(t * s + p.normal * s), 1e-5f);
    // Green tilts along +v, flipped green along -v.
    setInputColor(map, "normalMap", Rgb(0.5f, 0.5f + 0.5f * s, 0.5f + 0.5f * s));
    Testing::expectNear(bent(), normalize(b * s + p.normal * s), 1e-5f);
    map.set("flipGreen", true);
    Testing::expectNear(bent(), normalize(-b * s + p.normal * s), 1e-5f);
    // Half strength: halfway between the surface normal and the mapped one, renormalised.
    map.set("flipGreen", false);
    map.set("strength", 0.5f);
    Testing::expectNear(bent(), normalize(p.normal + (normalize(b * s + p.normal * s) - p.normal) * 0.5f), 1e-5f);
}

TEST_F(NormalMapTest, WorldSpaceAndTheAdditionalBump) {
    NormalMap map;
    map.set("space", NormalMap::Space::World);
    setInputColor(map, "normalMap", Rgb(1.f, 0.5f, 0.5f));  // world +x
    SettableShadeContext const p = tiltedPoint();
    Testing::expectNear(normalize(p.normal + map.getEvaluator().evaluator->evalBump(p, nullptr)), Dir(1, 0, 0), 1e-5f);
    map.set("space", NormalMap::Space::Tangent);
    setInputColor(map, "normalMap", Rgb(0.5f, 0.5f, 1.f));
    map.set("bumpMap", EntityHolder<Entity>(makeSharedPtr<CountingMap>(RgbAlpha(1, 1, 1, 1))));
    map.set("bumpStrength", 0.5f);
    Testing::expectNear(map.getEvaluator().evaluator->evalBump(p, nullptr), Dir(0.5f, 1.f, 1.5f), 1e-5f);
    map.set("bumpMap", EntityHolder<Entity>());
    setInputColor(map, "normalMap", Rgb(std::numeric_limits<float>::quiet_NaN()));
    Testing::expectNear(map.getEvaluator().evaluator->evalBump(p, nullptr), Dir(), 1e-6f);
}

// ------------------------------------------------------ mapping randomizer

class MappingRandomizerTest : public LibraryFixture {};

struct IdPoint : SettableShadeContext {
    int objectId = 0, faceIndex = 0;
    int getObjectId() const override { return objectId; }
    int getFaceIndex() const override { return faceIndex; }
};

TEST_F(MappingRandomizerTest, EachIdGetsItsOwnStableChangeWithinTheRanges) {
    MappingRandomizerEvaluator::Settings s;
    s.offsetU = 0.3f, s.offsetV = 0.1f, s.rotation = PI / 4, s.scaleMin = 0.5f, s.scaleMax = 2.f;
    MappingRandomizerEvaluator const e(nullptr, s);
    int distinct = 0;
    for (std::uint32_t id = 0; id < 200; ++id) {
        auto const c = e.changeFor(id, 0, 0);
        float const scale = std::sqrt(c.m00 * c.m11 - c.m01 * c.m10);
        EXPECT_GE(scale, 0.5f - 1e-5f);
        EXPECT_LE(scale, 2.f + 1e-5f);
        EXPECT_LE(std::fabs(std::atan2(c.m10, c.m00)), PI / 4 + 1e-5f);
        EXPECT_LE(std::fabs(c.offsetU), 0.3f);
        EXPECT_LE(std::fabs(c.offsetV), 0.1f);
        distinct += e.changeFor(id + 1, 0, 0).offsetU != c.offsetU;
    }
    EXPECT_GT(distinct, 190);
}

TEST_F(MappingRandomizerTest, PerTileChangesDifferBetweenTilesAndTheBumpFrameFollows) {
    MappingRandomizerEvaluator::Settings s;
    s.perTile = true, s.rotation = PI;
    s.randomBy = MappingRandomizerMap::RandomBy::None;
    struct FrameProbe : IMapEvaluator {
        RgbAlpha evalColor(IShadeContext const& c, MapCache*) const override { return RgbAlpha(Rgb(c.getUvw(1).x), 1); }
        MonoAlpha evalMono(IShadeContext const& c, MapCache*) const override { return {c.getUvw(1).x, 1}; }
        // Reports dP/du of the frame it sees, so the test can check that the change carried it along.
        Dir evalBump(IShadeContext const& c, MapCache*) const override { return c.getDpDu(1); }
    };
    MappingRandomizerEvaluator const e(makeSharedPtr<FrameProbe>(), s);
    auto const c0 = e.changeFor(0, 0, 0), c1 = e.changeFor(0, 1, 0);
    EXPECT_NE(c0.m00, c1.m00);
    // dP/du' = dP/du (M^-1)_00 + dP/dv (M^-1)_10, checked against the change of tile 0.
    struct Tangents : SettableShadeContext {
        Dir getDpDu(int) const override { return Dir(1, 0, 0); }
        Dir getDpDv(int) const override { return Dir(0, 1, 0); }
    } p;
    p.uvw = Pos(0.3f, 0.4f, 0.f);
    float const det = c0.m00 * c0.m11 - c0.m01 * c0.m10;
    Testing::expectNear(e.evalBump(p, nullptr), Dir(c0.m11 / det, -c0.m10 / det, 0.f), 1e-5f);
    // The point itself moves by the change about the tile's centre.
    float const want = 0.5f + c0.m00 * (0.3f - 0.5f) + c0.m01 * (0.4f - 0.5f) + c0.offsetU;
    EXPECT_NEAR(e.evalColor(p, nullptr).r, want, 1e-6f);
}

// Stochastic tiling: the weights of the triangle grid's vertices at a point.
std::map<std::pair<int, int>, float> tapWeights(float u, float v, float size, float blend) {
    auto const taps = MappingRandomizerEvaluator::stochasticTaps(u, v, size, blend);
    std::map<std::pair<int, int>, float> w;
    for (int i = 0; i < 3; ++i)
        if (taps.weight[i] > 0.f) w[{taps.vertexU[i], taps.vertexV[i]}] += taps.weight[i];
    return w;
}

TEST(MappingRandomizerStochastic, WeightsSumToOneAndChangeContinuouslyAcrossTriangleEdges) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> d(-20.f, 20.f), angle(0.f, 2.f * PI);
    for (float blend : {1.f, 0.5f, 0.05f})
        for (int i = 0; i < 3000; ++i) {
            float const u = d(rng), v = d(rng), a = angle(rng), step = 1e-4f;
            auto const here = tapWeights(u, v, 0.5f, blend);
            float sum = 0.f;
            for (auto const& [vertex, w] : here) {
                sum += w;
                EXPECT_GE(w, 0.f);
            }
            ASSERT_NEAR(sum, 1.f, 1e-5f) << u << " " << v;
            // A tiny step, across an edge or not, moves every vertex's weight a
            // little: a vertex that drops out or comes in does so at weight 0.
            auto there = tapWeights(u + step * std::cos(a), v + step * std::sin(a), 0.5f, blend);
            for (auto const& [vertex, w] : here) {
                EXPECT_NEAR(there[vertex], w, 0.01f) << u << " " << v << " blend " << blend;
                there.erase(vertex);
            }
            for (auto const& [vertex, w] : there) EXPECT_NEAR(w, 0.f, 0.01f) << u << " " << v << " blend " << blend;
        }
    // On a grid vertex only that vertex counts; at a triangle's centre a full
    // blend weighs all three alike. Edge 0.5: vertex (1, 1) sits at (0.75, sqrt(3) / 4).
    auto const atVertex = tapWeights(0.75f, 0.4330127f, 0.5f, 1.f);
    EXPECT_NEAR(atVertex.at({1, 1}), 1.f, 1e-4f);
    for (auto const& [vertex, w] : tapWeights(0.25f, 0.1443376f, 0.5f, 1.f)) EXPECT_NEAR(w, 1.f / 3.f, 1e-4f);
    // A narrow blend keeps a patch whole away from its edges.
    EXPECT_EQ(tapWeights(0.75f, 0.40f, 0.5f, 0.05f).size(), 1u);
    EXPECT_EQ(tapWeights(0.75f, 0.40f, 0.5f, 1.f).size(), 3u);
    // Non-finite coordinates read one tap.
    auto const nan = MappingRandomizerEvaluator::stochasticTaps(std::numeric_limits<float>::quiet_NaN(), 0.f, 0.5f, 0.5f);
    EXPECT_EQ(nan.weight[0], 1.f);
    EXPECT_EQ(nan.weight[1] + nan.weight[2], 0.f);
}

SharedPtr<MappingRandomizerMap> stochasticMap(SharedPtr<IMap> const& input, int seed) {
    auto map = makeSharedPtr<MappingRandomizerMap>();
    map->set("map", EntityHolder<Entity>(input));
    map->set("randomBy", MappingRandomizerMap::RandomBy::None);
    map->set("stochastic", true);
    map->set("seed", seed);
    return map;
}

float stddevOf(IMapEvaluator const& e, int points) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> d(0.f, 8.f);
    double sum = 0, squares = 0;
    for (int i = 0; i < points; ++i) {
        float const v = e.evalMono(SettableShadeContext(d(rng), d(rng)), nullptr).value;
        sum += v, squares += double(v) * v;
    }
    double const mean = sum / points;
    return float(std::sqrt(squares / points - mean * mean));
}

TEST_F(MappingRandomizerTest, StochasticTilingKeepsConstantsContrastAndRange) {
    auto const noise = makeSharedPtr<NoiseMap>();
    noise->set("size", 0.2f);
    auto const input = noise->getEvaluator().evaluator;
    auto const map = stochasticMap(noise, 1);
    auto const e = map->getEvaluator().evaluator;
    ASSERT_NE(dynamic_cast<MappingRandomizerEvaluator const*>(e.get()), nullptr);
    // That it changes the input at all (two seeds differ), and its smoothness
    // across patches, are the Python stochastic-tiling test's; the weights'
    // continuity is WeightsSumToOneAndChangeContinuously...'s.
    // Contrast: the variance-preserving blend keeps the input's spread, a plain
    // blend of three uncorrelated lookups loses some of it.
    float const spread = stddevOf(*input, 4000), kept = stddevOf(*e, 4000);
    EXPECT_NEAR(kept / spread, 1.f, 0.12f);
    map->set("preserveContrast", false);
    map->set("stochasticBlend", 1.f);
    EXPECT_LT(stddevOf(*map->getEvaluator().evaluator, 4000) / spread, 0.9f);

    // The stretch never shows values the input does not: a black and white
    // checker stays within [0, 1] (a plain stretch would go below 0).
    auto const checker = stochasticMap(makeSharedPtr<CheckerMap>(), 3)->getEvaluator().evaluator;
    float lowest = 1.f, highest = 0.f;
    for (int i = 0; i < 2000; ++i) {
        float const v = checker->evalColor(SettableShadeContext(0.0137f * i, 0.0071f * i), nullptr).g;
        lowest = std::min(lowest, v), highest = std::max(highest, v);
    }
    EXPECT_EQ(lowest, 0.f);
    EXPECT_EQ(highest, 1.f);

    // A map that does not vary stays what it is, with or without the contrast step.
    for (bool contrast : {true, false}) {
        auto const constant = stochasticMap(makeSharedPtr<CountingMap>(RgbAlpha(0.3f, 0.6f, 0.9f, 0.5f)), 4);
        constant->set("preserveContrast", contrast);
        auto const c = constant->getEvaluator().evaluator;
        for (int i = 0; i < 50; ++i) {
            RgbAlpha const v = c->evalColor(SettableShadeContext(0.31f * i, 0.17f * i), nullptr);
            Testing::expectNear(Dir(v.r, v.g, v.b), Dir(0.3f, 0.6f, 0.9f), 1e-6f);
            EXPECT_NEAR(v.alpha, 0.5f, 1e-6f);
        }
    }

    // A NaN size or blend counts as 1; huge coordinates still give a value.
    MappingRandomizerEvaluator::Settings s;
    s.stochastic = true, s.randomBy = MappingRandomizerMap::RandomBy::None;
    s.stochasticSize = s.stochasticBlend = std::numeric_limits<float>::quiet_NaN();
    MappingRandomizerEvaluator const odd(input, s);
    s.stochasticSize = s.stochasticBlend = 1.f;
    MappingRandomizerEvaluator const unit(input, s);
    for (float u : {0.3f, 1e12f, -3e9f}) {
        SettableShadeContext const p(u, 0.7f);
        EXPECT_TRUE(std::isfinite(odd.evalMono(p, nullptr).value)) << u;
        EXPECT_EQ(odd.evalColor(p, nullptr), unit.evalColor(p, nullptr)) << u;
    }
}

} // namespace
} // namespace Quelin
