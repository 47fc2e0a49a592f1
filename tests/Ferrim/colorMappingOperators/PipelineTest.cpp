#include <gtest/gtest.h>

#include "Ferrim/FerrimTestSupport.h"
#include "Ferrim/colorMappingOperators/ColorMappingPipeline.h"
#include "Ferrim/colorMappingOperators/ObsoleteOperator.h"

using namespace Quelin;

namespace {

using PipelineTest = Testing::LibraryFixture;

GenericDataObject record(StringView type) {
    auto const* d = ColorMappingOperatorFactory::getInstance().findDescriptor(type);
    EXPECT_NE(d, nullptr) << type;
    GenericDataObject data(d->definition);
    data.set("id", UnaryColorMappingOperator::generateId());
    return data;
}
Stack<String> typesOf(EntityHolder<const IColorMappingOperator> pipeline) {
    Stack<String> names;
    for (auto const& op : getPipelineOperators(pipeline)) names.push_back(op->getClassName());
    return names;
}
EntityHolder<IColorMappingOperator> exposureCurvesContrast() {
    auto exposure = record("Zatho.SimpleExposureOperator");
    exposure.set("simpleExposure", 1.5f);
    return createPipeline({exposure, record("Zatho.CurvesOperator"), record("Zatho.ContrastOperator")});
}
String withMimeType(String const& members) {
    return R"({"mimeType": "application/vnd.zatho.ostrel.color-mapping", )" + members + "}";
}

} // namespace

TEST_F(PipelineTest, CreateInsertsConversionsOnlyBetweenOperators) {
    EXPECT_FALSE(createPipeline({}));
    EXPECT_EQ(typesOf(createPipeline({record("Zatho.CurvesOperator")})), Stack<String>{"Zatho.CurvesOperator"});
    auto const chain = exposureCurvesContrast();
    EXPECT_EQ(typesOf(chain), (Stack<String>{"Zatho.SimpleExposureOperator", "Zatho.LinearToSrgbOperator", "Zatho.CurvesOperator",
                                             "Zatho.SrgbToLinearOperator", "Zatho.ContrastOperator"}));
    EXPECT_EQ(chain->getOutputEncoding(), OperatorColorEncoding::Linear);
    // Records of unknown types are left out.
    ShadingDataObjectBuilder b;
    GenericDataObject stranger(b.build("Zatho.NotAnOperator"));
    EXPECT_EQ(typesOf(createPipeline({stranger, record("Zatho.TintOperator")})), Stack<String>{"Zatho.TintOperator"});
}

TEST_F(PipelineTest, FlatteningDropsOrKeepsConversionsAndRebuildsTheSameChain) {
    auto const chain = exposureCurvesContrast();
    auto const visible = convertPipelineToDataObjects(chain, HiddenItemsTreatment::Skip);
    auto const all = convertPipelineToDataObjects(chain, HiddenItemsTreatment::Keep);
    ASSERT_EQ(visible.size(), 3u);
    EXPECT_EQ(all.size(), 5u);
    for (auto const& r : all) EXPECT_FALSE(r.get<EntityHolder<Entity>>("predecessor"));
    EXPECT_FLOAT_EQ(visible[0].get<float>("simpleExposure"), 1.5f);
    auto const rebuilt = createPipeline(visible);
    EXPECT_EQ(typesOf(rebuilt), typesOf(chain));
    EXPECT_TRUE(areOperatorsDataSame(convertPipelineToDataObjects(rebuilt, HiddenItemsTreatment::Skip), visible));
    // The conversions inserted again are new operators with new ids.
    EXPECT_FALSE(arePipelinesSame(rebuilt, chain));
}

