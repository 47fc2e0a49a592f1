#include "Ferrim/maps/TriplanarMap.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/UnitScaler.h"
#include "Ferrim/UvMapper.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

namespace {

using Space = TriplanarMap::Space;

constexpr float DEGREES = 3.14159265358979f / 180.f;
char const* const AXIS_NAMES[3] = {"X", "Y", "Z"};

/// A well-mixed 32-bit hash (the finaliser of MurmurHash3).
std::uint32_t mix32(std::uint32_t h) {
    h ^= h >> 16;
    h *= 0x85EBCA6Bu;
    h ^= h >> 13;
    h *= 0xC2B2AE35u;
    h ^= h >> 16;
    return h;
}

float finiteOr(float v, float fallback) { return std::isfinite(v) ? v : fallback; }

SharedPtr<DataObjectDefinition const> buildDefinition() {
    ShadingDataObjectBuilder b;
    b.addColorOrMap("mapX", Rgb(0.5f, 0.5f, 0.5f), "X map", "Colour (or map) projected along the X axis");
    MetadataPredicate const ownMaps{"sameMapOnEveryAxis == false", [](GenericDataObject const& data) {
                                        return !data.get<bool>("sameMapOnEveryAxis");
                                    }};
    b.addColorOrMap("mapY", Rgb(0.5f, 0.5f, 0.5f), "Y map", "Colour (or map) projected along the Y axis")
        .setMetadata(Metadata::UI_ENABLED_IF, ownMaps);
    b.addColorOrMap("mapZ", Rgb(0.5f, 0.5f, 0.5f), "Z map", "Colour (or map) projected along the Z axis")
        .setMetadata(Metadata::UI_ENABLED_IF, ownMaps);
    b.addBool("sameMapOnEveryAxis", true, "Same map on every axis", "Project the X map along all three axes");
    b.addEnum("space", TriplanarMap::Data::spaceType(), int(Space::OBJECT), "Space",
              "OBJECT: the projection moves with the object; WORLD: the object moves through it");
    b.addFloat("size", 1.f, "Size", "Scene length of one repeat of the projected maps")
        .addValidator(makeSharedPtr<MinimumValueValidator<float>>(1e-6f));
    b.addFloat("blend", 0.2f, "Blend", "Width of the transition between projections: 0 hard seams, 1 the widest")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
    for (int a = 0; a < 3; ++a) {
        String const axis = AXIS_NAMES[a];
        b.addVector2("offset" + axis, Vector2(0.f, 0.f), axis + " offset", "Shift of this projection in scene units");
        b.addFloat("rotation" + axis, 0.f, axis + " rotation", "Rotation of this projection in its plane, in degrees")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(-3600.f, 3600.f));
        b.addFloat("scale" + axis, 1.f, axis + " scale", "Size factor of this projection")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(1e-4f, 1e4f));
    }
    b.addBool("randomRotation", false, "Random rotation", "Turn the projections by an angle drawn per object");
    b.addInt("seed", 0, "Seed", "Varies the random angles");
    return b.build("Zatho.TriplanarMap");
}

} // namespace

