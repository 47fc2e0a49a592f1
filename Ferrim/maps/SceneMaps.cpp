#include "Ferrim/maps/SceneMaps.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/UnitScaler.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

namespace {

// 1 / golden ratio: successive multiples fill [0, 1) evenly at every count.
constexpr double GOLDEN_FRACTION = 0.6180339887498949;
// Distances past this are as good as unbounded; infinities clamp to it.
constexpr float MAX_DISTANCE = 1e9f;

/// Refuses object-id lists that do not parse, naming the bad entry.
class ObjectIdsValidator final : public IPropertyValidator {
public:
    Expected<PropertyValue> validate(PropertyValue const& value) const override {
        auto const* text = std::get_if<String>(&value);
        if (!text) return makeError("object ids must be a text such as \"3, 7\"");
        auto parsed = SceneMapsDetail::parseObjectIds(*text);
        if (!parsed) return makeError(parsed.error());
        return value;
    }
    nlohmann::json describe() const override { return {{"kind", "objectIds"}}; }
};

SharedPtr<IPropertyValidator const> distanceRange() {
    return makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, MAX_DISTANCE);
}

PropertyDefinition& addObjectIds(ShadingDataObjectBuilder& b, StringView description) {
    return b.addString("objectIds", String(), "Object ids", description)
        .addValidator(makeSharedPtr<ObjectIdsValidator>());
}

Stack<int> objectIdsOf(GenericDataObject const& d) {
    // The validator keeps bad text out of the record; a record built without it counts as empty.
    auto parsed = SceneMapsDetail::parseObjectIds(d.get<String>("objectIds"));
    return parsed ? std::move(*parsed) : Stack<int>();
}

/// `p + d * s` in double precision.
inline PrecisePos offset(PrecisePos const& p, Dir const& d, float s) {
    return {p.x + double(d.x * s), p.y + double(d.y * s), p.z + double(d.z * s)};
}

inline float fraction(float x) { return x - std::floor(x); }

/// A usable unit normal of the point, or nothing (a context that does not know it).
inline Optional<Dir> unitNormal(IShadeContext const& context) {
    Dir const n = context.getNormal();
    float const l2 = dot(n, n);
    if (!(l2 > 1e-12f) || !std::isfinite(l2)) return std::nullopt;
    return n / std::sqrt(l2);
}

/// The frame around `n`, turned about it by a random angle.
inline SceneMapsDetail::Frame turnedFrame(Dir const& n, float turn) {
    SceneMapsDetail::Frame f(n);
    float const a = TWO_PI * turn;
    float const c = std::cos(a), s = std::sin(a);
    Dir const t = f.t * c + f.b * s;
    f.b = cross(f.n, t);
    f.t = t;
    return f;
}

/// The context's random pair in [0, 1); a context without one (NaN) gets 0.
inline Vector2 randomPair(IShadeContext const& context) {
    Vector2 const r = context.generateRandom2();
    auto usable = [](float x) { return std::isfinite(x) ? std::clamp(x - std::floor(x), 0.f, 0.99999994f) : 0.f; };
    return {usable(r.x), usable(r.y)};
}

inline int clampSamples(int n, int maximum) { return std::clamp(n, 1, maximum); }

/// Cosine and sine of `count` angles evenly round the circle.
Stack<Vector2> circle(int count) {
    Stack<Vector2> c;
    c.reserve(std::size_t(count));
    for (int k = 0; k < count; ++k) {
        double const a = 2.0 * PI * double(k) / double(count);
        c.emplace_back(float(std::cos(a)), float(std::sin(a)));
    }
    return c;
}
inline float clampDistance(float x, float fallback) {
    if (std::isnan(x)) return fallback;
    return std::clamp(x, 0.f, MAX_DISTANCE);
}

} // namespace

// ---------------------------------------------------------------------------

