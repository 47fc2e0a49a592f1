#include "Ferrim/maps/NoiseMap.h"

#include <algorithm>
#include <random>

#include "Ferrim/maps/CellularMap.h"
#include "Ferrim/maps/CheckerMap.h"
#include "Ferrim/maps/GradientMap.h"
#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

// A plain scalar transcription of improved noise with the z-first hashing and
// the 12-gradient lookup, to check the four-lane version lane by lane.
float referenceNoise(float x, float y, float z) {
    auto const& P = NoiseMap::permutationTable();
    static float const G[12][3] = {{1, 1, 0}, {-1, 1, 0}, {1, -1, 0}, {-1, -1, 0}, {1, 0, 1},  {-1, 0, 1},
                                   {1, 0, -1}, {-1, 0, -1}, {0, 1, 1}, {0, -1, 1}, {0, 1, -1}, {0, -1, -1}};
    auto cellOf = [](float c) { return int(c) - (c <= 0.f ? 1 : 0); };
    int const cx = cellOf(x), cy = cellOf(y), cz = cellOf(z);
    float const fx = x - float(cx), fy = y - float(cy), fz = z - float(cz);
    unsigned const X = unsigned(cx) & 255u, Y = unsigned(cy) & 255u, Z = unsigned(cz) & 255u;
    unsigned const A = P[Z] + Y, B = P[Z + 1] + Y;
    unsigned const AA = P[A] + X, AB = P[A + 1] + X, BA = P[B] + X, BB = P[B + 1] + X;
    auto g = [&](unsigned h, float dx, float dy, float dz) {
        float const* v = G[h % 12];
        return v[0] * dx + v[1] * dy + v[2] * dz;
    };
    auto fade = [](float t) { return std::clamp(((6 * t - 15) * t + 10) * t * t * t, 0.f, 1.f); };
    float const u = fade(fx), v = fade(fy), w = fade(fz);
    float const g000 = g(P[AA], fx, fy, fz), g100 = g(P[AA + 1], fx - 1, fy, fz);
    float const g010 = g(P[AB], fx, fy - 1, fz), g110 = g(P[AB + 1], fx - 1, fy - 1, fz);
    float const g001 = g(P[BA], fx, fy, fz - 1), g101 = g(P[BA + 1], fx - 1, fy, fz - 1);
    float const g011 = g(P[BB], fx, fy - 1, fz - 1), g111 = g(P[BB + 1], fx - 1, fy - 1, fz - 1);
    return ((g000 * (1 - u) + g100 * u) * (1 - v) + (g010 * (1 - u) + g110 * u) * v) * (1 - w) +
           ((g001 * (1 - u) + g101 * u) * (1 - v) + (g011 * (1 - u) + g111 * u) * v) * w;
}

NoiseMapEvaluator makeEvaluator(float size, float levels, float minT = 0.f, float maxT = 1.f) {
    return NoiseMapEvaluator(identityMapper(), constantInput(Rgb(0, 0, 0)), constantInput(Rgb(1, 1, 1)), size, levels,
                             minT, maxT);
}

TEST(NoiseFunction, PermutationStartsWithTheReferenceTableAndRepeats) {
    auto const& P = NoiseMap::permutationTable();
    EXPECT_EQ(P[0], 151u);
    EXPECT_EQ(P[1], 160u);
    EXPECT_EQ(P[9], 95u);
    EXPECT_EQ(P[255], 180u);
    for (int i = 0; i < 256; ++i) EXPECT_EQ(P[std::size_t(i)], P[std::size_t(i + 256)]);
}

TEST(NoiseFunction, MatchesScalarTranscriptionIncludingNegativeCells) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> d(-300.f, 300.f);
    for (int i = 0; i < 2000; ++i) {
        float const x = d(rng), y = d(rng), z = d(rng);
        ASSERT_NEAR(NoiseMap::noise(Pos(x, y, z)), referenceNoise(x, y, z), 2e-6f) << x << " " << y << " " << z;
    }
}

TEST(NoiseFunction, ZeroAtLatticePointsIncludingZeroAndNegatives) {
    for (float x : {-256.f, -2.f, -1.f, 0.f, 1.f, 7.f, 255.f})
        for (float y : {-3.f, 0.f, 4.f})
            for (float z : {-1.f, 0.f, 12.f}) EXPECT_EQ(NoiseMap::noise(Pos(x, y, z)), 0.f) << x << " " << y << " " << z;
    // A regular map is 0.5 there.
    EXPECT_EQ(makeEvaluator(0.5f, 1.f).noiseValue(Pos(1.5f, -0.5f, 0.f)), 0.5f);
}

