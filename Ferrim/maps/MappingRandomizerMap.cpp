#include "Ferrim/maps/MappingRandomizerMap.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <type_traits>

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
        auto const stochasticOn =
            MetadataPredicate{"stochastic", [](GenericDataObject const& d) { return d.get<bool>("stochastic"); }};
        b.addBool("stochastic", false, "Stochastic tiling",
                  "Blend three randomly shifted copies of the input at every point, so a tiled texture shows no "
                  "repetition and no seams");
        b.addFloat("stochasticSize", 0.5f, "Stochastic size", "Spacing of the blended patches, in UV units")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(1e-3f, 1e3f))
            .setMetadata(Metadata::UI_ENABLED_IF, stochasticOn);
        b.addFloat("stochasticBlend", 0.5f, "Stochastic blend",
                   "Width of the blend between patches: 1 blends everywhere, small values keep patches whole")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.01f, 1.f))
            .setMetadata(Metadata::UI_ENABLED_IF, stochasticOn);
        b.addBool("preserveContrast", true, "Preserve contrast",
                  "Keep the input's contrast where patches blend instead of averaging it away")
            .setMetadata(Metadata::UI_ENABLED_IF, stochasticOn);
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
    s.stochastic = get<bool>("stochastic");
    s.stochasticSize = get<float>("stochasticSize");
    s.stochasticBlend = get<float>("stochasticBlend");
    s.preserveContrast = get<bool>("preserveContrast");
    bool const identity = s.offsetU == 0.f && s.offsetV == 0.f && s.rotation == 0.f && s.scaleMin == 1.f &&
                          s.scaleMax == 1.f && !s.flipU && !s.flipV && !s.stochastic;
    // Nothing to change, or an input that does not look at the coordinates.
    if (identity || input.hasConstant) return input;
    OptimizedResult r;
    r.evaluator = makeSharedPtr<MappingRandomizerEvaluator>(std::move(input.evaluator), s);
    return r;
}

namespace {

/// The key of an id and seed, before the tile or grid vertex is mixed in.
inline std::uint32_t keyOf(std::uint32_t id, std::uint32_t seed) { return mix32(id ^ mix32(seed + 0x9e3779b9u)); }

constexpr float SQRT3 = 1.7320508f;

/// Grid vertices and weights at (u, v) in grid units (edge 1); t narrows the blend.
MappingRandomizerEvaluator::Taps tapsAt(float u, float v, float t) {
    MappingRandomizerEvaluator::Taps taps{};
    if (!(std::isfinite(u) && std::isfinite(v))) {
        taps.weight[0] = 1.f;
        return taps;
    }
    // Skewed into the lattice of e1 = (1, 0) and e2 = (1/2, sqrt(3)/2): each
    // unit square there is two equilateral triangles in UV.
    float const b = v * (2.f / SQRT3), a = u - 0.5f * b;
    float const fa = std::floor(a), fb = std::floor(b);
    int const ia = tileOf(a), ib = tileOf(b);
    float const x = a - fa, y = b - fb, z = 1.f - x - y;
    float bary[3];
    if (z > 0.f) {
        // Lower triangle: (ia, ib) opposite the diagonal, weight z.
        taps = {{ia, ia, ia + 1}, {ib, ib + 1, ib}, {}};
        bary[0] = z, bary[1] = y, bary[2] = x;
    } else {
        taps = {{ia + 1, ia + 1, ia}, {ib + 1, ib, ib + 1}, {}};
        bary[0] = -z, bary[1] = 1.f - y, bary[2] = 1.f - x;
    }
    // The largest barycentric weight is at least 1/3 > t, so the sum is positive.
    float sum = 0.f;
    for (int i = 0; i < 3; ++i) sum += taps.weight[i] = std::max(bary[i] - t, 0.f);
    for (float& w : taps.weight) w /= sum;
    return taps;
}

/// mean + k sum w (c - mean), channel by channel; alpha sum w alpha.
RgbAlpha blendTaps(RgbAlpha const (&c)[3], float const (&w)[3], RgbAlpha const& mean, float k) {
    RgbAlpha r(0.f, 0.f, 0.f, 0.f);
    for (int i = 0; i < 3; ++i) {
        r.r += w[i] * (c[i].r - mean.r), r.g += w[i] * (c[i].g - mean.g), r.b += w[i] * (c[i].b - mean.b);
        r.alpha += w[i] * c[i].alpha;
    }
    return {mean.r + k * r.r, mean.g + k * r.g, mean.b + k * r.b, r.alpha};
}
MonoAlpha blendTaps(MonoAlpha const (&c)[3], float const (&w)[3], MonoAlpha const& mean, float k) {
    float v = 0.f, a = 0.f;
    for (int i = 0; i < 3; ++i) v += w[i] * (c[i].value - mean.value), a += w[i] * c[i].alpha;
    return {mean.value + k * v, a};
}
Dir blendTaps(Dir const (&c)[3], float const (&w)[3], Dir const&, float k) {
    return (c[0] * w[0] + c[1] * w[1] + c[2] * w[2]) * k;
}

/// Clamps channel by channel; NaN stays NaN.
float within(float v, float low, float high) { return std::min(std::max(v, low), high); }

} // namespace