namespace SceneMapsDetail {

Expected<Stack<int>, String> parseObjectIds(StringView text) {
    Stack<int> ids;
    std::size_t i = 0;
    auto const isSeparator = [](char c) { return c == ',' || c == ' ' || c == '\t' || c == ';'; };
    while (i < text.size()) {
        if (isSeparator(text[i])) {
            ++i;
            continue;
        }
        std::size_t j = i;
        while (j < text.size() && !isSeparator(text[j])) ++j;
        StringView const token = text.substr(i, j - i);
        int id = 0;
        auto const [end, error] = std::from_chars(token.data(), token.data() + token.size(), id);
        if (error != std::errc() || end != token.data() + token.size()) {
            // Appended piece by piece: the "+" chain trips a false -Wrestrict of GCC 12.
            String message = "\"";
            message.append(token);
            message.append("\" is not an object id (whole numbers separated by commas)");
            return makeError(std::move(message));
        }
        ids.push_back(id);
        i = j;
    }
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end());
    return ids;
}

Frame::Frame(Dir const& normal) : n(normal) {
    // Duff et al., "Building an Orthonormal Basis, Revisited" (JCGT 2017).
    float const sign = std::copysign(1.f, n.z);
    float const a = -1.f / (sign + n.z);
    float const c = n.x * n.y * a;
    t = Dir(1.f + sign * n.x * n.x * a, sign * c, -sign * n.x);
    b = Dir(c, sign + n.y * n.y * a, -n.y);
}

float rayBias(PrecisePos const& p) {
    // A few float steps of the largest coordinate: surfaces far from the origin
    // are stored (and hit) with that much rounding.
    double const m = std::max({std::fabs(p.x), std::fabs(p.y), std::fabs(p.z), 1.0});
    return float(m) * 1e-5f;
}

} // namespace SceneMapsDetail

using namespace SceneMapsDetail;

// ---------------------------------------------------------------------------
// Distance

namespace {

SharedPtr<DataObjectDefinition const> buildDistanceDefinition() {
    ShadingDataObjectBuilder b;
    addObjectIds(b, "Objects to measure to, e.g. \"3, 7\"; empty measures to every object, the shaded one included");
    b.addFloat("nearDistance", 0.f, "Near", "Distance that shows the near colour fully, in scene units")
        .addValidator(distanceRange());
    b.addFloat("farDistance", 1.f, "Far",
               "Distance from which the far colour shows fully, in scene units; objects farther are not searched")
        .addValidator(distanceRange());
    b.addFloat("falloff", 1.f, "Falloff", "Exponent of the blend between near and far; 1 is linear")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.01f, 100.f));
    b.addColorOrMap("nearColor", Rgb(1, 1, 1), "Near color", "Colour (or map) at the objects");
    b.addColorOrMap("farColor", Rgb(0, 0, 0), "Far color", "Colour (or map) far from the objects");
    return b.build("Zatho.DistanceMap");
}

} // namespace

SharedPtr<DataObjectDefinition const> const& DistanceMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildDistanceDefinition();
    return d;
}

DistanceMap::DistanceMap() : IMap(Data::definition()) {}
SharedPtr<Entity> DistanceMap::createNewInstance() const { return makeSharedPtr<DistanceMap>(); }

IMap::OptimizedResult DistanceMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    DistanceEvaluator::Settings s;
    s.objectIds = objectIdsOf(d);
    UnitScaler const units = UnitScaler::current();
    s.nearDistance = units.getFloat(d, "nearDistance");
    s.farDistance = units.getFloat(d, "farDistance");
    s.falloff = d.get<float>("falloff");
    OptimizedResult result;
    result.evaluator = makeSharedPtr<DistanceEvaluator>(std::move(s), MapsDetail::colorOrMapEvaluator(d, "nearColor"),
                                                        MapsDetail::colorOrMapEvaluator(d, "farColor"));
    return result;
}

DistanceEvaluator::DistanceEvaluator(Settings settings, ColorOrMap::Evaluator nearColor, ColorOrMap::Evaluator farColor)
    : mSettings(std::move(settings)), mNear(std::move(nearColor)), mFar(std::move(farColor)) {
    mSettings.nearDistance = clampDistance(mSettings.nearDistance, 0.f);
    mSettings.farDistance = clampDistance(mSettings.farDistance, 1.f);
    mSettings.falloff = std::isnan(mSettings.falloff) ? 1.f : std::clamp(mSettings.falloff, 0.01f, 100.f);
    float const range = mSettings.farDistance - mSettings.nearDistance;
    // far at or before near: a hard step at near.
    mInvRange = range > 0.f ? 1.f / range : 0.f;
}

