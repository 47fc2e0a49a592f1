#include <gtest/gtest.h>

#include <cmath>

#include "Ferrim/colorMappingOperators/AcesOtOperator.h"
#include "Ferrim/colorMappingOperators/FilmicOperator.h"
#include "Ferrim/colorMappingOperators/MiscOperators.h"
#include "Ferrim/colorMappingOperators/ReinhardOperator.h"
#include "QuelinLib/ColorMath.h"

using namespace Quelin;

namespace {

constexpr auto NO_EXCLUDE = Flags<ColorMappingExclude>();
Flags<ColorMappingExclude> bit(std::uint32_t b) { return Flags<ColorMappingExclude>::fromBits(b); }

template <typename T> SharedPtr<T> prepared(ColorMappingContext const& context = {}) {
    auto op = makeSharedPtr<T>();
    op->prepareForApplication(context);
    return op;
}

void expectRgbNear(Rgb const& actual, Rgb const& expected, float tolerance, char const* what = "") {
    for (int ch = 0; ch < 3; ++ch)
        EXPECT_NEAR(actual[ch], expected[ch], tolerance) << what << " channel " << ch;
}

// ---------------------------------------------------------------- figures of the single operators

TEST(SimpleExposureOperator, OneStopDoublesAndUnmapHalves) {
    auto op = makeSharedPtr<SimpleExposureOperator>();
    op->set("simpleExposure", 1.f);
    op->prepareForApplication({});
    EXPECT_EQ(op->map(Rgb(1.f), {}), Rgb(2.f));
    EXPECT_EQ(op->unmap(Rgb(2.f), NO_EXCLUDE), Rgb(1.f));
    EXPECT_EQ(op->unmap(Rgb(2.f), ColorMappingExclude::Exposure), Rgb(2.f));
}

TEST(SimpleExposureOperator, RangeIsClampedToTwentyStops) {
    auto op = makeSharedPtr<SimpleExposureOperator>();
    op->set("simpleExposure", 35.f);
    EXPECT_EQ(op->get<float>("simpleExposure"), 20.f);
    op->set("simpleExposure", -35.f);
    EXPECT_EQ(op->get<float>("simpleExposure"), -20.f);
}

TEST(PhotographicExposureOperator, UsesTheCameraSettings) {
    ColorMappingContext context;
    context.iso = 100.f;
    context.fNumber = 16.f;
    context.shutterSpeed = 100.f;
    auto op = prepared<PhotographicExposureOperator>(context);
    EXPECT_NEAR(op->getMultiplier(), 683.f * 0.65f / (78.f * 256.f), 1e-7f);
    EXPECT_NEAR(op->getMultiplier(), 0.02223f, 1e-5f);
    expectRgbNear(op->unmap(op->map(Rgb(0.3f, 0.5f, 2.f), {}), NO_EXCLUDE), Rgb(0.3f, 0.5f, 2.f), 1e-6f);
}

TEST(PhotographicExposureOperator, StaysNeutralForACameraWithoutAperture) {
    ColorMappingContext context;
    context.fNumber = 0.f;
    EXPECT_EQ(prepared<PhotographicExposureOperator>(context)->getMultiplier(), 1.f);
}

TEST(WhiteBalanceOperator, ReferenceTemperatureIsNeutralAndRangeIsClamped) {
    auto op = prepared<WhiteBalanceOperator>();
    EXPECT_EQ(op->map(Rgb(0.2f, 0.4f, 0.9f), {}), Rgb(0.2f, 0.4f, 0.9f));
    op->set("colorTemperature", 500.f);
    EXPECT_EQ(op->get<float>("colorTemperature"), 2000.f);
    op->set("colorTemperature", 250000.f);
    EXPECT_EQ(op->get<float>("colorTemperature"), 99999.f);
}

TEST(WhiteBalanceOperator, MakesTheChosenLightLookLikeTheReferenceWhite) {
    auto op = makeSharedPtr<WhiteBalanceOperator>();
    op->set("colorTemperature", 3000.f);
    op->prepareForApplication({});
    expectRgbNear(op->map(planckianRgb(3000) * 0.5f, {}), planckianRgb(6500) * 0.5f, 1e-4f);
}

TEST(TintOperator, ChannelsTheTintRemovedStayZeroWhenUnmapped) {
    auto op = makeSharedPtr<TintOperator>();
    op->set("tint", Rgb(1.f, 0.f, 1.f));
    op->prepareForApplication({});
    EXPECT_EQ(op->map(Rgb(0.5f, 0.7f, 0.2f), {}), Rgb(0.5f, 0.f, 0.2f));
    EXPECT_EQ(op->unmap(Rgb(0.5f), NO_EXCLUDE), Rgb(0.5f, 0.f, 0.5f));
}

TEST(ContrastOperator, SteepensAroundMiddleGreyAndKeepsBlackAndWhite) {
    auto op = makeSharedPtr<ContrastOperator>();
    op->set("contrast", 2.f);
    op->prepareForApplication({});
    EXPECT_NEAR(op->map(Rgb(0.18f), {}).r, 0.1774f, 5e-4f);
    EXPECT_EQ(op->map(Rgb(0.f, 1.f, 0.f), {}), Rgb(0.f, 1.f, 0.f));
    // More contrast: darks darker, brights brighter.
    EXPECT_LT(op->map(Rgb(0.03f), {}).r, 0.03f);
    EXPECT_GT(op->map(Rgb(0.7f), {}).r, 0.7f);
}

TEST(ContrastOperator, FlattensBelowOneAndIsNeutralAtOne) {
    auto op = makeSharedPtr<ContrastOperator>();
    op->set("contrast", 0.5f);
    op->prepareForApplication({});
    EXPECT_GT(op->map(Rgb(0.03f), {}).r, 0.03f);
    EXPECT_LT(op->map(Rgb(0.7f), {}).r, 0.7f);
    op->set("contrast", 1.f);
    op->prepareForApplication({});
    EXPECT_EQ(op->map(Rgb(0.03f, 0.4f, 0.7f), {}), Rgb(0.03f, 0.4f, 0.7f));
}

TEST(SaturationOperator, MinusOneGivesTheGreyOfTheMaximum) {
    auto op = makeSharedPtr<SaturationOperator>();
    op->set("saturation", -1.f);
    op->prepareForApplication({});
    expectRgbNear(op->map(Rgb(0.2f, 0.9f, 0.5f), {}), Rgb(0.9f), 1e-6f);
    expectRgbNear(op->map(Rgb(3.f, 0.1f, -0.5f), {}), Rgb(3.f), 1e-6f);
}

TEST(SaturationOperator, GreysStayGreyAndHueIsKept) {
    for (float k : {-0.7f, 0.4f, 1.f}) {
        auto op = makeSharedPtr<SaturationOperator>();
        op->set("saturation", k);
        op->prepareForApplication({});
        expectRgbNear(op->map(Rgb(0.35f), {}), Rgb(0.35f), 1e-6f);
        // Pure red stays red (only S moves), at the same value.
        Rgb const red = op->map(Rgb(0.8f, 0.2f, 0.2f), {});
        EXPECT_NEAR(red.r, 0.8f, 1e-6f);
        EXPECT_NEAR(red.g, red.b, 1e-6f);
    }
}

TEST(GreenMagentaTintOperator, FullGreenRaisesRedAndBlueAndLowersGreenExponent) {
    auto op = makeSharedPtr<GreenMagentaTintOperator>();
    op->set("greenMagentaTint", 1.f);
    op->prepareForApplication({});
    Rgb const c = op->map(Rgb(0.25f), {});
    expectRgbNear(c, Rgb(std::pow(0.25f, 1.4142135f), std::pow(0.25f, 0.70710677f), std::pow(0.25f, 1.4142135f)),
                  2e-5f);
    expectRgbNear(c, Rgb(0.1408f, 0.3752f, 0.1408f), 1e-4f);
    // Negative values keep their sign.
    EXPECT_NEAR(op->map(Rgb(-0.25f), {}).g, -std::pow(0.25f, 0.70710677f), 2e-5f);
}

TEST(GreenMagentaTintOperator, AmountsBelowTheThresholdDoNothing) {
    auto op = makeSharedPtr<GreenMagentaTintOperator>();
    op->set("greenMagentaTint", 0.00005f);
    op->prepareForApplication({});
    EXPECT_EQ(op->map(Rgb(0.25f, 0.5f, 3.f), {}), Rgb(0.25f, 0.5f, 3.f));
}

TEST(GammaConversions, LinearToSrgbClampsNegativesAndSrgbToLinearAppliesGamma) {
    ColorMappingContext context;
    context.gamma = 2.2f;
    auto toSrgb = prepared<LinearToSrgbOperator>(context);
    expectRgbNear(toSrgb->map(Rgb(-1.f, 0.f, 1.f), {}), Rgb(0.f, 0.f, 1.f), 1e-6f);
    auto toLinear = prepared<SrgbToLinearOperator>(context);
    EXPECT_NEAR(toLinear->map(Rgb(0.5f), {}).r, std::pow(0.5f, 2.2f), 1e-5f);
    EXPECT_NEAR(toLinear->map(Rgb(0.5f), {}).r, 0.2176f, 1e-4f);
    EXPECT_NEAR(toLinear->map(Rgb(-0.5f), {}).r, -0.2176f, 1e-4f);
}

TEST(ReinhardOperator, WhitePointMapsToOneAndBack) {
    auto op = makeSharedPtr<ReinhardOperator>();
    op->set("highlightCompression", 4.f);
    op->prepareForApplication({});
    EXPECT_FLOAT_EQ(op->getCoefficient(), 1.f / 16.f);
    EXPECT_NEAR(op->map(Rgb(4.f), {}).r, 1.f, 1e-6f);
    EXPECT_NEAR(op->unmap(Rgb(1.f), NO_EXCLUDE).r, 4.f, 1e-5f);
    // The channel is taken as it is: 0 from -1 to 0, and past the pole at -1
    // the curve is positive again ((1 - 2/16) 2 / 1 at -2), 0 again below -16.
    expectRgbNear(op->map(Rgb(-0.5f, -2.f, -20.f), {}), Rgb(0.f, 1.75f, 0.f), 1e-6f);
    EXPECT_EQ(op->map(Rgb(-0.999f, std::nanf(""), INFINITY), {}), Rgb(0.f, 0.f, INFINITY));
}

TEST(ReinhardOperator, SwitchedOffKeepsTheCurveWithCoefficientOne) {
    ColorMappingContext off;
    off.applyOperators = false;
    for (bool const enabled : {false, true}) {
        auto op = makeSharedPtr<ReinhardOperator>();
        op->set("highlightCompression", 4.f);
        op->set("enabled", enabled);
        op->prepareForApplication(enabled ? off : ColorMappingContext());
        EXPECT_EQ(op->getCoefficient(), 1.f);
        // Identity on non-negative values, negatives to 0; the inverse is
        // the larger root of (x + 1)(x - c), so -1 at most below it.
        EXPECT_EQ(op->map(Rgb(0.f, 0.37f, 1e6f), {}), Rgb(0.f, 0.37f, 1e6f));
        EXPECT_EQ(op->map(Rgb(-0.5f, -1.f, -3.f), {}), Rgb(0.f));
        EXPECT_EQ(op->unmap(Rgb(0.37f, -0.5f, -3.f), NO_EXCLUDE), Rgb(0.37f, -0.5f, -1.f));
        // Buckets take the same path as single colours.
        Stack<Rgb> bucket = {Rgb(-0.5f, 0.25f, 2.f)};
        op->map(std::span<Rgb>(bucket), {}, {1, 1});
        EXPECT_EQ(bucket[0], Rgb(0.f, 0.25f, 2.f));
    }
}

TEST(ReinhardOperator, SmallChangesKeepThePreparedCurve) {
    auto op = makeSharedPtr<ReinhardOperator>();
    op->set("highlightCompression", 2.f);
    op->prepareForApplication({});
    op->set("highlightCompression", 2.00005f);
    op->prepareForApplication({});
    EXPECT_EQ(op->getCoefficient(), 0.25f);
    op->set("highlightCompression", 2.1f);
    op->prepareForApplication({});
    EXPECT_NE(op->getCoefficient(), 0.25f);
}

// ---------------------------------------------------------------- vignette

class VignetteOperatorTest : public testing::Test {
protected:
    SharedPtr<VignetteOperator> make(float intensity, float falloff, bool allowed = true) {
        auto op = makeSharedPtr<VignetteOperator>();
        op->set("intensity", intensity);
        op->set("falloff", falloff);
        ColorMappingContext context;
        context.imageSize = {64.f, 32.f};
        context.vignetteAllowed = allowed;
        op->prepareForApplication(context);
        return op;
    }
};

TEST_F(VignetteOperatorTest, DarkensTowardsTheCornersOnly) {
    auto op = make(0.8f, 0.f);
    float const centre = op->map(Rgb(1.f), {32, 16}).r;
    float const edge = op->map(Rgb(1.f), {0, 16}).r;
    float const corner = op->map(Rgb(1.f), {0, 0}).r;
    EXPECT_FLOAT_EQ(centre, 1.f);
    EXPECT_LT(edge, 1.f);
    EXPECT_LT(corner, edge);
    EXPECT_GT(corner, 0.f);
}

TEST_F(VignetteOperatorTest, IsNeverUndoneWhateverTheFlags) {
    auto op = make(1.f, 0.5f);
    Rgb const dark = op->map(Rgb(1.f), {0, 0});
    ASSERT_LT(dark.r, 0.9f);
    EXPECT_EQ(op->unmap(dark, NO_EXCLUDE), dark);
    EXPECT_EQ(op->unmap(dark, bit(COLOR_MAPPING_EXCLUDE_ALL)), dark);
}

TEST_F(VignetteOperatorTest, OffWithoutIntensityOrWhenNotAllowed) {
    EXPECT_EQ(make(0.f, 1.f)->map(Rgb(1.f), {0, 0}), Rgb(1.f));
    EXPECT_EQ(make(1.f, 1.f, false)->map(Rgb(1.f), {0, 0}), Rgb(1.f));
}

TEST_F(VignetteOperatorTest, BucketsUseTheirPixelPositions) {
    auto op = make(0.9f, 0.3f);
    Pixel const origin(40, 20), extent(8, 4);
    Stack<RgbAlpha> bucket(std::size_t(extent.x * extent.y), RgbAlpha(0.5f, 0.6f, 0.7f, 0.25f));
    op->map(std::span<RgbAlpha>(bucket), origin, extent);
    for (int k = 0; k < extent.x * extent.y; ++k) {
        Pixel const p(origin.x + k % extent.x, origin.y + k / extent.x);
        Rgb const expected = op->map(Rgb(0.5f, 0.6f, 0.7f), p);
        expectRgbNear(bucket[std::size_t(k)].rgb(), expected, 1e-7f);
        EXPECT_EQ(bucket[std::size_t(k)].alpha, 0.25f);
    }
}

// ---------------------------------------------------------------- overrides

TEST(OperatorOverrides, ExposureOverrideDoesNotTouchTheRecord) {
    auto op = makeSharedPtr<SimpleExposureOperator>();
    op->set("simpleExposure", 1.f);
    String errors;
    ToneMappingPropertyOverride const set[] = {{"Zatho.SimpleExposureOperator", "simpleExposure", 2.f}};
    op->applyOverrides(set, errors);
    op->prepareForApplication({});
    EXPECT_TRUE(errors.empty()) << errors;
    EXPECT_EQ(op->getMultiplier(), 4.f);
    EXPECT_EQ(op->get<float>("simpleExposure"), 1.f);
    ToneMappingPropertyOverride const clear[] = {{"Zatho.SimpleExposureOperator", "simpleExposure", std::monostate()}};
    op->applyOverrides(clear, errors);
    op->prepareForApplication({});
    EXPECT_EQ(op->getMultiplier(), 2.f);
}

TEST(OperatorOverrides, OtherOperatorsWriteTheRecordAndReportUnknownProperties) {
    auto contrast = makeSharedPtr<ContrastOperator>();
    auto exposure = makeSharedPtr<SimpleExposureOperator>();
    contrast->setPredecessor(exposure);
    String errors;
    ToneMappingPropertyOverride const overrides[] = {{"Zatho.ContrastOperator", "contrast", 1.5f},
                                                     {"Zatho.SimpleExposureOperator", "simpleExposure", 40.f},
                                                     {"Zatho.ContrastOperator", "sharpness", 1.f}};
    contrast->applyOverrides(overrides, errors);
    EXPECT_EQ(contrast->get<float>("contrast"), 1.5f);
    exposure->prepareForApplication({});
    EXPECT_EQ(exposure->getMultiplier(), std::exp2(20.f));  // clamped like the record would be
    EXPECT_NE(errors.find("sharpness"), String::npos);
}

// ---------------------------------------------------------------- chains

TEST(OperatorChain, SingleOperatorMapsLikeItsOwnTransformAndChainsUndoInReverse) {
    auto exposure = makeSharedPtr<SimpleExposureOperator>();
    exposure->set("simpleExposure", 1.f);
    auto tint = makeSharedPtr<TintOperator>();
    tint->set("tint", Rgb(0.5f, 1.f, 0.25f));
    tint->setPredecessor(exposure);
    tint->prepareForApplication({});  // prepares the whole chain
    EXPECT_EQ(exposure->map(Rgb(0.3f), {}), Rgb(0.6f));
    EXPECT_EQ(tint->map(Rgb(0.3f), {}), Rgb(0.3f, 0.6f, 0.15f));
    EXPECT_EQ(tint->unmap(Rgb(0.3f, 0.6f, 0.15f), NO_EXCLUDE), Rgb(0.3f));
    // Skipping the tint still undoes the exposure.
    EXPECT_EQ(tint->unmap(Rgb(0.3f, 0.6f, 0.15f), ColorMappingExclude::Tint), Rgb(0.15f, 0.3f, 0.075f));
}

TEST(OperatorChain, BucketMappingMatchesColourMappingThroughTheChain) {
    auto exposure = makeSharedPtr<SimpleExposureOperator>();
    exposure->set("simpleExposure", 0.5f);
    auto vignette = makeSharedPtr<VignetteOperator>();
    vignette->set("intensity", 0.7f);
    vignette->setPredecessor(exposure);
    auto aces = makeSharedPtr<AcesOtOperator>();
    aces->setPredecessor(vignette);
    ColorMappingContext context;
    context.imageSize = {16.f, 16.f};
    aces->prepareForApplication(context);
    Pixel const origin(4, 8), extent(6, 5);
    Stack<Rgb> bucket;
    for (int k = 0; k < extent.x * extent.y; ++k) bucket.push_back(Rgb(0.1f * float(k % 7), 0.5f, 2.f - 0.05f * float(k)));
    Stack<Rgb> const source = bucket;
    aces->map(std::span<Rgb>(bucket), origin, extent);
    for (int k = 0; k < extent.x * extent.y; ++k) {
        Rgb const expected = aces->map(source[std::size_t(k)], Pixel(origin.x + k % extent.x, origin.y + k / extent.x));
        expectRgbNear(bucket[std::size_t(k)], expected, 1e-6f);
    }
}

TEST(OperatorChain, RecordPredecessorEditsAreFollowed) {
    auto exposure = makeSharedPtr<SimpleExposureOperator>();
    exposure->set("simpleExposure", 1.f);
    auto identity = makeSharedPtr<IdentityOperator>();
    identity->set("predecessor", EntityHolder<Entity>(exposure));
    identity->prepareForApplication({});
    EXPECT_EQ(identity->getPredecessor(), EntityHolder<IColorMappingOperator>(exposure));
    EXPECT_EQ(identity->map(Rgb(1.f), {}), Rgb(2.f));
}

// ---------------------------------------------------------------- every operator

/// One of the fourteen operators, set to a value that changes colours.
struct OperatorCase {
    String name;
    Function<SharedPtr<UnaryColorMappingOperator>()> make;
    std::uint32_t excludeBit;  ///< 0: tests no bit
    bool invertible;
    float tolerance;           ///< round trip, relative to max(1, largest channel)
    float maxInput;            ///< largest channel value of the round-trip grid
    /// Where the round trip must hold (default: everywhere on the grid).
    Function<bool(Rgb const& input, Rgb const& mapped)> invertibleAt;
};

// Filmic leaves colours with a channel at 0 alone; ACES clips outside its gamut.
bool allPositive(Rgb const& c, Rgb const&) { return c.r > 0.f && c.g > 0.f && c.b > 0.f; }
// The contrast curve's fitted encoding bends back below about 0.001.
bool contrastInvertible(Rgb const& c, Rgb const&) {
    for (int ch = 0; ch < 3; ++ch)
        if (c[ch] != 0.f && c[ch] < 1e-3f) return false;
    return true;
}
bool insideDisplayRange(Rgb const&, Rgb const& m) {
    return m.r > 0.f && m.g > 0.f && m.b > 0.f && m.r < 1.f && m.g < 1.f && m.b < 1.f;
}

template <typename T> Function<SharedPtr<UnaryColorMappingOperator>()> maker(Function<void(T&)> setUp = {}) {
    return [setUp] {
        auto op = makeSharedPtr<T>();
        if (setUp) setUp(*op);
        return SharedPtr<UnaryColorMappingOperator>(op);
    };
}

Stack<OperatorCase> allOperators() {
    return {
        {"SimpleExposure", maker<SimpleExposureOperator>([](auto& o) { o.set("simpleExposure", 1.5f); }), 0x1, true, 1e-6f, 100.f},
        {"PhotographicExposure", maker<PhotographicExposureOperator>(), 0x1, true, 1e-6f, 100.f},
        {"WhiteBalance", maker<WhiteBalanceOperator>([](auto& o) { o.set("colorTemperature", 4000.f); }), 0x2, true, 1e-6f, 100.f},
        {"GreenMagentaTint", maker<GreenMagentaTintOperator>([](auto& o) { o.set("greenMagentaTint", 0.4f); }), 0x4, true, 5e-5f, 100.f},
        {"Saturation", maker<SaturationOperator>([](auto& o) { o.set("saturation", 0.3f); }), 0x8, true, 1e-5f, 100.f},
        {"Reinhard", maker<ReinhardOperator>([](auto& o) { o.set("highlightCompression", 3.f); }), 0x10, true, 1e-5f, 100.f},
        {"Filmic", maker<FilmicOperator>([](auto& o) { o.set("richShadows", 0.4f); }), 0x20, true, 3e-4f, 10.f, allPositive},
        {"ContrastSteep", maker<ContrastOperator>([](auto& o) { o.set("contrast", 1.6f); }), 0x40, true, 1e-5f, 100.f, contrastInvertible},
        {"ContrastFlat", maker<ContrastOperator>([](auto& o) { o.set("contrast", 0.6f); }), 0x40, true, 1e-5f, 100.f, contrastInvertible},
        {"Tint", maker<TintOperator>([](auto& o) { o.set("tint", Rgb(0.8f, 0.6f, 0.9f)); }), 0x100, true, 1e-6f, 100.f},
        {"LinearToSrgb", maker<LinearToSrgbOperator>(), 0x200, true, 5e-5f, 100.f},
        {"SrgbToLinear", maker<SrgbToLinearOperator>(), 0x200, true, 5e-5f, 100.f},
        {"AcesOt", maker<AcesOtOperator>(), 0x2000, true, 2e-4f, 4.f, insideDisplayRange},
        {"Vignette", maker<VignetteOperator>([](auto& o) { o.set("intensity", 1.f); }), 0, false, 0.f, 0.f},
        {"Identity", maker<IdentityOperator>(), 0, true, 0.f, 100.f},
    };
}

class EveryOperatorTest : public testing::TestWithParam<OperatorCase> {
protected:
    static Stack<Rgb> probes(float maxInput) {
        Stack<Rgb> out;
        float const values[] = {0.f, 1e-5f, 0.003f, 0.18f, 0.5f, 0.999f, 1.f, 1.7f, 10.f, 100.f};
        for (float a : values)
            for (float b : values)
                if (a <= maxInput && b <= maxInput) out.push_back(Rgb(a, b, 0.5f * (a + b)));
        return out;
    }
    static ColorMappingContext context() {
        ColorMappingContext c;
        c.imageSize = {32.f, 32.f};
        return c;
    }
    SharedPtr<UnaryColorMappingOperator> preparedOperator(ColorMappingContext const& c = context()) const {
        auto op = GetParam().make();
        op->prepareForApplication(c);
        return op;
    }
    static Stack<Rgb> colors() {
        return {Rgb(0.f), Rgb(0.18f, 0.5f, 0.9f), Rgb(2.5f, 0.01f, 1.f), Rgb(-0.3f, 0.4f, 7.f), Rgb(1.f)};
    }
};

TEST_P(EveryOperatorTest, SwitchedOffInTheRecordOrTheContextIsTheIdentityBothWays) {
    ColorMappingContext off = context();
    off.applyOperators = false;
    for (bool const enabled : {false, true}) {
        auto op = GetParam().make();
        op->set("enabled", enabled);
        op->prepareForApplication(enabled ? off : context());
        for (Rgb c : colors()) {
            // Reinhard's curve stays in place with k = 1, which still maps negatives to 0.
            Rgb const expected = GetParam().name == "Reinhard" ? Rgb(std::max(c.r, 0.f), c.g, c.b) : c;
            EXPECT_EQ(op->map(c, {0, 0}), expected);
            EXPECT_EQ(op->unmap(c, NO_EXCLUDE), c);
        }
    }
}

TEST_P(EveryOperatorTest, UnmapUndoesMap) {
    auto const& param = GetParam();
    auto op = preparedOperator();
    if (!param.invertible) {
        // Position-dependent operators cannot be undone without the pixel: unmap leaves colours alone.
        for (Rgb c : probes(param.maxInput)) EXPECT_EQ(op->unmap(op->map(c, {3, 5}), NO_EXCLUDE), op->map(c, {3, 5}));
        return;
    }
    int checked = 0;
    for (Rgb c : probes(param.maxInput)) {
        Rgb const mapped = op->map(c, {3, 5});
        if (param.invertibleAt && !param.invertibleAt(c, mapped)) continue;
        ++checked;
        Rgb const back = op->unmap(mapped, NO_EXCLUDE);
        float const scale = std::max({1.f, c.r, c.g, c.b});
        for (int ch = 0; ch < 3; ++ch)
            EXPECT_NEAR(back[ch], c[ch], param.tolerance * scale)
                << "(" << c.r << ", " << c.g << ", " << c.b << ") channel " << ch;
    }
    EXPECT_GT(checked, 30);
}

TEST_P(EveryOperatorTest, ItsOwnExclusionBitAndOnlyThatSkipsIt) {
    auto const& param = GetParam();
    auto op = preparedOperator();
    Rgb const c(0.3f, 0.6f, 0.45f);
    Rgb const undone = op->unmap(c, NO_EXCLUDE);
    for (int b = 0; b < 14; ++b) {
        std::uint32_t const flag = 1u << b;
        Rgb const result = op->unmap(c, bit(flag));
        if (flag == param.excludeBit) EXPECT_EQ(result, c) << "bit " << b;
        else EXPECT_EQ(result, undone) << "bit " << b;
    }
    EXPECT_EQ(op->unmap(c, bit(COLOR_MAPPING_EXCLUDE_ALL)), c);
    if (param.excludeBit != 0 && param.name != "Identity") EXPECT_NE(undone, c) << "operator does nothing";
}

TEST_P(EveryOperatorTest, BucketMappingEqualsColourMappingAndKeepsAlpha) {
    auto op = preparedOperator();
    Stack<RgbAlpha> bucket;
    Stack<Rgb> plain;
    for (Rgb c : colors()) {
        bucket.push_back(RgbAlpha(c, 0.5f));
        plain.push_back(c);
    }
    Pixel const origin(2, 3), extent(int(bucket.size()), 1);
    // A pixel past the extent is not part of the bucket.
    Rgb const sentinel(0.3f, 0.6f, 0.45f);
    bucket.push_back(RgbAlpha(sentinel, 1.f));
    plain.push_back(sentinel);
    op->map(std::span<RgbAlpha>(bucket), origin, extent);
    op->map(std::span<Rgb>(plain), origin, extent);
    EXPECT_EQ(bucket.back().rgb(), sentinel);
    EXPECT_EQ(plain.back(), sentinel);
    auto const source = colors();
    for (std::size_t k = 0; k < source.size(); ++k) {
        Rgb const expected = op->map(source[k], Pixel(origin.x + int(k), origin.y));
        EXPECT_EQ(plain[k], expected) << k;
        EXPECT_EQ(bucket[k].rgb(), expected) << k;
        EXPECT_EQ(bucket[k].alpha, 0.5f);
    }
}

INSTANTIATE_TEST_SUITE_P(Operators, EveryOperatorTest, testing::ValuesIn(allOperators()),
                         [](testing::TestParamInfo<OperatorCase> const& info) { return info.param.name; });

TEST(EveryOperatorChain, AllExclusionBitsUndoNothingThroughAWholeChain) {
    EntityHolder<UnaryColorMappingOperator> chain;
    for (auto const& c : allOperators()) {
        auto op = c.make();
        if (chain) op->setPredecessor(chain);
        chain = op;
    }
    chain->prepareForApplication({});
    for (Rgb c : {Rgb(0.2f, 0.5f, 0.7f), Rgb(0.f), Rgb(1.f, 0.f, 0.5f)})
        EXPECT_EQ(chain->unmap(c, bit(COLOR_MAPPING_EXCLUDE_ALL)), c);
}

} // namespace
