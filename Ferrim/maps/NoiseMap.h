#pragma once
// Gradient noise (improved Perlin noise with a 12-gradient lookup) blending
// two colour-or-map inputs, as a single octave or as a fractal sum.
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/UvMapper.h"
#include "Ferrim/maps/ProceduralSupport.h"
#include "QuelinLib/Float4.h"

#if defined(__GNUC__)
/// Per-sample helpers stay out of the exported symbols, so calls to them are direct.
#define FERRIM_NOISE_INTERNAL [[gnu::visibility("hidden")]]
#else
#define FERRIM_NOISE_INTERNAL
#endif

namespace Quelin {

class FERRIM_EXPORT NoiseMap : public IMap {
public:
    enum class Type : int { REGULAR = 0, FRACTAL = 1 };

    /// "uvMapper", "color1", "color2", "type", "size", "levels", "minThreshold", "maxThreshold".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& typeType();
    };

    NoiseMap();
    SharedPtr<Entity> createNewInstance() const override;
    Optional<int> getOwnUvChannel() const override;
    OptimizedResult getEvaluatorImpl() const override;

    /// Gradient noise at a point, in about [-1, 1]; 0 at every integer lattice
    /// point, period 256 on each axis.
    static float noise(Pos const& p);
    /// Ken Perlin's reference permutation, stored twice (512 entries).
    static StaticArray<std::uint32_t, 512> const& permutationTable();
};

class FERRIM_EXPORT NoiseMapEvaluator : public IMapEvaluator {
public:
    /// `levels` is the effective octave count (1 for a regular noise).
    NoiseMapEvaluator(SharedPtr<UvMapper const> uvMapper, ColorOrMap::Evaluator color1, ColorOrMap::Evaluator color2,
                      float size, float levels, float minThreshold, float maxThreshold);

    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;
    /// The UV channel that alone decides the colour, when the mapper takes its
    /// point as it is and both inputs are constant: then evalColor is
    /// colorAtPoint of that channel's point.
    Optional<int> directChannel() const {
        return mChannelAsIs && mConstantInputs ? Optional<int>(mChannel) : std::nullopt;
    }
    /// The colour at a point of directChannel (as x, y, z, 0), as inline code
    /// (in NoiseMapInline.h, which only the library includes) for evaluators
    /// that hold noise inputs and read the point once for all of them.
    FERRIM_NOISE_INTERNAL RgbAlpha colorAtPoint(Float4 uvw) const;

    /// The fractal sum mapped to about [0, 1] at a UVW point (before the threshold ramp).
    float noiseValue(Pos const& uvw) const;
    /// The blend weight of color2 for a noise value.
    float blendWeight(float value) const;

    static constexpr float BUMP_STRENGTH = 15.f;

private:
    /// The octaves' sum, in about [-1, 1].
    float noiseSumInline(Float4 uvw) const;
    float noiseValueInline(Float4 uvw) const;
    FERRIM_NOISE_INTERNAL float octaveSum(Float4 p) const;
    float blendWeightInline(float value) const;
    /// The blend weight of color2 at a shading point.
    float weightAt(IShadeContext const& context) const;
    FERRIM_NOISE_INTERNAL float weightThroughMapper(IShadeContext const& context) const;
    float weightOfSum(float sum) const;
    FERRIM_NOISE_INTERNAL RgbAlpha mixedColor(IShadeContext const& context, MapCache* cache) const;
    FERRIM_NOISE_INTERNAL MonoAlpha mixedMono(IShadeContext const& context, MapCache* cache) const;

    SharedPtr<UvMapper const> mUvw;
    ColorOrMap::Evaluator mColor1;
    ColorOrMap::Evaluator mColor2;
    float mSize;
    float mInverseSize;  ///< 1 / size: the point is scaled by a multiply per sample
    float mLevels;
    float mMinThreshold;
    float mMaxThreshold;
    float mRampDenominator;  ///< max(|max - min|, 1e-6)
    float mRampReciprocal;
    bool mRampIsPowerOfTwo;
    bool mConstantInputs;
    float mLevelFraction;    ///< levels - floor(levels): weight of the partial octave
    float mBumpStrength = BUMP_STRENGTH;
    float mSumToWeightScale;   ///< the blend weight is clamp(scale sum + offset, 0, 1)
    float mSumToWeightOffset;
    bool mSingleOctave;        ///< one octave and no partial one
    bool mChannelAsIs = false;  ///< the mapper reads channel mChannel and places it as it is
    int mChannel = 0;
};

} // namespace Quelin
