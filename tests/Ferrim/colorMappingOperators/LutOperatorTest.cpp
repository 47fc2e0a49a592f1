#include <gtest/gtest.h>

#include <cmath>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/LutOperator.h"

using namespace Quelin;

namespace {

using Testing::expectNear;

class LutOperatorTest : public Testing::LibraryFixture {
protected:
    void SetUp() override {
        LibraryFixture::SetUp();
        mOp = ColorMappingOperatorFactory::getInstance().createOperator("Zatho.LutOperator").cast<LutOperator>();
        ASSERT_TRUE(mOp);
    }
    void TearDown() override {
        mOp = {};
        LibraryFixture::TearDown();
    }
    void prepare() {
        ColorMappingContext context;
        context.gamma = 2.2f;
        mOp->prepareForApplication(context);
    }
    static Rgb power(Rgb c, float e) {
        for (int ch = 0; ch < 3; ++ch) c[ch] = std::pow(std::max(c[ch], 0.f), e);
        return c;
    }
    EntityHolder<LutOperator> mOp;
};

} // namespace

TEST_F(LutOperatorTest, NeutralUntilOnAndGivenAPathAndAppliesInDisplayEncoding) {
    prepare();
    EXPECT_TRUE(mOp->isNeutral());
    EXPECT_TRUE(mOp->getLoadError().empty());
    mOp->set("path", getDefaultLut());
    prepare();
    ASSERT_FALSE(mOp->isNeutral()) << mOp->getLoadError();
    Rgb const in(0.2f, 0.4f, 0.05f);
    Rgb const out = mOp->map(in, {});
    expectNear(out, power(getDefaultLutData().apply(power(in, 1.f / 2.2f), LutInterpolation::Tetrahedral), 2.2f), 1e-5f);
    // Half opacity lands half-way between the input and the full look.
    mOp->set("lut_opacity", 0.5f);
    prepare();
    expectNear(mOp->map(in, {}), (in + out) * 0.5f, 1e-5f);
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
}
