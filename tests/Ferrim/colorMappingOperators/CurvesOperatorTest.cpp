// Curves, Tone Curve and Advanced Filmic: the curve maths and what each
// operator does beyond the round trips that every operator shares.
#include <gtest/gtest.h>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/AdvancedFilmicOperator.h"
#include "Ferrim/colorMappingOperators/CurvesOperator.h"
#include "Ferrim/colorMappingOperators/ToneCurveOperator.h"

using namespace Quelin;

namespace {

template <typename T> SharedPtr<T> prepared(Function<void(T&)> const& setUp) {
    auto op = makeSharedPtr<T>();
    setUp(*op);
    op->prepareForApplication({});
    return op;
}

TEST(MonotoneCurve, PassesThroughPointsAndStaysMonotoneWithoutOvershoot) {
    // Points that dip: the curve may not bend back.
    auto const dip = MonotoneCurve::fromPoints({{0.f, 0.f}, {0.3f, 0.5f}, {0.5f, 0.4f}, {1.f, 1.f}});
    EXPECT_NEAR(dip.evaluate(0.3f), 0.5f, 1e-4f);
    EXPECT_NEAR(dip.evaluate(1.f), 1.f, 1e-6f);
    float previous = dip.evaluate(-0.1f);
    for (int i = 0; i <= 1000; ++i) {
        float const y = dip.evaluate(-0.1f + 1.2f * float(i) / 1000.f);
        EXPECT_GE(y, previous);
        previous = y;
    }
    // A plain cubic spline overshoots above 1 after the steep rise; Fritsch-Carlson may not.
    auto const steep = MonotoneCurve::fromPoints({{0.f, 0.f}, {0.1f, 0.9f}, {0.2f, 1.f}, {1.f, 1.f}});
    for (int i = 0; i <= 100; ++i) EXPECT_LE(steep.evaluate(float(i) / 100.f), 1.f + 1e-6f);
}

TEST(MonotoneCurve, InverseUndoesEvaluateAndPicksMiddleOfFlats) {
    auto const s = MonotoneCurve::fromPoints({{0.f, 0.f}, {0.25f, 0.15f}, {0.75f, 0.85f}, {1.f, 1.f}});
    for (float x : {-0.2f, 0.f, 0.05f, 0.3f, 0.5f, 0.9f, 1.f, 1.7f}) EXPECT_NEAR(s.invert(s.evaluate(x)), x, 2e-4f) << x;
    auto const flat = MonotoneCurve::fromPoints({{0.f, 0.f}, {0.4f, 0.5f}, {0.6f, 0.5f}, {1.f, 1.f}});
    EXPECT_NEAR(flat.invert(0.5f), 0.5f, 1e-3f);
    EXPECT_TRUE(MonotoneCurve::fromPoints({{0.3f, 0.3f}}).isIdentity());
    EXPECT_FALSE(s.isIdentity());
}

TEST(CurvesOperator, DiagonalsAreNeutralAndMasterComesBeforeTheChannel) {
    EXPECT_TRUE(prepared<CurvesOperator>([](auto&) {})->isNeutral());
    auto op = prepared<CurvesOperator>([](CurvesOperator& o) {
        o.set("curves_master", makeCurvePoints({{0.f, 0.f}, {0.5f, 0.25f}, {1.f, 1.f}}));
        o.set("curves_red", makeCurvePoints({{0.f, 0.f}, {0.25f, 0.5f}, {1.f, 1.f}}));
    });
    Testing::expectNear(op->map(Rgb(0.5f), {}), Rgb(0.5f, 0.25f, 0.25f), 1e-3f);  // master 0.5 -> 0.25, red 0.25 -> 0.5
}

TEST(ToneCurveOperator, WorksInStopsAroundMiddleGreyAndCanKeepRatios) {
    EXPECT_TRUE(prepared<ToneCurveOperator>([](auto&) {})->isNeutral());
    // Highlights: four stops over grey come out two stops over.
    auto points = makeCurvePoints({{-8.f, -8.f}, {0.f, 0.f}, {4.f, 2.f}});
    auto op = prepared<ToneCurveOperator>([&](ToneCurveOperator& o) { o.set("toneCurve_points", points); });
    EXPECT_NEAR(op->map(Rgb(0.18f), {}).g, 0.18f, 1e-4f);
    EXPECT_NEAR(op->map(Rgb(0.18f * 16.f), {}).g, 0.18f * 4.f, 1e-3f);
    EXPECT_EQ(op->map(Rgb(0.f, -1.f, 0.f), {}), Rgb(0.f, -1.f, 0.f));
    op->set("toneCurve_preserveColor", true);
    op->prepareForApplication({});
    Rgb const c = op->map(Rgb(2.f, 1.f, 0.5f), {});
    EXPECT_NEAR(c.g / c.r, 0.5f, 1e-5f);
    EXPECT_NEAR(c.b / c.r, 0.25f, 1e-5f);
}

TEST(AdvancedFilmicOperator, ShoulderReachesWhiteAndContrastPivotsOnGrey) {
    auto op = prepared<AdvancedFilmicOperator>([](AdvancedFilmicOperator& o) {
        o.set("contrast", 1.f);
        o.set("toe", 0.f);
        o.set("shoulderStrength", 1.f);
        o.set("whitePoint", 10.f);
        o.set("highlightDesaturation", 0.f);
    });
    EXPECT_NEAR(op->map(Rgb(10.f), {}).r, 1.f, 1e-5f);
    op->set("shoulderStrength", 0.f);
    op->set("contrast", 1.5f);
    op->prepareForApplication({});
    EXPECT_NEAR(op->map(Rgb(0.18f), {}).r, 0.18f, 1e-6f);
    EXPECT_LT(op->map(Rgb(0.09f), {}).r, 0.09f);
    op->set("contrast", 1.f);
    op->prepareForApplication({});
    EXPECT_TRUE(op->isNeutral());
    // Desaturation touches highlights only and keeps their luminance.
    op->set("highlightDesaturation", 0.8f);
    op->prepareForApplication({});
    Rgb const dark(0.2f, 0.05f, 0.01f), bright(1.5f, 0.6f, 0.3f);
    EXPECT_EQ(op->map(dark, {}), dark);
    Rgb const out = op->map(bright, {});
    auto luma = [](Rgb c) { return 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b; };
    EXPECT_NEAR(luma(out), luma(bright), 1e-5f);
    EXPECT_LT(out.r - out.b, bright.r - bright.b);
}

} // namespace
