// Chains far longer than any user builds, and stored pipelines that try to
// make them: walking a chain must not take one stack frame per operator.
#include <gtest/gtest.h>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/ColorMappingPipeline.h"
#include "QuelinLib/Json.h"

using namespace Quelin;

namespace {

constexpr std::size_t LONG_CHAIN = 40000;

EntityHolder<UnaryColorMappingOperator> makeOperator(StringView type) {
    auto op = ColorMappingOperatorFactory::getInstance().createOperator(type);
    EXPECT_TRUE(op) << type;
    return op;
}

/// Exposure +1, `identities` identity operators, then the sRGB encoding: the
/// order matters, so a chain applied the wrong way round gives other values.
EntityHolder<UnaryColorMappingOperator> exposureThenSrgb(std::size_t identities) {
    auto chain = makeOperator("Zatho.SimpleExposureOperator");
    chain->set("simpleExposure", 1.f);
    for (std::size_t i = 0; i < identities; ++i) {
        auto op = makeOperator("Zatho.IdentityOperator");
        op->setPredecessor(chain);
        chain = op;
    }
    auto last = makeOperator("Zatho.LinearToSrgbOperator");
    last->setPredecessor(chain);
    return last;
}

void expectRgbNear(Rgb const& a, Rgb const& b) { Testing::expectNear(a, b, 1e-6f); }

String pipelineText(String const& operators) {
    return R"({"mimeType": "application/vnd.zatho.ostrel.color-mapping", "version": 1, "operators": [)" + operators + "]}";
}

using LongChainTest = Testing::LibraryFixture;

} // namespace

TEST_F(LongChainTest, MapsUnmapsPreparesAndDestroysWithoutRecursion) {
    auto const reference = exposureThenSrgb(0);
    auto longChain = exposureThenSrgb(LONG_CHAIN);
    ColorMappingContext const context;
    reference->prepareForApplication(context);
    longChain->prepareForApplication(context);

    Rgb const in(0.05f, 0.2f, 0.45f);
    Rgb const expected = reference->map(in, {});
    expectRgbNear(longChain->map(in, {}), expected);
    expectRgbNear(longChain->unmap(expected, {}), in);
    Stack<Rgb> bucket(5, in);
    longChain->map(std::span<Rgb>(bucket), Pixel(0, 0), Pixel(5, 1));
    for (Rgb const& c : bucket) expectRgbNear(c, expected);

    // A copy rebuilt from the records maps the same and shares nothing.
    auto copy = ColorMappingOperatorFactory::getInstance().createOperator(longChain->getData());
    ASSERT_TRUE(copy);
    EXPECT_EQ(getPipelineOperators(copy).size(), LONG_CHAIN + 2);
    EXPECT_NE(getPipelineOperators(copy).front().get(), getPipelineOperators(longChain).front().get()) << "shares operators";
    copy->prepareForApplication(context);
    expectRgbNear(copy->map(in, {}), longChain->map(in, {}));

    // Overrides reach the first operator.
    String errors;
    ToneMappingPropertyOverride const twoStops{"Zatho.SimpleExposureOperator", "simpleExposure", 2.f};
    longChain->applyOverrides(std::span(&twoStops, 1), errors);
    reference->applyOverrides(std::span(&twoStops, 1), errors);
    EXPECT_EQ(errors, "");
    longChain->prepareForApplication(context);
    reference->prepareForApplication(context);
    expectRgbNear(longChain->map(in, {}), reference->map(in, {}));

    WeakPtr<UnaryColorMappingOperator> const first = getPipelineOperators(longChain).front().getShared();
    longChain = {};
    copy = {};
    EXPECT_TRUE(first.expired());
}

TEST_F(LongChainTest, AChainEditedIntoALoopIsRefusedWhenPrepared) {
    auto a = makeOperator("Zatho.IdentityOperator"), b = makeOperator("Zatho.IdentityOperator");
    b->setPredecessor(a);
    a->setPredecessor(b);
    EXPECT_THROW(b->prepareForApplication(ColorMappingContext()), Exception);
    a->setPredecessor(EntityHolder<IColorMappingOperator>());  // break the loop so both are freed
}

TEST_F(LongChainTest, StoredPipelinesAreBoundedInLengthAndDepth) {
    auto operators = [](std::size_t n) {
        String list;
        for (std::size_t i = 0; i < n; ++i) list += String(i ? "," : "") + R"({"@class": "Zatho.IdentityOperator"})";
        return list;
    };
    auto const longest = deserializePipeline(pipelineText(operators(MAX_PIPELINE_OPERATORS)));
    ASSERT_TRUE(longest) << longest.error();
    EXPECT_EQ(getPipelineOperators(longest->pipeline).size(), MAX_PIPELINE_OPERATORS);

    // Deep files are the tool tests' (they name the file).
    auto const tooLong = deserializePipeline(pipelineText(operators(MAX_PIPELINE_OPERATORS + 1)));
    ASSERT_FALSE(tooLong);
    EXPECT_EQ(tooLong.error().rfind(String(PIPELINE_CORRUPTED_MESSAGE), 0), 0u) << tooLong.error();
    EXPECT_NE(tooLong.error().find("It has 1001 operators; at most 1000"), String::npos) << tooLong.error();

    // Already parsed (a pipeline inside a scene file), the nesting is bounded too.
    nlohmann::json root = *parseJson(pipelineText(""));
    nlohmann::json predecessor = nullptr;
    for (int i = 0; i < 150; ++i)
        predecessor = nlohmann::json{{"@class", "Zatho.IdentityOperator"}, {"predecessor", std::move(predecessor)}};
    root["operators"].push_back(std::move(predecessor));
    auto const fromScene = pipelineFromJson(root);
    ASSERT_FALSE(fromScene);
    EXPECT_NE(fromScene.error().find("entities nested deeper than 100 levels"), String::npos) << fromScene.error();
}
