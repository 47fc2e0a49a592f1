#include "Ferrim/maps/FractalMap.h"

#include <algorithm>
#include <cmath>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/BumpConverterMap.h"
#include "Ferrim/maps/CellularMap.h"
#include "Ferrim/maps/GradientNoise.h"
#include "Ferrim/maps/NoiseMap.h"

namespace Quelin {

namespace {

using Type = FractalMap::Type;

/// Averages of the bases over many points, measured once: what a faded octave stands for.
struct BasisMoments {
    float absNoise = 0.f;   ///< E|n|
    float noiseSquared = 0.f;  ///< E n^2
    float nearest = 0.f;    ///< E F1
};
BasisMoments const& basisMoments() {
    static BasisMoments const m = [] {
        BasisMoments r;
        constexpr int N = 32;
        double a = 0, s = 0, f = 0;
        // A lattice with irrational steps covers the unit cells evenly without a random source.
        for (int i = 0; i < N; ++i)
            for (int j = 0; j < N; ++j)
                for (int k = 0; k < N; ++k) {
                    Pos const p(float(i) * 1.6180339f + 0.1f, float(j) * 1.4142135f + 0.2f, float(k) * 1.7320508f + 0.3f);
                    float const n = NoiseMap::noise(p);
                    a += std::fabs(n), s += double(n) * n;
                    f += std::sqrt(double(CellularEvaluator::distanceSlots(p)[0]));
                }
        double const count = double(N) * N * N;
        r.absNoise = float(a / count), r.noiseSquared = float(s / count), r.nearest = float(f / count);
        return r;
    }();
    return m;
}

float finiteClamp(float v, float lo, float hi, float fallback) { return std::isfinite(v) ? std::clamp(v, lo, hi) : fallback; }

SharedPtr<DataObjectDefinition const> buildDefinition() {
    ShadingDataObjectBuilder b;
    b.addUvMapper();
    b.addColorOrMap("color1", Rgb(0, 0, 0), "Color 1", "Colour (or map) where the fractal is low");
    b.addColorOrMap("color2", Rgb(1, 1, 1), "Color 2", "Colour (or map) where the fractal is high");
    b.addEnum("type", FractalMap::Data::typeType(), int(Type::FBM), "Type",
              "FBM: a sum of noise octaves; RIDGED: sharp crests where the noise crosses zero; "
              "TURBULENCE: a sum of absolute noise; WORLEY: a sum of distances to cellular feature points");
    b.addFloat("size", 0.25f, "Size", "Size of the largest features in texture units")
        .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.001f));
    b.addFloat("octaves", 6.f, "Octaves", "Number of octaves; a fractional part adds a partial octave")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(1.f, float(FractalEvaluator::MAX_OCTAVES)));
    b.addFloat("lacunarity", 2.f, "Lacunarity", "Frequency factor from one octave to the next")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(1.f, 16.f));
    b.addFloat("gain", 0.5f, "Gain", "Amplitude factor from one octave to the next (roughness)")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
    b.addFloat("offset", 1.f, "Offset", "Height of the ridges of a ridged fractal")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 2.f))
        .setMetadata(Metadata::UI_ENABLED_IF, MetadataPredicate{"type == RIDGED", [](GenericDataObject const& data) {
                                                                     return data.get<Type>("type") == Type::RIDGED;
                                                                 }});
    b.addBool("footprintCulling", true, "Footprint culling",
              "Fade out octaves finer than the pixel footprint, so distant surfaces do not flicker");
    return b.build("Zatho.FractalMap");
}

} // namespace