MappingRandomizerEvaluator::MappingRandomizerEvaluator(SharedPtr<IMapEvaluator> input, Settings const& settings)
    : mInput(std::move(input)), mSettings(settings) {
    mSettings.stochasticSize = std::isfinite(settings.stochasticSize) && settings.stochasticSize > 0.f
                                   ? settings.stochasticSize : 1.f;
    mSettings.stochasticBlend = clamp(std::isnan(settings.stochasticBlend) ? 1.f : settings.stochasticBlend, 0.01f, 1.f);
    mStochasticScale = 1.f / mSettings.stochasticSize;
    mStochasticThreshold = (1.f - mSettings.stochasticBlend) / 3.f;
    if (!mInput || !mSettings.stochastic || !mSettings.preserveContrast) return;
    // A jittered 32 x 32 grid; sums in double, so an input that is constant
    // gives its value exactly.
    constexpr int N = 32;
    double sum[6] = {};
    float low[6], high[6];
    std::fill(low, low + 6, std::numeric_limits<float>::infinity());
    std::fill(high, high + 6, -std::numeric_limits<float>::infinity());
    NullShadeContext const base;
    for (int j = 0; j < N; ++j)
        for (int i = 0; i < N; ++i) {
            std::uint32_t const h = mix32(std::uint32_t(j * N + i) + 0x51ed27u);
            Pos const uvw((float(i) + unit(h)) / N, (float(j) + unit(mix32(h))) / N, 0.f);
            OverridableUvwShadeContext const point(base, uvw, Dir(1.f / N, 1.f / N, 0.f));
            RgbAlpha const c = mInput->evalColor(point, nullptr);
            MonoAlpha const m = mInput->evalMono(point, nullptr);
            float const values[6] = {c.r, c.g, c.b, c.alpha, m.value, m.alpha};
            for (int k = 0; k < 6; ++k) {
                sum[k] += values[k];
                low[k] = std::min(low[k], values[k]), high[k] = std::max(high[k], values[k]);
            }
        }
    auto const mean = [&](int k) { return float(sum[k] / (N * N)); };
    mRange.mean = RgbAlpha(mean(0), mean(1), mean(2), mean(3));
    mRange.low = RgbAlpha(low[0], low[1], low[2], low[3]);
    mRange.high = RgbAlpha(high[0], high[1], high[2], high[3]);
    mRange.meanMono = MonoAlpha(mean(4), mean(5));
    mRange.lowMono = low[4], mRange.highMono = high[4];
}

MappingRandomizerEvaluator::Taps MappingRandomizerEvaluator::stochasticTaps(float u, float v, float size, float blend) {
    return tapsAt(u / size, v / size, (1.f - blend) / 3.f);
}

Vector2 MappingRandomizerEvaluator::vertexOffset(std::uint32_t id, int vertexU, int vertexV) const {
    std::uint32_t const h = mix32(keyOf(id, mSettings.seed) ^
                                  mix32(std::uint32_t(vertexU) * 0x27d4eb2fu ^ std::uint32_t(vertexV) * 0x165667b1u));
    return {unit(mix32(h + 11u)), unit(mix32(h + 12u))};
}

MappingRandomizerMap::Change MappingRandomizerEvaluator::changeFor(std::uint32_t id, int tileU, int tileV) const {
    std::uint32_t h = keyOf(id, mSettings.seed);
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

template <typename T, typename F>
T MappingRandomizerEvaluator::lookup(IShadeContext const& context, F const& f) const {
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
    if (!mSettings.stochastic) {
        OverridableUvwShadeContext const changedContext(context, changed, footprint, dpdu2, dpdv2, true);
        return f(changedContext);
    }
    // The offsets only shift the coordinates, so the footprint and frame stay.
    Taps const taps = tapsAt(changed.x * mStochasticScale, changed.y * mStochasticScale, mStochasticThreshold);
    T values[3] = {};
    float squares = 0.f;
    for (int i = 0; i < 3; ++i) {
        if (!(taps.weight[i] > 0.f)) continue;
        Vector2 const o = vertexOffset(id, taps.vertexU[i], taps.vertexV[i]);
        OverridableUvwShadeContext const tap(context, Pos(changed.x + o.x, changed.y + o.y, changed.z), footprint, dpdu2,
                                             dpdv2, true);
        values[i] = f(tap);
        squares += taps.weight[i] * taps.weight[i];
    }
    if (!mSettings.preserveContrast) return blendTaps(values, taps.weight, T(), 1.f);
    float const k = 1.f / std::sqrt(squares);
    if constexpr (std::is_same_v<T, RgbAlpha>) {
        RgbAlpha const c = blendTaps(values, taps.weight, mRange.mean, k);
        RgbAlpha const &lo = mRange.low, &hi = mRange.high;
        return {within(c.r, lo.r, hi.r), within(c.g, lo.g, hi.g), within(c.b, lo.b, hi.b), c.alpha};
    } else if constexpr (std::is_same_v<T, MonoAlpha>) {
        MonoAlpha const m = blendTaps(values, taps.weight, mRange.meanMono, k);
        return {within(m.value, mRange.lowMono, mRange.highMono), m.alpha};
    } else {
        return blendTaps(values, taps.weight, T(), k);
    }
}

RgbAlpha MappingRandomizerEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    return lookup<RgbAlpha>(context, [&](IShadeContext const& c) { return mInput->evalColor(c, cache); });
}

MonoAlpha MappingRandomizerEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    return lookup<MonoAlpha>(context, [&](IShadeContext const& c) { return mInput->evalMono(c, cache); });
}

Dir MappingRandomizerEvaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    return lookup<Dir>(context, [&](IShadeContext const& c) { return mInput->evalBump(c, cache); });
}

FERRIM_REGISTER_ENTITY(MappingRandomizerMap);

} // namespace Quelin
