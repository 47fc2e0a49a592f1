#include <gtest/gtest.h>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/IShadeContext.h"
#include "Ferrim/UvMapper.h"

using namespace Quelin;

namespace {

// Answers every operation with a value of its own, derived from the arguments
// where there are any, and records the arguments that do not show in it.
class RecordingContext : public IShadeContext {
public:
    mutable std::uint32_t lastFlags = 0;
    mutable Optional<PrecisePos> lastPoint;
    mutable Flags<ColorMappingExclude> lastExclude;
    String name = "brushed steel";

    Matrix33 getBumpBase(int c) const override { return Matrix33(1, 2, 3, 4, 5, 6, 7, 8, float(c)); }
    Pos getUvw(int c, std::uint32_t flags = 0) const override { return lastFlags = flags, Pos(0.1f, 0.2f, float(c)); }
    Dir getDUvw(int c) const override { return Dir(0.01f, 0.02f, float(c)); }
    Dir getDpDu(int c) const override { return Dir(1.5f, 0, float(c)); }
    Dir getDpDv(int c) const override { return Dir(0, 2.5f, float(c)); }
    PrecisePos getPosition() const override { return PrecisePos(1e6, -2.0, 3.5); }
    Pos getObjectPosition() const override { return Pos(4, 5, 6); }
    Dir getNormal() const override { return Dir(0, 0, 1); }
    Dir getGeometricNormal() const override { return Dir(0, 1, 0); }
    Dir getObjectNormal() const override { return Dir(1, 0, 0); }
    Dir getViewDirection() const override { return Dir(0, -1, 0); }
    float getPositionFootprint() const override { return 0.125f; }
    AffineTm getObjectToWorld() const override { return translation(0, 7.f); }
    AffineTm getWorldToCamera() const override { return translation(1, -9.f); }
    bool isBackFace() const override { return true; }
    int getFaceIndex() const override { return 42; }
    RayKind getRayKind() const override { return RayKind::Refraction; }
    ShadedKind getShadedKind() const override { return ShadedKind::Volume; }
    int getRayDepth() const override { return 3; }
    bool wantsFilteredLookup() const override { return true; }
    float getTime() const override { return 0.75f; }
    Pixel getPixel() const override { return Pixel(640, 360); }
    Vector2 unprojectPoint(Optional<PrecisePos> const& point, UnprojectPoint mode) const override {
        return lastPoint = point, mode == UnprojectPoint::Normalized ? Vector2(0.25f, 0.5f) : Vector2(320, 240);
    }
    BoundingBox<Pos> getObjectBbox() const override { return {Pos(-1, -1, -1), Pos(1, 1, 1)}; }
    Vector2 generateRandom2() const override { return Vector2(0.3f, 0.7f); }
    Pixel getImageSize() const override { return Pixel(1920, 1080); }
    BoundingBox<Pos> getSceneBbox() const override { return {Pos(-10, -10, -10), Pos(10, 10, 10)}; }
    int getObjectId() const override { return 17; }
    int getInstanceId() const override { return 23; }
    Rgb getVertexColor(int channel) const override { return Rgb(0.5f, float(channel), 0.25f); }
    Rgb colorUnMap(Rgb const& color, Flags<ColorMappingExclude> exclude) const override { return lastExclude = exclude, color * 2.f; }
    String const& getMaterialName() const override { return name; }
    Optional<UserPropertyValue> getUserProperty(StringView key) const override { return UserPropertyValue(String(key) + "!"); }
    Optional<float> traceOcclusion(PrecisePos const& o, Dir const& d, float max) const override { return float(o.x) + d.y + max; }
    Optional<SceneHit> traceNearest(PrecisePos const& o, Dir const& d, float max) const override { return SceneHit{float(o.y) + max, d, 5}; }
    Optional<ShadedTriangle> getTriangle() const override {
        return ShadedTriangle{{Pos(0, 0, 0), Pos(1, 0, 0), Pos(0, 1, 0)}, Pos(0.2f, 0.3f, 0.5f)};
    }
    Optional<float> findNearestObjectDistance(PrecisePos const& p, float maxDistance,
                                              std::span<int const> ids) const override {
        return float(p.z) + maxDistance + float(ids.size());
    }

private:
    static AffineTm translation(int axis, float d) {
        AffineTm t;
        t.m[axis][3] = d;
        return t;
    }
};

#define SAME(call) EXPECT_EQ(wrapper.call, parent.call) << #call
void expectSameAnswers(IShadeContext const& wrapper, RecordingContext const& parent, bool uvwOverridden) {
    if (!uvwOverridden) {
        SAME(getUvw(5, 0x1)); SAME(getDUvw(6)); SAME(getBumpBase(2)); SAME(getDpDu(3)); SAME(getDpDv(4));
    }
    SAME(getPosition()); SAME(getObjectPosition()); SAME(getNormal()); SAME(getGeometricNormal());
    SAME(getObjectNormal()); SAME(getViewDirection()); SAME(getPositionFootprint()); SAME(getObjectToWorld());
    SAME(getWorldToCamera()); SAME(isBackFace()); SAME(getFaceIndex()); SAME(getRayKind()); SAME(getShadedKind());
    SAME(getRayDepth()); SAME(wantsFilteredLookup()); SAME(getTime()); SAME(getPixel()); SAME(getObjectBbox());
    SAME(generateRandom2()); SAME(getImageSize()); SAME(getSceneBbox()); SAME(getObjectId()); SAME(getInstanceId());
    SAME(getVertexColor(2));
    EXPECT_EQ(&wrapper.getMaterialName(), &parent.getMaterialName());
}
#undef SAME

TEST(OverridableShadeContextTest, EveryOperationForwardsUnchanged) {
    RecordingContext parent;
    OverridableShadeContext wrapper(parent);
    expectSameAnswers(wrapper, parent, false);

    // The arguments reach the parent unchanged (channels and modes show in the answers).
    wrapper.getUvw(11, 0x1);
    EXPECT_EQ(parent.lastFlags, 0x1u);
    EXPECT_EQ(wrapper.unprojectPoint(PrecisePos(1, 2, 3), IShadeContext::UnprojectPoint::Normalized), Vector2(0.25f, 0.5f));
    EXPECT_EQ(parent.lastPoint, PrecisePos(1, 2, 3));
    EXPECT_EQ(wrapper.unprojectPoint(std::nullopt, IShadeContext::UnprojectPoint::Pixels), Vector2(320, 240));
    EXPECT_FALSE(parent.lastPoint.has_value());
    Flags<ColorMappingExclude> exclude;
    exclude.set(ColorMappingExclude::WhiteBalance).set(ColorMappingExclude::Lut);
    EXPECT_EQ(wrapper.colorUnMap(Rgb(0.1f, 0.2f, 0.3f), exclude), Rgb(0.2f, 0.4f, 0.6f));
    EXPECT_TRUE(parent.lastExclude == exclude);

    // Scene queries: every argument shows in the parent's answer.
    EXPECT_EQ(wrapper.getUserProperty("tag"), Optional<UserPropertyValue>(String("tag!")));
    EXPECT_EQ(wrapper.traceOcclusion(PrecisePos(2, 0, 0), Dir(0, 3, 0), 4.f), 9.f);
    auto const hit = wrapper.traceNearest(PrecisePos(0, 1, 0), Dir(0, 0, 1), 2.f);
    ASSERT_TRUE(hit);
    EXPECT_EQ(hit->distance, 3.f);
    EXPECT_EQ(hit->normal, Dir(0, 0, 1));
    EXPECT_EQ(hit->objectId, 5);
    ASSERT_TRUE(wrapper.getTriangle());
    EXPECT_EQ(wrapper.getTriangle()->barycentrics, Pos(0.2f, 0.3f, 0.5f));
    int const ids[] = {1, 2};
    EXPECT_EQ(wrapper.findNearestObjectDistance(PrecisePos(0, 0, 1), 1.f, ids), 4.f);
}

TEST(BlurringShadeContextTest, WidensOnlyTheFootprintAndNestsInOtherWrappers) {
    RecordingContext parent;
    BlurringShadeContext blur(parent, 2.f);
    OverridableShadeContext outer(blur);
    Dir const d = blur.getDUvw(3);
    Testing::expectNear(d, Dir(0.02f, 0.04f, 6.f), 1e-9f);
    // A wrapper around a wrapper keeps the inner one's override.
    EXPECT_EQ(outer.getDUvw(3), d);
    for (IShadeContext const* ctx : {static_cast<IShadeContext const*>(&blur), static_cast<IShadeContext const*>(&outer)}) {
        expectSameAnswers(*ctx, parent, true);
        EXPECT_EQ(ctx->getUvw(4, 0), parent.getUvw(4, 0));
        EXPECT_EQ(ctx->getBumpBase(4), parent.getBumpBase(4));
    }
}

TEST(OverridableUvwShadeContextTest, AnswersStoredCoordinatesAndFrameOnlyWhenFlagged) {
    RecordingContext parent;
    Dir const dpdu(2, 0, 0), dpdv(0.5f, 3, 0);
    OverridableUvwShadeContext ctx(parent, Pos(0.3f, 0.4f, 0.5f), Dir(0.001f, 0.002f, 0.f), dpdu, dpdv, true);
    for (int channel : {0, 1, 7}) {
        EXPECT_EQ(ctx.getUvw(channel), Pos(0.3f, 0.4f, 0.5f));
        EXPECT_EQ(ctx.getDUvw(channel), Dir(0.001f, 0.002f, 0.f));
    }
    expectSameAnswers(ctx, parent, true);
    EXPECT_EQ(ctx.getBumpBase(1), Matrix33::fromColumns(dpdu, dpdv, parent.getNormal()));
    EXPECT_EQ(ctx.getDpDv(1), dpdv);

    OverridableUvwShadeContext plain(parent, Pos(), Dir(), Dir(9, 9, 9), Dir(8, 8, 8), false);
    EXPECT_EQ(plain.getBumpBase(3), parent.getBumpBase(3));
    EXPECT_EQ(plain.getDpDu(2), parent.getDpDu(2));
    EXPECT_EQ(plain.getDpDv(2), parent.getDpDv(2));
}

} // namespace
