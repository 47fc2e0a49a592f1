// Curves, Tone Curve and Advanced Filmic: the curve maths and the operators'
// round trips.
#include <gtest/gtest.h>

#include <random>

#include "Ferrim/Ferrim.h"
#include "Ferrim/colorMappingOperators/AdvancedFilmicOperator.h"
#include "Ferrim/colorMappingOperators/CurvesOperator.h"
#include "Ferrim/colorMappingOperators/ToneCurveOperator.h"

using namespace Quelin;

namespace {

class FerrimStarted : public ::testing::Test {
protected:
    void SetUp() override { Ferrim::startup(); }
    void TearDown() override { Ferrim::shutdown(); }

    static EntityHolder<UnaryColorMappingOperator> make(StringView type) {
        auto op = ColorMappingOperatorFactory::getInstance().createOperator(type);
        EXPECT_TRUE(op) << type;
        return op;
    }
    static void prepare(EntityHolder<UnaryColorMappingOperator> const& op, bool apply = true) {
        ColorMappingContext context;
        context.applyOperators = apply;
        op->prepareForApplication(context);
    }
};

Stack<Rgb> randomColors(float lo, float hi, int count = 200) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> u(lo, hi);
    Stack<Rgb> colors;
    for (int i = 0; i < count; ++i) colors.push_back(Rgb(u(rng), u(rng), u(rng)));
    return colors;
}

} // namespace

// ---------------------------------------------------------------- curve maths

TEST(MonotoneCurve, PassesThroughPointsAndStaysMonotone) {
    // Points that dip: the curve may not bend back.
    auto const curve = MonotoneCurve::fromPoints({{0.f, 0.f}, {0.3f, 0.5f}, {0.5f, 0.4f}, {1.f, 1.f}});
    EXPECT_NEAR(curve.evaluate(0.3f), 0.5f, 1e-4f);
    EXPECT_NEAR(curve.evaluate(1.f), 1.f, 1e-6f);
    float previous = curve.evaluate(-0.1f);
    for (int i = 0; i <= 1000; ++i) {
        float const y = curve.evaluate(-0.1f + 1.2f * float(i) / 1000.f);
        EXPECT_GE(y, previous);
        previous = y;
    }
}

TEST(MonotoneCurve, NoOvershootBetweenSteepAndFlatPoints) {
    // A plain cubic spline overshoots above 1 after the steep rise; Fritsch-Carlson may not.
    auto const curve = MonotoneCurve::fromPoints({{0.f, 0.f}, {0.1f, 0.9f}, {0.2f, 1.f}, {1.f, 1.f}});
    for (int i = 0; i <= 100; ++i) EXPECT_LE(curve.evaluate(float(i) / 100.f), 1.f + 1e-6f);
}

TEST(MonotoneCurve, InverseUndoesEvaluateAndPicksMiddleOfFlats) {
    auto const s = MonotoneCurve::fromPoints({{0.f, 0.f}, {0.25f, 0.15f}, {0.75f, 0.85f}, {1.f, 1.f}});
    for (float x : {-0.2f, 0.f, 0.05f, 0.3f, 0.5f, 0.9f, 1.f, 1.7f}) EXPECT_NEAR(s.invert(s.evaluate(x)), x, 2e-4f) << x;
    auto const flat = MonotoneCurve::fromPoints({{0.f, 0.f}, {0.4f, 0.5f}, {0.6f, 0.5f}, {1.f, 1.f}});
    EXPECT_NEAR(flat.invert(0.5f), 0.5f, 1e-3f);
    EXPECT_TRUE(MonotoneCurve::fromPoints({{0.3f, 0.3f}}).isIdentity());
    EXPECT_FALSE(s.isIdentity());
}

// ---------------------------------------------------------------- operators

using CurveOperators = FerrimStarted;

TEST_F(CurveOperators, CurvesMasterThenChannel) {
    auto op = make("Zatho.CurvesOperator");
    prepare(op);
    EXPECT_TRUE(op->isNeutral());  // the default curves are diagonals
    op->set("curves_master", makeCurvePoints({{0.f, 0.f}, {0.5f, 0.25f}, {1.f, 1.f}}));
    op->set("curves_red", makeCurvePoints({{0.f, 0.f}, {0.25f, 0.5f}, {1.f, 1.f}}));
    prepare(op);
    Rgb const m = op->map(Rgb(0.5f), {});
    EXPECT_NEAR(m.r, 0.5f, 1e-3f);   // master 0.5 -> 0.25, red 0.25 -> 0.5
    EXPECT_NEAR(m.g, 0.25f, 1e-3f);
    EXPECT_NEAR(m.b, 0.25f, 1e-3f);
    EXPECT_EQ(op->unmap(m, Flags<ColorMappingExclude>(ColorMappingExclude::Curves)), m);
}

TEST_F(CurveOperators, ToneCurveWorksInStopsAroundMiddleGrey) {
    auto op = make("Zatho.ToneCurveOperator");
    prepare(op);
    EXPECT_TRUE(op->isNeutral());
    // Highlights: four stops over grey come out two stops over.
    op->set("toneCurve_points", makeCurvePoints({{-8.f, -8.f}, {0.f, 0.f}, {4.f, 2.f}}));
    prepare(op);
    EXPECT_NEAR(op->map(Rgb(0.18f), {}).g, 0.18f, 1e-4f);
    EXPECT_NEAR(op->map(Rgb(0.18f * 16.f), {}).g, 0.18f * 4.f, 1e-3f);
    EXPECT_EQ(op->map(Rgb(0.f, -1.f, 0.f), {}), Rgb(0.f, -1.f, 0.f));
    // Preserving colour keeps channel ratios.
    op->set("toneCurve_preserveColor", true);
    prepare(op);
    Rgb const c = op->map(Rgb(2.f, 1.f, 0.5f), {});
    EXPECT_NEAR(c.g / c.r, 0.5f, 1e-5f);
    EXPECT_NEAR(c.b / c.r, 0.25f, 1e-5f);
}

