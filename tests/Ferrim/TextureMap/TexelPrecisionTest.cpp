// Textures hold their texels in the file's own precision (8 bits, 16 bits,
// half), mip levels too: lookups agree with the same texels held as float
// within the precision's rounding, and the memory is the stored bytes.
#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "Ferrim/TextureMap/MipGeneration.h"
#include "Ferrim/TextureMap/MipMapManager.h"
#include "TextureMapTestSupport.h"

#include <bit>
#include <cmath>

using namespace Quelin;
using namespace Quelin::TextureMapTest;

namespace {

struct Case {
    char const* file;
    PixelFormat stored;
    FileChannelType channelType;
    float scale;       ///< texel values in [0, scale]
    char const* space; ///< colour space converted at load, or empty
    float absolute;    ///< tolerance: absolute part
    float relative;    ///< tolerance: part relative to the value
};

constexpr float HALF_ROUNDING = 1.f / 2048.f; // half a unit in the last place, relative

// clang-format off
Case const CASES[] = {
    {"rgba8.png",       PixelFormat::Rgba8,         FileChannelType::UInt8,  1.f, "",       0.5f / 255.f,   0.f},
    {"rgb16.tif",       PixelFormat::Rgb16,         FileChannelType::UInt16, 1.f, "",       0.5f / 65535.f, 0.f},
    {"rgbahalf.exr",    PixelFormat::RgbaHalf,      FileChannelType::Half,   8.f, "",       0.f,            HALF_ROUNDING},
    {"monoalpha.exr",   PixelFormat::MonoAlphaHalf, FileChannelType::Half,   8.f, "",       0.f,            HALF_ROUNDING},
    // Converted at load and rounded back to half, then filtered: two roundings
    // of values that the conversion's matrix may take to either sign.
    {"acescg.exr",      PixelFormat::RgbaHalf,      FileChannelType::Half,   8.f, "ACEScg", 4.f * 16.f * HALF_ROUNDING, 0.f},
};
// clang-format on

PixelFormat floatFormatWithChannels(int channels) {
    PixelFormat const formats[] = {PixelFormat::MonoFloat, PixelFormat::MonoAlphaFloat, PixelFormat::RgbFloat, PixelFormat::RgbaFloat};
    return formats[channels - 1];
}

class TexelPrecisionTest : public TextureMapFixture {
protected:
    struct Pair { SharedPtr<ImageTexture> stored, asFloat; };

    /// The case's texels (noise: 200 x 120, so that the chain has odd and even
    /// sizes) written in its precision, and the same values written as float.
    Pair load(Case const& c) {
        std::mt19937 rng(17);
        std::uniform_real_distribution<float> unit(0.f, 1.f);
        Image const stored = imageOf(200, 120, c.stored, [&](int, int) {
            return RgbAlpha(c.scale * unit(rng), c.scale * unit(rng), c.scale * unit(rng), unit(rng));
        });
        Image const asFloat = stored.convertedTo(floatFormatWithChannels(getChannelCount(c.stored)));
        Io::Path const storedPath = mFolder / c.file, floatPath = mFolder / (String(c.file) + ".float.exr");
        EXPECT_TRUE(writeImage(stored, storedPath, {c.channelType, {}}));
        EXPECT_TRUE(writeImage(asFloat, floatPath, {FileChannelType::Float, {}}));
        auto const open = [&](Io::Path const& path) {
            auto texture = *c.space ? ImageTextureCache::getOrCreateInColorSpace(FileDataSource::make(path), c.space)
                                    : ImageTextureCache::getOrCreate(FileDataSource::make(path));
            EXPECT_TRUE(texture->hasPixels()) << texture->getError();
            return texture;
        };
        return {open(storedPath), open(floatPath)};
    }

