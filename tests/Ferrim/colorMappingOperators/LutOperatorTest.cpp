#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "Ferrim/Ferrim.h"
#include "Ferrim/colorMappingOperators/LutOperator.h"

using namespace Quelin;

namespace {

class LutOperatorTest : public ::testing::Test {
protected:
    void SetUp() override {
        Ferrim::startup();
        mOp = ColorMappingOperatorFactory::getInstance().createOperator("Zatho.LutOperator").cast<LutOperator>();
        ASSERT_TRUE(mOp);
    }
    void TearDown() override {
        mOp = {};
        Ferrim::shutdown();
    }
    void prepare(bool apply = true) {
        ColorMappingContext context;
        context.applyOperators = apply;
        context.gamma = 2.2f;
        mOp->prepareForApplication(context);
    }
    static float encode(float v) { return std::pow(std::max(v, 0.f), 1.f / 2.2f); }
    static float decode(float v) { return std::pow(std::max(v, 0.f), 2.2f); }

    EntityHolder<LutOperator> mOp;
};

Stack<Rgb> colors() {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(0.02f, 0.95f);
    Stack<Rgb> c;
    for (int i = 0; i < 100; ++i) c.push_back(Rgb(u(rng), u(rng), u(rng)));
    return c;
}

} // namespace

TEST_F(LutOperatorTest, NeutralWithoutPathAndAppliesInDisplayEncoding) {
    prepare();
    EXPECT_TRUE(mOp->isNeutral());
    EXPECT_TRUE(mOp->getLoadError().empty());
    mOp->set("path", getDefaultLut());
    prepare();
    ASSERT_FALSE(mOp->isNeutral()) << mOp->getLoadError();
    Rgb const in(0.2f, 0.4f, 0.05f);
    Rgb const table = getDefaultLutData().apply(Rgb(encode(in.r), encode(in.g), encode(in.b)), LutInterpolation::Tetrahedral);
    Rgb const out = mOp->map(in, {});
    EXPECT_NEAR(out.r, decode(table.r), 1e-5f);
    EXPECT_NEAR(out.g, decode(table.g), 1e-5f);
    EXPECT_NEAR(out.b, decode(table.b), 1e-5f);
    // Half opacity lands half-way between the input and the full look.
    mOp->set("lut_opacity", 0.5f);
    prepare();
    Rgb const half = mOp->map(in, {});
    EXPECT_NEAR(half.r, 0.5f * (in.r + out.r), 1e-5f);
    EXPECT_NEAR(half.b, 0.5f * (in.b + out.b), 1e-5f);
}

TEST_F(LutOperatorTest, UnreadableFileIsNeutralWithErrorKeptUntilFixed) {
    String const bad = String(FERRIM_TESTDATA_DIR) + "/lut/error_truncated_file.3dl";
    mOp->set("path", bad);
    prepare();
    EXPECT_TRUE(mOp->isNeutral());
    EXPECT_NE(mOp->getLoadError().find(bad + ":375:"), String::npos) << mOp->getLoadError();
    Rgb const c(0.3f, 0.5f, 0.7f);
    EXPECT_EQ(mOp->map(c, {}), c);
    EXPECT_EQ(mOp->unmap(c, {}), c);
    // A readable file clears the error.
    mOp->set("path", String(FERRIM_TESTDATA_DIR) + "/lut/discreet-3d-lut.3dl");
    prepare();
    EXPECT_FALSE(mOp->isNeutral());
    EXPECT_TRUE(mOp->getLoadError().empty());
    mOp->set("path", String("/nonexistent/look.cube"));
    prepare();
    EXPECT_NE(mOp->getLoadError().find("/nonexistent/look.cube"), String::npos);
}

TEST_F(LutOperatorTest, UnmapFindsTheInputAndHonoursExclusion) {
    mOp->set("path", getDefaultLut());
    for (int interpolation : {0, 1}) {
        mOp->set("lut_interpolation", interpolation);
        for (float opacity : {1.f, 0.6f}) {
            mOp->set("lut_opacity", opacity);
            prepare();
            for (Rgb const& in : colors()) {
                Rgb const out = mOp->map(in, {});
                Rgb const back = mOp->unmap(out, {});
                EXPECT_NEAR(back.r, in.r, 1e-4f);
                EXPECT_NEAR(back.g, in.g, 1e-4f);
                EXPECT_NEAR(back.b, in.b, 1e-4f);
                EXPECT_EQ(mOp->unmap(out, Flags<ColorMappingExclude>(ColorMappingExclude::Lut)), out);
            }
        }
    }
}

TEST_F(LutOperatorTest, OffMeansNeutral) {
    mOp->set("path", getDefaultLut());
    prepare(false);
    EXPECT_TRUE(mOp->isNeutral());
    mOp->set("enabled", false);
    prepare();
    Rgb const c(0.1f, 0.2f, 0.3f);
    EXPECT_EQ(mOp->map(c, {}), c);
}

TEST_F(LutOperatorTest, BucketMappingEqualsSingleColours) {
    mOp->set("path", getDefaultLut());
    for (bool inSrgb : {false, true}) {
        mOp->set("lut_applyInSrgb", inSrgb);
        prepare();
        Stack<Rgb> pixels = colors();
        Stack<Rgb> expected;
        for (Rgb const& c : pixels) expected.push_back(mOp->map(c, {}));
        mOp->map(std::span<Rgb>(pixels), Pixel(0, 0), Pixel(int(pixels.size()), 1));
        for (std::size_t i = 0; i < pixels.size(); ++i) EXPECT_EQ(pixels[i], expected[i]) << i;
    }
}
