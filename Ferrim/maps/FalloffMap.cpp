#include "Ferrim/maps/FalloffMap.h"

#include <cmath>
#include <limits>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"

namespace Quelin {

// --------------------------------------------------------------- Fresnel

// The unpolarised dielectric reflectance F = (Rs + Rp) / 2 from the Fresnel
// amplitude equations with Snell's law, for relative index eta and cosine c:
//   g = sqrt(eta^2 - 1 + c^2)           (eta times the refracted cosine)
//   Rs = ((c - g) / (c + g))^2,  Rp = ((eta^2 c - g) / (eta^2 c + g))^2
// Multiplying out the denominators, (c + g)(c - g) = 1 - eta^2 and
// (eta^2 c + g)(eta^2 c - g) = (eta^4 - 1) c^2 + 1 - eta^2 =: d, so
//   Rs = (c - g)^4 / (1 - eta^2)^2,  Rp = (eta^2 c - g)^4 / d^2,
// and the one division (by d^2) does not wait for the root. Near Brewster's
// angle d and the numerator of Rp vanish together; where d is within the
// rounding of its own terms, d^2 is floored there, and Rp stays below 1e-8.

float Fresnel::dielectric(float c, float eta) {
    if (eta == std::numeric_limits<float>::infinity()) return 1.f;
    return Dielectric(std::isfinite(eta) && eta > 0.f ? eta : 1.f).reflectance(c);
}

// The conductor reflectance from the complex index, as in Pharr, Jakob and
// Humphreys, "Physically Based Rendering" (3rd ed.), section 8.2.1, evaluated
// in double precision: the terms cancel near grazing incidence.
float Fresnel::conductor(float cf, float nf, float kf) {
    double const c = clamp(double(std::fabs(cf)), 0.0, 1.0), n = nf, k = kf;
    double const c2 = c * c, s2 = 1.0 - c2;
    double const t0 = n * n - k * k - s2;
    double const a2b2 = std::sqrt(t0 * t0 + 4.0 * n * n * k * k);
    double const a = std::sqrt(std::max(0.5 * (a2b2 + t0), 0.0));
    double const t1 = a2b2 + c2, t2 = 2.0 * a * c;
    double const rs = (t1 - t2) / (t1 + t2);
    double const t3 = c2 * a2b2 + s2 * s2, t4 = t2 * s2;
    double const rp = rs * (t3 - t4) / (t3 + t4);
    double const f = 0.5 * (rs + rp);
    return std::isfinite(f) ? float(f) : 1.f;
}

namespace {

/// An IOR as the maps use it: NaN, infinities and values not above 0 count as 1 (no interface).
float sanitizeIor(float ior) { return std::isfinite(ior) && ior > 0.f ? ior : 1.f; }

} // namespace

// ----------------------------------------------------------- FalloffMap

SharedPtr<TypeDefinition const> const& FalloffMap::Data::typeType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.FalloffMap.Type",
        {{0, "PerpendicularParallel"}, {1, "TowardsAway"}, {2, "Fresnel"}, {3, "ShadowLight"}, {4, "DistanceBlend"}});
    return t;
}

SharedPtr<TypeDefinition const> const& FalloffMap::Data::directionType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.FalloffMap.Direction", {{0, "ViewingDirection"}, {1, "CameraX"}, {2, "CameraY"}, {3, "ObjectX"},
                                       {4, "ObjectY"}, {5, "ObjectZ"}, {6, "WorldX"}, {7, "WorldY"}, {8, "WorldZ"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& FalloffMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addColorOrMap("color1", Rgb(0, 0, 0), "Front", "Shown where the falloff is 0 (facing the direction)");
        b.addColorOrMap("color2", Rgb(1, 1, 1), "Side", "Shown where the falloff is 1 (edge-on or away)");
        b.addEnum("falloffType", typeType(), int(Type::PerpendicularParallel), "Falloff type",
                  "The measure that blends front into side");
        b.addEnum("direction", directionType(), int(Direction::ViewingDirection), "Direction",
                  "The direction the normal is compared with");
        b.addFloat("ior", 1.6f, "IOR", "Index of refraction of the Fresnel type")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.01f, 100.f));
        b.addFloat("nearDistance", 0.f, "Near distance", "Distance from the camera where the distance blend starts");
        b.addFloat("farDistance", 100.f, "Far distance", "Distance from the camera where the distance blend ends");
        MapsDetail::addAmountCurve(b, "falloff");
        return b.build("Zatho.FalloffMap");
    }();
    return d;
}