float DistanceEvaluator::weight(IShadeContext const& context) const {
    Optional<float> const d =
        context.findNearestObjectDistance(context.getPosition(), mSettings.farDistance, mSettings.objectIds);
    if (!d || !(*d <= mSettings.farDistance)) return 1.f;
    if (mInvRange == 0.f) return *d < mSettings.nearDistance ? 0.f : 1.f;
    float const t = std::clamp((*d - mSettings.nearDistance) * mInvRange, 0.f, 1.f);
    return mSettings.falloff == 1.f ? t : std::pow(t, mSettings.falloff);
}

RgbAlpha DistanceEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    float const t = weight(context);
    if (t <= 0.f) return mNear.evalColor(context, cache);
    if (t >= 1.f) return mFar.evalColor(context, cache);
    return MapsDetail::mix(mNear.evalColor(context, cache), mFar.evalColor(context, cache), t);
}

MonoAlpha DistanceEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    float const t = weight(context);
    if (t <= 0.f) return mNear.evalMono(context, cache);
    if (t >= 1.f) return mFar.evalMono(context, cache);
    return MapsDetail::mix(mNear.evalMono(context, cache), mFar.evalMono(context, cache), t);
}

// ---------------------------------------------------------------------------
// Ambient occlusion

namespace {

SharedPtr<DataObjectDefinition const> buildAmbientOcclusionDefinition() {
    ShadingDataObjectBuilder b;
    b.addInt("samples", 16, "Samples", "Rays per shading point")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<int>>(1, AmbientOcclusionEvaluator::MAX_SAMPLES));
    b.addFloat("radius", 1.f, "Radius", "How far a surface occludes, in scene units; 0 occludes nothing")
        .addValidator(distanceRange());
    b.addBool("onlySameObject", false, "Only same object", "Only the shaded object occludes itself");
    b.addBool("invert", false, "Inside",
              "Sample the hemisphere below the surface: how enclosed the inside is (thin parts stay open)");
    b.addEnum("objectFilter", AmbientOcclusionMap::Data::objectFilterType(), int(ObjectFilterMode::All), "Objects",
              "Which objects occlude: all, only the listed ones, or all but the listed ones");
    addObjectIds(b, "Object ids the object filter lists, e.g. \"3, 7\"");
    b.addColorOrMap("occludedColor", Rgb(0, 0, 0), "Occluded", "Colour (or map) where the hemisphere is closed");
    b.addColorOrMap("unoccludedColor", Rgb(1, 1, 1), "Unoccluded", "Colour (or map) where the hemisphere is open");
    return b.build("Zatho.AmbientOcclusionMap");
}

} // namespace

SharedPtr<DataObjectDefinition const> const& AmbientOcclusionMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildAmbientOcclusionDefinition();
    return d;
}

SharedPtr<TypeDefinition const> const& AmbientOcclusionMap::Data::objectFilterType() {
    static SharedPtr<TypeDefinition const> const t =
        TypeDefinition::makeEnum("Zatho.ObjectFilter", {{0, "all"}, {1, "include"}, {2, "exclude"}});
    return t;
}

AmbientOcclusionMap::AmbientOcclusionMap() : IMap(Data::definition()) {}
SharedPtr<Entity> AmbientOcclusionMap::createNewInstance() const { return makeSharedPtr<AmbientOcclusionMap>(); }

IMap::OptimizedResult AmbientOcclusionMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    AmbientOcclusionEvaluator::Settings s;
    s.samples = d.get<int>("samples");
    s.radius = UnitScaler::current().getFloat(d, "radius");
    s.onlySameObject = d.get<bool>("onlySameObject");
    s.invert = d.get<bool>("invert");
    s.filter = d.get<ObjectFilterMode>("objectFilter");
    s.objectIds = objectIdsOf(d);
    OptimizedResult result;
    result.evaluator = makeSharedPtr<AmbientOcclusionEvaluator>(
        std::move(s), MapsDetail::colorOrMapEvaluator(d, "occludedColor"),
        MapsDetail::colorOrMapEvaluator(d, "unoccludedColor"));
    return result;
}

