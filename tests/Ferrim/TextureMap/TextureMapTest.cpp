#include <array>
#include <bit>
#include <cmath>
#include <fstream>
#include <functional>

#include "Ferrim/TextureMap/ImageTextureCache.h"
#include "TextureMapTestSupport.h"

namespace Quelin {
namespace {

using namespace TextureMapTest;

/// Texel x holds x + 0.5: every box-filtered level is the same ramp, so Nearest
/// at u = 0.05 reads 2^L on level L.
Image rampImage() {
    return imageOf(16, 16, PixelFormat::MonoFloat, [](int x, int) { return RgbAlpha(Rgb(float(x) + 0.5f), 1.f); });
}

TEST_F(TextureMapFixture, WrapAndPlacementLandOnTheExpectedTexel) {
    struct Case {
        char const* what;
        WrapMode wrapU;
        bool placement;  ///< the image placed in (0.25, 0.25)-(0.75, 0.75)
        float u, v;
        Optional<Vector2> read;  ///< the bilinear coordinate read (texel centres are whole); empty: outside
    };
    auto map = makeMap(write("coords.exr", coordinateImage(16, 16)));
    map->set("transformation_mode", TextureMap::TransformationMode::Placement);
    map->set("transformation_lowerLeft", Vector2(0.25f, 0.25f));
    map->set("transformation_upperRight", Vector2(0.75f, 0.75f));
    for (Case const& c : {
             Case{"NoTiling keeps u = 1", WrapMode::NoTiling, false, 1.f, 0.5f, Vector2(15.f, 7.5f)},
             Case{"NoTiling drops u = 1.0001", WrapMode::NoTiling, false, 1.0001f, 0.5f, {}},
             Case{"NoTiling drops u < 0", WrapMode::NoTiling, false, -0.0001f, 0.5f, {}},
             // The mapper runs a mirrored axis over two tiles, so the wrapped value is twice u.
             Case{"Mirror of 1.5 is 0.5", WrapMode::Mirror, false, 0.75f, 0.5f, Vector2(7.5f, 7.5f)},
             Case{"Mirror of -0.25 is 0.25", WrapMode::Mirror, false, -0.125f, 0.5f, Vector2(3.5f, 7.5f)},
             Case{"Placement: u = 0.5 is the image centre", WrapMode::Repeat, true, 0.5f, 0.5f, Vector2(7.5f, 7.5f)},
             Case{"Placement: u = 0.2 is outside", WrapMode::Repeat, true, 0.2f, 0.5f, {}},
             Case{"Placement: v = 0.8 is outside", WrapMode::Repeat, true, 0.5f, 0.8f, {}}}) {
        mapperOf(*map).set("wrapU", c.wrapU);
        map->set("transformation_enabled", c.placement);
        auto const e = evaluatorOf(*map);
        SettableShadeContext const ctx(c.u, c.v);
        if (c.read) {
            EXPECT_EQ(e->evalColor(ctx, nullptr), RgbAlpha(c.read->x, c.read->y, 0, 1)) << c.what;
        } else {
            EXPECT_EQ(e->evalColor(ctx, nullptr), RgbAlpha(0, 0, 0, 0)) << c.what;
            EXPECT_EQ(e->evalMono(ctx, nullptr), MonoAlpha(0, 1)) << c.what;
        }
    }
}

TEST_F(TextureMapFixture, FootprintPicksAndBlendsLevels) {
    auto map = makeMap(write("ramp.exr", rampImage()));
    map->set("interpolation", InterpolationMode::Nearest);
    auto const e = evaluatorOf(*map);
    SettableShadeContext ctx(0.05f, 0.5f);
    ctx.filtered = true;
    // (footprint, 2^L read on this ramp)
    for (auto const& [footprint, expected, why] : {std::tuple(1.f, 8.f, "the whole texture: the coarsest level"),
                                                   std::tuple(1e-12f, 0.5f, "far below a texel: level 0"),
                                                   std::tuple(1.f / 16.f, 0.5f, "one texel: level 0"),
                                                   std::tuple(2.f / 16.f, 1.f, "two texels: level 1"),
                                                   std::tuple(3.f / 16.f, 1.5849625f, "log2 3: 0.415 of level 1, 0.585 of 2"),
                                                   std::tuple(100.f, 8.f, "beyond the texture: still the coarsest")}) {
        ctx.dUvw = Dir(footprint, 1.f, 0.f);  // the smaller axis decides
        EXPECT_NEAR(e->evalMono(ctx, nullptr).value, expected, 1e-4f) << why;
    }
}

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

TEST_F(TextureMapFixture, EightBitTexelsToLinearLight) {
    float const grey = 128.f / 255.f;
    auto map = makeMap(write("grey.png", imageOf(2, 2, PixelFormat::Rgba8, [&](int, int) { return RgbAlpha(Rgb(grey), grey); })));
    // (custom gamma, gamma, value read): by default 8 bits go through the 2.2 table.
    for (auto const& [custom, gamma, x] : {std::tuple(false, 1.f, 0.21952f), std::tuple(true, 2.2f, 0.21952f),
                                           std::tuple(true, 1.f, grey), std::tuple(true, 2.f, grey * grey)}) {
        map->set("customGamma", custom);
        map->set("gamma", gamma);
        SCOPED_TRACE(testing::Message() << "custom " << custom << ", gamma " << gamma);
        RgbAlpha const c = evaluatorOf(*map)->evalColor(SettableShadeContext(0.3f, 0.6f), nullptr);
        expectNear(c, RgbAlpha(x, x, x, grey), 2e-6f);  // alpha is never converted
    }
}

TEST_F(TextureMapFixture, FloatTexelsUseTheSignedPowerOnlyWhenAsked) {
    auto map = makeMap(write("signed.exr", imageOf(1, 1, PixelFormat::RgbaFloat, [](int, int) { return RgbAlpha(-0.5f, 0.5f, 4.f, 0.25f); })));
    EXPECT_EQ(evaluatorOf(*map)->evalColor(SettableShadeContext(), nullptr), RgbAlpha(-0.5f, 0.5f, 4.f, 0.25f));
    map->set("customGamma", true);
    map->set("gamma", 2.f);
    expectNear(evaluatorOf(*map)->evalColor(SettableShadeContext(), nullptr), RgbAlpha(-0.25f, 0.25f, 16.f, 0.25f), 1e-3f);
}

TEST_F(TextureMapFixture, EveryOutputChoice) {
    using TM = TextureMap;
    struct Case {
        RgbAlpha texel;
        TM::RgbOutput rgb;
        TM::AlphaSource alpha;
        TM::MonoOutput mono;
        RgbAlpha color;
        float value;
    };
    float const MEAN = channelMean(0.2f, 0.4f, 0.9f);
    RgbAlpha const TEXEL(0.2f, 0.4f, 0.9f, 0.7f), BRIGHT(3.f, 2.f, 1.f, 1.5f);
    Io::Path const plain = write("colour.exr", imageOf(1, 1, PixelFormat::RgbaFloat, [&](int, int) { return TEXEL; }));
    Io::Path const bright = write("bright.exr", imageOf(1, 1, PixelFormat::RgbaFloat, [&](int, int) { return BRIGHT; }));
    for (Case const& c : {
             Case{TEXEL, TM::RgbOutput::Rgb, TM::AlphaSource::ImageAlpha, TM::MonoOutput::RgbIntensity, TEXEL, MEAN},
             Case{TEXEL, TM::RgbOutput::Rgb, TM::AlphaSource::RgbIntensity, TM::MonoOutput::Alpha, {0.2f, 0.4f, 0.9f, MEAN}, 0.7f},
             Case{TEXEL, TM::RgbOutput::Rgb, TM::AlphaSource::None, TM::MonoOutput::RgbIntensity, {0.2f, 0.4f, 0.9f, 1.f}, MEAN},
             Case{TEXEL, TM::RgbOutput::Alpha, TM::AlphaSource::None, TM::MonoOutput::Alpha, {0.7f, 0.7f, 0.7f, 0.7f}, 0.7f},
             // Alpha above one is clamped.
             Case{BRIGHT, TM::RgbOutput::Alpha, TM::AlphaSource::ImageAlpha, TM::MonoOutput::Alpha, {1, 1, 1, 1}, 1.f}}) {
        auto map = makeMap(c.texel == TEXEL ? plain : bright);
        map->set("rgbOutput", c.rgb);
        map->set("alphaSource", c.alpha);
        map->set("monoOutput", c.mono);
        auto const e = evaluatorOf(*map);
        SCOPED_TRACE(testing::Message() << int(c.rgb) << " " << int(c.alpha) << " " << int(c.mono));
        EXPECT_EQ(e->evalColor(SettableShadeContext(), nullptr), c.color);
        EXPECT_EQ(e->evalMono(SettableShadeContext(), nullptr), MonoAlpha(c.value, 1.f));
    }
}

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

/// The bits of a result's floats, so that NaNs compare too.
template <typename T> std::array<std::uint32_t, sizeof(T) / 4> bitsOf(T const& value) {
    return std::bit_cast<std::array<std::uint32_t, sizeof(T) / 4>>(value);
}

TEST_F(TextureMapFixture, BatchedLookupsEqualSingleLookupsBitForBit) {
    // Inside, outside, on the seams, far away and not finite, with footprints
    // from none to past the whole texture.
    std::vector<MapLookupPoint> points;
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> d(-2.f, 3.f), f(0.f, 0.4f);
    for (int i = 0; i < 48; ++i) points.push_back({Pos(d(rng), d(rng), d(rng)), Dir(f(rng), f(rng), 0.f)});
    for (float x : {0.f, -0.f, 1.f, 0.5f, 1e30f, -1e30f, INFINITY, -INFINITY, NAN})
        points.push_back({Pos(x, 1.f - x, x), Dir(std::fabs(x), 0.01f, x)});
    Io::Path const bytes = write("bytes.png", randomImage(Pixel(16, 8), PixelFormat::Rgba8, 5));
    Io::Path const coords = write("coords.exr", coordinateImage(16, 8));
    // Negative and huge texels, alphas above 1, one infinite and one NaN texel.
    Io::Path const floats = write("floats.exr", imageOf(16, 8, PixelFormat::RgbaFloat, [](int x, int y) {
        float const s = float((x * 7 + y * 13) % 11) - 4.f;
        if (x == 3 && y == 2) return RgbAlpha(INFINITY, 1.f, -INFINITY, 2.f);
        if (x == 9 && y == 5) return RgbAlpha(NAN, 0.5f, 0.5f, NAN);
        return RgbAlpha(s * 1e3f, s * 0.37f, -s, 0.25f * float(y));
    }));
    struct Case {
        char const* what;
        Io::Path const& path;
        std::function<void(TextureMap&)> setUp;
        bool filtered = false;
        ShadedKind kind = ShadedKind::Surface;
    };
    auto const none = [](TextureMap&) {};
    auto const wraps = [](WrapMode u, WrapMode v, InterpolationMode mode = InterpolationMode::Bilinear) {
        return [=](TextureMap& m) { m.set("interpolation", mode), mapperOf(m).set("wrapU", u), mapperOf(m).set("wrapV", v); };
    };
    for (Case const& c : {
             Case{"8 bits, bilinear", bytes, none},
             Case{"8 bits, filtered through the levels", bytes, none, true},
             Case{"8 bits, clamped and repeated axes, filtered", bytes, wraps(WrapMode::Clamp, WrapMode::Repeat), true},
             Case{"float texels, untiled and clamped axes", floats, wraps(WrapMode::NoTiling, WrapMode::Clamp)},
             Case{"float texels, repeated and untiled axes, filtered", floats, wraps(WrapMode::Repeat, WrapMode::NoTiling), true},
             Case{"nearest, mirrored and untiled axes", coords, wraps(WrapMode::Mirror, WrapMode::NoTiling, InterpolationMode::Nearest)},
             Case{"bicubic through a placed mapper, filtered", coords,
                  [](TextureMap& m) {
                      m.set("interpolation", InterpolationMode::Bicubic);
                      mapperOf(m).set("scale", Pos(2.f, -3.f, 1.f));
                      mapperOf(m).set("offset", Pos(0.25f, 0.1f, 0.f));
                  },
                  true},
             Case{"crop as placement, alpha outputs", bytes,
                  [](TextureMap& m) {
                      m.set("transformation_enabled", true);
                      m.set("transformation_mode", TextureMap::TransformationMode::Placement);
                      m.set("transformation_lowerLeft", Vector2(0.2f, 0.3f));
                      m.set("transformation_upperRight", Vector2(0.9f, 0.7f));
                      m.set("alphaSource", TextureMap::AlphaSource::RgbIntensity);
                      m.set("monoOutput", TextureMap::MonoOutput::Alpha);
                  },
                  true},
             Case{"object position mapping ignores the points", coords,
                  [](TextureMap& m) { mapperOf(m).set("mappingMode", UvMappingMode::ObjectXyz); }},
             Case{"environment rays look up by direction", coords, none, false, ShadedKind::Environment},
         }) {
        SCOPED_TRACE(c.what);
        auto map = makeMap(c.path);
        c.setUp(*map);
        auto const e = evaluatorOf(*map);
        SettableShadeContext ctx(0.3f, 0.7f);
        ctx.filtered = c.filtered;
        ctx.kind = c.kind;
        ctx.objectPosition = Pos(0.6f, 0.1f, 0.f);
        ctx.view = normalize(Dir(0.3f, -0.5f, 0.8f));
        ctx.footprint = 0.02f;
        Stack<RgbAlpha> colors(points.size());
        Stack<MonoAlpha> monos(points.size());
        e->evalColors(ctx, points, colors, nullptr);
        e->evalMonos(ctx, points, monos, nullptr);
        for (std::size_t i = 0; i < points.size(); ++i) {
            OverridableUvwShadeContext const at(ctx, points[i].uvw, points[i].dUvw);
            EXPECT_EQ(bitsOf(colors[i]), bitsOf(e->evalColor(at, nullptr))) << "point " << i;
            EXPECT_EQ(bitsOf(monos[i]), bitsOf(e->evalMono(at, nullptr))) << "point " << i;
        }
    }
}

// ------------------------------------------------ tiled files, anisotropic

/// A context whose UV channel moves by `d` from pixel to pixel.
struct SlantedContext : SettableShadeContext {
    UvwDerivatives d;
    UvwDerivatives getUvwDerivatives(int) const override { return d; }
};

class TiledTextureMapTest : public TextureMapFixture {
protected:
    /// The map over the tiled file, and one over the same bytes in memory, which is decoded whole.
    std::pair<SharedPtr<TextureMap>, SharedPtr<TextureMap>> tiledAndWhole(String const& name, Image const& level0,
                                                                          FileChannelType type) {
        Io::Path const path = mFolder / name;
        writeTiledChain(level0, path, type);
        std::ifstream in(path, std::ios::binary);
        String bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        auto whole = makeSharedPtr<TextureMap>();
        whole->set("imageSource", EntityHolder<Entity>(MemoryDataSource::make(std::move(bytes), name.ends_with(".exr") ? "image/x-exr" : "image/tiff")));
        return {makeMap(path), whole};
    }
};

TEST_F(TiledTextureMapTest, EveryFilterOverTilesEqualsTheWholeDecodeBitForBitUnderAnyCap) {
    Image const noise = randomImage({100, 70}, PixelFormat::Rgba8, 5), mono16 = randomImage({100, 70}, PixelFormat::Mono16, 7);
    Image const floats = imageOf(100, 70, PixelFormat::RgbaFloat, [](int x, int y) {
        return RgbAlpha(float((x * 37 + y * 11) % 23) / 7.f - 1.f, std::sin(float(x * y)), float(x ^ y) / 64.f, float(y) / 35.f);
    });
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> unit(0.f, 1.f);
    // Each stored precision: the tiles hold the file's own texels.
    for (auto const& [name, image, type, held] : {std::tuple{"rgba8.tif", &noise, FileChannelType::UInt8, PixelFormat::Rgba8},
                                                  std::tuple{"mono16.tif", &mono16, FileChannelType::UInt16, PixelFormat::Mono16},
                                                  std::tuple{"half.exr", &floats, FileChannelType::Half, PixelFormat::RgbaHalf}}) {
        SCOPED_TRACE(name);
        auto [tiled, whole] = tiledAndWhole(name, *image, type);
        ASSERT_EQ(static_cast<TextureMap::Evaluator const&>(*evaluatorOf(*tiled)).getTexture().getTiledFile()->getFormat(), held);
        for (InterpolationMode mode : {InterpolationMode::Bilinear, InterpolationMode::Bicubic, InterpolationMode::Nearest,
                                       InterpolationMode::Anisotropic}) {
            tiled->set("interpolation", mode);
            whole->set("interpolation", mode);
            // Mirrored but for bilinear, whose batches then take their own road.
            WrapMode const wrapU = mode == InterpolationMode::Bilinear ? WrapMode::Repeat : WrapMode::Mirror;
            mapperOf(*tiled).set("wrapU", wrapU);
            mapperOf(*whole).set("wrapU", wrapU);
            auto const a = evaluatorOf(*tiled), b = evaluatorOf(*whole);
            ASSERT_NE(static_cast<TextureMap::Evaluator const&>(*a).getTexture().getTiledFile(), nullptr);
            ASSERT_EQ(static_cast<TextureMap::Evaluator const&>(*b).getTexture().getTiledFile(), nullptr);
            auto const compare = [&](int count) {
                // Batches too: a tiled texture has no level pixels for the batch road to read.
                Stack<MapLookupPoint> points;
                for (int i = 0; i < 64; ++i)
                    points.push_back({Pos(2.f * unit(rng) - 0.5f, unit(rng), 0.f), Dir(std::exp2(-9.f * unit(rng)), 0.f, 0.f)});
                Stack<RgbAlpha> x(points.size()), y(points.size());
                SettableShadeContext batch;
                a->evalColors(batch, points, x, nullptr);
                b->evalColors(batch, points, y, nullptr);
                ASSERT_EQ(std::memcmp(x.data(), y.data(), x.size() * sizeof x[0]), 0) << "mode " << int(mode);
                for (int i = 0; i < count; ++i) {
                    SlantedContext c;
                    c.uvw = Pos(2.f * unit(rng) - 0.5f, unit(rng), 0.f);
                    c.filtered = i % 4 != 0;
                    float const len = std::exp2(-9.f * unit(rng)), angle = 6.f * unit(rng);
                    c.d = {Dir(len * std::cos(angle), len * std::sin(angle), 0.f), Dir(-0.1f * len * std::sin(angle), 0.2f * len, 0.f)};
                    c.dUvw = Dir(len, 0.2f * len, 0.f);
                    RgbAlpha const x = a->evalColor(c, nullptr), y = b->evalColor(c, nullptr);
                    ASSERT_EQ(std::memcmp(&x, &y, sizeof x), 0) << "mode " << int(mode) << " point " << i;
                }
            };
            compare(400);
            // A cap of two tiles, where level 0 has 35: reads again, same results.
            TileStats const before = ImageTextureCache::getTileCache().getStats();
            ASSERT_TRUE(ImageTextureCache::setTileMemoryCap(2.0 * 16 * 16 * 16 / (1 << 20)));
            compare(400);
            EXPECT_GT(ImageTextureCache::getTileCache().getStats().bytesReread, before.bytesReread);
            // Beyond the cap: at most the tiles the last lookup pinned (16 for the probes of one).
            EXPECT_LE(ImageTextureCache::getTileCache().getMemoryUsage(), (2 + 16) * 16 * 16 * 16);
            ASSERT_TRUE(ImageTextureCache::setTileMemoryCap(ImageTextureCache::DEFAULT_TILE_MEMORY_MIB));
        }
        // The tiles count as the texture's memory.
        EXPECT_GT(static_cast<TextureMap::Evaluator const&>(*evaluatorOf(*tiled)).getTexture().getMemoryUsage(), 0);
    }
}

TEST_F(TiledTextureMapTest, AColourSpaceBeyondTheStoredTexelsDecodesWhole) {
    auto [srgb, unused] = tiledAndWhole("srgb.tif", randomImage({64, 64}, PixelFormat::Rgb8, 2), FileChannelType::UInt8);
    auto [linear, unused2] = tiledAndWhole("linear.exr", coordinateImage(64, 64), FileChannelType::Float);
    srgb->set("colorSpace", String("sRGB - Texture"));
    linear->set("colorSpace", String("auto"));
    auto const& s = static_cast<TextureMap::Evaluator const&>(*evaluatorOf(*srgb)).getTexture();
    auto const& l = static_cast<TextureMap::Evaluator const&>(*evaluatorOf(*linear)).getTexture();
    // The sRGB curve: the levels are averaged in linear light, as for any file.
    EXPECT_EQ(s.getTiledFile(), nullptr);
    EXPECT_EQ(s.getLevelCount(), 7);
    // Linear already: the tiles are read as stored.
    EXPECT_NE(l.getTiledFile(), nullptr);
    EXPECT_EQ(l.getColorSpace(), "Linear Rec.709 (sRGB)");
}

} // namespace
} // namespace Quelin
