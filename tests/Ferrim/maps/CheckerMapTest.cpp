#include "Ferrim/maps/CheckerMap.h"

#include <cmath>

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
            sum += (long(std::floor(2 * x)) + long(std::floor(2 * y))) % 2 == 0 ? 1.0 : -1.0;
        }
    return float(0.5 + 0.5 * sum / (double(n) * n));
}

TEST(CheckerEdges, HardSquaresAreHalfUnitsByFloorAndSoftOnesTheExactBoxFilterWithTheEvenMixOnEdges) {
    struct Case { float u, v; bool color2; };
    for (Case const c : {Case{0.25f, 0.25f, true}, Case{0.25f, 0.75f, false}, Case{0.75f, 0.75f, true},
                         Case{0.5f, 0.25f, false},  // an edge belongs to the square above it
                         Case{-0.25f, 0.25f, false}, Case{-0.25f, -0.25f, true}, Case{-1.25f, -3.75f, false},
                         Case{3e7f, 0.25f, true}})
        EXPECT_EQ(makeChecker(0.f).evalColor(SettableShadeContext(c.u, c.v), nullptr), c.color2 ? TWO : ONE) << c.u << ", " << c.v;
    // Soft edges: the exact box filter of the pattern.
    for (float w : {0.1f, 0.3f, 0.77f})
        for (float u : {0.25f, 0.48f, 0.5f, 0.61f, -0.33f})
            for (float v : {0.02f, 0.25f, -0.9f}) {
                float const t = makeChecker(w).blendWeight(u, v);
                EXPECT_NEAR(t, numericBoxAverage(u, v, w), 4e-3f) << u << " " << v << " w " << w;
                EXPECT_FLOAT_EQ(makeChecker(-w).blendWeight(u, v), t);  // a negative width is the same box
            }
    auto const e = makeChecker(0.1f);
    EXPECT_FLOAT_EQ(e.blendWeight(0.5f, 0.25f), 0.5f);
    EXPECT_EQ(e.evalColor(SettableShadeContext(0.5f, 0.25f), nullptr), RgbAlpha(0.5f, 0, 0.5f, 1));
    EXPECT_EQ(e.blendWeight(0.25f, 0.25f), 1.f);
    EXPECT_EQ(e.blendWeight(0.75f, 0.25f), 0.f);
}

class CheckerMapTest : public LibraryFixture {};

TEST_F(CheckerMapTest, OnlyTheNeededInputsAreEvaluated) {
    auto one = makeSharedPtr<CountingMap>(ONE);
    auto two = makeSharedPtr<CountingMap>(TWO);
    CheckerEvaluator const e(identityMapper(), 0.1f, mapInput(one), mapInput(two));
    EXPECT_EQ(e.evalColor(SettableShadeContext(0.25f, 0.25f), nullptr), TWO);
    EXPECT_EQ(std::pair(one->calls.load(), two->calls.load()), std::pair(0, 1));
    e.evalMono(SettableShadeContext(-0.25f, 0.25f), nullptr);
    EXPECT_EQ(std::pair(one->calls.load(), two->calls.load()), std::pair(1, 1));
    e.evalColor(SettableShadeContext(0.5f, 0.25f), nullptr);  // on an edge: both
    EXPECT_EQ(std::pair(one->calls.load(), two->calls.load()), std::pair(2, 2));
}

TEST_F(CheckerMapTest, BumpIsFlatInsideASquareAndTiltsAcrossASoftEdge) {
    CheckerMap map;
    map.set("softenFactor", 0.2f);
    auto r = map.getEvaluatorImpl();
    EXPECT_EQ(r.evaluator->evalBump(SettableShadeContext(0.25f, 0.25f), nullptr), Dir(0, 0, 0));
    // color1 below u = 0.5, color2 (brighter) above: the normal tilts toward -u.
    Dir const b = r.evaluator->evalBump(SettableShadeContext(0.5f, 0.75f), nullptr);
    EXPECT_LT(b.x, 0.f);
    EXPECT_NEAR(b.y, 0.f, 1e-4f);
}

} // namespace
} // namespace Quelin