    static TextureMap::Evaluator evaluator(SharedPtr<ImageTexture> const& texture, Case const& c) {
        TextureMap::Settings settings;
        settings.colorSpace = c.space;
        if (!*c.space) settings.customGamma = 1.f; // integer texels as stored, scaled to [0, 1]
        return TextureMap::Evaluator(texture, nullptr, settings);
    }
};

TEST_F(TexelPrecisionTest, BilinearAndTrilinearLookupsMatchTheFloatPathWithinTheRounding) {
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.file);
        Pair const p = load(c);
        ASSERT_EQ(p.stored->getLevel(0).getFormat(), c.stored);
        TextureMap::Evaluator const stored = evaluator(p.stored, c), asFloat = evaluator(p.asFloat, c);
        std::mt19937 rng(3);
        std::uniform_real_distribution<float> unit(0.f, 1.f);
        for (int i = 0; i < 4000; ++i) {
            // Every other lookup filtered, over footprints from a quarter texel to the whole texture.
            bool const filtered = i % 2 == 1;
            float const u = unit(rng), v = unit(rng), du = std::exp2(-9.f * unit(rng)), dv = du * (1.f + unit(rng));
            RgbAlpha const got = stored.lookupWrapped(u, v, du, dv, filtered, {}).value();
            RgbAlpha const want = asFloat.lookupWrapped(u, v, du, dv, filtered, {}).value();
            for (int ch = 0; ch < 4; ++ch) {
                float const w = ch < 3 ? want.rgb()[ch] : want.alpha, g = ch < 3 ? got.rgb()[ch] : got.alpha;
                float const tolerance = c.absolute + c.relative * std::fabs(w) + 4e-6f * std::max(1.f, std::fabs(w));
                ASSERT_NEAR(g, w, tolerance) << "channel " << ch << (filtered ? " trilinear" : " bilinear") << " at " << u
                                             << ", " << v << " footprint " << du;
            }
        }
    }
}

TEST_F(TexelPrecisionTest, MemoryIsTheStoredBytesOfEveryLevelAndOffloadingKeepsThem) {
    for (Case const& c : CASES) {
        SCOPED_TRACE(c.file);
        SharedPtr<ImageTexture> const texture = load(c).stored;
        Pixel const size = texture->getDescriptor().resolution;
        std::int64_t expected = 0;
        for (int i = 0; i < texture->getLevelCount(); ++i) {
            EXPECT_EQ(texture->getLevel(i).getFormat(), c.stored) << "level " << i;
            Pixel const s = MipGeneration::getLevelResolution(size, i);
            expected += std::int64_t(s.x) * s.y * getPixelBytes(c.stored);
        }
        std::int64_t const level0 = std::int64_t(size.x) * size.y * getPixelBytes(c.stored);
        EXPECT_EQ(texture->getMemoryUsage(), expected);
        EXPECT_LE(texture->getMemoryUsage(), level0 + level0 / 3 + 8 * texture->getLevelCount());

        // Every level through the offload files and back: the same bytes.
        Stack<Image> before;
        for (int i = 0; i < texture->getLevelCount(); ++i) before.push_back(texture->getLevel(i).clone());
        ASSERT_TRUE(MipMapManager::updateCache(true, std::nullopt, std::nullopt, mFolder / "store"));
        EXPECT_EQ(texture->getMemoryUsage(), 0);
        EXPECT_EQ(texture->getMipChain().getOffloadedSize(), expected);
        texture->requireLevel(0);
        for (int i = 0; i < texture->getLevelCount(); ++i) EXPECT_TRUE(sameBytes(texture->getLevel(i), before[std::size_t(i)])) << i;
        ASSERT_TRUE(MipMapManager::updateCache(false, std::nullopt, std::nullopt, mFolder / "store"));
    }
}

TEST(HalfTexelTest, TheKernelsReadEveryHalfAsItsFloat) {
    // All 65536 patterns, four per texel: zeros, subnormals, infinities, NaNs.
    for (std::uint32_t bits = 0; bits < 65536; bits += 4) {
        std::uint16_t const texel[4] = {std::uint16_t(bits), std::uint16_t(bits + 1), std::uint16_t(bits + 2), std::uint16_t(bits + 3)};
        float got[4];
        TextureSampling::Detail::texel<PixelFormat::RgbaHalf, TextureSampling::Conversion::None>(
            reinterpret_cast<std::byte const*>(texel), {}).store(got);
        for (int i = 0; i < 4; ++i) {
            float const want = halfToFloat(texel[i]);
            if (std::isnan(want)) EXPECT_TRUE(std::isnan(got[i])) << std::hex << texel[i];
            else ASSERT_EQ(std::bit_cast<std::uint32_t>(got[i]), std::bit_cast<std::uint32_t>(want)) << std::hex << texel[i];
        }
    }
}

} // namespace
