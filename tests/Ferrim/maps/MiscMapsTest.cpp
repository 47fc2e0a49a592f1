#include "Ferrim/maps/MiscMaps.h"

#include <random>

#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

/// A point whose ids, ray kind, face side, material and user properties a test sets.
struct IdContext : SettableShadeContext {
    int objectId = 0, instanceId = 0, faceIndex = 0;
    bool backFace = false;
    RayKind rayKind = RayKind::Camera;
    String material;
    FlatMap<String, UserPropertyValue> properties;
    int getObjectId() const override { return objectId; }
    int getInstanceId() const override { return instanceId; }
    int getFaceIndex() const override { return faceIndex; }
    bool isBackFace() const override { return backFace; }
    RayKind getRayKind() const override { return rayKind; }
    String const& getMaterialName() const override { return material; }
    Optional<UserPropertyValue> getUserProperty(StringView name) const override {
        auto const it = properties.find(String(name));
        if (it == properties.end()) return std::nullopt;
        return it->second;
    }
};

class MiscMapsTest : public LibraryFixture {};

TEST_F(MiscMapsTest, FrontBackFollowsTheFaceSideAndItsBump) {
    FrontBackMap map;
    setInputColor(map, "front", Rgb(1, 0, 0));
    setInputColor(map, "back", Rgb(0, 0, 1));
    IdContext p;
    auto const e = map.getEvaluator().evaluator;
    EXPECT_EQ(e->evalColor(p, nullptr), RgbAlpha(1, 0, 0, 1));
    p.backFace = true;
    EXPECT_EQ(e->evalColor(p, nullptr), RgbAlpha(0, 0, 1, 1));
    setInputMap(map, "back", makeSharedPtr<CountingMap>(RgbAlpha(1, 1, 1, 1)));
    auto const bumped = map.getEvaluator().evaluator;
    EXPECT_EQ(bumped->evalBump(p, nullptr), Dir(1, 2, 3));
    p.backFace = false;
    EXPECT_EQ(bumped->evalBump(p, nullptr), Dir());
    setInputColor(map, "front", Rgb(0.3f));
    setInputMap(map, "back", nullptr);
    setInputColor(map, "back", Rgb(0.3f));
    EXPECT_TRUE(map.getEvaluator().hasConstant);
}

TEST_F(MiscMapsTest, RaySwitcherShowsEachKindsInput) {
    RaySwitchMap map;
    StaticArray<char const*, 5> const names = {{"camera", "reflection", "refraction", "gi", "shadow"}};
    for (std::size_t i = 0; i < names.size(); ++i) setInputColor(map, names[i], Rgb(float(i) / 10.f));
    auto const e = map.getEvaluator().evaluator;
    IdContext p;
    for (RayKind kind : {RayKind::Camera, RayKind::Reflection, RayKind::Refraction, RayKind::Diffuse, RayKind::Shadow}) {
        p.rayKind = kind;
        EXPECT_FLOAT_EQ(e->evalColor(p, nullptr).r, float(kind) / 10.f) << int(kind);
    }
    p.rayKind = RayKind::Light;
    EXPECT_FLOAT_EQ(e->evalColor(p, nullptr).r, 0.f);
    EXPECT_TRUE(RaySwitchMap().getEvaluator().hasConstant);
}

