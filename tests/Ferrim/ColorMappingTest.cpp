#include <gtest/gtest.h>

#include <random>

#include "Ferrim/ColorMapping.h"
#include "Ferrim/Ferrim.h"
#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/Lut.h"
#include "QuelinLib/Json.h"

using namespace Quelin;

namespace {

using ColorMappingTest = Testing::LibraryFixture;

Stack<Rgb> frame(int count, float hi) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(0.f, hi);
    Stack<Rgb> f(static_cast<std::size_t>(count));
    for (Rgb& p : f) p = Rgb(u(rng), u(rng), u(rng));
    return f;
}

} // namespace

TEST_F(ColorMappingTest, ChainsEndInLinearAndInDisplayEncoding) {
    // A linear pipeline needs one conversion for display.
    auto const pipeline = createDefaultPipeline();
    ColorMapping mapping(pipeline);
    EXPECT_EQ(mapping.getLinearChain(), pipeline);
    EXPECT_EQ(mapping.getDisplayChain()->getClassName(), "Zatho.LinearToSrgbOperator");
    EXPECT_EQ(mapping.getDisplayChain()->getPredecessor(), pipeline);
    EXPECT_EQ(mapping.getAppliedChain(), mapping.getDisplayChain());
    // One ending in sRGB is decoded, then encoded again.
    auto const& curves = ColorMappingOperatorFactory::getInstance().findDescriptor("Zatho.CurvesOperator")->definition;
    auto const srgb = createPipeline({GenericDataObject(curves)});
    mapping.setPipeline(srgb);
    EXPECT_EQ(mapping.getLinearChain()->getClassName(), "Zatho.SrgbToLinearOperator");
    EXPECT_EQ(mapping.getLinearChain()->getPredecessor(), srgb);
    EXPECT_EQ(mapping.getDisplayChain()->getPredecessor(), mapping.getLinearChain());
}

TEST_F(ColorMappingTest, ParallelFrameEqualsSingleThreadAndPerPixel) {
    ColorMapping mapping;
    int const width = 1000, height = 37;  // several tiles, a ragged last one
    Stack<Rgb> const source = frame(width * height, 4.f);
    Stack<Rgb> parallel = source, single = source;
    mapping.mapFrameBuffer(std::span<Rgb>(parallel), width, height, 0);
    mapping.mapFrameBuffer(std::span<Rgb>(single), width, height, 1);
    for (std::size_t i = 0; i < source.size(); ++i) {
        ASSERT_EQ(parallel[i], single[i]) << i;
        Rgb const one = mapping.map(source[i], Pixel(int(i % width), int(i / width)));
        ASSERT_NEAR(parallel[i].r, one.r, 1e-6f) << i;
        ASSERT_NEAR(parallel[i].b, one.b, 1e-6f) << i;
    }
    // Long rows are split within the row; alpha passes through.
    int const wide = 20000;
    Stack<RgbAlpha> withAlpha(wide);
    for (int i = 0; i < wide; ++i) withAlpha[std::size_t(i)] = RgbAlpha(source[std::size_t(i)], float(i) / wide);
    mapping.mapFrameBuffer(std::span<RgbAlpha>(withAlpha), wide, 1, 0);
    for (int i = 0; i < wide; i += 997) {
        EXPECT_EQ(withAlpha[std::size_t(i)].alpha, float(i) / wide);
        EXPECT_NEAR(withAlpha[std::size_t(i)].g, mapping.map(source[std::size_t(i)], Pixel(i, 0)).g, 1e-6f);
    }
    Stack<Rgb> tooSmall(10);
    EXPECT_THROW(mapping.mapFrameBuffer(std::span<Rgb>(tooSmall), 10, 2), Exception);
}

TEST_F(ColorMappingTest, UnmapUndoesTheDisplayChainAndHonoursExclusions) {
    ColorMapping mapping;
    // Mid-tones: the output transform clips near-black and out-of-gamut
    // colours, and the fast power is approximate, so the way back is close
    // rather than exact.
    for (Rgb c : frame(200, 0.75f)) {
        c = c + Rgb(0.15f);
        Rgb const back = mapping.unmap(mapping.map(c));
        for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(back[ch], c[ch], 0.01f * c[ch]);
    }
    Rgb const d(0.4f, 0.5f, 0.6f);
    EXPECT_EQ(mapping.unmap(d, Flags<ColorMappingExclude>::fromBits(COLOR_MAPPING_EXCLUDE_ALL)), d);
    // The shade-context helper forwards colorUnMap and nothing else.
    NullShadeContext parent;
    ColorUnmappingShadeContext context(parent, mapping);
    EXPECT_EQ(context.colorUnMap(d, {}), mapping.unmap(d));
    EXPECT_EQ(context.getImageSize(), parent.getImageSize());
    // Disabled: nothing happens in either direction.
    mapping.set("enabled", false);
    EXPECT_EQ(mapping.map(d), d);
    EXPECT_EQ(mapping.unmap(d), d);
}

TEST_F(ColorMappingTest, TheAddMenuIsJsonAndUnknownOperatorsGiveNoItem) {
    EXPECT_FALSE(nlohmann::json::parse(ColorMappingWithObservers::getAddOperatorMenu()).empty());  // throws if malformed
    EXPECT_TRUE(ColorMappingWithObservers::makeDefaultItem("Zatho.LutOperator"));
    EXPECT_FALSE(ColorMappingWithObservers::makeDefaultItem("Zatho.Nope"));
}
