#include "Ferrim/maps/FalloffMap.h"

#include <complex>

#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

/// Unpolarised reflectance from the Fresnel amplitude equations with Snell's
/// law, in complex double arithmetic (a real index for a dielectric).
double reflectanceAtCosine(double ci, std::complex<double> eta) {
    double const si2 = 1.0 - ci * ci;
    std::complex<double> const ct = std::sqrt(1.0 - si2 / (eta * eta));
    std::complex<double> const rs = (ci - eta * ct) / (ci + eta * ct);
    std::complex<double> const rp = (eta * ci - ct) / (eta * ci + ct);
    return 0.5 * (std::norm(rs) + std::norm(rp));
}

double referenceReflectance(double degrees, std::complex<double> eta) {
    return reflectanceAtCosine(std::cos(degrees * 3.14159265358979323846 / 180.0), eta);
}

class FalloffMapTest : public LibraryFixture {};

/// A point whose shading normal is `degrees` away from the view direction's reverse.
SettableShadeContext pointAt(float degrees) {
    SettableShadeContext p;
    p.normal = Dir(std::sin(degrees * PI / 180.f), 0.f, std::cos(degrees * PI / 180.f));
    p.view = Dir(0, 0, -1);
    return p;
}

struct BackFace : SettableShadeContext {
    bool isBackFace() const override { return true; }
};

TEST_F(FalloffMapTest, EachTypeAtKnownAngles) {
    using T = FalloffMap::Type;
    struct Case { T type; float degrees, weight; };
    for (Case const c : {Case{T::PerpendicularParallel, 0.f, 0.f}, Case{T::PerpendicularParallel, 60.f, 0.5f},
                         Case{T::PerpendicularParallel, 90.f, 1.f}, Case{T::PerpendicularParallel, 120.f, 0.5f},
                         Case{T::TowardsAway, 0.f, 0.f}, Case{T::TowardsAway, 90.f, 0.5f}, Case{T::TowardsAway, 180.f, 1.f},
                         Case{T::Fresnel, 45.f, float(referenceReflectance(45.0, 1.6))},
                         Case{T::ShadowLight, 60.f, 0.5f}, Case{T::ShadowLight, 150.f, 0.f}}) {
        FalloffMap map;
        map.set("falloffType", c.type);
        auto const r = map.getEvaluator();
        ASSERT_FALSE(r.hasConstant);
        EXPECT_NEAR(r.evaluator->evalColor(pointAt(c.degrees), nullptr).r, c.weight, 1e-5f) << int(c.type) << " at " << c.degrees;
    }
}

TEST_F(FalloffMapTest, WorldAxesDistanceBlendAndTheCurve) {
    FalloffMap map;
    map.set("direction", FalloffMap::Direction::WorldX);
    SettableShadeContext p;
    p.normal = Dir(1, 0, 0);  // parallel to world X: front
    EXPECT_NEAR(map.getEvaluator().evaluator->evalColor(p, nullptr).r, 0.f, 1e-6f);
    p.normal = Dir(0, 0, 1);
    EXPECT_NEAR(map.getEvaluator().evaluator->evalColor(p, nullptr).r, 1.f, 1e-6f);

    map.set("falloffType", FalloffMap::Type::DistanceBlend);
    map.set("nearDistance", 10.f), map.set("farDistance", 20.f);
    p.position = PrecisePos(0, 0, 15);  // the camera sits at the origin
    EXPECT_NEAR(map.getEvaluator().evaluator->evalColor(p, nullptr).r, 0.5f, 1e-6f);
    map.set("useCurve", true), map.set("curveLower", 0.f), map.set("curveUpper", 0.8f);
    EXPECT_NEAR(map.getEvaluator().evaluator->evalColor(p, nullptr).r, 0.68359375f, 1e-6f);  // x = 0.625
    map.set("farDistance", 5.f);  // far before near: a step at near
    EXPECT_EQ(map.getEvaluator().evaluator->evalColor(p, nullptr).r, 1.f);
}

