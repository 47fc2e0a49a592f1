#include <cmath>

#include "Ferrim/TextureMap/EnvironmentMapping.h"
#include "TextureMapTestSupport.h"

namespace Quelin {
namespace {

using namespace TextureMapTest;

Dir const AXES[6] = {Dir(1, 0, 0), Dir(-1, 0, 0), Dir(0, 1, 0), Dir(0, -1, 0), Dir(0, 0, 1), Dir(0, 0, -1)};
char const* const AXIS_NAMES[6] = {"+x", "-x", "+y", "-y", "+z", "-z"};

struct MappingCase {
    EnvironmentMapping mapping;
    int width, height;      ///< of the coordinate image; sizes keep every expected texel off a texel border
    Pixel expected[6];      ///< column and row (from the top) read for +x, -x, +y, -y, +z, -z
};

class TextureMapEnvironmentAxes : public TextureMapFixture, public ::testing::WithParamInterface<MappingCase> {};

TEST_P(TextureMapEnvironmentAxes, AxisDirectionsReadTheExpectedTexels) {
    MappingCase const c = GetParam();
    auto map = makeMap(write("coords.exr", coordinateImage(c.width, c.height)));
    map->set("interpolation", InterpolationMode::Nearest);
    setEnviro(*map, "mapping", int(c.mapping));
    // Dome: from the panorama's own camera it must look like the panorama itself.
    map->set("dome_cameraHeight", 1.5f);
    auto const e = evaluatorOf(*map);
    for (int i = 0; i < 6; ++i) {
        PointContext ctx;
        ctx.kind = ShadedKind::Environment;
        ctx.view = AXES[i] * 3.f;  // directions need not be unit
        ctx.position = PrecisePos(0, 0, 1.5);
        RgbAlpha const r = e->evalColor(ctx, nullptr);
        EXPECT_EQ(Pixel(int(r.r), int(r.g)), c.expected[i]) << AXIS_NAMES[i];
    }
}

INSTANTIATE_TEST_SUITE_P(
    Mappings, TextureMapEnvironmentAxes,
    ::testing::Values(
        // u = 0, 0.5, 0.25, 0.75 around the horizon, the poles on the top and bottom rows.
        MappingCase{EnvironmentMapping::Spherical, 13, 7, {{0, 3}, {6, 3}, {3, 3}, {9, 3}, {0, 0}, {0, 6}}},
        MappingCase{EnvironmentMapping::Dome, 13, 7, {{0, 3}, {6, 3}, {3, 3}, {9, 3}, {0, 0}, {0, 6}}},
        // Face centres of the vertical cross with 5-texel faces.
        MappingCase{EnvironmentMapping::Cross, 15, 20, {{12, 7}, {2, 7}, {7, 7}, {7, 17}, {7, 2}, {7, 12}}},
        // Centre -y, rim +y (taken at the bottom), +-x and +-z at 1/sqrt(2) of the radius.
        MappingCase{EnvironmentMapping::MirrorBall, 13, 13, {{11, 6}, {1, 6}, {6, 12}, {6, 6}, {6, 1}, {6, 11}}}),
    [](auto const& info) { return std::to_string(int(info.param.mapping)); });

TEST_F(TextureMapFixture, ScreenMappingReadsWhereTheRayCrossesTheImage) {
    auto map = makeMap(write("coords.exr", coordinateImage(13, 7)));
    map->set("interpolation", InterpolationMode::Nearest);
    setEnviro(*map, "mapping", int(EnvironmentMapping::Screen));
    PointContext ctx;
    ctx.kind = ShadedKind::Background;
    ctx.position = PrecisePos(1, 2, 3);
    ctx.view = Dir(0, 0, -1);
    ctx.screen = Vector2(0.3f, 0.8f);
    RgbAlpha const r = evaluatorOf(*map)->evalColor(ctx, nullptr);
    EXPECT_EQ(Pixel(int(r.r), int(r.g)), Pixel(3, 1));
    // A point on the ray, not the ray's origin (which projects nowhere for a camera at it).
    ASSERT_TRUE(ctx.unprojected.has_value());
    EXPECT_EQ(*ctx.unprojected, PrecisePos(1, 2, 2));
}

TEST(TextureMapDome, RaysFromAwayFromTheCameraMeetTheFloorAndTheDome) {
    EnvironmentMappings::DomeShape const dome{Pos(10, 0, 0), 100.f, 2.f};
    auto const expectDir = [](Dir const& got, Dir const& want) {
        Dir const w = normalize(want);
        EXPECT_NEAR(got.x, w.x, 1e-5f);
        EXPECT_NEAR(got.y, w.y, 1e-5f);
        EXPECT_NEAR(got.z, w.z, 1e-5f);
    };
    // Straight down from 2 units beside the camera: the floor point is seen 45 degrees down.
    expectDir(EnvironmentMappings::domeDirection(dome, Pos(12, 0, 2), Dir(0, 0, -1)), Dir(2, 0, -2));
    // Straight up from 60 units beside it: the dome at height 80, seen from the camera at height 2.
    expectDir(EnvironmentMappings::domeDirection(dome, Pos(70, 0, 2), Dir(0, 0, 1)), Dir(60, 0, 78));
    // From outside the dome nothing is projected.
    expectDir(EnvironmentMappings::domeDirection(dome, Pos(500, 0, 2), Dir(0, 1, 0)), Dir(0, 1, 0));
}

TEST(TextureMapCross, FacesMeetAlongTheirEdges) {
    // Directions just either side of each cube edge land on texels of adjacent faces that touch in the cross.
    int const face = 64;
    struct Edge {
        Dir a, b;
    };
    float const e = 1e-3f;
    for (Edge const& edge : {Edge{Dir(0.3f, 1, 1 - e), Dir(0.3f, 1 - e, 1)},     // front / up
                             Edge{Dir(0.3f, 1, -1 + e), Dir(0.3f, 1 - e, -1)},   // front / down
                             Edge{Dir(0.3f, -1 + e, -1), Dir(0.3f, -1, -1 + e)}, // down / back
                             Edge{Dir(1 - e, 1, 0.2f), Dir(1, 1 - e, 0.2f)},     // front / right
                             Edge{Dir(-1 + e, 1, 0.2f), Dir(-1, 1 - e, 0.2f)}}) { // front / left
        Vector2 const a = EnvironmentMappings::cross(edge.a, face), b = EnvironmentMappings::cross(edge.b, face);
        float const texelsApart = std::hypot((a.x - b.x) * 3.f * face, (a.y - b.y) * 4.f * face);
        EXPECT_LT(texelsApart, 1.5f) << edge.a.x << " " << edge.a.y << " " << edge.a.z;
    }
}

TEST_F(TextureMapFixture, EnvironmentLookupFollowsTheModeAndTheMapperRotation) {
    auto map = makeMap(write("coords.exr", coordinateImage(13, 7)));
    map->set("interpolation", InterpolationMode::Nearest);
    PointContext surface(0.99f, 0.99f), environment;
    environment.kind = ShadedKind::Environment;
    environment.view = Dir(0, 1, 0);  // u = 0.25 in the panorama
    auto const texel = [&](IShadeContext const& c) {
        RgbAlpha const r = evaluatorOf(*map)->evalColor(c, nullptr);
        return Pixel(int(r.r), int(r.g));
    };
    EXPECT_EQ(texel(surface), Pixel(12, 0));     // Auto: surfaces through the UV mapper
    EXPECT_EQ(texel(environment), Pixel(3, 3));  // and environment rays by direction
    setEnviro(*map, "mode", int(TextureMap::EnvironmentMode::Environment));
    surface.view = Dir(-1, 0, 0);
    EXPECT_EQ(texel(surface), Pixel(6, 3));
    setEnviro(*map, "mode", int(TextureMap::EnvironmentMode::Texture));
    environment.uvw = Pos(0.01f, 0.01f, 0.f);
    EXPECT_EQ(texel(environment), Pixel(0, 6));
    // A quarter turn about +z carries +y to -x.
    setEnviro(*map, "mode", int(TextureMap::EnvironmentMode::Auto));
    AffineTm turn;
    turn.m[0][0] = 0, turn.m[0][1] = -1, turn.m[1][0] = 1, turn.m[1][1] = 0;
    mapperOf(*map).set("enviroTransform", turn);
    mapperOf(*map).set("rotateEnviro", true);
    EXPECT_EQ(texel(environment), Pixel(6, 3));
}

TEST_F(TextureMapFixture, BlurWidensTheEnvironmentFootprint) {
    // A ramp whose mip levels differ at the point (nearest texel of each level).
    auto map = makeMap(write("ramp.exr", imageOf(64, 32, PixelFormat::MonoFloat, [](int x, int) {
                                 return RgbAlpha(float(x) + 0.5f, float(x) + 0.5f, float(x) + 0.5f, 1.f);
                             })));
    map->set("interpolation", InterpolationMode::Nearest);
    PointContext ctx;
    ctx.kind = ShadedKind::Environment;
    ctx.view = Dir(1, 0.2f, 0.1f);
    ctx.filtered = true;
    ctx.footprint = 0.05f;
    float const sharp = evaluatorOf(*map)->evalMono(ctx, nullptr).value;
    setEnviro(*map, "blur", 4.f);
    float const blurred = evaluatorOf(*map)->evalMono(ctx, nullptr).value;
    setEnviro(*map, "blur", 1.f);
    ctx.footprint = 0.2f;
    EXPECT_EQ(blurred, evaluatorOf(*map)->evalMono(ctx, nullptr).value);
    EXPECT_NE(blurred, sharp);
}

/// Bilinear over texel centres, repeating across u and clamped in v, in double.
RgbAlpha referenceBilinear(Image const& image, double u, double v) {
    int const w = image.getWidth(), h = image.getHeight();
    double const x = u * w - 0.5, y = (1.0 - v) * h - 0.5;
    int const x0 = int(std::floor(x)), y0 = int(std::floor(y));
    double const fx = x - x0, fy = y - y0;
    auto const at = [&](int xi, int yi) {
        xi = ((xi % w) + w) % w;
        yi = std::clamp(yi, 0, h - 1);
        return image.getRgbAlpha(xi, yi);
    };
    auto const mix = [](RgbAlpha a, RgbAlpha b, double t) { return a * float(1 - t) + b * float(t); };
    return mix(mix(at(x0, y0), at(x0 + 1, y0), fx), mix(at(x0, y0 + 1), at(x0 + 1, y0 + 1), fx), fy);
}

TEST_F(TextureMapFixture, LatLongTestImageAlongTheAxes) {
    auto map = makeMap(Io::Path(FERRIM_TESTDATA_DIR) / "exr/WavyLinesLatLong.exr");
    auto const e = evaluatorOf(*map);
    auto const& evaluator = static_cast<TextureMap::Evaluator const&>(*e);
    ASSERT_TRUE(map->getTextureInfo().has_value()) << map->getTextureInfo().error();
    Image const& level0 = evaluator.getTexture().getLevel(0);
    double const expectedUv[6][2] = {{0, 0.5}, {0.5, 0.5}, {0.25, 0.5}, {0.75, 0.5}, {0, 1}, {0, 0}};
    for (int i = 0; i < 6; ++i) {
        PointContext ctx;
        ctx.kind = ShadedKind::Environment;
        ctx.view = AXES[i];
        RgbAlpha const got = e->evalColor(ctx, nullptr);
        RgbAlpha const want = referenceBilinear(level0, expectedUv[i][0], expectedUv[i][1]);
        EXPECT_NEAR(got.r, want.r, 1e-3f * (1 + std::abs(want.r))) << AXIS_NAMES[i];
        EXPECT_NEAR(got.g, want.g, 1e-3f * (1 + std::abs(want.g))) << AXIS_NAMES[i];
        EXPECT_NEAR(got.b, want.b, 1e-3f * (1 + std::abs(want.b))) << AXIS_NAMES[i];
    }
}

} // namespace
} // namespace Quelin