TEST(NoiseFunction, ContinuousAcrossZeroAndNegativeIntegers) {
    float const eps = 1e-3f;
    for (float c : {0.f, -1.f, -2.f, -37.f}) {
        for (Pos base : {Pos(0.3f, 0.6f, 0.2f), Pos(-0.7f, 1.45f, -2.3f)}) {
            for (int axis = 0; axis < 3; ++axis) {
                Pos lo = base, hi = base, at = base;
                lo[axis] = c - eps, hi[axis] = c + eps, at[axis] = c;
                float const nAt = NoiseMap::noise(at);
                // The gradient of this noise stays below about 3 per unit.
                EXPECT_NEAR(NoiseMap::noise(lo), nAt, 6 * eps) << "axis " << axis << " at " << c;
                EXPECT_NEAR(NoiseMap::noise(hi), nAt, 6 * eps) << "axis " << axis << " at " << c;
            }
        }
    }
}

TEST(NoiseFunction, RepeatsEvery256Units) {
    for (Pos p : {Pos(0.375f, 1.625f, 2.125f), Pos(-3.25f, 10.5f, -0.75f)}) {
        float const n = NoiseMap::noise(p);
        EXPECT_NE(n, 0.f);
        for (int axis = 0; axis < 3; ++axis) {
            Pos q = p;
            q[axis] += 256.f;
            EXPECT_EQ(NoiseMap::noise(q), n);
            q[axis] -= 512.f;
            EXPECT_EQ(NoiseMap::noise(q), n);
        }
        // Not a shorter period.
        EXPECT_NE(NoiseMap::noise(Pos(p.x + 128.f, p.y, p.z)), n);
    }
}

TEST(NoiseEvaluator, FractionalLevelsAddOnePartialOctaveOnTop) {
    float const size = 0.5f;
    Pos const uvw(0.31f, -0.77f, 0.4f);
    Pos const p(uvw.x / size, uvw.y / size, uvw.z / size);
    auto n = [&](float k) { return NoiseMap::noise(Pos(p.x * k, p.y * k, p.z * k)); };
    // Octaves at scales 1, 2, 4 with amplitudes 1, 0.5, 0.25, then scale 8 with 0.5 x 0.125.
    float s = 0.f;
    s += 1.f * n(1);
    s += 0.5f * n(2);
    s += 0.25f * n(4);
    s += n(8) * (0.5f * 0.125f);
    EXPECT_FLOAT_EQ(makeEvaluator(size, 2.5f).noiseValue(uvw), (s + 1.f) * 0.5f);
    // Whole levels add nothing partial.
    float const three = ((1.f * n(1) + 0.5f * n(2)) + 0.25f * n(4) + 1.f) * 0.5f;
    EXPECT_FLOAT_EQ(makeEvaluator(size, 3.f).noiseValue(uvw), three);
}

TEST(NoiseEvaluator, ThresholdRampEqualAndReversed) {
    auto equal = makeEvaluator(1.f, 1.f, 0.4f, 0.4f);
    EXPECT_EQ(equal.blendWeight(0.4f + 1e-5f), 1.f);
    EXPECT_EQ(equal.blendWeight(0.4f - 1e-5f), 0.f);
    EXPECT_NEAR(equal.blendWeight(0.4f + 5e-7f), 0.5f, 0.05f);

    // Reversed: still rises from minThreshold, over |max - min|.
    auto reversed = makeEvaluator(1.f, 1.f, 0.8f, 0.2f);
    EXPECT_EQ(reversed.blendWeight(0.5f), 0.f);
    EXPECT_FLOAT_EQ(reversed.blendWeight(0.9f), (0.9f - 0.8f) / 0.6f);
    EXPECT_FLOAT_EQ(reversed.blendWeight(1.f), (1.f - 0.8f) / 0.6f);

    auto ramp = makeEvaluator(1.f, 1.f, 0.25f, 0.75f);
    EXPECT_FLOAT_EQ(ramp.blendWeight(0.5f), 0.5f);
    EXPECT_EQ(ramp.blendWeight(0.8f), 1.f);
}

class NoiseMapTest : public LibraryFixture {};