AmbientOcclusionEvaluator::AmbientOcclusionEvaluator(Settings settings, ColorOrMap::Evaluator occluded,
                                                     ColorOrMap::Evaluator unoccluded)
    : mSettings(std::move(settings)), mOccluded(std::move(occluded)), mUnoccluded(std::move(unoccluded)) {
    mSettings.samples = clampSamples(mSettings.samples, MAX_SAMPLES);
    mSettings.radius = clampDistance(mSettings.radius, 1.f);
    if (mSettings.filter != ObjectFilterMode::All && mSettings.filter != ObjectFilterMode::Include &&
        mSettings.filter != ObjectFilterMode::Exclude)
        mSettings.filter = ObjectFilterMode::All;
    mNeedsObjects = mSettings.onlySameObject || mSettings.filter != ObjectFilterMode::All;
    // Sample i sits at radius sqrt((i + jitter) / N) of the unit disk (equal-area
    // strata) and angle 2 pi frac(i / golden ratio); projected up onto the
    // hemisphere that is cosine-weighted (Malley's method).
    mDisk.reserve(std::size_t(mSettings.samples));
    for (int i = 0; i < mSettings.samples; ++i) {
        double const a = 2.0 * PI * std::fmod(double(i) * GOLDEN_FRACTION, 1.0);
        mDisk.emplace_back(float(std::cos(a)), float(std::sin(a)));
    }
}

bool AmbientOcclusionEvaluator::counts(int objectId, int ownId) const {
    if (mSettings.onlySameObject && objectId != ownId) return false;
    if (mSettings.filter == ObjectFilterMode::All) return true;
    bool const listed = std::binary_search(mSettings.objectIds.begin(), mSettings.objectIds.end(), objectId);
    return mSettings.filter == ObjectFilterMode::Include ? listed : !listed;
}

float AmbientOcclusionEvaluator::openness(IShadeContext const& context) const {
    if (mSettings.radius <= 0.f) return 1.f;
    Optional<Dir> normal = unitNormal(context);
    if (!normal) return 1.f;
    Dir const n = mSettings.invert ? -*normal : *normal;
    PrecisePos const p = context.getPosition();
    Vector2 const random = randomPair(context);
    Frame const f = turnedFrame(n, random.x);
    PrecisePos const origin = offset(p, n, rayBias(p));
    int const count = mSettings.samples;
    float const invCount = 1.f / float(count);
    float const jitter = random.y;
    int const ownId = mNeedsObjects ? context.getObjectId() : 0;
    int occluded = 0;
    for (int i = 0; i < count; ++i) {
        float const u = (float(i) + jitter) * invCount;
        float const r = std::sqrt(u), z = std::sqrt(std::max(0.f, 1.f - u));
        Vector2 const cs = mDisk[std::size_t(i)];
        Dir const d = f.t * (r * cs.x) + f.b * (r * cs.y) + f.n * z;
        if (!mNeedsObjects) {
            occluded += context.traceOcclusion(origin, d, mSettings.radius).has_value();
        } else {
            Optional<SceneHit> const hit = context.traceNearest(origin, d, mSettings.radius);
            occluded += hit && counts(hit->objectId, ownId);
        }
    }
    return 1.f - float(occluded) * invCount;
}

RgbAlpha AmbientOcclusionEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    float const t = openness(context);
    if (t >= 1.f) return mUnoccluded.evalColor(context, cache);
    if (t <= 0.f) return mOccluded.evalColor(context, cache);
    return MapsDetail::mix(mOccluded.evalColor(context, cache), mUnoccluded.evalColor(context, cache), t);
}

MonoAlpha AmbientOcclusionEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    float const t = openness(context);
    if (t >= 1.f) return mUnoccluded.evalMono(context, cache);
    if (t <= 0.f) return mOccluded.evalMono(context, cache);
    return MapsDetail::mix(mOccluded.evalMono(context, cache), mUnoccluded.evalMono(context, cache), t);
}