FalloffMap::FalloffMap() : IMap(Data::definition()) {}

SharedPtr<Entity> FalloffMap::createNewInstance() const { return makeSharedPtr<FalloffMap>(); }

IMap::OptimizedResult FalloffMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    GenericDataObject const& d = getData();
    auto color1 = MapsDetail::colorOrMapEvaluator(d, "color1");
    auto color2 = MapsDetail::colorOrMapEvaluator(d, "color2");
    if (MapsDetail::sameConstant(color1, color2)) return MapsDetail::passThrough(color1);
    OptimizedResult r;
    r.evaluator = makeSharedPtr<FalloffEvaluator>(std::move(color1), std::move(color2), d.get<Type>("falloffType"),
                                                  d.get<Direction>("direction"), sanitizeIor(d.get<float>("ior")),
                                                  d.get<float>("nearDistance"), d.get<float>("farDistance"),
                                                  MapsDetail::readAmountCurve(d));
    return r;
}

FalloffEvaluator::FalloffEvaluator(ColorOrMap::Evaluator color1, ColorOrMap::Evaluator color2, FalloffMap::Type type,
                                   FalloffMap::Direction direction, float ior, float nearDistance, float farDistance,
                                   MapsDetail::AmountCurve curve)
    : mColor1(std::move(color1)), mColor2(std::move(color2)), mType(type), mDirection(direction), mFresnel(ior),
      mNear(nearDistance), mFar(farDistance), mCurve(curve) {}

float FalloffEvaluator::weight(IShadeContext const& context) const {
    using Direction = FalloffMap::Direction;
    float t = 0.f;
    if (mType == FalloffMap::Type::DistanceBlend) {
        PrecisePos const p = context.getPosition();
        Dir const eye = context.getWorldToCamera().inverse().translation();
        float const d = length(Dir(float(p.x - double(eye.x)), float(p.y - double(eye.y)), float(p.z - double(eye.z))));
        if (!(mFar > mNear)) return mCurve.apply(d < mNear ? 0.f : 1.f);
        return mCurve.apply((d - mNear) / (mFar - mNear));
    }
    Dir axis;
    switch (mDirection) {
    case Direction::ViewingDirection: axis = -context.getViewDirection(); break;
    case Direction::CameraX: axis = context.getWorldToCamera().linear().row(0); break;
    case Direction::CameraY: axis = context.getWorldToCamera().linear().row(1); break;
    case Direction::ObjectX: axis = context.getObjectToWorld().linear().column(0); break;
    case Direction::ObjectY: axis = context.getObjectToWorld().linear().column(1); break;
    case Direction::ObjectZ: axis = context.getObjectToWorld().linear().column(2); break;
    case Direction::WorldX: axis = Dir(1, 0, 0); break;
    case Direction::WorldY: axis = Dir(0, 1, 0); break;
    case Direction::WorldZ: axis = Dir(0, 0, 1); break;
    }
    float const c = clamp(dot(normalize(context.getNormal()), normalize(axis)), -1.f, 1.f);
    switch (mType) {
    case FalloffMap::Type::PerpendicularParallel: t = 1.f - std::fabs(c); break;
    case FalloffMap::Type::TowardsAway: t = 0.5f * (1.f - c); break;
    case FalloffMap::Type::Fresnel: t = mFresnel.reflectance(c); break;
    case FalloffMap::Type::ShadowLight: t = std::max(c, 0.f); break;
    case FalloffMap::Type::DistanceBlend: break;
    }
    return mCurve.apply(t);
}

RgbAlpha FalloffEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    float const t = weight(context);
    return MapsDetail::mix(mColor1.evalColor(context, cache), mColor2.evalColor(context, cache), t);
}

MonoAlpha FalloffEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    float const t = weight(context);
    return MapsDetail::mix(mColor1.evalMono(context, cache), mColor2.evalMono(context, cache), t);
}

Dir FalloffEvaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    float const t = weight(context);
    return MapsDetail::mix(mColor1.evalBump(context, cache), mColor2.evalBump(context, cache), t);
}

FERRIM_REGISTER_ENTITY(FalloffMap);

// ----------------------------------------------------------- FresnelMap

