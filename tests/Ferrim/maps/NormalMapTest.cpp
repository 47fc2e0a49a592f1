#include "Ferrim/maps/NormalMap.h"

#include "Ferrim/maps/BumpConverterMap.h"
#include "Ferrim/maps/CheckerMap.h"
#include "Ferrim/maps/MappingRandomizerMap.h"
#include "Ferrim/maps/NoiseMap.h"
#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

class NormalMapTest : public LibraryFixture {};

/// A surface point with a tilted normal and a frame that is not unit length:
/// dP/du twice and dP/dv three times as long as their directions.
SettableShadeContext tiltedPoint() {
    SettableShadeContext p;
    p.normal = normalize(Dir(0.f, -0.5f, 0.8660254f));
    Dir const t(1.f, 0.f, 0.f);
    Dir const b = cross(p.normal, t);
    p.bumpBase = Matrix33::fromColumns(t * 2.f, b * 3.f, p.normal);
    return p;
}

void setNormalColor(NormalMap& map, Rgb const& c) {
    GenericDataObject v = map.get<GenericDataObject>("normalMap");
    v.set("color", c);
    map.set("normalMap", v);
}

TEST_F(NormalMapTest, FlatLeavesTheNormalAndAKnownTiltLandsInTheBumpFrame) {
    NormalMap map;
    SettableShadeContext const p = tiltedPoint();
    Testing::expectNear(map.getEvaluator().evaluator->evalBump(p, nullptr), Dir(), 1e-6f);
    auto const bent = [&] { return normalize(p.normal + map.getEvaluator().evaluator->evalBump(p, nullptr)); };
    // 45 degrees towards +u: n = (sin 45, 0, cos 45).
    float const s = 0.70710678f;
    Dir const t = normalize(p.bumpBase.column(0)), b = normalize(p.bumpBase.column(1));
    setNormalColor(map, Rgb(0.5f + 0.5f * s, 0.5f, 0.5f + 0.5f * s));
    Testing::expectNear(bent(), normalize(t * s + p.normal * s), 1e-5f);
    // Green tilts along +v, flipped green along -v.
    setNormalColor(map, Rgb(0.5f, 0.5f + 0.5f * s, 0.5f + 0.5f * s));
    Testing::expectNear(bent(), normalize(b * s + p.normal * s), 1e-5f);
    map.set("flipGreen", true);
    Testing::expectNear(bent(), normalize(-b * s + p.normal * s), 1e-5f);
    // Half strength: halfway between the surface normal and the mapped one, renormalised.
    map.set("flipGreen", false);
    map.set("strength", 0.5f);
    Testing::expectNear(bent(), normalize(p.normal + (normalize(b * s + p.normal * s) - p.normal) * 0.5f), 1e-5f);
}

TEST_F(NormalMapTest, TiltAgreesWithTheBumpPathOfTheSameSlope) {
    // A height field rising along u gives a bump that tilts the normal away from +u;
    // the normal map of the matching tilt must point the same way in the same frame.
    SettableShadeContext const p = tiltedPoint();
    struct Ramp : IMapEvaluator {
        RgbAlpha evalColor(IShadeContext const& c, MapCache*) const override { return RgbAlpha(Rgb(c.getUvw(1).x), 1); }
        MonoAlpha evalMono(IShadeContext const& c, MapCache*) const override { return {c.getUvw(1).x, 1}; }
        Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }
    } ramp;
    UvMapper mapper;
    Dir const bumped = normalize(p.normal + BumpConverterMap::evalBump(p, ramp, mapper, 0.25f, 1.f));
    NormalMap map;
    float const s = 0.70710678f;
    setNormalColor(map, Rgb(0.5f - 0.5f * s, 0.5f, 0.5f + 0.5f * s));  // tilted towards -u
    Dir const mapped = normalize(p.normal + map.getEvaluator().evaluator->evalBump(p, nullptr));
    Dir const tangent = normalize(p.bumpBase.column(0));
    EXPECT_LT(dot(bumped, tangent), 0.f);
    EXPECT_LT(dot(mapped, tangent), 0.f);
    EXPECT_NEAR(dot(normalize(cross(p.normal, bumped)), normalize(cross(p.normal, mapped))), 1.f, 1e-5f);
}

TEST_F(NormalMapTest, WorldSpaceAndTheAdditionalBump) {
    NormalMap map;
    map.set("space", NormalMap::Space::World);
    setNormalColor(map, Rgb(1.f, 0.5f, 0.5f));  // world +x
    SettableShadeContext const p = tiltedPoint();
    Testing::expectNear(normalize(p.normal + map.getEvaluator().evaluator->evalBump(p, nullptr)), Dir(1, 0, 0), 1e-5f);
    map.set("space", NormalMap::Space::Tangent);
    setNormalColor(map, Rgb(0.5f, 0.5f, 1.f));
    map.set("bumpMap", EntityHolder<Entity>(makeSharedPtr<CountingMap>(RgbAlpha(1, 1, 1, 1))));
    map.set("bumpStrength", 0.5f);
    Testing::expectNear(map.getEvaluator().evaluator->evalBump(p, nullptr), Dir(0.5f, 1.f, 1.5f), 1e-5f);
    map.set("bumpMap", EntityHolder<Entity>());
    setNormalColor(map, Rgb(std::numeric_limits<float>::quiet_NaN()));
    Testing::expectNear(map.getEvaluator().evaluator->evalBump(p, nullptr), Dir(), 1e-6f);
    expectJsonRoundTrip(map);
}

