#include "QuelinLibImage/ImageDecode.h"
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <random>

#include "QuelinLibImage/ImageLimits.h"
#include "TestSupport/ErrorOf.h"
#include "TestSupport/TempFolderTest.h"

using namespace Quelin;
using Quelin::Testing::errorOf;

namespace {

Io::Path const PNG_DIR = Io::Path(FERRIM_TESTDATA_DIR) / "png";
Io::Path const EXR_DIR = Io::Path(FERRIM_TESTDATA_DIR) / "exr";

Image decode(Io::InputStream& stream, ImageFormat format) {
    TaskProgress progress;
    return makeImage(stream, format, progress);
}

Image decodeFile(Io::Path const& path, ImageFormat format) {
    auto stream = Io::FileInputStream::open(path);
    if (!stream) throw Exception(stream.error());
    return decode(**stream, format);
}

TEST(ContentTypeTest, MapsMimeTypesAndExtensionsAndRefusesOthersNamingTheSource) {
    for (auto const& [type, format] :
         {std::pair{"image/x-exr", ImageFormat::Exr}, {".EXR", ImageFormat::Exr}, {"image/vnd.radiance", ImageFormat::Hdr},
          {"jpg", ImageFormat::Jpeg}, {"IMAGE/PNG; charset=binary", ImageFormat::Png}, {"tif", ImageFormat::Tiff},
          {"image/x-tga", ImageFormat::Tga}, {".bmp", ImageFormat::Bmp}})
        EXPECT_EQ(getImageFormatFromContentType(type), format) << type;
    for (StringView type : {"image/gif", "", "png2", "application/octet-stream"}) {
        String const error = errorOf([&] { getImageFormatFromContentType(type, "/data/a.img"); });
        EXPECT_NE(error.find("/data/a.img"), String::npos) << "\"" << type << "\": " << error;
    }
}

// Every bit depth and colour type lands on the matching pixel format; palette
// and low bit depths widen to 8 bits.
TEST(PngSuiteTest, DecodesToTheFilesPixelFormatKeepingValuesAsStored) {
    for (auto const& [file, format] :
         {std::pair{"basn0g01.png", PixelFormat::Mono8}, {"basn0g08.png", PixelFormat::Mono8},
          {"basn0g16.png", PixelFormat::Mono16}, {"basn2c08.png", PixelFormat::Rgb8},
          {"basn2c16.png", PixelFormat::Rgb16}, {"basn3p04.png", PixelFormat::Rgb8},
          {"basn4a08.png", PixelFormat::MonoAlpha8}, {"basn4a16.png", PixelFormat::MonoAlpha16},
          {"basn6a08.png", PixelFormat::Rgba8}, {"basn6a16.png", PixelFormat::Rgba16},
          {"ibasn6a08.png", PixelFormat::Rgba8}}) {
        Image const image = decodeFile(PNG_DIR / file, ImageFormat::Png);
        EXPECT_EQ(image.getFormat(), format) << file << ": " << getPixelFormatName(image.getFormat());
    }
    // basn0g08: a grey ramp, x + y.
    Image const grey = decodeFile(PNG_DIR / "basn0g08.png", ImageFormat::Png);
    EXPECT_EQ(grey.getPixel<PixelMono8>(0, 0).value, 0);
    EXPECT_EQ(grey.getPixel<PixelMono8>(31, 0).value, 31);
    // A transparent pixel keeps its colour: the decoder must not premultiply.
    Image const rgba = decodeFile(PNG_DIR / "basn6a08.png", ImageFormat::Png);
    auto const pixels = rgba.getPixels<PixelRgba8>();
    EXPECT_TRUE(std::any_of(pixels.begin(), pixels.end(), [](auto& p) { return p.a == 0 && (p.r | p.g | p.b) != 0; }));
}

TEST(ExrDecodeTest, HalfChannelsStayHalfAndMipChainsComeFromTheFile) {
    Image const desk = decodeFile(EXR_DIR / "Desk.exr", ImageFormat::Exr);
    EXPECT_EQ(desk.getFormat(), PixelFormat::RgbaHalf);
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

Image randomImage(PixelFormat format, Pixel size, std::uint32_t seed) {
    Image image(Image::Descriptor(size, format));
    std::mt19937 rng(seed);
    for (auto& byte : std::span(image.getData(), std::size_t(image.getByteSize()))) byte = std::byte(rng());
    if (getChannelType(format) == ChannelType::Float || getChannelType(format) == ChannelType::Half) // not all bytes are finite; these fit halves
        for (int y = 0; y < size.y; ++y)
            for (int x = 0; x < size.x; ++x)
                image.setRgbAlpha(x, y, {float(rng() % 1000) / 8.f, float(x), -float(y) / 1024.f, 0.5f});
    return image;
}

using DecodeRoundTripTest = Testing::TempFolderTest;

// Lossless formats give back exactly what was written, from a file and from memory alike.
TEST_F(DecodeRoundTripTest, LosslessFormatsFromFileAndMemory) {
    struct Case { char const* extension; ImageFormat format; PixelFormat pixels; FileChannelType channelType; };
    for (Case const& c : {Case{"png", ImageFormat::Png, PixelFormat::Rgba8, FileChannelType::Auto},
                          Case{"png", ImageFormat::Png, PixelFormat::MonoAlpha16, FileChannelType::Auto},
                          Case{"exr", ImageFormat::Exr, PixelFormat::RgbaFloat, FileChannelType::Float},
                          Case{"exr", ImageFormat::Exr, PixelFormat::RgbHalf, FileChannelType::Auto},
                          Case{"exr", ImageFormat::Exr, PixelFormat::MonoAlphaHalf, FileChannelType::Auto},
                          Case{"tif", ImageFormat::Tiff, PixelFormat::Rgb16, FileChannelType::Auto},
                          Case{"tga", ImageFormat::Tga, PixelFormat::Rgba8, FileChannelType::Auto},
                          Case{"bmp", ImageFormat::Bmp, PixelFormat::Rgb8, FileChannelType::Auto}}) {
        SCOPED_TRACE(String(c.extension) + " " + getPixelFormatName(c.pixels));
        Image const original = randomImage(c.pixels, {13, 7}, 42);
        Io::Path const path = mFolder / (String("image.") + c.extension);
        ASSERT_TRUE(writeImage(original, path, {c.channelType, {}}));
        std::ifstream file(path, std::ios::binary);
        String const bytes(std::istreambuf_iterator<char>(file), {});
        Io::MemoryInputStream memory(bytes.data(), bytes.size());
        for (Image const& decoded : {decodeFile(path, c.format), decode(memory, c.format)}) {
            ASSERT_EQ(decoded.getDescriptor(), original.getDescriptor());
            EXPECT_EQ(0, std::memcmp(decoded.getData(), original.getData(), std::size_t(original.getByteSize())));
        }
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
            for (int ch = 0; ch < 3; ++ch) EXPECT_NEAR(got[ch], want.rgb()[ch], tolerance) << x << "," << y;
        }
}

TEST_F(DecodeRoundTripTest, AFileOfAnotherFormatIsAOneLineErrorNamingIt) {
    Io::Path const path = mFolder / "not-really.exr";
    ASSERT_TRUE(writeImage(randomImage(PixelFormat::Rgb8, {4, 4}, 1), mFolder / "real.png"));
    std::filesystem::copy_file(mFolder / "real.png", path);
    String const error = errorOf([&] { decodeFile(path, ImageFormat::Exr); });
    EXPECT_NE(error.find(Io::pathToUtf8(path)), String::npos) << error;
    EXPECT_EQ(error.find('\n'), String::npos) << error;
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

TEST(ImageLimitsTest, DeclaredSizesBeyondTheLimitsOrTheFileAreRefused) {
    struct Case {
        DeclaredImageSize size;
        char const* problem; ///< nullptr: accepted
    };
    std::int64_t const mib = 1 << 20;
    for (Case const& c : {
             Case{{1920, 1080, 4, 2, 12 * mib}, nullptr},
             Case{{16384, 16384, 4, 4, std::nullopt}, nullptr}, // the largest, file size unknown
             Case{{2048, 2048, 4, 2, 1000}, nullptr},           // 32 MiB of blank image in a small file
             Case{{0, 10, 3, 1, std::nullopt}, "empty"},
             Case{{65537, 1, 3, 1, std::nullopt}, "per side"},
             Case{{16384, 16385, 1, 1, std::nullopt}, "268435456 pixels"},
             Case{{4096, 4096, 65, 1, std::nullopt}, "channels"},
             Case{{16384, 16384, 8, 4, std::nullopt}, "bytes"},     // 8 GiB of float channels
             Case{{8192, 8192, 4, 2, 779}, "the file's 779 bytes"}, // 512 MiB from a 779-byte file
         }) {
        auto const r = checkDeclaredImageSize("\"in.exr\"", c.size);
        if (!c.problem) {
            EXPECT_TRUE(r) << r.error();
            continue;
        }
        ASSERT_FALSE(r) << c.problem;
        EXPECT_EQ(r.error().rfind("\"in.exr\": ", 0), 0u) << r.error();
        EXPECT_NE(r.error().find(c.problem), String::npos) << r.error();
    }
}

} // namespace