// ---------------------------------------------------------------------------
// Curvature

namespace {

SharedPtr<DataObjectDefinition const> buildCurvatureDefinition() {
    ShadingDataObjectBuilder b;
    b.addInt("samples", 8, "Samples", "Probes per shading point")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<int>>(1, CurvatureEvaluator::MAX_SAMPLES));
    b.addFloat("radius", 0.1f, "Radius",
               "How far from the point the probes look, in scene units; features smaller than it blur")
        .addValidator(distanceRange());
    b.addFloat("scale", 0.1f, "Scale",
               "Curvature (1 / scene units) that gives full output: a sphere of radius 1 / scale is white")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, MAX_DISTANCE));
    b.addEnum("output", CurvatureMap::Data::outputType(), int(CurvatureMap::Output::Signed), "Output",
              "Signed: grey 0.5 on flat surfaces, brighter convex, darker concave; convex or concave only: 0 on flat");
    return b.build("Zatho.CurvatureMap");
}

} // namespace

SharedPtr<DataObjectDefinition const> const& CurvatureMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildCurvatureDefinition();
    return d;
}

SharedPtr<TypeDefinition const> const& CurvatureMap::Data::outputType() {
    static SharedPtr<TypeDefinition const> const t =
        TypeDefinition::makeEnum("Zatho.CurvatureMap.Output", {{0, "signed"}, {1, "convex"}, {2, "concave"}});
    return t;
}

CurvatureMap::CurvatureMap() : IMap(Data::definition()) {}
SharedPtr<Entity> CurvatureMap::createNewInstance() const { return makeSharedPtr<CurvatureMap>(); }

IMap::OptimizedResult CurvatureMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    CurvatureEvaluator::Settings s;
    s.samples = d.get<int>("samples");
    s.radius = UnitScaler::current().getFloat(d, "radius");
    // Curvature is per length: a scene unit ten times smaller curves ten times less.
    s.scale = d.get<float>("scale") / UnitScaler::current().factor();
    s.output = d.get<Output>("output");
    OptimizedResult result;
    result.evaluator = makeSharedPtr<CurvatureEvaluator>(s);
    return result;
}

CurvatureEvaluator::CurvatureEvaluator(Settings settings) : mSettings(settings) {
    mSettings.samples = clampSamples(mSettings.samples, MAX_SAMPLES);
    mSettings.radius = clampDistance(mSettings.radius, 0.1f);
    mSettings.scale = clampDistance(mSettings.scale, 0.1f);
    mCircle = circle(mSettings.samples);
}

float CurvatureEvaluator::curvature(IShadeContext const& context) const {
    float const r = mSettings.radius;
    if (!(r > 0.f)) return 0.f;
    Optional<Dir> const normal = unitNormal(context);
    if (!normal) return 0.f;
    Dir const n = *normal;
    PrecisePos const p = context.getPosition();
    Vector2 const random = randomPair(context);
    Frame const f = turnedFrame(n, random.x);
    PrecisePos const above = offset(p, n, r);
    int const count = mSettings.samples;
    float sum = 0.f;
    int answered = 0;
    for (int k = 0; k < count; ++k) {
        // Probe directions evenly round the circle (pairs cancel a surface's tilt),
        // each going down at 45 degrees to land `radius` away on a flat surface.
        Vector2 const cs = mCircle[std::size_t(k)];
        Dir const t = f.t * cs.x + f.b * cs.y;
        Dir const d = (t - n) * 0.70710678f;
        Optional<SceneHit> const hit = context.traceNearest(above, d, 3.f * r);
        if (hit) {
            // How far along t the probe landed; a wall right beside the point
            // counts as a crease a quarter radius away, so one probe cannot dominate.
            Dir const landed = n * r + d * hit->distance;
            float const s = std::max(dot(landed, t), 0.25f * r);
            sum += dot(hit->normal, t) / s;
            ++answered;
        } else {
            sum += 1.f / r;
        }
    }
    // A context that answers no probe at all cannot see the scene: flat.
    if (answered == 0 && !context.traceNearest(above, -n, 2.f * r)) return 0.f;
    return sum / float(count);
}