TEST_F(NoiseMapTest, RegularIgnoresLevelsAndColoursFollowTheRamp) {
    auto map = makeSharedPtr<NoiseMap>();
    map->set("size", 0.25f);
    map->set("levels", 5.f);
    map->set("color1", ColorOrMap{Rgb(1, 0, 0), {}, true}.toData());
    map->set("color2", ColorOrMap{Rgb(0, 0, 1), {}, true}.toData());
    auto regular = map->getEvaluatorImpl();
    map->set("type", NoiseMap::Type::FRACTAL);
    auto fractal = map->getEvaluatorImpl();
    auto const one = makeEvaluator(0.25f, 1.f);
    auto const five = makeEvaluator(0.25f, 5.f);

    FixedShadeContext ctx(0.37f, 0.81f, 0.11f);
    EXPECT_EQ(regular.hasConstant, 0);
    float const v = one.noiseValue(ctx.uvw);
    EXPECT_NE(v, five.noiseValue(ctx.uvw));
    RgbAlpha const c = regular.evaluator->evalColor(ctx, nullptr);
    EXPECT_FLOAT_EQ(c.r, 1.f - v);
    EXPECT_FLOAT_EQ(c.b, v);
    EXPECT_FLOAT_EQ(c.alpha, 1.f);
    EXPECT_FLOAT_EQ(regular.evaluator->evalMono(ctx, nullptr).value, (1.f - v) * (1.f / 3.f) + v * (1.f / 3.f));
    EXPECT_FLOAT_EQ(fractal.evaluator->evalColor(ctx, nullptr).b, std::clamp(five.noiseValue(ctx.uvw), 0.f, 1.f));
}

TEST_F(NoiseMapTest, RecordDefaultsValidatorsAndEnabledIf) {
    NoiseMap map;
    EXPECT_EQ(map.getClassName(), "Zatho.NoiseMap");
    EXPECT_EQ(map.get<NoiseMap::Type>("type"), NoiseMap::Type::REGULAR);
    EXPECT_FLOAT_EQ(map.get<float>("size"), 0.1f);
    EXPECT_FLOAT_EQ(map.get<float>("levels"), 6.f);
    EXPECT_FALSE(map.setValue("size", 0.0005f).has_value());
    ASSERT_TRUE(map.setValue("levels", 25.f).has_value());
    EXPECT_FLOAT_EQ(map.get<float>("levels"), 20.f);
    ASSERT_TRUE(map.setValue("maxThreshold", 1.5f).has_value());
    EXPECT_FLOAT_EQ(map.get<float>("maxThreshold"), 1.f);

    auto const* levels = NoiseMap::Data::definition()->find("levels");
    ASSERT_NE(levels, nullptr);
    auto const* enabled = levels->findMetadata(Metadata::UI_ENABLED_IF);
    ASSERT_NE(enabled, nullptr);
    auto const& predicate = std::get<MetadataPredicate>(*enabled);
    EXPECT_FALSE(predicate.evaluate(map.getData()));
    map.set("type", NoiseMap::Type::FRACTAL);
    EXPECT_TRUE(predicate.evaluate(map.getData()));
    EXPECT_EQ(NoiseMap::Data::typeType()->findEnumLabel(1), StringView("FRACTAL"));
}

TEST_F(NoiseMapTest, JsonRoundTripWithNestedMap) {
    NoiseMap map;
    map.set("type", NoiseMap::Type::FRACTAL);
    map.set("levels", 3.5f);
    map.set("minThreshold", 0.2f);
    setInputMap(map, "color2", makeSharedPtr<CheckerMap>());
    expectJsonRoundTrip(map);
    auto const j = entityToJson(map);
    EXPECT_EQ(j["type"], "FRACTAL");
    EXPECT_EQ(j["color2"]["map"]["@class"], "Zatho.CheckerMap");
    // Unknown enumeration labels are refused with the property named.
    auto bad = j;
    bad["type"] = "TURBULENT";
    auto loaded = entityFromJson(bad);
    ASSERT_FALSE(loaded.has_value());
    EXPECT_NE(loaded.error().find("type"), String::npos);
}

/// Every property of the four procedural records carries a UI name and description.
class ProceduralRecordTest : public ::testing::TestWithParam<SharedPtr<DataObjectDefinition const> (*)()> {};

TEST_P(ProceduralRecordTest, EveryPropertyHasUiNameAndDescription) {
    auto const definition = GetParam()();
    ASSERT_FALSE(definition->getProperties().empty());
    for (auto const& p : definition->getProperties()) {
        EXPECT_NE(p->findMetadata(Metadata::UI_NAME), nullptr) << definition->getName() << "." << p->getName();
        EXPECT_NE(p->findMetadata(Metadata::UI_DESCRIPTION), nullptr) << definition->getName() << "." << p->getName();
    }
}

INSTANTIATE_TEST_SUITE_P(Maps, ProceduralRecordTest,
                         ::testing::Values([] { return NoiseMap::Data::definition(); },
                                           [] { return CellularMap::Data::definition(); },
                                           [] { return CheckerMap::Data::definition(); },
                                           [] { return GradientMap::Data::definition(); },
                                           [] { return GradientMap::GradientStop::definition(); }));

} // namespace
} // namespace Quelin