namespace {

/// A dielectric's reflectance; which side is the denser one is fixed when the
/// evaluator is built, so each face runs its own specialised formula.
template <bool OUTSIDE_DENSER> class DielectricFresnelEvaluator final : public IMapEvaluator {
public:
    explicit DielectricFresnelEvaluator(float ior) : mOutside(ior), mInside(1.f / ior) {}
    // The context's three calls made plainly: guessing its type at each one
    // (a chain of compares through wrapping contexts) costs more than it saves.
    [[gnu::optimize("no-devirtualize-speculatively")]] RgbAlpha evalColor(IShadeContext const& context, MapCache*) const override {
        float const f = at(context);
        return {f, f, f, 1.f};
    }
    [[gnu::optimize("no-devirtualize-speculatively")]] MonoAlpha evalMono(IShadeContext const& context, MapCache*) const override {
        return MapsDetail::opaqueMono(at(context));
    }
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }

private:
    [[gnu::always_inline]] float at(IShadeContext const& context) const {
        // The face is asked first: the cosine is then formed after the last
        // call and goes straight into the formula, rather than waiting in
        // memory across a call on the result's critical path.
        bool const back = context.isBackFace();
        Dir const normal = context.getNormal();
        float const c = dot(normal, context.getViewDirection());
        // A ray that hit a back face comes from inside.
        if (back) return OUTSIDE_DENSER ? mInside.rarer(c) : mInside.denser(c);
        return OUTSIDE_DENSER ? mOutside.denser(c) : mOutside.rarer(c);
    }
    Fresnel::Dielectric mOutside, mInside;
};

/// A conductor's reflectance per channel of its (n, k).
class ConductorFresnelEvaluator final : public IMapEvaluator {
public:
    ConductorFresnelEvaluator(Rgb n, Rgb k) : mN(n), mK(k) {}
    RgbAlpha evalColor(IShadeContext const& context, MapCache*) const override {
        float const c = dot(context.getNormal(), context.getViewDirection());
        return {Fresnel::conductor(c, mN.r, mK.r), Fresnel::conductor(c, mN.g, mK.g), Fresnel::conductor(c, mN.b, mK.b), 1.f};
    }
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override {
        return {evalColor(context, cache).rgb().mean(), 1.f};
    }
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(); }

private:
    Rgb mN, mK;
};

} // namespace

SharedPtr<DataObjectDefinition const> const& FresnelMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addFloat("ior", 1.5f, "IOR", "Index of refraction of a dielectric")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.01f, 100.f));
        b.addBool("conductor", false, "Conductor", "Use the complex index (n, k) of a metal instead of the IOR");
        auto const metal = MetadataPredicate{"conductor", [](GenericDataObject const& d) { return d.get<bool>("conductor"); }};
        // Gold at the red, green and blue primaries' wavelengths.
        b.addColor("n", Rgb(0.183f, 0.421f, 1.373f), "n", "Real part of the metal's index, per channel")
            .setMetadata(Metadata::UI_ENABLED_IF, metal);
        b.addColor("k", Rgb(3.424f, 2.346f, 1.770f), "k", "Extinction coefficient of the metal, per channel")
            .setMetadata(Metadata::UI_ENABLED_IF, metal);
        return b.build("Zatho.FresnelMap");
    }();
    return d;
}

FresnelMap::FresnelMap() : IMap(Data::definition()) {}

SharedPtr<Entity> FresnelMap::createNewInstance() const { return makeSharedPtr<FresnelMap>(); }

IMap::OptimizedResult FresnelMap::getEvaluatorImpl() const {
    float const ior = sanitizeIor(get<float>("ior"));
    bool const conductor = get<bool>("conductor");
    if (!conductor && ior == 1.f) return makeConstantResult(RgbAlpha(0.f, 0.f, 0.f, 1.f));
    // A NaN or infinite (n, k) channel reflects everything, as the formula's limit for huge k does.
    auto const finite = [](Rgb c) {
        for (int i = 0; i < 3; ++i) if (!std::isfinite(c[i])) c[i] = 1e6f;
        return c;
    };
    OptimizedResult r;
    if (conductor)
        r.evaluator = makeSharedPtr<ConductorFresnelEvaluator>(finite(get<Rgb>("n")), finite(get<Rgb>("k")));
    else if (ior > 1.f)
        r.evaluator = makeSharedPtr<DielectricFresnelEvaluator<true>>(ior);
    else
        r.evaluator = makeSharedPtr<DielectricFresnelEvaluator<false>>(ior);
    return r;
}

FERRIM_REGISTER_ENTITY(FresnelMap);

} // namespace Quelin