namespace {

float curvatureOutput(CurvatureMap::Output output, float scaled) {
    switch (output) {
        case CurvatureMap::Output::Convex: return std::clamp(scaled, 0.f, 1.f);
        case CurvatureMap::Output::Concave: return std::clamp(-scaled, 0.f, 1.f);
        default: return std::clamp(0.5f + 0.5f * scaled, 0.f, 1.f);
    }
}

} // namespace

MonoAlpha CurvatureEvaluator::evalMono(IShadeContext const& context, MapCache*) const {
    float const k = curvature(context);
    // Scale 0 shows everything as flat, even an infinitely sharp point.
    float const scaled = mSettings.scale == 0.f ? 0.f : k * mSettings.scale;
    return {curvatureOutput(mSettings.output, scaled), 1.f};
}

RgbAlpha CurvatureEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    float const v = evalMono(context, cache).value;
    return {v, v, v, 1.f};
}

// ---------------------------------------------------------------------------
// Round edges

namespace {

SharedPtr<DataObjectDefinition const> buildRoundEdgesDefinition() {
    ShadingDataObjectBuilder b;
    b.addInt("samples", 8, "Samples", "Probes per shading point")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<int>>(1, RoundEdgesEvaluator::MAX_SAMPLES));
    b.addFloat("radius", 0.05f, "Radius", "Radius of the rounding, in scene units")
        .addValidator(distanceRange());
    b.addEnum("mode", RoundEdgesMap::Data::modeType(), int(RoundEdgesMap::Mode::SameObject), "Round",
              "Corners only: this object's outer edges; same object: also its inner edges; all objects: also "
              "where it meets other objects");
    return b.build("Zatho.RoundEdgesMap");
}

} // namespace

SharedPtr<DataObjectDefinition const> const& RoundEdgesMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildRoundEdgesDefinition();
    return d;
}

SharedPtr<TypeDefinition const> const& RoundEdgesMap::Data::modeType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.RoundEdgesMap.Mode", {{0, "corners_only"}, {1, "same_object"}, {2, "all_objects"}});
    return t;
}

RoundEdgesMap::RoundEdgesMap() : IMap(Data::definition()) {}
SharedPtr<Entity> RoundEdgesMap::createNewInstance() const { return makeSharedPtr<RoundEdgesMap>(); }

IMap::OptimizedResult RoundEdgesMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    RoundEdgesEvaluator::Settings s;
    s.samples = d.get<int>("samples");
    s.radius = UnitScaler::current().getFloat(d, "radius");
    s.mode = d.get<Mode>("mode");
    OptimizedResult result;
    result.evaluator = makeSharedPtr<RoundEdgesEvaluator>(s);
    return result;
}

RoundEdgesEvaluator::RoundEdgesEvaluator(Settings settings) : mSettings(settings) {
    mSettings.samples = clampSamples(mSettings.samples, MAX_SAMPLES);
    mSettings.radius = clampDistance(mSettings.radius, 0.05f);
    mCircle = circle(mSettings.samples);
    // Landing radii (tan of the tilt) in equal-area strata, visited in
    // golden-ratio order so that neighbouring azimuths land at different radii.
    for (int k = 0; k < mSettings.samples; ++k)
        mStrata.push_back(float(std::fmod(double(k) * GOLDEN_FRACTION, 1.0)));
}

