#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/AcesOtOperator.h"
#include "Ferrim/colorMappingOperators/AdvancedFilmicOperator.h"
#include "Ferrim/colorMappingOperators/CurvesOperator.h"
#include "Ferrim/colorMappingOperators/FilmicOperator.h"
#include "Ferrim/colorMappingOperators/LutOperator.h"
#include "Ferrim/colorMappingOperators/MiscOperators.h"
#include "Ferrim/colorMappingOperators/ReinhardOperator.h"
#include "Ferrim/colorMappingOperators/ToneCurveOperator.h"
#include "QuelinLib/ColorMath.h"

using namespace Quelin;
using Testing::expectNear;

namespace {

constexpr auto NO_EXCLUDE = Flags<ColorMappingExclude>();
Flags<ColorMappingExclude> bit(std::uint32_t b) { return Flags<ColorMappingExclude>::fromBits(b); }

using Maker = Function<SharedPtr<UnaryColorMappingOperator>()>;
template <typename T> Maker maker(Function<void(T&)> setUp = {}) {
    return [setUp] {
        auto op = makeSharedPtr<T>();
        if (setUp) setUp(*op);
        return SharedPtr<UnaryColorMappingOperator>(op);
    };
}
template <typename T> Maker with(char const* property, PropertyValue value) {
    return maker<T>([property, value](T& o) { o.set(property, value); });
}

ColorMappingContext context(float fNumber = 8.f, bool apply = true) {
    ColorMappingContext c;
    c.iso = 100.f, c.fNumber = fNumber, c.shutterSpeed = 100.f, c.applyOperators = apply;
    c.imageSize = {32.f, 32.f};
    return c;
}

// ---------------------------------------------------------------- reference values of the single operators

struct ValueCase {
    char const* name;
    Maker make;
    Rgb in, out;
    float tolerance = 0.f;  ///< 0: exact
    bool unmap = false;
    ColorMappingContext context = ::context();
};

Stack<ValueCase> valueCases() {
    using Gm = GreenMagentaTintOperator;
    auto const reinhard4 = with<ReinhardOperator>("highlightCompression", 4.f);
    ColorMappingContext const off = context(8.f, false);
    return {
        {"PhotographicUsesTheCamera", maker<PhotographicExposureOperator>(), Rgb(1.f), Rgb(0.02223f), 1e-5f, false, context(16.f)},
        {"PhotographicNeutralWithoutAperture", maker<PhotographicExposureOperator>(), Rgb(0.7f), Rgb(0.7f), 0.f, false, context(0.f)},
        {"WhiteBalanceMakesTheLightWhite", with<WhiteBalanceOperator>("colorTemperature", 3000.f), planckianRgb(3000) * 0.5f,
         planckianRgb(6500) * 0.5f, 1e-4f},
        {"TintRemovedChannelsStayZero", with<TintOperator>("tint", Rgb(1.f, 0.f, 1.f)), Rgb(0.5f), Rgb(0.5f, 0.f, 0.5f), 0.f, true},
        {"ContrastSteepens", with<ContrastOperator>("contrast", 2.f), Rgb(0.03f, 0.7f, 0.18f), Rgb(0.0254553f, 0.7257325f, 0.177388f), 1e-6f},
        {"ContrastFlattens", with<ContrastOperator>("contrast", 0.5f), Rgb(0.03f, 0.7f, 0.18f), Rgb(0.060237f, 0.568988f, 0.191816f), 1e-6f},
        {"ContrastKeepsBlackAndWhite", with<ContrastOperator>("contrast", 2.f), Rgb(0.f, 1.f, 0.f), Rgb(0.f, 1.f, 0.f)},
        {"DesaturatedIsTheGreyOfTheMaximum", with<SaturationOperator>("saturation", -1.f), Rgb(0.2f, 0.9f, 0.5f), Rgb(0.9f), 1e-6f},
        // Hue and value stay; the offset moves the saturation, past 1 too.
        {"SaturationLowered", with<SaturationOperator>("saturation", -0.7f), Rgb(0.8f, 0.2f, 0.2f), Rgb(0.8f, 0.76f, 0.76f), 1e-6f},
        {"SaturationRaised", with<SaturationOperator>("saturation", 0.4f), Rgb(0.8f, 0.2f, 0.2f), Rgb(0.8f, -0.12f, -0.12f), 1e-6f},
        {"GreenMagentaFullGreen", with<Gm>("greenMagentaTint", 1.f), Rgb(0.25f), Rgb(0.1408f, 0.3752f, 0.1408f), 1e-4f},
        {"GreenMagentaKeepsTheSign", with<Gm>("greenMagentaTint", 1.f), Rgb(-0.25f), Rgb(-0.1408f, -0.3752f, -0.1408f), 1e-4f},
        {"SrgbToLinearAppliesGamma", maker<SrgbToLinearOperator>(), Rgb(0.5f, -0.5f, 1.f), Rgb(0.2176f, -0.2176f, 1.f), 1e-4f},
        {"ReinhardWhitePointToOne", reinhard4, Rgb(4.f), Rgb(1.f), 1e-6f},
        // Off, the curve stays with k = 1 (see the switched-off test): no
        // input maps below 0, so negative display values unmap as 0.
        {"ReinhardOffUnmapTakesNegativesAsZero", reinhard4, Rgb(0.37f, -0.5f, -3.f), Rgb(0.37f, 0.f, 0.f), 0.f, true, off},
    };
}

TEST(OperatorValues, MatchTheReference) {
    for (ValueCase const& c : valueCases()) {
        SCOPED_TRACE(c.name);
        auto op = c.make();
        op->prepareForApplication(c.context);
        Rgb const result = c.unmap ? op->unmap(c.in, NO_EXCLUDE) : op->map(c.in, {});
        if (c.tolerance == 0.f || !std::isfinite(c.out.b)) {
            EXPECT_EQ(result, c.out);
        } else {
            expectNear(result, c.out, c.tolerance);
        }
    }
}

TEST(VignetteOperator, DarkensTowardsTheCornersOnly) {
    auto vignette = [](float intensity, bool allowed) {
        auto op = with<VignetteOperator>("intensity", intensity)();
        ColorMappingContext c = context();
        c.imageSize = {64.f, 32.f}, c.vignetteAllowed = allowed;
        op->prepareForApplication(c);
        return op;
    };
    auto op = vignette(0.8f, true);
    float const edge = op->map(Rgb(1.f), {0, 16}).r, corner = op->map(Rgb(1.f), {0, 0}).r;
    EXPECT_FLOAT_EQ(op->map(Rgb(1.f), {32, 16}).r, 1.f);
    EXPECT_TRUE(0.f < corner && corner < edge && edge < 1.f) << corner << " " << edge;
    EXPECT_EQ(vignette(1.f, false)->map(Rgb(1.f), {0, 0}), Rgb(1.f));
}

TEST(OperatorOverrides, ExposureKeepsItsRecordOthersWriteTheirsAndUnknownsAreReported) {
    auto contrast = makeSharedPtr<ContrastOperator>();
    auto exposure = makeSharedPtr<SimpleExposureOperator>();
    exposure->set("simpleExposure", 1.f);
    contrast->setPredecessor(exposure);
    String errors;
    ToneMappingPropertyOverride const set[] = {{"Zatho.SimpleExposureOperator", "simpleExposure", 2.f},
                                               {"Zatho.ContrastOperator", "contrast", 1.5f}};
    contrast->applyOverrides(set, errors);
    contrast->prepareForApplication({});
    EXPECT_TRUE(errors.empty()) << errors;
    EXPECT_EQ(exposure->getMultiplier(), 4.f);
    EXPECT_EQ(exposure->get<float>("simpleExposure"), 1.f);
    EXPECT_EQ(contrast->get<float>("contrast"), 1.5f);
    ToneMappingPropertyOverride const more[] = {{"Zatho.SimpleExposureOperator", "simpleExposure", std::monostate()},
                                                {"Zatho.ContrastOperator", "sharpness", 1.f}};
    contrast->applyOverrides(more, errors);
    contrast->prepareForApplication({});
    EXPECT_EQ(exposure->getMultiplier(), 2.f);  // cleared: the record's value again
    EXPECT_NE(errors.find("sharpness"), String::npos);
    ToneMappingPropertyOverride const tooMuch[] = {{"Zatho.SimpleExposureOperator", "simpleExposure", 40.f}};
    contrast->applyOverrides(tooMuch, errors);
    contrast->prepareForApplication({});
    EXPECT_EQ(exposure->getMultiplier(), std::exp2(20.f));  // clamped like the record would be
}

TEST(OperatorChain, MapsFirstToLastAndUnmapsLastToFirst) {
    auto exposure = with<SimpleExposureOperator>("simpleExposure", 1.f)();
    auto tint = with<TintOperator>("tint", Rgb(0.5f, 1.f, 0.25f))();
    tint->setPredecessor(exposure);
    tint->prepareForApplication({});  // prepares the whole chain
    EXPECT_EQ(tint->map(Rgb(0.3f), {}), Rgb(0.3f, 0.6f, 0.15f));
    EXPECT_EQ(tint->unmap(Rgb(0.3f, 0.6f, 0.15f), NO_EXCLUDE), Rgb(0.3f));
    // Skipping the tint still undoes the exposure.
    EXPECT_EQ(tint->unmap(Rgb(0.3f, 0.6f, 0.15f), ColorMappingExclude::Tint), Rgb(0.15f, 0.3f, 0.075f));
    // The record's predecessor is followed when it is edited directly.
    auto identity = makeSharedPtr<IdentityOperator>();
    identity->set("predecessor", EntityHolder<Entity>(exposure));
    identity->prepareForApplication({});
    EXPECT_EQ(identity->map(Rgb(1.f), {}), Rgb(2.f));
}

// ---------------------------------------------------------------- what single operators do beyond the shared round trips

template <typename T> SharedPtr<T> prepared(Function<void(T&)> const& setUp, ColorMappingContext const& c = {}) {
    auto op = makeSharedPtr<T>();
    setUp(*op);
    op->prepareForApplication(c);
    return op;
}
SharedPtr<FilmicOperator> filmic(float highlights, float shadows) {
    return prepared<FilmicOperator>([&](FilmicOperator& o) { o.set("highlightCompression", highlights), o.set("richShadows", shadows); });
}
SharedPtr<AcesOtOperator> aces(float opacity) {
    return prepared<AcesOtOperator>([&](AcesOtOperator& o) { o.set("opacity", opacity); });
}

TEST(FilmicOperator, FullStrengthIsTheCurveZeroIsNothingUnmapClampsAndSmallChangesKeepThePreparedState) {
    auto const full = filmic(1.f, 1.f);
    for (float x : {1e-4f, 0.01f, 0.18f, 0.7f, 1.f, 3.f, 20.f}) {
        float const shown = FilmicOperator::curve(Float4(x))[0];
        EXPECT_FLOAT_EQ(full->map(Rgb(x), {}).r, shown);
        float const back = full->unmap(Rgb(shown), NO_EXCLUDE).r;
        EXPECT_NEAR(full->map(Rgb(back), {}).r, shown, 1e-6f * back + 1e-7f) << x;
    }
    auto const zero = filmic(0.f, 0.f);
    Rgb const c(0.3f, 2.f, 0.01f);
    EXPECT_EQ(zero->map(c, {}), c);
    EXPECT_EQ(zero->unmap(c, NO_EXCLUDE), c);
    // Display values above the cap are the cap; a channel at or below 0 comes from 0, the others are still undone.
    auto const op = filmic(1.f, 0.3f);
    EXPECT_EQ(op->unmap(Rgb(1.5f, 0.5f, 0.2f), NO_EXCLUDE), op->unmap(Rgb(1.f, 0.5f, 0.2f), NO_EXCLUDE));
    for (Rgb const& d : {Rgb(0.f, 0.5f, 0.5f), Rgb(0.2f, -0.1f, 0.5f)}) {
        Rgb const back = op->unmap(d, NO_EXCLUDE), again = op->map(back, {});
        for (int ch = 0; ch < 3; ++ch) {
            if (d[ch] <= 0.f) EXPECT_EQ(back[ch], 0.f);
            else EXPECT_NEAR(again[ch], d[ch], 1e-6f);
        }
    }
    // Changes below the preparation threshold keep the prepared state.
    auto tuned = filmic(0.9f, 0.5f);
    Rgb const before = tuned->map(Rgb(0.25f), {});
    tuned->set("richShadows", 0.50005f);
    tuned->prepareForApplication({});
    EXPECT_EQ(tuned->map(Rgb(0.25f), {}), before);
    tuned->set("richShadows", 0.6f);
    tuned->prepareForApplication({});
    EXPECT_NE(tuned->map(Rgb(0.25f), {}), before);
}

TEST(AcesOtOperator, FullOpacityIsTheCurveUpToThePoleAndOpacityBlendsThroughTheUnmappingTable) {
    auto const op = aces(1.f);
    for (float v : {0.01f, 0.18f, 1.f, 5.f}) expectNear(op->map(Rgb(v), {}), Rgb(AcesOtOperator::curve(v)), 1e-5f);
    for (float v : {0.01f, 0.18f, 0.5f, 0.99f}) EXPECT_NEAR(op->map(op->unmap(Rgb(v), NO_EXCLUDE), {}).g, v, 3e-4f);
    // A display value of exactly 1 is well defined (the pole is at 1.0165402).
    Rgb const white = op->unmap(Rgb(1.f), NO_EXCLUDE);
    EXPECT_TRUE(std::isfinite(white.r) && white.r > 10.f);
    EXPECT_EQ(op->unmap(Rgb(1.f), NO_EXCLUDE), op->unmap(Rgb(3.f), NO_EXCLUDE));  // clamped first
    // Lower opacities blend through the unmapping table.
    auto const none = aces(0.f);
    EXPECT_EQ(none->map(Rgb(0.3f, 4.f, 0.f), {}), Rgb(0.3f, 4.f, 0.f));
    for (float v : {0.f, 0.1f, 0.37f, 0.8f, 1.f}) EXPECT_NEAR(none->unmap(Rgb(v), NO_EXCLUDE).r, v, 1e-6f);
    EXPECT_FLOAT_EQ(none->unmap(Rgb(2.5f), NO_EXCLUDE).r, 1.f);
    EXPECT_EQ(none->unmap(Rgb(-0.5f), NO_EXCLUDE).r, 0.f);
    auto const& table = AcesOtOperator::unmappingTable();
    auto const onNode = aces(7.f / 15.f);
    // Half way between value rows at a fixed column: the mean of the two entries.
    EXPECT_NEAR(onNode->unmap(Rgb(5.5f / 15.f), NO_EXCLUDE).r, 0.5f * (table[5 * 16 + 7] + table[6 * 16 + 7]), 1e-5f);
    // On a node: the table entries, channel by channel, without the matrices.
    expectNear(onNode->unmap(Rgb(5.f / 15.f, 0.f, 1.f), NO_EXCLUDE), Rgb(table[5 * 16 + 7], 0.f, table[15 * 16 + 7]), 1e-5f);
    // The table is the reference; a grey round trip through it lands close.
    auto const faded = aces(0.6f);
    for (float v : {0.05f, 0.2f, 0.5f, 0.8f}) EXPECT_NEAR(faded->map(faded->unmap(Rgb(v), NO_EXCLUDE), {}).r, v, 0.02f) << v;
}

TEST(MonotoneCurve, PassesThroughPointsStaysMonotoneWithoutOvershootAndInvertsPickingMiddlesOfFlats) {
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
    // The inverse undoes evaluate and picks the middle of a flat.
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
    expectNear(op->map(Rgb(0.5f), {}), Rgb(0.5f, 0.25f, 0.25f), 1e-3f);  // master 0.5 -> 0.25, red 0.25 -> 0.5
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
        o.set("contrast", 1.f), o.set("toe", 0.f), o.set("shoulderStrength", 1.f), o.set("whitePoint", 10.f);
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

ColorMappingContext gamma22() {
    ColorMappingContext c;
    c.gamma = 2.2f;
    return c;
}

TEST(LutOperator, NeutralUntilAFileReadsThenAppliesInDisplayEncodingAndKeepsLoadErrorsUntilFixed) {
    auto op = prepared<LutOperator>([](auto&) {}, gamma22());
    EXPECT_TRUE(op->isNeutral());
    EXPECT_TRUE(op->getLoadError().empty());
    // An unreadable file: neutral both ways, with the error naming file and line.
    String const bad = String(FERRIM_TESTDATA_DIR) + "/lut/error_truncated_file.3dl";
    op->set("path", bad);
    op->prepareForApplication(gamma22());
    EXPECT_TRUE(op->isNeutral());
    EXPECT_NE(op->getLoadError().find(bad + ":375:"), String::npos) << op->getLoadError();
    Rgb const in(0.2f, 0.4f, 0.05f);
    EXPECT_EQ(op->map(in, {}), in);
    EXPECT_EQ(op->unmap(in, {}), in);
    // A readable file clears the error and applies in the display encoding.
    op->set("path", getDefaultLut());
    op->prepareForApplication(gamma22());
    ASSERT_FALSE(op->isNeutral()) << op->getLoadError();
    EXPECT_TRUE(op->getLoadError().empty());
    auto power = [](Rgb c, float e) {
        for (int ch = 0; ch < 3; ++ch) c[ch] = std::pow(std::max(c[ch], 0.f), e);
        return c;
    };
    Rgb const out = op->map(in, {});
    expectNear(out, power(getDefaultLutData().apply(power(in, 1.f / 2.2f), LutInterpolation::Tetrahedral), 2.2f), 1e-5f);
    // Half opacity lands half-way between the input and the full look.
    op->set("lut_opacity", 0.5f);
    op->prepareForApplication(gamma22());
    expectNear(op->map(in, {}), (in + out) * 0.5f, 1e-5f);
}

// ---------------------------------------------------------------- every operator

/// An operator set to a value that changes colours.
struct OperatorCase {
    String name;
    Maker make;
    std::uint32_t excludeBit;  ///< 0: tests no bit
    float tolerance;           ///< round trip, relative to max(1, largest channel); negative: not invertible
    float maxInput;            ///< largest channel value of the round-trip grid
    /// Where the round trip must hold (default: everywhere on the grid).
    Function<bool(Rgb const& input, Rgb const& mapped)> invertibleAt;
};

// Filmic leaves colours with a channel at 0 alone; ACES clips outside its gamut.
bool allPositive(Rgb const& c, Rgb const&) { return c.r > 0.f && c.g > 0.f && c.b > 0.f; }
// The contrast curve's fitted encoding bends back below about 0.001.
bool contrastInvertible(Rgb const& c, Rgb const&) {
    return std::ranges::none_of(std::array{c.r, c.g, c.b}, [](float v) { return v != 0.f && v < 1e-3f; });
}
bool insideDisplayRange(Rgb const&, Rgb const& m) { return m.r > 0.f && m.g > 0.f && m.b > 0.f && m.r < 1.f && m.g < 1.f && m.b < 1.f; }
// A LUT clips at its lattice ends.
bool insideTheLattice(Rgb const& c, Rgb const&) { return std::ranges::all_of(std::array{c.r, c.g, c.b}, [](float v) { return v > 0.02f && v < 0.95f; }); }

Stack<OperatorCase> allOperators() {
    auto curves = [](CurvesOperator& o) {
        o.set("curves_master", makeCurvePoints({{0.f, 0.f}, {0.25f, 0.18f}, {0.75f, 0.85f}, {1.f, 1.f}}));
        o.set("curves_blue", makeCurvePoints({{0.f, 0.05f}, {1.f, 0.9f}}));
    };
    auto toneCurve = makeCurvePoints({{-6.f, -7.f}, {0.f, 0.f}, {5.f, 2.5f}});
    auto fadedLut = [](LutOperator& o) {
        o.set("path", getDefaultLut());
        o.set("lut_opacity", 0.6f);
        o.set("lut_interpolation", LutInterpolation::Trilinear);
        o.set("lut_applyInSrgb", false);
    };
    return {
        {"SimpleExposure", with<SimpleExposureOperator>("simpleExposure", 1.5f), 0x1, 1e-6f, 100.f},
        {"PhotographicExposure", maker<PhotographicExposureOperator>(), 0x1, 1e-6f, 100.f},
        {"WhiteBalance", with<WhiteBalanceOperator>("colorTemperature", 4000.f), 0x2, 1e-6f, 100.f},
        {"GreenMagentaTint", with<GreenMagentaTintOperator>("greenMagentaTint", 0.4f), 0x4, 5e-5f, 100.f},
        {"Saturation", with<SaturationOperator>("saturation", 0.3f), 0x8, 1e-5f, 100.f},
        {"Reinhard", with<ReinhardOperator>("highlightCompression", 3.f), 0x10, 1e-5f, 100.f},
        {"Filmic", with<FilmicOperator>("richShadows", 0.4f), 0x20, 3e-4f, 10.f, allPositive},
        {"ContrastSteep", with<ContrastOperator>("contrast", 1.6f), 0x40, 1e-5f, 100.f, contrastInvertible},
        {"ContrastFlat", with<ContrastOperator>("contrast", 0.6f), 0x40, 1e-5f, 100.f, contrastInvertible},
        {"Tint", with<TintOperator>("tint", Rgb(0.8f, 0.6f, 0.9f)), 0x100, 1e-6f, 100.f},
        {"LinearToSrgb", maker<LinearToSrgbOperator>(), 0x200, 5e-5f, 100.f},
        {"SrgbToLinear", maker<SrgbToLinearOperator>(), 0x200, 5e-5f, 100.f},
        {"Curves", maker<CurvesOperator>(curves), 0x400, 2e-4f, 1.f},
        {"AdvancedFilmic", maker<AdvancedFilmicOperator>(), 0x800, 2e-4f, 10.f},
        {"ToneCurve", with<ToneCurveOperator>("toneCurve_points", toneCurve), 0x1000, 2e-4f, 10.f},
        {"Lut", with<LutOperator>("path", getDefaultLut()), 0x80, 1e-4f, 1.f, insideTheLattice},
        {"LutFadedTrilinearInLinear", maker<LutOperator>(fadedLut), 0x80, 1e-4f, 1.f, insideTheLattice},
        {"AcesOt", maker<AcesOtOperator>(), 0x2000, 2e-4f, 4.f, insideDisplayRange},
        {"Vignette", with<VignetteOperator>("intensity", 1.f), 0, -1.f, 1.f},
    };
}

/// Channel values from 0 to `maxInput`, paired, with their mean as blue.
Stack<Rgb> probes(float maxInput) {
    Stack<Rgb> out;
    float const values[] = {0.f, 1e-5f, 0.003f, 0.05f, 0.18f, 0.3f, 0.5f, 0.7f, 0.9f, 0.999f, 1.f, 1.7f, 10.f, 100.f};
    for (float a : values)
        for (float b : values)
            if (a <= maxInput && b <= maxInput) out.push_back(Rgb(a, b, 0.5f * (a + b)));
    return out;
}

Stack<Rgb> const COLORS = {Rgb(0.f), Rgb(0.18f, 0.5f, 0.9f), Rgb(2.5f, 0.01f, 1.f),
                           Rgb(-0.3f, 0.4f, 7.f), Rgb(1.f), Rgb(0.6f, 0.02f, 0.3f)};

/// Maps COLORS as a bucket of 3 x 2 pixels at (2, 3), plain and with alpha
/// 0.5, and checks both against single-colour mapping and that the pixel past
/// the extent stays untouched.
void expectBucketsMapLikeColours(UnaryColorMappingOperator const& op) {
    Stack<RgbAlpha> withAlpha;
    for (Rgb c : COLORS) withAlpha.push_back(RgbAlpha(c, 0.5f));
    Rgb const sentinel(0.3f, 0.6f, 0.45f);
    Stack<Rgb> plain = COLORS;
    plain.push_back(sentinel);
    withAlpha.push_back(RgbAlpha(sentinel, 1.f));
    Pixel const origin(2, 3), extent(3, 2);
    op.map(std::span<RgbAlpha>(withAlpha), origin, extent);
    op.map(std::span<Rgb>(plain), origin, extent);
    EXPECT_EQ(withAlpha.back().rgb(), sentinel);
    EXPECT_EQ(plain.back(), sentinel);
    for (std::size_t k = 0; k < COLORS.size(); ++k) {
        Rgb const expected = op.map(COLORS[k], Pixel(origin.x + int(k) % 3, origin.y + int(k) / 3));
        EXPECT_EQ(plain[k], expected) << k;
        EXPECT_EQ(withAlpha[k], RgbAlpha(expected, 0.5f)) << k;
    }
}

class EveryOperatorTest : public testing::TestWithParam<OperatorCase> {};

TEST_P(EveryOperatorTest, SwitchedOffInTheRecordOrTheContextIsTheIdentityBothWays) {
    for (bool const enabled : {false, true}) {
        auto op = GetParam().make();
        op->set("enabled", enabled);
        op->prepareForApplication(context(8.f, !enabled));
        for (Rgb c : COLORS) {
            // Reinhard's curve stays in place with k = 1, which still maps negatives to 0 (and
            // unmaps them as 0).
            Rgb const kept = GetParam().name == "Reinhard" ? Rgb(std::max(c.r, 0.f), c.g, c.b) : c;
            EXPECT_EQ(op->map(c, {0, 0}), kept);
            EXPECT_EQ(op->unmap(c, NO_EXCLUDE), kept);
        }
        expectBucketsMapLikeColours(*op);
    }
}

TEST_P(EveryOperatorTest, UnmapUndoesMapOnlyItsOwnBitSkipsItAndBucketsMapLikeColours) {
    auto const& param = GetParam();
    auto op = param.make();
    op->prepareForApplication(context());
    expectBucketsMapLikeColours(*op);
    int checked = 0;
    for (Rgb c : probes(param.maxInput)) {
        Rgb const mapped = op->map(c, {3, 5});
        if (param.tolerance < 0.f) {
            // Position-dependent operators cannot be undone without the pixel: unmap leaves colours alone.
            EXPECT_EQ(op->unmap(mapped, NO_EXCLUDE), mapped);
            continue;
        }
        if (param.invertibleAt && !param.invertibleAt(c, mapped)) continue;
        ++checked;
        Rgb const back = op->unmap(mapped, NO_EXCLUDE);
        for (int ch = 0; ch < 3; ++ch)
            EXPECT_NEAR(back[ch], c[ch], param.tolerance * std::max({1.f, c.r, c.g, c.b})) << c.r << " " << c.g << " " << c.b << " channel " << ch;
    }
    EXPECT_TRUE(param.tolerance < 0.f || checked > 30) << checked;
    // Its own exclusion bit, and only that, skips it.
    Rgb const c(0.3f, 0.6f, 0.45f);
    Rgb const undone = op->unmap(c, NO_EXCLUDE);
    for (std::uint32_t flag = 1; flag < 1u << 14; flag <<= 1)
        EXPECT_EQ(op->unmap(c, bit(flag)), flag == param.excludeBit ? c : undone) << "bit " << flag;
    EXPECT_EQ(op->unmap(c, bit(COLOR_MAPPING_EXCLUDE_ALL)), c);
    EXPECT_TRUE(param.excludeBit == 0 || undone != c) << "operator does nothing";
}

INSTANTIATE_TEST_SUITE_P(Operators, EveryOperatorTest, testing::ValuesIn(allOperators()),
                         [](testing::TestParamInfo<OperatorCase> const& info) { return info.param.name; });

} // namespace
