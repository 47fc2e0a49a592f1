// `ferrim tonemap` with colour spaces: round trips of 8-bit files through an
// empty pipeline, conversions of whole files against OpenColorIO's own
// processor (the float path alone is ColorSpacesTest's), and the colour-space
// tags of the files it writes, read back with OpenImageIO.
#include <gtest/gtest.h>

#include <OpenColorIO/OpenColorIO.h>
#include <OpenImageIO/imageio.h>

#include <fstream>
#include <sstream>

#include "Ferrim/ColorSpaces.h"
#include "TestSupport/ScopedEnv.h"
#include "TestSupport/TempFolderTest.h"
#include "TestSupport/ToolRun.h"

using namespace Quelin;
using Quelin::Testing::runTool;
using Quelin::Testing::runToolOk;
namespace OCIO = OCIO_NAMESPACE;

namespace {

struct Pixels { int width = 0, height = 0, channels = 0; std::vector<float> values; OIIO::ImageSpec spec; };

Pixels readBack(std::string const& path) {
    Pixels p;
    auto in = OIIO::ImageInput::open(path);
    if (!in) return p;  // empty: the size comparisons fail
    p.spec = in->spec();
    p.width = p.spec.width, p.height = p.spec.height, p.channels = p.spec.nchannels;
    p.values.resize(std::size_t(p.width) * std::size_t(p.height) * std::size_t(p.channels));
    in->read_image(0, 0, 0, p.channels, OIIO::TypeDesc::FLOAT, p.values.data());
    return p;
}

/// A ramp over the whole 8-bit range in every channel, with a little of everything mixed in.
void writeRamp(std::string const& path, OIIO::TypeDesc type, char const* colorSpace = nullptr) {
    int const w = 64, h = 12;
    std::vector<float> v(std::size_t(w) * h * 3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c)
                v[(std::size_t(y) * w + x) * 3 + c] = float((x * 4 + y * 7 + c * 85) % 256) / 255.f;
    auto out = OIIO::ImageOutput::create(path);
    ASSERT_TRUE(out);
    OIIO::ImageSpec spec(w, h, 3, type);
    if (colorSpace) spec.attribute("oiio:ColorSpace", colorSpace);
    ASSERT_TRUE(out->open(path, spec));
    ASSERT_TRUE(out->write_image(OIIO::TypeDesc::FLOAT, v.data()));
    out->close();
}

std::string fileBytes(std::string const& path) {
    std::ostringstream s;
    s << std::ifstream(path, std::ios::binary).rdbuf();
    return s.str();
}

class TonemapColor : public Testing::TempFolderTest {
protected:
    void SetUp() override {
        TempFolderTest::SetUp();
        mEmpty = path("empty.ctm");
        std::ofstream(mEmpty) << R"({"mimeType": "application/vnd.zatho.ostrel.color-mapping", "version": 1, "operators": []})";
    }
    std::string path(char const* name) const { return (mFolder / name).string(); }
    static std::string quoted(std::string const& s) { return "'" + s + "'"; }

    Testing::ScopedEnv const mOcio{"OCIO", nullptr};  // the built-in config unless a test sets one
    std::string mEmpty;
};

} // namespace

TEST_F(TonemapColor, EmptyPipelineRoundTripsEightBitFilesExactly) {
    for (char const* name : {"in.png", "in.jpg"}) {
        SCOPED_TRACE(name);
        std::string const in = path(name), out = path("out.png");
        writeRamp(in, OIIO::TypeDesc::UINT8);
        runToolOk("tonemap " + quoted(in) + " -o " + quoted(out) + " --pipeline " + quoted(mEmpty));
        Pixels const a = readBack(in), b = readBack(out);
        ASSERT_EQ(a.values.size(), b.values.size());
        for (std::size_t i = 0; i < a.values.size(); ++i)
            ASSERT_EQ(std::lround(a.values[i] * 255.f), std::lround(b.values[i] * 255.f)) << "value " << i;
        EXPECT_EQ(b.spec.get_string_attribute("oiio:ColorSpace"), "sRGB");
        // The PNG says so in its own chunk.
        EXPECT_NE(fileBytes(out).find("sRGB"), std::string::npos);
    }
}

