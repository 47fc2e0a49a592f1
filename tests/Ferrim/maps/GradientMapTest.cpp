#include "Ferrim/maps/GradientMap.h"

#include <algorithm>

#include "Ferrim/maps/CellularMap.h"
#include "Ferrim/maps/NoiseMap.h"
#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;
using Type = GradientMap::Type;
using Interp = GradientMap::Interpolation;
using Stop = GradientMap::Evaluator::Stop;

Stack<Stop> threeStops(Interp interpolation) {
    return {{0.f, interpolation, constantInput(Rgb(0, 0, 0))},
            {0.5f, interpolation, constantInput(Rgb(0.5f, 0.5f, 0.5f))},
            {1.f, interpolation, constantInput(Rgb(1, 1, 1))}};
}

GradientMap::Evaluator makeGradient(Type type, Stack<Stop> stops, SharedPtr<UvMapper const> mapper = identityMapper(),
                                    ColorOrMap::Evaluator source = {}) {
    return GradientMap::Evaluator(type, std::move(mapper), std::move(source), std::move(stops));
}

TEST(GradientEvaluator, ParameterOfEveryTypeAtChosenPoints) {
    struct Case { Type type; Pos uvw; float t; };
    for (Case const c : {Case{Type::Box, Pos(0.75f, 0.1f, 0), 0.8f}, Case{Type::Box, Pos(0.5f, 0.5f, 0), 0.f},
                         Case{Type::Diagonal, Pos(0.75f, 0.25f, 0), 0.5f}, Case{Type::Linear, Pos(0.9f, 0.3f, 0), 0.3f},
                         Case{Type::Mapped, Pos(0.9f, 0.1f, 0), 0.3f}, Case{Type::Pong, Pos(0.25f, 0.5f, 0), 0.5f},
                         Case{Type::Pong, Pos(0.f, 0.f, 0), 0.f}, Case{Type::Radial, Pos(0.8f, 0.5f, 0), 0.6f},
                         Case{Type::Radial, Pos(0.5f, 0.5f, 0.2f), 0.4f}, Case{Type::Radial, Pos(0.95f, 0.95f, 0), 1.f},
                         Case{Type::Spiral, Pos(0.5f, 0.75f, 0), 0.25f}, Case{Type::Spiral, Pos(0.75f, 0.5f, 0), 0.f},
                         Case{Type::Sweep, Pos(0.4f, 0.4f, 0), 0.5f}, Case{Type::Sweep, Pos(0.6f, 0.f, 0), 1.f},
                         Case{Type::Tartan, Pos(0.5f, 0.9f, 0), 1.f}, Case{Type::Tartan, Pos(0.1f, 0.2f, 0), 0.4f}}) {
        SettableShadeContext ctx(c.uvw);
        auto const e = makeGradient(c.type, threeStops(Interp::Linear), identityMapper(), constantInput(Rgb(0.3f, 0.3f, 0.3f)));
        EXPECT_NEAR(e.parameter(c.uvw, ctx, nullptr), c.t, 1e-6f) << int(c.type) << " at " << c.uvw.x << ", " << c.uvw.y;
        // Through the whole lookup with linear stops 0, 0.5, 1 of grey levels 0, 0.5, 1 the grey is t.
        EXPECT_NEAR(e.evalColor(ctx, nullptr).g, std::clamp(c.t, 0.f, 1.f), 1e-6f);
    }
}

TEST(GradientEvaluator, EveryInterpolationAtAndBetweenStops) {
    struct Case { Interp interpolation; float v, grey; };
    // Stops at 0 (0), 0.5 (0.5), 1 (1): between 0 and 0.5 the grey is 0.5 w(f).
    for (Case const c : {Case{Interp::Linear, 0.5f, 0.5f}, Case{Interp::Linear, 0.25f, 0.25f},
                         Case{Interp::Solid, 0.5f, 0.f},       // at a stop: still the left one
                         Case{Interp::Solid, 0.50001f, 0.5f},  // just past it: the stop's own
                         Case{Interp::Solid, 0.f, 0.f}, Case{Interp::Solid, 0.999f, 0.5f},
                         Case{Interp::EaseIn, 0.25f, 0.5f * 0.03125f}, Case{Interp::EaseOut, 0.25f, 0.5f * 0.96875f},
                         Case{Interp::EaseInOut, 0.25f, 0.25f}, Case{Interp::EaseInOut, 0.125f, 0.5f * 0.103515625f}}) {
        auto const e = makeGradient(Type::Linear, threeStops(c.interpolation));
        SettableShadeContext ctx(0.3f, c.v);
        EXPECT_NEAR(e.evalColor(ctx, nullptr).r, c.grey, 1e-6f) << int(c.interpolation) << " at " << c.v;
        EXPECT_NEAR(e.evalMono(ctx, nullptr).value, Rgb(c.grey).mean(), 1e-6f);
    }
}

