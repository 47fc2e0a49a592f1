#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "QuelinLib/Json.h"
#include "QuelinLib/MessageText.h"

using namespace Quelin;

namespace {

struct Builder : IDataObjectBuilder {
    SharedPtr<PropertyDefinition> addProperty(StringView n, SharedPtr<TypeDefinition const> t,
                                              PropertyKind k = PropertyKind::Normal) override {
        auto p = createProperty(n, std::move(t), k);
        mProperties.push_back(p);
        return p;
    }
};

SharedPtr<DataObjectDefinition const> itemDefinition() {
    static auto const def = [] {
        Builder b;
        b.addProperty("name", TypeDefinition::makeString());
        b.addProperty("position", TypeDefinition::makeFloat())
            ->addValidator(makeSharedPtr<ClampValueToRangeValidator<float>>(0.f, 1.f));
        return b.build("Test.Item");
    }();
    return def;
}

class TestEntity : public Entity {
public:
    struct Data {
        static SharedPtr<DataObjectDefinition const> const& definition() {
            static auto const def = [] {
                Builder b;
                b.addProperty("size", TypeDefinition::makeFloat())
                    ->setDefault(1.f)
                    .addValidator(makeSharedPtr<MinimumValueValidator<float>>(0.f));
                b.addProperty("type", TypeDefinition::makeEnum("Test.Kind", {{0, "REGULAR"}, {1, "FRACTAL"}}));
                b.addProperty("tint", TypeDefinition::makeColor())->setDefault(Rgb(1, 0.5f, 0.25f));
                b.addProperty("child", TypeDefinition::makeEntityRef<TestEntity>("Test.Entity"));
                b.addProperty("items", TypeDefinition::makeList(itemDefinition()));
                b.addProperty("place", TypeDefinition::makeTransform());
                return b.build("Test.Entity");
            }();
            return def;
        }
    };
    TestEntity() : Entity(Data::definition()) {}
    SharedPtr<Entity> createNewInstance() const override { return makeSharedPtr<TestEntity>(); }
    void onDataChanged(StringView name) override { changes.push_back(String(name)); }
    Stack<String> changes;
};

class DataObjectsTest : public ::testing::Test {
protected:
    void SetUp() override {
        DataObjects::TypeDatabase::registerModuleTypes(
            &sModule, {{TestEntity::Data::definition(), [] { return SharedPtr<Entity>(makeSharedPtr<TestEntity>()); }}});
    }
    void TearDown() override { DataObjects::TypeDatabase::unregisterModuleTypes(&sModule); }
    static inline int sModule = 0;
};

/// A chain root -> child -> ... of `length` entities, built in code.
SharedPtr<TestEntity> makeChain(std::size_t length) {
    auto root = makeSharedPtr<TestEntity>();
    auto last = root;
    for (std::size_t i = 1; i < length; ++i) {
        auto next = makeSharedPtr<TestEntity>();
        last->set("child", EntityHolder<TestEntity>(next));
        last = next;
    }
    return root;
}

/// {"@class": "Test.Entity", "child": {...}} nested `depth` entities deep.
String nestedEntityText(int depth) {
    String text;
    for (int i = 0; i < depth; ++i) text += R"({"@class": "Test.Entity", "child": )";
    text += "null";
    text.append(std::size_t(depth), '}');
    return text;
}

} // namespace

TEST_F(DataObjectsTest, ValidatorsRefuseOrClampAndNotify) {
    TestEntity e;
    EXPECT_FLOAT_EQ(e.get<float>("size"), 1.f);
    auto r = e.setValue("size", -2.f);
    ASSERT_FALSE(r);
    EXPECT_NE(r.error().find("size"), String::npos);
    EXPECT_FLOAT_EQ(e.get<float>("size"), 1.f);
    EXPECT_TRUE(e.setValue("size", 3));  // ints widen to floats
    EXPECT_FLOAT_EQ(e.get<float>("size"), 3.f);
    EXPECT_EQ(e.changes, (Stack<String>{"size"}));
    EXPECT_FALSE(e.setValue("type", 7)) << "7 is not a value of the enumeration";
    EXPECT_FALSE(e.setValue("nope", 1.f));

    GenericDataObject item(itemDefinition());
    item.set("position", 1.5f);
    EXPECT_FLOAT_EQ(item.get<float>("position"), 1.f);
}

