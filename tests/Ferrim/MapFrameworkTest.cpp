#include <gtest/gtest.h>

#include <bit>

#include "Ferrim/IMap.h"
#include "Ferrim/ShadingDataObjectBuilder.h"
#include "Ferrim/UvMapper.h"

using namespace Quelin;

namespace {

std::uint32_t bits(float v) { return std::bit_cast<std::uint32_t>(v); }

// A compositing map with two inputs, which exposes the protected graph deduction.
class TestCompositeMap : public IMap {
public:
    static SharedPtr<DataObjectDefinition const> const& record() {
        static SharedPtr<DataObjectDefinition const> const sDef = [] {
            ShadingDataObjectBuilder b;
            b.addMap("input1", "Input 1");
            b.addMap("input2", "Input 2");
            return b.build("Zatho.TestCompositeMap");
        }();
        return sDef;
    }
    TestCompositeMap() : IMap(record()) {}
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<TestCompositeMap>(); }
    OptimizedResult getEvaluatorImpl() const override { return makeConstantResult(RgbAlpha(0, 0, 0, 1)); }
    int deduce() const { return deduceUvChannelFromGraph(); }
};

// A map that samples through its own UvMapper.
class TestUvMap : public IMap {
public:
    static SharedPtr<DataObjectDefinition const> const& record() {
        static SharedPtr<DataObjectDefinition const> const sDef = [] {
            ShadingDataObjectBuilder b;
            b.addUvMapper();
            return b.build("Zatho.TestUvMap");
        }();
        return sDef;
    }
    explicit TestUvMap(int channel, UvMappingMode mode = UvMappingMode::UvChannel) : IMap(record()) {
        get<EntityHolder<UvMapper>>("uvMapper")->set("uvwMapChannel", channel);
        get<EntityHolder<UvMapper>>("uvMapper")->set("mappingMode", mode);
    }
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<TestUvMap>(1); }
    OptimizedResult getEvaluatorImpl() const override { return makeConstantResult(RgbAlpha(0, 0, 0, 1)); }
};

// A map that reads coordinates without a mapper entity and says so.
class TestOwnChannelMap : public TestCompositeMap {
public:
    explicit TestOwnChannelMap(int channel) : mChannel(channel) {}
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<TestOwnChannelMap>(mChannel); }
    Optional<int> getOwnUvChannel() const override { return mChannel; }

private:
    int mChannel;
};

TEST(ConstantColorMapTest, FoldsToTheColourAndTheExactMean) {
    IMap::OptimizedResult const r = ConstantColorMap(Rgb(0.3f, 0.6f, 0.9f), 0.5f).getEvaluator();
    ASSERT_TRUE(r.evaluator);
    EXPECT_TRUE(r.hasConstant && r.constantColor == RgbAlpha(0.3f, 0.6f, 0.9f, 0.5f));
    EXPECT_EQ(r.evaluator->evalColor(NullShadeContext(), nullptr), r.constantColor);
    MonoAlpha const m = r.evaluator->evalMono(NullShadeContext(), nullptr);
    EXPECT_TRUE(bits(m.value) == bits(r.constantMono.value) && m.alpha == 0.5f);
    // Large and small channels: a different grouping or a division by 3 rounds differently.
    Rgb const color(16777216.f, 1.f, 3.f);
    float const mean = makeConstantResult(RgbAlpha(color, 1.f)).constantMono.value;
    EXPECT_EQ(bits(mean), 0x4AAAAAAEu);
    Dir const bump = r.evaluator->evalBump(NullShadeContext(), nullptr);
    EXPECT_EQ(bits(bump.x) | bits(bump.y) | bits(bump.z), 0u);
}

TEST(DeduceUvChannelTest, FirstUvAwareInputReachedAnswersButNotTheMapItself) {
    EXPECT_EQ(TestOwnChannelMap(8).deduce(), 0);
    auto root = makeSharedPtr<TestCompositeMap>();
    auto set = [&](char const* input, SharedPtr<IMap> map) { root->set(input, EntityHolder<IMap>(map)); };
    set("input1", makeSharedPtr<ConstantColorMap>());
    EXPECT_EQ(root->deduce(), 0);
    set("input1", makeSharedPtr<TestUvMap>(4, UvMappingMode::WorldXyz));  // another mode does not answer
    EXPECT_EQ(root->deduce(), 0);
    set("input2", makeSharedPtr<TestUvMap>(6));
    EXPECT_EQ(root->deduce(), 6);
    set("input1", makeSharedPtr<TestUvMap>(2));
    EXPECT_EQ(root->deduce(), 2);
    set("input1", makeSharedPtr<TestOwnChannelMap>(7));
    EXPECT_EQ(root->deduce(), 7);
    auto inner = makeSharedPtr<TestCompositeMap>();
    inner->set("input2", EntityHolder<IMap>(makeSharedPtr<TestUvMap>(9)));
    set("input1", inner);
    EXPECT_EQ(root->deduce(), 9);
}

} // namespace
