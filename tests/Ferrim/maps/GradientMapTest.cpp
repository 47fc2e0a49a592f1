#include "Ferrim/maps/GradientMap.h"

#include <cmath>

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

struct TypeCase {
    Type type;
    Pos uvw;
    float t;
};

class GradientTypes : public ::testing::TestWithParam<TypeCase> {};

TEST_P(GradientTypes, ParameterAtChosenPoints) {
    auto const c = GetParam();
    FixedShadeContext ctx(c.uvw);
    auto const e = makeGradient(c.type, threeStops(Interp::Linear), identityMapper(), constantInput(Rgb(0.3f, 0.3f, 0.3f)));
    EXPECT_NEAR(e.parameter(c.uvw, ctx, nullptr), c.t, 1e-6f) << int(c.type) << " at " << c.uvw.x << ", " << c.uvw.y;
    // Through the whole lookup with linear stops 0, 0.5, 1 of grey levels 0, 0.5, 1 the grey is t.
    EXPECT_NEAR(e.evalColor(ctx, nullptr).g, std::clamp(c.t, 0.f, 1.f), 1e-6f);
}

INSTANTIATE_TEST_SUITE_P(
    AllTypes, GradientTypes,
    ::testing::Values(TypeCase{Type::Box, Pos(0.75f, 0.1f, 0), 0.8f}, TypeCase{Type::Box, Pos(0.5f, 0.5f, 0), 0.f},
                      TypeCase{Type::Diagonal, Pos(0.75f, 0.25f, 0), 0.5f},
                      TypeCase{Type::Linear, Pos(0.9f, 0.3f, 0), 0.3f}, TypeCase{Type::Linear, Pos(0.1f, 0.3f, 0), 0.3f},
                      TypeCase{Type::Mapped, Pos(0.9f, 0.1f, 0), 0.3f},
                      TypeCase{Type::Pong, Pos(0.25f, 0.5f, 0), 0.5f}, TypeCase{Type::Pong, Pos(0.f, 0.f, 0), 0.f},
                      TypeCase{Type::Radial, Pos(0.8f, 0.5f, 0), 0.6f},
                      TypeCase{Type::Radial, Pos(0.5f, 0.5f, 0.2f), 0.4f},
                      TypeCase{Type::Radial, Pos(0.95f, 0.95f, 0), 1.f},
                      TypeCase{Type::Spiral, Pos(0.5f, 0.75f, 0), 0.25f},
                      TypeCase{Type::Spiral, Pos(0.5f, 0.25f, 0), 0.75f},
                      TypeCase{Type::Spiral, Pos(0.75f, 0.5f, 0), 0.f},
                      TypeCase{Type::Sweep, Pos(0.4f, 0.4f, 0), 0.5f}, TypeCase{Type::Sweep, Pos(0.6f, 0.f, 0), 1.f},
                      TypeCase{Type::Tartan, Pos(0.5f, 0.9f, 0), 1.f},
                      TypeCase{Type::Tartan, Pos(0.1f, 0.2f, 0), 0.4f}));

struct InterpCase {
    Interp interpolation;
    float v;
    float grey;
};

class GradientInterpolations : public ::testing::TestWithParam<InterpCase> {};

TEST_P(GradientInterpolations, BlendAtAndBetweenStops) {
    auto const c = GetParam();
    auto const e = makeGradient(Type::Linear, threeStops(c.interpolation));
    FixedShadeContext ctx(0.3f, c.v);
    RgbAlpha const color = e.evalColor(ctx, nullptr);
    EXPECT_NEAR(color.r, c.grey, 1e-6f) << int(c.interpolation) << " at " << c.v;
    EXPECT_FLOAT_EQ(color.alpha, 1.f);
    EXPECT_NEAR(e.evalMono(ctx, nullptr).value, Rgb(c.grey).mean(), 1e-6f);
}

// Stops at 0 (0), 0.5 (0.5), 1 (1): between 0 and 0.5 the grey is 0.5 w(f).
INSTANTIATE_TEST_SUITE_P(
    AllInterpolations, GradientInterpolations,
    ::testing::Values(InterpCase{Interp::Linear, 0.5f, 0.5f}, InterpCase{Interp::Linear, 0.25f, 0.25f},
                      InterpCase{Interp::Solid, 0.5f, 0.f},            // at a stop: still the left one
                      InterpCase{Interp::Solid, 0.50001f, 0.5f},       // just past it: the stop's own
                      InterpCase{Interp::Solid, 0.f, 0.f}, InterpCase{Interp::Solid, 0.999f, 0.5f},
                      InterpCase{Interp::EaseIn, 0.25f, 0.5f * 0.03125f}, InterpCase{Interp::EaseIn, 0.5f, 0.5f},
                      InterpCase{Interp::EaseOut, 0.25f, 0.5f * 0.96875f}, InterpCase{Interp::EaseOut, 0.5f, 0.5f},
                      InterpCase{Interp::EaseInOut, 0.25f, 0.25f},
                      InterpCase{Interp::EaseInOut, 0.125f, 0.5f * 0.103515625f},
                      InterpCase{Interp::EaseInOut, 0.5f, 0.5f}));

