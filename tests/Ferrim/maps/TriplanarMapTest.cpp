#include "Ferrim/maps/TriplanarMap.h"

#include <array>
#include <bit>
#include <cmath>
#include <random>

#include "Ferrim/UnitScaler.h"
#include "Ferrim/maps/BumpConverterMap.h"
#include "Ferrim/maps/CheckerMap.h"
#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;
using Params = TriplanarEvaluator::Parameters;

/// A surface point with object and world positions, normals and an object id.
class BoxContext : public SettableShadeContext {
public:
    BoxContext(Pos const& p, Dir const& n) {
        objectPosition = p;
        position = PrecisePos(p.x, p.y, p.z);
        normal = n;
    }
    Dir getObjectNormal() const override { return normal; }
    int getObjectId() const override { return objectId; }
    AffineTm getObjectToWorld() const override { return toWorld; }
    int objectId = 0;
    AffineTm toWorld;
};

/// Colour = the UVW it is given; mono = u, with a bump from the converter.
class UvwEcho : public IMapEvaluator {
public:
    RgbAlpha evalColor(IShadeContext const& c, MapCache*) const override {
        Pos const p = c.getUvw(mMapper->getChannel());
        return {p.x, p.y, p.z, 1.f};
    }
    MonoAlpha evalMono(IShadeContext const& c, MapCache*) const override { return {c.getUvw(mMapper->getChannel()).x, 1.f}; }
    Dir evalBump(IShadeContext const& c, MapCache*) const override {
        return BumpConverterMap::evalBump(c, *this, *mMapper, 1.f, 1.f);
    }
    SharedPtr<UvMapper const> mMapper = makeSharedPtr<UvMapper>();
};

/// The echo, noting the size of every batch it is handed.
class BatchNotingEcho : public UvwEcho {
public:
    void evalColors(IShadeContext const& c, std::span<MapLookupPoint const> points, std::span<RgbAlpha> colors,
                    MapCache* cache) const override {
        batches.push_back(int(points.size()));
        UvwEcho::evalColors(c, points, colors, cache);
    }
    void evalMonos(IShadeContext const& c, std::span<MapLookupPoint const> points, std::span<MonoAlpha> monos,
                   MapCache* cache) const override {
        batches.push_back(int(points.size()));
        UvwEcho::evalMonos(c, points, monos, cache);
    }
    mutable std::vector<int> batches;
};

ColorOrMap::Evaluator echoInput(SharedPtr<IMapEvaluator> evaluator = makeSharedPtr<UvwEcho>()) {
    // Through a map entity so that the evaluator is a real map input.
    struct EchoMap : IMap {
        explicit EchoMap(SharedPtr<IMapEvaluator> e) : IMap(CountingMap::Data::definition()), evaluator(std::move(e)) {}
        SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<EchoMap>(evaluator); }
        OptimizedResult getEvaluatorImpl() const override {
            OptimizedResult r;
            r.evaluator = evaluator;
            return r;
        }
        SharedPtr<IMapEvaluator> evaluator;
    };
    return mapInput(makeSharedPtr<EchoMap>(std::move(evaluator)));
}

TriplanarEvaluator echoEvaluator(Params const& p) { return TriplanarEvaluator({echoInput(), echoInput(), echoInput()}, p); }

TEST(TriplanarWeights, SumToOneForEveryNormalAndBlend) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> d(-1.f, 1.f);
    std::vector<Dir> normals = {Dir(0, 0, 0), Dir(std::nanf(""), 0, 1), Dir(INFINITY, 1, 0), Dir(1, 1, 1), Dir(-1, 1, 0)};
    for (int i = 0; i < 200; ++i) normals.push_back(Dir(d(rng), d(rng), d(rng)));
    for (float blend : {0.f, 0.05f, 0.5f, 1.f}) {
        for (Dir const& n : normals) {
            auto const w = TriplanarEvaluator::blendWeights(n, blend);
            EXPECT_NEAR(w[0] + w[1] + w[2], 1.f, 1e-6f) << blend << " " << n.x << " " << n.y << " " << n.z;
            for (float v : w) EXPECT_TRUE(v >= 0.f && v <= 1.f);
            if (blend == 0.f) EXPECT_EQ(std::max({w[0], w[1], w[2]}), 1.f);
            if (blend == 1.f && std::isfinite(n.x) && dot(n, n) > 0.f) {
                float const s = std::fabs(n.x) + std::fabs(n.y) + std::fabs(n.z);
                EXPECT_NEAR(w[2], std::fabs(n.z) / s, 1e-6f);
            }
        }
    }
    // Equal axes at hard seams: the first.
    EXPECT_EQ(TriplanarEvaluator::blendWeights(Dir(1, 1, 1), 0.f), (StaticArray<float, 3>{1.f, 0.f, 0.f}));
}

