#include <gtest/gtest.h>

#include <limits>
#include <random>

#include "Ferrim/ColorMapping.h"
#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/DisplayViewOperator.h"
#include "TestSupport/TempFolderTest.h"

using namespace Quelin;

namespace {

EntityHolder<DisplayViewOperator> makeOperator(String input, String display, String view, String looks = {}) {
    auto op = ColorMappingOperatorFactory::getInstance().createOperator("Zatho.DisplayViewOperator").cast<DisplayViewOperator>();
    for (auto const& [name, value] : std::initializer_list<std::pair<char const*, String>>{
             {"inputSpace", input}, {"display", display}, {"view", view}, {"looks", looks}})
        op->set(name, value);
    op->prepareForApplication(ColorMappingContext());
    return op;
}

using DisplayViewOperatorTest = Testing::LibraryTempFolderTest;

} // namespace

TEST_F(DisplayViewOperatorTest, MapsLikeTheConfigsTransformOnEveryPathAndUnmapsThroughItsInverse) {
    auto const op = makeOperator("ACEScg", "sRGB - Display", "Standard", "One Stop Up");
    ASSERT_TRUE(op->getError().empty()) << op->getError();
    auto const reference = ColorSpaces::makeDisplayView({"ACEScg", "sRGB - Display", "Standard", "One Stop Up"});
    ASSERT_TRUE(reference);
    std::mt19937 rng(4);
    // Near-neutral colours: inside the display's gamut and range, where the
    // inverse exists (the display clips the rest).
    std::uniform_real_distribution<float> u(0.01f, 0.35f), tint(0.95f, 1.05f);
    Stack<Rgb> colors(1000);
    for (Rgb& c : colors) c = Rgb(u(rng)) * Rgb(tint(rng), tint(rng), tint(rng));
    Stack<Rgb> bucket = colors, compiled = colors;
    op->map(std::span<Rgb>(bucket), Pixel(0, 0), Pixel(1000, 1));
    ColorProgram::compile(op).map(std::span<Rgb>(compiled), Pixel(0, 0), Pixel(1000, 1));
    for (std::size_t i = 0; i < colors.size(); ++i) {
        Rgb const expected = reference->apply(colors[i]);
        for (int ch = 0; ch < 3; ++ch) {
            ASSERT_NEAR(op->map(colors[i], Pixel(0, 0))[ch], expected[ch], 1e-6f);
            ASSERT_NEAR(bucket[i][ch], expected[ch], 1e-6f);
            ASSERT_NEAR(compiled[i][ch], expected[ch], 1e-6f);
            // Within the display's range the inverse gives the scene colour back.
            ASSERT_NEAR(op->unmap(expected, {})[ch], colors[i][ch], 1e-4f) << i;
        }
    }
    // Non-finite input, through the compiled program: NaN as 0, infinities clipped by the display.
    float const inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    Stack<Rgb> odd = {Rgb(nan, nan, nan), Rgb(inf, inf, inf), Rgb(-inf, -inf, -inf)};
    ColorProgram::compile(op).map(std::span<Rgb>(odd), Pixel(0, 0), Pixel(3, 1));
    for (int ch = 0; ch < 3; ++ch) {
        EXPECT_NEAR(odd[0][ch], reference->apply(Rgb(0.f))[ch], 1e-6f);
        EXPECT_NEAR(odd[1][ch], 1.f, 1e-6f);
        EXPECT_NEAR(odd[2][ch], 0.f, 1e-6f);
    }
    // Excluded with the display encodings, unmapping leaves the colour alone.
    EXPECT_EQ(op->unmap(Rgb(0.5f), Flags<ColorMappingExclude>(ColorMappingExclude::SrgbConversion)), Rgb(0.5f));
}

TEST_F(DisplayViewOperatorTest, UnknownNamesLeaveItNeutralWithTheError) {
    auto const op = makeOperator("ACEScg", "sRGB - Display", "Filmic");
    EXPECT_TRUE(op->isNeutral());
    EXPECT_NE(op->getError().find("\"Filmic\""), String::npos) << op->getError();
    EXPECT_NE(op->getError().find("built-in config"), String::npos) << op->getError();
    EXPECT_EQ(op->map(Rgb(0.3f), Pixel(0, 0)), Rgb(0.3f));
    // Fixed, it maps again.
    op->set("view", String("Standard"));
    op->prepareForApplication(ColorMappingContext());
    EXPECT_TRUE(op->getError().empty());
    EXPECT_FALSE(op->isNeutral());
}

