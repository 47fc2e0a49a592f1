// The Embree stage behind `ferrim render` against the exact shapes it
// tessellates: distances, normals, triangles and nearest-object distances.
#include <gtest/gtest.h>

#include <cmath>

#include "EmbreeStage.h"

namespace {

using namespace Quelin;
using FerrimTool::EmbreeStage;
using FerrimTool::SwatchShape;

// Largest gap between the tessellated unit sphere and the exact one.
float const SAG = 1.f - std::cos(PI / (std::sqrt(2.f) * float(EmbreeStage::SPHERE_BANDS)));

/// Distance along a unit ray from `o` to the unit sphere at the origin, if it meets it.
Optional<float> sphereHit(Dir const& o, Dir const& d) {
    float const b = dot(o, d), c = dot(o, o) - 1.f, disc = b * b - c;
    if (disc < 0.f) return std::nullopt;
    float const t = -b - std::sqrt(disc);
    return t >= 0.f ? Optional<float>(t) : Optional<float>(-b + std::sqrt(disc));
}

/// Distance from p to an axis-aligned box.
float boxDistance(Pos const& p, BoundingBox<Pos> const& b) {
    float const dx = std::max({b.min.x - p.x, 0.f, p.x - b.max.x});
    float const dy = std::max({b.min.y - p.y, 0.f, p.y - b.max.y});
    float const dz = std::max({b.min.z - p.z, 0.f, p.z - b.max.z});
    return std::sqrt(dx * dx + dy * dy + dz * dz);
}

PrecisePos precise(Pos const& p) { return {p.x, p.y, p.z}; }

EmbreeStage makeStage(SwatchShape shape, float tiling = 1.f) {
    auto stage = EmbreeStage::make(shape, tiling);
    if (!stage) throw std::runtime_error(stage.error());
    return std::move(*stage);
}

TEST(EmbreeStage, SphereRaysMeetTheExactSphereWithItsNormals) {
    EmbreeStage const stage = makeStage(SwatchShape::Sphere);
    // Rays from the camera's side and from above, aimed at points across the sphere.
    for (Dir const origin : {Dir(0, 0, 4), Dir(0.3f, 0.2f, 3), Dir(-2, 3, 1), Dir(0.1f, 2.5f, -0.3f)}) {
        for (Dir const target : {Dir(0, 0, 0), Dir(0.5f, 0.3f, 0.2f), Dir(-0.6f, -0.2f, 0.4f), Dir(0.2f, -0.7f, 0.1f)}) {
            Dir const d = normalize(target - origin);
            Optional<float> const exact = sphereHit(origin, d);
            ASSERT_TRUE(exact);
            Optional<SceneHit> const hit = stage.traceNearest(precise(toPos(origin)), d, 100.f);
            ASSERT_TRUE(hit) << "from " << origin.x << "," << origin.y << "," << origin.z;
            EXPECT_EQ(hit->objectId, EmbreeStage::SWATCH);
            EXPECT_NEAR(hit->distance, *exact, 2.f * SAG / std::fabs(dot(d, normalize(origin + d * *exact))));
            Dir const n = normalize(origin + d * *exact);
            EXPECT_GT(dot(hit->normal, n), 0.999f);
            Optional<float> const occlusion = stage.traceOcclusion(precise(toPos(origin)), d, 100.f);
            ASSERT_TRUE(occlusion);
            EXPECT_FLOAT_EQ(*occlusion, hit->distance);
            EXPECT_TRUE(stage.isOccluded(precise(toPos(origin)), d, 100.f));
            // Stopping short of the surface finds nothing.
            EXPECT_FALSE(stage.traceOcclusion(precise(toPos(origin)), d, *exact - 0.05f));
            EXPECT_FALSE(stage.isOccluded(precise(toPos(origin)), d, *exact - 0.05f));
        }
    }
}

TEST(EmbreeStage, NormalsFaceTheRaysOriginAndTheGroundAndBoxAnswerTheirIds) {
    EmbreeStage const stage = makeStage(SwatchShape::Sphere);
    // From the centre outward: the inside of the sphere, its normal turned inward.
    Optional<SceneHit> const inside = stage.traceNearest({0, 0, 0}, Dir(0, 0, 1), 10.f);
    ASSERT_TRUE(inside);
    EXPECT_NEAR(inside->distance, 1.f, SAG);
    EXPECT_LT(inside->normal.z, -0.999f);
    // Beside the sphere, straight down onto the ground at y = -1.
    Optional<SceneHit> const ground = stage.traceNearest({-2.5, 0.5, 0}, Dir(0, -1, 0), 10.f);
    ASSERT_TRUE(ground);
    EXPECT_EQ(ground->objectId, EmbreeStage::GROUND);
    EXPECT_NEAR(ground->distance, 1.5f, 1e-5f);
    EXPECT_NEAR(ground->normal.y, 1.f, 1e-6f);
    // Towards the box from the right: its face x = max.x.
    BoundingBox<Pos> const box = stage.getPropBox();
    Pos const c((box.min.x + box.max.x) / 2, (box.min.y + box.max.y) / 2, (box.min.z + box.max.z) / 2);
    Optional<SceneHit> const prop = stage.traceNearest({5, c.y, c.z}, Dir(-1, 0, 0), 10.f);
    ASSERT_TRUE(prop);
    EXPECT_EQ(prop->objectId, EmbreeStage::PROP);
    EXPECT_NEAR(prop->distance, 5.f - box.max.x, 1e-5f);
    EXPECT_NEAR(prop->normal.x, 1.f, 1e-6f);
}

TEST(EmbreeStage, NearestObjectDistancesMatchTheShapesAndTrianglesUnderSpherePointsHoldThePoint) {
    EmbreeStage const stage = makeStage(SwatchShape::Sphere);
    BoundingBox<Pos> const box = stage.getPropBox();
    for (Pos const p : {Pos(0, 3, 0), Pos(-1.5f, 0.5f, 1), Pos(2, 0, 0), Pos(0.3f, 0.2f, 0.1f)}) {
        float nearest = 1e30f;
        for (auto [id, exact, tol] : {std::tuple{int(EmbreeStage::SWATCH), std::fabs(length(toDir(p)) - 1.f), SAG + 1e-5f},
                                      {int(EmbreeStage::PROP), boxDistance(p, box), 1e-5f}, {int(EmbreeStage::GROUND), p.y + 1.f, 1e-5f}}) {
            Optional<float> const d = stage.findNearestObjectDistance(precise(p), 100.f, std::span<int const>(&id, 1));
            ASSERT_TRUE(d) << id;
            EXPECT_NEAR(*d, exact, tol) << id;
            nearest = std::min(nearest, *d);
        }
        Optional<float> const any = stage.findNearestObjectDistance(precise(p), 100.f, {});
        ASSERT_TRUE(any);
        EXPECT_NEAR(*any, nearest, 1e-6f);
        // Nothing within a search radius shorter than the nearest surface.
        EXPECT_FALSE(stage.findNearestObjectDistance(precise(p), 0.9f * *any, {}));
    }
    for (Dir const n : {Dir(0, 0, 1), normalize(Dir(0.4f, 0.5f, 0.7f)), normalize(Dir(-0.8f, -0.1f, 0.3f))}) {
        Optional<ShadedTriangle> const t = stage.findTriangle(toPos(n), n, EmbreeStage::SWATCH);
        ASSERT_TRUE(t);
        Pos const b = t->barycentrics;
        EXPECT_NEAR(b.x + b.y + b.z, 1.f, 1e-5f);
        for (float w : {b.x, b.y, b.z}) EXPECT_GE(w, -1e-5f);
        Dir const q = toDir(t->corners[0]) * b.x + toDir(t->corners[1]) * b.y + toDir(t->corners[2]) * b.z;
        EXPECT_LT(length(q - n), 2.f * SAG);
        for (Pos const& c : t->corners) EXPECT_NEAR(length(toDir(c)), 1.f, 1e-5f);
    }
    // The ground is not the swatch.
    EXPECT_FALSE(stage.findTriangle(Pos(-3, -1, 0), Dir(0, 1, 0), EmbreeStage::SWATCH));
}

TEST(EmbreeStage, PlaneStageFollowsTheTiling) {
    for (float tiling : {1.f, 3.f}) {
        EmbreeStage const stage = makeStage(SwatchShape::Plane, tiling);
        Optional<SceneHit> const down = stage.traceNearest({0.25 * tiling, 0.4 * tiling, 2.0}, Dir(0, 0, -1), 10.f);
        ASSERT_TRUE(down);
        EXPECT_EQ(down->objectId, EmbreeStage::SWATCH);
        EXPECT_NEAR(down->distance, 2.f, 1e-5f);
        EXPECT_NEAR(down->normal.z, 1.f, 1e-6f);
        BoundingBox<Pos> const box = stage.getPropBox();
        EXPECT_FLOAT_EQ(box.min.z, 0.f); // on the plane
        Pos const p(0.2f * tiling, 0.3f * tiling, 0.05f);
        int const boxOnly[] = {EmbreeStage::PROP};
        Optional<float> const d = stage.findNearestObjectDistance(precise(p), 100.f, boxOnly);
        ASSERT_TRUE(d);
        EXPECT_NEAR(*d, boxDistance(p, box), 1e-4f * tiling);
        // Triangles of the plane's grid hold their point.
        Optional<ShadedTriangle> const t = stage.findTriangle(Pos(p.x, p.y, 0), Dir(0, 0, 1), EmbreeStage::SWATCH);
        ASSERT_TRUE(t);
        Pos const b = t->barycentrics;
        EXPECT_LT(length(toDir(t->corners[0] * b.x + t->corners[1] * b.y + t->corners[2] * b.z - Pos(p.x, p.y, 0))), 1e-4f);
    }
}

TEST(EmbreeStage, UnusableRaysAndShapesFindNothing) {
    EmbreeStage const stage = makeStage(SwatchShape::Sphere);
    float const nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    PrecisePos const o(0, 0, 4);
    for (float maxDistance : {nan, 0.f, -1.f}) {
        EXPECT_FALSE(stage.traceNearest(o, Dir(0, 0, -1), maxDistance)) << maxDistance;
        EXPECT_FALSE(stage.isOccluded(o, Dir(0, 0, -1), maxDistance)) << maxDistance;
        EXPECT_FALSE(stage.findNearestObjectDistance(o, maxDistance == 0.f ? -1.f : maxDistance, {}));
    }
    EXPECT_TRUE(stage.traceNearest(o, Dir(0, 0, -1), inf));
    EXPECT_TRUE(stage.findNearestObjectDistance(o, inf, {}));
    EXPECT_FALSE(stage.traceNearest(o, Dir(0, 0, 0), 10.f));
    EXPECT_FALSE(stage.traceNearest(o, Dir(nan, 0, 1), 10.f));
    // Unnormalised directions still measure distances in world units.
    Optional<SceneHit> const scaled = stage.traceNearest(o, Dir(0, 0, -5), 10.f);
    ASSERT_TRUE(scaled);
    EXPECT_NEAR(scaled->distance, 3.f, SAG);
    int const none[] = {42};
    EXPECT_FALSE(stage.findNearestObjectDistance(o, 100.f, none));
    auto const environment = EmbreeStage::make(SwatchShape::Environment, 1.f);
    ASSERT_FALSE(environment);
    EXPECT_NE(environment.error().find("environment"), std::string::npos);
}

} // namespace
