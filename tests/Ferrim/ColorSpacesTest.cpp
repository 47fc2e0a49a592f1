#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>

#include "Ferrim/ColorSpaces.h"
#include "TestSupport/ScopedEnv.h"
#include "TestSupport/TempFolderTest.h"

#include <OpenColorIO/OpenColorIO.h>

using namespace Quelin;
namespace OCIO = OCIO_NAMESPACE;

namespace {

/// OpenColorIO's own reading of Ferrim's config: the reference the conversions are held to.
OCIO::ConstConfigRcPtr referenceConfig() {
    std::istringstream text{String(ColorSpaces::builtinConfigText())};
    return OCIO::Config::CreateFromStream(text);
}

Stack<Rgb> probes() {
    Stack<Rgb> colors = {Rgb(0.f), Rgb(1.f), Rgb(0.5f), Rgb(0.002f, 0.04f, 0.3f), Rgb(0.9f, 0.2f, 0.05f),
                         Rgb(4.f, 0.7f, 12.f)};
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(0.f, 1.f);
    for (int i = 0; i < 64; ++i) colors.push_back(Rgb(u(rng), u(rng), u(rng)));
    return colors;
}

void expectSameAsReference(ColorSpaces::Processor const& ours, OCIO::ConstCPUProcessorRcPtr const& reference,
                           String const& what) {
    for (Rgb const c : probes()) {
        float p[3] = {c.r, c.g, c.b};
        reference->applyRGB(p);
        Rgb const got = ours.apply(c);
        for (int ch = 0; ch < 3; ++ch)
            EXPECT_NEAR(got[ch], p[ch], 1e-5f * std::max(1.f, std::abs(p[ch])))
                << what << " at " << c.r << " " << c.g << " " << c.b << " channel " << ch;
    }
}

using Testing::ScopedEnv;

/// A failed result whose error names every one of `needles`.
template <typename T>
void expectErrorNaming(T const& result, std::initializer_list<String> needles) {
    ASSERT_FALSE(result);
    for (String const& n : needles) EXPECT_NE(result.error().find(n), String::npos) << result.error();
}

} // namespace

TEST(ColorSpaces, ConversionsMatchOpenColorIOsOwnProcessor) {
    ScopedEnv const ocio("OCIO", nullptr);
    auto const reference = referenceConfig();
    for (char const* from : {"sRGB - Texture", "Gamma 2.2 Rec.709 - Texture", "ACEScg", "ACES2065-1", "Raw"}) {
        auto ours = ColorSpaces::makeConversion(from, "Linear Rec.709 (sRGB)");
        ASSERT_TRUE(ours) << ours.error();
        expectSameAsReference(*ours, reference->getProcessor(from, "Linear Rec.709 (sRGB)")->getDefaultCPUProcessor(),
                              from);
    }
    struct Case { char const* display; char const* view; char const* looks; };
    for (Case const c : {Case{"sRGB - Display", "Standard", ""}, Case{"Gamma 2.2 Rec.709 - Display", "Standard", ""},
                         Case{"sRGB - Display", "Standard", "One Stop Up"}}) {
        auto ours = ColorSpaces::makeDisplayView({"ACEScg", c.display, c.view, c.looks});
        ASSERT_TRUE(ours) << ours.error();
        auto group = OCIO::GroupTransform::Create();
        if (*c.looks) {
            auto looks = OCIO::LookTransform::Create();
            looks->setSrc("ACEScg"), looks->setDst("ACEScg"), looks->setLooks(c.looks);
            group->appendTransform(looks);
        }
        auto view = OCIO::DisplayViewTransform::Create();
        view->setSrc("ACEScg"), view->setDisplay(c.display), view->setView(c.view);
        group->appendTransform(view);
        expectSameAsReference(*ours, reference->getProcessor(group)->getDefaultCPUProcessor(),
                              String(c.display) + " " + c.looks);
    }
}

TEST(ColorSpaces, AutoPicksTheFileTagThenTheChannelType) {
    ScopedEnv const ocio("OCIO", nullptr);
    struct Case { char const* tag; float gamma; PixelFormat format; char const* expected; };
    for (Case const c : {Case{"", 0.f, PixelFormat::Rgb8, "sRGB - Texture"},
                         Case{"", 0.f, PixelFormat::Rgba16, "sRGB - Texture"},
                         Case{"", 0.f, PixelFormat::RgbFloat, "Linear Rec.709 (sRGB)"},
                         Case{"", 0.f, PixelFormat::Rgbe, "Linear Rec.709 (sRGB)"},
                         Case{"sRGB", 0.f, PixelFormat::RgbaFloat, "sRGB - Texture"},
                         Case{"Linear", 0.f, PixelFormat::Rgb8, "Linear Rec.709 (sRGB)"},
                         Case{"GammaCorrected", 2.2f, PixelFormat::Rgb8, "Gamma 2.2 Rec.709 - Texture"},
                         Case{"Gamma2.2", 0.f, PixelFormat::Rgb8, "Gamma 2.2 Rec.709 - Texture"},
                         Case{"ACEScg", 0.f, PixelFormat::RgbFloat, "ACEScg"},
                         Case{"SomethingElse", 0.f, PixelFormat::Mono16, "sRGB - Texture"}})
        EXPECT_EQ(ColorSpaces::spaceForFile(c.tag, c.gamma, c.format), c.expected) << c.tag;
}

class ColorSpacesConfigTest : public Testing::TempFolderTest {};

TEST_F(ColorSpacesConfigTest, ErrorsNameTheConfigAndWhatItLacks) {
    {
        ScopedEnv const ocio("OCIO", nullptr);
        expectErrorNaming(ColorSpaces::makeConversion("sRGB - Txture", "Linear Rec.709 (sRGB)"),
                          {"built-in config", "\"sRGB - Txture\""});
        expectErrorNaming(ColorSpaces::makeDisplayView({"ACEScg", "sRGB - Display", "Filmic", ""}), {"\"Filmic\""});
        expectErrorNaming(ColorSpaces::makeDisplayView({"ACEScg", "P3", "Standard", ""}), {"\"P3\""});
    }
    String const missing = (mFolder / "missing.ocio").string();
    {
        ScopedEnv const ocio("OCIO", missing.c_str());
        expectErrorNaming(ColorSpaces::makeConversion("sRGB - Texture", "Linear Rec.709 (sRGB)"), {missing});
    }
    // A config of the user's: its own spaces, errors naming its file.
    String const own = (mFolder / "own.ocio").string();
    std::ofstream(own) << "ocio_profile_version: 2\nroles:\n  default: lin\n  scene_linear: lin\n"
                          "displays:\n  Screen:\n    - !<View> {name: Plain, colorspace: lin}\n"
                          "colorspaces:\n  - !<ColorSpace>\n    name: lin\n"
                          "  - !<ColorSpace>\n    name: squared\n    to_scene_reference: !<ExponentTransform> {value: 2}\n";
    {
        ScopedEnv const ocio("OCIO", own.c_str());
        auto squared = ColorSpaces::makeConversion("squared", "lin");
        ASSERT_TRUE(squared) << squared.error();
        EXPECT_NEAR(squared->apply(Rgb(0.5f)).r, 0.25f, 1e-6f);
        expectErrorNaming(ColorSpaces::makeConversion("sRGB - Texture", "lin"), {own, "\"sRGB - Texture\""});
    }
}