TEST(GradientEvaluator, SortsStopsAndHoldsEndsWithoutExtrapolation) {
    Stack<Stop> stops = {{0.8f, Interp::Linear, constantInput(Rgb(1, 0, 0))},
                         {0.2f, Interp::Linear, constantInput(Rgb(0, 0, 1))}};
    auto const e = makeGradient(Type::Linear, std::move(stops));
    EXPECT_EQ(e.getStops().front().position, 0.2f);
    EXPECT_EQ(e.evalColor(SettableShadeContext(0.f, 0.1f), nullptr), RgbAlpha(0, 0, 1, 1));
    EXPECT_EQ(e.evalColor(SettableShadeContext(0.f, 0.95f), nullptr), RgbAlpha(1, 0, 0, 1));
    EXPECT_NEAR(e.evalColor(SettableShadeContext(0.f, 0.5f), nullptr).r, 0.5f, 1e-6f);
    // An empty list is one black stop in the middle.
    auto const empty = makeGradient(Type::Linear, {});
    ASSERT_EQ(empty.getStops().size(), 1u);
    EXPECT_EQ(empty.getStops()[0].position, 0.5f);
    EXPECT_EQ(empty.evalColor(SettableShadeContext(0.3f, 0.9f), nullptr), RgbAlpha(0, 0, 0, 1));
}

class GradientMapTest : public LibraryFixture {};

TEST_F(GradientMapTest, OutsideTheTileIsOpaqueBlack) {
    auto mapper = makeSharedPtr<UvMapper>();
    mapper->set("wrapU", WrapMode::NoTiling);
    auto const e = makeGradient(Type::Linear, threeStops(Interp::Linear), mapper);
    SettableShadeContext outside(1.5f, 0.5f);
    EXPECT_EQ(e.evalColor(outside, nullptr), RgbAlpha(0, 0, 0, 1));
    EXPECT_EQ(e.evalMono(outside, nullptr), MonoAlpha(0, 1));
    EXPECT_EQ(e.evalBump(outside, nullptr), Dir(0, 0, 0));
    EXPECT_EQ(e.evalColor(SettableShadeContext(0.5f, 0.5f), nullptr), RgbAlpha(0.5f, 0.5f, 0.5f, 1));
    // Repeating tiles wrap into [0, 1).
    auto const repeat = makeGradient(Type::Linear, threeStops(Interp::Linear));
    EXPECT_NEAR(repeat.evalColor(SettableShadeContext(7.5f, -2.75f), nullptr).r, 0.25f, 1e-6f);
}

TEST_F(GradientMapTest, StopInterpolationCountsOnlyWithCustomInterpolation) {
    GradientMap map;
    // Default stops: grey 0, 0.5, 1 at 0, 0.5, 1; they ask for solid.
    ListPropertyValue solid = std::get<ListPropertyValue>(map.getData().getValue("stops"));
    ASSERT_EQ(solid.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) solid[i].set("interpolation", Interp::Solid);
    map.set("stops", solid);
    SettableShadeContext ctx(0.2f, 0.25f);
    EXPECT_NEAR(map.getEvaluatorImpl().evaluator->evalColor(ctx, nullptr).r, 0.25f, 1e-6f);
    map.set("customInterpolation", true);
    EXPECT_EQ(map.getEvaluatorImpl().evaluator->evalColor(ctx, nullptr).r, 0.f);
}

TEST_F(GradientMapTest, BumpBlendsTheStopsBumps) {
    auto noise = makeSharedPtr<NoiseMap>();
    noise->set("size", 0.3f);
    auto const noiseEval = noise->getEvaluatorImpl().evaluator;
    Stack<Stop> stops = {{0.f, Interp::Linear, constantInput(Rgb(0, 0, 0))}, {1.f, Interp::Linear, mapInput(noise)}};
    auto const e = makeGradient(Type::Linear, std::move(stops));
    SettableShadeContext ctx(0.4f, 0.25f);
    Dir const expected = noiseEval->evalBump(ctx, nullptr) * 0.25f;
    EXPECT_GT(length(expected), 0.f);
    EXPECT_LT(length(e.evalBump(ctx, nullptr) - expected), 1e-5f * (1 + length(expected)));
}

TEST_F(GradientMapTest, JsonRoundTripWithCellularStop) {
    GradientMap map;
    map.set("type", Type::Radial);
    map.set("defaultInterpolation", Interp::EaseInOut);
    ListPropertyValue stops = std::get<ListPropertyValue>(map.getData().getValue("stops"));
    setInputMap(stops[1], "color", makeSharedPtr<CellularMap>());
    map.set("stops", stops);
    expectJsonRoundTrip(map);
}

} // namespace
} // namespace Quelin