// ------------------------------------------------------ mapping randomizer

class MappingRandomizerTest : public LibraryFixture {};

struct IdPoint : SettableShadeContext {
    int objectId = 0, faceIndex = 0;
    int getObjectId() const override { return objectId; }
    int getFaceIndex() const override { return faceIndex; }
};

TEST_F(MappingRandomizerTest, EachIdGetsItsOwnStableChangeWithinTheRanges) {
    MappingRandomizerEvaluator::Settings s;
    s.offsetU = 0.3f, s.offsetV = 0.1f, s.rotation = PI / 4, s.scaleMin = 0.5f, s.scaleMax = 2.f;
    MappingRandomizerEvaluator const e(nullptr, s);
    int distinct = 0;
    for (std::uint32_t id = 0; id < 200; ++id) {
        auto const c = e.changeFor(id, 0, 0);
        float const scale = std::sqrt(c.m00 * c.m11 - c.m01 * c.m10);
        EXPECT_GE(scale, 0.5f - 1e-5f);
        EXPECT_LE(scale, 2.f + 1e-5f);
        EXPECT_LE(std::fabs(std::atan2(c.m10, c.m00)), PI / 4 + 1e-5f);
        EXPECT_LE(std::fabs(c.offsetU), 0.3f);
        EXPECT_LE(std::fabs(c.offsetV), 0.1f);
        EXPECT_EQ(e.changeFor(id, 0, 0).m00, c.m00);
        distinct += e.changeFor(id + 1, 0, 0).offsetU != c.offsetU;
    }
    EXPECT_GT(distinct, 190);
}

TEST_F(MappingRandomizerTest, TheInputSeesChangedCoordinatesAndFootprints) {
    MappingRandomizerMap map;
    auto const checker = makeSharedPtr<CheckerMap>();
    map.set("map", EntityHolder<Entity>(checker));
    EXPECT_EQ(dynamic_cast<MappingRandomizerEvaluator const*>(map.getEvaluator().evaluator.get()), nullptr);  // no change
    for (auto const& [name, v] : {std::pair{"offsetU", 0.5f}, {"rotation", 90.f}}) map.set(name, v);
    map.set("flipU", true);
    auto const e = map.getEvaluator().evaluator;
    ASSERT_NE(dynamic_cast<MappingRandomizerEvaluator const*>(e.get()), nullptr);
    int changed = 0;
    for (int id = 0; id < 40; ++id) {
        IdPoint p;
        p.objectId = id;
        p.uvw = Pos(0.1f, 0.2f, 0.f);
        changed += e->evalColor(p, nullptr) != checker->getEvaluator().evaluator->evalColor(p, nullptr);
    }
    EXPECT_GT(changed, 5);
    map.set("map", EntityHolder<Entity>(makeSharedPtr<NoiseMap>()));
    expectJsonRoundTrip(map);
    map.set("map", EntityHolder<Entity>());
    EXPECT_TRUE(map.getEvaluator().hasConstant);
}

TEST_F(MappingRandomizerTest, PerTileChangesDifferBetweenTilesAndTheBumpFrameFollows) {
    MappingRandomizerEvaluator::Settings s;
    s.perTile = true, s.rotation = PI;
    s.randomBy = MappingRandomizerMap::RandomBy::None;
    struct FrameProbe : IMapEvaluator {
        RgbAlpha evalColor(IShadeContext const& c, MapCache*) const override { return RgbAlpha(Rgb(c.getUvw(1).x), 1); }
        MonoAlpha evalMono(IShadeContext const& c, MapCache*) const override { return {c.getUvw(1).x, 1}; }
        // Reports dP/du of the frame it sees, so the test can check that the change carried it along.
        Dir evalBump(IShadeContext const& c, MapCache*) const override { return c.getDpDu(1); }
    };
    MappingRandomizerEvaluator const e(makeSharedPtr<FrameProbe>(), s);
    auto const c0 = e.changeFor(0, 0, 0), c1 = e.changeFor(0, 1, 0);
    EXPECT_NE(c0.m00, c1.m00);
    // dP/du' = dP/du (M^-1)_00 + dP/dv (M^-1)_10, checked against the change of tile 0.
    struct Tangents : SettableShadeContext {
        Dir getDpDu(int) const override { return Dir(1, 0, 0); }
        Dir getDpDv(int) const override { return Dir(0, 1, 0); }
    } p;
    p.uvw = Pos(0.3f, 0.4f, 0.f);
    float const det = c0.m00 * c0.m11 - c0.m01 * c0.m10;
    Testing::expectNear(e.evalBump(p, nullptr), Dir(c0.m11 / det, -c0.m10 / det, 0.f), 1e-5f);
    // The point itself moves by the change about the tile's centre.
    float const want = 0.5f + c0.m00 * (0.3f - 0.5f) + c0.m01 * (0.4f - 0.5f) + c0.offsetU;
    EXPECT_NEAR(e.evalColor(p, nullptr).r, want, 1e-6f);
}

} // namespace
} // namespace Quelin
