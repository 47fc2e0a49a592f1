#include <filesystem>
#include <fstream>

#include "Ferrim/TextureMap/UdimTexture.h"
#include "TextureMapTestSupport.h"

namespace Quelin {
namespace {

using namespace TextureMapTest;

/// Float texels (UDIM number, column, row): a lookup says which tile and texel it read.
Image tileImage(int udim) {
    return imageOf(4, 4, PixelFormat::RgbaFloat, [udim](int x, int y) { return RgbAlpha(float(udim), float(x), float(y), 1.f); });
}

TEST(UdimNames, TileNamesFollowTheTokens) {
    // Tile (0, 2) and (1, 1) of each naming.
    struct Case { char const* pattern; char const* tile02; char const* tile11; };
    for (Case const& c : {Case{"t.<UDIM>.exr", "t.1021.exr", "t.1012.exr"},
                          Case{"t.%(UDIM)d.exr", "t.1021.exr", "t.1012.exr"},
                          Case{"t_<u>_<v>.exr", "t_u0_v2.exr", "t_u1_v1.exr"},
                          Case{"t_<U>_<V>.exr", "t_u1_v3.exr", "t_u2_v2.exr"},
                          Case{"t_<uvtile>.exr", "t_u0_v2.exr", "t_u1_v1.exr"},
                          Case{"t_<UVTILE>.exr", "t_u1_v3.exr", "t_u2_v2.exr"}}) {
        EXPECT_TRUE(Udim::isPattern(String("/a/b/") + c.pattern)) << c.pattern;
        EXPECT_EQ(Udim::tileName(c.pattern, 0, 2), c.tile02);
        EXPECT_EQ(Udim::tileName(c.pattern, 1, 1), c.tile11);
    }
    EXPECT_FALSE(Udim::isPattern("/a/<UDIM>/t.exr"));
    EXPECT_FALSE(Udim::isPattern("t<UDIM.exr"));
}

class UdimFixture : public TextureMapFixture {
protected:
    /// Tiles 1001, 1002 and 1011 of `pattern` in a folder of their own, beside
    /// files that only look like tiles.
    Io::Path writeSet(String const& folder, String const& pattern) {
        std::filesystem::create_directories(mFolder / folder);
        for (auto [u, v] : {std::pair(0, 0), std::pair(1, 0), std::pair(0, 1)})
            write(folder + "/" + Udim::tileName(pattern, u, v), tileImage(1001 + u + 10 * v));
        // Not images: taking one as a tile would make the set's error.
        for (char const* decoy : {"t.2001.exr", "t.1001.exr.bak", "t.10011.exr", "t_u10_v0.exr", "t_u0_v0x.exr", "t.1002_.exr"})
            std::ofstream(mFolder / folder / decoy) << "not an image";
        return mFolder / folder / pattern;
    }
};

TEST_F(UdimFixture, EachNamingFindsItsTilesAndMissingOnesAreOutside) {
    int n = 0;
    for (char const* pattern : {"t.<UDIM>.exr", "t.%(UDIM)d.exr", "t_<u>_<v>.exr", "t_<U>_<V>.exr", "t_<UVTILE>.exr"}) {
        auto map = makeMap(writeSet("set" + std::to_string(n++), pattern));
        auto const info = map->getTextureInfo();
        ASSERT_TRUE(info.has_value()) << pattern << ": " << info.error();
        EXPECT_EQ(info->tileCount, 3) << pattern;
        EXPECT_EQ(info->descriptor.resolution, Pixel(4, 4));
        auto const e = evaluatorOf(*map);
        struct Point {
            float u, v;
            float udim;  ///< 0: outside
        };
        for (Point const& p : {Point{0.5f, 0.5f, 1001}, Point{1.5f, 0.5f, 1002}, Point{0.5f, 1.5f, 1011},
                               Point{1.f, 0.2f, 1002}, Point{2.5f, 0.5f, 0}, Point{1.5f, 1.5f, 0},
                               Point{-0.5f, 0.5f, 0}, Point{10.5f, 0.5f, 0}, Point{0.5f, 100.5f, 0},
                               Point{std::nanf(""), 0.5f, 0}}) {
            SettableShadeContext const ctx(p.u, p.v);
            RgbAlpha const c = e->evalColor(ctx, nullptr);
            if (p.udim > 0) {
                EXPECT_EQ(c.r, p.udim) << pattern << " at " << p.u << ", " << p.v;
                EXPECT_EQ(e->evalMono(ctx, nullptr).alpha, 1.f);
            } else {
                EXPECT_EQ(c, RgbAlpha(0, 0, 0, 0)) << pattern << " at " << p.u << ", " << p.v;
                EXPECT_EQ(e->evalMono(ctx, nullptr), MonoAlpha(0, 1));
            }
        }
    }
}

TEST_F(UdimFixture, FilteringStopsAtTheTileEdge) {
    auto map = makeMap(writeSet("edge", "t.<UDIM>.exr"));
    for (InterpolationMode mode : {InterpolationMode::Bilinear, InterpolationMode::Bicubic}) {
        map->set("interpolation", mode);
        auto const e = evaluatorOf(*map);
        for (float footprint : {0.f, 0.3f, 1.f}) {
            SettableShadeContext ctx(0.9999f, 0.5f);
            ctx.filtered = footprint > 0.f;
            ctx.dUvw = Dir(footprint, footprint, 0.f);
            RgbAlpha const c = e->evalColor(ctx, nullptr);
            // A blend with 1002 would lift it by a good part of 1.
            EXPECT_NEAR(c.r, 1001.f, 1e-3f) << "footprint " << footprint;
            if (footprint == 0.f && mode == InterpolationMode::Bilinear) {
                EXPECT_NEAR(c.g, 3.f, 1e-3f) << "the last column, clamped";
            }
            ctx.uvw = Pos(0.5f, 0.9999f, 0.f);
            EXPECT_NEAR(e->evalColor(ctx, nullptr).r, 1001.f, 1e-3f) << "below 1011, footprint " << footprint;
        }
    }
}

TEST_F(UdimFixture, APatternWithoutTilesIsTheTexturesErrorNamingIt) {
    std::filesystem::create_directories(mFolder / "empty");
    Io::Path const pattern = mFolder / "empty" / "none.<UDIM>.exr";
    auto map = makeMap(pattern);
    auto const info = map->getTextureInfo();
    ASSERT_FALSE(info.has_value());
    EXPECT_NE(info.error().find(Io::pathToUtf8(pattern)), String::npos) << info.error();
    EXPECT_EQ(evaluatorOf(*map)->evalColor(SettableShadeContext(0.5f, 0.5f), nullptr), RgbAlpha(0, 0, 0, 0));

    // A tile that fails to decode is the set's error, naming that file.
    std::ofstream(mFolder / "empty" / "none.1001.exr") << "not an image";
    auto const broken = makeMap(pattern)->getTextureInfo();
    ASSERT_FALSE(broken.has_value());
    EXPECT_NE(broken.error().find("none.1001.exr"), String::npos) << broken.error();
}

} // namespace
} // namespace Quelin