Dir RoundEdgesEvaluator::roundedNormal(IShadeContext const& context) const {
    Optional<Dir> const normal = unitNormal(context);
    if (!normal) return Dir(0, 0, 1);
    Dir const n = *normal;
    float const r = mSettings.radius;
    if (!(r > 0.f)) return n;
    PrecisePos const p = context.getPosition();
    Vector2 const random = randomPair(context);
    Frame const f = turnedFrame(n, random.x);
    PrecisePos const above = offset(p, n, r);
    int const ownId = context.getObjectId();
    bool const ownOnly = mSettings.mode != RoundEdgesMap::Mode::AllObjects;
    bool const convexOnly = mSettings.mode == RoundEdgesMap::Mode::CornersOnly;
    int const count = mSettings.samples;
    float const shift = random.y;
    Dir sum;
    int hits = 0;
    for (int k = 0; k < count; ++k) {
        // Azimuths evenly round the circle (the frame turns per point), the
        // strata shifted per point so that every landing radius gets its turn.
        float const spread = std::sqrt(fraction(mStrata[std::size_t(k)] + shift));
        Vector2 const cs = mCircle[std::size_t(k)];
        Dir const t = f.t * cs.x + f.b * cs.y;
        Dir const d = normalize(t * spread - n);
        Optional<SceneHit> const hit = context.traceNearest(above, d, 2.f * r);
        Dir contribution = n;
        if (!hit) {
            // Fell past a convex edge: the surface there faces sideways.
            contribution = t;
        } else if (!(ownOnly && hit->objectId != ownId)) {
            bool const crease = dot(hit->normal, t) < -1e-3f;
            if (!(convexOnly && crease)) contribution = hit->normal;
        }
        hits += hit.has_value();
        sum += contribution;
    }
    // A context that answers no probe at all cannot see the scene: no rounding.
    if (hits == 0 && !context.traceNearest(above, -n, 2.f * r)) return n;
    float const l = length(sum);
    // Probes that cancel out (a needle tip) leave the normal as it is.
    return l > 0.25f ? sum / l : n;
}

Dir RoundEdgesEvaluator::evalBump(IShadeContext const& context, MapCache*) const {
    Optional<Dir> const normal = unitNormal(context);
    if (!normal) return Dir();
    return roundedNormal(context) - *normal;
}

MonoAlpha RoundEdgesEvaluator::evalMono(IShadeContext const& context, MapCache*) const {
    Optional<Dir> const normal = unitNormal(context);
    if (!normal) return {0.f, 1.f};
    return {std::clamp(1.f - dot(roundedNormal(context), *normal), 0.f, 1.f), 1.f};
}

RgbAlpha RoundEdgesEvaluator::evalColor(IShadeContext const& context, MapCache*) const {
    Dir const m = roundedNormal(context);
    // Expressed in the point's bump frame (tangent, bitangent, normal), as a normal map stores it.
    Matrix33 const base = context.getBumpBase(0);
    Dir const t = normalize(base.column(0)), b = normalize(base.column(1));
    Optional<Dir> const normal = unitNormal(context);
    Dir const n = normal ? *normal : Dir(0, 0, 1);
    Dir const local(dot(m, t), dot(m, b), dot(m, n));
    if (dot(t, t) == 0.f || dot(b, b) == 0.f) return {0.5f, 0.5f, 0.5f + 0.5f * dot(m, n), 1.f};
    return {0.5f + 0.5f * local.x, 0.5f + 0.5f * local.y, 0.5f + 0.5f * local.z, 1.f};
}

// ---------------------------------------------------------------------------
// Wireframe

namespace {

SharedPtr<DataObjectDefinition const> buildWireframeDefinition() {
    ShadingDataObjectBuilder b;
    b.addFloat("width", 0.01f, "Width", "Width of the lines, in the chosen units")
        .addValidator(distanceRange());
    b.addEnum("units", WireframeMap::Data::unitsType(), int(WireframeMap::Units::World), "Units",
              "World: scene units on the surface; pixels: the same width on screen at every distance");
    b.addColorOrMap("edgeColor", Rgb(1, 1, 1), "Edge color", "Colour (or map) of the lines");
    b.addColorOrMap("faceColor", Rgb(0, 0, 0), "Face color", "Colour (or map) between the lines");
    return b.build("Zatho.WireframeMap");
}

} // namespace

SharedPtr<DataObjectDefinition const> const& WireframeMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildWireframeDefinition();
    return d;
}

SharedPtr<TypeDefinition const> const& WireframeMap::Data::unitsType() {
    static SharedPtr<TypeDefinition const> const t =
        TypeDefinition::makeEnum("Zatho.WireframeMap.Units", {{0, "world"}, {1, "pixels"}});
    return t;
}

