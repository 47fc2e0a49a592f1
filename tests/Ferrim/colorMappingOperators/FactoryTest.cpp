#include <gtest/gtest.h>

#include <map>

#include "Ferrim/Ferrim.h"
#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/ColorMappingOperator.h"
#include "Ferrim/colorMappingOperators/MiscOperators.h"
#include "Ferrim/colorMappingOperators/ObsoleteOperator.h"
#include "QuelinLib/Json.h"

using namespace Quelin;

namespace {

using ColorMappingOperatorFactoryTest = Testing::LibraryFixture;
ColorMappingOperatorFactory& factory() { return ColorMappingOperatorFactory::getInstance(); }

TEST_F(ColorMappingOperatorFactoryTest, EachOperatorIsCreatedWithItsEncodings) {
    // Pipelines insert conversions from the encodings and hide the Hidden
    // group; all other operators are visible and linear in and out.
    using E = OperatorColorEncoding;
    struct Special { bool hidden; E input, output; };
    std::map<String, Special> const special = {
        {"Zatho.CurvesOperator", {false, E::Srgb, E::Srgb}},
        {"Zatho.DisplayViewOperator", {false, E::Linear, E::Srgb}},
        {"Zatho.IdentityOperator", {true, E::Passthrough, E::Passthrough}},
        {"Zatho.LinearToSrgbOperator", {true, E::Linear, E::Srgb}},
        {"Zatho.SrgbToLinearOperator", {true, E::Srgb, E::Linear}},
    };
    ASSERT_EQ(factory().getAllDescriptors().size(), 21u);
    for (auto const& [type, descriptor] : factory().getAllDescriptors()) {
        SCOPED_TRACE(type);
        auto op = factory().createOperator(type);
        ASSERT_TRUE(op);
        EXPECT_EQ(op->getClassName(), type);
        auto const it = special.find(type);
        Special const expected = it == special.end() ? Special{false, E::Linear, E::Linear} : it->second;
        EXPECT_EQ(op->getInputEncoding(), expected.input);
        EXPECT_EQ(op->getOutputEncoding(), expected.output);
        EXPECT_EQ(op->getGroup(), descriptor.group);
        EXPECT_EQ(descriptor.group == OperatorGroup::Hidden, expected.hidden);
    }
}

// Copies of whole chains from their records are the long-chain tests'.
TEST_F(ColorMappingOperatorFactoryTest, UnknownTypesGiveAnEmptyHolderKnownOnesAFreshId) {
    EXPECT_FALSE(factory().createOperator("Zatho.NoSuchOperator"));
    EXPECT_FALSE(factory().containsDescriptor("Zatho.NoSuchOperator"));
    GenericDataObject foreign(ObsoleteUnaryColorMappingOperator::findDefinition("Zatho.AcesOtOperator2"));
    EXPECT_FALSE(factory().createOperator(foreign));
    auto const freshId = [] { return factory().createOperator("Zatho.TintOperator")->get<int>("id"); };
    EXPECT_NE(freshId(), freshId());
}

TEST_F(ColorMappingOperatorFactoryTest, ObsoleteOperatorsLoadThroughTheirHookButNeverMap) {
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