SharedPtr<TypeDefinition const> const& TriplanarMap::Data::spaceType() {
    static SharedPtr<TypeDefinition const> const t =
        TypeDefinition::makeEnum("Zatho.TriplanarMap.Space", {{0, "OBJECT"}, {1, "WORLD"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& TriplanarMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildDefinition();
    return d;
}

TriplanarMap::TriplanarMap() : IMap(Data::definition()) {}

SharedPtr<Entity> TriplanarMap::createNewInstance() const { return makeSharedPtr<TriplanarMap>(); }

IMap::OptimizedResult TriplanarMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    UnitScaler const units = UnitScaler::current();
    TriplanarEvaluator::Parameters p;
    p.space = d.get<Space>("space");
    p.size = units.getFloat(d, "size");
    p.blend = d.get<float>("blend");
    for (int a = 0; a < 3; ++a) {
        String const axis = AXIS_NAMES[a];
        p.axes[std::size_t(a)] = {units.getVector2(d, "offset" + axis), d.get<float>("rotation" + axis),
                                  d.get<float>("scale" + axis)};
    }
    p.randomRotation = d.get<bool>("randomRotation");
    p.seed = d.get<int>("seed");

    ColorOrMap::Evaluator const x = MapsDetail::colorOrMapEvaluator(d, "mapX");
    bool const same = d.get<bool>("sameMapOnEveryAxis");
    // One constant colour on every face is the answer everywhere.
    if (same && x.isConstant()) return makeConstantResult(x.getColor());
    StaticArray<ColorOrMap::Evaluator, 3> maps{x, same ? x : MapsDetail::colorOrMapEvaluator(d, "mapY"),
                                               same ? x : MapsDetail::colorOrMapEvaluator(d, "mapZ")};
    OptimizedResult result;
    result.evaluator = makeSharedPtr<TriplanarEvaluator>(std::move(maps), p);
    return result;
}

TriplanarEvaluator::TriplanarEvaluator(StaticArray<ColorOrMap::Evaluator, 3> maps, Parameters const& parameters)
    : mMaps(std::move(maps)), mParameters(parameters) {
    Parameters& p = mParameters;
    p.size = std::isfinite(p.size) && p.size > 0.f ? p.size : 1.f;
    p.blend = std::clamp(finiteOr(p.blend, 0.2f), 0.f, 1.f);
    for (int a = 0; a < 3; ++a) {
        Axis& axis = p.axes[std::size_t(a)];
        axis.offset = Vector2(finiteOr(axis.offset.x, 0.f), finiteOr(axis.offset.y, 0.f));
        axis.rotation = finiteOr(axis.rotation, 0.f);
        axis.scale = std::isfinite(axis.scale) && axis.scale != 0.f ? std::fabs(axis.scale) : 1.f;
        mInverseScale[std::size_t(a)] = 1.f / (p.size * axis.scale);
        mScaleLength[std::size_t(a)] = p.size * axis.scale;
        mCos[std::size_t(a)] = std::cos(axis.rotation * DEGREES);
        mSin[std::size_t(a)] = std::sin(axis.rotation * DEGREES);
    }
    mKeep = 1.f - p.blend;
    for (std::size_t a = 0; a < 3; ++a)
        mPlacement[a] = {mCos[a], mSin[a], mInverseScale[a], p.axes[a].offset.x, p.axes[a].offset.y};
    IMapEvaluator const* const first = mMaps[0].getMapEvaluator().get();
    if (first == mMaps[1].getMapEvaluator().get() && first == mMaps[2].getMapEvaluator().get()) mSharedEvaluator = first;
}

namespace {

inline StaticArray<float, 3> weightsOf(Dir const& normal, float blend) {
    float const n[3] = {std::fabs(normal.x), std::fabs(normal.y), std::fabs(normal.z)};
    int dominant = 0;
    for (int a = 1; a < 3; ++a)
        if (n[a] > n[dominant]) dominant = a;
    StaticArray<float, 3> w{0.f, 0.f, 0.f};
    float const m = n[dominant];
    if (blend > 0.f && m > 0.f && std::isfinite(m)) {
        float const floorValue = (1.f - blend) * m;
        float sum = 0.f;
        for (int a = 0; a < 3; ++a) sum += w[std::size_t(a)] = std::max(n[a] - floorValue, 0.f);
        float const inv = 1.f / sum;  // the dominant axis alone gives blend m > 0
        for (float& v : w) v *= inv;
        return w;
    }
    // Hard seams, and a zero or non-finite normal: one projection.
    w[std::size_t(dominant)] = 1.f;
    return w;
}

/// A projection's view of the shading point while its bump is evaluated: one
/// object serves the three projections, its UVW, footprint and tangent frame
/// set before each. The kind of point and the filtering wish are read from
/// the parent once per point.
class ProjectionShadeContext final : public OverridableShadeContext {
public:
    ProjectionShadeContext(IShadeContext const& parent, ShadedKind kind, bool filtered)
        : OverridableShadeContext(parent), mKind(kind), mFiltered(filtered) {}
    ProjectionShadeContext(ProjectionShadeContext const&) = delete;

    void set(Pos const& uvw, float footprint) { mUvw = uvw, mFootprint = footprint; }
    void setTangents(TriplanarEvaluator::Projection const* tangents) { mTangents = tangents; }

    Pos getUvw(int, std::uint32_t = 0) const override { return mUvw; }
    Dir getDUvw(int) const override { return Dir(mFootprint, mFootprint, 0.f); }
    ShadedKind getShadedKind() const override { return mKind; }
    bool wantsFilteredLookup() const override { return mFiltered; }
    Dir getDpDu(int channel) const override { return mTangents ? mTangents->dpdu : getParent().getDpDu(channel); }
    Dir getDpDv(int channel) const override { return mTangents ? mTangents->dpdv : getParent().getDpDv(channel); }
    Matrix33 getBumpBase(int channel) const override {
        return mTangents ? UvMapper::bumpBaseFromTangents(getParent().getNormal(), mTangents->dpdu, mTangents->dpdv)
                         : getParent().getBumpBase(channel);
    }

private:
    Pos mUvw;
    float mFootprint = 0.f;
    TriplanarEvaluator::Projection const* mTangents = nullptr;
    ShadedKind mKind;
    bool mFiltered;
};

} // namespace

StaticArray<float, 3> TriplanarEvaluator::blendWeights(Dir const& normal, float blend) { return weightsOf(normal, blend); }

float TriplanarEvaluator::randomAngle(IShadeContext const& context, int axis) const {
    std::uint32_t const h = mix32(std::uint32_t(context.getObjectId()) * 0x9E3779B1u ^ mix32(std::uint32_t(mParameters.seed)) ^
                                  std::uint32_t(axis) * 0x85EBCA77u);
    return float(h >> 8) * (360.f / 16777216.f);
}

Pos TriplanarEvaluator::randomlyTurnedUvw(IShadeContext const& context, int axis, float rawX, float rawY) const {
    std::size_t const a = std::size_t(axis);
    float const r = randomAngle(context, axis) * DEGREES;
    float const cr = std::cos(r), sr = std::sin(r);
    float const c = mCos[a] * cr - mSin[a] * sr, s = mSin[a] * cr + mCos[a] * sr;
    float const inv = mInverseScale[a];
    float const qx = (rawX - mParameters.axes[a].offset.x) * inv, qy = (rawY - mParameters.axes[a].offset.y) * inv;
    return Pos(c * qx - s * qy, s * qx + c * qy, 0.f);
}

TriplanarEvaluator::Frame TriplanarEvaluator::frameWithTangents(IShadeContext const& context) const {
    bool const object = mParameters.space == Space::OBJECT;
    Frame f;
    f.position = object ? context.getObjectPosition() : context.getPosition().toPos();
    f.normal = object ? context.getObjectNormal() : context.getNormal();
    f.footprint = context.getPositionFootprint();
    if (object) {
        f.toWorld = context.getObjectToWorld();
        f.transformTangents = true;
        // A world footprint measured in object units: over the object's mean scale.
        float const det = std::fabs(f.toWorld.linear().determinant());
        if (det > 0.f && std::isfinite(det)) f.footprint /= std::cbrt(det);
    }
    return f;
}

TriplanarEvaluator::Projection TriplanarEvaluator::project(IShadeContext const& context, int axis) const {
    return projectWithTangents(context, frameWithTangents(context), axis);
}

TriplanarEvaluator::Projection TriplanarEvaluator::projectWithTangents(IShadeContext const& context, Frame const& f,
                                                                       int axis) const {
    Pos const& p = f.position;
    Dir const& n = f.normal;
    std::size_t const a = std::size_t(axis);
    // Plane coordinates and the directions they grow along.
    Vector2 raw;
    Dir U, V;
    switch (axis) {
    case 0: {
        float const s = n.x >= 0.f ? 1.f : -1.f;
        raw = Vector2(s * p.y, p.z), U = Dir(0.f, s, 0.f), V = Dir(0.f, 0.f, 1.f);
        break;
    }
    case 1: {
        float const s = n.y >= 0.f ? 1.f : -1.f;
        raw = Vector2(-s * p.x, p.z), U = Dir(-s, 0.f, 0.f), V = Dir(0.f, 0.f, 1.f);
        break;
    }
    default: {
        float const s = n.z >= 0.f ? 1.f : -1.f;
        raw = Vector2(s * p.x, p.y), U = Dir(s, 0.f, 0.f), V = Dir(0.f, 1.f, 0.f);
        break;
    }
    }
    float c = mCos[a], s = mSin[a];
    if (mParameters.randomRotation) {
        float const r = randomAngle(context, axis) * DEGREES;
        float const cr = std::cos(r), sr = std::sin(r);
        float const c2 = c * cr - s * sr, s2 = s * cr + c * sr;
        c = c2, s = s2;
    }
    float const inv = mInverseScale[a];
    Vector2 const q = (raw - mParameters.axes[a].offset) * inv;
    Projection out;
    out.uvw = Pos(c * q.x - s * q.y, s * q.x + c * q.y, 0.f);
    out.dUvw = Dir(f.footprint * inv, f.footprint * inv, 0.f);
    // raw = R^T uv / inv + offset, so the tangents are R^T's columns over inv.
    float const length = mScaleLength[a];
    Dir du = (U * c - V * s) * length, dv = (U * s + V * c) * length;
    if (f.transformTangents) du = f.toWorld.transformDir(du), dv = f.toWorld.transformDir(dv);
    out.dpdu = du, out.dpdv = dv;
    return out;
}

namespace {
/// The blend's arithmetic on both kinds of result.
inline RgbAlpha scaled(RgbAlpha const& r, float w) { return r * w; }
inline RgbAlpha added(RgbAlpha const& a, RgbAlpha const& b) { return a + b; }
inline MonoAlpha scaled(MonoAlpha const& m, float w) { return MonoAlpha(m.value * w, m.alpha * w); }
inline MonoAlpha added(MonoAlpha const& a, MonoAlpha const& b) { return MonoAlpha(a.value + b.value, a.alpha + b.alpha); }

inline void lookUp(IMapEvaluator const& e, IShadeContext const& context, std::span<MapLookupPoint const> points,
                   std::span<RgbAlpha> out, MapCache* cache) {
    e.evalColors(context, points, out, cache);
}
inline void lookUp(IMapEvaluator const& e, IShadeContext const& context, std::span<MapLookupPoint const> points,
                   std::span<MonoAlpha> out, MapCache* cache) {
    e.evalMonos(context, points, out, cache);
}
inline RgbAlpha constantOf(ColorOrMap::Evaluator const& m, RgbAlpha const*) { return m.getColor(); }
inline MonoAlpha constantOf(ColorOrMap::Evaluator const& m, MonoAlpha const*) { return m.getMono(); }
} // namespace

/// Colour and mono: the lookups with weight, blended by a fixed sum. One map
/// on every axis gets them all in one call, so it can overlap their reads. A
/// weight of exactly 1 is that one projection's answer as it is.
template <typename Result>
#if defined(__GNUC__) && !defined(__clang__)
// The parent is whatever the renderer passes; guessing that it is a chain of
// forwarding wrappers costs a compare per wrapper on every read.
__attribute__((optimize("no-devirtualize-speculatively")))
#endif
inline Result TriplanarEvaluator::blendLookups(IShadeContext const& context, MapCache* cache) const {
    bool const object = mParameters.space == Space::OBJECT;
    Pos const p = object ? context.getObjectPosition() : context.getPosition().toPos();
    Dir const n = object ? context.getObjectNormal() : context.getNormal();
    float const footprint = context.getPositionFootprint();
    float const nx = std::fabs(n.x), ny = std::fabs(n.y), nz = std::fabs(n.z);
    float const m = std::max(nx, std::max(ny, nz));
    float w[3];
    // The weights below are weightsOf's, in the same order of operations, for
    // a finite, non-zero normal and a soft blend; the rest takes the slow road.
    if (mKeep < 1.f && m > 0.f && nx + ny + nz <= std::numeric_limits<float>::max()) [[likely]] {
        float const floorValue = mKeep * m;
        w[0] = std::max(nx - floorValue, 0.f), w[1] = std::max(ny - floorValue, 0.f), w[2] = std::max(nz - floorValue, 0.f);
        float const inv = 1.f / (w[0] + w[1] + w[2]);
        w[0] *= inv, w[1] *= inv, w[2] *= inv;
    } else {
        StaticArray<float, 3> const s = weightsOf(n, mParameters.blend);
        w[0] = s[0], w[1] = s[1], w[2] = s[2];
    }
    float const raw[3][2] = {{(n.x >= 0.f ? p.y : -p.y), p.z}, {(n.y >= 0.f ? -p.x : p.x), p.z}, {(n.z >= 0.f ? p.x : -p.x), p.y}};
    auto const place = [&](int axis) {
        std::size_t const a = std::size_t(axis);
        float const rawX = raw[a][0], rawY = raw[a][1];
        Placement const& k = mPlacement[a];
        float const f = footprint * k.inverseScale;
        if (mParameters.randomRotation) [[unlikely]]
            return MapLookupPoint{randomlyTurnedUvw(context, axis, rawX, rawY), Dir(f, f, 0.f)};
        float const qx = (rawX - k.offsetX) * k.inverseScale, qy = (rawY - k.offsetY) * k.inverseScale;
        return MapLookupPoint{Pos(k.cos * qx - k.sin * qy, k.sin * qx + k.cos * qy, 0.f), Dir(f, f, 0.f)};
    };
    // The weights are in [0, 1]: all of them in (0, 1) is every projection blended.
    if (std::min(w[0], std::min(w[1], w[2])) > 0.f && std::max(w[0], std::max(w[1], w[2])) < 1.f && mSharedEvaluator) {
        // Every projection of one map: one batch, no bookkeeping.
        MapLookupPoint const points[3] = {place(0), place(1), place(2)};
        Result results[3];
        lookUp(*mSharedEvaluator, context, points, results, cache);
        return added(added(scaled(results[0], w[0]), scaled(results[1], w[1])), scaled(results[2], w[2]));
    }
    // The projections with weight, the first of weight 1 alone.
    bool const whole = w[0] == 1.f || w[1] == 1.f || w[2] == 1.f;
    MapLookupPoint points[3];
    int axes[3];
    int count = 0;
    for (int a = 0; a < 3; ++a) {
        if (w[a] == 1.f) {
            points[0] = place(a), axes[0] = a, count = 1;
            break;
        }
        if (w[a] != 0.f) points[count] = place(a), axes[count++] = a;
    }
    Result results[3];
    if (mSharedEvaluator) {
        lookUp(*mSharedEvaluator, context, std::span<MapLookupPoint const>(points, std::size_t(count)),
               std::span<Result>(results, std::size_t(count)), cache);
    } else {
        for (int i = 0; i < count; ++i) {
            ColorOrMap::Evaluator const& map = mMaps[std::size_t(axes[i])];
            if (IMapEvaluator const* e = map.getMapEvaluator().get())
                lookUp(*e, context, std::span<MapLookupPoint const>(points + i, 1), std::span<Result>(results + i, 1), cache);
            else
                results[i] = constantOf(map, results);
        }
    }
    if (whole) return results[0];
    Result sum = scaled(results[0], w[axes[0]]);
    for (int i = 1; i < count; ++i) sum = added(sum, scaled(results[i], w[axes[i]]));
    return sum;
}

RgbAlpha TriplanarEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    return blendLookups<RgbAlpha>(context, cache);
}

MonoAlpha TriplanarEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    return blendLookups<MonoAlpha>(context, cache);
}

Dir TriplanarEvaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    // Each map differentiates in its own projection's frame; the tilts blend like the colours.
    Frame const f = frameWithTangents(context);
    StaticArray<float, 3> const w = weightsOf(f.normal, mParameters.blend);
    ProjectionShadeContext sub(context, context.getShadedKind(), context.wantsFilteredLookup());
    Dir sum{};
    for (int a = 0; a < 3; ++a) {
        float const weight = w[std::size_t(a)];
        if (weight == 0.f) continue;
        Projection const pr = projectWithTangents(context, f, a);
        sub.set(pr.uvw, pr.dUvw.x);
        sub.setTangents(&pr);
        Dir const r = mMaps[std::size_t(a)].evalBump(sub, cache);
        if (weight == 1.f) return r;  // exactly the one axis's answer
        sum = sum + r * weight;
    }
    return sum;
}

FERRIM_REGISTER_ENTITY(TriplanarMap);

} // namespace Quelin
