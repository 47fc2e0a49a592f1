#include "QuelinLibImage/Image.h"
#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <gtest/gtest.h>
#include <map>

#include "TestSupport/TempFolderTest.h"

using namespace Quelin;

namespace {

Stack<std::uint8_t> readFile(Io::Path const& path) {
    std::ifstream in(path, std::ios::binary);
    return Stack<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

std::uint32_t bigEndian32(std::uint8_t const* p) {
    return (std::uint32_t(p[0]) << 24) | (p[1] << 16) | (p[2] << 8) | p[3];
}

template <typename T> T littleEndian(Stack<std::uint8_t> const& bytes, std::size_t at) {
    T value;
    std::memcpy(&value, bytes.data() + at, sizeof(T));
    return value;
}

/// Where the value of the EXR header attribute `key` ("name\0type\0") starts; 0 if absent.
std::size_t exrAttribute(Stack<std::uint8_t> const& bytes, String const& key) {
    auto const at = std::search(bytes.begin(), bytes.end(), key.begin(), key.end());
    return at == bytes.end() ? 0 : std::size_t(at - bytes.begin()) + key.size() + 4; // past the value size
}

/// The channel types of an EXR header (0 uint, 1 half, 2 float).
std::map<String, int> exrChannelTypes(Stack<std::uint8_t> const& bytes) {
    std::map<String, int> types;
    for (std::size_t at = exrAttribute(bytes, String("channels\0chlist\0", 16)); at && bytes[at] != 0; at += 16) {
        String const channel(reinterpret_cast<char const*>(bytes.data() + at));
        at += channel.size() + 1;
        types[channel] = littleEndian<std::int32_t>(bytes, at);
    }
    return types;
}

/// A 5 x 3 gradient with some alpha, filled through the generic setter.
Image makeImage(PixelFormat format) {
    Image image(Image::Descriptor(Pixel(5, 3), format));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) image.setRgbAlpha(x, y, RgbAlpha(x * 0.2f, y * 0.4f, 0.5f, 1.f - x * 0.1f));
    return image;
}

using ImageFileTest = Quelin::Testing::TempFolderTest;

} // namespace

// ------------------------------------------------------------ formats and access

class PixelFormatTest : public testing::TestWithParam<int> {};

TEST_P(PixelFormatTest, GenericAccessRoundTripsWithinTheChannelPrecision) {
    auto const format = PixelFormat(GetParam());
    Image image(Image::Descriptor(Pixel(7, 4), format));
    EXPECT_EQ(image.getRgbAlpha(6, 3), RgbAlpha(0.f, 0.f, 0.f, hasAlpha(format) ? 0.f : 1.f)) << "starts at zero";

    ChannelType const type = getChannelType(format);
    float const tolerance = type == ChannelType::UInt8            ? 0.501f / 255.f
                            : type == ChannelType::UInt16         ? 0.501f / 65535.f
                            : type == ChannelType::SharedExponent ? 1.f / 128.f
                            : type == ChannelType::Half           ? 1.f / 2048.f
                                                                  : 0.f;
    RgbAlpha const value(0.8f, 0.3f, 0.1f, 0.6f);
    image.setRgbAlpha(6, 3, value);
    image.setRgbAlpha(5, 3, RgbAlpha(2.f, -1.f, 0.f, 1.f)); // neighbour: must not bleed
    RgbAlpha const back = image.getRgbAlpha(6, 3);
    bool const mono = getChannelCount(format) == 1 || getChannelCount(format) == 2;
    Rgb const expected = mono ? Rgb(channelMean(0.8f, 0.3f, 0.1f)) : value.rgb();
    for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(back.rgb()[ch], expected[ch], tolerance) << ch;
    EXPECT_NEAR(back.alpha, hasAlpha(format) ? 0.6f : 1.f, tolerance);
}

INSTANTIATE_TEST_SUITE_P(AllFormats, PixelFormatTest, testing::Range(0, PIXEL_FORMAT_COUNT),
                         [](auto const& info) { return String(getPixelFormatName(PixelFormat(info.param))); });

TEST(ImageTest, TypedAccessSharesThePixelsReleasedOnesComeBackZeroedAndClonesAreDeep) {
    Image image(Image::Descriptor(Pixel(4, 2), PixelFormat::Rgba16));
    image.getPixel<PixelRgba16>(3, 1) = {65535, 0, 32768, 65535};
    EXPECT_EQ(image.getRgbAlpha(3, 1), RgbAlpha(1.f, 0.f, 32768.f / 65535.f, 1.f));
    image.setRgbAlpha(1, 0, RgbAlpha(0.f, 1.f, 0.f, 0.f));
    EXPECT_EQ(image.getRow<PixelRgba16>(0)[1], (PixelRgba16{0, 65535, 0, 0}));
    EXPECT_THROW(image.getRow<PixelRgba8>(0), StopException);
    EXPECT_THROW(image.getPixels<PixelRgbaF>(), StopException);
    // Released pixels come back zeroed; clones are deep.
    Image floats(Image::Descriptor(Pixel(16, 16), PixelFormat::RgbFloat));
    floats.getPixel<PixelRgbF>(2, 2) = {1.f, 2.f, 3.f};
    Image const copy = floats.clone();
    floats.releasePixels();
    EXPECT_EQ(floats.getMemoryUsage(), 0);
    EXPECT_THROW(floats.getRow<PixelRgbF>(0), StopException);
    floats.allocatePixels();
    EXPECT_EQ(floats.getPixel<PixelRgbF>(2, 2), (PixelRgbF{0.f, 0.f, 0.f}));
    EXPECT_EQ(copy.getPixel<PixelRgbF>(2, 2), (PixelRgbF{1.f, 2.f, 3.f}));
    EXPECT_THROW(Image(Image::Descriptor(Pixel(-1, 4), PixelFormat::Mono8)), Exception);
}

