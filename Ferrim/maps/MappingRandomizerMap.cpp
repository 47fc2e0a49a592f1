#include "Ferrim/maps/MappingRandomizerMap.h"

#include <cmath>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"

namespace Quelin {

namespace {

/// A well-mixed 32-bit hash (the "lowbias32" integer hash by C. Wellons).
inline std::uint32_t mix32(std::uint32_t x) {
    x ^= x >> 16;
    x *= 0x7feb352du;
    x ^= x >> 15;
    x *= 0x846ca68bu;
    x ^= x >> 16;
    return x;
}

/// A uniform number in [0, 1) from a hash.
inline float unit(std::uint32_t h) { return float(h >> 8) * 0x1p-24f; }

/// A tile index as an int: NaN and huge coordinates count as tile 0.
inline int tileOf(float x) {
    float const f = std::floor(x);
    return std::fabs(f) < 2e9f ? int(f) : 0;
}

} // namespace

SharedPtr<TypeDefinition const> const& MappingRandomizerMap::Data::randomByType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.MappingRandomizerMap.RandomBy", {{0, "ObjectId"}, {1, "InstanceId"}, {2, "FaceIndex"}, {3, "None"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& MappingRandomizerMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addMap("map", "Map", "The map fed with the changed coordinates");
        b.addInt("uvChannel", 1, "UV channel", "The channel whose coordinates are changed (and tiled)");
        b.addEnum("randomBy", randomByType(), int(RandomBy::ObjectId), "Random by",
                  "What gets its own random change: each object, instance or face, or one change for all");
        b.addInt("seed", 0, "Seed", "Another seed gives other random changes");
        b.addBool("perTile", false, "Per tile", "Give every UV tile its own change as well");
        b.addFloat("offsetU", 0.f, "Offset U", "Largest random shift along U")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1e6f));
        b.addFloat("offsetV", 0.f, "Offset V", "Largest random shift along V")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1e6f));
        b.addFloat("rotation", 0.f, "Rotation", "Largest random rotation, degrees either way")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 180.f));
        b.addFloat("scaleMin", 1.f, "Scale min", "Smallest random scale of the coordinates")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(1e-3f, 1e3f));
        b.addFloat("scaleMax", 1.f, "Scale max", "Largest random scale of the coordinates")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(1e-3f, 1e3f));
        b.addBool("flipU", false, "Flip U", "Mirror U at random");
        b.addBool("flipV", false, "Flip V", "Mirror V at random");
        return b.build("Zatho.MappingRandomizerMap");
    }();
    return d;
}

MappingRandomizerMap::MappingRandomizerMap() : IMap(Data::definition()) {}
SharedPtr<Entity> MappingRandomizerMap::createNewInstance() const { return makeSharedPtr<MappingRandomizerMap>(); }

IMap::OptimizedResult MappingRandomizerMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    auto const map = get<EntityHolder<IMap>>("map");
    if (!map) return makeConstantResult(RgbAlpha(0.f, 0.f, 0.f, 1.f));
    OptimizedResult input = map->getEvaluator();
    MappingRandomizerEvaluator::Settings s;
    s.randomBy = get<RandomBy>("randomBy");
    s.seed = std::uint32_t(get<int>("seed"));
    s.perTile = get<bool>("perTile");
    s.offsetU = get<float>("offsetU");
    s.offsetV = get<float>("offsetV");
    s.rotation = get<float>("rotation") * (PI / 180.f);
    s.scaleMin = get<float>("scaleMin");
    s.scaleMax = get<float>("scaleMax");
    s.flipU = get<bool>("flipU");
    s.flipV = get<bool>("flipV");
    s.uvChannel = get<int>("uvChannel");
    bool const identity = s.offsetU == 0.f && s.offsetV == 0.f && s.rotation == 0.f && s.scaleMin == 1.f &&
                          s.scaleMax == 1.f && !s.flipU && !s.flipV;
    // Nothing to change, or an input that does not look at the coordinates.
    if (identity || input.hasConstant) return input;
    OptimizedResult r;
    r.evaluator = makeSharedPtr<MappingRandomizerEvaluator>(std::move(input.evaluator), s);
    return r;
}

MappingRandomizerEvaluator::MappingRandomizerEvaluator(SharedPtr<IMapEvaluator> input, Settings const& settings)
    : mInput(std::move(input)), mSettings(settings) {}

