#include <gtest/gtest.h>

#include "QuelinLib/Json.h"

using namespace Quelin;

namespace {

SharedPtr<DataObjectDefinition const> itemDefinition() {
    static auto const def = [] {
        struct B : IDataObjectBuilder {
            SharedPtr<PropertyDefinition> addProperty(StringView n, SharedPtr<TypeDefinition const> t, PropertyKind k) override {
                auto p = createProperty(n, std::move(t), k);
                mProperties.push_back(p);
                return p;
            }
        } b;
        b.addProperty("name", TypeDefinition::makeString(), PropertyKind::Normal);
        b.addProperty("position", TypeDefinition::makeFloat(), PropertyKind::Normal)
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
                struct B : IDataObjectBuilder {
                    SharedPtr<PropertyDefinition> addProperty(StringView n, SharedPtr<TypeDefinition const> t,
                                                              PropertyKind k = PropertyKind::Normal) override {
                        auto p = createProperty(n, std::move(t), k);
                        mProperties.push_back(p);
                        return p;
                    }
                } b;
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
    child->set("size", 0.1f);
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
    auto loadedChild = data.get<EntityHolder<TestEntity>>("child");
    ASSERT_TRUE(loadedChild);
    EXPECT_FLOAT_EQ(loadedChild->get<float>("size"), 0.1f);
    EXPECT_EQ(entityToJson(**loaded), json);
}

TEST_F(DataObjectsTest, JsonErrorsNameTheProblemAndKeepTheRecord) {
    TestEntity e;
    e.set("size", 2.f);
    auto expectError = [&](char const* text, char const* needle) {
        auto r = e.loadInternalData(nlohmann::json::parse(text));
        ASSERT_FALSE(r) << text;
        EXPECT_NE(r.error().find(needle), String::npos) << r.error();
        EXPECT_FLOAT_EQ(e.get<float>("size"), 2.f);
    };
    expectError(R"({"size": 5, "sizee": 1})", "sizee");
    expectError(R"({"size": "big"})", "size");
    expectError(R"({"type": "CIRCULAR"})", "CIRCULAR");
    expectError(R"({"tint": [1, 2]})", "tint");
    expectError(R"({"child": {"@class": "Test.Unknown"}})", "Test.Unknown");
    expectError(R"({"items": [{"name": 3}]})", "item 1");
    EXPECT_FALSE(parseJson("{\"a\": ").has_value());
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

TEST(Identifiers, UuidsAndClassIds) {
    auto const u = generateUuidAsString();
    EXPECT_EQ(u.size(), 36u);
    EXPECT_EQ(u[14], '4');
    EXPECT_NE(u, generateUuidAsString());
    EXPECT_EQ(makeClassId("Zatho.NoiseMap"), makeClassId("Zatho.NoiseMap"));
    EXPECT_NE(makeClassId("Zatho.NoiseMap"), makeClassId("Zatho.CellularMap"));
    UniqueIdGenerator g;
    EXPECT_EQ(g.next(), 1u);
    EXPECT_EQ(g.next(), 2u);
}
