#include "Ferrim/maps/NoiseMap.h"

#include <algorithm>
#include <array>

#include "Ferrim/maps/CheckerMap.h"
#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

NoiseMapEvaluator makeEvaluator(float size, float levels, float minT = 0.f, float maxT = 1.f) {
    return NoiseMapEvaluator(identityMapper(), constantInput(Rgb(0, 0, 0)), constantInput(Rgb(1, 1, 1)), size, levels,
                             minT, maxT);
}

TEST(NoiseFunction, PermutationStartsWithTheReferenceTableAndRepeats) {
    auto const& P = NoiseMap::permutationTable();
    EXPECT_EQ((std::array<unsigned, 4>{P[0], P[1], P[9], P[255]}), (std::array<unsigned, 4>{151, 160, 95, 180}));
    for (int i = 0; i < 256; ++i) EXPECT_EQ(P[std::size_t(i)], P[std::size_t(i + 256)]);
}

TEST(NoiseFunction, ReferenceValuesIncludingNegativeCells) {
    // Improved noise with z-first hashing and the 12-gradient lookup.
    struct Case {
        Pos p;
        float n;
    };
    for (Case const c : {Case{Pos(0.375f, 1.625f, 2.125f), -0.394092292f}, Case{Pos(-3.25f, 10.5f, -0.75f), -0.133466244f},
                         Case{Pos(-123.4f, 57.3f, 200.9f), -0.133220464f}, Case{Pos(17.77f, -0.31f, -250.5f), 0.282722056f}})
        EXPECT_NEAR(NoiseMap::noise(c.p), c.n, 2e-6f) << c.p.x << " " << c.p.y << " " << c.p.z;
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
    Pos const uvw(0.31f, -0.77f, 0.4f);  // at size 0.5, the noise point is 2 uvw
    auto n = [&](float k) { return NoiseMap::noise(Pos(2 * uvw.x * k, 2 * uvw.y * k, 2 * uvw.z * k)); };
    // Octaves at scales 1, 2, 4 with amplitudes 1, 0.5, 0.25, then scale 8 with 0.5 x 0.125.
    float const whole = (1.f * n(1) + 0.5f * n(2)) + 0.25f * n(4);
    EXPECT_FLOAT_EQ(makeEvaluator(0.5f, 2.5f).noiseValue(uvw), (whole + n(8) * (0.5f * 0.125f) + 1.f) * 0.5f);
    EXPECT_FLOAT_EQ(makeEvaluator(0.5f, 3.f).noiseValue(uvw), (whole + 1.f) * 0.5f);
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
    FixedShadeContext ctx(0.37f, 0.81f, 0.11f);
    float const v = makeEvaluator(0.25f, 1.f).noiseValue(ctx.uvw), five = makeEvaluator(0.25f, 5.f).noiseValue(ctx.uvw);
    EXPECT_NE(v, five);
    RgbAlpha const c = regular.evaluator->evalColor(ctx, nullptr);
    EXPECT_FLOAT_EQ(c.r, 1.f - v);
    EXPECT_FLOAT_EQ(c.b, v);
    EXPECT_FLOAT_EQ(c.alpha, 1.f);
    EXPECT_FLOAT_EQ(regular.evaluator->evalMono(ctx, nullptr).value, (1.f - v) * (1.f / 3.f) + v * (1.f / 3.f));
    EXPECT_FLOAT_EQ(fractal.evaluator->evalColor(ctx, nullptr).b, std::clamp(five, 0.f, 1.f));
}

TEST_F(NoiseMapTest, ValidatorsAndLevelsEnabledOnlyForFractal) {
    NoiseMap map;
    EXPECT_FALSE(map.setValue("size", 0.0005f).has_value());
    ASSERT_TRUE(map.setValue("levels", 25.f).has_value());
    EXPECT_FLOAT_EQ(map.get<float>("levels"), 20.f);
    ASSERT_TRUE(map.setValue("maxThreshold", 1.5f).has_value());
    EXPECT_FLOAT_EQ(map.get<float>("maxThreshold"), 1.f);
    auto const& predicate = std::get<MetadataPredicate>(
        *NoiseMap::Data::definition()->find("levels")->findMetadata(Metadata::UI_ENABLED_IF));
    EXPECT_FALSE(predicate.evaluate(map.getData()));
    map.set("type", NoiseMap::Type::FRACTAL);
    EXPECT_TRUE(predicate.evaluate(map.getData()));
}

TEST_F(NoiseMapTest, JsonRoundTripWithNestedMap) {
    NoiseMap map;
    map.set("type", NoiseMap::Type::FRACTAL);
    map.set("levels", 3.5f);
    map.set("minThreshold", 0.2f);
    setInputMap(map, "color2", makeSharedPtr<CheckerMap>());
    expectJsonRoundTrip(map);
    // Unknown enumeration labels are refused with the property named.
    auto bad = entityToJson(map);
    bad["type"] = "TURBULENT";
    auto loaded = entityFromJson(bad);
    ASSERT_FALSE(loaded.has_value());
    EXPECT_NE(loaded.error().find("type"), String::npos);
}

} // namespace
} // namespace Quelin