TEST_F(MiscMapsTest, SelectChoosesByEachIdSourceWrappingAroundWithTheChosenBump) {
    SelectMap map;
    for (int i = 0; i < 3; ++i) map.addInput(Rgb(float(i)));
    struct Case {
        SelectMap::Source source;
        Function<void(IdContext&, int)> set;
    };
    Case const cases[] = {
        {SelectMap::Source::ObjectId, [](IdContext& c, int id) { c.objectId = id; }},
        {SelectMap::Source::InstanceId, [](IdContext& c, int id) { c.instanceId = id; }},
        {SelectMap::Source::FaceIndex, [](IdContext& c, int id) { c.faceIndex = id; }},
    };
    for (Case const& c : cases) {
        map.set("source", c.source);
        auto const e = map.getEvaluator().evaluator;
        for (auto const [id, want] : {std::pair{0, 0}, {1, 1}, {2, 2}, {5, 2}, {-1, 2}, {-3, 0}}) {
            IdContext p;
            c.set(p, id);
            EXPECT_EQ(e->evalColor(p, nullptr).r, float(want)) << int(c.source) << " id " << id;
        }
    }
    map.set("source", SelectMap::Source::MaterialNameHash);
    IdContext p;
    p.material = "brick";
    EXPECT_EQ(SelectMap::hashName("a"), 0xe40c292cu);  // the published FNV-1a value
    EXPECT_EQ(map.getEvaluator().evaluator->evalColor(p, nullptr).r, float(SelectMap::hashName("brick") % 3));

    map.set("source", SelectMap::Source::Index), map.set("index", 4);
    auto const fixed = map.getEvaluator();
    EXPECT_TRUE(fixed.hasConstant);
    EXPECT_EQ(fixed.constantColor.r, 1.f);

    map.set("source", SelectMap::Source::IndexMap);
    map.set("indexMap", EntityHolder<Entity>(makeSharedPtr<CountingMap>(RgbAlpha(2.5f, 2.5f, 2.5f, 1))));
    EXPECT_EQ(map.getEvaluator().evaluator->evalColor(IdContext(), nullptr).r, 2.f);
    EXPECT_TRUE(SelectMap().getEvaluator().hasConstant);  // no inputs: black

    // The bump is the chosen input's: a map behind input 1, flat constants elsewhere.
    ListPropertyValue list = map.get<ListPropertyValue>("inputs");
    setInputMap(list[1], "input", makeSharedPtr<CountingMap>(RgbAlpha(1, 1, 1, 1)));
    map.set("inputs", list);
    map.set("source", SelectMap::Source::ObjectId);
    IdContext first, second;
    second.objectId = 1;
    EXPECT_EQ(map.getEvaluator().evaluator->evalBump(first, nullptr), Dir());
    EXPECT_EQ(map.getEvaluator().evaluator->evalBump(second, nullptr), Dir(1, 2, 3));
}

TEST_F(MiscMapsTest, UserPropertyReadsNumbersColoursAndTextOrShowsTheDefault) {
    UserPropertyMap map;
    map.set("propertyName", String("tint"));
    setInputColor(map, "default", Rgb(0.25f));
    auto const e = map.getEvaluator().evaluator;
    IdContext p;
    EXPECT_EQ(e->evalColor(p, nullptr), RgbAlpha(0.25f, 0.25f, 0.25f, 1));
    struct Case { UserPropertyValue value; RgbAlpha want; };
    for (Case const& c : {Case{0.5f, {0.5f, 0.5f, 0.5f, 1}}, Case{Rgb(1, 2, 3), {1, 2, 3, 1}},
                          Case{String("0.1, 0.2 0.3"), {0.1f, 0.2f, 0.3f, 1}}, Case{String(" 7 "), {7, 7, 7, 1}},
                          Case{String("red"), {0.25f, 0.25f, 0.25f, 1}}, Case{String("1 2"), {0.25f, 0.25f, 0.25f, 1}},
                          Case{String("1 2 3 4"), {0.25f, 0.25f, 0.25f, 1}}}) {
        p.properties["tint"] = c.value;
        EXPECT_EQ(e->evalColor(p, nullptr), c.want);
    }
    map.set("propertyName", String());
    EXPECT_TRUE(map.getEvaluator().hasConstant);
}

