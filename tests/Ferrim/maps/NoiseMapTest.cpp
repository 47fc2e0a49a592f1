#include "Ferrim/maps/NoiseMap.h"

#include <algorithm>
#include <cmath>
#include <random>

#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

NoiseMapEvaluator makeEvaluator(float size, float levels, float minT = 0.f, float maxT = 1.f) {
    return NoiseMapEvaluator(identityMapper(), constantInput(Rgb(0, 0, 0)), constantInput(Rgb(1, 1, 1)), size, levels,
                             minT, maxT);
}

TEST(NoiseFunction, ReferenceValuesZerosAtLatticePointsAndA256UnitPeriodIncludingNegativeCells) {
    // Improved noise with z-first hashing, the reference permutation and the 12-gradient lookup.
    struct Case { Pos p; float n; };
    for (Case const c : {Case{Pos(0.375f, 1.625f, 2.125f), -0.394092292f}, Case{Pos(-3.25f, 10.5f, -0.75f), -0.133466244f},
                         Case{Pos(-123.4f, 57.3f, 200.9f), -0.133220464f}, Case{Pos(17.77f, -0.31f, -250.5f), 0.282722056f}})
        EXPECT_NEAR(NoiseMap::noise(c.p), c.n, 2e-6f) << c.p.x << " " << c.p.y << " " << c.p.z;
    for (float x : {-256.f, -2.f, -1.f, 0.f, 1.f, 7.f, 255.f})
        for (float y : {-3.f, 0.f, 4.f})
            for (float z : {-1.f, 0.f, 12.f}) EXPECT_EQ(NoiseMap::noise(Pos(x, y, z)), 0.f) << x << " " << y << " " << z;
    // A regular map is 0.5 there.
    EXPECT_EQ(makeEvaluator(0.5f, 1.f).noiseValue(Pos(1.5f, -0.5f, 0.f)), 0.5f);
    for (Pos p : {Pos(0.375f, 1.625f, 2.125f), Pos(-3.25f, 10.5f, -0.75f)}) {
        float const n = NoiseMap::noise(p);
        for (int axis = 0; axis < 3; ++axis)
            for (float shift : {256.f, -256.f}) {
                Pos q = p;
                q[axis] += shift;
                EXPECT_EQ(NoiseMap::noise(q), n) << axis << " " << shift;
            }
        EXPECT_NE(NoiseMap::noise(Pos(p.x + 128.f, p.y, p.z)), n);  // not a shorter period
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

    auto ramp = makeEvaluator(1.f, 1.f, 0.25f, 0.75f);
    EXPECT_FLOAT_EQ(ramp.blendWeight(0.5f), 0.5f);
    EXPECT_EQ(ramp.blendWeight(0.8f), 1.f);
}

// The shading path (a channel read directly, or through a placing or
// position mapper; one octave or several) agrees with the documented steps:
// the mapper's point, noiseValue, then the threshold ramp, within rounding.
TEST(NoiseEvaluator, EveryReadingPathFollowsValueThenRamp) {
    auto placed = makeSharedPtr<UvMapper>();
    placed->set("scale", Pos(2.f, 0.5f, 3.f));
    placed->set("offset", Pos(0.3f, -0.2f, 0.f));
    auto byPosition = makeSharedPtr<UvMapper>();
    byPosition->set("mappingMode", UvMappingMode::ObjectXyz);
    std::mt19937 rng(17);
    std::uniform_real_distribution<float> d(-20.f, 20.f);
    for (auto const& mapper : {identityMapper(), SharedPtr<UvMapper const>(placed), SharedPtr<UvMapper const>(byPosition)}) {
        for (float levels : {1.f, 3.f, 2.5f}) {
            for (auto [minT, maxT] : {std::pair(0.f, 1.f), std::pair(0.3f, 0.6f), std::pair(0.8f, 0.2f)}) {
                NoiseMapEvaluator const e(mapper, constantInput(Rgb(0.25f, 0.25f, 0.25f)), constantInput(Rgb(0.75f, 0.75f, 0.75f)),
                                          0.7f, levels, minT, maxT);
                float const slope = 1.f / std::fabs(maxT - minT);
                for (int i = 0; i < 40; ++i) {
                    SettableShadeContext ctx(d(rng), d(rng), d(rng));
                    ctx.objectPosition = Pos(d(rng), d(rng), d(rng));
                    float const t = e.blendWeight(e.noiseValue(mapper->computeUvw(ctx)));
                    float const value = e.evalMono(ctx, nullptr).value;
                    EXPECT_NEAR(value, 0.25f + 0.5f * t, 1e-6f * slope) << levels << " " << minT << " " << i;
                    EXPECT_TRUE(value >= 0.25f && value <= 0.75f) << value;
                }
            }
        }
    }
    // A point that is not finite gives a value that is not a number, never a crash.
    for (float bad : {std::nanf(""), INFINITY, -INFINITY}) {
        SettableShadeContext ctx(bad, 0.5f, 0.5f);
        EXPECT_TRUE(std::isnan(makeEvaluator(0.1f, 1.f).evalMono(ctx, nullptr).value)) << bad;
    }
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
    SettableShadeContext ctx(0.37f, 0.81f, 0.11f);
    float const v = makeEvaluator(0.25f, 1.f).noiseValue(ctx.uvw), five = makeEvaluator(0.25f, 5.f).noiseValue(ctx.uvw);
    EXPECT_NE(v, five);
    RgbAlpha const c = regular.evaluator->evalColor(ctx, nullptr);
    EXPECT_FLOAT_EQ(c.r, 1.f - v);
    EXPECT_FLOAT_EQ(c.b, v);
    EXPECT_FLOAT_EQ(c.alpha, 1.f);
    EXPECT_FLOAT_EQ(fractal.evaluator->evalColor(ctx, nullptr).b, std::clamp(five, 0.f, 1.f));
}

} // namespace
} // namespace Quelin
