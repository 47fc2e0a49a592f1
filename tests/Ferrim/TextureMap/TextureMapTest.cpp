#include <cmath>
#include <latch>
#include <thread>

#include "Ferrim/TextureMap/MipMapManager.h"
#include "QuelinLib/Json.h"
#include "TextureMapTestSupport.h"

namespace Quelin {
namespace {

using namespace TextureMapTest;

/// Texel x holds x + 0.5: every box-filtered level is the same ramp, so Nearest
/// at u = 0.05 reads 2^L on level L.
Image rampImage() {
    return imageOf(16, 16, PixelFormat::MonoFloat, [](int x, int) { return RgbAlpha(Rgb(float(x) + 0.5f), 1.f); });
}

struct LandingCase {
    char const* what;
    WrapMode wrapU;
    bool placement;  ///< the image placed in (0.25, 0.25)-(0.75, 0.75)
    float u, v;
    Optional<Vector2> read;  ///< the bilinear coordinate read (texel centres are whole); empty: outside
};

class TextureMapLanding : public TextureMapFixture, public ::testing::WithParamInterface<LandingCase> {};

TEST_P(TextureMapLanding, WrapAndPlacement) {
    LandingCase const c = GetParam();
    auto map = makeMap(write("coords.exr", coordinateImage(16, 16)));
    mapperOf(*map).set("wrapU", c.wrapU);
    if (c.placement) {
        map->set("transformation_enabled", true);
        map->set("transformation_mode", TextureMap::TransformationMode::Placement);
        map->set("transformation_lowerLeft", Vector2(0.25f, 0.25f));
        map->set("transformation_upperRight", Vector2(0.75f, 0.75f));
    }
    auto const e = evaluatorOf(*map);
    SettableShadeContext const ctx(c.u, c.v);
    if (c.read) {
        EXPECT_EQ(e->evalColor(ctx, nullptr), RgbAlpha(c.read->x, c.read->y, 0, 1)) << c.what;
    } else {
        EXPECT_EQ(e->evalColor(ctx, nullptr), RgbAlpha(0, 0, 0, 0)) << c.what;
        EXPECT_EQ(e->evalMono(ctx, nullptr), MonoAlpha(0, 1)) << c.what;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, TextureMapLanding,
    ::testing::Values(LandingCase{"NoTiling keeps u = 1", WrapMode::NoTiling, false, 1.f, 0.5f, Vector2(15.f, 7.5f)},
                      LandingCase{"NoTiling drops u = 1.0001", WrapMode::NoTiling, false, 1.0001f, 0.5f, {}},
                      LandingCase{"NoTiling drops u < 0", WrapMode::NoTiling, false, -0.0001f, 0.5f, {}},
                      // The mapper runs a mirrored axis over two tiles, so the wrapped value is twice u.
                      LandingCase{"Mirror of 1.5 is 0.5", WrapMode::Mirror, false, 0.75f, 0.5f, Vector2(7.5f, 7.5f)},
                      LandingCase{"Mirror of -0.25 is 0.25", WrapMode::Mirror, false, -0.125f, 0.5f, Vector2(3.5f, 7.5f)},
                      LandingCase{"Placement: u = 0.5 is the image centre", WrapMode::Repeat, true, 0.5f, 0.5f,
                                  Vector2(7.5f, 7.5f)},
                      LandingCase{"Placement: u = 0.2 is outside", WrapMode::Repeat, true, 0.2f, 0.5f, {}},
                      LandingCase{"Placement: v = 0.8 is outside", WrapMode::Repeat, true, 0.5f, 0.8f, {}}));

struct LevelCase {
    float footprint;
    float expected;  ///< 2^L on this ramp (see rampImage)
    char const* why;
};

class TextureMapLevels : public TextureMapFixture, public ::testing::WithParamInterface<LevelCase> {};

TEST_P(TextureMapLevels, FootprintPicksAndBlendsLevels) {
    auto map = makeMap(write("ramp.exr", rampImage()));
    map->set("interpolation", InterpolationMode::Nearest);
    SettableShadeContext ctx(0.05f, 0.5f);
    ctx.filtered = true;
    ctx.dUvw = Dir(GetParam().footprint, 1.f, 0.f);  // the smaller axis decides
    EXPECT_NEAR(evaluatorOf(*map)->evalMono(ctx, nullptr).value, GetParam().expected, 1e-4f) << GetParam().why;
}

INSTANTIATE_TEST_SUITE_P(Table, TextureMapLevels,
                         ::testing::Values(LevelCase{1.f, 8.f, "the whole texture: the coarsest level"},
                                           LevelCase{1e-12f, 0.5f, "far below a texel: level 0"},
                                           LevelCase{1.f / 16.f, 0.5f, "one texel: level 0"},
                                           LevelCase{2.f / 16.f, 1.f, "two texels: level 1"},
                                           LevelCase{3.f / 16.f, 1.5849625f, "log2 3 = 1.585: 0.415 of level 1, 0.585 of 2"},
                                           LevelCase{100.f, 8.f, "beyond the texture: still the coarsest"}));

TEST_F(TextureMapFixture, CropScalesTheFootprint) {
    auto map = makeMap(write("ramp.exr", rampImage()));
    map->set("interpolation", InterpolationMode::Nearest);
    map->set("transformation_enabled", true);
    map->set("transformation_lowerLeft", Vector2(0.f, 0.f));
    map->set("transformation_upperRight", Vector2(0.5f, 0.5f));
    SettableShadeContext ctx(0.1f, 0.5f);  // image u = 0.05
    ctx.filtered = true;
    ctx.dUvw = Dir(4.f / 16.f, 4.f / 16.f, 0.f);
    // Clip: half the image fills the texture, so the footprint halves: level 1.
    EXPECT_NEAR(evaluatorOf(*map)->evalMono(ctx, nullptr).value, 1.f, 1e-4f);
    // Placement: the image fills half the texture, so the footprint doubles: level 3.
    map->set("transformation_mode", TextureMap::TransformationMode::Placement);
    ctx.uvw = Pos(0.025f, 0.25f, 0.f);  // image u = 0.05 again
    EXPECT_NEAR(evaluatorOf(*map)->evalMono(ctx, nullptr).value, 4.f, 1e-4f);
}

struct GammaCase {
    bool custom;
    float gamma;
    float expected;  ///< for the 8-bit value 128
};

class TextureMapGamma : public TextureMapFixture, public ::testing::WithParamInterface<GammaCase> {};

TEST_P(TextureMapGamma, EightBitTexelsToLinearLight) {
    auto map = makeMap(write("grey.png", imageOf(2, 2, PixelFormat::Rgba8, [](int, int) { return RgbAlpha(Rgb(128.f / 255.f), 128.f / 255.f); })));
    map->set("customGamma", GetParam().custom);
    map->set("gamma", GetParam().gamma);
    RgbAlpha const c = evaluatorOf(*map)->evalColor(SettableShadeContext(0.3f, 0.6f), nullptr);
    float const x = GetParam().expected;
    expectNear(c, RgbAlpha(x, x, x, 128.f / 255.f), 2e-6f);  // alpha is never converted
}

INSTANTIATE_TEST_SUITE_P(Table, TextureMapGamma,
                         ::testing::Values(GammaCase{false, 1.f, 0.21952f},  // default for 8 bits: the 2.2 table
                                           GammaCase{true, 2.2f, 0.21952f},
                                           GammaCase{true, 1.f, 128.f / 255.f},
                                           GammaCase{true, 2.f, (128.f / 255.f) * (128.f / 255.f)}));

TEST_F(TextureMapFixture, FloatTexelsUseTheSignedPowerOnlyWhenAsked) {
    auto map = makeMap(write("signed.exr", imageOf(1, 1, PixelFormat::RgbaFloat, [](int, int) { return RgbAlpha(-0.5f, 0.5f, 4.f, 0.25f); })));
    EXPECT_EQ(evaluatorOf(*map)->evalColor(SettableShadeContext(), nullptr), RgbAlpha(-0.5f, 0.5f, 4.f, 0.25f));
    map->set("customGamma", true);
    map->set("gamma", 2.f);
    expectNear(evaluatorOf(*map)->evalColor(SettableShadeContext(), nullptr), RgbAlpha(-0.25f, 0.25f, 16.f, 0.25f), 1e-3f);
}

struct OutputCase {
    RgbAlpha texel;
    TextureMap::RgbOutput rgb;
    TextureMap::AlphaSource alpha;
    TextureMap::MonoOutput mono;
    RgbAlpha color;
    float value;
};

class TextureMapOutputs : public TextureMapFixture, public ::testing::WithParamInterface<OutputCase> {};

TEST_P(TextureMapOutputs, EveryChoice) {
    auto map = makeMap(write("colour.exr", imageOf(1, 1, PixelFormat::RgbaFloat, [](int, int) { return GetParam().texel; })));
    map->set("rgbOutput", GetParam().rgb);
    map->set("alphaSource", GetParam().alpha);
    map->set("monoOutput", GetParam().mono);
    auto const e = evaluatorOf(*map);
    EXPECT_EQ(e->evalColor(SettableShadeContext(), nullptr), GetParam().color);
    EXPECT_EQ(e->evalMono(SettableShadeContext(), nullptr), MonoAlpha(GetParam().value, 1.f));
}

using TM = TextureMap;
float const MEAN = channelMean(0.2f, 0.4f, 0.9f);
RgbAlpha const TEXEL(0.2f, 0.4f, 0.9f, 0.7f), BRIGHT(3.f, 2.f, 1.f, 1.5f);
INSTANTIATE_TEST_SUITE_P(
    Table, TextureMapOutputs,
    ::testing::Values(
        OutputCase{TEXEL, TM::RgbOutput::Rgb, TM::AlphaSource::ImageAlpha, TM::MonoOutput::RgbIntensity, TEXEL, MEAN},
        OutputCase{TEXEL, TM::RgbOutput::Rgb, TM::AlphaSource::RgbIntensity, TM::MonoOutput::Alpha, {0.2f, 0.4f, 0.9f, MEAN}, 0.7f},
        OutputCase{TEXEL, TM::RgbOutput::Rgb, TM::AlphaSource::None, TM::MonoOutput::RgbIntensity, {0.2f, 0.4f, 0.9f, 1.f}, MEAN},
        OutputCase{TEXEL, TM::RgbOutput::Alpha, TM::AlphaSource::None, TM::MonoOutput::Alpha, {0.7f, 0.7f, 0.7f, 0.7f}, 0.7f},
        // Alpha above one is clamped.
        OutputCase{BRIGHT, TM::RgbOutput::Alpha, TM::AlphaSource::ImageAlpha, TM::MonoOutput::Alpha, {1, 1, 1, 1}, 1.f}));

TEST_F(TextureMapFixture, FailedTextureReportsItsErrorAndIsOutside) {
    Io::Path const missing = mFolder / "missing.png";
    auto map = makeMap(missing);
    auto const info = map->getTextureInfo();
    ASSERT_FALSE(info.has_value());
    EXPECT_NE(info.error().find("missing.png"), String::npos) << info.error();
    auto const e = evaluatorOf(*map);
    EXPECT_EQ(e->evalColor(SettableShadeContext(), nullptr), RgbAlpha(0, 0, 0, 0));
    EXPECT_EQ(e->evalMono(SettableShadeContext(), nullptr), MonoAlpha(0, 1));
    EXPECT_EQ(e->evalBump(SettableShadeContext(), nullptr), Dir());
}

TEST_F(TextureMapFixture, RecordLoadsFromJsonWithItsLabels) {
    nlohmann::json const j = {
        {String(JSON_CLASS_KEY), "Zatho.TextureMap"},
        {"imageSource", {{String(JSON_CLASS_KEY), "Zatho.FileDataSource"}, {"path", "/nowhere.png"}}},
        {"interpolation", "Nearest"}, {"monoOutput", "Alpha"}, {"rgbOutput", "Alpha"}, {"alphaSource", "RgbIntensity"},
        {"transformation_mode", "Placement"}, {"enviroMode", {{"mapping", "MirrorBall"}, {"mode", "Environment"}}}};
    auto loaded = entityFromJsonAs<TextureMap>(j);
    ASSERT_TRUE(loaded.has_value()) << loaded.error();
    TextureMap::Settings const s = TextureMap::Settings::fromData((*loaded)->getData());
    EXPECT_EQ(std::tuple(s.interpolation, s.environmentMapping, s.cropMode, s.monoOutput, s.rgbOutput, s.alphaSource),
              std::tuple(InterpolationMode::Nearest, EnvironmentMapping::MirrorBall, TextureMap::TransformationMode::Placement,
                         TextureMap::MonoOutput::Alpha, TextureMap::RgbOutput::Alpha, TextureMap::AlphaSource::RgbIntensity));
    // Negative gamma is refused, negative blur clamped.
    EXPECT_FALSE((*loaded)->setValue("gamma", -1.f).has_value());
    setEnviro(**loaded, "blur", -3.f);
    EXPECT_EQ((*loaded)->get<GenericDataObject>("enviroMode").get<float>("blur"), 0.f);
}

TEST_F(TextureMapFixture, BumpOfARampAgainstFiniteDifferences) {
    // Value (x + 0.5) + 2 (rows from the bottom + 0.5): bilinear gives 16 u + 32 v inside.
    auto map = makeMap(write("ramp2.exr", imageOf(16, 16, PixelFormat::MonoFloat, [](int x, int row) {
                                 return RgbAlpha(Rgb(float(x) + 0.5f + 2.f * (float(15 - row) + 0.5f)), 1.f);
                             })));
    map->set("bumpStrength", 0.25f);
    auto const e = evaluatorOf(*map);
    SettableShadeContext ctx(0.4f, 0.55f);
    ctx.bumpBase = Matrix33::fromColumns(Dir(0, 2, 0), Dir(0, 0, 1), Dir(1, 0, 0));  // dP/du, dP/dv, normal
    float const h = 0.01f;
    auto const mono = [&](float u, float v) { return e->evalMono(SettableShadeContext(u, v), nullptr).value; };
    float const gu = (mono(0.4f + h, 0.55f) - mono(0.4f - h, 0.55f)) / (2 * h);
    float const gv = (mono(0.4f, 0.55f + h) - mono(0.4f, 0.55f - h)) / (2 * h);
    EXPECT_NEAR(gu, 16.f, 1e-2f);
    EXPECT_NEAR(gv, 32.f, 2e-2f);
    // Downhill: against the gradient, along the frame's dP/du and dP/dv, scaled by the strength.
    Testing::expectNear(e->evalBump(ctx, nullptr), (Dir(0, 2, 0) * gu + Dir(0, 0, 1) * gv) * -0.25f, 1e-2f);
}

TEST_F(TextureMapFixture, OffloadedLevelIsReadBackOnceForConcurrentLookups) {
    auto map = makeMap(write("coords.exr", coordinateImage(64, 32)));
    map->set("interpolation", InterpolationMode::Nearest);
    auto const e = evaluatorOf(*map);
    auto const& texture = static_cast<TextureMap::Evaluator const&>(*e).getTexture();
    Io::Path const store = mFolder / "offload";
    ASSERT_TRUE(MipMapManager::updateCache(true, std::nullopt, std::nullopt, store).has_value());
    ASSERT_GT(texture.getOffloadedCount(), 0);

    constexpr int THREADS = 8;
    std::latch start(THREADS);
    Stack<String> seen(THREADS);
    Stack<std::thread> threads;
    for (int i = 0; i < THREADS; ++i)
        threads.emplace_back([&, i] {
            SettableShadeContext ctx((float(i) + 0.5f) / 64.f, 0.99f);  // unfiltered: level 0
            start.arrive_and_wait();
            try {
                RgbAlpha const c = e->evalColor(ctx, nullptr);
                seen[std::size_t(i)] = std::to_string(int(c.r)) + "," + std::to_string(int(c.g));
            } catch (std::exception const& x) {
                seen[std::size_t(i)] = x.what();  // a second read of a removed level file fails
            }
        });
    for (auto& t : threads) t.join();
    for (int i = 0; i < THREADS; ++i) EXPECT_EQ(seen[std::size_t(i)], std::to_string(i) + ",0");
    EXPECT_EQ(texture.getOffloadedCount(), 0);
    EXPECT_EQ(MipMapManager::getOffloadedBytes(), 0);
    (void)MipMapManager::updateCache(false, std::nullopt, std::nullopt, store);
}

} // namespace
} // namespace Quelin
