#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/UvMapper.h"
#include "QuelinLib/Json.h"

using namespace Quelin;

namespace {

constexpr float HALF_PI = 1.57079633f;

// Channel c reads uvw + (c, 0, 0), so the channel in use shows in the result.
struct PointContext : Testing::SettableShadeContext {
    PointContext() : SettableShadeContext(0.25f, 0.5f) {
        dUvw = Dir(0.01f, 0.02f, 0.f);
        position = PrecisePos(10, 20, 30);
        objectPosition = Pos(1, 2, 3);
        footprint = 0.5f;
        screen = Vector2(0.75f, 0.25f);
    }
    Pos getUvw(int c, std::uint32_t = 0) const override { return uvw + Pos(float(c), 0, 0); }
};

template <typename V> void expectNear(V const& a, V const& b, float tol = 1e-5f) { Testing::expectNear(a, b, tol); }

// ---------------------------------------------------------------- placement

using Mapping = UvMapper::UvMapping;
void turnZ(Mapping& m) { m.rotation = Pos(0.f, 0.f, HALF_PI); }
void offsetAndTile(Mapping& m) { m.offset = Pos(0.25f, 0.f, 0.f), m.scale = Pos(2.f, 3.f, 1.f); }

TEST(UvMappingTest, PlacementMovesPointsAsConfigured) {
    EXPECT_EQ(Mapping().compute3dsMaxStdUvGenTransform(true), AffineTm::identity());
    struct Case {
        void (*edit)(Mapping&);
        Pos from, to;
    } const cases[] = {
        {[](Mapping& m) { m.uvPlaneSelection = 1; }, Pos(1, 2, 3), Pos(2, 3, 1)}, // planes permute the axes
        {[](Mapping& m) { m.uvPlaneSelection = 2; }, Pos(1, 2, 3), Pos(3, 1, 2)},
        {turnZ, Pos(1.f, 0.5f, 0.5f), Pos(0.5f, 1.f, 0.5f)}, // about the tile centre; about the origin when forced:
        {[](Mapping& m) { turnZ(m), m.forceRotationAroundOrigin = true; }, Pos(1, 0, 0), Pos(0, 1, 0)},
        {[](Mapping& m) { turnZ(m), m.useRealWorldScale = true; }, Pos(1, 0, 0), Pos(0, 1, 0)},
        {offsetAndTile, Pos(0, 0, 0), Pos(-0.25f, 0, 0)}, // an unscaled offset, tiling about the origin
        {offsetAndTile, Pos(1, 1, 0), Pos(1.75f, 3, 0)},
        // A scaled offset tiles about the tile centre: 2 (u - 0.25 - 0.5) + 0.5.
        {[](Mapping& m) { offsetAndTile(m), m.isOffsetScaled = true; }, Pos(0, 0, 0), Pos(-1, -1, 0)},
        {[](Mapping& m) { offsetAndTile(m), m.isOffsetScaled = true; }, Pos(1, 1, 0), Pos(1, 2, 0)},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        Mapping m;
        cases[i].edit(m);
        SCOPED_TRACE(i);
        expectNear(m.compute3dsMaxStdUvGenTransform(false).transformPoint(cases[i].from), cases[i].to);
    }
}

TEST(UvMappingTest, UpdateInvertsTheTransformOverRandomPlacements) {
    std::mt19937 rng(4242);
    std::uniform_real_distribution<float> offset(-2.f, 2.f), angle(-0.3f, 0.3f), scale(0.2f, 4.f);
    std::uniform_int_distribution<int> coin(0, 1), plane(0, 2), wrap(0, 3);
    for (int trial = 0; trial < 300; ++trial) {
        UvMapper::UvMapping truth;
        truth.wrapU = WrapMode(wrap(rng)), truth.wrapV = WrapMode(wrap(rng));
        truth.offset = Pos(offset(rng), offset(rng), offset(rng));
        truth.rotation = Pos(angle(rng), angle(rng), angle(rng));
        truth.scale = Pos(scale(rng), scale(rng), scale(rng));
        truth.isOffsetScaled = coin(rng), truth.useRealWorldScale = coin(rng), truth.forceRotationAroundOrigin = coin(rng);
        truth.uvPlaneSelection = plane(rng);
        bool const withMirror = coin(rng);
        AffineTm const tm = truth.compute3dsMaxStdUvGenTransform(withMirror);

        UvMapper::UvMapping m = truth;  // same flags, placement forgotten
        m.offset = m.rotation = Pos(0, 0, 0);
        m.scale = Pos(1, 1, 1);
        m.uvPlaneSelection = (truth.uvPlaneSelection + 1) % 3;
        ASSERT_TRUE(m.updateFrom3dsMaxStdUvGenTransform(tm, withMirror)) << "trial " << trial;
        EXPECT_EQ(m.uvPlaneSelection, truth.uvPlaneSelection);
        expectNear(m.offset, truth.offset, 2e-4f);
        expectNear(m.rotation, truth.rotation, 2e-4f);
        expectNear(m.scale, truth.scale, 2e-4f);
    }
    // Mirrored tiling and large rotations still rebuild the same transform.
    UvMapper::UvMapping truth;
    truth.scale = Pos(-2.f, 1.5f, 1.f), truth.rotation = Pos(1.2f, -0.7f, 2.5f), truth.offset = Pos(0.3f, -0.4f, 0.1f);
    AffineTm const tm = truth.compute3dsMaxStdUvGenTransform(true);
    UvMapper::UvMapping m;
    ASSERT_TRUE(m.updateFrom3dsMaxStdUvGenTransform(tm, true));
    AffineTm const rebuilt = m.compute3dsMaxStdUvGenTransform(true);
    for (int i = 0; i < 12; ++i) EXPECT_NEAR(rebuilt.m[i / 4][i % 4], tm.m[i / 4][i % 4], 1e-4f) << i;
}

TEST(UvMappingTest, UpdateRefusesOtherTransformsAndChangesNothing) {
    UvMapper::UvMapping m;
    m.offset = Pos(0.5f, 0.25f, 0.f), m.scale = Pos(2, 2, 2), m.uvPlaneSelection = 2;
    AffineTm const before = m.compute3dsMaxStdUvGenTransform(false);
    AffineTm shear, flat, nan;
    shear.m[0][1] = 0.5f;
    flat.m[2][2] = 0.f;  // a collapsed axis has no tiling to recover
    nan.m[1][3] = std::numeric_limits<float>::quiet_NaN();
    for (AffineTm const& tm : {shear, flat, nan}) {
        EXPECT_FALSE(m.updateFrom3dsMaxStdUvGenTransform(tm, false));
        EXPECT_EQ(m.compute3dsMaxStdUvGenTransform(false), before);
    }
}

// ---------------------------------------------------------------- wrapping

struct WrapCase { WrapMode mode; float x, expected; bool inside; };
float const NaN = std::numeric_limits<float>::quiet_NaN(), INF = std::numeric_limits<float>::infinity();
TEST(WrapCoordinateTest, WrapsAtTheEdges) {
    for (WrapCase const c : {WrapCase{WrapMode::NoTiling, 1.f, 1.f, true}, WrapCase{WrapMode::NoTiling, -0.25f, -0.25f, false},
                             WrapCase{WrapMode::Repeat, 1.f, 0.f, true}, WrapCase{WrapMode::Repeat, -0.25f, 0.75f, true},
                             WrapCase{WrapMode::Repeat, -1e-9f, 0.99999994f, true}, WrapCase{WrapMode::Mirror, 1.f, 1.f, true},
                             WrapCase{WrapMode::Mirror, 2.f, 0.f, true}, WrapCase{WrapMode::Mirror, 1.25f, 0.75f, true},
                             WrapCase{WrapMode::Mirror, -0.25f, 0.25f, true}, WrapCase{WrapMode::Clamp, -0.5f, 0.f, true},
                             WrapCase{WrapMode::Clamp, 7.f, 1.f, true}, WrapCase{WrapMode::Repeat, INF, 0.f, true},
                             WrapCase{WrapMode::Mirror, -INF, 0.f, true}, WrapCase{WrapMode::Clamp, NaN, 0.f, true}}) {
        bool inside = true;
        EXPECT_EQ(wrapCoordinate(c.x, c.mode, inside), c.expected) << "x = " << c.x;
        EXPECT_EQ(inside, c.inside) << "x = " << c.x;
    }
}

// ---------------------------------------------------------------- mapping

TEST(UvMapperTest, ModesReadTheChannelOrThePosition) {
    UvMapper mapper;
    mapper.set("uvwMapChannel", 2);
    mapper.set("offset", Pos(0.25f, 0.f, 0.f));
    PointContext ctx;
    // Channel 2 reads (2.25, 0.5, 0); the offset moves it back by 0.25.
    expectNear(mapper.computeUvw(ctx), Pos(2.f, 0.5f, 0.f));
    mapper.set("uvwMapChannel", 1);
    mapper.set("offset", Pos(0, 0, 0));
    for (auto [mode, expected] : {std::pair{UvMappingMode::WorldXyz, Pos(10, 20, 30)}, {UvMappingMode::ObjectXyz, Pos(1, 2, 3)}}) {
        mapper.set("mappingMode", mode);
        EXPECT_EQ(mapper.computeUvw(ctx), expected);
    }
    // The one unknown-enum check the suite keeps: every evaluator's switch stops alike.
    Testing::expectStop([&] { UvMapper::computeUnplacedUvw(ctx, UvMappingMode(7), UvMapper::UvMapping()); }, "UvMapper", 455);
    ctx.kind = ShadedKind::Hair;  // hair and particles carry their own coordinates
    EXPECT_EQ(mapper.computeUvw(ctx), Pos(1.25f, 0.5f, 0.f));
}

TEST(UvMapperTest, ScreenModeProjectsCameraAndEnvironmentPoints) {
    UvMapper mapper;
    mapper.set("mappingMode", UvMappingMode::ScreenEnviro);
    PointContext ctx;
    EXPECT_EQ(mapper.computeUvw(ctx), Pos(0.75f, 0.25f, 0.f));
    ctx.kind = ShadedKind::Environment;
    ctx.view = Dir(0, 1, 0);
    expectNear(mapper.computeUvw(ctx), Pos(0.25f, 0.5f, 0.f));
    // A turned environment: +y seen through a quarter turn about z reads -x.
    AffineTm turn;
    turn.m[0][0] = 0, turn.m[0][1] = -1, turn.m[1][0] = 1, turn.m[1][1] = 0;
    mapper.set("enviroTransform", turn);
    mapper.set("rotateEnviro", true);
    expectNear(mapper.computeUvw(ctx), Pos(0.5f, 0.5f, 0.f));
}

TEST(UvMapperTest, FootprintAndBumpBaseFollowThePlacement) {
    UvMapper mapper;
    PointContext ctx;
    mapper.set("scale", Pos(2, 3, 1));
    expectNear(mapper.computeDUvw(ctx), Dir(0.02f, 0.06f, 0.f), 1e-6f);
    // A unit gradient over the placed u is twice as steep over the channel's u.
    EXPECT_EQ(mapper.computeBumpBase(ctx), Matrix33::fromColumns(Dir(2, 0, 0), Dir(0, 3, 0), ctx.normal));
    mapper.set("rotation", Pos(0, 0, HALF_PI));  // the footprint takes the absolute linear part
    expectNear(mapper.computeDUvw(ctx), Dir(0.04f, 0.03f, 0.f), 1e-6f);
    mapper.set("mappingMode", UvMappingMode::WorldXyz);
    mapper.set("rotation", Pos(0, 0, 0));
    expectNear(mapper.computeDUvw(ctx), Dir(1.f, 1.5f, 0.5f), 1e-6f);
    mapper.set("uvPlaneSelection", 1);
    // Plane YZ: placed u grows along world y, placed v along world z.
    EXPECT_EQ(mapper.computeBumpBase(ctx), Matrix33::fromColumns(Dir(0, 2, 0), Dir(0, 0, 3), ctx.normal));
}

TEST(UvMapperTest, EditsAndLoadedRecordsReachTheTransformButNotSnapshots) {
    UvMapper mapper;
    mapper.set("scale", Pos(4, 4, 4));
    SharedPtr<UvMapper const> frozen = mapper.snapshot();
    mapper.set("offset", Pos(1, 0, 0));
    EXPECT_FLOAT_EQ(mapper.getTransform().m[0][3], -1.f);
    EXPECT_EQ(std::pair(frozen->getTransform().m[0][3], frozen->getTransform().m[0][0]), std::pair(0.f, 4.f));

    ASSERT_TRUE(mapper.loadInternalData(nlohmann::json::parse(
        R"({"scale": [2, 3, 1], "offset": [0, 0, 0], "wrapU": "Mirror", "mappingMode": "WorldXyz", "uvwMapChannel": 4})")));
    EXPECT_EQ(std::pair(mapper.getTransform().m[0][0], mapper.getTransform().m[1][1]), std::pair(4.f, 3.f));  // u mirrored
    // A refused record changes nothing.
    EXPECT_FALSE(mapper.loadInternalData(nlohmann::json::parse(R"({"uvwMapChannel": -1})")));
    EXPECT_FALSE(mapper.loadInternalData(nlohmann::json::parse(R"({"uvPlaneSelection": 3})")));
    EXPECT_EQ(mapper.getChannel(), 4);
    EXPECT_EQ(mapper.getMapping().uvPlaneSelection, 0);
}

// --------------------------------------------------------------- frames

TEST(UvMapperTest, BumpBaseInEitherFormDegenerateUvsAndTheTriangleFootprint) {
    StaticArray<Pos, 3> const positions{Pos(0, 0, 0), Pos(2, 0, 0), Pos(0, 3, 0)};
    StaticArray<Pos, 3> const uvws{Pos(0, 0, 0), Pos(1, 0, 0), Pos(0, 1, 0)};
    Dir const n(0, 0, 1);
    EXPECT_EQ(UvMapper::bumpBase(n, positions, uvws, false), Matrix33::fromColumns(Dir(2, 0, 0), Dir(0, 3, 0), n));
    // V running the other way flips the bitangent with it.
    StaticArray<Pos, 3> const flipped{Pos(0, 1, 0), Pos(1, 1, 0), Pos(0, 0, 0)};
    EXPECT_EQ(UvMapper::bumpBase(n, positions, flipped, true).column(1), Dir(0, -1, 0));
    expectNear(UvMapper::computeTriangleDUvw(positions, uvws), Dir(0.5f, 1.f / 3.f, 0.f), 1e-6f);
    StaticArray<Pos, 3> const line{Pos(0, 0, 0), Pos(1, 0, 0), Pos(2, 0, 0)};
    EXPECT_EQ(UvMapper::computeTriangleDUvw(line, uvws), Dir());

    // The generalized form agrees on a regular triangle.
    StaticArray<Pos, 3> const p{Pos(0, 0, 0), Pos(2, 0.5f, 0.3f), Pos(-0.4f, 3, 1)};
    StaticArray<Pos, 3> const t{Pos(0.1f, 0.2f, 0), Pos(0.9f, 0.4f, 0), Pos(0.3f, 1.1f, 0)};
    Dir const tilted = normalize(cross(Dir(p[1] - p[0]), Dir(p[2] - p[0])));
    for (bool unit : {false, true}) {
        Matrix33 const a = UvMapper::bumpBase(tilted, p, t, unit), b = UvMapper::generalizedBumpBase(tilted, p, t, unit);
        for (int i = 0; i < 9; ++i) EXPECT_NEAR(a.m[i / 3][i % 3], b.m[i / 3][i % 3], 1e-4f * (1.f + std::abs(a.m[i / 3][i % 3]))) << i;
    }

    // Degenerate UVs give both forms a frame around the normal.
    StaticArray<Pos, 3> const same{Pos(0.5f, 0.5f, 0), Pos(0.5f, 0.5f, 0), Pos(0.5f, 0.5f, 0)};
    Dir const m = normalize(Dir(1, 2, 3));
    for (Matrix33 const& f : {UvMapper::bumpBase(m, positions, same, false), UvMapper::generalizedBumpBase(m, positions, same, true)}) {
        EXPECT_NEAR(std::abs(dot(f.column(0), m)) + std::abs(dot(f.column(1), m)) + std::abs(dot(f.column(0), f.column(1))), 0.f, 3e-6f);
        EXPECT_NEAR(length(f.column(0)), 1.f, 1e-6f);
        EXPECT_NEAR(dot(f.column(2), m), 1.f, 1e-6f);
    }
}

// ------------------------------------------------------------ projections

// Axes and poles: the panorama's texels in TextureMapEnvironmentTest.
TEST(SphericalMappingTest, OverlongDirectionsAndRotationsStayInRange) {
    // A slightly overlong z is clamped rather than giving NaN.
    EXPECT_FLOAT_EQ(UvMapper::sphericalMapping(Dir(0, 0, 1.0000001f), 0.f).y, 1.f);
    for (float r : {-100.f, -7.f, 13.f, 1000.f}) {
        float const u = UvMapper::sphericalMapping(normalize(Dir(0.3f, -0.8f, 0.1f)), r).x;
        EXPECT_TRUE(u >= 0.f && u <= 1.f) << r;
    }
}

TEST(DominantAxisTest, TiesGoToTheLaterAxisAndCubeFaces) {
    for (auto [d, axis] : {std::pair{Dir(-3, 1, 2), 0}, {Dir(1, 1, 0), 1}, {Dir(1, 0, -1), 2}, {Dir(0, 0, 0), 2}})
        EXPECT_EQ(UvMapper::dominantAxis(d), axis) << d.x << " " << d.y << " " << d.z;
    EXPECT_EQ(UvMapper::cubeFaceUv(Dir(-2, 1, -1), UvMapper::dominantAxis(Dir(-2, 1, -1))), Vector2(0.75f, 0.25f));
}

// A host editing a mapper from two threads: the cached placement must follow the
// record (the tsan preset shows the race this guards).
TEST(UvMapperThreads, SettersOnTwoThreadsLeaveTheCacheMatchingTheRecord) {
    UvMapper mapper;
    auto edit = [&](char const* property, float base) {
        for (int i = 0; i < 2000; ++i) mapper.set(property, Pos(base + float(i), 0.5f, 1.f));
    };
    std::thread offsets(edit, "offset", 0.f), scales(edit, "scale", 1.f);
    offsets.join();
    scales.join();
    EXPECT_EQ(mapper.getTransform(), mapper.snapshot()->getTransform()); // a snapshot builds its cache from the record
    EXPECT_EQ(mapper.getMapping().offset, Pos(1999.f, 0.5f, 1.f));
    EXPECT_EQ(mapper.getMapping().scale, Pos(2000.f, 0.5f, 1.f));
}

} // namespace
