#pragma once
// Feeds an input map with texture coordinates changed at random per object,
// instance or face (and optionally per UV tile), so repeated textures do not
// look the same everywhere. The input reads the changed coordinates through
// its own UV mapper, from every channel.
//
// Per point the random key is the id of "randomBy" (object id, instance id,
// face index, or none) and "seed"; with "perTile" also the integer tile
// (floor u, floor v) of the channel's coordinates. The key's hash gives
// uniform numbers for: an offset in [-offsetU, offsetU] x [-offsetV, offsetV],
// a rotation in [-rotation, rotation] degrees, a uniform scale in
// [scaleMin, scaleMax], and, when enabled, mirror flips of u and v (each with
// probability 1/2). The change is, about the centre of the unit square (of
// the tile with perTile): uv' = centre + R S F (uv - centre) + offset.
// Footprints scale with S, and the bump frame follows the change, so the
// input's bump still points the right way on the surface.
//
// "stochastic" then hides the repetition of a tiled input without seams, by
// tiling and blending (Heitz and Neyret, "High-Performance By-Example Noise
// using a Histogram-Preserving Blending Operator", HPG 2018; the triangle grid
// as in Deliot and Heitz, "Procedural Stochastic Textures by Tiling and
// Blending", GPU Zen 2, 2019): the UV plane is cut into equilateral triangles
// of edge "stochasticSize"; every grid vertex gets a random offset in
// [0, 1)^2 from the key (id and seed); a point reads the input at its UV plus
// the offsets of its triangle's three vertices and blends the three by their
// barycentric weights b, narrowed by "stochasticBlend" (w = max(b - t, 0),
// t = (1 - blend) / 3, normalised to sum 1). A weight is 0 on the edge
// opposite its vertex, so the blend is continuous across triangles. With
// "preserveContrast" the blend keeps the input's variance: mean + sum w (c -
// mean) / sqrt(sum w^2), with the mean of the input over the unit UV square
// measured when the evaluator is built (alpha blends plainly), kept within
// the lowest and highest values measured there, so that it never shows values
// the input does not (negatives from a non-negative input, say). Bumps blend
// by the same weights (times 1 / sqrt(sum w^2) with "preserveContrast").
// Non-finite UVs read one tap; a NaN size or blend counts as 1.
#include "Ferrim/IMap.h"
#include "Ferrim/maps/CompositingSupport.h"

namespace Quelin {

class FERRIM_EXPORT MappingRandomizerMap : public IMap {
public:
    enum class RandomBy : int { ObjectId = 0, InstanceId, FaceIndex, None };
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& randomByType();
    };
    MappingRandomizerMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;

    /// The random change of one key: uv' = centre + linear (uv - centre) + offset.
    struct Change {
        float m00, m01, m10, m11;  ///< the 2x2 linear part, row-major
        float offsetU, offsetV;
    };
};

class FERRIM_EXPORT MappingRandomizerEvaluator : public IMapEvaluator {
public:
    struct Settings {
        MappingRandomizerMap::RandomBy randomBy = MappingRandomizerMap::RandomBy::ObjectId;
        std::uint32_t seed = 0;
        bool perTile = false;
        float offsetU = 0, offsetV = 0;
        float rotation = 0;  ///< radians
        float scaleMin = 1, scaleMax = 1;
        bool flipU = false, flipV = false;
        int uvChannel = 1;
        bool stochastic = false;
        float stochasticSize = 0.5f;   ///< triangle grid spacing in UV units, > 0
        float stochasticBlend = 0.5f;  ///< in (0, 1]: 1 the widest blend, small values narrow seams
        bool preserveContrast = true;
    };
    /// The three lookups of the stochastic tiling at (u, v): grid vertices and
    /// their weights (>= 0, summing to 1; a single tap of weight 1 for
    /// non-finite coordinates).
    struct Taps {
        int vertexU[3], vertexV[3];
        float weight[3];
    };
    static Taps stochasticTaps(float u, float v, float size, float blend);
    MappingRandomizerEvaluator(SharedPtr<IMapEvaluator> input, Settings const& settings);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;
    /// The change at a key (the id and, with perTile, the tile).
    MappingRandomizerMap::Change changeFor(std::uint32_t id, int tileU, int tileV) const;
    /// The random UV offset, in [0, 1)^2, of a stochastic grid vertex for an id.
    Vector2 vertexOffset(std::uint32_t id, int vertexU, int vertexV) const;

private:
    template <typename T, typename F> T lookup(IShadeContext const& context, F const& f) const;
    SharedPtr<IMapEvaluator> mInput;
    Settings mSettings;
    float mStochasticScale = 1.f;      ///< 1 / stochasticSize
    float mStochasticThreshold = 0.f;  ///< t = (1 - stochasticBlend) / 3
    /// The input over the unit UV square, measured when built: mean, lowest and
    /// highest colour channels and mono values.
    struct InputRange {
        RgbAlpha mean{0, 0, 0, 1}, low{0, 0, 0, 1}, high{0, 0, 0, 1};
        MonoAlpha meanMono{0, 1};
        float lowMono = 0, highMono = 0;
    };
    InputRange mRange;
};

} // namespace Quelin
