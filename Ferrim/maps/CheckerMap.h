#pragma once
// A checkerboard in the UV plane between two colour-or-map inputs, with an
// optional soft transition that is the exact box filter of the pattern.
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/UvMapper.h"
#include "Ferrim/maps/ProceduralSupport.h"

namespace Quelin {

class FERRIM_EXPORT CheckerMap : public IMap {
public:
    /// "uvMapper", "softenFactor", "color1", "color2".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };

    CheckerMap();
    SharedPtr<Entity> createNewInstance() const override;
    Optional<int> getOwnUvChannel() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

class FERRIM_EXPORT CheckerEvaluator : public IMapEvaluator {
public:
    CheckerEvaluator(SharedPtr<UvMapper const> uvMapper, float softenFactor, ColorOrMap::Evaluator color1,
                     ColorOrMap::Evaluator color2, float bumpStrength = BUMP_STRENGTH);

    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;

    /// Weight of color2 at (u, v): 0 or 1 with hard edges, the box-filtered
    /// pattern in [0, 1] with soft ones.
    float blendWeight(float u, float v) const;

    /// A unit step between the squares, measured per UV unit.
    static constexpr float BUMP_STRENGTH = 1.f;

private:
    SharedPtr<UvMapper const> mUvw;
    float mWidth;
    ColorOrMap::Evaluator mColor1;
    ColorOrMap::Evaluator mColor2;
    float mBumpStrength;
};

} // namespace Quelin
