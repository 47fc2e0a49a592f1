#include <gtest/gtest.h>

#include <cmath>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/AcesOtOperator.h"

using namespace Quelin;

namespace {

constexpr Flags<ColorMappingExclude> NONE{};

SharedPtr<AcesOtOperator> make(float opacity) {
    auto op = makeSharedPtr<AcesOtOperator>();
    op->set("opacity", opacity);
    op->prepareForApplication({});
    return op;
}

TEST(AcesOtOperatorTest, GreyStaysNeutralAndBrightColoursStayInDisplayRange) {
    auto op = make(1.f);
    for (float v : {0.01f, 0.18f, 1.f, 5.f}) Testing::expectNear(op->map(Rgb(v), {}), Rgb(AcesOtOperator::curve(v)), 1e-5f);
    Rgb const hot = op->map(Rgb(1000.f, 50.f, 3.f), {});
    for (int ch = 0; ch < 3; ++ch) EXPECT_TRUE(hot[ch] >= 0.f && hot[ch] <= 1.f) << ch;
}

TEST(AcesOtOperatorTest, FullOpacityUnmapsDisplayGreysUpToThePole) {
    auto op = make(1.f);
    for (float v : {0.01f, 0.18f, 0.5f, 0.99f}) EXPECT_NEAR(op->map(op->unmap(Rgb(v), NONE), {}).g, v, 3e-4f);
    // A display value of exactly 1 is well defined (the pole is at 1.0165402).
    Rgb const white = op->unmap(Rgb(1.f), NONE);
    EXPECT_TRUE(std::isfinite(white.r) && white.r > 10.f);
    EXPECT_EQ(op->unmap(Rgb(1.f), NONE), op->unmap(Rgb(3.f), NONE));  // clamped first
}

TEST(AcesOtOperatorTest, ZeroOpacityIsTheIdentityAndItsUnmapClampsToOne) {
    auto op = make(0.f);
    EXPECT_EQ(op->map(Rgb(0.3f, 4.f, 0.f), {}), Rgb(0.3f, 4.f, 0.f));
    for (float v : {0.f, 0.1f, 0.37f, 0.8f, 1.f}) EXPECT_NEAR(op->unmap(Rgb(v), NONE).r, v, 1e-6f);
    EXPECT_FLOAT_EQ(op->unmap(Rgb(2.5f), NONE).r, 1.f);
    EXPECT_EQ(op->unmap(Rgb(-0.5f), NONE).r, 0.f);
}

TEST(AcesOtOperatorTest, PartialOpacityReadsTheTableBilinearly) {
    auto const& table = AcesOtOperator::unmappingTable();
    auto onNode = make(7.f / 15.f);
    // Half way between value rows at a fixed column: the mean of the two entries.
    EXPECT_NEAR(onNode->unmap(Rgb(5.5f / 15.f), NONE).r, 0.5f * (table[5 * 16 + 7] + table[6 * 16 + 7]), 1e-5f);
    // On a node: the table entries, channel by channel, without the matrices.
    Testing::expectNear(onNode->unmap(Rgb(5.f / 15.f, 0.f, 1.f), NONE), Rgb(table[5 * 16 + 7], 0.f, table[15 * 16 + 7]), 1e-5f);
    // The table is the reference; a grey round trip through it lands close.
    auto faded = make(0.6f);
    for (float v : {0.05f, 0.2f, 0.5f, 0.8f}) EXPECT_NEAR(faded->map(faded->unmap(Rgb(v), NONE), {}).r, v, 0.02f) << v;
}

} // namespace
