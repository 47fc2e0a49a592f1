#include "Ferrim/maps/MultiMap.h"

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"

namespace Quelin {

SharedPtr<DataObjectDefinition const> const& MultiMap::Data::layerDefinition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addColorOrMap("input", Rgb(0, 0, 0), "Input", "The layer's colour or map");
        b.addEnum("blendMode", MapsDetail::blendModeType(), int(BlendMode::Mix), "Blend mode",
                  "How the layer combines with the layers below it");
        b.addFloat("opacity", 1.f, "Opacity", "How much of the layer shows, 0 to 1")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
        b.addBool("enabled", true, "Enabled", "Whether the layer takes part");
        return b.build("Zatho.MultiMapLayer");
    }();
    return d;
}

SharedPtr<DataObjectDefinition const> const& MultiMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const d = [] {
        ShadingDataObjectBuilder b;
        b.addList("layers", layerDefinition(), "Layers", "The layers, bottom first");
        return b.build("Zatho.MultiMap");
    }();
    return d;
}

MultiMap::MultiMap() : IMap(Data::definition()) {}
SharedPtr<Entity> MultiMap::createNewInstance() const { return makeSharedPtr<MultiMap>(); }

std::size_t MultiMap::addLayer(Rgb const& color, BlendMode mode, float opacity) {
    GenericDataObject layer(Data::layerDefinition());
    GenericDataObject input = layer.get<GenericDataObject>("input");
    input.set("color", color);
    layer.set("input", std::move(input));
    layer.set("blendMode", mode);
    layer.set("opacity", opacity);
    ListPropertyValue list = get<ListPropertyValue>("layers");
    list.push_back(std::move(layer));
    std::size_t const index = list.size() - 1;
    set("layers", std::move(list));
    return index;
}

IMap::OptimizedResult MultiMap::getEvaluatorImpl() const {
    MapsDetail::BuildDepthGuard const guard(*this);
    ListPropertyValue const list = get<ListPropertyValue>("layers");
    Optional<ColorOrMap::Evaluator> base;
    Stack<MultiEvaluator::Layer> layers;
    for (std::size_t i = 0; i < list.size(); ++i) {
        GenericDataObject const& item = list[i];
        float const opacity = item.get<float>("opacity");
        if (!item.get<bool>("enabled") || (base && !(opacity > 0.f))) continue;
        auto input = MapsDetail::inputEvaluator(item.get<GenericDataObject>("input"));
        if (!base) {
            base = std::move(input);
            continue;
        }
        BlendMode const mode = item.get<BlendMode>("blendMode");
        if (layers.empty() && base->isConstant() && input.isConstant()) {
            // Constant layers at the bottom fold into a constant base now.
            RgbAlpha const c = MapsDetail::blend(mode, base->getColor(), input.getColor(), opacity);
            if (c.alpha == 1.f) {
                base = ColorOrMap::Evaluator(ColorOrMap{c.rgb(), {}, true});
                continue;
            }
        }
        if (opacity >= 1.f && mode == BlendMode::Mix) {
            // An opaque plain layer covers everything below it.
            layers.clear();
            base = std::move(input);
        } else {
            layers.push_back({std::move(input), mode, opacity});
        }
    }
    if (!base) return makeConstantResult(RgbAlpha(0.f, 0.f, 0.f, 1.f));
    if (layers.empty()) return MapsDetail::passThrough(*base);
    OptimizedResult r;
    r.evaluator = makeSharedPtr<MultiEvaluator>(std::move(*base), std::move(layers));
    return r;
}

MultiEvaluator::MultiEvaluator(ColorOrMap::Evaluator base, Stack<Layer> layers)
    : mBase(std::move(base)), mLayers(std::move(layers)) {}

RgbAlpha MultiEvaluator::evalColor(IShadeContext const& context, MapCache* cache) const {
    RgbAlpha c = mBase.evalColor(context, cache);
    for (Layer const& layer : mLayers) c = MapsDetail::blend(layer.mode, c, layer.input.evalColor(context, cache), layer.opacity);
    return c;
}

MonoAlpha MultiEvaluator::evalMono(IShadeContext const& context, MapCache* cache) const {
    RgbAlpha const c = evalColor(context, cache);
    return {c.rgb().mean(), c.alpha};
}

Dir MultiEvaluator::evalBump(IShadeContext const& context, MapCache* cache) const {
    Dir b = mBase.evalBump(context, cache);
    for (Layer const& layer : mLayers) b = MapsDetail::mix(b, layer.input.evalBump(context, cache), layer.opacity);
    return b;
}

FERRIM_REGISTER_ENTITY(MultiMap);
static Ferrim::TypeRegistrar const sMultiLayerRegistrar([] { return MultiMap::Data::layerDefinition(); });

} // namespace Quelin
