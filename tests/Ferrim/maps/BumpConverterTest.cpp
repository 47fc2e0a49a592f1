#include "Ferrim/maps/BumpConverterMap.h"

#include <cmath>
#include <functional>

#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;
using Testing::expectNear;

/// Mono = f(u, v) over the mapper's placed coordinates.
class FunctionEvaluator : public IMapEvaluator {
public:
    FunctionEvaluator(UvMapper const& mapper, std::function<float(float, float)> f) : mMapper(mapper), mF(std::move(f)) {}
    RgbAlpha evalColor(IShadeContext const& ctx, MapCache* cache) const override {
        return RgbAlpha(Rgb(evalMono(ctx, cache).value), 1.f);
    }
    MonoAlpha evalMono(IShadeContext const& ctx, MapCache*) const override {
        Pos const p = mMapper.computeUvw(ctx);
        return {mF(p.x, p.y), 1.f};
    }
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }

private:
    UvMapper const& mMapper;
    std::function<float(float, float)> mF;
};

FunctionEvaluator slopeEvaluator(UvMapper const& mapper, float a, float b, float c = 0.f) {
    return FunctionEvaluator(mapper, [=](float u, float v) { return a * u + b * v + c; });
}

void expectDirNear(Dir const& a, Dir const& b, float tolerance) { expectNear(a, b, tolerance * std::max(1.f, length(b))); }

class BumpConverterTest : public LibraryFixture {
protected:
    void SetUp() override {
        LibraryFixture::SetUp();
        ctx.uvw = Pos(0.31f, 0.62f, 0.f);
        // A deliberately non-trivial frame: u runs along x, v along -z.
        ctx.bumpBase = Matrix33::fromColumns(Dir(1, 0, 0), Dir(0, 0, -1), Dir(0, 1, 0));
    }
    SettableShadeContext ctx;
    UvMapper mapper;
};

TEST_F(BumpConverterTest, ConstantMapOrSingularPlacementHasNoBump) {
    auto const flat = slopeEvaluator(mapper, 0.f, 0.f, 0.7f);
    EXPECT_EQ(BumpConverterMap::evalBump(ctx, flat, mapper, 15.f, 0.1f), Dir(0, 0, 0));
    UvMapper singular;
    singular.set("scale", Pos(0.f, 1.f, 1.f));
    EXPECT_EQ(BumpConverterMap::evalBump(ctx, slopeEvaluator(singular, 1.f, 1.f), singular, 1.f, 1.f), Dir(0, 0, 0));
}

TEST_F(BumpConverterTest, PlacementMatchesFiniteDifferencesOverTheChannel) {
    mapper.set("scale", Pos(2.f, 0.5f, 1.f));
    mapper.set("rotation", Pos(0.f, 0.f, 0.3f));
    mapper.set("offset", Pos(0.1f, -0.2f, 0.f));
    auto const slope = slopeEvaluator(mapper, 1.5f, -0.5f);
    float const strength = 3.f, scale = 0.25f;
    Dir const bump = BumpConverterMap::evalBump(ctx, slope, mapper, strength, scale);

    // Reference: differentiate over the channel's own (u, v) and use the
    // context's tangents for those.
    float const h = 1e-2f;  // a linear map: any step is exact up to rounding
    auto mono = [&](Pos const& p) { return slope.evalMono(OverridableUvwShadeContext(ctx, p, Dir()), nullptr).value; };
    Pos const p = ctx.uvw;
    float const du = (mono(Pos(p.x + h, p.y, p.z)) - mono(Pos(p.x - h, p.y, p.z))) / (2 * h);
    float const dv = (mono(Pos(p.x, p.y + h, p.z)) - mono(Pos(p.x, p.y - h, p.z))) / (2 * h);
    Dir const expected = (ctx.bumpBase.column(0) * du + ctx.bumpBase.column(1) * dv) * (-strength * scale);
    EXPECT_GT(length(expected), 0.1f);
    expectDirNear(bump, expected, 2e-3f);
}

TEST_F(BumpConverterTest, StepFollowsTheFootprint) {
    float const period = 0.1f;
    FunctionEvaluator const sine(mapper, [=](float u, float) { return std::sin(6.2831853f * u / period); });
    float const scale = period;
    // No footprint: the derivative of the sine, 2 pi / period cos(...).
    float const slope = 6.2831853f / period * std::cos(6.2831853f * ctx.uvw.x / period);
    Dir const sharp = BumpConverterMap::evalBump(ctx, sine, mapper, 1.f, scale);
    EXPECT_NEAR(sharp.x, -scale * slope, 1e-2f * std::fabs(scale * slope) + 1e-4f);
    // A footprint of two periods: the central difference spans whole periods, so the bump fades.
    ctx.dUvw = Dir(2 * period, 2 * period, 0.f);
    Dir const blurred = BumpConverterMap::evalBump(ctx, sine, mapper, 1.f, scale);
    EXPECT_LT(std::fabs(blurred.x), 1e-2f * std::fabs(sharp.x) + 1e-3f);
}

TEST_F(BumpConverterTest, ObjectXyzModeMovesTheObjectPosition) {
    mapper.set("mappingMode", UvMappingMode::ObjectXyz);
    SettableShadeContext pctx;
    pctx.objectPosition = Pos(0.2f, -0.4f, 1.1f);
    pctx.normal = Dir(0, 0, 1);
    auto const slope = slopeEvaluator(mapper, 1.f, 0.f);
    // u grows along object x, so the bump tilts toward -x.
    expectDirNear(BumpConverterMap::evalBump(pctx, slope, mapper, 2.f, 1.f), Dir(-2.f, 0.f, 0.f), 1e-3f);
}

} // namespace
} // namespace Quelin
