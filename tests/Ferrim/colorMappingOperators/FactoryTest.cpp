#include <gtest/gtest.h>

#include <algorithm>

#include "Ferrim/Ferrim.h"
#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"
#include "Ferrim/colorMappingOperators/MiscOperators.h"
#include "Ferrim/colorMappingOperators/ObsoleteOperator.h"
#include "QuelinLib/Json.h"

using namespace Quelin;

namespace {

class ColorMappingOperatorFactoryTest : public Testing::LibraryFixture {
protected:
    static ColorMappingOperatorFactory& factory() { return ColorMappingOperatorFactory::getInstance(); }
};

struct Expected {
    char const* typeName;
    char const* uiName;
    OperatorGroup group;
    OperatorColorEncoding input, output;
};

TEST_F(ColorMappingOperatorFactoryTest, HoldsTheEighteenOperatorsWithTheirNamesGroupsAndEncodings) {
    using G = OperatorGroup;
    using E = OperatorColorEncoding;
    Expected const all[] = {
        {"Zatho.AcesOtOperator", "ACES Output Transform", G::FinalLook, E::Linear, E::Linear},
        {"Zatho.AdvancedFilmicOperator", "Advanced Filmic Mapping", G::CurveControl, E::Linear, E::Linear},
        {"Zatho.ContrastOperator", "Contrast", G::Basic, E::Linear, E::Linear},
        {"Zatho.CurvesOperator", "Curves", G::CurveControl, E::Srgb, E::Srgb},
        {"Zatho.FilmicOperator", "Filmic Mapping", G::CurveControl, E::Linear, E::Linear},
        {"Zatho.GreenMagentaTintOperator", "Green-Magenta Tint", G::Basic, E::Linear, E::Linear},
        {"Zatho.IdentityOperator", "Identity", G::Hidden, E::Passthrough, E::Passthrough},
        {"Zatho.LinearToSrgbOperator", "Linear to sRGB", G::Hidden, E::Linear, E::Srgb},
        {"Zatho.LutOperator", "LUT", G::FinalLook, E::Linear, E::Linear},
        {"Zatho.PhotographicExposureOperator", "Photographic Exposure", G::Basic, E::Linear, E::Linear},
        {"Zatho.ReinhardOperator", "Reinhard Highlight Compression", G::HighlightControl, E::Linear, E::Linear},
        {"Zatho.SaturationOperator", "Saturation", G::Basic, E::Linear, E::Linear},
        {"Zatho.SimpleExposureOperator", "Simple Exposure", G::Basic, E::Linear, E::Linear},
        {"Zatho.SrgbToLinearOperator", "sRGB to Linear", G::Hidden, E::Srgb, E::Linear},
        {"Zatho.TintOperator", "Tint", G::Basic, E::Linear, E::Linear},
        {"Zatho.ToneCurveOperator", "Tone Curve", G::CurveControl, E::Linear, E::Linear},
        {"Zatho.VignetteOperator", "Vignette", G::Basic, E::Linear, E::Linear},
        {"Zatho.WhiteBalanceOperator", "White Balance", G::Basic, E::Linear, E::Linear},
    };
    ASSERT_EQ(factory().getAllDescriptors().size(), std::size(all));
    auto entry = factory().getAllDescriptors().begin();
    for (auto const& e : all) {
        SCOPED_TRACE(e.typeName);
        EXPECT_EQ(entry->first, e.typeName);  // sorted by type name
        EXPECT_EQ(entry->second.uiName, e.uiName);
        EXPECT_EQ((entry++)->second.group, e.group);
        auto op = factory().createOperator(e.typeName);
        ASSERT_TRUE(op);
        EXPECT_EQ(op->getClassName(), e.typeName);
        EXPECT_EQ(op->getInputEncoding(), e.input);
        EXPECT_EQ(op->getOutputEncoding(), e.output);
        EXPECT_EQ(op->getGroup(), e.group);
    }
}

TEST_F(ColorMappingOperatorFactoryTest, UnknownTypesGiveAnEmptyHolder) {
    EXPECT_FALSE(factory().createOperator("Zatho.NoSuchOperator"));
    EXPECT_FALSE(factory().containsDescriptor("Zatho.NoSuchOperator"));
    GenericDataObject foreign(ObsoleteUnaryColorMappingOperator::findDefinition("Zatho.AcesOtOperator2"));
    EXPECT_FALSE(factory().createOperator(foreign));
}

TEST_F(ColorMappingOperatorFactoryTest, NewOperatorsGetFreshIdsAndRecordsAreCopied) {
    auto a = factory().createOperator("Zatho.ContrastOperator");
    auto b = factory().createOperator("Zatho.ContrastOperator");
    EXPECT_NE(a->get<int>("id"), b->get<int>("id"));
    a->set("contrast", 1.7f);
    auto copy = factory().createOperator(a->getData());
    EXPECT_EQ(copy->getData(), a->getData());
    EXPECT_NE(copy.get(), a.get());
}

TEST_F(ColorMappingOperatorFactoryTest, CreatingFromARecordRebuildsTheChainBelow) {
    auto exposure = makeSharedPtr<SimpleExposureOperator>();
    exposure->set("simpleExposure", 2.f);
    auto tint = makeSharedPtr<TintOperator>();
    tint->set("tint", Rgb(0.5f, 1.f, 1.f));
    tint->setPredecessor(exposure);
    auto rebuilt = factory().createOperator(tint->getData());
    ASSERT_TRUE(rebuilt);
    auto predecessor = rebuilt->getPredecessor();
    ASSERT_TRUE(predecessor);
    EXPECT_NE(predecessor.get(), static_cast<IColorMappingOperator*>(exposure.get()));  // a copy, not shared
    EXPECT_EQ(predecessor->getData(), exposure->getData());
    rebuilt->prepareForApplication({});
    EXPECT_EQ(rebuilt->map(Rgb(1.f), {}), Rgb(2.f, 4.f, 4.f));
}

TEST_F(ColorMappingOperatorFactoryTest, ObsoleteOperatorsLoadThroughTheirHookButNeverMap) {
    auto const& hooks = Ferrim::getHooks();
    EXPECT_TRUE(std::any_of(hooks.begin(), hooks.end(), [](auto const& h) { return h.name == "Register obsolete operators"; }));
    for (StringView name : {"Zatho.AcesRrtOperator", "Zatho.AcesOtOperator2"}) {
        SCOPED_TRACE(String(name));
        EXPECT_FALSE(factory().containsDescriptor(name));
        ASSERT_TRUE(EntityDatabase::isRegistered(name));
        auto entity = EntityDatabase::create(name);
        auto op = std::dynamic_pointer_cast<UnaryColorMappingOperator>(entity);
        ASSERT_TRUE(op);
        EXPECT_EQ(op->getClassName(), name);
        Testing::expectStop([&] { op->map(Rgb(0.5f), {}); }, "colorMappingOperators/MiscOperators", 369);
        Testing::expectStop([&] { op->unmap(Rgb(0.5f), {}); }, "colorMappingOperators/MiscOperators", 374);
    }
}

TEST_F(ColorMappingOperatorFactoryTest, ChainsHoldingAnObsoleteOperatorStillLoadFromJson) {
    auto legacy = EntityDatabase::create("Zatho.AcesOtOperator2");
    auto exposure = makeSharedPtr<SimpleExposureOperator>();
    exposure->setPredecessor(std::dynamic_pointer_cast<UnaryColorMappingOperator>(legacy));
    auto loaded = entityFromJsonAs<UnaryColorMappingOperator>(entityToJson(*exposure));
    ASSERT_TRUE(loaded) << loaded.error();
    auto predecessor = (*loaded)->getData().get<EntityHolder<UnaryColorMappingOperator>>("predecessor");
    ASSERT_TRUE(predecessor);
    EXPECT_EQ(predecessor->getClassName(), "Zatho.AcesOtOperator2");
    // Rebuilding through the factory keeps the legacy operator for the clean-up to find.
    auto rebuilt = factory().createOperator((*loaded)->getData());
    ASSERT_TRUE(rebuilt->getPredecessor());
    EXPECT_EQ(rebuilt->getPredecessor()->getClassName(), "Zatho.AcesOtOperator2");
}

} // namespace
