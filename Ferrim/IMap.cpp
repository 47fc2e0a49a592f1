#include "Ferrim/IMap.h"

#include "Ferrim/Ferrim.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/UvMapper.h"

namespace Quelin {

void IMapEvaluator::evalColors(IShadeContext const& context, std::span<MapLookupPoint const> points,
                               std::span<RgbAlpha> colors, MapCache* cache) const {
    for (std::size_t i = 0; i < points.size(); ++i) {
        OverridableUvwShadeContext const at(context, points[i].uvw, points[i].dUvw);
        colors[i] = evalColor(at, cache);
    }
}

void IMapEvaluator::evalMonos(IShadeContext const& context, std::span<MapLookupPoint const> points,
                              std::span<MonoAlpha> monos, MapCache* cache) const {
    for (std::size_t i = 0; i < points.size(); ++i) {
        OverridableUvwShadeContext const at(context, points[i].uvw, points[i].dUvw);
        monos[i] = evalMono(at, cache);
    }
}

int IMap::deduceUvChannelFromGraph() const {
    int result = 0;
    visitEntityGraphNodes(*this, [&](Entity const& node) {
        if (&node == this) return VisitEntityGraphAction::Continue;
        if (auto const* mapper = dynamic_cast<UvMapper const*>(&node)) {
            if (mapper->getMappingMode() == UvMappingMode::UvChannel) {
                result = mapper->getChannel();
                return VisitEntityGraphAction::Stop;
            }
        } else if (auto const* map = dynamic_cast<IMap const*>(&node)) {
            if (Optional<int> const channel = map->getOwnUvChannel()) {
                result = *channel;
                return VisitEntityGraphAction::Stop;
            }
        }
        return VisitEntityGraphAction::Continue;
    });
    return result;
}

namespace {
class ConstantEvaluator final : public IMapEvaluator {
public:
    ConstantEvaluator(RgbAlpha const& color, MonoAlpha const& mono) {
        // Unset first, so a field that is never filled is recognisable.
        mColor = RgbAlpha::unset();
        mMono = MonoAlpha::unset();
        mColor = color;
        mMono = mono;
    }
    RgbAlpha evalColor(IShadeContext const&, MapCache*) const override { return mColor; }
    MonoAlpha evalMono(IShadeContext const&, MapCache*) const override { return mMono; }
    Dir evalBump(IShadeContext const&, MapCache*) const override { return Dir(0.f, 0.f, 0.f); }

private:
    RgbAlpha mColor;
    MonoAlpha mMono;
};

IMap::OptimizedResult makeConstant(RgbAlpha const& color, MonoAlpha const& mono) {
    IMap::OptimizedResult r;
    r.evaluator = makeSharedPtr<ConstantEvaluator>(color, mono);
    r.constantColor = color;
    r.constantMono = mono;
    r.hasConstant = 1;
    return r;
}
} // namespace

IMap::OptimizedResult makeConstantResult(RgbAlpha const& color) {
    return makeConstant(color, MonoAlpha(channelMean(color.r, color.g, color.b), color.alpha));
}

// -------------------------------------------------------- ConstantColorMap

SharedPtr<DataObjectDefinition const> const& ConstantColorMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition = [] {
        ShadingDataObjectBuilder b;
        b.addColor("color", Rgb(0.5f, 0.5f, 0.5f), "Color", "The colour returned at every point");
        b.addFloat("alpha", 1.f, "Alpha", "The alpha returned at every point")
            .addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
        return b.build("Zatho.ConstantColorMap");
    }();
    return sDefinition;
}

FERRIM_REGISTER_ENTITY(ConstantColorMap);

ConstantColorMap::ConstantColorMap() : IMap(Data::definition()) {}

ConstantColorMap::ConstantColorMap(Rgb const& color, float alpha) : IMap(Data::definition()) {
    set("color", color);
    set("alpha", alpha);
}

SharedPtr<Entity> ConstantColorMap::createNewInstance() const { return makeSharedPtr<ConstantColorMap>(); }

IMap::OptimizedResult ConstantColorMap::getEvaluatorImpl() const {
    return makeConstantResult(RgbAlpha(get<Rgb>("color"), get<float>("alpha")));
}

// ----------------------------------------------------------- UnsupportedMap

SharedPtr<DataObjectDefinition const> const& UnsupportedMap::Data::definition() {
    static SharedPtr<DataObjectDefinition const> const sDefinition = [] {
        ShadingDataObjectBuilder b;
        b.addEnum("look", TypeDefinition::makeEnum("Zatho.UnsupportedMapLook", {{0, "Red"}, {1, "White"}, {2, "Invalid"}}),
                  int(Look::Red), "Look",
                  "What stands in for the map: red marks it, white keeps the material neutral, invalid lets the "
                  "renderer detect it");
        b.addString("originalClassName", {}, "Original map", "The class of the map that could not be evaluated");
        return b.build("Zatho.UnsupportedMap");
    }();
    return sDefinition;
}

FERRIM_REGISTER_ENTITY(UnsupportedMap);

UnsupportedMap::UnsupportedMap() : IMap(Data::definition()) {}

SharedPtr<Entity> UnsupportedMap::createNewInstance() const { return makeSharedPtr<UnsupportedMap>(); }

IMap::OptimizedResult UnsupportedMap::getEvaluatorImpl() const {
    switch (get<Look>("look")) {
    case Look::White: return makeConstantResult(RgbAlpha(1.f, 1.f, 1.f, 1.f));
    case Look::Invalid: {
        // Every bit set: a NaN in each field, which no arithmetic produces.
        float const invalid = std::bit_cast<float>(0xFFFFFFFFu);
        return makeConstant(RgbAlpha(invalid, invalid, invalid, invalid), MonoAlpha(invalid, invalid));
    }
    case Look::Red: break;
    }
    return makeConstantResult(RgbAlpha(1.f, 0.f, 0.f, 1.f));
}

} // namespace Quelin
