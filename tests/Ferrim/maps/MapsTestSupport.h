#pragma once
// A fixed shading point and small helper maps for the procedural map tests.
#include <gtest/gtest.h>

#include <atomic>

#include "Ferrim/Ferrim.h"
#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/IMap.h"
#include "Ferrim/MaterialMapSlot.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/UvMapper.h"
#include "QuelinLib/Json.h"

namespace Quelin::MapsTest {

/// An identity mapper reading the context's UVW as it is.
inline SharedPtr<UvMapper const> identityMapper() { return makeSharedPtr<UvMapper>(); }

/// A map that returns a fixed colour and counts how often it is evaluated.
class CountingMap : public IMap {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition() {
            static SharedPtr<DataObjectDefinition const> const d = ShadingDataObjectBuilder().build("Zatho.TestCountingMap");
            return d;
        }
    };
    struct Evaluator : IMapEvaluator {
        Evaluator(RgbAlpha c, std::atomic<int>& calls) : color(c), calls(calls) {}
        RgbAlpha evalColor(IShadeContext const&, MapCache*) const override { return ++calls, color; }
        MonoAlpha evalMono(IShadeContext const&, MapCache*) const override { return ++calls, MonoAlpha(color.rgb().mean(), color.alpha); }
        Dir evalBump(IShadeContext const&, MapCache*) const override { return ++calls, Dir(1, 2, 3); }
        RgbAlpha color;
        std::atomic<int>& calls;
    };

    explicit CountingMap(RgbAlpha c) : IMap(Data::definition()), mColor(c) {}
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<CountingMap>(mColor); }
    OptimizedResult getEvaluatorImpl() const override {
        OptimizedResult r;
        r.evaluator = makeSharedPtr<Evaluator>(mColor, calls);
        return r;
    }
    mutable std::atomic<int> calls{0};

private:
    RgbAlpha mColor;
};

inline ColorOrMap::Evaluator constantInput(Rgb const& c) { return ColorOrMap::Evaluator(ColorOrMap{c, {}, true}); }
inline ColorOrMap::Evaluator mapInput(SharedPtr<IMap> const& map) {
    return ColorOrMap::Evaluator(ColorOrMap{Rgb(0, 0, 0), EntityHolder<IMap>(map), true});
}

/// Sets a colour-or-map property of an entity (or of a list item) to a map, or to a colour.
template <typename Owner> void setInputMap(Owner& owner, StringView property, SharedPtr<IMap> const& map) {
    GenericDataObject value = owner.template get<GenericDataObject>(property);
    value.set("map", EntityHolder<Entity>(map));
    owner.set(property, std::move(value));
}
template <typename Owner> void setInputColor(Owner& owner, StringView property, Rgb const& color) {
    GenericDataObject value = owner.template get<GenericDataObject>(property);
    value.set("color", color);
    owner.set(property, std::move(value));
}

using Testing::expectStop;
using Testing::SettableShadeContext;
using Testing::LibraryFixture;

/// JSON written, read back and written again gives the same text and an equal record.
inline void expectJsonRoundTrip(Entity const& entity) {
    nlohmann::json const first = entityToJson(entity);
    auto loaded = entityFromJson(nlohmann::json::parse(first.dump()));
    ASSERT_TRUE(loaded.has_value()) << loaded.error();
    EXPECT_EQ((*loaded)->getClassName(), entity.getClassName());
    EXPECT_EQ(entityToJson(**loaded).dump(), first.dump());
}

} // namespace Quelin::MapsTest
