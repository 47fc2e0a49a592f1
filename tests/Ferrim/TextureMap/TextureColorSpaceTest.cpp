// Texture maps read in a colour space: decoded texels against OpenColorIO's
// own processor built from the same config, mip levels averaged in linear
// light, and one texture per file and colour space.
#include <sstream>

#include <OpenColorIO/OpenColorIO.h>

#include "Ferrim/ColorSpaces.h"
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "TestSupport/ScopedEnv.h"
#include "TextureMapTestSupport.h"

using namespace Quelin;
using namespace Quelin::TextureMapTest;
namespace OCIO = OCIO_NAMESPACE;

namespace {

OCIO::ConstCPUProcessorRcPtr reference(char const* from) {
    std::istringstream text{String(ColorSpaces::builtinConfigText())};
    auto config = OCIO::Config::CreateFromStream(text);
    return config->getProcessor(from, "Linear Rec.709 (sRGB)")->getDefaultCPUProcessor();
}

class TextureColorSpace : public TextureMapFixture {
protected:
    Testing::ScopedEnv const mNoOcio{"OCIO", nullptr};  // the built-in config

    /// The texel (x, row) of level 0 as the evaluator decodes it.
    static RgbAlpha texel(TextureMap::Evaluator const& e, int x, int row) {
        Pixel const size = e.getTexture().getDescriptor().resolution;
        float const u = (float(x) + 0.5f) / float(size.x), v = 1.f - (float(row) + 0.5f) / float(size.y);
        return e.lookupWrapped(u, v, 0.f, 0.f, false, {}).value_or(RgbAlpha(-1.f, -1.f, -1.f, -1.f));
    }
    static TextureMap::Evaluator evaluator(Io::Path const& path, String const& space) {
        TextureMap::Settings settings;
        settings.interpolation = InterpolationMode::Nearest;
        settings.colorSpace = space;
        return TextureMap::Evaluator(ImageTextureCache::getOrCreateInColorSpace(FileDataSource::make(path), space),
                                     nullptr, settings);
    }
    /// Every texel of `image` (stored in `path`) decoded as OpenColorIO converts it from `space`.
    void expectDecodedLikeOcio(Io::Path const& path, Image const& image, String const& space, char const* from) {
        TextureMap::Evaluator const e = evaluator(path, space);
        ASSERT_TRUE(e.getTexture().hasPixels()) << e.getTexture().getError();
        auto const cpu = reference(from);
        for (int y = 0; y < image.getHeight(); ++y)
            for (int x = 0; x < image.getWidth(); ++x) {
                RgbAlpha const stored = image.getRgbAlpha(x, y);
                float p[3] = {stored.r, stored.g, stored.b};
                cpu->applyRGB(p);
                RgbAlpha const got = texel(e, x, y);
                for (int c = 0; c < 3; ++c)
                    ASSERT_NEAR(got.rgb()[c], p[c], 1e-5f * std::max(1.f, std::abs(p[c])))
                        << space << " texel " << x << ", " << y << " channel " << c;
                EXPECT_NEAR(got.alpha, stored.alpha, 1e-6f);
            }
    }
};

} // namespace

TEST_F(TextureColorSpace, DecodedTexelsMatchOpenColorIO) {
    Image const bytes = randomImage(Pixel(16, 16), PixelFormat::Rgba8, 11);
    Io::Path const png = write("noise.png", bytes);
    // The last is a matrix, applied at load to float texels.
    for (char const* space : {"sRGB - Texture", "Gamma 2.2 Rec.709 - Texture", "ACEScg"}) expectDecodedLikeOcio(png, bytes, space, space);
    Image const sixteen = randomImage(Pixel(8, 8), PixelFormat::Rgb16, 12);
    expectDecodedLikeOcio(write("noise16.png", sixteen), sixteen, "auto", "sRGB - Texture");
    Image floats = imageOf(8, 8, PixelFormat::RgbaFloat, [](int x, int y) {
        return RgbAlpha(0.1f * float(x), 3.f - 0.2f * float(y), 0.05f * float(x + y), 0.5f);
    });
    Io::Path const exr = write("ramp.exr", floats);
    expectDecodedLikeOcio(exr, floats, "ACES2065-1", "ACES2065-1");
    expectDecodedLikeOcio(exr, floats, "auto", "Linear Rec.709 (sRGB)");
    Image const mono = randomImage(Pixel(8, 8), PixelFormat::Mono8, 13);
    expectDecodedLikeOcio(write("mono.png", mono), mono, "auto", "sRGB - Texture");
}

TEST_F(TextureColorSpace, MipLevelsAreAveragedInLinearLight) {
    // Black and white columns: in linear light their mean is 0.5, which the
    // sRGB curve stores as code 188; averaging codes would give 128.
    Image const stripes = imageOf(4, 4, PixelFormat::Rgb8, [](int x, int) { return RgbAlpha(x % 2 ? 1.f : 0.f, 0.f, 0.f, 1.f); });
    Io::Path const png = write("stripes.png", stripes);
    auto const srgb = ImageTextureCache::getOrCreateInColorSpace(FileDataSource::make(png), "sRGB - Texture");
    ASSERT_GE(srgb->getLevelCount(), 2);
    EXPECT_EQ(srgb->getLevel(1).getRgbAlpha(0, 0).r * 255.f, 188.f);
    auto const plain = ImageTextureCache::getOrCreate(FileDataSource::make(png));
    EXPECT_EQ(plain->getLevel(1).getRgbAlpha(0, 0).r * 255.f, 128.f);
    // A float file converted at load: its levels are averages of converted texels.
    Image const floats = imageOf(2, 2, PixelFormat::RgbFloat, [](int x, int y) { return RgbAlpha(float(x + 2 * y), 1.f, 0.f, 1.f); });
    auto const aces = ImageTextureCache::getOrCreateInColorSpace(FileDataSource::make(write("f.exr", floats)), "ACEScg");
    ASSERT_EQ(aces->getLevelCount(), 2);
    auto const cpu = reference("ACEScg");
    float mean[3] = {0, 0, 0};
    for (int i = 0; i < 4; ++i) {
        float p[3] = {float(i), 1.f, 0.f};
        cpu->applyRGB(p);
        for (int c = 0; c < 3; ++c) mean[c] += p[c] / 4.f;
    }
    RgbAlpha const top = aces->getLevel(1).getRgbAlpha(0, 0);
    for (int c = 0; c < 3; ++c) EXPECT_NEAR(top.rgb()[c], mean[c], 1e-5f) << c;
}

TEST_F(TextureColorSpace, UnknownSpaceIsTheTexturesErrorNamingConfigAndSpace) {
    Io::Path const png = write("a.png", randomImage(Pixel(4, 4), PixelFormat::Rgb8, 1));
    auto map = makeMap(png);
    map->set("colorSpace", String("Linear sRGB"));
    auto info = map->getTextureInfo();
    ASSERT_FALSE(info);
    EXPECT_NE(info.error().find("built-in config"), String::npos) << info.error();
    EXPECT_NE(info.error().find("\"Linear sRGB\""), String::npos) << info.error();
    // The same file without a colour space still loads.
    map->set("colorSpace", String());
    EXPECT_TRUE(map->getTextureInfo()) << "plain load";
}
