// Anisotropic filtering: the probe plan of a footprint, and a checkerboard
// plane seen at 80 degrees from its normal against a supersampled reference,
// beside the codec library's own anisotropic texture lookups.
#include <gtest/gtest.h>

#include <OpenImageIO/texture.h>
#include <cmath>

#include "Ferrim/TextureMap/AnisotropicFilter.h"
#include "Ferrim/TextureMap/MipGeneration.h"
#include "Ferrim/TextureMap/TileCache.h"
#include "QuelinLibImage/ImageLevelsWrite.h"
#include "TextureMapTestSupport.h"

using namespace Quelin;
using namespace Quelin::TextureSampling;

namespace {

TEST(AnisotropicProbesTest, RoundLongClampedAndHostileFootprints) {
    // Round: one probe as wide as the footprint.
    AnisotropicProbes round = planProbes({0.01f, 0.f, 0.f, 0.01f});
    EXPECT_EQ(round.count, 1);
    EXPECT_NEAR(round.width, 0.01f, 1e-6f);
    // Eight times longer along a rotated axis: sixteen probes of the short
    // axis's width, half a width apart along the long one, weights summing to 1.
    float const c = std::cos(0.5f), s = std::sin(0.5f);
    AnisotropicProbes const longer = planProbes({0.08f * c, 0.08f * s, -0.01f * s, 0.01f * c});
    EXPECT_EQ(longer.count, 16);
    EXPECT_NEAR(longer.width, 0.01f, 1e-6f);
    EXPECT_NEAR(std::abs(longer.stepU * c + longer.stepV * s), 0.01f, 1e-6f);
    EXPECT_NEAR(std::hypot(longer.stepU, longer.stepV), 0.01f, 1e-6f);
    float sum = 0.f;
    for (int i = 0; i < longer.count; ++i) sum += longer.weights[i];
    EXPECT_NEAR(sum, 1.f, 1e-6f);
    EXPECT_GT(longer.weights[7], longer.weights[0]);
    EXPECT_FLOAT_EQ(longer.weights[7], longer.weights[8]);
    // The cap widens the short axis instead of dropping the ends.
    AnisotropicProbes const capped = planProbes({0.64f, 0.f, 0.f, 0.001f}, 4.f);
    EXPECT_EQ(capped.count, 8);
    EXPECT_NEAR(capped.width, 0.16f, 1e-6f);
    // A line (no area) still probes along it; nothing at all is the finest level.
    EXPECT_EQ(planProbes({0.05f, 0.f, 0.f, 0.f}, 16.f).count, 32);
    EXPECT_EQ(planProbes({}).count, 1);
    EXPECT_EQ(planProbes({}).width, 0.f);
    // NaN steps are none, infinite ones the whole texture; a NaN cap the default.
    float const nan = std::nanf(""), inf = INFINITY;
    EXPECT_EQ(planProbes({nan, nan, nan, nan}).count, 1);
    AnisotropicProbes const huge = planProbes({inf, 0.f, 0.f, inf}, nan);
    EXPECT_EQ(huge.count, 1);
    EXPECT_NEAR(huge.width, 1.f, 1e-6f);
    EXPECT_EQ(planProbes({1.f, 0.f, 0.f, 1e-9f}, nan).count, 2 * int(DEFAULT_MAX_ANISOTROPY));
}

/// A pinhole camera one unit above the plane z = 0, its axis 80 degrees from
/// the plane's normal; texture coordinates are the plane's x and y.
struct GrazingView {
    static constexpr int SIZE = 48;
    static constexpr float PIXEL = 0.004f;  // radians a pixel
    float fy = std::sin(80.f * float(M_PI) / 180.f), fz = -std::cos(80.f * float(M_PI) / 180.f);