TEST_F(TonemapColor, ConversionsMatchOpenColorIOAndTheTagsSayWhatWasApplied) {
    std::istringstream text{String(ColorSpaces::builtinConfigText())};
    auto const config = OCIO::Config::CreateFromStream(text);
    std::string const in = path("in.exr");
    writeRamp(in, OIIO::TypeDesc::FLOAT);
    struct Case { char const* inputSpace; char const* display; char const* output; char const* tag; };
    for (Case const c : {Case{"ACEScg", "Gamma 2.2 Rec.709 - Display", "out.exr", "Gamma2.2"},
                         Case{"sRGB - Texture", "sRGB - Display", "out.tif", "sRGB"},
                         Case{"ACES2065-1", "sRGB - Display", "out.exr", "sRGB"}}) {
        SCOPED_TRACE(c.inputSpace);
        std::string const out = path(c.output);
        runToolOk("tonemap " + quoted(in) + " -o " + quoted(out) + " --pipeline " + quoted(mEmpty) +
                  " --input-space " + quoted(c.inputSpace) + " --display " + quoted(c.display) + " --view Standard");
        auto group = OCIO::GroupTransform::Create();
        auto toLinear = OCIO::ColorSpaceTransform::Create();
        toLinear->setSrc(c.inputSpace), toLinear->setDst("scene_linear");
        auto view = OCIO::DisplayViewTransform::Create();
        view->setSrc("scene_linear"), view->setDisplay(c.display), view->setView("Standard");
        group->appendTransform(toLinear), group->appendTransform(view);
        auto const cpu = config->getProcessor(group)->getDefaultCPUProcessor();
        Pixels const source = readBack(in), result = readBack(out);
        ASSERT_EQ(source.values.size(), result.values.size());
        // EXR output is half, TIFF 16 bits: compare within what they store.
        float const tolerance = std::string(c.output).ends_with(".exr") ? 1e-3f : 1.f / 65535.f;
        for (std::size_t i = 0; i < source.values.size(); i += 3) {
            float p[3] = {source.values[i], source.values[i + 1], source.values[i + 2]};
            cpu->applyRGB(p);
            for (int ch = 0; ch < 3; ++ch) ASSERT_NEAR(result.values[i + ch], p[ch], tolerance) << "pixel " << i / 3;
        }
        // EXR files name no curve, only their primaries and white.
        if (!std::string(c.output).ends_with(".exr")) EXPECT_EQ(result.spec.get_string_attribute("oiio:ColorSpace"), c.tag);
        else {
            OIIO::ParamValue const* chroma = result.spec.find_attribute("chromaticities");
            ASSERT_TRUE(chroma);
            EXPECT_NEAR(static_cast<float const*>(chroma->data())[6], 0.3127f, 1e-4f);  // D65 white x
        }
    }
}

TEST_F(TonemapColor, UnknownNamesGiveOneLineNamingConfigAndName) {
    std::string const in = path("in.png"), out = path("out.png");
    writeRamp(in, OIIO::TypeDesc::UINT8);
    Testing::expectOneLineError(runTool("tonemap " + quoted(in) + " -o " + quoted(out) + " --input-space 'sRGB - Txture'"),
                                {"built-in config", "\"sRGB - Txture\""}, "unknown input space");
    std::string const missing = path("nowhere.ocio");
    mOcio.set(missing.c_str());
    Testing::expectOneLineError(runTool("tonemap " + quoted(in) + " -o " + quoted(out)), {missing}, "missing config");
}

TEST_F(TonemapColor, RenderTagsDisplayFilesWithTheirCurveAndRadianceFilesAsLinear) {
    std::string const png = path("r.png"), exr = path("r.exr");
    for (std::string const& out : {png, exr}) runToolOk("render -o " + quoted(out) + " --size 16x16 --samples 1");
    Pixels const display = readBack(png), linear = readBack(exr);
    // The display chain encodes with a 2.2 power: a gAMA chunk, no sRGB chunk.
    EXPECT_EQ(display.spec.get_string_attribute("oiio:ColorSpace"), "Gamma2.2");
    EXPECT_NEAR(display.spec.get_float_attribute("oiio:Gamma"), 2.2f, 1e-3f);
    std::string const bytes = fileBytes(png).substr(0, 256);
    EXPECT_NE(bytes.find("gAMA"), std::string::npos);
    EXPECT_EQ(bytes.find("sRGB"), std::string::npos);
    EXPECT_EQ(linear.spec.get_string_attribute("oiio:ColorSpace"), "Linear");
    OIIO::ParamValue const* chroma = linear.spec.find_attribute("chromaticities");
    ASSERT_TRUE(chroma);
    EXPECT_NEAR(static_cast<float const*>(chroma->data())[0], 0.64f, 1e-4f);  // Rec.709 red x
}