TEST(PixelRgbeTest, SharedExponentKeepsRelativePrecision) {
    for (Rgb const c :
         {Rgb(1.f, 0.5f, 0.25f), Rgb(1000.f, 3.f, 0.01f), Rgb(1e-20f, 2e-20f, 0.f), Rgb(0.9999f, 0.9999f, 0.9999f)}) {
        Rgb const back = PixelRgbe::fromRgb(c).toRgb();
        float const largest = std::max(c.r, std::max(c.g, c.b));
        for (int i = 0; i < 3; ++i) {
            EXPECT_LE(back[i], c[i]) << "truncates";
            EXPECT_NEAR(back[i], c[i], largest / 128.f) << i;
        }
    }
    EXPECT_EQ(PixelRgbe::fromRgb(Rgb(1.f, 1.f, 1.f)), (PixelRgbe{128, 128, 128, 129}));
    EXPECT_EQ(PixelRgbe::fromRgb(Rgb(-1.f, std::nanf(""), -3.f)).toRgb(), Rgb(0.f));
    Rgb const huge = PixelRgbe::fromRgb(Rgb(INFINITY, 1.f, 1.f)).toRgb();
    EXPECT_TRUE(std::isfinite(huge.r) && huge.r > 1e37f);
    EXPECT_NEAR(PixelMonoWithExp::fromFloat(37.f).toFloat(), 37.f, 37.f / 128.f);
    EXPECT_EQ(PixelMonoWithExp::fromFloat(-2.f).toFloat(), 0.f);
}

// ------------------------------------------------------------ writing

TEST_F(ImageFileTest, PngWritesTheDepthAndChannels) {
    struct Case {
        PixelFormat format;
        FileChannelType request;
        int bitDepth, colourType; // PNG: 0 grey, 2 RGB, 4 grey+alpha, 6 RGBA
    };
    for (Case const& c : {Case{PixelFormat::Mono8, FileChannelType::Auto, 8, 0},
                          Case{PixelFormat::MonoAlpha16, FileChannelType::Auto, 16, 4},
                          Case{PixelFormat::Rgb8, FileChannelType::Auto, 8, 2},
                          Case{PixelFormat::Rgba16, FileChannelType::UInt8, 8, 6},
                          Case{PixelFormat::RgbaFloat, FileChannelType::Auto, 16, 6},
                          Case{PixelFormat::Rgbe, FileChannelType::Auto, 16, 2}}) {
        SCOPED_TRACE(getPixelFormatName(c.format));
        Io::Path const path = mFolder / "out.png";
        auto const written = writeImage(makeImage(c.format), path, {c.request, ""});
        ASSERT_TRUE(written) << written.error();
        auto const bytes = readFile(path);
        ASSERT_GT(bytes.size(), 33u);
        EXPECT_EQ(bigEndian32(bytes.data() + 16), 5u);
        EXPECT_EQ(bigEndian32(bytes.data() + 20), 3u);
        EXPECT_EQ(bytes[24], c.bitDepth);
        EXPECT_EQ(bytes[25], c.colourType);
    }
}

TEST_F(ImageFileTest, ExrChannelsAreFloatForFloatPixelsElseHalfUnlessAsked) {
    struct Case { PixelFormat format; FileChannelType request; std::map<String, int> channels; };
    Io::Path const path = mFolder / "out.exr";
    for (Case const& c : {Case{PixelFormat::RgbFloat, FileChannelType::Auto, {{"B", 2}, {"G", 2}, {"R", 2}}},
                          Case{PixelFormat::MonoAlpha8, FileChannelType::Auto, {{"A", 1}, {"Y", 1}}},
                          Case{PixelFormat::Rgba16, FileChannelType::Float, {{"A", 2}, {"B", 2}, {"G", 2}, {"R", 2}}}}) {
        ASSERT_TRUE(writeImage(makeImage(c.format), path, {c.request, "none"}));
        auto const bytes = readFile(path);
        EXPECT_EQ(exrChannelTypes(bytes), c.channels) << getPixelFormatName(c.format);
        EXPECT_EQ(bytes[exrAttribute(bytes, String("compression\0compression\0", 24))], 0); // as asked
    }
}

TEST_F(ImageFileTest, RefusalsNameThePath) {
    Image const image = makeImage(PixelFormat::Rgb8);
    std::ofstream(mFolder / "blocker") << "x";
    for (Io::Path const& path :
         {mFolder / "blocker" / "out.png", mFolder / "blocker" / "out.exr", mFolder / "out.xyz"}) {
        auto const written = writeImage(image, path);
        ASSERT_FALSE(written) << path;
        EXPECT_NE(written.error().find(Io::pathToUtf8(path)), String::npos) << written.error();
    }
    EXPECT_FALSE(writeImage(image, mFolder / "half.png", {FileChannelType::Half, ""}));
    EXPECT_FALSE(writeImage(image, mFolder / "bytes.exr", {FileChannelType::UInt8, ""}));
    EXPECT_FALSE(writeImage(Image(), mFolder / "empty.png"));
    EXPECT_FALSE(Io::fileExists(mFolder / "half.png"));
}