MappingRandomizerMap::Change MappingRandomizerEvaluator::changeFor(std::uint32_t id, int tileU, int tileV) const {
    std::uint32_t h = mix32(id ^ mix32(mSettings.seed + 0x9e3779b9u));
    if (mSettings.perTile) h = mix32(h ^ mix32(std::uint32_t(tileU) * 0x85ebca6bu ^ std::uint32_t(tileV) * 0xc2b2ae35u));
    std::uint32_t const h1 = mix32(h + 1u), h2 = mix32(h + 2u), h3 = mix32(h + 3u), h4 = mix32(h + 4u), h5 = mix32(h + 5u);
    float const angle = mSettings.rotation * (2.f * unit(h1) - 1.f);
    float const scale = mSettings.scaleMin + (mSettings.scaleMax - mSettings.scaleMin) * unit(h2);
    float const fu = mSettings.flipU && (h3 & 1u) ? -1.f : 1.f;
    float const fv = mSettings.flipV && (h3 & 2u) ? -1.f : 1.f;
    float const c = std::cos(angle) * scale, s = std::sin(angle) * scale;
    // R S F: columns of the rotation times the scale, each flipped by its axis.
    return {c * fu, -s * fv, s * fu, c * fv, mSettings.offsetU * (2.f * unit(h4) - 1.f),
            mSettings.offsetV * (2.f * unit(h5) - 1.f)};
}

template <typename F> auto MappingRandomizerEvaluator::withChangedUvw(IShadeContext const& context, F const& f) const {
    int const channel = mSettings.uvChannel;
    Pos const uvw = context.getUvw(channel);
    std::uint32_t id = 0;
    switch (mSettings.randomBy) {
    case MappingRandomizerMap::RandomBy::ObjectId: id = std::uint32_t(context.getObjectId()); break;
    case MappingRandomizerMap::RandomBy::InstanceId: id = std::uint32_t(context.getInstanceId()); break;
    case MappingRandomizerMap::RandomBy::FaceIndex: id = std::uint32_t(context.getFaceIndex()); break;
    case MappingRandomizerMap::RandomBy::None: break;
    }
    int const tu = mSettings.perTile ? tileOf(uvw.x) : 0, tv = mSettings.perTile ? tileOf(uvw.y) : 0;
    MappingRandomizerMap::Change const m = changeFor(id, tu, tv);
    float const cu = float(tu) + 0.5f, cv = float(tv) + 0.5f;
    float const du = uvw.x - cu, dv = uvw.y - cv;
    Pos const changed(cu + m.m00 * du + m.m01 * dv + m.offsetU, cv + m.m10 * du + m.m11 * dv + m.offsetV, uvw.z);
    Dir const fp = context.getDUvw(channel);
    Dir const footprint(std::fabs(m.m00) * fp.x + std::fabs(m.m01) * fp.y, std::fabs(m.m10) * fp.x + std::fabs(m.m11) * fp.y, fp.z);
    // dP/du' = dP/du (M^-1)_00 + dP/dv (M^-1)_10, and the same for v'.
    float const det = m.m00 * m.m11 - m.m01 * m.m10;
    float const inv = det != 0.f ? 1.f / det : 0.f;
    Dir const dpdu = context.getDpDu(channel), dpdv = context.getDpDv(channel);
    Dir const dpdu2 = dpdu * (m.m11 * inv) + dpdv * (-m.m10 * inv);
    Dir const dpdv2 = dpdu * (-m.m01 * inv) + dpdv * (m.m00 * inv);
    OverridableUvwShadeContext const changedContext(context, changed, footprint, dpdu2, dpdv2, true);
    return f(changedContext);
}

RgbAlpha MappingRandomizerEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    return withChangedUvw(context, [&](IShadeContext const& c) { return mInput->evalColor(c, cache); });
}

MonoAlpha MappingRandomizerEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    return withChangedUvw(context, [&](IShadeContext const& c) { return mInput->evalMono(c, cache); });
}

Dir MappingRandomizerEvaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    return withChangedUvw(context, [&](IShadeContext const& c) { return mInput->evalBump(c, cache); });
}

FERRIM_REGISTER_ENTITY(MappingRandomizerMap);

} // namespace Quelin