TEST_F(FalloffMapTest, EqualConstantInputsFoldAndBumpBlends) {
    FalloffMap map;
    setInputColor(map, "color2", Rgb(0, 0, 0));
    EXPECT_TRUE(map.getEvaluator().hasConstant);
    setInputMap(map, "color2", makeSharedPtr<CountingMap>(RgbAlpha(1, 1, 1, 1)));
    Testing::expectNear(map.getEvaluator().evaluator->evalBump(pointAt(60.f), nullptr), Dir(0.5f, 1.f, 1.5f), 1e-5f);
}

TEST_F(FalloffMapTest, FresnelMapMatchesTheEquationsOnBothFacesAndPerChannelForMetals) {
    // Every degree, across Brewster's angle and (inside) the critical angle.
    for (float ior : {1.5f, 2.4f, 0.7f}) {
        FresnelMap map;
        map.set("ior", ior);
        auto const e = map.getEvaluator().evaluator;
        for (int degrees = 0; degrees < 90; ++degrees) {
            SettableShadeContext const front = pointAt(float(degrees));
            BackFace back;
            back.normal = front.normal;
            float const c = dot(front.normal, -front.view);
            EXPECT_NEAR(e->evalMono(front, nullptr).value, reflectanceAtCosine(c, ior), 1e-6) << ior << " " << degrees;
            EXPECT_NEAR(e->evalColor(back, nullptr).g, reflectanceAtCosine(c, 1.0 / double(ior)), 1e-6) << ior << " " << degrees;
        }
    }
    // Metals: a complex index per channel.
    FresnelMap map;
    map.set("conductor", true);
    map.set("n", Rgb(0.18299f, 0.42415f, 1.3734f));
    map.set("k", Rgb(3.4242f, 2.3459f, 1.7704f));
    for (float degrees : {0.f, 45.f, 89.9f}) {
        SettableShadeContext const p = pointAt(degrees);
        float const c = dot(p.normal, -p.view);
        RgbAlpha const gold = map.getEvaluator().evaluator->evalColor(p, nullptr);
        EXPECT_NEAR(gold.r, reflectanceAtCosine(c, {0.18299, 3.4242}), 1e-6) << degrees;
        EXPECT_NEAR(gold.b, reflectanceAtCosine(c, {1.3734, 1.7704}), 1e-6) << degrees;
        EXPECT_GT(gold.r, gold.b);  // gold is yellow
    }
    map.set("conductor", false);
    map.set("ior", 1.f);
    EXPECT_TRUE(map.getEvaluator().hasConstant);
}

TEST_F(FalloffMapTest, NonFiniteSettingsHaveTheirStatedResults) {
    float const nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    FalloffMap map;
    map.set("falloffType", FalloffMap::Type::DistanceBlend);
    SettableShadeContext p;
    p.position = PrecisePos(0, 0, 15);
    map.set("farDistance", nan);  // a step at near (0): the side
    EXPECT_EQ(map.getEvaluator().evaluator->evalColor(p, nullptr).r, 1.f);
    map.set("farDistance", inf);  // never reached: the front
    EXPECT_EQ(map.getEvaluator().evaluator->evalColor(p, nullptr).r, 0.f);
    EXPECT_EQ(Fresnel::dielectric(0.5f, inf), 1.f);
    EXPECT_EQ(Fresnel::dielectric(0.5f, nan), 0.f);
    EXPECT_EQ(Fresnel::dielectric(0.5f, -2.f), 0.f);
    EXPECT_EQ(Fresnel::dielectric(0.f, 1.5f), 1.f);  // grazing
    EXPECT_NEAR(Fresnel::dielectric(nan, 1.5f), 0.04f, 1e-6f);  // a NaN cosine counts as head-on
    EXPECT_FALSE(map.setValue("ior", nan).has_value());  // refused, the record keeps its IOR
    EXPECT_EQ(map.get<float>("ior"), 1.6f);
    FresnelMap fresnel;
    fresnel.set("conductor", true);
    fresnel.set("k", Rgb(nan, inf, 2.f));  // unknown extinction: reflects everything
    RgbAlpha const f = fresnel.getEvaluator().evaluator->evalColor(p, nullptr);
    EXPECT_NEAR(f.r, 1.f, 1e-5f);
    EXPECT_NEAR(f.g, 1.f, 1e-5f);
    EXPECT_LT(f.b, 1.f);
}

} // namespace
} // namespace Quelin