TEST_F(DataObjectsTest, JsonRoundTripIsExact) {
    auto root = makeSharedPtr<TestEntity>();
    auto child = makeSharedPtr<TestEntity>();
    float const inf = std::numeric_limits<float>::infinity();
    child->set("size", inf); // non-finite floats survive the text too
    child->set("tint", Rgb(-inf, std::numeric_limits<float>::quiet_NaN(), 0.5f));
    root->set("child", EntityHolder<TestEntity>(child));
    root->set("type", 1);
    root->set("tint", Rgb(0.1f, 0.2f, 1e-8f));
    AffineTm tm;
    tm.m[0][3] = 0.3f;
    tm.m[1][2] = -2.f;
    root->set("place", tm);
    ListPropertyValue items;
    GenericDataObject item(itemDefinition());
    item.set("name", String("Stop #1"));
    item.set("position", 0.25f);
    items.push_back(item);
    root->set("items", items);

    auto const json = entityToJson(*root);
    EXPECT_EQ(json["type"], "FRACTAL");
    auto loaded = entityFromJson(nlohmann::json::parse(json.dump()));
    ASSERT_TRUE(loaded) << loaded.error();
    auto const& data = (*loaded)->getData();
    EXPECT_EQ(data.get<Rgb>("tint"), root->get<Rgb>("tint"));
    EXPECT_EQ(data.get<AffineTm>("place"), tm);
    EXPECT_EQ(data.get<ListPropertyValue>("items"), items);
    EXPECT_EQ(entityToJson(**loaded), json); // the child included
    auto const loadedChild = data.get<EntityHolder<TestEntity>>("child");
    ASSERT_TRUE(loadedChild);
    EXPECT_EQ(loadedChild->get<float>("size"), inf);
    Rgb const tint = loadedChild->get<Rgb>("tint");
    EXPECT_TRUE(tint.r == -inf && std::isnan(tint.g) && tint.b == 0.5f) << json.dump();
}

TEST_F(DataObjectsTest, JsonErrorsNameThePropertyAndProblemAndKeepTheRecord) {
    struct Case { char const* json; char const* needle; };
    TestEntity e;
    e.set("size", 2.f);
    for (Case const& c : {Case{R"({"size": 5, "sizee": 1})", "sizee"},
                          Case{R"({"size": "big"})", "size"},
                          Case{R"({"type": "CIRCULAR"})", "CIRCULAR"},
                          Case{R"({"tint": [1, 2]})", "tint"},
                          Case{R"({"child": {"@class": "Test.Unknown"}})", "Test.Unknown"},
                          Case{R"({"items": [{"name": 3}]})", "item 1"},
                          // Numbers beyond the property's type.
                          Case{R"({"size": 1e39})", "property \"size\": 1e+39 is beyond the range of a float"},
                          Case{R"({"tint": [0, 3.5e38, 0]})", "property \"tint\" expects an array of 3 numbers"},
                          Case{R"({"type": 4294967297})", "4294967297 is not a value of \"Test.Kind\""}}) {
        auto const r = e.loadInternalData(nlohmann::json::parse(c.json));
        ASSERT_FALSE(r) << c.json;
        EXPECT_NE(r.error().find(c.needle), String::npos) << r.error();
        EXPECT_FLOAT_EQ(e.get<float>("size"), 2.f) << c.json;
    }
}

TEST_F(DataObjectsTest, GraphVisitReachesEachEntityOnceAndStops) {
    auto a = makeSharedPtr<TestEntity>(), b = makeSharedPtr<TestEntity>(), c = makeSharedPtr<TestEntity>();
    a->set("child", EntityHolder<TestEntity>(b));
    b->set("child", EntityHolder<TestEntity>(c));
    c->set("child", EntityHolder<TestEntity>(a));  // a cycle must not loop
    int visits = 0;
    visitEntityGraphNodes(*a, [&](Entity const&) { ++visits; return VisitEntityGraphAction::Continue; });
    EXPECT_EQ(visits, 3);
    visits = 0;
    visitEntityGraphNodes(*a, [&](Entity const& e) {
        ++visits;
        return &e == b.get() ? VisitEntityGraphAction::Stop : VisitEntityGraphAction::Continue;
    });
    EXPECT_EQ(visits, 2);
    c->set("child", EntityHolder<TestEntity>());
}

