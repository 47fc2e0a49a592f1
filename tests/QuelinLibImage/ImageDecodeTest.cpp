#include "QuelinLibImage/ImageDecode.h"
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>

#include "TestSupport/TempFolderTest.h"

using namespace Quelin;
namespace fs = std::filesystem;

namespace {

Io::Path const PNG_DIR = Io::Path(FERRIM_TESTDATA_DIR) / "png";
Io::Path const EXR_DIR = Io::Path(FERRIM_TESTDATA_DIR) / "exr";

Image decodeFile(Io::Path const& path, ImageFormat format) {
    auto stream = Io::FileInputStream::open(path);
    if (!stream)
        throw Exception(stream.error());
    TaskProgress progress;
    return makeImage(**stream, format, progress);
}

String readBytes(Io::Path const& path) {
    std::ifstream in(path, std::ios::binary);
    return String(std::istreambuf_iterator<char>(in), {});
}

struct ContentTypeCase {
    char const* type;
    ImageFormat format;
};

class ContentTypeTest : public ::testing::TestWithParam<ContentTypeCase> {};

TEST_P(ContentTypeTest, MapsMimeTypesAndExtensions) {
    EXPECT_EQ(getImageFormatFromContentType(GetParam().type), GetParam().format) << GetParam().type;
}

INSTANTIATE_TEST_SUITE_P(Formats, ContentTypeTest,
                         ::testing::Values(ContentTypeCase{"image/x-exr", ImageFormat::Exr}, ContentTypeCase{".EXR", ImageFormat::Exr},
                                           ContentTypeCase{"image/vnd.radiance", ImageFormat::Hdr},
                                           ContentTypeCase{"hdr", ImageFormat::Hdr}, ContentTypeCase{"image/png", ImageFormat::Png},
                                           ContentTypeCase{"IMAGE/PNG; charset=binary", ImageFormat::Png},
                                           ContentTypeCase{"image/jpeg", ImageFormat::Jpeg}, ContentTypeCase{"jpg", ImageFormat::Jpeg},
                                           ContentTypeCase{"image/tiff", ImageFormat::Tiff}, ContentTypeCase{"tif", ImageFormat::Tiff},
                                           ContentTypeCase{"image/x-tga", ImageFormat::Tga}, ContentTypeCase{"tga", ImageFormat::Tga},
                                           ContentTypeCase{"image/bmp", ImageFormat::Bmp}, ContentTypeCase{".bmp", ImageFormat::Bmp}));

TEST(ContentTypeErrorTest, UnknownAndEmptyTypesThrowNamingTheSource) {
    for (StringView type : {"image/gif", "", "png2", "application/octet-stream"}) {
        try {
            getImageFormatFromContentType(type, "/data/a.img");
            ADD_FAILURE() << "accepted \"" << type << "\"";
        } catch (Exception const& e) {
            EXPECT_NE(String(e.what()).find("/data/a.img"), String::npos) << e.what();
        }
    }
}

struct PngCase {
    char const* file;
    PixelFormat format;
};

class PngSuiteTest : public ::testing::TestWithParam<PngCase> {};

// Every bit depth and colour type lands on the matching pixel format; palette
// and low bit depths widen to 8 bits.
TEST_P(PngSuiteTest, DecodesToTheFilesPixelFormat) {
    Image const image = decodeFile(PNG_DIR / GetParam().file, ImageFormat::Png);
    EXPECT_EQ(image.getFormat(), GetParam().format) << getPixelFormatName(image.getFormat());
    EXPECT_EQ(image.getResolution(), (Pixel{32, 32}));
}

INSTANTIATE_TEST_SUITE_P(Suite, PngSuiteTest,
                         ::testing::Values(PngCase{"basn0g01.png", PixelFormat::Mono8}, PngCase{"basn0g08.png", PixelFormat::Mono8},
                                           PngCase{"basn0g16.png", PixelFormat::Mono16}, PngCase{"basn2c08.png", PixelFormat::Rgb8},
                                           PngCase{"basn2c16.png", PixelFormat::Rgb16}, PngCase{"basn3p04.png", PixelFormat::Rgb8},
                                           PngCase{"basn4a08.png", PixelFormat::MonoAlpha8},
                                           PngCase{"basn4a16.png", PixelFormat::MonoAlpha16},
                                           PngCase{"basn6a08.png", PixelFormat::Rgba8}, PngCase{"basn6a16.png", PixelFormat::Rgba16},
                                           PngCase{"ibasn6a08.png", PixelFormat::Rgba8}));

TEST(PngSuiteValuesTest, GreyRampAndStraightAlphaAreKeptAsStored) {
    // basn0g08: grey ramp, value x + y over the 32 x 32 image (mod 256).
    Image const grey = decodeFile(PNG_DIR / "basn0g08.png", ImageFormat::Png);
    EXPECT_EQ(grey.getPixel<PixelMono8>(0, 0).value, 0);
    EXPECT_EQ(grey.getPixel<PixelMono8>(31, 0).value, 31);
    // A transparent pixel keeps its colour: the decoder must not premultiply.
    Image const rgba = decodeFile(PNG_DIR / "basn6a08.png", ImageFormat::Png);
    bool foundColourUnderZeroAlpha = false;
    for (auto const& p : rgba.getPixels<PixelRgba8>())
        foundColourUnderZeroAlpha |= p.a == 0 && (p.r | p.g | p.b) != 0;
    EXPECT_TRUE(foundColourUnderZeroAlpha);
}

TEST(ExrDecodeTest, HalfChannelsWidenToFloatAndMipChainsComeFromTheFile) {
    Image const desk = decodeFile(EXR_DIR / "Desk.exr", ImageFormat::Exr);
    EXPECT_EQ(desk.getFormat(), PixelFormat::RgbaFloat);
    EXPECT_EQ(desk.getResolution(), (Pixel{644, 874}));

    auto stream = Io::FileInputStream::open(EXR_DIR / "ColorCodedLevels.exr");
    ASSERT_TRUE(stream);
    TaskProgress progress;
    Stack<Image> const levels = makeImageLevels(**stream, ImageFormat::Exr, progress);
    ASSERT_EQ(levels.size(), 10u);
    EXPECT_EQ(levels[1].getResolution(), (Pixel{256, 256}));
    EXPECT_EQ(levels[9].getResolution(), (Pixel{1, 1}));
    EXPECT_EQ(progress.getDone(), progress.getTotal());
    EXPECT_GT(progress.getTotal(), 512);
}

class DecodeRoundTripTest : public Testing::TempFolderTest {
  protected:
    static Image randomImage(PixelFormat format, Pixel size, std::uint32_t seed) {
        Image image(Image::Descriptor(size, format));
        std::mt19937 rng(seed);
        for (auto& byte : std::span(image.getData(), std::size_t(image.getByteSize()))) byte = std::byte(rng());
        if (getChannelType(format) == ChannelType::Float) // random bytes are not all finite floats
            for (int y = 0; y < size.y; ++y)
                for (int x = 0; x < size.x; ++x)
                    image.setRgbAlpha(x, y, {float(rng() % 1000) / 7.f, float(x), float(y), 0.5f});
        return image;
    }
};

// Lossless formats give back exactly what was written, from a file and from memory alike.
TEST_F(DecodeRoundTripTest, LosslessFormatsFromFileAndMemory) {
    struct Case {
        char const* extension;
        ImageFormat format;
        PixelFormat pixels;
        FileChannelType channelType;
    };
    for (Case const& c : {Case{"png", ImageFormat::Png, PixelFormat::Rgba8, FileChannelType::Auto},
                          Case{"png", ImageFormat::Png, PixelFormat::MonoAlpha16, FileChannelType::Auto},
                          Case{"exr", ImageFormat::Exr, PixelFormat::RgbaFloat, FileChannelType::Float},
                          Case{"tif", ImageFormat::Tiff, PixelFormat::Rgb16, FileChannelType::Auto},
                          Case{"tga", ImageFormat::Tga, PixelFormat::Rgba8, FileChannelType::Auto},
                          Case{"bmp", ImageFormat::Bmp, PixelFormat::Rgb8, FileChannelType::Auto}}) {
        SCOPED_TRACE(String(c.extension) + " " + getPixelFormatName(c.pixels));
        Image const original = randomImage(c.pixels, {13, 7}, 42);
        Io::Path const path = mFolder / (String("image.") + c.extension);
        ASSERT_TRUE(writeImage(original, path, {c.channelType, {}}));
        Image const fromFile = decodeFile(path, c.format);
        ASSERT_EQ(fromFile.getDescriptor(), original.getDescriptor());
        EXPECT_EQ(0, std::memcmp(fromFile.getData(), original.getData(), std::size_t(original.getByteSize())));

        String const bytes = readBytes(path);
        Io::MemoryInputStream memory(bytes.data(), bytes.size());
        TaskProgress progress;
        Image const fromMemory = makeImage(memory, c.format, progress);
        ASSERT_EQ(fromMemory.getDescriptor(), original.getDescriptor());
        EXPECT_EQ(0, std::memcmp(fromMemory.getData(), original.getData(), std::size_t(original.getByteSize())));
    }
}

TEST_F(DecodeRoundTripTest, RadianceFilesKeepSharedExponentPixels) {
    Image original(Image::Descriptor({5, 3}, PixelFormat::RgbFloat));
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) original.setRgbAlpha(x, y, {float(x) * 100.f + 0.5f, float(y) / 8.f, 1e-3f, 1.f});
    Io::Path const path = mFolder / "sky.hdr";
    ASSERT_TRUE(writeImage(original, path));
    Image const decoded = decodeFile(path, ImageFormat::Hdr);
    ASSERT_EQ(decoded.getFormat(), PixelFormat::Rgbe);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 5; ++x) {
            RgbAlpha const want = original.getRgbAlpha(x, y);
            Rgb const got = decoded.getPixel<PixelRgbe>(x, y).toRgb();
            // Eight bits of mantissa shared by the three channels.
            float const tolerance = std::max({want.r, want.g, want.b}) / 128.f;
            EXPECT_NEAR(got.r, want.r, tolerance);
            EXPECT_NEAR(got.g, want.g, tolerance);
        }
}

