#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>
#include <limits>
#include <random>

#include "Ferrim/ColorMapping.h"
#include "Ferrim/colorMappingOperators/ColorProgram.h"
#include "Ferrim/colorMappingOperators/CurvesOperator.h"
#include "Ferrim/colorMappingOperators/Lut.h"

using namespace Quelin;

namespace {

constexpr float INF = std::numeric_limits<float>::infinity();
constexpr float NaN = std::numeric_limits<float>::quiet_NaN();
constexpr WideIsa ALL_ISAS[] = {WideIsa::Scalar, WideIsa::Sse41, WideIsa::Avx2, WideIsa::Avx512};

using Setup = Function<void(UnaryColorMappingOperator&)>;

EntityHolder<UnaryColorMappingOperator> makeOperator(StringView type, Setup const& setup = {}) {
    auto op = ColorMappingOperatorFactory::getInstance().createOperator("Zatho." + String(type));
    if (setup) setup(*op);
    return op;
}

String isaName(WideIsa isa) { return wideIsaName(isa) == "sse4.1" ? String("sse41") : String(wideIsaName(isa)); }

/// Greys and channel combinations of zero, tiny, large, huge (up to FLT_MAX)
/// and (unless `nonNegative`) negative values, uniform ones around [0, 1]
/// (where LUTs interpolate), then non-finite ones: every width must map the
/// hostile floats as the chain does.
Stack<Rgb> gridColours(bool nonNegative = false) {
    Stack<float> pool = {0.f, 1e-30f, 3e-6f, 0.0123f, 0.18f, 0.5f, 0.999f, 1.f, 2.5f, 60.f, 1e4f, 1e19f, 1e38f, FLT_MAX};
    if (!nonNegative) pool.insert(pool.end(), {-1e-30f, -0.3f, -2.f});
    Stack<Rgb> colours;
    std::mt19937 rng(7);
    std::uniform_int_distribution<std::size_t> pick(0, pool.size() - 1);
    for (float v : pool) colours.push_back(Rgb(v));  // greys
    for (int i = 0; i < 400; ++i) colours.push_back(Rgb(pool[pick(rng)], pool[pick(rng)], pool[pick(rng)]));
    std::uniform_real_distribution<float> u(nonNegative ? 0.f : -0.1f, 1.1f);
    for (int i = 0; i < 300; ++i) colours.push_back(Rgb(u(rng), u(rng), u(rng)));
    for (float bad : {NaN, INF, -INF}) {
        colours.push_back(Rgb(bad, 0.2f, 0.4f));
        colours.push_back(Rgb(0.3f, 0.1f, bad));
        colours.push_back(Rgb(bad));
    }
    return colours;
}

/// Equal within `relative` of the larger of the value, the input's largest
/// channel `scale` (an operator that mixes channels rounds on their scale)
/// and 1; or both NaN; or the same infinity.
::testing::AssertionResult close(float actual, float expected, float relative, float scale = 1.f) {
    if (std::isnan(expected) || std::isinf(expected)) {
        if ((std::isnan(expected) && std::isnan(actual)) || actual == expected) return ::testing::AssertionSuccess();
    } else if (std::abs(actual - expected) <= relative * std::max({std::abs(expected), scale, 1.f})) {
        return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << actual << " instead of " << expected;
}

/// The program of `chain` for `isa` against the chain's own bucket mapping,
/// on the colours laid out as a bucket `width` wide at `origin`.
/// With `conditioned`, the tolerance of each colour grows with how much the
/// chain itself magnifies a small relative change of it, either way: a
/// rounding difference early in a chain is magnified as much by the steps
/// after it, and one that crosses a step's range edge (contrast acts inside
/// (0, 1) only) shows that edge's jump.
void expectProgramMatchesChain(EntityHolder<IColorMappingOperator> const& chain, WideIsa isa, Stack<Rgb> const& colours,
                               float relative, int width = 23, Pixel origin = Pixel(5, 9), bool conditioned = false) {
    ColorProgram const program = ColorProgram::compile(chain, isa);
    ASSERT_EQ(program.getIsa(), isa);
    Pixel const extent(width, int((colours.size() + std::size_t(width) - 1) / std::size_t(width)));
    Stack<Rgb> expected = colours, actual = colours;
    expected.resize(std::size_t(extent.x) * std::size_t(extent.y), Rgb(0.25f));
    actual.resize(expected.size(), Rgb(0.25f));
    constexpr float NUDGE = 1e-5f;
    Stack<Rgb> up = expected, down = expected;
    for (std::size_t i = 0; i < up.size(); ++i) {
        up[i] = up[i] * (1.f + NUDGE);
        down[i] = down[i] * (1.f - NUDGE);
    }
    chain->map(std::span<Rgb>(expected), origin, extent);
    chain->map(std::span<Rgb>(up), origin, extent);
    chain->map(std::span<Rgb>(down), origin, extent);
    program.map(std::span<Rgb>(actual), origin, extent);
    // Frames with alpha take the same path with a stride of four floats.
    Stack<RgbAlpha> withAlpha;
    for (std::size_t i = 0; i < actual.size(); ++i) withAlpha.push_back(RgbAlpha(i < colours.size() ? colours[i] : Rgb(0.25f), float(i)));
    program.map(std::span<RgbAlpha>(withAlpha), origin, extent);
    for (std::size_t i = 0; i < actual.size(); ++i) {
        Rgb const in = i < colours.size() ? colours[i] : Rgb(0.25f);
        float const scale = std::max({std::abs(in.r), std::abs(in.g), std::abs(in.b)});
        float gain = 1.f;
        for (int ch = 0; conditioned && ch < 3; ++ch) {
            float const change = std::max(std::abs(up[i][ch] - expected[i][ch]), std::abs(down[i][ch] - expected[i][ch]));
            float const g = change / (NUDGE * std::max(std::abs(expected[i][ch]), 1e-6f));
            if (std::isfinite(g)) gain = std::clamp(g, gain, 1e4f);
        }
        for (int ch = 0; ch < 3; ++ch) {
            ASSERT_TRUE(close(actual[i][ch], expected[i][ch], relative * gain, std::isfinite(scale) ? scale : 1.f))
                << "colour " << i << " (" << in.r << ", " << in.g << ", " << in.b << ") channel " << ch << ", "
                << wideIsaName(isa);
            ASSERT_TRUE(close(withAlpha[i].rgb()[ch], actual[i][ch], 0.f) || std::isnan(actual[i][ch])) << i;
        }
        ASSERT_EQ(withAlpha[i].alpha, float(i));
    }
}

struct OperatorCase {
    char const* name;
    char const* type;
    Setup setup;
    float relative = 2e-6f;     ///< operators on std::pow/log2/exp2 get the fast ones: 1e-5
};

void PrintTo(OperatorCase const& c, std::ostream* os) { *os << c.name; }

Setup set(std::initializer_list<std::pair<char const*, PropertyValue>> values) {
    return [list = Stack<std::pair<char const*, PropertyValue>>(values)](UnaryColorMappingOperator& op) {
        for (auto const& [name, value] : list) op.set(name, value);
    };
}
Setup setFloat(char const* name, float value) { return set({{name, value}}); }
/// `file` from the shared test data, or the default LUT.
Setup lut(LutInterpolation interpolation, bool inSrgb, float opacity, char const* file = nullptr) {
    return [=](UnaryColorMappingOperator& op) {
        op.set("path", file ? String(FERRIM_TESTDATA_DIR) + "/lut/" + file : getDefaultLut());
        op.set("lut_interpolation", int(interpolation));
        op.set("lut_applyInSrgb", inSrgb);
        op.set("lut_opacity", opacity);
    };
}

// The operator types that compile to steps of their own, some at two settings;
// switched-off and neutral ones are the random chains'.
OperatorCase const OPERATOR_CASES[] = {
    {"exposure_up", "SimpleExposureOperator", setFloat("simpleExposure", 2.5f)},
    {"photographic", "PhotographicExposureOperator", {}},
    {"white_balance_warm", "WhiteBalanceOperator", setFloat("colorTemperature", 3000.f)},
    {"tint", "TintOperator", set({{"tint", Rgb(1.f, 0.5f, 0.f)}})},
    {"green_magenta_green", "GreenMagentaTintOperator", setFloat("greenMagentaTint", 0.7f)},
    {"saturation_up", "SaturationOperator", setFloat("saturation", 0.6f)},
    // The contrast curves amplify rounding near black and white.
    {"contrast_steeper", "ContrastOperator", setFloat("contrast", 2.f), 1e-5f},
    {"contrast_flatter", "ContrastOperator", setFloat("contrast", 0.4f), 1e-5f},
    {"vignette", "VignetteOperator", set({{"intensity", 0.8f}, {"falloff", 0.5f}})},
    {"linear_to_srgb", "LinearToSrgbOperator", {}},
    {"srgb_to_linear", "SrgbToLinearOperator", {}},
    {"aces", "AcesOtOperator", {}},
    {"aces_faded", "AcesOtOperator", setFloat("opacity", 0.4f)},
    {"pbr_neutral", "PbrNeutralOperator", {}},
    {"agx", "AgxOperator", {}},
    {"reinhard", "ReinhardOperator", setFloat("highlightCompression", 4.f)},
    {"filmic", "FilmicOperator", {}},
    {"advanced_filmic", "AdvancedFilmicOperator", {}, 1e-5f},
    {"curves", "CurvesOperator",
     set({{"curves_master", makeCurvePoints({{0.f, 0.f}, {0.3f, 0.2f}, {0.8f, 0.9f}, {1.f, 1.f}})},
          {"curves_blue", makeCurvePoints({{0.f, 0.05f}, {1.f, 0.9f}})}})},
    {"tone_curve", "ToneCurveOperator", set({{"toneCurve_points", makeCurvePoints({{-8.f, -7.f}, {0.f, 0.f}, {5.f, 2.f}})}}), 1e-5f},
    {"tone_curve_preserving", "ToneCurveOperator",
     set({{"toneCurve_points", makeCurvePoints({{-6.f, -6.5f}, {0.f, 0.f}, {6.f, 3.f}})}, {"toneCurve_preserveColor", true}}),
     1e-5f},
    {"lut_tetrahedral_srgb", "LutOperator", lut(LutInterpolation::Tetrahedral, true, 1.f), 1e-5f},
    {"lut_trilinear_linear_faded", "LutOperator", lut(LutInterpolation::Trilinear, false, 0.6f)},
    {"lut_file_1d", "LutOperator", lut(LutInterpolation::Trilinear, false, 1.f, "iridas_1d.cube")},
    {"lut_file_3d_tetrahedral", "LutOperator", lut(LutInterpolation::Tetrahedral, false, 1.f, "iridas_3d.cube")},
};

class ColorProgramOperator : public ::testing::TestWithParam<std::tuple<OperatorCase, WideIsa>> {};

TEST_P(ColorProgramOperator, MatchesTheOperatorByOperatorPath) {
    auto const& [c, isa] = GetParam();
    if (!isWideIsaSupported(isa)) GTEST_SKIP() << wideIsaName(isa) << " is not available here";
    auto op = makeOperator(c.type, c.setup);
    ColorMappingContext context;
    context.imageSize = Vector2(64.f, 48.f);
    context.regionOffset = Vector2(3.f, 2.f);
    op->prepareForApplication(context);
    expectProgramMatchesChain(op, isa, gridColours(), c.relative);
}

INSTANTIATE_TEST_SUITE_P(EachType, ColorProgramOperator,
                         ::testing::Combine(::testing::ValuesIn(OPERATOR_CASES), ::testing::ValuesIn(ALL_ISAS)),
                         [](auto const& info) {
                             return String(std::get<0>(info.param).name) + "_" + isaName(std::get<1>(info.param));
                         });

class ColorProgramIsa : public ::testing::TestWithParam<WideIsa> {
protected:
    void SetUp() override {
        if (!isWideIsaSupported(GetParam())) GTEST_SKIP() << wideIsaName(GetParam()) << " is not available here";
    }
};

TEST_P(ColorProgramIsa, DefaultPipelineMatchesTheChainForEveryDisplayGamma) {
    // The power of the bounded ACES output runs from small tables: every
    // octave and quarter of [0, 1] (values over 70 decades), black and white
    // exact, for exponents of the wide, narrow and floored forms, and for one
    // too flat for the tables (the general power then); the hostile grid too.
    Stack<Rgb> colours = gridColours();
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> decade(-36.f, 36.f);
    auto value = [&] { return std::pow(10.f, decade(rng)); };
    for (int i = 0; i < 2000; ++i) colours.push_back(Rgb(value(), value(), value()));
    for (float grey : {0.f, 1e-30f, 1e-4f, 0.18f, 1.f, 1e30f, FLT_MAX}) colours.push_back(Rgb(grey));
    for (float gamma : {1.f, 1.8f, 2.2f, 2.4f, 2.6f, 0.5f, 1.f / 3.f, 4.f}) {
        SCOPED_TRACE(gamma);
        ColorMapping mapping;
        ColorMappingContext context;
        context.gamma = gamma;
        mapping.setContext(context);
        expectProgramMatchesChain(mapping.getAppliedChain(), GetParam(), colours, 2e-6f, 101);
        ColorProgram const program = ColorProgram::compile(mapping.getAppliedChain(), GetParam());
        Stack<Rgb> ends = {Rgb(0.f), Rgb(-5.f), Rgb(1e30f), Rgb(INF)};
        program.map(std::span<Rgb>(ends), Pixel(0, 0), Pixel(4, 1));
        EXPECT_EQ(ends, (Stack<Rgb>{Rgb(0.f), Rgb(0.f), Rgb(1.f), Rgb(1.f)}));
    }
}

TEST_P(ColorProgramIsa, RandomChainsMatchTheChain) {
    std::mt19937 rng(1234);
    for (int trial = 0; trial < 12; ++trial) {
        EntityHolder<UnaryColorMappingOperator> chain;
        float relative = 2e-6f;
        String names;
        for (int k = 0; k < 5; ++k) {
            OperatorCase const& c = OPERATOR_CASES[rng() % std::size(OPERATOR_CASES)];
            auto op = makeOperator(c.type, c.setup);
            // Some switched off: folding must reach across them.
            bool const enabled = rng() % 4 != 0;
            op->set("enabled", enabled);
            if (chain) op->setPredecessor(chain);
            chain = op;
            relative = std::max(relative, c.relative);
            names += String(c.name) + (enabled ? " " : "(off) ");
        }
        // Errors of one operator are carried and scaled by the ones after it.
        ColorMappingContext context;
        context.imageSize = Vector2(40.f, 40.f);
        chain->prepareForApplication(context);
        SCOPED_TRACE(names);
        expectProgramMatchesChain(chain, GetParam(), gridColours(true), relative * 50.f, 23, Pixel(5, 9), true);
    }
}

INSTANTIATE_TEST_SUITE_P(Widths, ColorProgramIsa, ::testing::ValuesIn(ALL_ISAS),
                         [](auto const& info) { return isaName(info.param); });

// ---------------------------------------------------------------- frames

TEST(ColorProgramShape, FramesRunTheProgramWithUnfoldedNonFinitePixels) {
    // A frame with a NaN and an infinity next to ordinary pixels, through
    // ColorMapping: the ordinary ones take the program, the others the chain.
    ColorMapping mapping;
    Stack<Rgb> frame(300, Rgb(0.3f, 0.2f, 0.1f));
    frame[17] = Rgb(NaN, 0.2f, 0.1f);
    frame[250] = Rgb(INF);
    Stack<Rgb> const source = frame;
    mapping.mapFrameBuffer(std::span<Rgb>(frame), 30, 10, 2);
    for (std::size_t i : {std::size_t(0), std::size_t(17), std::size_t(250)}) {
        Rgb const one = mapping.map(source[i], Pixel(int(i % 30), int(i / 30)));
        for (int ch = 0; ch < 3; ++ch) EXPECT_TRUE(close(frame[i][ch], one[ch], 1e-6f)) << i;
    }
}

} // namespace
