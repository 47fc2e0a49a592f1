#pragma once
// Box projection: three planar projections of up to three maps along the
// object's or the world's axes, blended by the shading normal.
//
// Axis a in {X, Y, Z} projects the point onto the plane across it; the plane
// coordinates (before placement) are
//   X: (+-y, z)   Y: (-+x, z)   Z: (+-x, y)
// with the first sign that of the normal's component along the axis, so a
// texture reads the right way round on both faces of a box. The per-axis
// placement is uv = R(rotation_a + random) ((plane - offset_a) / (size scale_a)),
// R a rotation in the plane. The map of axis a is then evaluated with its UVW
// replaced by (u, v, 0), its footprint carried over, and the tangents dP/du,
// dP/dv of this projection as its bump frame, so each map's bump points along
// its own projection.
//
// Blend weights: with n_a = |normal_a| and m the largest, the weight of axis a
// is max(n_a - (1 - blend) m, 0), normalised to sum 1. Blend 0 gives hard seams
// (the dominant axis alone; of equal axes the first), blend 1 weights in
// proportion to |normal_a|.
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"

namespace Quelin {

class FERRIM_EXPORT TriplanarMap : public IMap {
public:
    enum class Space : int { OBJECT = 0, WORLD = 1 };

    /// "mapX", "mapY", "mapZ", "sameMapOnEveryAxis", "space", "size", "blend",
    /// "offsetX", "offsetY", "offsetZ", "rotationX", "rotationY", "rotationZ",
    /// "scaleX", "scaleY", "scaleZ", "randomRotation", "seed".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& spaceType();
    };

    TriplanarMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

class FERRIM_EXPORT TriplanarEvaluator : public IMapEvaluator {
public:
    struct Axis {
        Vector2 offset{0.f, 0.f};  ///< scene units
        float rotation = 0.f;      ///< degrees
        float scale = 1.f;
    };
    struct Parameters {
        TriplanarMap::Space space = TriplanarMap::Space::OBJECT;
        float size = 1.f;   ///< scene units per texture repeat
        float blend = 0.2f;
        StaticArray<Axis, 3> axes{};
        bool randomRotation = false;
        int seed = 0;
    };

    /// `maps` are the inputs of X, Y and Z.
    TriplanarEvaluator(StaticArray<ColorOrMap::Evaluator, 3> maps, Parameters const& parameters);

    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;

    /// Blend weights of the three axes for a normal; they sum to 1.
    static StaticArray<float, 3> blendWeights(Dir const& normal, float blend);

    /// One axis's projection at a shading point.
    struct Projection {
        Pos uvw;           ///< (u, v, 0)
        Dir dUvw;          ///< footprint in u and v
        Dir dpdu, dpdv;    ///< world-space tangents
    };
    Projection project(IShadeContext const& context, int axis) const;
    Parameters const& parameters() const { return mParameters; }

private:
    /// What every projection of one shading point shares, read from the context once.
    struct Frame {
        Pos position;
        Dir normal;
        float footprint = 0.f;
        bool transformTangents = false;  ///< object space: tangents to world
        AffineTm toWorld;
    };
    /// One axis's constants of the colour and mono path, side by side.
    struct Placement {
        float cos, sin, inverseScale, offsetX, offsetY;
    };

    Frame frameWithTangents(IShadeContext const& context) const;
    Projection projectWithTangents(IShadeContext const& context, Frame const& frame, int axis) const;
    Pos randomlyTurnedUvw(IShadeContext const& context, int axis, float rawX, float rawY) const;
    // Kept out of the exported symbols, so that the entry points reach it directly.
#if defined(__GNUC__)
    template <typename Result>
    [[gnu::visibility("hidden")]] Result blendLookups(IShadeContext const& context, MapCache* cache) const;
#else
    template <typename Result> Result blendLookups(IShadeContext const& context, MapCache* cache) const;
#endif
    float randomAngle(IShadeContext const& context, int axis) const;

    StaticArray<ColorOrMap::Evaluator, 3> mMaps;
    Parameters mParameters;
    StaticArray<float, 3> mInverseScale{};  ///< 1 / (size scale_a)
    StaticArray<float, 3> mScaleLength{};   ///< size scale_a
    StaticArray<float, 3> mCos{}, mSin{};
    StaticArray<Placement, 3> mPlacement{};
    float mKeep = 0.8f;  ///< 1 - blend
    /// The one map of every axis, when they are one: its lookups go in one batch.
    IMapEvaluator const* mSharedEvaluator = nullptr;
};

} // namespace Quelin
