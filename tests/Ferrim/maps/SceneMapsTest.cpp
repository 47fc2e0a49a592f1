// The scene maps against scenes whose answers are known in closed form: AO in
// the corner of two planes, curvature of spheres, rounding at a cube's edge,
// distances to a triangle's edges and to a sphere.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/UnitScaler.h"
#include "Ferrim/maps/SceneMaps.h"
#include "QuelinLib/Json.h"

namespace {

using namespace Quelin;
using Quelin::Testing::expectNear;
using Quelin::Testing::SettableShadeContext;

/// A surface of the analytic scene.
struct Shape {
    enum Kind { Plane, Sphere, Box } kind;
    Dir a, b;      ///< plane: point, normal; sphere: centre, (radius, 0, 0); box: min, max
    int objectId;
};

/// A shading point in a scene of planes, spheres and boxes, answered exactly.
class SceneShadeContext : public SettableShadeContext {
public:
    Stack<Shape> shapes;
    Vector2 random{0.3f, 0.6f};
    int objectId = 1;
    Optional<ShadedTriangle> triangle;
    mutable int rays = 0;

    /// Filled one by one: assigning a braced list trips a false -Wnonnull of GCC 12.
    void setShapes(std::initializer_list<Shape> list) {
        shapes.clear();
        for (Shape const& s : list) shapes.push_back(s);
    }
    Vector2 generateRandom2() const override { return random; }
    int getObjectId() const override { return objectId; }
    Optional<ShadedTriangle> getTriangle() const override { return triangle; }