TEST_F(DataObjectsTest, LongChainsAreVisitedAndDestroyedWithoutRecursion) {
    // Deep enough that one stack frame per entity would overflow any stack.
    std::size_t const length = 100000;
    auto root = makeChain(length);
    std::size_t visits = 0;
    visitEntityGraphNodes(*root, [&](Entity const&) { ++visits; return VisitEntityGraphAction::Continue; });
    EXPECT_EQ(visits, length);
    EntityHolder<TestEntity> end(root);
    while (auto next = end->get<EntityHolder<TestEntity>>("child")) end = next;
    WeakPtr<TestEntity> const last = end.getShared();
    end = {};
    root.reset();
    EXPECT_TRUE(last.expired());
}

TEST_F(DataObjectsTest, EntityNestingIsBoundedWhenReadAndWritten) {
    auto const atLimit = parseJson(nestedEntityText(MAX_ENTITY_NESTING));
    ASSERT_TRUE(atLimit) << atLimit.error();
    auto loaded = entityFromJson(*atLimit);
    ASSERT_TRUE(loaded) << loaded.error();
    EXPECT_NO_THROW(entityToJson(**loaded));

    // One more level, whether from text or built in memory, is refused with
    // one short line before anything recursive runs.
    auto const deeper = entityFromJson(*parseJson(nestedEntityText(MAX_ENTITY_NESTING + 1)));
    ASSERT_FALSE(deeper);
    EXPECT_EQ(deeper.error(), "entities nested deeper than 100 levels");
    EXPECT_THROW(entityToJson(*makeChain(MAX_ENTITY_NESTING + 1)), Exception);

    nlohmann::json deepArray = nlohmann::json::array();
    for (int i = 0; i < 100000; ++i) deepArray = nlohmann::json::array({std::move(deepArray)});
    nlohmann::json entity = {{"@class", "Test.Entity"}};
    entity["items"] = std::move(deepArray);  // moved: a copy would recurse
    auto const arrays = entityFromJson(entity);
    ASSERT_FALSE(arrays);
    EXPECT_NE(arrays.error().find("nested deeper than 256"), String::npos) << arrays.error();
}

TEST(Json, ParseErrorsAreOneLineWithThePosition) {
    struct Case { String text, needle; };
    String const deep = "{\"version\":\n" + String(200000, '[') + String(200000, ']') + "}";
    for (Case const& c : {Case{deep, "nested deeper than 256 levels at line 2"},
                          Case{"[1e400]", "number overflow"},
                          Case{"{\"a\": \"\xff\xfe\x01\"}", "\\xFF"},
                          Case{"{\"a\":\n  tru}", "line 2"}}) {
        auto const r = parseJson(c.text);
        ASSERT_FALSE(r) << c.needle;
        EXPECT_NE(r.error().find(c.needle), String::npos) << r.error();
        EXPECT_EQ(r.error().find('\n'), String::npos) << r.error();
        EXPECT_EQ(r.error(), printableText(r.error(), String::npos)) << "raw bytes in " << r.error();
    }
    auto const ok = parseJson("[" + String(MAX_JSON_DEPTH - 1, '[') + String(MAX_JSON_DEPTH, ']'));
    EXPECT_TRUE(ok) << ok.error();
}

TEST(Json, IntegerAndFloatConversionsStopAtTheTypesRange) {
    using nlohmann::json;
    EXPECT_EQ(jsonToInt(json(2147483647)), 2147483647);
    EXPECT_EQ(jsonToInt(json(-2147483647 - 1)), -2147483647 - 1);
    for (json const& j : {json(2147483648u), json(4294967297ull), json(-2147483649ll), json(1.0)})
        EXPECT_EQ(jsonToInt(j), std::nullopt) << j; // 4294967297 must not wrap to 1
    float const largest = std::numeric_limits<float>::max();
    // The shortest text of the largest float reads back as a double just above it.
    EXPECT_EQ(jsonToFloat(json::parse("3.4028235e+38")), largest);
    for (json const& j : {json(3.4028237e38), json(1e39), json("1.5")}) EXPECT_EQ(jsonToFloat(j), std::nullopt) << j;
}
