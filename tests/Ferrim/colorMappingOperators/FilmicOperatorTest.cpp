#include <gtest/gtest.h>

#include <cmath>

#include "Ferrim/colorMappingOperators/FilmicOperator.h"

using namespace Quelin;

namespace {

class FilmicOperatorTest : public testing::Test {
protected:
    static SharedPtr<FilmicOperator> make(float highlights, float shadows) {
        auto op = makeSharedPtr<FilmicOperator>();
        op->set("highlightCompression", highlights);
        op->set("richShadows", shadows);
        op->prepareForApplication({});
        return op;
    }
    static float g(float x) { return FilmicOperator::curve(Float4(x))[0]; }
    static constexpr Flags<ColorMappingExclude> NONE{};
};

TEST_F(FilmicOperatorTest, DerivativeMatchesTheCurve) {
    for (double x : {0.001, 0.05, 0.3, 1.0, 4.0, 30.0}) {
        double const h = 1e-3 * x;
        auto curve = [](double v) {
            return (1.0003055 * v + 0.0021391737) * v / ((v + 0.43034402) * v + 0.036029063);
        };
        double const numeric = (curve(x + h) - curve(x - h)) / (2 * h);
        EXPECT_NEAR(FilmicOperator::curveDerivative(Float4(float(x)))[0], numeric, 1e-3 * std::abs(numeric) + 1e-6) << x;  // the factored constants carry 6 digits
    }
}

TEST_F(FilmicOperatorTest, ZeroStrengthsChangeNothing) {
    auto op = make(0.f, 0.f);
    Rgb const c(0.3f, 2.f, 0.01f);
    EXPECT_EQ(op->map(c, {}), c);
    EXPECT_EQ(op->unmap(c, NONE), c);
}

TEST_F(FilmicOperatorTest, FullStrengthIsTheCurveAndUnmapSolvesIt) {
    auto op = make(1.f, 1.f);
    for (float x : {1e-4f, 0.01f, 0.18f, 0.7f, 1.f, 3.f, 20.f}) {
        float const shown = g(x);
        EXPECT_FLOAT_EQ(op->map(Rgb(x), {}).r, shown);
        float const back = op->unmap(Rgb(shown), NONE).r;
        EXPECT_NEAR(op->map(Rgb(back), {}).r, shown, 1e-6f * back + 1e-7f) << x;
    }
    EXPECT_EQ(op->getOutputCap(), 1.f);
}

TEST_F(FilmicOperatorTest, DisplayValuesAboveTheCapAreTreatedAsTheCap) {
    auto op = make(1.f, 0.5f);
    EXPECT_EQ(op->unmap(Rgb(1.5f, 0.5f, 0.2f), NONE), op->unmap(Rgb(1.f, 0.5f, 0.2f), NONE));
}

TEST_F(FilmicOperatorTest, ColoursWithAChannelAtOrBelowZeroAreLeftAlone) {
    auto op = make(1.f, 0.3f);
    EXPECT_EQ(op->unmap(Rgb(0.f, 0.5f, 0.5f), NONE), Rgb(0.f, 0.5f, 0.5f));
    EXPECT_EQ(op->unmap(Rgb(0.2f, -0.1f, 0.5f), NONE), Rgb(0.2f, -0.1f, 0.5f));
}

TEST_F(FilmicOperatorTest, MixedStrengthsRoundTripPerChannel) {
    auto op = make(0.8f, 0.2f);
    for (Rgb c : {Rgb(0.02f, 0.5f, 4.f), Rgb(0.9f, 0.001f, 0.3f), Rgb(1.2f, 1.f, 0.8f)}) {
        Rgb const back = op->unmap(op->map(c, {}), NONE);
        for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(back[ch], c[ch], 3e-4f * std::max(1.f, c[ch])) << ch;
    }
}

TEST_F(FilmicOperatorTest, SmallChangesKeepThePreparedState) {
    auto op = make(0.9f, 0.5f);
    Rgb const before = op->map(Rgb(0.25f), {});
    op->set("richShadows", 0.50005f);
    op->prepareForApplication({});
    EXPECT_EQ(op->map(Rgb(0.25f), {}), before);
    op->set("richShadows", 0.6f);
    op->prepareForApplication({});
    EXPECT_NE(op->map(Rgb(0.25f), {}), before);
}

} // namespace