TEST(TriplanarProjection, PlacementPerAxisAndFacesReadTheRightWayRound) {
    Params p;
    p.size = 2.f;
    p.axes[2] = {Vector2(0.4f, -0.2f), 90.f, 0.5f};
    auto const e = echoEvaluator(p);
    Pos const pt(0.6f, 1.4f, 3.f);
    auto uv = [&](Dir const& n) { return e.evalColor(BoxContext(pt, n), nullptr); };
    // X faces: (+-y, z) / size; Y faces: (-+x, z) / size.
    EXPECT_EQ(uv(Dir(1, 0, 0)), RgbAlpha(0.7f, 1.5f, 0.f, 1.f));
    EXPECT_EQ(uv(Dir(-1, 0, 0)), RgbAlpha(-0.7f, 1.5f, 0.f, 1.f));
    EXPECT_EQ(uv(Dir(0, 1, 0)), RgbAlpha(-0.3f, 1.5f, 0.f, 1.f));
    // Z face: q = ((x, y) - offset) / (size scale) = (0.2, 1.6), turned by 90 degrees: (-1.6, 0.2).
    RgbAlpha const z = uv(Dir(0, 0, 1));
    EXPECT_NEAR(z.r, -1.6f, 1e-5f);
    EXPECT_NEAR(z.g, 0.2f, 1e-5f);
}

/// The bits of a result's floats: equal bits, not merely equal values.
template <typename T> StaticArray<std::uint32_t, sizeof(T) / 4> bitsOf(T const& value) {
    return std::bit_cast<StaticArray<std::uint32_t, sizeof(T) / 4>>(value);
}

// Colour and mono blend the lookups of each projection by the weights, in
// either space, turned or not, placed anywhere; the bump path's projection is
// the independent reference. One map on every axis gets the lookups of a
// point in one batch and answers, bit for bit, as three maps asked one each.
TEST(TriplanarProjection, BlendedLookupsMatchTheWeightedProjectionsAndOneMapIsAskedOnce) {
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> d(-1.f, 1.f);
    for (int i = 0; i < 300; ++i) {
        Params p;
        p.space = i % 2 ? TriplanarMap::Space::WORLD : TriplanarMap::Space::OBJECT;
        p.blend = std::array{0.f, 0.3f, 1.f}[std::size_t(i % 3)];
        p.size = 0.5f + d(rng) * d(rng);
        p.randomRotation = i % 5 == 0;
        for (auto& axis : p.axes) axis = {Vector2(d(rng), d(rng)), 180.f * d(rng), 1.f + 0.5f * d(rng)};
        auto const e = echoEvaluator(p);
        auto const shared = makeSharedPtr<BatchNotingEcho>();
        ColorOrMap::Evaluator const input = echoInput(shared);
        TriplanarEvaluator const batched({input, input, input}, p);
        Dir n(d(rng), d(rng), d(rng));
        if (i % 7 == 0) n[std::size_t(i % 3)] = 0.f;  // an edge: one weight is zero
        if (i % 11 == 0) n = Dir(0.f, 0.f, 0.f);       // no normal: one projection
        BoxContext ctx(Pos(4.f * d(rng), 4.f * d(rng), 4.f * d(rng)), n);
        ctx.objectId = i;
        auto const w = TriplanarEvaluator::blendWeights(n, p.blend);
        RgbAlpha expected(0.f, 0.f, 0.f, 0.f);
        for (int a = 0; a < 3; ++a) {
            Pos const uvw = e.project(ctx, a).uvw;
            expected = expected + RgbAlpha(uvw.x, uvw.y, uvw.z, 1.f) * w[std::size_t(a)];
        }
        RgbAlpha const c = e.evalColor(ctx, nullptr);
        MonoAlpha const m = e.evalMono(ctx, nullptr);
        for (auto [got, want] : {std::pair{c.r, expected.r}, {c.g, expected.g}, {c.b, 0.f}, {c.alpha, 1.f}, {m.value, c.r}, {m.alpha, 1.f}})
            EXPECT_NEAR(got, want, 1e-5f) << i;
        EXPECT_EQ(bitsOf(batched.evalColor(ctx, nullptr)), bitsOf(c)) << i;
        EXPECT_EQ(bitsOf(batched.evalMono(ctx, nullptr)), bitsOf(m)) << i;
        int const lookups = int(w[0] != 0.f) + int(w[1] != 0.f) + int(w[2] != 0.f);
        EXPECT_EQ(shared->batches, (std::vector<int>{lookups, lookups})) << i;
    }
}

TEST(TriplanarProjection, RandomRotationIsPerObjectAndKeepsLengths) {
    Params p;
    p.randomRotation = true;
    auto const e = echoEvaluator(p);
    BoxContext a(Pos(0.3f, 0.4f, 1.f), Dir(0, 0, 1)), b = a;
    b.objectId = 7;
    RgbAlpha const ua = e.evalColor(a, nullptr), ub = e.evalColor(b, nullptr);
    EXPECT_EQ(ua, e.evalColor(a, nullptr));
    EXPECT_GT(std::fabs(ua.r - ub.r) + std::fabs(ua.g - ub.g), 1e-3f);
    EXPECT_NEAR(ua.r * ua.r + ua.g * ua.g, 0.25f, 1e-5f);
    EXPECT_NEAR(ub.r * ub.r + ub.g * ub.g, 0.25f, 1e-5f);
}

