#include <gtest/gtest.h>

#include <cmath>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/LutOperator.h"

using namespace Quelin;
using Testing::expectNear;

namespace {

void prepare(LutOperator& op) {
    ColorMappingContext context;
    context.gamma = 2.2f;
    op.prepareForApplication(context);
}

Rgb power(Rgb c, float e) {
    for (int ch = 0; ch < 3; ++ch) c[ch] = std::pow(std::max(c[ch], 0.f), e);
    return c;
}

TEST(LutOperatorTest, NeutralUntilGivenAPathAndAppliesInDisplayEncoding) {
    auto op = makeSharedPtr<LutOperator>();
    prepare(*op);
    EXPECT_TRUE(op->isNeutral());
    EXPECT_TRUE(op->getLoadError().empty());
    op->set("path", getDefaultLut());
    prepare(*op);
    ASSERT_FALSE(op->isNeutral()) << op->getLoadError();
    Rgb const in(0.2f, 0.4f, 0.05f);
    Rgb const out = op->map(in, {});
    expectNear(out, power(getDefaultLutData().apply(power(in, 1.f / 2.2f), LutInterpolation::Tetrahedral), 2.2f), 1e-5f);
    // Half opacity lands half-way between the input and the full look.
    op->set("lut_opacity", 0.5f);
    prepare(*op);
    expectNear(op->map(in, {}), (in + out) * 0.5f, 1e-5f);
}

TEST(LutOperatorTest, UnreadableFileIsNeutralWithErrorKeptUntilFixed) {
    auto op = makeSharedPtr<LutOperator>();
    String const bad = String(FERRIM_TESTDATA_DIR) + "/lut/error_truncated_file.3dl";
    op->set("path", bad);
    prepare(*op);
    EXPECT_TRUE(op->isNeutral());
    EXPECT_NE(op->getLoadError().find(bad + ":375:"), String::npos) << op->getLoadError();
    Rgb const c(0.3f, 0.5f, 0.7f);
    EXPECT_EQ(op->map(c, {}), c);
    EXPECT_EQ(op->unmap(c, {}), c);
    // A readable file clears the error.
    op->set("path", String(FERRIM_TESTDATA_DIR) + "/lut/discreet-3d-lut.3dl");
    prepare(*op);
    EXPECT_FALSE(op->isNeutral());
    EXPECT_TRUE(op->getLoadError().empty());
}

} // namespace
