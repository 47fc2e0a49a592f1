#include <gtest/gtest.h>

#include <bit>

#include "Ferrim/IMap.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/UvMapper.h"

using namespace Quelin;

namespace {

std::uint32_t bits(float v) { return std::bit_cast<std::uint32_t>(v); }

// A compositing map with two inputs and a UvMapper of its own, which exposes
// the protected graph deduction.
class TestCompositeMap : public IMap {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition() {
            static SharedPtr<DataObjectDefinition const> const sDef = [] {
                ShadingDataObjectBuilder b;
                b.addMap("input1", "Input 1");
                b.addMap("input2", "Input 2");
                return b.build("Zatho.TestCompositeMap");
            }();
            return sDef;
        }
    };
    TestCompositeMap() : IMap(Data::definition()) {}
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<TestCompositeMap>(); }
    OptimizedResult getEvaluatorImpl() const override { return makeConstantResult(RgbAlpha(0, 0, 0, 1)); }
    int deduce() const { return deduceUvChannelFromGraph(); }
};

// A map that samples through its own UvMapper.
class TestUvMap : public IMap {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition() {
            static SharedPtr<DataObjectDefinition const> const sDef = [] {
                ShadingDataObjectBuilder b;
                b.addUvMapper();
                return b.build("Zatho.TestUvMap");
            }();
            return sDef;
        }
    };
    explicit TestUvMap(int channel, UvMappingMode mode = UvMappingMode::UvChannel) : IMap(Data::definition()) {
        auto mapper = get<EntityHolder<UvMapper>>("uvMapper");
        mapper->set("uvwMapChannel", channel);
        mapper->set("mappingMode", mode);
    }
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<TestUvMap>(1); }
    OptimizedResult getEvaluatorImpl() const override { return makeConstantResult(RgbAlpha(0, 0, 0, 1)); }
};

// A map that reads coordinates without a mapper entity and says so.
class TestOwnChannelMap : public IMap {
public:
    explicit TestOwnChannelMap(int channel) : IMap(TestCompositeMap::Data::definition()), mChannel(channel) {}
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<TestOwnChannelMap>(mChannel); }
    Optional<int> getOwnUvChannel() const override { return mChannel; }
    OptimizedResult getEvaluatorImpl() const override { return makeConstantResult(RgbAlpha(0, 0, 0, 1)); }

private:
    int mChannel;
};

TEST(ConstantColorMapTest, FoldsToTheColourAndTheExactMean) {
    ConstantColorMap map(Rgb(0.3f, 0.6f, 0.9f), 0.5f);
    IMap::OptimizedResult const r = map.getEvaluator();
    ASSERT_TRUE(r.evaluator);
    EXPECT_EQ(r.hasConstant, 1);
    EXPECT_EQ(r.constantColor, RgbAlpha(0.3f, 0.6f, 0.9f, 0.5f));
    float const expectedMean = (0.3f * 0.33333334f + 0.6f * 0.33333334f) + 0.9f * 0.33333334f;
    EXPECT_EQ(bits(r.constantMono.value), bits(expectedMean));
    EXPECT_EQ(r.constantMono.alpha, 0.5f);

    NullShadeContext context;
    RgbAlpha const c = r.evaluator->evalColor(context, nullptr);
    MonoAlpha const m = r.evaluator->evalMono(context, nullptr);
    EXPECT_EQ(c, r.constantColor);
    EXPECT_EQ(bits(m.value), bits(expectedMean));
    EXPECT_EQ(m.alpha, 0.5f);
}

TEST(ConstantColorMapTest, MeanWeightsChannelsInTheFixedGrouping) {
    // Large and small channels: a different grouping or a division by 3
    // rounds differently here.
    Rgb const color(16777216.f, 1.f, 3.f);
    IMap::OptimizedResult const r = makeConstantResult(RgbAlpha(color, 1.f));
    float const expected = (color.r * 0.33333334f + color.g * 0.33333334f) + color.b * 0.33333334f;
    EXPECT_EQ(bits(r.constantMono.value), bits(expected));
    EXPECT_NE(bits(r.constantMono.value), bits((color.r + color.g + color.b) / 3.f));
}

TEST(ConstantColorMapTest, BumpOfAConstantIsExactlyZero) {
    IMap::OptimizedResult const r = ConstantColorMap(Rgb(1, 2, 3), 1.f).getEvaluator();
    Dir const bump = r.evaluator->evalBump(NullShadeContext(), nullptr);
    EXPECT_EQ(bits(bump.x), 0u);
    EXPECT_EQ(bits(bump.y), 0u);
    EXPECT_EQ(bits(bump.z), 0u);
}

