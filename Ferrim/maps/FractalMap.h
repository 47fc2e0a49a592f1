#pragma once
// Fractal sums of the noise map's gradient noise (or of the cellular map's
// nearest-point distance), blending two colour-or-map inputs.
//
// Octave i samples the basis at frequency lacunarity^i with amplitude gain^i:
//   FBM         sum a_i n(f_i p)                         (Perlin's fractional Brownian motion)
//   TURBULENCE  sum a_i |n(f_i p)|
//   RIDGED      sum a_i w_i r_i, r_i = (offset - |n(f_i p)|)^2, w_0 = 1, w_{i+1} = clamp(r_i, 0, 1)
//               (Musgrave's ridged multifractal, "Texturing and Modeling", 3rd ed., ch. 16)
//   WORLEY      sum a_i F1(f_i p), F1 the distance to the nearest cellular feature point
// A fractional octave count adds the next octave scaled by the fraction. The
// sum is divided by what its octaves can reach, so the value lies in about
// [0, 1] (FBM maps [-1, 1] to it).
//
// Footprint culling: with w the placed footprint over the size (in noise
// units), octave i keeps its full weight while f_i w <= 1/4 and fades
// linearly to nothing at f_i w = 1/2, where it would alias; a faded octave is
// replaced by its mean, so distant surfaces tend to the average colour
// instead of to noise. Higher octaves are never weighted more than lower
// ones, and the loop stops at the first octave that is gone.
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/UvMapper.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

class FERRIM_EXPORT FractalMap : public IMap {
public:
    enum class Type : int { FBM = 0, RIDGED = 1, TURBULENCE = 2, WORLEY = 3 };

    /// "uvMapper", "color1", "color2", "type", "size", "octaves", "lacunarity", "gain", "offset",
    /// "footprintCulling".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& typeType();
    };

    FractalMap();
    SharedPtr<Entity> createNewInstance() const override;
    Optional<int> getOwnUvChannel() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

class FERRIM_EXPORT FractalEvaluator : public IMapEvaluator {
public:
    struct Parameters {
        FractalMap::Type type = FractalMap::Type::FBM;
        float size = 0.25f;
        float octaves = 6.f;       ///< clamped to [0, MAX_OCTAVES]
        float lacunarity = 2.f;    ///< clamped to [1, 16]
        float gain = 0.5f;         ///< clamped to [0, 1]
        float offset = 1.f;        ///< ridged only; clamped to [0, 2]
        bool footprintCulling = true;
    };
    static constexpr int MAX_OCTAVES = 16;
    static constexpr float BUMP_STRENGTH = 15.f;

    FractalEvaluator(SharedPtr<UvMapper const> uvMapper, ColorOrMap::Evaluator color1, ColorOrMap::Evaluator color2,
                     Parameters const& parameters);

    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;

    /// The unnormalised sum at a point in noise units (UVW over the size) for
    /// a footprint in noise units (0: every octave).
    float octaveSum(Pos const& p, float footprint) const;
    /// The value in about [0, 1] at a placed UVW with its footprint (texture units).
    float value(Pos const& uvw, float footprint) const;
    /// Weight of octave i in [0, 1] at a footprint in noise units.
    float octaveWeight(int octave, float footprint) const;
    Parameters const& parameters() const { return mParameters; }

private:
    float sumImpl(Pos const& p, float footprint) const;
    template <int TypeIndex> float sumOf(Pos const& p, float footprint) const;

    SharedPtr<UvMapper const> mUvw;
    ColorOrMap::Evaluator mColor1, mColor2;
    Parameters mParameters;
    bool mConstantInputs;
    int mWholeOctaves;
    float mFraction;
    float mInverseSize;
    float mBasisMean;   ///< what a faded octave contributes per unit amplitude
    float mNormalizer;  ///< 1 / the sum of the octaves' reach
    StaticArray<float, MAX_OCTAVES + 1> mFrequency{}, mAmplitude{};
};

} // namespace Quelin