    /// (u, v) seen through the point (x, y) of the image, in pixels.
    void uvAt(float x, float y, float& u, float& v) const {
        float const ax = (x - 0.5f * SIZE) * PIXEL, ay = (0.5f * SIZE - y) * PIXEL;
        // forward (0, fy, fz), right (1, 0, 0), up (0, -fz, fy)
        float const dx = ax, dy = fy - ay * fz, dz = fz + ay * fy;
        float const t = -1.f / dz;
        u = 0.25f + dx * t * 0.2f;
        v = 0.1f + dy * t * 0.2f;
    }
};

/// 512 x 512 texels in checks of four: 0 and 1 in every channel.
constexpr int TEXELS = 512, CHECK = 4;
float checker(float u, float v) {
    long const i = long(std::floor(u * TEXELS / CHECK)), j = long(std::floor((1.f - v) * TEXELS / CHECK));
    return float((i + j) & 1);
}

class AnisotropicCheckerTest : public Testing::LibraryTempFolderTest {};

TEST_F(AnisotropicCheckerTest, GrazingCheckerboardIsNoWorseThanThePeersAnisotropicLookups) {
    Image level0(Image::Descriptor(Pixel(TEXELS, TEXELS), PixelFormat::Rgb8));
    for (int y = 0; y < TEXELS; ++y)
        for (int x = 0; x < TEXELS; ++x) {
            float const c = float(((x / CHECK) + (y / CHECK)) & 1);
            level0.setRgbAlpha(x, y, RgbAlpha(c, c, c, 1.f));
        }
    Stack<Image> levels;
    levels.push_back(level0.convertedTo(PixelFormat::RgbFloat));
    for (Image& level : MipGeneration::buildMipChain(levels.front())) levels.push_back(std::move(level));
    Io::Path const path = mFolder / "checker.exr";
    ImageWriteOptions options;
    options.channelType = FileChannelType::Float;
    ASSERT_TRUE(writeImageLevels(levels, path, options, 64));
    auto file = TiledImageFile::open(path);
    ASSERT_TRUE(file) << file.error();
    TileCache cache(std::int64_t(256) << 20);

    // The library's shared system: destroying a private one frees it with a
    // mismatched sized delete inside the library, which the address
    // sanitizer stops on.
    OIIO::TextureSystem* peer = OIIO::TextureSystem::create(true);
    OIIO::TextureOpt peerOptions;  // the default: anisotropic
    peerOptions.swrap = peerOptions.twrap = OIIO::TextureOpt::WrapPeriodic;
    OIIO::ustring const name(Io::pathToUtf8(path));

    GrazingView const view;
    Addressing const repeat{Address::Repeat, Address::Repeat};
    double ours = 0, theirs = 0, sharp = 0, blurred = 0;
    for (int py = 0; py < GrazingView::SIZE; ++py)
        for (int px = 0; px < GrazingView::SIZE; ++px) {
            // The pixel's true mean: 16 x 16 points of the exact checkerboard.
            double reference = 0;
            for (int j = 0; j < 16; ++j)
                for (int i = 0; i < 16; ++i) {
                    float u, v;
                    view.uvAt(float(px) + (float(i) + 0.5f) / 16.f, float(py) + (float(j) + 0.5f) / 16.f, u, v);
                    reference += checker(u - std::floor(u), v - std::floor(v));
                }
            reference /= 256.0;
            float u, v, ux, vx, uy, vy;
            view.uvAt(float(px) + 0.5f, float(py) + 0.5f, u, v);
            view.uvAt(float(px) + 1.5f, float(py) + 0.5f, ux, vx);
            view.uvAt(float(px) + 0.5f, float(py) + 1.5f, uy, vy);
            UvDerivatives const d{ux - u, vx - v, uy - u, vy - v};
            u -= std::floor(u);
            v -= std::floor(v);

            float out[4];
            cache.sampleAnisotropic(**file, u, v, d, DEFAULT_MAX_ANISOTROPY, repeat).store(out);
            ours += (out[1] - reference) * (out[1] - reference);
            float const shortAxis = std::min(std::hypot(d.dudx, d.dvdx), std::hypot(d.dudy, d.dvdy));
            float const longAxis = std::max(std::hypot(d.dudx, d.dvdx), std::hypot(d.dudy, d.dvdy));
            cache.sampleTrilinear(**file, u, v, shortAxis, repeat).store(out);
            sharp += (out[1] - reference) * (out[1] - reference);
            cache.sampleTrilinear(**file, u, v, longAxis, repeat).store(out);
            blurred += (out[1] - reference) * (out[1] - reference);
            float result[3];
            // Their t runs down the image, our v up.
            ASSERT_TRUE(peer->texture(name, peerOptions, u, 1.f - v, d.dudx, -d.dvdx, d.dudy, -d.dvdy, 3, result));
            theirs += (result[1] - reference) * (result[1] - reference);
        }
    double const n = double(GrazingView::SIZE * GrazingView::SIZE);
    ours /= n, theirs /= n, sharp /= n, blurred /= n;
    RecordProperty("ours", std::to_string(ours));
    RecordProperty("theirs", std::to_string(theirs));
    EXPECT_LE(ours, theirs) << "sharp " << sharp << ", blurred " << blurred;
    // Both isotropic choices lose: the short axis aliases, the long one blurs.
    EXPECT_LT(ours, 0.1 * sharp);
    EXPECT_LT(ours, blurred);
}

} // namespace
