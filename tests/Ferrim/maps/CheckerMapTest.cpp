#include "Ferrim/maps/CheckerMap.h"

#include <cmath>

#include "Ferrim/maps/NoiseMap.h"
#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

RgbAlpha const ONE(1, 0, 0, 1);  // color1
RgbAlpha const TWO(0, 0, 1, 1);  // color2

CheckerEvaluator makeChecker(float soften) {
    return CheckerEvaluator(identityMapper(), soften, constantInput(ONE.rgb()), constantInput(TWO.rgb()));
}

/// Mean of the +-1 checker (+1 on color2 squares) over a w x w box, mapped to [0, 1].
float numericBoxAverage(float u, float v, float w) {
    int const n = 400;
    double sum = 0;
    for (int i = 0; i < n; ++i)
        for (int j = 0; j < n; ++j) {
            double const x = u - w / 2 + (i + 0.5) * w / n, y = v - w / 2 + (j + 0.5) * w / n;
            long const a = long(std::floor(2 * x)) + long(std::floor(2 * y));
            sum += (a % 2 == 0) ? 1.0 : -1.0;
        }
    return float(0.5 + 0.5 * sum / (double(n) * n));
}

struct HardCase {
    float u, v;
    bool color2;
};

class CheckerHardEdges : public ::testing::TestWithParam<HardCase> {};

TEST_P(CheckerHardEdges, SquaresAreHalfUnitsAndFloorNotTruncation) {
    auto const c = GetParam();
    FixedShadeContext ctx(c.u, c.v);
    EXPECT_EQ(makeChecker(0.f).evalColor(ctx, nullptr), c.color2 ? TWO : ONE) << c.u << ", " << c.v;
}

INSTANTIATE_TEST_SUITE_P(Points, CheckerHardEdges,
                         ::testing::Values(HardCase{0.25f, 0.25f, true}, HardCase{0.25f, 0.75f, false},
                                           HardCase{0.75f, 0.75f, true},
                                           HardCase{0.5f, 0.25f, false},  // an edge belongs to the square above it
                                           HardCase{-0.25f, 0.25f, false}, HardCase{-0.25f, -0.25f, true},
                                           HardCase{-1.25f, -3.75f, false}, HardCase{3e7f, 0.25f, true}));

TEST(CheckerSoftEdges, ExactBoxFilterOfThePattern) {
    for (float w : {0.1f, 0.3f, 0.77f})
        for (float u : {0.25f, 0.48f, 0.5f, 0.61f, -0.33f})
            for (float v : {0.02f, 0.25f, -0.9f}) {
                float const t = makeChecker(w).blendWeight(u, v);
                EXPECT_NEAR(t, numericBoxAverage(u, v, w), 4e-3f) << u << " " << v << " w " << w;
                // A negative width is the same box.
                EXPECT_FLOAT_EQ(makeChecker(-w).blendWeight(u, v), t);
            }
}

TEST(CheckerSoftEdges, EdgeIsTheEvenMixAndCentresArePure) {
    auto const e = makeChecker(0.1f);
    FixedShadeContext edge(0.5f, 0.25f);
    EXPECT_FLOAT_EQ(e.blendWeight(0.5f, 0.25f), 0.5f);
    EXPECT_EQ(e.evalColor(edge, nullptr), RgbAlpha(0.5f, 0, 0.5f, 1));
    EXPECT_EQ(e.blendWeight(0.25f, 0.25f), 1.f);
    EXPECT_EQ(e.blendWeight(0.75f, 0.25f), 0.f);
}

class CheckerMapTest : public LibraryFixture {};

TEST_F(CheckerMapTest, OnlyTheNeededInputsAreEvaluated) {
    auto one = makeSharedPtr<CountingMap>(ONE);
    auto two = makeSharedPtr<CountingMap>(TWO);
    CheckerEvaluator const e(identityMapper(), 0.1f, mapInput(one), mapInput(two));
    FixedShadeContext centre(0.25f, 0.25f);
    EXPECT_EQ(e.evalColor(centre, nullptr), TWO);
    EXPECT_EQ(one->calls, 0);
    EXPECT_EQ(two->calls, 1);
    FixedShadeContext other(-0.25f, 0.25f);
    e.evalMono(other, nullptr);
    EXPECT_EQ(one->calls, 1);
    EXPECT_EQ(two->calls, 1);
    FixedShadeContext edge(0.5f, 0.25f);
    e.evalColor(edge, nullptr);
    EXPECT_EQ(one->calls, 2);
    EXPECT_EQ(two->calls, 2);
}

TEST_F(CheckerMapTest, BumpIsFlatInsideASquareAndTiltsAcrossASoftEdge) {
    CheckerMap map;
    map.set("softenFactor", 0.2f);
    auto r = map.getEvaluatorImpl();
    // Inside a square the pattern is flat; across a soft edge in u the normal
    // tilts toward -u where color2 (white, 1) lies at larger u.
    FixedShadeContext flat(0.25f, 0.25f);
    EXPECT_EQ(r.evaluator->evalBump(flat, nullptr), Dir(0, 0, 0));
    FixedShadeContext edge(0.5f, 0.75f);  // color1 below u = 0.5, color2 above
    Dir const b = r.evaluator->evalBump(edge, nullptr);
    EXPECT_LT(b.x, 0.f);
    EXPECT_NEAR(b.y, 0.f, 1e-4f);
}

TEST_F(CheckerMapTest, JsonRoundTripWithNoiseDrivingAnInput) {
    CheckerMap map;
    map.set("softenFactor", 0.05f);
    auto noise = makeSharedPtr<NoiseMap>();
    noise->set("size", 0.2f);
    setInputMap(map, "color1", noise);
    expectJsonRoundTrip(map);
    // The loaded map evaluates like the original.
    auto loaded = entityFromJsonAs<IMap>(entityToJson(map));
    ASSERT_TRUE(loaded.has_value());
    FixedShadeContext ctx(0.76f, 0.27f);
    EXPECT_EQ((*loaded)->getEvaluatorImpl().evaluator->evalColor(ctx, nullptr),
              map.getEvaluatorImpl().evaluator->evalColor(ctx, nullptr));
}

} // namespace
} // namespace Quelin
