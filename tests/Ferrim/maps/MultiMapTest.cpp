#include "Ferrim/maps/MultiMap.h"

#include <random>

#include "Ferrim/maps/MixMap.h"
#include "Ferrim/maps/NoiseMap.h"
#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

class MultiMapTest : public LibraryFixture {};

void setLayerMap(MultiMap& multi, std::size_t index, SharedPtr<IMap> const& map) {
    ListPropertyValue list = multi.get<ListPropertyValue>("layers");
    setInputMap(list[index], "input", map);
    multi.set("layers", list);
}

TEST_F(MultiMapTest, LayersBlendInOrderByModeAndOpacity) {
    MultiMap multi, unfolded;
    EXPECT_EQ(multi.getEvaluator().constantColor, RgbAlpha(0, 0, 0, 1));  // no layers
    for (MultiMap* m : {&multi, &unfolded}) {
        m->addLayer(Rgb(0.5f));
        m->addLayer(Rgb(0.4f), BlendMode::Add, 0.5f);       // 0.5 + 0.5 * 0.4 = 0.7
        m->addLayer(Rgb(2.f), BlendMode::Multiply, 0.25f);  // 0.7 + 0.25 * (1.4 - 0.7) = 0.875
    }
    auto const folded = multi.getEvaluator();
    ASSERT_TRUE(folded.hasConstant);
    EXPECT_FLOAT_EQ(folded.constantColor.r, 0.875f);
    // The same layers with a map at the bottom, fed the same colour, give the same values everywhere.
    setLayerMap(unfolded, 0, makeSharedPtr<CountingMap>(RgbAlpha(0.5f, 0.5f, 0.5f, 1)));
    auto const u = unfolded.getEvaluator();
    ASSERT_FALSE(u.hasConstant);
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> d(-3.f, 3.f);
    for (int i = 0; i < 10; ++i) {
        SettableShadeContext const p(d(rng), d(rng), d(rng));
        Testing::expectNear(u.evaluator->evalColor(p, nullptr).rgb(), folded.constantColor.rgb(), 1e-6f);
    }
}

TEST_F(MultiMapTest, OneLayerIsThatInputAndAnOpaqueMixCoversTheLayersBelow) {
    auto const noise = makeSharedPtr<NoiseMap>();
    SettableShadeContext const p(0.3f, 0.6f, 0.2f);
    RgbAlpha const want = noise->getEvaluator().evaluator->evalColor(p, nullptr);

    MultiMap one;
    one.addLayer(Rgb(0.f));
    setLayerMap(one, 0, noise);
    auto const r = one.getEvaluator();
    EXPECT_EQ(dynamic_cast<MultiEvaluator const*>(r.evaluator.get()), nullptr);
    EXPECT_EQ(r.evaluator->evalColor(p, nullptr), want);

    MultiMap covered;
    covered.addLayer(Rgb(0.2f));
    covered.addLayer(Rgb(0.7f), BlendMode::Screen, 0.5f);
    std::size_t const top = covered.addLayer(Rgb(0.f));
    setLayerMap(covered, top, noise);
    covered.addLayer(Rgb(0.9f), BlendMode::Add, 0.f);  // opacity 0: no part
    EXPECT_EQ(covered.getEvaluator().evaluator->evalColor(p, nullptr), want);

    ListPropertyValue list = covered.get<ListPropertyValue>("layers");
    list[top].set("enabled", false);
    covered.set("layers", list);
    EXPECT_FLOAT_EQ(covered.getEvaluator().constantColor.r, 0.2f + 0.5f * (0.2f + 0.7f - 0.14f - 0.2f));
}

TEST_F(MultiMapTest, BumpBlendsByOpacity) {
    auto const multi = makeSharedPtr<MultiMap>();
    multi->addLayer(Rgb(0.f));
    std::size_t const i = multi->addLayer(Rgb(0.f), BlendMode::Multiply, 0.5f);
    setLayerMap(*multi, i, makeSharedPtr<CountingMap>(RgbAlpha(1, 1, 1, 1)));
    EXPECT_EQ(multi->getEvaluator().evaluator->evalBump(SettableShadeContext(), nullptr), Dir(0.5f, 1.f, 1.5f));
}

} // namespace
} // namespace Quelin
