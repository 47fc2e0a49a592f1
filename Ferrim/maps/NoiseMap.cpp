#include "Ferrim/maps/NoiseMap.h"

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/BumpConverterMap.h"
#include "Ferrim/maps/GradientNoise.h"
#include "Ferrim/maps/NoiseMapInline.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

namespace {

using MapsDetail::gradientNoise;
using MapsDetail::PERM;

SharedPtr<DataObjectDefinition const> buildDefinition() {
    ShadingDataObjectBuilder b;
    b.addUvMapper();
    b.addColorOrMap("color1", Rgb(0, 0, 0), "Color 1", "Colour (or map) where the noise is low");
    b.addColorOrMap("color2", Rgb(1, 1, 1), "Color 2", "Colour (or map) where the noise is high");
    b.addEnum("type", NoiseMap::Data::typeType(), int(NoiseMap::Type::REGULAR), "Type",
              "REGULAR: one octave of noise; FRACTAL: a sum of octaves of growing frequency");
    b.addFloat("size", 0.1f, "Size", "Size of the noise features in texture units")
        .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.001f));
    b.addFloat("levels", 6.f, "Levels",
               "Number of octaves of a fractal noise; a fractional part adds a partial octave")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(1.f, 20.f))
        .setMetadata(Metadata::UI_ENABLED_IF,
                     MetadataPredicate{"type == FRACTAL", [](GenericDataObject const& data) {
                                           return data.get<NoiseMap::Type>("type") == NoiseMap::Type::FRACTAL;
                                       }});
    b.addFloat("minThreshold", 0.f, "Low threshold", "Noise value at and below which the result is Color 1")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
    b.addFloat("maxThreshold", 1.f, "High threshold", "Noise value at and above which the result is Color 2")
        .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
    return b.build("Zatho.NoiseMap");
}

} // namespace

SharedPtr<TypeDefinition const> const& NoiseMap::Data::typeType() {
    static SharedPtr<TypeDefinition const> const t =
        TypeDefinition::makeEnum("Zatho.NoiseMap.Type", {{0, "REGULAR"}, {1, "FRACTAL"}});
    return t;
}

SharedPtr<DataObjectDefinition const> const& NoiseMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = buildDefinition();
    return d;
}

NoiseMap::NoiseMap() : IMap(Data::definition()) {}

SharedPtr<Entity> NoiseMap::createNewInstance() const { return makeSharedPtr<NoiseMap>(); }

Optional<int> NoiseMap::getOwnUvChannel() const { return MapsDetail::ownUvChannel(getData()); }

IMap::OptimizedResult NoiseMap::getEvaluatorImpl() const {
    GenericDataObject const& d = getData();
    float const levels = d.get<Type>("type") == Type::FRACTAL ? d.get<float>("levels") : 1.f;
    OptimizedResult result;
    result.evaluator = makeSharedPtr<NoiseMapEvaluator>(
        MapsDetail::evaluatorUvMapper(d), MapsDetail::colorOrMapEvaluator(d, "color1"),
        MapsDetail::colorOrMapEvaluator(d, "color2"), d.get<float>("size"), levels, d.get<float>("minThreshold"),
        d.get<float>("maxThreshold"));
    return result;
}

float NoiseMap::noise(Pos const& p) { return gradientNoise(Float4(p.x, p.y, p.z, 0.f)); }

StaticArray<std::uint32_t, 512> const& NoiseMap::permutationTable() { return PERM; }

NoiseMapEvaluator::NoiseMapEvaluator(SharedPtr<UvMapper const> uvMapper, ColorOrMap::Evaluator color1,
                                     ColorOrMap::Evaluator color2, float size, float levels, float minThreshold,
                                     float maxThreshold)
    : mUvw(uvMapper ? std::move(uvMapper) : makeSharedPtr<UvMapper const>()),
      mColor1(std::move(color1)), mColor2(std::move(color2)), mSize(size), mInverseSize(1.f / size), mLevels(levels),
      mMinThreshold(minThreshold), mMaxThreshold(maxThreshold),
      mRampDenominator(std::max(std::fabs(maxThreshold - minThreshold), 1e-6f)) {
    // floor by truncation, one lower for negative non-integers.
    float whole = float(int(levels));
    if (whole > levels) whole -= 1.f;
    mLevelFraction = levels - whole;
    // Dividing by a power of two is multiplying by its exact reciprocal.
    int exponent = 0;
    mRampIsPowerOfTwo = std::frexp(mRampDenominator, &exponent) == 0.5f;
    mRampReciprocal = 1.f / mRampDenominator;
    // ((sum + 1) / 2 - min) / denominator as scale * sum + offset.
    mSumToWeightScale = float(0.5 / double(mRampDenominator));
    mSumToWeightOffset = float((0.5 - double(minThreshold)) / double(mRampDenominator));
    mSingleOctave = levels == 1.f;
    mConstantInputs = mColor1.isConstant() && mColor2.isConstant();
    // UvMapper::computeUvw returns such a channel's point untouched.
    mChannelAsIs = mUvw->getMappingMode() == UvMappingMode::UvChannel && mUvw->getTransform() == AffineTm::identity();
    mChannel = mUvw->getChannel();
}