TEST_F(DisplayViewOperatorTest, CompiledAloneOrAfterOtherStepsMapsEveryPieceWithNonFinitePixelsAndAlpha) {
    // Alone, the program hands the bucket to OpenColorIO packed, piece by
    // piece; after an exposure, as planes. Buckets of several pieces, with
    // non-finite pixels in more than one of them, with and without alpha.
    auto const view = makeOperator("ACEScg", "sRGB - Display", "Standard");
    auto exposure = ColorMappingOperatorFactory::getInstance().createOperator("Zatho.SimpleExposureOperator");
    exposure->set("simpleExposure", 1.f);
    auto viewAfter = makeOperator("ACEScg", "sRGB - Display", "Standard");
    viewAfter->setPredecessor(exposure);
    viewAfter->prepareForApplication(ColorMappingContext());
    float const inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(0.f, 4.f);
    Stack<Rgb> colors(2500);
    for (Rgb& c : colors) c = Rgb(u(rng), u(rng), u(rng));
    for (std::size_t i : {3u, 1500u, 2499u}) colors[i] = Rgb(nan, 0.5f, inf);
    colors[1100] = Rgb(-inf, 0.2f, 0.1f);
    for (EntityHolder<DisplayViewOperator> const& chain : {view, viewAfter}) {
        ColorProgram const program = ColorProgram::compile(chain);
        Pixel const extent(50, 50);
        Stack<Rgb> packed = colors;
        Stack<RgbAlpha> withAlpha;
        for (std::size_t i = 0; i < colors.size(); ++i) withAlpha.push_back(RgbAlpha(colors[i], float(i)));
        program.map(std::span<Rgb>(packed), Pixel(0, 0), extent);
        program.map(std::span<RgbAlpha>(withAlpha), Pixel(0, 0), extent);
        for (std::size_t i = 0; i < colors.size(); ++i) {
            Rgb const expected = chain->map(colors[i], Pixel(int(i % 50), int(i / 50)));
            for (int ch = 0; ch < 3; ++ch) {
                ASSERT_NEAR(packed[i][ch], expected[ch], 1e-5f) << i;
                ASSERT_NEAR(withAlpha[i].rgb()[ch], expected[ch], 1e-5f) << i;
            }
            ASSERT_EQ(withAlpha[i].alpha, float(i));
        }
    }
}

TEST_F(DisplayViewOperatorTest, ConfigCurvesCompileToOwnStepsOnBothSidesOfZeroAndTheRestStaysWithTheConfig) {
    // Curves in both directions and negative styles, compiled to the
    // program's own steps, against the config's processor over negative,
    // in-range and large values; a log curve has no step and keeps the
    // processor.
    String const config = writeText("curves.ocio", R"(ocio_profile_version: 2
roles: {default: lin, scene_linear: lin}
displays:
  Curves:
    - !<View> {name: DecodeMirror, colorspace: decodeMirror}
    - !<View> {name: EncodeLinear, colorspace: encodeLinear}
    - !<View> {name: PowerMirror, colorspace: powerMirror}
    - !<View> {name: Log, colorspace: log}
colorspaces:
  - !<ColorSpace> {name: lin}
  - !<ColorSpace>
    name: decodeMirror
    from_scene_reference: !<GroupTransform>
      children:
        - !<RangeTransform> {min_in_value: -1, max_in_value: 1, min_out_value: -0.8, max_out_value: 0.9, style: noClamp}
        - !<ExponentWithLinearTransform> {gamma: 2.4, offset: 0.055, style: mirror}
  - !<ColorSpace>
    name: encodeLinear
    from_scene_reference: !<GroupTransform>
      children:
        - !<RangeTransform> {min_in_value: 0.05, min_out_value: 0.05}
        - !<ExponentWithLinearTransform> {gamma: 2.2, offset: 0.099, style: linear, direction: inverse}
  - !<ColorSpace>
    name: powerMirror
    from_scene_reference: !<ExponentTransform> {value: [2.2, 2.0, 1.8, 1], style: mirror, direction: inverse}
  - !<ColorSpace>
    name: log
    from_scene_reference: !<LogTransform> {base: 2}
)").string();
    char const* old = std::getenv("OCIO");
    String const saved = old ? old : "";
    ::setenv("OCIO", config.c_str(), 1);
    Stack<Rgb> colors;
    for (float v : {-3.f, -0.5f, -0.08f, -0.03f, -0.01f, 0.f, 0.001f, 0.02f, 0.18f, 0.5f, 0.75f, 1.f, 2.f, 40.f})
        colors.push_back(Rgb(v, 0.9f * v + 0.003f, 0.3f - v));
    for (char const* view : {"DecodeMirror", "EncodeLinear", "PowerMirror", "Log"}) {
        auto const op = makeOperator("lin", "Curves", view);
        ASSERT_TRUE(op->getError().empty()) << op->getError();
        auto const reference = ColorSpaces::makeDisplayView({"lin", "Curves", view, ""});
        ASSERT_TRUE(reference);
        ColorProgram const program = ColorProgram::compile(op);
        auto const steps = program.describe();
        bool const ownSteps = std::find(steps.begin(), steps.end(), "callback") == steps.end();
        EXPECT_EQ(ownSteps, String(view) != "Log") << view;
        Stack<Rgb> mapped = colors;
        program.map(std::span<Rgb>(mapped), Pixel(0, 0), Pixel(int(mapped.size()), 1));
        for (std::size_t i = 0; i < colors.size(); ++i) {
            Rgb const expected = reference->apply(colors[i]);
            for (int ch = 0; ch < 3; ++ch)
                EXPECT_NEAR(mapped[i][ch], expected[ch], 1e-5f * std::max(1.f, std::abs(expected[ch])))
                    << view << " at " << colors[i][ch];
        }
    }
    old ? ::setenv("OCIO", saved.c_str(), 1) : ::unsetenv("OCIO");
}
