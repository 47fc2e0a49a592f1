#include "Ferrim/maps/NormalMap.h"

#include <cmath>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"

namespace Quelin {

SharedPtr<TypeDefinition const> const& NormalMap::Data::spaceType() {
    static SharedPtr<TypeDefinition const> const t =
        TypeDefinition::makeEnum("Zatho.NormalMap.Space", {{0, "Tangent"}, {1, "Object"}, {2, "World"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& NormalMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addColorOrMap("normalMap", Rgb(0.5f, 0.5f, 1.f), "Normal map", "The colour (or map) read as a normal");
        b.addEnum("space", spaceType(), int(Space::Tangent), "Space", "The space the normals are given in");
        b.addFloat("strength", 1.f, "Strength", "0 keeps the surface normal, 1 takes the map's normal")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 10.f));
        b.addBool("flipRed", false, "Flip red", "Negate the X component");
        b.addBool("flipGreen", false, "Flip green", "Negate the Y component (for maps made with Y down)");
        b.addMap("bumpMap", "Bump map", "A map whose bump is added on top of the normal map");
        b.addBool("bumpMapOn", true, "Bump map on", "Whether the bump map applies");
        b.addFloat("bumpStrength", 1.f, "Bump strength", "Multiplies the bump map's perturbation");
        return b.build("Zatho.NormalMap");
    }();
    return d;
}

NormalMap::NormalMap() : IMap(Data::definition()) {}
SharedPtr<Entity> NormalMap::createNewInstance() const { return makeSharedPtr<NormalMap>(); }

IMap::OptimizedResult NormalMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    GenericDataObject const& d = getData();
    SharedPtr<IMapEvaluator> bump;
    float bumpStrength = d.get<float>("bumpStrength");
    if (!std::isfinite(bumpStrength)) bumpStrength = 0.f;
    if (auto const map = d.get<EntityHolder<IMap>>("bumpMap"); map && d.get<bool>("bumpMapOn") && bumpStrength != 0.f) {
        OptimizedResult r = map->getEvaluator();
        if (!r.hasConstant) bump = std::move(r.evaluator);  // a constant has no bump
    }
    float strength = d.get<float>("strength");
    if (!std::isfinite(strength)) strength = 0.f;
    OptimizedResult r;
    r.evaluator = makeSharedPtr<NormalMapEvaluator>(MapsDetail::colorOrMapEvaluator(d, "normalMap"), d.get<Space>("space"),
                                                    strength, d.get<bool>("flipRed"), d.get<bool>("flipGreen"),
                                                    std::move(bump), bumpStrength, deduceUvChannelFromGraph());
    return r;
}

NormalMapEvaluator::NormalMapEvaluator(ColorOrMap::Evaluator normal, NormalMap::Space space, float strength,
                                       bool flipRed, bool flipGreen, SharedPtr<IMapEvaluator> bump, float bumpStrength,
                                       int uvChannel)
    : mNormal(std::move(normal)), mSpace(space), mStrength(strength), mRedSign(flipRed ? -1.f : 1.f),
      mGreenSign(flipGreen ? -1.f : 1.f), mBump(std::move(bump)), mBumpStrength(bumpStrength), mUvChannel(uvChannel) {}

RgbAlpha NormalMapEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    return mNormal.evalColor(context, cache);
}

MonoAlpha NormalMapEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    return mNormal.evalMono(context, cache);
}

Dir NormalMapEvaluator::perturbedNormal(IShadeContext const& context, MapCache* cache) const {
    Dir const n0 = normalize(context.getNormal());
    Rgb const c = mNormal.evalColor(context, cache).rgb();
    Dir const t(mRedSign * (2.f * c.r - 1.f), mGreenSign * (2.f * c.g - 1.f), 2.f * c.b - 1.f);
    Dir mapped;
    switch (mSpace) {
    case NormalMap::Space::Tangent: {
        Matrix33 const frame = context.getBumpBase(mUvChannel);
        Dir const dpdu = frame.column(0);
        Dir tangent = normalize(dpdu - n0 * dot(dpdu, n0));
        if (dot(tangent, tangent) == 0.f) tangent = normalize(std::fabs(n0.x) < 0.9f ? cross(n0, Dir(1, 0, 0)) : cross(n0, Dir(0, 1, 0)));
        Dir bitangent = cross(n0, tangent);
        if (dot(bitangent, frame.column(1)) < 0.f) bitangent = -bitangent;
        mapped = tangent * t.x + bitangent * t.y + n0 * t.z;
        break;
    }
    case NormalMap::Space::Object:
        mapped = context.getObjectToWorld().linear().inverse().transposed() * t;
        break;
    case NormalMap::Space::World: mapped = t; break;
    }
    Dir const blended = normalize(n0 + (normalize(mapped) - n0) * mStrength);
    // A NaN colour or a normal that cancels out leaves the surface as it is.
    return std::isfinite(blended.x + blended.y + blended.z) && dot(blended, blended) > 0.f ? blended : n0;
}

Dir NormalMapEvaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    Dir bump = perturbedNormal(context, cache) - normalize(context.getNormal());
    if (mBump) bump += mBump->evalBump(context, cache) * mBumpStrength;
    return bump;
}

FERRIM_REGISTER_ENTITY(NormalMap);

} // namespace Quelin
