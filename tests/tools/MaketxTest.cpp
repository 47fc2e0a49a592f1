// `ferrim maketx`: the file it writes carries, in tiles, the same chain the
// library builds in memory, and matches the codec library's own texture maker.
#include <gtest/gtest.h>

#include <OpenImageIO/imagebuf.h>
#include <OpenImageIO/imagebufalgo.h>
#include <OpenImageIO/imageio.h>
#include <cmath>

#include "Ferrim/TextureMap/MipGeneration.h"
#include "QuelinLibImage/ImageDecode.h"
#include "TestSupport/TempFolderTest.h"
#include "TestSupport/ToolRun.h"

namespace {

using namespace Quelin;
using Quelin::Testing::expectOneLineError;
using Quelin::Testing::runTool;
using Quelin::Testing::runToolOk;
using Quelin::Testing::ToolRun;

using Maketx = Quelin::Testing::TempFolderTest;

struct Level {
    int width = 0, height = 0, tileWidth = 0, channels = 0;
    OIIO::TypeDesc format;
    std::string colorSpace;
    std::vector<float> chromaticities;
    std::vector<float> values;
};

/// Every level of a file as float, with what its header says.
std::vector<Level> readLevels(std::string const& path) {
    std::vector<Level> levels;
    auto in = OIIO::ImageInput::open(path);
    EXPECT_TRUE(in) << OIIO::geterror();
    if (!in) return levels;
    for (int m = 0; in->seek_subimage(0, m); ++m) {
        OIIO::ImageSpec const& spec = in->spec();
        Level level{spec.width, spec.height, spec.tile_width, spec.nchannels, spec.format,
                    spec.get_string_attribute("oiio:ColorSpace"), {}, {}};
        if (OIIO::ParamValue const* xy = spec.find_attribute("chromaticities"))
            level.chromaticities.assign(static_cast<float const*>(xy->data()), static_cast<float const*>(xy->data()) + 8);
        level.values.resize(std::size_t(spec.width) * std::size_t(spec.height) * std::size_t(spec.nchannels));
        EXPECT_TRUE(in->read_image(0, m, 0, spec.nchannels, OIIO::TypeDesc::FLOAT, level.values.data())) << in->geterror();
        levels.push_back(std::move(level));
    }
    return levels;
}

/// A float RGBA image with detail at every scale and values above 1.
Image pattern(int width, int height) {
    Image image(Image::Descriptor(Pixel(width, height), PixelFormat::RgbaFloat));
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            image.setRgbAlpha(x, y, RgbAlpha(float((x * 7 + y * 3) % 17) / 4.f, std::sin(float(x) * 0.3f) * std::cos(float(y) * 0.2f) + 1.f,
                                             float((x ^ y) & 15) / 15.f, float(x + y) / float(width + height)));
    return image;
}

float maxDifference(std::vector<float> const& a, std::vector<float> const& b) {
    EXPECT_EQ(a.size(), b.size());
    float worst = 0.f;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i) worst = std::max(worst, std::abs(a[i] - b[i]));
    return worst;
}

TEST_F(Maketx, FloatFileHoldsTheLibrarysChainInTiles) {
    std::string const input = (mFolder / "in.exr").string(), ours = (mFolder / "ours.exr").string();
    Image const level0 = pattern(96, 40);
    ASSERT_TRUE(writeImage(level0, input));
    runToolOk("maketx " + input + " -o " + ours + " --tile 32");

    std::vector<Level> const levels = readLevels(ours);
    ASSERT_EQ(int(levels.size()), MipGeneration::getLevelCount({96, 40}));
    Stack<Image> const chain = MipGeneration::buildMipChain(level0);
    for (std::size_t i = 0; i < levels.size(); ++i) {
        Image const& expected = i == 0 ? level0 : chain[i - 1];
        ASSERT_EQ(levels[i].width, expected.getWidth());
        ASSERT_EQ(levels[i].height, expected.getHeight());
        EXPECT_EQ(levels[i].tileWidth, 32);
        EXPECT_EQ(levels[i].format, OIIO::TypeDesc::FLOAT);
        EXPECT_EQ(levels[i].colorSpace, "Linear");
        auto const* p = reinterpret_cast<float const*>(expected.getData());
        EXPECT_EQ(levels[i].values, std::vector<float>(p, p + levels[i].values.size())) << "level " << i;
    }
}