WireframeMap::WireframeMap() : IMap(Data::definition()) {}
SharedPtr<Entity> WireframeMap::createNewInstance() const { return makeSharedPtr<WireframeMap>(); }

IMap::OptimizedResult WireframeMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    WireframeEvaluator::Settings s;
    s.units = d.get<Units>("units");
    // Pixels are no scene length; only world widths convert.
    s.width = s.units == Units::World ? UnitScaler::current().getFloat(d, "width") : d.get<float>("width");
    OptimizedResult result;
    result.evaluator = makeSharedPtr<WireframeEvaluator>(s, MapsDetail::colorOrMapEvaluator(d, "edgeColor"),
                                                         MapsDetail::colorOrMapEvaluator(d, "faceColor"));
    return result;
}

WireframeEvaluator::WireframeEvaluator(Settings settings, ColorOrMap::Evaluator edgeColor,
                                       ColorOrMap::Evaluator faceColor)
    : mSettings(settings), mEdge(std::move(edgeColor)), mFace(std::move(faceColor)) {
    mSettings.width = clampDistance(mSettings.width, 0.01f);
}

Optional<float> WireframeEvaluator::edgeDistance(ShadedTriangle const& triangle) {
    Dir const a = toDir(triangle.corners[0]), b = toDir(triangle.corners[1]), c = toDir(triangle.corners[2]);
    float const area2 = length(cross(b - a, c - a));
    if (!std::isfinite(area2)) return std::nullopt;
    if (area2 == 0.f) return 0.f; // a degenerate triangle is all edge
    // The distance to the edge opposite a corner is that corner's weight times its height.
    float const weights[3] = {triangle.barycentrics.x, triangle.barycentrics.y, triangle.barycentrics.z};
    float const opposite[3] = {length(c - b), length(a - c), length(b - a)};
    float best = MAX_DISTANCE;
    for (int i = 0; i < 3; ++i) {
        float const w = std::max(weights[i], 0.f);
        best = std::min(best, w * area2 / opposite[i]);
    }
    return std::isfinite(best) ? Optional<float>(best) : std::nullopt;
}

float WireframeEvaluator::coverage(IShadeContext const& context) const {
    Optional<ShadedTriangle> const triangle = context.getTriangle();
    if (!triangle) return 0.f;
    Optional<float> distance = edgeDistance(*triangle);
    if (!distance) return 0.f;
    float footprint = context.getPositionFootprint();
    if (!(footprint > 0.f) || !std::isfinite(footprint)) footprint = 0.f;
    float d = *distance, filter = footprint;
    if (mSettings.units == WireframeMap::Units::Pixels) {
        // Pixels need the footprint to convert; without one the lines have no size.
        if (footprint == 0.f) return 0.f;
        d /= footprint;
        filter = 1.f;
    }
    float const half = 0.5f * mSettings.width;
    if (filter == 0.f) return d <= half ? 1.f : 0.f;
    // The box filter over [d - f/2, d + f/2] of the line [-half, half] around the edge.
    float const lo = std::max(d - 0.5f * filter, -half), hi = std::min(d + 0.5f * filter, half);
    return std::clamp((hi - lo) / filter, 0.f, 1.f);
}

RgbAlpha WireframeEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    float const t = coverage(context);
    if (t <= 0.f) return mFace.evalColor(context, cache);
    if (t >= 1.f) return mEdge.evalColor(context, cache);
    return MapsDetail::mix(mFace.evalColor(context, cache), mEdge.evalColor(context, cache), t);
}

MonoAlpha WireframeEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    float const t = coverage(context);
    if (t <= 0.f) return mFace.evalMono(context, cache);
    if (t >= 1.f) return mEdge.evalMono(context, cache);
    return MapsDetail::mix(mFace.evalMono(context, cache), mEdge.evalMono(context, cache), t);
}

FERRIM_REGISTER_ENTITY(DistanceMap);
FERRIM_REGISTER_ENTITY(AmbientOcclusionMap);
FERRIM_REGISTER_ENTITY(CurvatureMap);
FERRIM_REGISTER_ENTITY(RoundEdgesMap);
FERRIM_REGISTER_ENTITY(WireframeMap);

} // namespace Quelin