TEST_F(CurveOperators, AdvancedFilmicShoulderReachesWhiteAndKeepsGreyWithNeutralControls) {
    auto op = make("Zatho.AdvancedFilmicOperator");
    op->set("contrast", 1.f);
    op->set("toe", 0.f);
    op->set("shoulderStrength", 1.f);
    op->set("whitePoint", 10.f);
    op->set("highlightDesaturation", 0.f);
    prepare(op);
    EXPECT_NEAR(op->map(Rgb(10.f), {}).r, 1.f, 1e-5f);
    op->set("shoulderStrength", 0.f);
    op->set("contrast", 1.5f);
    prepare(op);
    EXPECT_NEAR(op->map(Rgb(0.18f), {}).r, 0.18f, 1e-6f);  // contrast pivots on middle grey
    EXPECT_LT(op->map(Rgb(0.09f), {}).r, 0.09f);
    op->set("contrast", 1.f);
    prepare(op);
    EXPECT_TRUE(op->isNeutral());
}

TEST_F(CurveOperators, AdvancedFilmicDesaturatesOnlyHighlightsAndKeepsLuminance) {
    auto op = make("Zatho.AdvancedFilmicOperator");
    op->set("contrast", 1.f);
    op->set("toe", 0.f);
    op->set("shoulderStrength", 0.f);
    op->set("highlightDesaturation", 0.8f);
    prepare(op);
    Rgb const dark(0.2f, 0.05f, 0.01f);
    EXPECT_EQ(op->map(dark, {}), dark);
    Rgb const bright(1.5f, 0.6f, 0.3f);
    Rgb const out = op->map(bright, {});
    auto luma = [](Rgb c) { return 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b; };
    EXPECT_NEAR(luma(out), luma(bright), 1e-5f);
    EXPECT_LT(out.r - out.b, bright.r - bright.b);
}

// Every operator of this family: round trip, exclusion bit, neutral when off.
struct RoundTripCase {
    char const* type;
    ColorMappingExclude bit;
    Function<void(UnaryColorMappingOperator&)> configure;
    float lo, hi;
};

class OperatorRoundTrip : public FerrimStarted, public ::testing::WithParamInterface<RoundTripCase> {};

TEST_P(OperatorRoundTrip, UnmapUndoesMapAndHonoursExclusionAndEnabled) {
    auto const& c = GetParam();
    auto op = make(c.type);
    c.configure(*op);
    prepare(op);
    ASSERT_FALSE(op->isNeutral());
    bool changed = false;
    for (Rgb const& in : randomColors(c.lo, c.hi)) {
        Rgb const out = op->map(in, {});
        changed = changed || !(out == in);
        Rgb const back = op->unmap(out, {});
        float const tolerance = 2e-4f * std::max(1.f, std::max(in.r, std::max(in.g, in.b)));
        EXPECT_NEAR(back.r, in.r, tolerance);
        EXPECT_NEAR(back.g, in.g, tolerance);
        EXPECT_NEAR(back.b, in.b, tolerance);
        EXPECT_EQ(op->unmap(out, Flags<ColorMappingExclude>(c.bit)), out);
    }
    EXPECT_TRUE(changed);
    // Off through the record or through the context: every colour maps to itself.
    Rgb const probe(0.3f, 0.6f, 0.9f);
    prepare(op, false);
    EXPECT_EQ(op->map(probe, {}), probe);
    op->set("enabled", false);
    prepare(op);
    EXPECT_EQ(op->map(probe, {}), probe);
    EXPECT_EQ(op->unmap(probe, {}), probe);
}

INSTANTIATE_TEST_SUITE_P(
    CurveFamily, OperatorRoundTrip,
    ::testing::Values(
        RoundTripCase{"Zatho.CurvesOperator", ColorMappingExclude::Curves,
                      [](UnaryColorMappingOperator& op) {
                          op.set("curves_master", makeCurvePoints({{0.f, 0.f}, {0.25f, 0.18f}, {0.75f, 0.85f}, {1.f, 1.f}}));
                          op.set("curves_blue", makeCurvePoints({{0.f, 0.05f}, {1.f, 0.9f}}));
                      },
                      0.f, 1.2f},
        RoundTripCase{"Zatho.ToneCurveOperator", ColorMappingExclude::ToneCurve,
                      [](UnaryColorMappingOperator& op) {
                          op.set("toneCurve_points", makeCurvePoints({{-6.f, -7.f}, {0.f, 0.f}, {5.f, 2.5f}}));
                      },
                      0.001f, 20.f},
        RoundTripCase{"Zatho.AdvancedFilmicOperator", ColorMappingExclude::AdvancedFilmic,
                      [](UnaryColorMappingOperator&) {},  // the default look
                      0.f, 12.f}),
    [](auto const& info) {
        String name = info.param.type + 6;  // without "Zatho."
        return name;
    });
