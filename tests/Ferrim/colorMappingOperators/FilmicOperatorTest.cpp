#include <gtest/gtest.h>

#include "Ferrim/colorMappingOperators/FilmicOperator.h"

using namespace Quelin;

namespace {

constexpr Flags<ColorMappingExclude> NONE{};

SharedPtr<FilmicOperator> make(float highlights, float shadows) {
    auto op = makeSharedPtr<FilmicOperator>();
    op->set("highlightCompression", highlights);
    op->set("richShadows", shadows);
    op->prepareForApplication({});
    return op;
}
float g(float x) { return FilmicOperator::curve(Float4(x))[0]; }

TEST(FilmicOperatorTest, FullStrengthIsTheCurveAndUnmapSolvesIt) {
    auto op = make(1.f, 1.f);
    for (float x : {1e-4f, 0.01f, 0.18f, 0.7f, 1.f, 3.f, 20.f}) {
        float const shown = g(x);
        EXPECT_FLOAT_EQ(op->map(Rgb(x), {}).r, shown);
        float const back = op->unmap(Rgb(shown), NONE).r;
        EXPECT_NEAR(op->map(Rgb(back), {}).r, shown, 1e-6f * back + 1e-7f) << x;
    }
}

TEST(FilmicOperatorTest, ZeroStrengthsChangeNothingAndUnmapClampsItsInput) {
    auto zero = make(0.f, 0.f);
    Rgb const c(0.3f, 2.f, 0.01f);
    EXPECT_EQ(zero->map(c, {}), c);
    EXPECT_EQ(zero->unmap(c, NONE), c);
    auto op = make(1.f, 0.3f);
    // Display values above the cap are the cap; a channel at or below 0 comes from 0, the others are
    // still undone.
    EXPECT_EQ(op->unmap(Rgb(1.5f, 0.5f, 0.2f), NONE), op->unmap(Rgb(1.f, 0.5f, 0.2f), NONE));
    for (Rgb const& d : {Rgb(0.f, 0.5f, 0.5f), Rgb(0.2f, -0.1f, 0.5f)}) {
        Rgb const back = op->unmap(d, NONE);
        Rgb const again = op->map(back, {});
        for (int ch = 0; ch < 3; ++ch) {
            if (d[ch] <= 0.f) EXPECT_EQ(back[ch], 0.f);
            else EXPECT_NEAR(again[ch], d[ch], 1e-6f);
        }
    }
}

TEST(FilmicOperatorTest, SmallChangesKeepThePreparedState) {
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
