// Every float through every operator and the default pipeline (the compiled
// programs of every width take the same floats in ColorProgramTest's grid);
// the display transforms against independent double-precision transcriptions
// of their published definitions.
#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>

#include "Ferrim/ColorMapping.h"
#include "Ferrim/colorMappingOperators/AcesOtOperator.h"
#include "Ferrim/colorMappingOperators/CurvesOperator.h"
#include "Ferrim/colorMappingOperators/FilmicOperator.h"
#include "Ferrim/colorMappingOperators/Lut.h"
#include "Ferrim/colorMappingOperators/ReinhardOperator.h"
#include "QuelinLibImage/ImageDecode.h"

using namespace Quelin;

namespace {

constexpr float INF = std::numeric_limits<float>::infinity();
constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr float HOSTILE[] = {-INF, -1.f, -1e-30f, 0.f, 1e-30f, 1.f, 1e19f, 1e38f, FLT_MAX, INF, NaN};

/// How an operator's output is documented (README, "Out-of-range pixels").
enum class Output {
    Display,    ///< finite, in [0, 1]; huge values and +inf give the same as FLT_MAX
    Bounded,    ///< finite; negative input as 0
    Unbounded,  ///< never NaN; may be infinite
};

struct Case {
    String name;
    EntityHolder<IColorMappingOperator> chain;
    Output output;
    bool negativeAsZero = false;  ///< a curve not defined below 0 takes its value at 0
};

/// An operator of `type` set to act (most are neutral at their defaults).
EntityHolder<UnaryColorMappingOperator> make(StringView type) {
    auto op = ColorMappingOperatorFactory::getInstance().createOperator("Zatho." + String(type));
    std::pair<char const*, PropertyValue> const settings[] = {
        {"path", getDefaultLut()},           {"simpleExposure", 1.5f},   {"colorTemperature", 3000.f},
        {"tint", Rgb(1.f, 0.5f, 0.f)},       {"greenMagentaTint", 0.5f}, {"saturation", 0.5f},
        {"contrast", 1.5f},                  {"intensity", 0.8f},        {"highlightCompression", 0.8f},
        {"curves_master", makeCurvePoints({{0.f, 0.1f}, {0.5f, 0.4f}, {1.f, 1.f}})},
        {"toneCurve_points", makeCurvePoints({{-8.f, -7.f}, {0.f, 0.f}, {5.f, 2.f}})}};
    for (auto const& [name, value] : settings)
        if (op->getData().has(name)) op->set(name, value);
    if (type == "ReinhardOperator") op->set("highlightCompression", 4.f);
    if (type == "FilmicOperator") op->set("highlightCompression", 1.f);  // bounded: full compression
    ColorMappingContext context;
    context.imageSize = Vector2(11.f, 7.f);
    op->prepareForApplication(context);
    return op;
}

Stack<Case> cases() {
    Stack<Case> c;
    for (auto const& [type, d] : ColorMappingOperatorFactory::getInstance().getAllDescriptors()) {
        String const name = type.substr(type.find('.') + 1);
        Case k{name, make(name), Output::Unbounded};
        if (name == "AcesOtOperator" || name == "PbrNeutralOperator" || name == "AgxOperator") {
            k.output = Output::Display;
            k.negativeAsZero = true;
        } else if (name == "FilmicOperator") {
            k.output = Output::Bounded;
            k.negativeAsZero = true;
        } else if (name == "ReinhardOperator" || name == "LinearToSrgbOperator" || name == "AdvancedFilmicOperator") {
            k.negativeAsZero = true;
        }
        c.push_back(std::move(k));
    }
    c.push_back({"DefaultPipeline", ColorMapping().getAppliedChain(), Output::Display, true});
    return c;
}

/// Test colours: greys and one channel out of range beside ordinary ones.
Stack<Rgb> colours(float v) { return {Rgb(v), Rgb(v, 0.5f, 0.25f), Rgb(0.2f, v, 0.7f)}; }

bool same(float a, float b, float relative) {
    if (a == b) return true;
    return std::isfinite(a) && std::isfinite(b) && std::abs(a - b) <= relative * std::max({std::abs(a), std::abs(b), 1.f});
}

TEST(OutOfRange, EveryOperatorAndTheDefaultPipelineMapEveryFloatAsDocumented) {
    Stack<Case> const all = cases();
    ASSERT_GE(all.size(), 20u);
    for (Case const& k : all) {
        SCOPED_TRACE(k.name);
        Rgb const atZero = k.chain->map(Rgb(0.f), Pixel(3, 4));
        Rgb const atMax = k.chain->map(Rgb(FLT_MAX), Pixel(3, 4));
        for (float v : HOSTILE) {
            SCOPED_TRACE(v);
            for (Rgb const& in : colours(v)) {
                Rgb const out = k.chain->map(in, Pixel(3, 4));
                Rgb const back = k.chain->unmap(in, {});
                for (int ch = 0; ch < 3; ++ch) {
                    ASSERT_FALSE(std::isnan(out[ch]) || std::isnan(back[ch])) << ch;
                    if (k.output != Output::Unbounded) { ASSERT_TRUE(std::isfinite(out[ch])) << ch; }
                    if (k.output == Output::Display) { ASSERT_TRUE(out[ch] >= 0.f && out[ch] <= 1.f) << out[ch]; }
                }
                // A NaN channel reads as 0 in every operator.
                if (std::isnan(v)) {
                    Rgb zeroed = in;
                    for (int ch = 0; ch < 3; ++ch) zeroed[ch] = std::isnan(in[ch]) ? 0.f : in[ch];
                    EXPECT_EQ(out, k.chain->map(zeroed, Pixel(3, 4)));
                }
            }
            Rgb const grey = k.chain->map(Rgb(v), Pixel(3, 4));
            if (k.negativeAsZero && v < 0.f) { EXPECT_EQ(grey, atZero); }
            // Past where the curves saturate, huge values and +inf are their limit.
            if (k.output != Output::Unbounded && v >= 1e19f) {
                for (int ch = 0; ch < 3; ++ch) EXPECT_TRUE(same(grey[ch], atMax[ch], 1e-6f)) << grey[ch] << " vs " << atMax[ch];
            }
        }
        if (k.output == Output::Display) {
            Rgb const white = k.chain->map(Rgb(INF), Pixel(3, 4));
            EXPECT_GT(white.g, 0.99f);  // display white (AgX's sigmoid tops out just below 1)
        }
    }
}

TEST(OutOfRange, TheWideRangeTestImageMapsToDisplayValuesWithHugeValuesWhite) {
    // A real file with values from far below 0 to far above 1e20 (and not a NaN in sight of black).
    auto stream = Io::FileInputStream::open(Io::Path(FERRIM_TESTDATA_DIR) / "exr" / "WideFloatRange.exr");
    ASSERT_TRUE(stream) << stream.error();
    TaskProgress progress;
    Image const image = makeImage(**stream, ImageFormat::Exr, progress);
    Stack<RgbAlpha> source;
    for (int y = 0; y < image.getHeight(); ++y)
        for (int x = 0; x < image.getWidth(); ++x) source.push_back(image.getRgbAlpha(x, y));
    Stack<RgbAlpha> frame = source;
    ColorMapping().mapFrameBuffer(std::span<RgbAlpha>(frame), image.getWidth(), image.getHeight(), 2);
    int huge = 0;
    for (std::size_t i = 0; i < frame.size(); ++i) {
        for (int ch = 0; ch < 3; ++ch) ASSERT_TRUE(frame[i].rgb()[ch] >= 0.f && frame[i].rgb()[ch] <= 1.f) << i;
        Rgb const in = source[i].rgb();
        if (std::min({in.r, in.g, in.b}) > 1e20f) {
            ++huge;
            ASSERT_EQ(frame[i].rgb(), Rgb(1.f)) << i;
        }
        if (std::max({in.r, in.g, in.b}) <= 0.f) { ASSERT_EQ(frame[i].rgb(), Rgb(0.f)) << i; }
    }
    EXPECT_GT(huge, 1000);
}

// ---------------------------------------------------------------- display transforms

/// PBR Neutral as the Khronos publication writes it, in double precision.
Rgb referencePbrNeutral(Rgb c) {
    double const f90 = 0.04, ks = 0.8 - f90, kd = 0.15;
    double in[3] = {c.r, c.g, c.b};
    double const x = std::min({in[0], in[1], in[2]});
    double const f = x <= 2 * f90 ? x - x * x / (4 * f90) : f90;
    double p = 0;
    for (double& v : in) p = std::max(p, v -= f);
    if (p <= ks) return Rgb(float(in[0]), float(in[1]), float(in[2]));
    double const pn = 1 - (1 - ks) * (1 - ks) / (p + 1 - 2 * ks);
    double const g = 1 / (kd * (p - pn) + 1);
    Rgb out;
    for (int i = 0; i < 3; ++i) out[i] = float(in[i] * pn / p * g + pn * (1 - g));
    return out;
}

/// AgX after the "Minimal AgX Implementation" (its GLSL matrices are
/// column-major: the rows here are its columns), in double precision.
Rgb referenceAgx(Rgb c) {
    double const inset[3][3] = {{0.842479062253094, 0.0784335999999992, 0.0792237451477643},
                                {0.0423282422610123, 0.878468636469772, 0.0791661274605434},
                                {0.0423756549057051, 0.0784336, 0.879142973793104}};
    double const outset[3][3] = {{1.19687900512017, -0.0980208811401368, -0.0990297440797205},
                                 {-0.0528968517574562, 1.15190312990417, -0.0989611768448433},
                                 {-0.0529716355144438, -0.0980434501171241, 1.15107367264116}};
    double const minEv = -12.47393, maxEv = 4.026069;
    double in[3] = {c.r, c.g, c.b}, s[3];
    for (int i = 0; i < 3; ++i) {
        double v = inset[i][0] * in[0] + inset[i][1] * in[1] + inset[i][2] * in[2];
        v = (std::clamp(std::log2(v), minEv, maxEv) - minEv) / (maxEv - minEv);
        double const v2 = v * v, v4 = v2 * v2;
        s[i] = 15.5 * v4 * v2 - 40.14 * v4 * v + 31.96 * v4 - 6.868 * v2 * v + 0.4298 * v2 + 0.1191 * v - 0.00232;
    }
    Rgb out;
    for (int i = 0; i < 3; ++i)
        out[i] = float(std::clamp(std::pow(std::max(0.0, outset[i][0] * s[0] + outset[i][1] * s[1] + outset[i][2] * s[2]), 2.2), 0.0, 1.0));
    return out;
}

Stack<Rgb> sceneColours() {
    Stack<Rgb> c;
    float const levels[] = {0.f, 0.001f, 0.02f, 0.08f, 0.18f, 0.5f, 0.75f, 0.9f, 1.f, 2.f, 7.f, 40.f, 500.f};
    for (float r : levels)
        for (float g : levels)
            for (float b : {0.f, 0.03f, 0.18f, 1.f, 16.f}) c.push_back(Rgb(r, g, b));
    return c;
}

class DisplayTransform : public ::testing::TestWithParam<char const*> {};

// The compiled programs of every width are held to map() by ColorProgramTest.
TEST_P(DisplayTransform, MatchesItsPublishedDefinition) {
    auto op = make(GetParam());
    auto reference = String(GetParam()) == "AgxOperator" ? referenceAgx : referencePbrNeutral;
    for (Rgb const& c : sceneColours()) {
        Rgb const expected = reference(c), actual = op->map(c, {});
        for (int ch = 0; ch < 3; ++ch)
            ASSERT_NEAR(actual[ch], expected[ch], 1e-5f) << c.r << ", " << c.g << ", " << c.b << " channel " << ch;
    }
}

TEST_P(DisplayTransform, UnmapUndoesMapping) {
    auto op = make(GetParam());
    int roundTrips = 0;
    for (Rgb const& c : sceneColours()) {
        Rgb const display = op->map(c, {});
        // Colours the [0, 1] clamp or the log encoding's ends changed cannot come back.
        bool interior = std::min({display.r, display.g, display.b}) > 0.002f && std::max({display.r, display.g, display.b}) < 0.97f;
        if (String(GetParam()) == "AgxOperator") {
            // Inside AgX's log2 encoding: 2^-12.47 to 2^4.03 after the inset matrix.
            Rgb const inset(0.842479f * c.r + 0.0784336f * c.g + 0.0792237f * c.b,
                            0.0423282f * c.r + 0.878469f * c.g + 0.0791661f * c.b,
                            0.0423757f * c.r + 0.0784336f * c.g + 0.879143f * c.b);
            for (int ch = 0; ch < 3; ++ch) interior = interior && inset[ch] > 0.0002f && inset[ch] < 16.f;
        }
        if (!interior) continue;
        Rgb const back = op->unmap(display, {});
        for (int ch = 0; ch < 3; ++ch) ASSERT_NEAR(back[ch], c[ch], 2e-3f * std::max(1.f, c[ch])) << c.r << ", " << c.g << ", " << c.b;
        ++roundTrips;
    }
    EXPECT_GT(roundTrips, 100);
    // Through a colour mapping (display encoding included), as colour pickers reach it.
    ColorMapping mapping(op);
    Rgb const picked(0.3f, 0.55f, 0.12f), again = mapping.map(mapping.unmap(picked));
    for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(again[ch], picked[ch], 1e-4f);
    // Hostile display values unmap to finite, non-negative colours.
    for (float v : HOSTILE)
        for (float ch : {op->unmap(Rgb(v), {}).r, op->unmap(Rgb(v), {}).g, op->unmap(Rgb(v), {}).b}) EXPECT_TRUE(std::isfinite(ch) && ch >= 0.f) << v;
    EXPECT_EQ(op->unmap(Rgb(-1.f), {}), op->unmap(Rgb(0.f), {}));
}

INSTANTIATE_TEST_SUITE_P(Both, DisplayTransform, ::testing::Values("PbrNeutralOperator", "AgxOperator"));

} // namespace