TEST(ColorMath, OperationsAndTheirConventions) {
    using Op = ColorMathMap::Operation;
    float const nan = std::numeric_limits<float>::quiet_NaN();
    struct Case { Op op; float a, b, want; };
    for (Case const c : {Case{Op::Add, 1.5f, -2.f, -0.5f}, Case{Op::Subtract, 1.f, 3.f, -2.f}, Case{Op::Multiply, -2.f, 3.f, -6.f},
                         Case{Op::Divide, 3.f, 2.f, 1.5f}, Case{Op::Divide, 3.f, 0.f, 0.f}, Case{Op::Minimum, 2.f, nan, 2.f},
                         Case{Op::Maximum, nan, -1.f, -1.f}, Case{Op::Power, 2.f, 3.f, 8.f}, Case{Op::Power, -2.f, 3.f, -8.f},
                         Case{Op::Power, -2.f, 0.5f, 0.f}, Case{Op::Power, 0.f, -1.f, 0.f}, Case{Op::Average, 1.f, 4.f, 2.5f},
                         Case{Op::Absolute, -3.f, 0.f, 3.f}, Case{Op::Floor, -0.5f, 0.f, -1.f}, Case{Op::Fraction, -0.25f, 0.f, 0.75f},
                         Case{Op::Modulo, -5.f, 3.f, -2.f}, Case{Op::Modulo, 5.f, 0.f, 0.f}, Case{Op::Clamp, 1.5f, 0.f, 1.f},
                         Case{Op::Clamp, -1.f, 0.f, 0.f}, Case{Op::Compare, 1.f, 1.0005f, 1.f}, Case{Op::Compare, 1.f, 1.1f, 0.f},
                         Case{Op::Compare, nan, nan, 0.f}})
        EXPECT_FLOAT_EQ(ColorMathMap::apply(c.op, c.a, c.b, 1e-3f), c.want) << int(c.op) << " " << c.a << " " << c.b;
    EXPECT_TRUE(std::isnan(ColorMathMap::apply(Op::Add, nan, 1.f, 0.f)));
    EXPECT_TRUE(std::isnan(ColorMathMap::apply(Op::Clamp, nan, 1.f, 0.f)));
}

TEST(ColorMath, SlopesMatchFiniteDifferences) {
    using Op = ColorMathMap::Operation;
    for (Op op : {Op::Add, Op::Subtract, Op::Multiply, Op::Divide, Op::Minimum, Op::Maximum, Op::Power, Op::Average,
                  Op::Absolute, Op::Fraction, Op::Modulo, Op::Clamp})
        for (auto const [a, b] : {std::pair{0.7f, 1.3f}, {1.9f, 0.4f}, {-0.3f, 2.f}}) {
            if (op == Op::Power && a < 0.f) continue;
            double const h = 1e-3;
            auto f = [&](double x, double y) { return double(ColorMathMap::apply(op, float(x), float(y), 0.f)); };
            auto const [da, db] = ColorMathMap::slopes(op, a, b);
            EXPECT_NEAR(da, (f(a + h, b) - f(a - h, b)) / (2 * h), 2e-2) << int(op) << " " << a << " " << b;
            EXPECT_NEAR(db, (f(a, b + h) - f(a, b - h)) / (2 * h), 2e-2) << int(op) << " " << a << " " << b;
        }
}

TEST_F(MiscMapsTest, ColorMathChainsBumps) {
    ColorMathMap map;
    map.set("operation", ColorMathMap::Operation::Multiply);
    setInputColor(map, "a", Rgb(2, 3, 4));
    setInputMap(map, "b", makeSharedPtr<CountingMap>(RgbAlpha(0.5f, 0.5f, 0.5f, 1)));  // bump (1, 2, 3)
    // d(a b) = a db: a's mono is 3.
    Testing::expectNear(map.getEvaluator().evaluator->evalBump(SettableShadeContext(), nullptr), Dir(3, 6, 9), 1e-5f);
}

TEST_F(MiscMapsTest, ConstantFoldingGivesTheUnfoldedValuesOnRandomPoints) {
    // Each map folded from constants, against the same map fed by the same colour through a non-constant input.
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> d(-1.f, 2.f);
    for (int op = 0; op <= int(ColorMathMap::Operation::Compare); ++op) {
        ColorMathMap folded, unfolded;
        Rgb const a(d(rng), d(rng), d(rng)), b(d(rng), d(rng), d(rng));
        for (ColorMathMap* m : {&folded, &unfolded}) {
            m->set("operation", ColorMathMap::Operation(op));
            setInputColor(*m, "a", a);
            setInputColor(*m, "b", b);
        }
        setInputMap(unfolded, "a", makeSharedPtr<CountingMap>(RgbAlpha(a, 1.f)));
        auto const f = folded.getEvaluator(), u = unfolded.getEvaluator();
        ASSERT_TRUE(f.hasConstant);
        ASSERT_FALSE(u.hasConstant);
        for (int i = 0; i < 10; ++i) {
            SettableShadeContext const p(d(rng), d(rng), d(rng));
            EXPECT_EQ(f.evaluator->evalColor(p, nullptr), u.evaluator->evalColor(p, nullptr)) << op;
        }
    }
}

} // namespace
} // namespace Quelin
