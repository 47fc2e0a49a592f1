#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "QuelinLib/ColorMath.h"

using namespace Quelin;

namespace {

// Bases from the tiny to the very bright, against the exponents the operators
// use (gamma and its inverse, the tint weights, their reciprocals).
TEST(PowApprox, StaysWithinDocumentedRelativeErrorOfPow) {
    for (float const e : {0.2f, 1.f / 2.4f, 1.f / 2.2f, 0.70710677f, 1.f, 1.4142135f, 2.2f, 2.4f, 5.f}) {
        double worst = 0;
        for (double x = 1e-6; x < 1e5; x *= 1.0137) {
            float const bases[4] = {float(x), float(x) * 1.5f, float(x) * 0.75f, float(x) * 1.25f};
            Float4 const r = powApprox(Float4(bases[0], bases[1], bases[2], bases[3]), e);
            for (int lane = 0; lane < 4; ++lane) {
                double const expected = std::pow(double(bases[lane]), double(e));
                if (expected < FLT_MIN || expected > 1e37) continue;
                worst = std::max(worst, std::abs(r[lane] - expected) / expected);
            }
        }
        EXPECT_LT(worst, 1e-5) << "exponent " << e;
    }
}

TEST(PowApprox, TinyBasesGiveZeroAndScalarMatchesLanes) {
    Float4 const r = powApprox(Float4(0.f, -1.f, 1e-40f, -0.f), Float4(0.4545f));
    for (int lane = 0; lane < 4; ++lane) EXPECT_EQ(r[lane], 0.f) << lane;
    EXPECT_EQ(powApprox(0.f, 2.2f), 0.f);
    EXPECT_EQ(powApprox(3.7f, 1.3f), powApprox(Float4(3.7f), Float4(1.3f))[0]);
}

TEST(Exp2Log2Approx, SaturateInsteadOfOverflowing) {
    EXPECT_TRUE(std::isfinite(exp2Approx(Float4(500.f))[0]));
    EXPECT_GT(exp2Approx(Float4(500.f))[0], 1e38f);
    EXPECT_LT(exp2Approx(Float4(-500.f))[0], 1e-37f);
    EXPECT_NEAR(log2Approx(Float4(1024.f))[0], 10.f, 1e-6f);
    // The scalar version follows the lane version across the centring split.
    for (float x : {1e-8f, 0.7f, 1.4142f, 1.4143f, 3.f, 1e20f})
        EXPECT_NEAR(log2Approx(x), std::log2(x), 2e-6f * std::max(1.f, std::abs(std::log2(x)))) << x;
}

struct LocusPoint {
    double kelvin;
    float x, y;  // CIE 1931 Planckian locus (tabulated)
};

TEST(PlanckianLocus, FollowsTabulatedChromaticitiesWithRgbOfUnitLuminance) {
    LocusPoint const points[] = {{2000, 0.5267f, 0.4133f}, {3000, 0.4369f, 0.4041f}, {4000, 0.3805f, 0.3768f},
                                 {5000, 0.3451f, 0.3516f}, {6500, 0.3135f, 0.3237f}, {10000, 0.2807f, 0.2884f}};
    for (auto const& p : points) {
        Vector2 const c = planckianChromaticity(p.kelvin);
        EXPECT_NEAR(c.x, p.x, 0.003f) << p.kelvin;
        EXPECT_NEAR(c.y, p.y, 0.003f) << p.kelvin;
    }
    for (double k : {2000.0, 6500.0, 30000.0}) {
        Rgb const c = planckianRgb(k);
        EXPECT_NEAR(0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b, 1.f, 1e-3f) << k;
    }
}

TEST(ColorAdaptation, TurnsTheIlluminantIntoTheReferenceWhite) {
    EXPECT_EQ(colorAdaptation(6500.f), Rgb(1.f));  // exactly neutral at the default reference
    for (float k : {2000.f, 3200.f, 5000.f, 9000.f, 40000.f}) {
        Rgb const adapted = colorAdaptation(k, 6500.f) * planckianRgb(k);
        Rgb const reference = planckianRgb(6500);
        for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(adapted[ch], reference[ch], 1e-4f * reference[ch] + 1e-6f) << k;
    }
    // Adapting there and back, between other whites, is the identity.
    Rgb const back = colorAdaptation(3000.f, 8000.f) * colorAdaptation(8000.f, 3000.f);
    for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(back[ch], 1.f, 1e-5f);
}

} // namespace