TEST(ConstantColorMapTest, AlphaIsClampedToTheUnitRange) {
    ConstantColorMap map;
    map.set("alpha", 1.5f);
    EXPECT_EQ(map.getEvaluator().constantColor.alpha, 1.f);
    map.set("alpha", -2.f);
    EXPECT_EQ(map.getEvaluator().constantColor.alpha, 0.f);
}

TEST(ConstantColorMapTest, NewInstanceHasDefaultsAndTheSameClass) {
    ConstantColorMap map(Rgb(0.1f, 0.2f, 0.3f), 0.25f);
    auto copy = std::dynamic_pointer_cast<ConstantColorMap>(map.createNewInstance());
    ASSERT_TRUE(copy);
    EXPECT_EQ(copy->getClassName(), "Zatho.ConstantColorMap");
    EXPECT_EQ(copy->get<float>("alpha"), 1.f);
    copy->copyStateFrom(map);
    EXPECT_EQ(copy->getEvaluator().constantColor, RgbAlpha(0.1f, 0.2f, 0.3f, 0.25f));
}

TEST(UnsupportedMapTest, EachLookGivesItsConstant) {
    UnsupportedMap map;
    EXPECT_EQ(map.getEvaluator().constantColor, RgbAlpha(1, 0, 0, 1));  // red by default
    map.set("look", UnsupportedMap::Look::White);
    EXPECT_EQ(map.getEvaluator().constantColor, RgbAlpha(1, 1, 1, 1));
    EXPECT_EQ(map.getEvaluator().constantMono.value, 1.f);

    map.set("look", UnsupportedMap::Look::Invalid);
    IMap::OptimizedResult const r = map.getEvaluator();
    EXPECT_EQ(r.hasConstant, 1);
    for (float v : {r.constantColor.r, r.constantColor.g, r.constantColor.b, r.constantColor.alpha, r.constantMono.value})
        EXPECT_EQ(bits(v), 0xFFFFFFFFu);
    EXPECT_EQ(bits(r.evaluator->evalColor(NullShadeContext(), nullptr).g), 0xFFFFFFFFu);
}

class DeduceUvChannelTest : public ::testing::Test {
protected:
    SharedPtr<TestCompositeMap> root = makeSharedPtr<TestCompositeMap>();
};

TEST_F(DeduceUvChannelTest, NoUvAwareInputGivesZero) {
    EXPECT_EQ(root->deduce(), 0);
    root->set("input1", EntityHolder<IMap>(makeSharedPtr<ConstantColorMap>()));
    EXPECT_EQ(root->deduce(), 0);
}

TEST_F(DeduceUvChannelTest, MapperInAnotherModeDoesNotAnswer) {
    root->set("input1", EntityHolder<IMap>(makeSharedPtr<TestUvMap>(4, UvMappingMode::WorldXyz)));
    EXPECT_EQ(root->deduce(), 0);
    root->set("input2", EntityHolder<IMap>(makeSharedPtr<TestUvMap>(6)));
    EXPECT_EQ(root->deduce(), 6);
}

TEST_F(DeduceUvChannelTest, OneUvAwareInputGivesItsChannel) {
    root->set("input2", EntityHolder<IMap>(makeSharedPtr<TestUvMap>(3)));
    EXPECT_EQ(root->deduce(), 3);
}

TEST_F(DeduceUvChannelTest, TwoInputsGiveTheFirstReached) {
    root->set("input1", EntityHolder<IMap>(makeSharedPtr<TestUvMap>(2)));
    root->set("input2", EntityHolder<IMap>(makeSharedPtr<TestUvMap>(5)));
    EXPECT_EQ(root->deduce(), 2);
    root->set("input1", EntityHolder<IMap>(makeSharedPtr<TestOwnChannelMap>(7)));
    EXPECT_EQ(root->deduce(), 7);
}

TEST_F(DeduceUvChannelTest, NestedInputsAreReached) {
    auto inner = makeSharedPtr<TestCompositeMap>();
    inner->set("input2", EntityHolder<IMap>(makeSharedPtr<TestUvMap>(9)));
    root->set("input1", EntityHolder<IMap>(inner));
    EXPECT_EQ(root->deduce(), 9);
}

TEST_F(DeduceUvChannelTest, TheMapItselfDoesNotAnswer) {
    auto self = makeSharedPtr<TestOwnChannelMap>(8);
    // Reached through the graph it would answer 8; as the root it is skipped.
    struct Exposed : TestOwnChannelMap {
        using TestOwnChannelMap::TestOwnChannelMap;
        int deduce() const { return deduceUvChannelFromGraph(); }
    } exposed(8);
    EXPECT_EQ(exposed.deduce(), 0);
    root->set("input1", EntityHolder<IMap>(self));
    EXPECT_EQ(root->deduce(), 8);
}

} // namespace
