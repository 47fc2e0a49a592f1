#include "Ferrim/maps/MixMap.h"

#include <typeinfo>

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/maps/NoiseMapInline.h"

namespace Quelin {

namespace {

/// The common case on its own: two maps mixed by a fixed amount. Calling the
/// inputs directly keeps their colours in registers; the general path's choice
/// between a map and a constant joins them through memory. The colours are
/// blended as four lanes with both weights prepared here.
class PlainMixOfMaps : public IMapEvaluator {
public:
    PlainMixOfMaps(SharedPtr<IMapEvaluator> a, SharedPtr<IMapEvaluator> b, float t)
        : mA(std::move(a)), mB(std::move(b)), mS4(1.f - t), mT4(t), mT(t) {}
    [[gnu::optimize("no-tree-slp-vectorize")]] RgbAlpha evalColor(IShadeContext const& c, MapCache* cache) const override {
        Float4 const a = MapsDetail::toLanes(mA->evalColor(c, cache));
        Float4 const b = MapsDetail::toLanes(mB->evalColor(c, cache));
        return MapsDetail::fromLanes(a * mS4 + b * mT4);
    }
    MonoAlpha evalMono(IShadeContext const& c, MapCache* cache) const override {
        return MapsDetail::mix(mA->evalMono(c, cache), mB->evalMono(c, cache), mT);
    }
    Dir evalBump(IShadeContext const& c, MapCache* cache) const override {
        return MapsDetail::mix(mA->evalBump(c, cache), mB->evalBump(c, cache), mT);
    }

protected:
    SharedPtr<IMapEvaluator> mA, mB;
    Float4 mS4, mT4;  ///< 1 - t and t in every lane
    float mT;
};

/// Two noises of constant colours that both take one UV channel's point as it
/// is: the point is read once, and both noises run here, inline, rather than
/// each behind a call of its own with its own read. Bit for bit the plain mix.
class MixOfNoisesOnOneChannel final : public PlainMixOfMaps {
public:
    MixOfNoisesOnOneChannel(SharedPtr<IMapEvaluator> a, SharedPtr<IMapEvaluator> b, int channel, float t)
        : PlainMixOfMaps(std::move(a), std::move(b), t), mNoiseA(static_cast<NoiseMapEvaluator const*>(mA.get())),
          mNoiseB(static_cast<NoiseMapEvaluator const*>(mB.get())), mChannel(channel) {}
    [[gnu::flatten]] RgbAlpha evalColor(IShadeContext const& c, MapCache*) const override {
        Float4 const p = MapsDetail::pointLanes(c.getUvw(mChannel));
        Float4 const a = MapsDetail::toLanes(mNoiseA->colorAtPoint(p));
        Float4 const b = MapsDetail::toLanes(mNoiseB->colorAtPoint(p));
        return MapsDetail::fromLanes(a * mS4 + b * mT4);
    }

private:
    NoiseMapEvaluator const* mNoiseA;  ///< mA and mB as what they are
    NoiseMapEvaluator const* mNoiseB;
    int mChannel;
};

/// The channel a noise's colour depends on alone; empty for any other map
/// (a type built on the noise's evaluator included: it may answer differently).
Optional<int> noiseChannel(IMapEvaluator const& e) {
    if (typeid(e) != typeid(NoiseMapEvaluator)) return std::nullopt;
    return static_cast<NoiseMapEvaluator const&>(e).directChannel();
}

SharedPtr<IMapEvaluator> makePlainMixOfMaps(SharedPtr<IMapEvaluator> a, SharedPtr<IMapEvaluator> b, float t) {
    if (auto const channel = noiseChannel(*a); channel && channel == noiseChannel(*b))
        return makeSharedPtr<MixOfNoisesOnOneChannel>(std::move(a), std::move(b), *channel, t);
    return makeSharedPtr<PlainMixOfMaps>(std::move(a), std::move(b), t);
}

/// The general mix for one blend mode, with or without a mask.
template <BlendMode MODE, bool MASKED> class ModeMixEvaluator final : public MixEvaluator {
public:
    using MixEvaluator::MixEvaluator;

    // Channel by channel in scalar registers: colours come back from calls split
    // over two registers, and the compiler's packing of them into one vector goes
    // through memory and stalls on the store forwarding.
    [[gnu::optimize("no-tree-slp-vectorize")]] RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override {
        float const t = amount(context, cache);
        RgbAlpha const a = mColor1.evalColor(context, cache), b = mColor2.evalColor(context, cache);
        if constexpr (MODE == BlendMode::Mix) return MapsDetail::mix(a, b, t);
        else return MapsDetail::blend(MODE, a, b, t);
    }
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override {
        float const t = amount(context, cache);
        if constexpr (MODE == BlendMode::Mix) {
            return MapsDetail::mix(mColor1.evalMono(context, cache), mColor2.evalMono(context, cache), t);
        } else {
            RgbAlpha const c = MapsDetail::blend(MODE, mColor1.evalColor(context, cache), mColor2.evalColor(context, cache), t);
            return {c.rgb().mean(), c.alpha};
        }
    }

private:
    float amount(IShadeContext const& context, MapCache* cache) const {
        if constexpr (MASKED) return mCurve.apply(mMask->evalMono(context, cache).value);
        else return mAmount;
    }
};

template <BlendMode MODE>
SharedPtr<MixEvaluator> makeModeMix(ColorOrMap::Evaluator&& c1, ColorOrMap::Evaluator&& c2, SharedPtr<IMapEvaluator>&& mask,
                                    float amount, MapsDetail::AmountCurve curve) {
    if (mask)
        return makeSharedPtr<ModeMixEvaluator<MODE, true>>(std::move(c1), std::move(c2), std::move(mask), amount, curve, MODE);
    return makeSharedPtr<ModeMixEvaluator<MODE, false>>(std::move(c1), std::move(c2), nullptr, amount, curve, MODE);
}

} // namespace

SharedPtr<DataObjectDefinition const> const& MixMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addColorOrMap("color1", Rgb(0, 0, 0), "Color 1", "The bottom input, shown where the amount is 0");
        b.addColorOrMap("color2", Rgb(1, 1, 1), "Color 2", "The top input, blended over color 1 by the amount");
        b.addFloat("amount", 0.5f, "Amount", "How much of the blend shows, 0 to 1 (used when no mask applies)")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
        b.addMap("mask", "Mask", "A map whose mono value is the amount at each point");
        b.addBool("maskOn", true, "Mask on", "Whether the mask applies");
        b.addEnum("blendMode", MapsDetail::blendModeType(), int(BlendMode::Mix), "Blend mode",
                  "How color 2 combines with color 1 before the amount fades it in");
        MapsDetail::addAmountCurve(b, "amount");
        return b.build("Zatho.MixMap");
    }();
    return d;
}

