#pragma once
// Maps that depend on the angle between the shading normal and a direction:
// the falloff map (two inputs blended by one of several angle or distance
// measures) and the Fresnel map (the exact Fresnel reflectance).
//
// Angles: N is the shading normal and, for the viewing direction, D points
// from the point towards the viewer (minus the ray's direction); for the
// other directions D is the named axis. With c = N . D:
//   PerpendicularParallel  t = 1 - |c|          0 facing D, 1 edge-on
//   TowardsAway            t = (1 - c) / 2      0 facing D, 1 facing away
//   Fresnel                t = F(|c|, ior)      the dielectric reflectance
//   ShadowLight            t = max(c, 0)        D taken as the light direction
//   DistanceBlend          t = (d - near) / (far - near), clamped, d the
//                          distance from the camera (a step at near when
//                          far <= near or either is NaN; an infinite far
//                          keeps the front)
// then the optional curve; the result is color1 + t (color2 - color1).
#include <cmath>

#include "Ferrim/IMap.h"
#include "Ferrim/maps/CompositingSupport.h"

namespace Quelin {

/// Fresnel reflectance for unpolarised light, exact (not Schlick's approximation).
struct FERRIM_EXPORT Fresnel {
    /// The terms of one index, prepared once (see FalloffMap.cpp for the form).
    struct Dielectric {
        float eta2 = 1.f, eta2m1f = 0.f, sScale = 0.f, dA = 0.f, dB = 0.f, dMin2 = 0.f;
        double eta2m1 = 0.0;  ///< in double: near the critical angle g^2 is a small difference
        bool unit = true;  ///< eta = 1: no interface

        explicit Dielectric(float eta = 1.f) {
            if (eta == 1.f) return;
            unit = false;
            eta2 = eta * eta;
            eta2m1 = double(eta) * double(eta) - 1.0;
            eta2m1f = float(eta2m1);
            sScale = float(0.5 / (eta2m1 * eta2m1));  // the average's half folded in
            dA = eta2 * eta2 - 1.f;
            dB = float(-eta2m1);
            float const dMin = 1e-5f * (std::fabs(dA) + std::fabs(dB));
            dMin2 = dMin * dMin;
        }
        /// At the cosine c of the incidence angle, for any eta; inline, as
        /// evaluators call it per sample.
        float reflectance(float c) const {
            if (unit) return 0.f;
            return eta2m1 > 0.0 ? denser(c) : rarer(c);
        }
        /// eta > 1 only: g^2 >= eta^2 - 1 > 0, so there is neither total
        /// internal reflection nor cancellation, and float suffices.
        float denser(float c) const {
            c = clampCosine(c);
            float const c2 = c * c;
            return combine(c, c2, std::sqrt(eta2m1f + c2));
        }
        /// eta < 1 only: total internal reflection is a select, not a branch.
        float rarer(float c) const {
            c = clampCosine(c);
            float const g2 = float(eta2m1 + double(c) * double(c));
            float const f = combine(c, c * c, std::sqrt(g2 > 0.f ? g2 : 0.f));
            return g2 > 0.f ? f : 1.f;
        }

    private:
        static float clampCosine(float c) {
            c = std::fabs(c);
            return c < 1.f ? c : 1.f;  // NaN counts as head-on
        }
        float combine(float c, float c2, float g) const {
            // Near Brewster's angle d and the numerator of Rp vanish together;
            // the floor on d^2 keeps Rp there at the tiny value it has.
            float const d = dA * c2 + dB;
            float const dd = d * d;
            float const pScale = 0.5f / (dd > dMin2 ? dd : dMin2);
            float const s = c - g, p = eta2 * c - g;
            float const s2 = s * s, p2 = p * p;
            return s2 * s2 * sScale + p2 * p2 * pScale;
        }
    };

    /// A dielectric interface of relative index eta (transmitted over incident)
    /// at the cosine c of the incidence angle (clamped to [0, 1]). Total
    /// internal reflection gives 1; eta = 1 gives 0 at every angle. An
    /// infinite eta reflects everything; NaN and eta <= 0 count as 1.
    static float dielectric(float c, float eta);
    /// A conductor of complex index n + i k seen from a medium of index 1.
    static float conductor(float c, float n, float k);
};

class FERRIM_EXPORT FalloffMap : public IMap {
public:
    enum class Type : int { PerpendicularParallel = 0, TowardsAway, Fresnel, ShadowLight, DistanceBlend };
    enum class Direction : int { ViewingDirection = 0, CameraX, CameraY, ObjectX, ObjectY, ObjectZ, WorldX, WorldY, WorldZ };
    /// "color1", "color2", "falloffType", "direction", "ior", "nearDistance", "farDistance", and the curve.
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& typeType();
        static SharedPtr<TypeDefinition const> const& directionType();
    };

    FalloffMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

class FERRIM_EXPORT FalloffEvaluator : public IMapEvaluator {
public:
    FalloffEvaluator(ColorOrMap::Evaluator color1, ColorOrMap::Evaluator color2, FalloffMap::Type type,
                     FalloffMap::Direction direction, float ior, float nearDistance, float farDistance,
                     MapsDetail::AmountCurve curve);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;
    /// The weight of color2 at the point, after the curve.
    float weight(IShadeContext const& context) const;

private:
    ColorOrMap::Evaluator mColor1, mColor2;
    FalloffMap::Type mType;
    FalloffMap::Direction mDirection;
    Fresnel::Dielectric mFresnel;
    float mNear, mFar;
    MapsDetail::AmountCurve mCurve;
};

/// The Fresnel reflectance as a colour: grey for a dielectric of the given
/// IOR, per channel for a conductor's (n, k). The cosine is |N . V|; a ray
/// that hit a back face is inside, so a dielectric's index is inverted there.
class FERRIM_EXPORT FresnelMap : public IMap {
public:
    /// "ior", "conductor", "n", "k".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };
    FresnelMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

} // namespace Quelin