// The per-sample steps, inline in the evaluation entry points (the public
// member functions are exported, so calls to them would go through the
// dynamic linker's indirection); the steps that other evaluators use too
// are in NoiseMapInline.h.

// Several octaves apart: one octave's path then holds no loop state.
[[gnu::noinline]] float NoiseMapEvaluator::octaveSum(Float4 p) const {
    float amplitude = 1.f, sum = 0.f;
    if (mLevels > 0.f) {
        int i = 0;
        do {
            sum += amplitude * gradientNoise(p);
            ++i;
            amplitude *= 0.5f;
            p = p + p;
        } while (float(i) < mLevels);
    }
    // The fractional part of the level count adds one partial octave on top.
    if (mLevelFraction > 0.f) sum += gradientNoise(p) * (mLevelFraction * amplitude);
    return sum;
}

inline float NoiseMapEvaluator::noiseValueInline(Float4 uvw) const { return (noiseSumInline(uvw) + 1.f) * 0.5f; }

inline float NoiseMapEvaluator::blendWeightInline(float value) const {
    // The numerator keeps minThreshold even when the thresholds are reversed:
    // the ramp always rises from minThreshold upward.
    float const x = value - mMinThreshold;
    return clamp(mRampIsPowerOfTwo ? x * mRampReciprocal : x / mRampDenominator, 0.f, 1.f);
}

float NoiseMapEvaluator::noiseValue(Pos const& uvw) const { return noiseValueInline(MapsDetail::pointLanes(uvw)); }

float NoiseMapEvaluator::blendWeight(float value) const { return blendWeightInline(value); }

// Any other mapper, apart: the common one's path then keeps nothing in memory.
[[gnu::noinline]] float NoiseMapEvaluator::weightThroughMapper(IShadeContext const& context) const {
    return weightOfSum(noiseSumInline(MapsDetail::pointLanes(mUvw->computeUvw(context))));
}

inline float NoiseMapEvaluator::weightAt(IShadeContext const& context) const {
    // The common mapper, a UV channel as it is, is read here without its dispatch.
    if (!mChannelAsIs) [[unlikely]]
        return weightThroughMapper(context);
    return weightOfSum(noiseSumInline(MapsDetail::pointLanes(context.getUvw(mChannel))));
}

// Two constant inputs, the common case, keep the entry points short: the
// blend is the whole answer (and equals the ends at t = 0 and 1), so the only
// call is the context's and little has to live across it.
RgbAlpha NoiseMapEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    if (!mConstantInputs) [[unlikely]]
        return mixedColor(context, cache);
    return MapsDetail::mix(mColor1.getColor(), mColor2.getColor(), weightAt(context));
}

MonoAlpha NoiseMapEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    if (!mConstantInputs) [[unlikely]]
        return mixedMono(context, cache);
    return MapsDetail::mix(mColor1.getMono(), mColor2.getMono(), weightAt(context));
}

// Inputs that are maps: only those with weight are evaluated.
[[gnu::noinline]] RgbAlpha NoiseMapEvaluator::mixedColor(IShadeContext const& context, MapCache* cache) const {
    float const t = weightAt(context);
    if (t <= 0.f) return mColor1.evalColor(context, cache);
    if (t >= 1.f) return mColor2.evalColor(context, cache);
    return MapsDetail::mix(mColor1.evalColor(context, cache), mColor2.evalColor(context, cache), t);
}

[[gnu::noinline]] MonoAlpha NoiseMapEvaluator::mixedMono(IShadeContext const& context, MapCache* cache) const {
    float const t = weightAt(context);
    if (t <= 0.f) return mColor1.evalMono(context, cache);
    if (t >= 1.f) return mColor2.evalMono(context, cache);
    return MapsDetail::mix(mColor1.evalMono(context, cache), mColor2.evalMono(context, cache), t);
}

Dir NoiseMapEvaluator::evalBump(IShadeContext const& context, MapCache*) const {
    return BumpConverterMap::evalBump(context, *this, *mUvw, mBumpStrength, mSize);
}

FERRIM_REGISTER_ENTITY(NoiseMap);

} // namespace Quelin