TEST_F(PipelineTest, DeepCopySharesNothingAndEqualsTheSource) {
    auto const source = createDefaultPipeline();
    auto const copy = createPipelineDeepCopy(source);
    auto const a = getPipelineOperators(source), b = getPipelineOperators(copy);
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        EXPECT_NE(a[i].get(), b[i].get());
        EXPECT_EQ(a[i]->get<int>("id"), b[i]->get<int>("id"));
    }
    EXPECT_TRUE(arePipelinesSame(source, copy));
    b[0]->set("simpleExposure", 2.f);
    EXPECT_FLOAT_EQ(a[0]->get<float>("simpleExposure"), 0.f);
    EXPECT_FALSE(arePipelinesSame(source, copy));
    // The id counts like any value: same settings under a new id differ.
    b[0]->set("simpleExposure", 0.f);
    b[4]->set("id", UnaryColorMappingOperator::generateId());
    EXPECT_FALSE(arePipelinesSame(source, copy));
    EXPECT_FALSE(areOperatorsDataSame(convertPipelineToDataObjects(source, HiddenItemsTreatment::Skip),
                                      convertPipelineToDataObjects(copy, HiddenItemsTreatment::Skip)));
    // Types must match too, not only values.
    auto tint = record("Zatho.TintOperator"), identity = record("Zatho.IdentityOperator");
    identity.set("id", tint.get<int>("id"));
    EXPECT_FALSE(areOperatorsDataSame({tint}, {identity}));
    // Ids are unique within a chain until one is copied over another.
    EXPECT_TRUE(hasUniqueIds(source));
    a[3]->set("id", a[1]->get<int>("id"));
    EXPECT_FALSE(hasUniqueIds(source));
}

TEST_F(PipelineTest, UpdateWritesValuesOnlyIntoTheSameShape) {
    auto const chain = exposureCurvesContrast();
    auto data = convertPipelineToDataObjects(chain, HiddenItemsTreatment::Skip);
    data[2].set("contrast", 1.4f);
    ASSERT_TRUE(updatePipelineWithData(chain, data));
    auto ops = getPipelineOperators(chain);
    EXPECT_FLOAT_EQ(ops.back()->get<float>("contrast"), 1.4f);
    EXPECT_EQ(typesOf(chain).size(), 5u);  // links untouched
    data.pop_back();
    data[0].set("simpleExposure", -3.f);
    EXPECT_FALSE(updatePipelineWithData(chain, data));
    EXPECT_FLOAT_EQ(ops.front()->get<float>("simpleExposure"), 1.5f);
}

TEST_F(PipelineTest, CorruptedTextsAreRefusedWithTheLoaderMessage) {
    for (String const& text :
         {String("not json at all"), String("[1, 2]"), String(R"({"operators": []})"), withMimeType(R"("operators": {})"),
          withMimeType(R"("operators": [{"@class": "Zatho.Nope"}])"),
          withMimeType(R"("operators": [{"@class": "Zatho.ContrastOperator", "contrast": "high"}])"),
          withMimeType(R"("operators": [{"enabled": true}])"), withMimeType(R"("version": 7, "operators": [])")}) {
        auto loaded = deserializePipeline(text);
        ASSERT_FALSE(loaded) << text;
        EXPECT_EQ(loaded.error().rfind(String(PIPELINE_CORRUPTED_MESSAGE), 0), 0u) << loaded.error();
    }
}

TEST_F(PipelineTest, LegacyOperatorsAreRemovedWithTheWarning) {
    String const text = R"({"mimeType": "application/vnd.zatho.ostrel.color-mapping", "version": 1, "operators": [
        {"@class": "Zatho.AcesRrtOperator"},
        {"@class": "Zatho.SimpleExposureOperator", "simpleExposure": 1.0},
        {"@class": "Zatho.AcesOtOperator2"},
        {"@class": "Zatho.TintOperator"}]})";
    auto loaded = deserializePipeline(text);
    ASSERT_TRUE(loaded) << loaded.error();
    EXPECT_EQ(loaded->warning,
              "The loaded tone mapping settings contained the following legacy operators:\n"
              "Zatho.AcesRrtOperator\nZatho.AcesOtOperator2\n"
              "They were removed and the tone mapping settings are now correct.");
    EXPECT_EQ(typesOf(loaded->pipeline), (Stack<String>{"Zatho.SimpleExposureOperator", "Zatho.TintOperator"}));
    // The chain now maps without reaching a legacy operator.
    loaded->pipeline->prepareForApplication(ColorMappingContext());
    EXPECT_NEAR(loaded->pipeline->map(Rgb(1.f), {}).r, 2.f, 1e-5f);
    EXPECT_TRUE(removeObsoleteOperatorsFromPipeline(loaded->pipeline).empty());
}
