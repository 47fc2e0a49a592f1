#pragma once
// Two colour-or-map inputs blended by an amount (a number, or a mask map's
// mono value), in one of the blend modes, with an optional smoothstep curve
// on the amount. Amount 0 shows color1, amount 1 the blend of color2 over it.
#include "Ferrim/IMap.h"
#include "Ferrim/maps/CompositingSupport.h"

namespace Quelin {

class FERRIM_EXPORT MixMap : public IMap {
public:
    /// "color1", "color2", "amount", "mask", "maskOn", "blendMode", "useCurve", "curveLower", "curveUpper".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
    };

    MixMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
};

/// The mix at shading points; the amount comes from the mask or is fixed.
/// Each blend mode, with or without a mask, is its own compiled evaluator,
/// picked once by `create`, so a sample neither switches on the mode nor
/// asks whether there is a mask.
class FERRIM_EXPORT MixEvaluator : public IMapEvaluator {
public:
    /// amount: after the curve (used when there is no mask).
    static SharedPtr<MixEvaluator> create(ColorOrMap::Evaluator color1, ColorOrMap::Evaluator color2,
                                          SharedPtr<IMapEvaluator> mask, float amount, MapsDetail::AmountCurve curve,
                                          BlendMode mode);

    /// The inputs' bumps blended by the same amount.
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;
    /// The amount after the curve at this point.
    float amountAt(IShadeContext const& context, MapCache* cache) const {
        return mMask ? mCurve.apply(mMask->evalMono(context, cache).value) : mAmount;
    }
    BlendMode getMode() const { return mMode; }

    /// For the per-mode classes that `create` makes.
    MixEvaluator(ColorOrMap::Evaluator color1, ColorOrMap::Evaluator color2, SharedPtr<IMapEvaluator> mask,
                 float amount, MapsDetail::AmountCurve curve, BlendMode mode);

protected:
    ColorOrMap::Evaluator mColor1, mColor2;
    SharedPtr<IMapEvaluator> mMask;
    float mAmount;  ///< after the curve, when there is no mask
    MapsDetail::AmountCurve mCurve;
    BlendMode mMode;
};

} // namespace Quelin