MixMap::MixMap() : IMap(Data::definition()) {}

SharedPtr<Entity> MixMap::createNewInstance() const { return makeSharedPtr<MixMap>(); }

IMap::OptimizedResult MixMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    GenericDataObject const& d = getData();
    auto color1 = MapsDetail::colorOrMapEvaluator(d, "color1");
    auto color2 = MapsDetail::colorOrMapEvaluator(d, "color2");
    MapsDetail::AmountCurve const curve = MapsDetail::readAmountCurve(d);
    BlendMode const mode = d.get<BlendMode>("blendMode");
    float amount = curve.apply(d.get<float>("amount"));
    SharedPtr<IMapEvaluator> mask;
    if (auto const maskMap = d.get<EntityHolder<IMap>>("mask"); maskMap && d.get<bool>("maskOn")) {
        OptimizedResult r = maskMap->getEvaluator();
        if (r.hasConstant)
            amount = curve.apply(r.constantMono.value);
        else
            mask = std::move(r.evaluator);
    }
    if (!mask) {
        // Amount 0 shows color1 in every mode; amount 1 of a plain mix shows color2.
        if (amount == 0.f) return MapsDetail::passThrough(color1);
        if (amount == 1.f && mode == BlendMode::Mix) return MapsDetail::passThrough(color2);
    }
    if (!mask && mode == BlendMode::Mix && !color1.isConstant() && !color2.isConstant()) {
        OptimizedResult result;
        result.evaluator = makePlainMixOfMaps(color1.getMapEvaluator(), color2.getMapEvaluator(), amount);
        return result;
    }
    bool const constant = !mask && color1.isConstant() && color2.isConstant();
    auto evaluator = MixEvaluator::create(std::move(color1), std::move(color2), std::move(mask), amount, curve, mode);
    if (constant) return MapsDetail::foldToConstant(*evaluator);
    OptimizedResult result;
    result.evaluator = std::move(evaluator);
    return result;
}

MixEvaluator::MixEvaluator(ColorOrMap::Evaluator color1, ColorOrMap::Evaluator color2, SharedPtr<IMapEvaluator> mask,
                           float amount, MapsDetail::AmountCurve curve, BlendMode mode)
    : mColor1(std::move(color1)), mColor2(std::move(color2)), mMask(std::move(mask)), mAmount(amount), mCurve(curve),
      mMode(mode) {}

SharedPtr<MixEvaluator> MixEvaluator::create(ColorOrMap::Evaluator c1, ColorOrMap::Evaluator c2,
                                             SharedPtr<IMapEvaluator> mask, float amount, MapsDetail::AmountCurve curve,
                                             BlendMode mode) {
#define FERRIM_MIX_MODE(M) \
    case BlendMode::M: return makeModeMix<BlendMode::M>(std::move(c1), std::move(c2), std::move(mask), amount, curve);
    switch (mode) {
        FERRIM_MIX_MODE(Mix) FERRIM_MIX_MODE(Add) FERRIM_MIX_MODE(Subtract) FERRIM_MIX_MODE(Multiply)
        FERRIM_MIX_MODE(Screen) FERRIM_MIX_MODE(Overlay) FERRIM_MIX_MODE(Difference) FERRIM_MIX_MODE(Darken)
        FERRIM_MIX_MODE(Lighten) FERRIM_MIX_MODE(SoftLight) FERRIM_MIX_MODE(LinearLight) FERRIM_MIX_MODE(ColorDodge)
        FERRIM_MIX_MODE(ColorBurn)
    }
#undef FERRIM_MIX_MODE
    // A mode number outside the list (the record's enum refuses these) blends plainly.
    return makeModeMix<BlendMode::Mix>(std::move(c1), std::move(c2), std::move(mask), amount, curve);
}

Dir MixEvaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    float const t = amountAt(context, cache);
    return MapsDetail::mix(mColor1.evalBump(context, cache), mColor2.evalBump(context, cache), t);
}

FERRIM_REGISTER_ENTITY(MixMap);

} // namespace Quelin