    Optional<SceneHit> traceNearest(PrecisePos const& origin, Dir const& direction, float maxDistance) const override {
        ++rays;
        Dir const o(float(origin.x), float(origin.y), float(origin.z));
        Dir const d = normalize(direction);
        Optional<SceneHit> best;
        auto consider = [&](float t, Dir n, int id) {
            if (!(t > 0.f) || t > maxDistance || (best && t >= best->distance)) return;
            if (dot(n, d) > 0.f) n = -n;
            best = SceneHit{t, n, id};
        };
        for (Shape const& s : shapes) {
            if (s.kind == Shape::Plane) {
                float const den = dot(d, s.b);
                if (den != 0.f) consider(dot(s.a - o, s.b) / den, s.b, s.objectId);
            } else if (s.kind == Shape::Sphere) {
                Dir const oc = o - s.a;
                float const r = s.b.x, bb = dot(oc, d), c = dot(oc, oc) - r * r, disc = bb * bb - c;
                if (disc < 0.f) continue;
                for (float t : {-bb - std::sqrt(disc), -bb + std::sqrt(disc)}) {
                    if (t > 0.f) {
                        consider(t, normalize(o + d * t - s.a), s.objectId);
                        break;
                    }
                }
            } else {
                // Slabs: the entry face, or the exit face from inside.
                float tNear = -1e30f, tFar = 1e30f;
                int nearAxis = 0, farAxis = 0;
                for (int i = 0; i < 3; ++i) {
                    if (d[i] == 0.f) {
                        if (o[i] < s.a[i] || o[i] > s.b[i]) tNear = 1e30f;
                        continue;
                    }
                    float t0 = (s.a[i] - o[i]) / d[i], t1 = (s.b[i] - o[i]) / d[i];
                    if (t0 > t1) std::swap(t0, t1);
                    if (t0 > tNear) tNear = t0, nearAxis = i;
                    if (t1 < tFar) tFar = t1, farAxis = i;
                }
                if (tNear > tFar) continue;
                float const t = tNear > 0.f ? tNear : tFar;
                Dir n;
                n[tNear > 0.f ? nearAxis : farAxis] = 1.f;
                consider(t, n, s.objectId);
            }
        }
        return best;
    }
    Optional<float> traceOcclusion(PrecisePos const& origin, Dir const& direction, float maxDistance) const override {
        return traceNearest(origin, direction, maxDistance).transform([](SceneHit const& h) { return h.distance; });
    }
    Optional<float> findNearestObjectDistance(PrecisePos const& point, float maxDistance,
                                              std::span<int const> ids) const override {
        Dir const p(float(point.x), float(point.y), float(point.z));
        Optional<float> best;
        for (Shape const& s : shapes) {
            if (!ids.empty() && std::find(ids.begin(), ids.end(), s.objectId) == ids.end()) continue;
            float d = 0.f;
            if (s.kind == Shape::Plane) d = std::fabs(dot(p - s.a, s.b));
            else if (s.kind == Shape::Sphere) d = std::fabs(length(p - s.a) - s.b.x);
            else continue;
            if (d <= maxDistance && (!best || d < *best)) best = d;
        }
        return best;
    }
};

Shape plane(Dir point, Dir normal, int id = 1) { return {Shape::Plane, point, normal, id}; }
Shape sphere(Dir centre, float radius, int id = 1) { return {Shape::Sphere, centre, Dir(radius, 0, 0), id}; }
Shape box(Dir lo, Dir hi, int id = 1) { return {Shape::Box, lo, hi, id}; }

SceneShadeContext pointAt(Dir position, Dir normal, std::initializer_list<Shape> shapes = {}) {
    SceneShadeContext c;
    c.position = PrecisePos(position.x, position.y, position.z);
    c.normal = normal;
    c.setShapes(shapes);
    return c;
}

ColorOrMap::Evaluator constant(float v) { return ColorOrMap::Evaluator(ColorOrMap{Rgb(v), {}, true}); }

// ---------------------------------------------------------------------------
// Ambient occlusion

float openness(AmbientOcclusionEvaluator::Settings const& s, SceneShadeContext const& c) {
    return AmbientOcclusionEvaluator(s, {}, {}).openness(c);
}

TEST(AmbientOcclusionMap, CornerOfTwoPlanesClosesTheKnownPartOfTheHemisphere) {
    // A floor z = 0 and a wall x = 0; the point on the floor at distance d from
    // the wall. A cosine-weighted direction projects uniformly onto the unit
    // disk and reaches the wall within R when its x is below -d / R: that part
    // of the disk, a circular segment, is the occluded fraction.
    constexpr int N = 64;
    float const R = 2.f;
    for (float d : {1e-4f, 0.25f, 0.5f, 1.f, 1.8f, 2.5f}) {
        float const a = std::min(d / R, 1.f);
        float const expected = 1.f - (std::acos(a) - a * std::sqrt(1.f - a * a)) / PI;
        AmbientOcclusionEvaluator::Settings s;
        s.samples = N, s.radius = R;
        double sum = 0;
        int const rotations = 16;
        for (int k = 0; k < rotations; ++k) {
            SceneShadeContext c = pointAt(Dir(d, 0.3f, 0), Dir(0, 0, 1),
                {plane(Dir(0, 0, 0), Dir(0, 0, 1), 1), plane(Dir(0, 0, 0), Dir(1, 0, 0), 2)});
            c.random = Vector2((float(k) + 0.5f) / rotations, std::fmod(0.37f * float(k), 1.f));
            float const o = openness(s, c);
            EXPECT_EQ(c.rays, N);
            // Three binomial standard deviations: the stratified pattern does far better.
            EXPECT_NEAR(o, expected, 3.f * std::sqrt(expected * (1.f - expected) / N) + 1.f / N) << "d " << d;
            sum += o;
        }
        EXPECT_NEAR(sum / rotations, expected, 0.02) << "d " << d;
    }
}

TEST(AmbientOcclusionMap, ObjectOptionsDecideWhichSurfacesOcclude) {
    struct Case {
        bool onlySame;
        ObjectFilterMode filter;
        Stack<int> ids;
        float expected; // at the foot of the wall, which is object 2
    };
    for (Case const& k : {Case{false, ObjectFilterMode::All, {}, 0.5f}, Case{true, ObjectFilterMode::All, {}, 1.f},
                          Case{false, ObjectFilterMode::Include, {2}, 0.5f}, Case{false, ObjectFilterMode::Include, {7}, 1.f},
                          Case{false, ObjectFilterMode::Exclude, {2}, 1.f}, Case{false, ObjectFilterMode::Exclude, {1, 7}, 0.5f}}) {
        SceneShadeContext c = pointAt(Dir(1e-4f, 0, 0), Dir(0, 0, 1),
            {plane(Dir(0, 0, 0), Dir(0, 0, 1), 1), plane(Dir(0, 0, 0), Dir(1, 0, 0), 2)});
        AmbientOcclusionEvaluator::Settings s;
        s.samples = 128, s.radius = 10.f, s.onlySameObject = k.onlySame, s.filter = k.filter, s.objectIds = k.ids;
        EXPECT_NEAR(openness(s, c), k.expected, 0.03f) << int(k.filter) << " " << k.onlySame;
    }
}

TEST(AmbientOcclusionMap, InsideLooksIntoTheObjectAndBlendsTheInputs) {
    SceneShadeContext c = pointAt(Dir(0, 0, 1), Dir(0, 0, 1), {sphere(Dir(0, 0, 0), 1.f)});
    AmbientOcclusionEvaluator::Settings s;
    s.radius = 3.f;
    EXPECT_FLOAT_EQ(openness(s, c), 1.f);
    s.invert = true;
    EXPECT_FLOAT_EQ(openness(s, c), 0.f);
    // A radius shorter than the sphere's chords leaves directions open inside too.
    s.radius = 0.5f;
    float const partly = openness(s, c);
    EXPECT_GT(partly, 0.3f);
    EXPECT_LT(partly, 1.f);

    AmbientOcclusionEvaluator const e(s, constant(0.2f), constant(0.8f));
    EXPECT_NEAR(e.evalColor(c, nullptr).g, 0.2f + 0.6f * partly, 1e-6f);
}

TEST(AmbientOcclusionMap, BoundsItsWorkAndAnswersOpenWithoutAScene) {
    // A ceiling just above the point closes every direction of a long enough radius.
    SceneShadeContext c = pointAt(Dir(0, 0, 0), Dir(0, 0, 1), {plane(Dir(0, 0, 0.01f), Dir(0, 0, 1))});
    float const inf = std::numeric_limits<float>::infinity(), nan = std::numeric_limits<float>::quiet_NaN();
    struct Case { int samples; float radius; int rays; float openness; };
    for (Case const& k : {Case{100000, 2.f, AmbientOcclusionEvaluator::MAX_SAMPLES, 0.f}, Case{-5, 2.f, 1, 0.f},
                          Case{8, 0.f, 0, 1.f}, Case{8, -1.f, 0, 1.f}, Case{8, inf, 8, 0.f}, Case{8, nan, 8, 0.f},
                          Case{8, 0.005f, 8, 1.f}}) {
        AmbientOcclusionEvaluator::Settings s;
        s.samples = k.samples, s.radius = k.radius; // NaN falls back to the default radius 1, infinity to a very long one
        c.rays = 0;
        EXPECT_FLOAT_EQ(openness(s, c), k.openness) << k.samples << " " << k.radius;
        EXPECT_EQ(c.rays, k.rays) << k.samples << " " << k.radius;
    }
    // A wall beside the point; a context without random numbers (NaN) samples as with zeros.
    c.setShapes({plane(Dir(0, 0, 0), Dir(1, 0, 0))});
    c.position = PrecisePos(0.3, 0, 0);
    AmbientOcclusionEvaluator::Settings s;
    c.random = Vector2(0, 0);
    float const zeros = openness(s, c);
    c.random = Vector2(nan, inf);
    EXPECT_EQ(openness(s, c), zeros);
    EXPECT_GT(zeros, 0.3f);
    EXPECT_LT(zeros, 0.7f);
    NullShadeContext const nothing;
    AmbientOcclusionEvaluator const e(s, constant(0.f), constant(1.f));
    EXPECT_FLOAT_EQ(e.evalMono(nothing, nullptr).value, 1.f);
}

// ---------------------------------------------------------------------------
// Curvature

TEST(CurvatureMap, SpheresHaveTheirCurvatureWithTheSignOfConvexity) {
    for (float radius : {0.5f, 2.f, 5.f}) {
        for (Dir const n : {Dir(0, 0, 1), normalize(Dir(0.3f, -0.5f, 0.8f)), Dir(-1, 0, 0)}) {
            for (bool outside : {true, false}) {
                // Outside: the normal points away from the centre (convex); inside a
                // hollow sphere it points at the centre (concave).
                SceneShadeContext c = pointAt(n * radius, outside ? n : -n, {sphere(Dir(0, 0, 0), radius)});
                CurvatureEvaluator::Settings s;
                s.radius = 0.1f;
                float const k = CurvatureEvaluator(s).curvature(c);
                EXPECT_NEAR(k, (outside ? 1.f : -1.f) / radius, 1e-3f / radius) << radius << " " << outside;
            }
        }
    }
}

TEST(CurvatureMap, FlatIsZeroEdgesAreConvexCreasesConcaveAndOutputsMapIt) {
    CurvatureEvaluator::Settings s;
    s.radius = 0.1f, s.scale = 0.05f;
    SceneShadeContext flat = pointAt(Dir(0.3f, 0.2f, 0), Dir(0, 0, 1), {plane(Dir(0, 0, 0), Dir(0, 0, 1))});
    EXPECT_NEAR(CurvatureEvaluator(s).curvature(flat), 0.f, 1e-5f);
    // The top face of a box, at its edge: probes past it fall away.
    SceneShadeContext edge = pointAt(Dir(0.99f, 0, 1), Dir(0, 0, 1), {box(Dir(-1, -1, -1), Dir(1, 1, 1))});
    float const convex = CurvatureEvaluator(s).curvature(edge);
    EXPECT_GT(convex, 1.f);
    // The floor beside a wall: probes meet the wall.
    SceneShadeContext crease = pointAt(Dir(0.99f, 0, 0), Dir(0, 0, 1),
        {plane(Dir(0, 0, 0), Dir(0, 0, 1)), plane(Dir(1, 0, 0), Dir(-1, 0, 0))});
    float const concave = CurvatureEvaluator(s).curvature(crease);
    EXPECT_LT(concave, -1.f);

    struct Case { CurvatureMap::Output output; SceneShadeContext const* context; float expected; };
    float const sc = s.scale;
    for (Case const& k : {Case{CurvatureMap::Output::Signed, &flat, 0.5f},
                          Case{CurvatureMap::Output::Signed, &edge, std::min(1.f, 0.5f + 0.5f * sc * convex)},
                          Case{CurvatureMap::Output::Signed, &crease, std::max(0.f, 0.5f + 0.5f * sc * concave)},
                          Case{CurvatureMap::Output::Convex, &edge, std::min(1.f, sc * convex)},
                          Case{CurvatureMap::Output::Convex, &crease, 0.f},
                          Case{CurvatureMap::Output::Concave, &crease, std::min(1.f, -sc * concave)},
                          Case{CurvatureMap::Output::Concave, &edge, 0.f}}) {
        s.output = k.output;
        EXPECT_NEAR(CurvatureEvaluator(s).evalMono(*k.context, nullptr).value, k.expected, 1e-5f) << int(k.output);
    }
    // No scene: flat; scale 0: flat whatever the curvature.
    s.output = CurvatureMap::Output::Signed;
    EXPECT_FLOAT_EQ(CurvatureEvaluator(s).evalMono(NullShadeContext(), nullptr).value, 0.5f);
    s.scale = 0.f;
    EXPECT_FLOAT_EQ(CurvatureEvaluator(s).evalMono(edge, nullptr).value, 0.5f);
}

// ---------------------------------------------------------------------------
// Round edges

Dir rounded(RoundEdgesEvaluator::Settings const& s, SceneShadeContext const& c) {
    return RoundEdgesEvaluator(s).roundedNormal(c);
}

TEST(RoundEdgesMap, NormalTiltsTowardsTheBisectorOfACubesEdgeAndModesChooseWhichEdgesRound) {
    RoundEdgesEvaluator::Settings s;
    s.radius = 0.1f, s.samples = 32;
    float previousTilt = -1.f;
    // Walking along the top face towards the edge x = 1.
    for (float gap : {0.5f, 0.12f, 0.08f, 0.05f, 0.02f, 0.001f}) {
        SceneShadeContext c = pointAt(Dir(1.f - gap, 0.2f, 1), Dir(0, 0, 1), {box(Dir(-1, -1, -1), Dir(1, 1, 1))});
        Dir const m = rounded(s, c);
        EXPECT_NEAR(length(m), 1.f, 1e-5f);
        float const tilt = std::acos(std::min(m.z, 1.f));
        if (gap > s.radius) {
            EXPECT_EQ(m, Dir(0, 0, 1)) << gap;
        } else {
            // Towards +x (the bisector (1, 0, 1) / sqrt 2), never past it, and more so nearer the edge.
            EXPECT_GT(m.x, 0.f) << gap;
            EXPECT_LT(std::fabs(m.y), 0.25f * m.x) << gap;
            EXPECT_LE(tilt, PI / 4 + 1e-4f) << gap;
            EXPECT_GT(tilt, previousTilt) << gap;
        }
        previousTilt = tilt;
    }
    // The floor (object 1) at the foot of a wall x = 1, the wall of the same object or another.
    auto creaseTilt = [&](RoundEdgesMap::Mode mode, int wallId) {
        SceneShadeContext c = pointAt(Dir(0.97f, 0, 0), Dir(0, 0, 1),
            {plane(Dir(0, 0, 0), Dir(0, 0, 1), 1), plane(Dir(1, 0, 0), Dir(-1, 0, 0), wallId)});
        s.mode = mode;
        return rounded(s, c);
    };
    Dir const same = creaseTilt(RoundEdgesMap::Mode::SameObject, 1);
    EXPECT_LT(same.x, -0.05f); // away from the wall: towards the crease's bisector (-1, 0, 1)
    EXPECT_EQ(creaseTilt(RoundEdgesMap::Mode::CornersOnly, 1), Dir(0, 0, 1));
    EXPECT_EQ(creaseTilt(RoundEdgesMap::Mode::SameObject, 2), Dir(0, 0, 1));
    expectNear(creaseTilt(RoundEdgesMap::Mode::AllObjects, 2), same, 1e-6f);
    // Corners only still rounds the cube's outer edge.
    SceneShadeContext edge = pointAt(Dir(0.97f, 0, 1), Dir(0, 0, 1), {box(Dir(-1, -1, -1), Dir(1, 1, 1))});
    s.mode = RoundEdgesMap::Mode::CornersOnly;
    EXPECT_GT(rounded(s, edge).x, 0.05f);
    // Without a scene, or with radius 0, nothing rounds.
    RoundEdgesEvaluator const e(s);
    expectNear(e.evalBump(NullShadeContext(), nullptr), Dir(), 0.f);
    SettableShadeContext plain;
    expectNear(e.evalBump(plain, nullptr), Dir(), 0.f);
    EXPECT_FLOAT_EQ(e.evalMono(plain, nullptr).value, 0.f);
    s.radius = 0.f;
    expectNear(RoundEdgesEvaluator(s).evalBump(edge, nullptr), Dir(), 0.f);
}

// ---------------------------------------------------------------------------
// Wireframe

/// The triangle (0,0,0) (4,0,0) (0,3,0) with the shading point at (x, y).
ShadedTriangle knownTriangle(float x, float y) {
    // Barycentrics: weight of (4,0,0) is x / 4, of (0,3,0) y / 3.
    float const b1 = x / 4.f, b2 = y / 3.f;
    return {{Pos(0, 0, 0), Pos(4, 0, 0), Pos(0, 3, 0)}, Pos(1.f - b1 - b2, b1, b2)};
}

TEST(WireframeMap, DistanceToTheNearestEdgeOfAKnownTriangleAndCoverageBoxFilteredOverTheFootprint) {
    // Edges y = 0, x = 0 and 3x + 4y = 12.
    for (auto [x, y] : {std::pair{1.f, 1.f}, {0.5f, 2.f}, {2.f, 0.25f}, {3.f, 0.5f}, {0.f, 1.f}, {1.2f, 0.9f}}) {
        float const expected = std::min({y, x, (12.f - 3.f * x - 4.f * y) / 5.f});
        Optional<float> const d = WireframeEvaluator::edgeDistance(knownTriangle(x, y));
        ASSERT_TRUE(d);
        EXPECT_NEAR(*d, expected, 1e-5f) << x << "," << y;
    }
    // A triangle of no area is all edge; one with non-finite corners has no answer.
    EXPECT_EQ(WireframeEvaluator::edgeDistance({{Pos(0, 0, 0), Pos(1, 1, 0), Pos(2, 2, 0)}, Pos(0.3f, 0.3f, 0.4f)}), 0.f);
    float const inf = std::numeric_limits<float>::infinity();
    EXPECT_FALSE(WireframeEvaluator::edgeDistance({{Pos(0, 0, 0), Pos(inf, 0, 0), Pos(0, 3, 0)}, Pos(0.3f, 0.3f, 0.4f)}));
    // Coverage: the line box-filtered over the footprint.
    struct Case {
        WireframeMap::Units units;
        float width, footprint, y; // the point at (2, y): y is its distance to the nearest edge
        float expected;
    };
    for (Case const& k : {Case{WireframeMap::Units::World, 0.2f, 0.f, 0.05f, 1.f},
                          Case{WireframeMap::Units::World, 0.2f, 0.f, 0.15f, 0.f},
                          Case{WireframeMap::Units::World, 0.2f, 0.1f, 0.1f, 0.5f},   // centred on the line's border
                          Case{WireframeMap::Units::World, 0.2f, 0.1f, 0.125f, 0.25f},
                          Case{WireframeMap::Units::World, 0.2f, 0.1f, 0.2f, 0.f},
                          Case{WireframeMap::Units::World, 0.02f, 0.1f, 0.3f, 0.f},
                          Case{WireframeMap::Units::World, 0.02f, 0.1f, 0.04f, 0.2f}, // a thin line, both its halves in the footprint
                          Case{WireframeMap::Units::Pixels, 2.f, 0.05f, 0.05f, 0.5f}, // 1 pixel from the edge
                          Case{WireframeMap::Units::Pixels, 2.f, 0.05f, 0.02f, 1.f},
                          Case{WireframeMap::Units::Pixels, 2.f, 0.f, 0.02f, 0.f}}) { // pixels need a footprint
        SceneShadeContext c;
        c.triangle = knownTriangle(2.f, k.y);
        c.footprint = k.footprint;
        WireframeEvaluator const e({k.width, k.units}, constant(1.f), constant(0.f));
        EXPECT_NEAR(e.coverage(c), k.expected, 1e-5f) << k.width << " " << k.footprint << " " << k.y;
        EXPECT_NEAR(e.evalMono(c, nullptr).value, k.expected, 1e-5f);
    }
    // No triangle: the face colour.
    WireframeEvaluator const e({1.f, WireframeMap::Units::World}, constant(1.f), constant(0.25f));
    EXPECT_FLOAT_EQ(e.evalColor(NullShadeContext(), nullptr).r, 0.25f);
}

// ---------------------------------------------------------------------------
// Distance

TEST(DistanceMap, DistanceToASphereThroughNearFarAndFalloff) {
    float const nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    struct Case {
        float nearDistance, farDistance, falloff;
        Stack<int> ids;
        float distance; // of the point from the sphere's surface
        float expected;
    };
    for (Case const& k : {Case{0.f, 2.f, 1.f, {}, 0.5f, 0.25f}, Case{0.f, 2.f, 2.f, {}, 1.f, 0.25f},
                          Case{1.f, 3.f, 1.f, {3}, 0.5f, 0.f}, Case{1.f, 3.f, 1.f, {3}, 2.5f, 0.75f},
                          Case{0.f, 2.f, 1.f, {3}, 2.5f, 1.f}, Case{0.f, 2.f, 1.f, {4}, 0.5f, 1.f},
                          Case{1.f, 1.f, 1.f, {}, 0.5f, 0.f}, Case{1.f, 0.5f, 1.f, {}, 1.5f, 1.f},
                          Case{0.f, nan, 1.f, {}, 0.5f, 0.5f}, Case{0.f, 2.f, nan, {}, 1.f, 0.5f}, Case{nan, 2.f, 1.f, {}, 0.5f, 0.25f},
                          Case{0.f, inf, 1.f, {}, 1e6f, 1e6f / 1e9f}}) {
        // A sphere of radius 1 (object 3) and the point `distance` above it.
        SceneShadeContext c = pointAt(Dir(0, 0, 1.f + k.distance), Dir(0, 0, 1), {sphere(Dir(0, 0, 0), 1.f, 3)});
        DistanceEvaluator const e({k.ids, k.nearDistance, k.farDistance, k.falloff}, constant(0.f), constant(1.f));
        EXPECT_NEAR(e.weight(c), k.expected, 1e-4f) << k.nearDistance << " " << k.farDistance << " " << k.falloff;
        EXPECT_NEAR(e.evalMono(c, nullptr).value, k.expected, 1e-4f);
    }
    DistanceEvaluator const e({}, constant(0.f), constant(0.5f));
    EXPECT_FLOAT_EQ(e.evalColor(NullShadeContext(), nullptr).b, 0.5f);
}

TEST(SceneMaps, NotANumberSettingsFallBackToTheDefaults) {
    float const nan = std::numeric_limits<float>::quiet_NaN();
    // A point on the top face of a cube near its edge, on the triangle of knownTriangle(2, 0.004).
    SceneShadeContext c = pointAt(Dir(0.97f, 0.1f, 1), Dir(0, 0, 1), {box(Dir(-1, -1, -1), Dir(1, 1, 1))});
    c.triangle = knownTriangle(2.f, 0.004f);
    c.footprint = 0.001f;

    CurvatureEvaluator::Settings curvatureNan;
    curvatureNan.radius = curvatureNan.scale = nan;
    EXPECT_EQ(CurvatureEvaluator(curvatureNan).evalMono(c, nullptr), CurvatureEvaluator({}).evalMono(c, nullptr));
    RoundEdgesEvaluator::Settings roundNan;
    roundNan.radius = nan;
    EXPECT_EQ(RoundEdgesEvaluator(roundNan).roundedNormal(c), RoundEdgesEvaluator({}).roundedNormal(c));
    WireframeEvaluator const wireNan({nan, WireframeMap::Units::World}, constant(1.f), constant(0.f));
    WireframeEvaluator const wire({}, constant(1.f), constant(0.f));
    EXPECT_EQ(wireNan.coverage(c), wire.coverage(c));
    EXPECT_GT(wire.coverage(c), 0.f);
}

// ---------------------------------------------------------------------------
// Records

class SceneMapRecords : public Quelin::Testing::LibraryFixture {};

} // namespace