TEST(GradientEvaluator, SortsStopsAndHoldsEndsWithoutExtrapolation) {
    Stack<Stop> stops = {{0.8f, Interp::Linear, constantInput(Rgb(1, 0, 0))},
                         {0.2f, Interp::Linear, constantInput(Rgb(0, 0, 1))}};
    auto const e = makeGradient(Type::Linear, std::move(stops));
    EXPECT_EQ(e.getStops().front().position, 0.2f);
    FixedShadeContext below(0.f, 0.1f), above(0.f, 0.95f), middle(0.f, 0.5f);
    EXPECT_EQ(e.evalColor(below, nullptr), RgbAlpha(0, 0, 1, 1));
    EXPECT_EQ(e.evalColor(above, nullptr), RgbAlpha(1, 0, 0, 1));
    EXPECT_NEAR(e.evalColor(middle, nullptr).r, 0.5f, 1e-6f);
}

TEST(GradientEvaluator, EmptyListIsBlack) {
    auto const e = makeGradient(Type::Linear, {});
    ASSERT_EQ(e.getStops().size(), 1u);
    EXPECT_EQ(e.getStops()[0].position, 0.5f);
    FixedShadeContext ctx(0.3f, 0.9f);
    EXPECT_EQ(e.evalColor(ctx, nullptr), RgbAlpha(0, 0, 0, 1));
}

TEST(GradientEvaluator, UnknownTypeOrInterpolationStops) {
    FixedShadeContext ctx(0.3f, 0.4f);
    auto expectStopAt = [&](GradientMap::Evaluator const& e, int line) {
        try {
            e.evalColor(ctx, nullptr);
            FAIL() << "no stop";
        } catch (StopException const& ex) {
            EXPECT_EQ(ex.getSourceFile(), "maps/GradientMap");
            EXPECT_EQ(ex.getLine(), line);
        }
    };
    expectStopAt(makeGradient(static_cast<Type>(9), threeStops(Interp::Linear)), 269);
    expectStopAt(makeGradient(Type::Linear, threeStops(static_cast<Interp>(5))), 73);
}

class GradientMapTest : public LibraryFixture {};

TEST_F(GradientMapTest, OutsideTheTileIsOpaqueBlack) {
    auto mapper = makeSharedPtr<UvMapper>();
    mapper->set("wrapU", WrapMode::NoTiling);
    auto const e = makeGradient(Type::Linear, threeStops(Interp::Linear), mapper);
    FixedShadeContext outside(1.5f, 0.5f), inside(0.5f, 0.5f);
    EXPECT_EQ(e.evalColor(outside, nullptr), RgbAlpha(0, 0, 0, 1));
    EXPECT_EQ(e.evalMono(outside, nullptr), MonoAlpha(0, 1));
    EXPECT_EQ(e.evalBump(outside, nullptr), Dir(0, 0, 0));
    EXPECT_EQ(e.evalColor(inside, nullptr), RgbAlpha(0.5f, 0.5f, 0.5f, 1));
    // Repeating tiles wrap into [0, 1).
    auto const repeat = makeGradient(Type::Linear, threeStops(Interp::Linear));
    FixedShadeContext far(7.5f, -2.75f);
    EXPECT_NEAR(repeat.evalColor(far, nullptr).r, 0.25f, 1e-6f);
}

TEST_F(GradientMapTest, StopInterpolationCountsOnlyWithCustomInterpolation) {
    GradientMap map;
    // Default stops: grey 0, 0.5, 1 at 0, 0.5, 1; they ask for solid.
    ListPropertyValue solid = std::get<ListPropertyValue>(map.getData().getValue("stops"));
    ASSERT_EQ(solid.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) solid[i].set("interpolation", Interp::Solid);
    map.set("stops", solid);
    FixedShadeContext ctx(0.2f, 0.25f);
    EXPECT_NEAR(map.getEvaluatorImpl().evaluator->evalColor(ctx, nullptr).r, 0.25f, 1e-6f);
    map.set("customInterpolation", true);
    EXPECT_EQ(map.getEvaluatorImpl().evaluator->evalColor(ctx, nullptr).r, 0.f);
    // Positions are clamped into [0, 1].
    solid[0].set("position", -2.f);
    EXPECT_EQ(solid[0].get<float>("position"), 0.f);
}

TEST_F(GradientMapTest, BumpBlendsTheStopsBumps) {
    auto noise = makeSharedPtr<NoiseMap>();
    noise->set("size", 0.3f);
    auto const noiseEval = noise->getEvaluatorImpl().evaluator;
    Stack<Stop> stops = {{0.f, Interp::Linear, constantInput(Rgb(0, 0, 0))}, {1.f, Interp::Linear, mapInput(noise)}};
    auto const e = makeGradient(Type::Linear, std::move(stops));
    FixedShadeContext ctx(0.4f, 0.25f);
    Dir const expected = noiseEval->evalBump(ctx, nullptr) * 0.25f;
    EXPECT_GT(length(expected), 0.f);
    EXPECT_LT(length(e.evalBump(ctx, nullptr) - expected), 1e-5f * (1 + length(expected)));
}

TEST_F(GradientMapTest, JsonRoundTripWithCellularStop) {
    GradientMap map;
    map.set("type", Type::Radial);
    map.set("defaultInterpolation", Interp::EaseInOut);
    ListPropertyValue stops = std::get<ListPropertyValue>(map.getData().getValue("stops"));
    GenericDataObject color = stops[1].get<GenericDataObject>("color");
    color.set("map", EntityHolder<Entity>(makeSharedPtr<CellularMap>()));
    stops[1].set("color", color);
    map.set("stops", stops);
    expectJsonRoundTrip(map);
    // A list item with an unknown key is refused.
    auto bad = entityToJson(map);
    bad["stops"][0]["colour"] = {1, 0, 0};
    EXPECT_FALSE(entityFromJson(bad).has_value());
}

} // namespace
} // namespace Quelin