// The same filter on both sides gives the same levels at every size, odd ones
// included, within float rounding.
TEST_F(Maketx, EveryLevelEqualsTheCodecLibrarysMakerWithTheSameFilter) {
    for (Pixel const size : {Pixel(96, 40), Pixel(37, 23)}) {
        std::string const tag = std::to_string(size.x) + "x" + std::to_string(size.y);
        std::string const input = (mFolder / ("in" + tag + ".exr")).string();
        ASSERT_TRUE(writeImage(pattern(size.x, size.y), input));
        for (std::string const filter : {"box", "triangle", "lanczos3"}) {
            std::string const ours = (mFolder / ("ours" + tag + filter + ".exr")).string(),
                              theirs = (mFolder / ("theirs" + tag + filter + ".exr")).string();
            runToolOk("maketx " + input + " -o " + ours + " --filter " + filter);
            OIIO::ImageSpec config;
            config.attribute("maketx:filtername", filter);
            ASSERT_TRUE(OIIO::ImageBufAlgo::make_texture(OIIO::ImageBufAlgo::MakeTxTexture, input, theirs, config))
                << OIIO::geterror();
            std::vector<Level> const mine = readLevels(ours), peer = readLevels(theirs);
            ASSERT_EQ(mine.size(), peer.size()) << tag;
            for (std::size_t i = 0; i < mine.size(); ++i) {
                ASSERT_EQ(mine[i].width, peer[i].width) << tag << " level " << i;
                ASSERT_EQ(mine[i].height, peer[i].height) << tag << " level " << i;
                EXPECT_LE(maxDifference(mine[i].values, peer[i].values), 1e-5f) << filter << " " << tag << " level " << i;
            }
        }
    }
}

TEST_F(Maketx, EightBitInputGivesRoundedLevelsOfTheFloatChainAndRecordsItsSpace) {
    std::string const input = std::string(FERRIM_TESTDATA_DIR) + "/png/basn2c08.png";
    std::string const tif = (mFolder / "out.tif").string(), exr = (mFolder / "out.exr").string();
    runToolOk("maketx " + input + " -o " + tif + " --colorspace 'sRGB - Texture'");
    runToolOk("maketx " + input + " -o " + exr + " --colorspace ACEScg");

    Io::Path const path = input;
    auto stream = Io::FileInputStream::open(path);
    ASSERT_TRUE(stream);
    TaskProgress progress;
    Image const decoded = makeImage(**stream, ImageFormat::Png, progress);
    Image const level0 = decoded.convertedTo(PixelFormat::RgbFloat);
    Stack<Image> const chain = MipGeneration::buildMipChain(level0);

    std::vector<Level> const eight = readLevels(tif), half = readLevels(exr);
    ASSERT_EQ(eight.size(), chain.size() + 1);
    ASSERT_EQ(half.size(), chain.size() + 1);
    EXPECT_EQ(eight[0].format, OIIO::TypeDesc::UINT8);
    EXPECT_EQ(eight[0].colorSpace, "sRGB");
    EXPECT_EQ(half[0].format, OIIO::TypeDesc::HALF);
    // EXR records a space by its primaries and white.
    EXPECT_EQ(half[0].chromaticities, (std::vector<float>{0.713f, 0.293f, 0.165f, 0.83f, 0.128f, 0.044f, 0.32168f, 0.33767f}));
    for (std::size_t i = 1; i < eight.size(); ++i) {
        auto const* p = reinterpret_cast<float const*>(chain[i - 1].getData());
        std::vector<float> const exact(p, p + eight[i].values.size());
        // One rounding at the end: within half a code, never the drift of
        // levels built from rounded levels.
        EXPECT_LE(maxDifference(eight[i].values, exact), 0.5f / 255.f + 1e-6f) << "level " << i;
        EXPECT_LE(maxDifference(half[i].values, exact), 1.f / 2048.f) << "level " << i;
    }
}

TEST_F(Maketx, BadRequestsAreOneLineErrorsAndWriteNothing) {
    std::string const good = std::string(FERRIM_TESTDATA_DIR) + "/png/basn2c08.png";
    std::string const damaged = std::string(FERRIM_TESTDATA_DIR) + "/exr-damaged/openexr_2.2.0_memory_allocation_error_3_exr.exr";
    std::string const out = (mFolder / "out.exr").string();
    expectOneLineError(runTool("maketx " + good + " -o " + (mFolder / "out.png").string()), {"out.png", "EXR"}, "PNG output");
    expectOneLineError(runTool("maketx " + damaged + " -o " + out), {"openexr_2.2.0_memory_allocation_error_3_exr.exr"}, "damaged");
    expectOneLineError(runTool("maketx " + good + " -o " + out + " --colorspace Nonesuch"), {"Nonesuch", "config"}, "space");
    expectOneLineError(runTool("maketx " + good + " -o " + out + " --format uint8"), {"out.exr", "uint8"}, "8-bit EXR");
    expectOneLineError(runTool("maketx " + good + " -o " + out + " --tile 20"), {"--tile 20"}, "tile");
    expectOneLineError(runTool("maketx " + good + " -o " + out + " --filter gaussian"), {"gaussian"}, "filter");
    expectOneLineError(runTool("maketx " + good + " -o " + (mFolder / "no/such/out.exr").string()), {"out.exr"}, "folder");
    EXPECT_FALSE(std::filesystem::exists(out));
}

} // namespace
