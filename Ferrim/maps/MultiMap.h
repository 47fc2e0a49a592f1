#pragma once
// N inputs layered in order: the first enabled layer is the base, and each
// later one is blended over the result so far by its blend mode and opacity
// (the mix map's modes and conventions). Alpha blends linearly by opacity.
// Layers switched off or of opacity 0 take no part; no layers give black.
#include "Ferrim/IMap.h"
#include "Ferrim/maps/CompositingSupport.h"

namespace Quelin {

class FERRIM_EXPORT MultiMap : public IMap {
public:
    /// "layers": items "Zatho.MultiMapLayer" with "input", "blendMode", "opacity", "enabled".
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition();
        static SharedPtr<DataObjectDefinition const> const& layerDefinition();
    };
    MultiMap();
    SharedPtr<Entity> createNewInstance() const override;
    OptimizedResult getEvaluatorImpl() const override;
    /// Appends a layer of this colour; returns its index.
    std::size_t addLayer(Rgb const& color, BlendMode mode = BlendMode::Mix, float opacity = 1.f);
};

class FERRIM_EXPORT MultiEvaluator : public IMapEvaluator {
public:
    struct Layer {
        ColorOrMap::Evaluator input;
        BlendMode mode;
        float opacity;
    };
    MultiEvaluator(ColorOrMap::Evaluator base, Stack<Layer> layers);
    RgbAlpha evalColor(IShadeContext const& context, MapCache* cache) const override;
    MonoAlpha evalMono(IShadeContext const& context, MapCache* cache) const override;
    /// Each layer's bump blended over the result so far by its opacity.
    Dir evalBump(IShadeContext const& context, MapCache* cache) const override;

private:
    ColorOrMap::Evaluator mBase;
    Stack<Layer> mLayers;
};

} // namespace Quelin
