#include "Ferrim/TextureMap/EnvironmentMapping.h"
#include "TextureMapTestSupport.h"

namespace Quelin {
namespace {

using namespace TextureMapTest;

Dir const AXES[6] = {Dir(1, 0, 0), Dir(-1, 0, 0), Dir(0, 1, 0), Dir(0, -1, 0), Dir(0, 0, 1), Dir(0, 0, -1)};

/// The texel (column, row from the top) a lookup read from a coordinate image.
Pixel texelRead(IMapEvaluator const& e, IShadeContext const& c) {
    RgbAlpha const r = e.evalColor(c, nullptr);
    return Pixel(int(r.r), int(r.g));
}

TEST_F(TextureMapFixture, AxisDirectionsReadTheExpectedTexels) {
    struct Case {
        EnvironmentMapping mapping;
        int width, height;  ///< of the coordinate image; sizes keep every expected texel off a texel border
        Pixel expected[6];  ///< read for +x, -x, +y, -y, +z, -z
    };
    for (Case const& c : {
             // u = 0, 0.5, 0.25, 0.75 around the horizon, the poles on the top and bottom rows.
             Case{EnvironmentMapping::Spherical, 13, 7, {{0, 3}, {6, 3}, {3, 3}, {9, 3}, {0, 0}, {0, 6}}},
             Case{EnvironmentMapping::Dome, 13, 7, {{0, 3}, {6, 3}, {3, 3}, {9, 3}, {0, 0}, {0, 6}}},
             // Face centres of the vertical cross with 5-texel faces.
             Case{EnvironmentMapping::Cross, 15, 20, {{12, 7}, {2, 7}, {7, 7}, {7, 17}, {7, 2}, {7, 12}}},
             // Centre -y, rim +y (taken at the bottom), +-x and +-z at 1/sqrt(2) of the radius.
             Case{EnvironmentMapping::MirrorBall, 13, 13, {{11, 6}, {1, 6}, {6, 12}, {6, 6}, {6, 1}, {6, 11}}}}) {
        auto map = makeMap(write("coords" + std::to_string(c.width) + "x" + std::to_string(c.height) + ".exr",
                                 coordinateImage(c.width, c.height)));
        map->set("interpolation", InterpolationMode::Nearest);
        setEnviro(*map, "mapping", int(c.mapping));
        map->set("dome_cameraHeight", 1.5f);  // Dome seen from the panorama's own camera is the panorama
        auto const e = evaluatorOf(*map);
        for (int i = 0; i < 6; ++i) {
            SettableShadeContext ctx = SettableShadeContext::ray(AXES[i] * 3.f);  // directions need not be unit
            ctx.position = PrecisePos(0, 0, 1.5);
            EXPECT_EQ(texelRead(*e, ctx), c.expected[i]) << "mapping " << int(c.mapping) << ", axis " << i;
        }
    }
}

TEST_F(TextureMapFixture, ScreenMappingReadsWhereTheRayCrossesTheImage) {
    auto map = makeMap(write("coords.exr", coordinateImage(13, 7)));
    map->set("interpolation", InterpolationMode::Nearest);
    setEnviro(*map, "mapping", int(EnvironmentMapping::Screen));
    SettableShadeContext ctx = SettableShadeContext::ray(Dir(0, 0, -1));
    ctx.position = PrecisePos(1, 2, 3);
    ctx.screen = Vector2(0.3f, 0.8f);
    EXPECT_EQ(texelRead(*evaluatorOf(*map), ctx), Pixel(3, 1));
    // A point on the ray, not its origin (which projects nowhere for a camera at it).
    EXPECT_EQ(ctx.unprojected, PrecisePos(1, 2, 2));
}

TEST(TextureMapDome, RaysFromBesideTheCameraMeetTheFloorAndTheDome) {
    EnvironmentMappings::DomeShape const dome{Pos(10, 0, 0), 100.f, 2.f};
    // Down from 2 units beside the camera: the floor point is seen 45 degrees down.
    Testing::expectNear(EnvironmentMappings::domeDirection(dome, Pos(12, 0, 2), Dir(0, 0, -1)), normalize(Dir(2, 0, -2)), 1e-5f);
    // Up from 60 units beside it: the dome at height 80, seen from the camera at height 2.
    Testing::expectNear(EnvironmentMappings::domeDirection(dome, Pos(70, 0, 2), Dir(0, 0, 1)), normalize(Dir(60, 0, 78)), 1e-5f);
}

TEST_F(TextureMapFixture, LookupModeAndMapperRotation) {
    auto map = makeMap(write("coords.exr", coordinateImage(13, 7)));
    map->set("interpolation", InterpolationMode::Nearest);
    SettableShadeContext surface(0.99f, 0.99f);
    surface.view = Dir(-1, 0, 0);
    SettableShadeContext environment = SettableShadeContext::ray(Dir(0, 1, 0));  // u = 0.25 in the panorama
    environment.uvw = Pos(0.01f, 0.01f, 0.f);
    EXPECT_EQ(texelRead(*evaluatorOf(*map), surface), Pixel(12, 0));    // Auto: surfaces through the mapper,
    EXPECT_EQ(texelRead(*evaluatorOf(*map), environment), Pixel(3, 3)); // environment rays by direction
    setEnviro(*map, "mode", int(TextureMap::EnvironmentMode::Texture));
    EXPECT_EQ(texelRead(*evaluatorOf(*map), environment), Pixel(0, 6));
    setEnviro(*map, "mode", int(TextureMap::EnvironmentMode::Environment));
    EXPECT_EQ(texelRead(*evaluatorOf(*map), surface), Pixel(6, 3));  // its view direction, -x
    // A quarter turn about +z carries +y to -x.
    AffineTm turn;
    turn.m[0][0] = 0, turn.m[0][1] = -1, turn.m[1][0] = 1, turn.m[1][1] = 0;
    mapperOf(*map).set("enviroTransform", turn);
    mapperOf(*map).set("rotateEnviro", true);
    EXPECT_EQ(texelRead(*evaluatorOf(*map), environment), Pixel(6, 3));
}

TEST_F(TextureMapFixture, BlurWidensTheEnvironmentFootprint) {
    // A ramp whose mip levels differ at the point (nearest texel of each level).
    auto map = makeMap(write("ramp.exr", imageOf(64, 32, PixelFormat::MonoFloat, [](int x, int) { return RgbAlpha(Rgb(float(x) + 0.5f), 1.f); })));
    map->set("interpolation", InterpolationMode::Nearest);
    SettableShadeContext ctx = SettableShadeContext::ray(Dir(1, 0.2f, 0.1f));
    ctx.filtered = true;
    ctx.footprint = 0.05f;
    float const sharp = evaluatorOf(*map)->evalMono(ctx, nullptr).value;
    setEnviro(*map, "blur", 4.f);
    float const blurred = evaluatorOf(*map)->evalMono(ctx, nullptr).value;
    setEnviro(*map, "blur", 1.f);
    ctx.footprint = 0.2f;
    EXPECT_NEAR(blurred, evaluatorOf(*map)->evalMono(ctx, nullptr).value, 1e-4f);
    EXPECT_GT(std::abs(blurred - sharp), 0.25f);
}

} // namespace
} // namespace Quelin
