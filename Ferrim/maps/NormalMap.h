#pragma once
// A normal map: the colour of any input read as a normal, n = 2 c - 1 (green
// negated with "flipGreen", red with "flipRed"), in tangent, object or world
// space, turned into a perturbation of the shading normal that the renderer
// applies as normalize(N + bump), the same way as every map's bump.
//
// Tangent space uses the bump frame of the channel the input reads (the
// frame bump mapping uses): T is dP/du made orthogonal to N, B = N x T, turned
// to follow dP/dv (so mirrored UVs flip it), n_world = n.x T + n.y B + n.z N.
// Object-space normals go through the inverse transpose of the object's
// transform. "strength" s blends from the unperturbed normal:
// N' = normalize(N + s (n_world - N)). An additional bump map's perturbation
// (times "bumpStrength") is added on top, so the final normal is
// normalize(N' + bump). A map reading (0.5, 0.5, 1) in tangent space leaves
// the normal as it is. Colour and mono are the input's.
#include "Ferrim/IMap.h"
#include "Ferrim/maps/CompositingSupport.h"

namespace Quelin {

class FERRIM_EXPORT NormalMap : public IMap {
public:
    enum class Space : int { Tangent = 0, Object, World };
    /// "normalMap", "space", "strength", "flipRed", "flipGreen", "bumpMap", "bumpMapOn", "bumpStrength".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<TypeDefinition const> const& spaceType();
    };
    NormalMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

class FERRIM_EXPORT NormalMapEvaluator : public IMapEvaluator {
public:
    NormalMapEvaluator(ColorOrMap::Evaluator normal, NormalMap::Space space, float strength, bool flipRed,
                       bool flipGreen, SharedPtr<IMapEvaluator> bump, float bumpStrength, int uvChannel);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;
    /// The perturbed normal N' (before the additional bump), unit length.
    Dir perturbedNormal(IShadeContext const& context, MapCache* cache) const;

private:
    ColorOrMap::Evaluator mNormal;
    NormalMap::Space mSpace;
    float mStrength;
    float mRedSign, mGreenSign;
    SharedPtr<IMapEvaluator> mBump;
    float mBumpStrength;
    int mUvChannel;
};

} // namespace Quelin