SharedPtr<TypeDefinition const> const& FractalMap::Data::typeType() {
    static SharedPtr<TypeDefinition const> const t = TypeDefinition::makeEnum(
        "Zatho.FractalMap.Type", {{0, "FBM"}, {1, "RIDGED"}, {2, "TURBULENCE"}, {3, "WORLEY"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& FractalMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildDefinition();
    return d;
}

FractalMap::FractalMap() : IMap(Data::definition()) {}

SharedPtr<Entity> FractalMap::createNewInstance() const { return makeSharedPtr<FractalMap>(); }

Optional<int> FractalMap::getOwnUvChannel() const { return MapsDetail::ownUvChannel(getData()); }

IMap::OptimizedResult FractalMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    FractalEvaluator::Parameters p;
    p.type = d.get<Type>("type");
    p.size = d.get<float>("size");
    p.octaves = d.get<float>("octaves");
    p.lacunarity = d.get<float>("lacunarity");
    p.gain = d.get<float>("gain");
    p.offset = d.get<float>("offset");
    p.footprintCulling = d.get<bool>("footprintCulling");
    OptimizedResult result;
    result.evaluator = makeSharedPtr<FractalEvaluator>(MapsDetail::evaluatorUvMapper(d), MapsDetail::colorOrMapEvaluator(d, "color1"),
                                                       MapsDetail::colorOrMapEvaluator(d, "color2"), p);
    return result;
}

FractalEvaluator::FractalEvaluator(SharedPtr<UvMapper const> uvMapper, ColorOrMap::Evaluator color1,
                                   ColorOrMap::Evaluator color2, Parameters const& parameters)
    : mUvw(uvMapper ? std::move(uvMapper) : makeSharedPtr<UvMapper const>()), mColor1(std::move(color1)),
      mColor2(std::move(color2)), mParameters(parameters) {
    // Out-of-range and non-finite parameters: clamped, or the default where there is nothing to clamp to.
    Parameters const defaults;
    Parameters& p = mParameters;
    p.size = std::isfinite(p.size) ? std::max(p.size, 0.001f) : defaults.size;
    p.octaves = finiteClamp(p.octaves, 1.f, float(MAX_OCTAVES), defaults.octaves);
    p.lacunarity = finiteClamp(p.lacunarity, 1.f, 16.f, defaults.lacunarity);
    p.gain = finiteClamp(p.gain, 0.f, 1.f, defaults.gain);
    p.offset = finiteClamp(p.offset, 0.f, 2.f, defaults.offset);
    mInverseSize = 1.f / p.size;
    mConstantInputs = mColor1.isConstant() && mColor2.isConstant();

    mWholeOctaves = int(p.octaves);
    mFraction = p.octaves - float(mWholeOctaves);
    float frequency = 1.f, amplitude = 1.f;
    for (int i = 0; i <= MAX_OCTAVES; ++i) {
        mFrequency[std::size_t(i)] = frequency;
        mAmplitude[std::size_t(i)] = i < mWholeOctaves ? amplitude : (i == mWholeOctaves ? amplitude * mFraction : 0.f);
        frequency *= p.lacunarity;
        amplitude *= p.gain;
    }
    float total = 0.f;
    for (float a : mAmplitude) total += a;

    BasisMoments const& m = basisMoments();
    float reach = 1.f;
    switch (p.type) {
    case Type::FBM: mBasisMean = 0.f; break;
    case Type::TURBULENCE: mBasisMean = m.absNoise; break;
    case Type::RIDGED:
        mBasisMean = p.offset * p.offset - 2.f * p.offset * m.absNoise + m.noiseSquared;
        reach = std::max(p.offset, 1.f) * std::max(p.offset, 1.f);
        break;
    case Type::WORLEY: mBasisMean = m.nearest; break;
    default: Detail::throwStopException("maps/FractalMap", 160);
    }
    mNormalizer = total > 0.f ? 1.f / (total * reach) : 0.f;
}

float FractalEvaluator::octaveWeight(int octave, float footprint) const {
    if (!mParameters.footprintCulling || !(footprint > 0.f)) return 1.f;
    float const x = footprint * mFrequency[std::size_t(std::clamp(octave, 0, MAX_OCTAVES))];
    return std::clamp(2.f - 4.f * x, 0.f, 1.f);
}

float FractalEvaluator::octaveSum(Pos const& p, float footprint) const { return sumImpl(p, footprint); }

namespace {

template <Type T> inline float basisOf(Float4 p) {
    if constexpr (T == Type::WORLEY) {
        alignas(16) float q[4];
        p.store(q);
        return std::sqrt(CellularEvaluator::distanceSlots(Pos(q[0], q[1], q[2]))[0]);
    } else {
        return MapsDetail::gradientNoise(p);
    }
}

} // namespace

template <int TypeIndex> float FractalEvaluator::sumOf(Pos const& p, float footprint) const {
    constexpr Type T = Type(TypeIndex);
    int const count = mWholeOctaves + (mFraction > 0.f ? 1 : 0);
    // Octaves up to `full` keep their whole weight: the common case runs without the fade.
    int full = count;
    if (mParameters.footprintCulling && footprint > 0.f) {
        full = 0;
        while (full < count && footprint * mFrequency[std::size_t(full)] <= 0.25f) ++full;
    }
    Float4 const base(p.x, p.y, p.z, 0.f);
    float sum = 0.f, weight = 1.f;
    int i = 0;
    for (; i < full; ++i) {
        float const n = basisOf<T>(base * Float4(mFrequency[std::size_t(i)]));
        float const a = mAmplitude[std::size_t(i)];
        if constexpr (T == Type::FBM || T == Type::WORLEY) {
            sum += a * n;
        } else if constexpr (T == Type::TURBULENCE) {
            sum += a * std::fabs(n);
        } else {
            float const r = mParameters.offset - std::fabs(n);
            sum += a * (r * r * weight);
            // Crests grow sharper where the coarser octaves already are high.
            weight = std::clamp(r * r, 0.f, 1.f);
        }
    }
    for (; i < count; ++i) {
        float const w = octaveWeight(i, footprint);
        float const a = mAmplitude[std::size_t(i)];
        if (w == 0.f) {
            // This octave and every finer one stand at their mean.
            for (int j = i; j < count; ++j) sum += mAmplitude[std::size_t(j)] * mBasisMean * weight;
            break;
        }
        float const n = basisOf<T>(base * Float4(mFrequency[std::size_t(i)]));
        float term;
        if constexpr (T == Type::FBM || T == Type::WORLEY) {
            term = n;
        } else if constexpr (T == Type::TURBULENCE) {
            term = std::fabs(n);
        } else {
            float const r = mParameters.offset - std::fabs(n);
            term = r * r * weight;
            weight = w * std::clamp(r * r, 0.f, 1.f) + (1.f - w) * std::clamp(mBasisMean, 0.f, 1.f);
        }
        sum += a * (w * term + (1.f - w) * mBasisMean);
    }
    return sum;
}

float FractalEvaluator::sumImpl(Pos const& p, float footprint) const {
    switch (mParameters.type) {
    case Type::FBM: return sumOf<int(Type::FBM)>(p, footprint);
    case Type::RIDGED: return sumOf<int(Type::RIDGED)>(p, footprint);
    case Type::TURBULENCE: return sumOf<int(Type::TURBULENCE)>(p, footprint);
    case Type::WORLEY: return sumOf<int(Type::WORLEY)>(p, footprint);
    }
    return 0.f;
}

float FractalEvaluator::value(Pos const& uvw, float footprint) const {
    Pos const p(uvw.x * mInverseSize, uvw.y * mInverseSize, uvw.z * mInverseSize);
    float const s = sumImpl(p, footprint * mInverseSize) * mNormalizer;
    return mParameters.type == Type::FBM ? (s + 1.f) * 0.5f : s;
}

RgbAlpha FractalEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    Dir const d = mUvw->computeDUvw(context);
    float const t = clamp(value(mUvw->computeUvw(context), std::max({d.x, d.y, d.z})), 0.f, 1.f);
    if (mConstantInputs) return MapsDetail::mix(mColor1.getColor(), mColor2.getColor(), t);
    if (t <= 0.f) return mColor1.evalColor(context, cache);
    if (t >= 1.f) return mColor2.evalColor(context, cache);
    return MapsDetail::mix(mColor1.evalColor(context, cache), mColor2.evalColor(context, cache), t);
}

MonoAlpha FractalEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    Dir const d = mUvw->computeDUvw(context);
    float const t = clamp(value(mUvw->computeUvw(context), std::max({d.x, d.y, d.z})), 0.f, 1.f);
    if (mConstantInputs) return MapsDetail::mix(mColor1.getMono(), mColor2.getMono(), t);
    if (t <= 0.f) return mColor1.evalMono(context, cache);
    if (t >= 1.f) return mColor2.evalMono(context, cache);
    return MapsDetail::mix(mColor1.evalMono(context, cache), mColor2.evalMono(context, cache), t);
}

Dir FractalEvaluator::evalBump(IShadeContext const& context, MapCache*) const {
    return BumpConverterMap::evalBump(context, *this, *mUvw, BUMP_STRENGTH, mParameters.size);
}

FERRIM_REGISTER_ENTITY(FractalMap);

} // namespace Quelin