namespace Quelin {
namespace {

// Ranges authored in centimetres measure a scene in metres: the map sees the
// same scene as one authored in metres.
TEST_F(SceneMapRecords, LengthsFollowTheUnitScaler) {
    SceneShadeContext c = pointAt(Dir(0, 0, 1.5f), Dir(0, 0, 1), {sphere(Dir(0, 0, 0), 1.f, 3)});
    auto const weightOf = [&](float farDistance) {
        auto const m = entityFromJsonAs<IMap>(nlohmann::json{{"@class", "Zatho.DistanceMap"}, {"farDistance", farDistance}});
        EXPECT_TRUE(m);
        return (*m)->getEvaluatorImpl().evaluator->evalMono(c, nullptr).value;
    };
    float const inMeters = weightOf(2.f);
    UnitScaler::setCurrent(UnitScaler(UnitScaler::Unit::CENTIMETER, UnitScaler::Unit::METER));
    float const inCentimeters = weightOf(200.f);
    float const unscaled = weightOf(2.f);
    UnitScaler::setCurrent(UnitScaler());
    // A quarter of the way from the white near colour to the black far one.
    EXPECT_NEAR(inMeters, 0.75f, 1e-4f);
    EXPECT_NEAR(inCentimeters, inMeters, 1e-5f);
    EXPECT_NEAR(unscaled, 0.f, 1e-4f);  // 2 cm is passed long before 0.5 m
}

} // namespace
} // namespace Quelin