TEST_F(DecodeRoundTripTest, AFileOfAnotherFormatIsAOneLineErrorNamingIt) {
    Io::Path const path = mFolder / "not-really.exr";
    ASSERT_TRUE(writeImage(randomImage(PixelFormat::Rgb8, {4, 4}, 1), mFolder / "real.png"));
    fs::copy_file(mFolder / "real.png", path);
    try {
        decodeFile(path, ImageFormat::Exr);
        FAIL() << "a PNG decoded as EXR";
    } catch (Exception const& e) {
        String const text = e.what();
        EXPECT_NE(text.find(Io::pathToUtf8(path)), String::npos) << text;
        EXPECT_EQ(text.find('\n'), String::npos) << text;
    }
}

// A PNG header claiming a huge image is refused from the header alone.
TEST(ImageLimitsTest, OversizedHeaderIsRefusedBeforeAllocating) {
    auto const crc32 = [](char const* data, std::size_t size) {
        std::uint32_t c = 0xFFFFFFFFu;
        for (std::size_t i = 0; i < size; ++i) {
            c ^= std::uint8_t(data[i]);
            for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
        }
        return ~c;
    };
    auto const bigEndian = [](std::uint32_t v) {
        return String{char(v >> 24), char(v >> 16), char(v >> 8), char(v)};
    };
    auto const chunk = [&](String const& typeAndData) {
        return bigEndian(std::uint32_t(typeAndData.size() - 4)) + typeAndData + bigEndian(crc32(typeAndData.data(), typeAndData.size()));
    };
    // 200000 x 100000 RGBA 8-bit: 80 GB if anyone believed it. The data is an empty zlib stream.
    String const png = "\x89PNG\r\n\x1a\n" + chunk("IHDR" + bigEndian(200000) + bigEndian(100000) + String{8, 6, 0, 0, 0}) +
                       chunk(String("IDAT\x78\x9c\x03\x00\x00\x00\x00\x01", 12)) + chunk("IEND");
    Io::MemoryInputStream stream(png.data(), png.size(), "huge.png");
    TaskProgress progress;
    try {
        makeImage(stream, ImageFormat::Png, progress);
        FAIL() << "decoded an 80 GB image";
    } catch (Exception const& e) {
        EXPECT_NE(String(e.what()).find("huge.png"), String::npos) << e.what();
        EXPECT_NE(String(e.what()).find("200000 x 100000"), String::npos) << e.what();
    }
}

TEST(ImageLimitsTest, BoundsPerSideAndPerImage) {
    EXPECT_TRUE(checkImageSize(MAX_IMAGE_SIDE, 1, PixelFormat::RgbaFloat, "a"));
    EXPECT_FALSE(checkImageSize(MAX_IMAGE_SIDE + 1, 1, PixelFormat::Mono8, "a"));
    EXPECT_FALSE(checkImageSize(0, 10, PixelFormat::Mono8, "a"));
    // 32768 x 32768 is within the sides: RGBA 8-bit is exactly 4 GiB, float is four times that.
    EXPECT_TRUE(checkImageSize(32768, 32768, PixelFormat::Rgba8, "a"));
    auto const tooBig = checkImageSize(32768, 32768, PixelFormat::RgbaFloat, "big.exr");
    ASSERT_FALSE(tooBig);
    EXPECT_NE(tooBig.error().find("big.exr"), String::npos);
}

} // namespace