TEST(TriplanarBump, FlatTextureHasNoBumpAndSlopesFollowEachProjectionsFrame) {
    Params p;
    p.blend = 1.f;
    // A checker with equal colours is flat however it is projected.
    auto flat = makeSharedPtr<CheckerMap>();
    flat->set("color1", ColorOrMap{Rgb(0.3f, 0.3f, 0.3f), {}, true}.toData());
    flat->set("color2", ColorOrMap{Rgb(0.3f, 0.3f, 0.3f), {}, true}.toData());
    TriplanarEvaluator const flatE({mapInput(flat), mapInput(flat), mapInput(flat)}, p);
    for (Dir const& n : {Dir(0, 0, 1), normalize(Dir(1, 1, 1)), normalize(Dir(-0.2f, 0.9f, -0.4f))})
        EXPECT_EQ(flatE.evalBump(BoxContext(Pos(0.2f, 0.7f, -0.1f), n), nullptr), Dir(0, 0, 0));

    // Height = u: on the +Z face u grows along +x, so the normal tilts toward -x;
    // turned by 90 degrees u grows along -y, and the tilt turns with it.
    p.blend = 0.f;
    auto slope = [&](float rotationZ) {
        Params q = p;
        q.axes[2].rotation = rotationZ;
        return echoEvaluator(q).evalBump(BoxContext(Pos(0.2f, 0.3f, 0.f), Dir(0, 0, 1)), nullptr);
    };
    Dir const b0 = slope(0.f), b90 = slope(90.f);
    EXPECT_LT(b0.x, -0.5f);
    EXPECT_NEAR(b0.y, 0.f, 1e-4f);
    EXPECT_GT(b90.y, 0.5f);
    EXPECT_NEAR(b90.x, 0.f, 1e-4f);
    // On the +X face u grows along +y.
    Dir const bx = echoEvaluator(p).evalBump(BoxContext(Pos(0.f, 0.2f, 0.3f), Dir(1, 0, 0)), nullptr);
    EXPECT_LT(bx.y, -0.5f);
    EXPECT_NEAR(bx.z, 0.f, 1e-4f);
}

class UnitScalerMapTest : public LibraryFixture {
protected:
    void TearDown() override {
        UnitScaler::setCurrent(UnitScaler());
        LibraryFixture::TearDown();
    }
};

TEST_F(UnitScalerMapTest, RegisteredLengthsAreConvertedWhenTheEvaluatorIsBuilt) {
    auto map = makeSharedPtr<TriplanarMap>();
    map->set("size", 50.f);
    map->set("offsetZ", Vector2(10.f, 0.f));
    map->set("blend", 0.5f);
    setInputMap(*map, "mapX", makeSharedPtr<CountingMap>(RgbAlpha(1, 1, 1, 1)));
    UnitScaler::setCurrent(UnitScaler(UnitScaler::Unit::CENTIMETER, UnitScaler::Unit::METER));
    auto const e = std::dynamic_pointer_cast<TriplanarEvaluator>(map->getEvaluator().evaluator);
    ASSERT_TRUE(e);
    EXPECT_FLOAT_EQ(e->parameters().size, 0.5f);
    EXPECT_FLOAT_EQ(e->parameters().axes[2].offset.x, 0.1f);
    EXPECT_EQ(e->parameters().blend, 0.5f);  // not a length
}

class TriplanarMapTest : public LibraryFixture {};

TEST_F(TriplanarMapTest, OneConstantFoldsAndThreeInputsAreThreeProjections) {
    auto map = makeSharedPtr<TriplanarMap>();
    map->set("mapX", ColorOrMap{Rgb(0.1f, 0.2f, 0.3f), {}, true}.toData());
    map->set("rotationY", 30.f);
    map->set("space", TriplanarMap::Space::WORLD);
    auto const r = map->getEvaluator();
    EXPECT_EQ(r.hasConstant, 1);
    EXPECT_EQ(r.constantColor, RgbAlpha(0.1f, 0.2f, 0.3f, 1.f));
    // Three different inputs are three projections.
    map->set("sameMapOnEveryAxis", false);
    map->set("mapZ", ColorOrMap{Rgb(1, 0, 0), {}, true}.toData());
    auto const e = map->getEvaluator().evaluator;
    EXPECT_EQ(e->evalColor(BoxContext(Pos(0, 0, 1), Dir(0, 0, 1)), nullptr), RgbAlpha(1, 0, 0, 1));
    EXPECT_EQ(e->evalColor(BoxContext(Pos(1, 0, 0), Dir(1, 0, 0)), nullptr), RgbAlpha(0.1f, 0.2f, 0.3f, 1.f));
}

} // namespace
} // namespace Quelin
