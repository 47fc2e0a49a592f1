#include "Ferrim/TextureMap/TextureSampling.h"

#include "TextureMapTestSupport.h"

namespace Quelin {
namespace {

using namespace TextureSampling;
using namespace TextureMapTest;

template <typename F> Image monoLevel(int w, int h, F f) {
    return imageOf(w, h, PixelFormat::MonoFloat, [&](int x, int y) { return RgbAlpha(Rgb(float(f(x, y))), 1.f); });
}

float sample(Image const& level, InterpolationMode mode, float u, float v, Addressing a = {}) {
    TexelConversion const none;
    auto const fn = selectSampleFunction(level.getFormat(), mode, Conversion::None);
    LevelShape const shape = LevelShape::of(level.getWidth(), level.getHeight(), level.getFormat());
    return fn(level.getData(), shape, u, v, a, none)[0];
}

TEST(TextureSamplingBorders, TapsBeyondTheBorderFollowTheAddressing) {
    // Columns 0, 1, 2, 3 hold 1, 0, 0, 5: repeating pulls in the last column. Read at u = 0, half a
    // texel before the first centre; the B-spline at fraction 0.5 weighs taps -2 to 1 by 1, 23, 23, 1 (/48).
    Image const level = monoLevel(4, 1, [](int x, int) { return x == 0 ? 1.f : (x == 3 ? 5.f : 0.f); });
    for (auto const& [address, mode, expected] :
         {std::tuple(Address::Clamp, InterpolationMode::Bilinear, 1.f), std::tuple(Address::Mirror, InterpolationMode::Bilinear, 1.f),
          std::tuple(Address::Repeat, InterpolationMode::Bilinear, 3.f),
          std::tuple(Address::Clamp, InterpolationMode::Bicubic, (1 + 23 + 23 + 0) / 48.f),
          std::tuple(Address::Mirror, InterpolationMode::Bicubic, (0 + 23 + 23 + 0) / 48.f),
          std::tuple(Address::Repeat, InterpolationMode::Bicubic, (0 + 5 * 23 + 23 + 0) / 48.f)})
        EXPECT_NEAR(sample(level, mode, 0.f, 0.5f, {address, Address::Clamp}), expected, 1e-6f) << int(address) << " " << int(mode);
}

TEST(TextureSamplingBicubic, ReproducesLinearRampsExactlyAndStaysWithinTheTexelRangeOnAStep) {
    // 3x - 2 row: a ramp across both axes.
    Image const ramp = monoLevel(16, 16, [](int x, int y) { return 3 * x - 2 * y; });
    for (float u : {0.19f, 0.25f, 0.5f, 0.6173f, 0.8f})
        for (float v : {0.2f, 0.47f, 0.75f}) {
            float const x = u * 16.f - 0.5f, row = (1.f - v) * 16.f - 0.5f;
            EXPECT_NEAR(sample(ramp, InterpolationMode::Bicubic, u, v), 3.f * x - 2.f * row, 2e-5f) << u << ", " << v;
        }
    // A hard step from 0 to 1 between columns 7 and 8: an interpolating cubic overshoots here.
    Image const level = monoLevel(16, 4, [](int x, int) { return x >= 8 ? 1.f : 0.f; });
    float previous = -1.f;
    for (int i = 0; i <= 400; ++i) {
        float const u = float(i) / 400.f;
        float const s = sample(level, InterpolationMode::Bicubic, u, 0.5f);
        // Float rounding of the weights aside; an interpolating cubic overshoots by 7 %.
        EXPECT_GE(s, -1e-6f) << u;
        EXPECT_LE(s, 1.f + 1e-6f) << u;
        EXPECT_GE(s, previous - 1e-6f) << "not monotonic at " << u;
        previous = s;
    }
    EXPECT_GT(sample(level, InterpolationMode::Bicubic, 0.55f, 0.5f), 0.5f);
}

TEST(TextureSamplingFormats, TexelsDecodeAsTheImageReadsThem) {
    // The image's own (slow, general) conversion is the reference for every format.
    for (PixelFormat const format : ALL_FORMATS) {
        SCOPED_TRACE(getPixelFormatName(format));
        Image const level = imageOf(2, 1, format, [](int x, int) {
            return x == 0 ? RgbAlpha(0.25f, 0.5f, 0.75f, 0.5f) : RgbAlpha(1.f, 0.125f, 0.f, 1.f);
        });
        auto const fn = selectSampleFunction(format, InterpolationMode::Nearest, Conversion::None);
        for (int x = 0; x < 2; ++x) {
            Float4 const c = fn(level.getData(), LevelShape::of(2, 1, format), 0.25f + 0.5f * float(x), 0.5f, {}, {});
            expectNear(RgbAlpha(c[0], c[1], c[2], c[3]), level.getRgbAlpha(x, 0), 1e-6f);
        }
    }
}

} // namespace
} // namespace Quelin
