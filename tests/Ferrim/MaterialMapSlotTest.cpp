#include <gtest/gtest.h>

#include "Ferrim/maps/MapsTestSupport.h"

using namespace Quelin;
using Interpolation = MaterialMapSlot::Interpolation;

namespace {

// A map that is not constant (never folded), answering `v` everywhere.
EntityHolder<IMap> varying(RgbAlpha v) { return EntityHolder<IMap>(makeSharedPtr<MapsTest::CountingMap>(v)); }

MaterialMapSlot makeSlot(Interpolation mode, float base, EntityHolder<IMap> map, float k) {
    return MaterialMapSlot(Rgb(base), map, true, Rgb(1, 1, 1), 1.f, mode, k);
}

// Expected: plain from evalColor and evalMono, working clamped below at 0, clamped to [0, 1].
struct BlendCase { char const* name; Interpolation mode; float base, map, alpha, k, plain, working, clamped; };

TEST(MaterialMapSlotTest, ConstantAndVaryingMapsBlendAlike) {
    for (BlendCase const& c : {BlendCase{"OverrideIgnoresAlpha", Interpolation::Override, 0.2f, 0.5f, 0.5f, 1.f, 0.5f, 0.5f, 0.5f},
                               BlendCase{"MixHalfAlpha", Interpolation::Mix, 0.2f, 0.6f, 0.5f, 1.f, 0.4f, 0.4f, 0.4f},
                               BlendCase{"MixZeroAmountGivesBase", Interpolation::Mix, 0.2f, 0.6f, 1.f, 0.f, 0.2f, 0.2f, 0.2f},
                               BlendCase{"AddScaled", Interpolation::Add, 0.2f, 0.5f, 0.5f, 2.f, 0.7f, 0.7f, 0.7f},
                               BlendCase{"AddOverflowClamps", Interpolation::Add, 0.8f, 0.6f, 1.f, 1.f, 1.4f, 1.4f, 1.f},
                               BlendCase{"SubtractMapMinusBase", Interpolation::Subtract, 0.2f, 0.5f, 1.f, 1.f, 0.3f, 0.3f, 0.3f},
                               BlendCase{"SubtractNegativeClamps", Interpolation::Subtract, 0.5f, 0.2f, 1.f, 1.f, -0.3f, 0.f, 0.f}}) {
        SCOPED_TRACE(c.name);
        NullShadeContext const ctx;
        auto constant = EntityHolder<IMap>(makeSharedPtr<ConstantColorMap>(Rgb(c.map), c.alpha));
        for (auto const& map : {constant, varying(RgbAlpha(Rgb(c.map), c.alpha))}) {
            MaterialMapSlot::Evaluator const e(makeSlot(c.mode, c.base, map, c.k));
            EXPECT_EQ(e.hasMap(), map != constant);
            Rgb const plain = e.evalColor(ctx, nullptr);
            EXPECT_NEAR(plain.r, c.plain, 1e-6f);
            EXPECT_EQ(plain.r, plain.b);
            EXPECT_NEAR(e.evalWorkingColor(ctx, nullptr).g, c.working, 1e-6f);
            EXPECT_NEAR(e.evalClampedColor(ctx, nullptr).b, c.clamped, 1e-6f);
            EXPECT_NEAR(e.evalMono(ctx, nullptr), c.plain, 1e-6f);
            EXPECT_NEAR(e.evalClampedMono(ctx, nullptr), c.clamped, 1e-6f);
        }
    }
}

TEST(MaterialMapSlotTest, TintAndIntensityApplyToTheirSides) {
    auto map = EntityHolder<IMap>(makeSharedPtr<ConstantColorMap>(Rgb(0.5f, 0.5f, 0.5f), 1.f));
    MaterialMapSlot slot(Rgb(0.1f, 0.2f, 0.3f), map, true, Rgb(1.f, 0.5f, 0.f), 2.f, Interpolation::Add, 1.f);
    MaterialMapSlot::Evaluator const e(slot);
    Testing::expectNear(e.evalColor(NullShadeContext(), nullptr), Rgb(0.5f + 0.2f, 0.25f + 0.4f, 0.f + 0.6f), 1e-6f);
    // Mono: tint mean times map mono, plus the mean of the intensified base.
    EXPECT_NEAR(e.evalMono(NullShadeContext(), nullptr), 0.5f * 0.5f + 0.4f, 1e-6f);
}

TEST(MaterialMapSlotTest, SwitchedOffOrMissingMapGivesTheBase) {
    MaterialMapSlot slot = makeSlot(Interpolation::Override, 0.3f, varying(RgbAlpha(0.9f, 0.9f, 0.9f, 1.f)), 1.f);
    slot.mapOn = false;
    MaterialMapSlot const none = makeSlot(Interpolation::Override, 0.3f, {}, 1.f);
    for (MaterialMapSlot const& s : {slot, none}) {
        MaterialMapSlot::Evaluator const e(s);
        EXPECT_FALSE(e.hasMap());
        EXPECT_EQ(e.evalColor(NullShadeContext(), nullptr), Rgb(0.3f));
    }
    MaterialMapSlot number;  // a number base fills all channels
    number.color = 0.25f;
    number.intensityMultiplier = 2.f;
    EXPECT_EQ(MaterialMapSlot::Evaluator(number).evalColor(NullShadeContext(), nullptr), Rgb(0.5f));
}

TEST(MaterialMapSlotTest, WorkingColourUsesTheCurrentSpace) {
    ColorSpaceTransform const* const saved = ColorSpaceTransform::sCurrent;
    ColorSpaceTransform::sCurrent = &ColorSpaceTransform::COLOR_SPACES[int(ColorSpace::AcesCg)];
    MaterialMapSlot slot;
    slot.color = Rgb(1, 0, 0);
    MaterialMapSlot::Evaluator const e(slot);
    ColorSpaceTransform::sCurrent = saved;
    EXPECT_NEAR(e.evalWorkingColor(NullShadeContext(), nullptr).g, 0.0702f, 1e-4f);
    EXPECT_EQ(e.evalColor(NullShadeContext(), nullptr), Rgb(1, 0, 0));
}

float const NaN = std::numeric_limits<float>::quiet_NaN();
float const INF = std::numeric_limits<float>::infinity();

TEST(MaterialMapSlotTest, IsValidRejectsNonFiniteAndOutOfRangeValues) {
    using Edit = Function<void(MaterialMapSlot&)>;
    std::pair<Edit, bool> const cases[] = {
        {[](MaterialMapSlot&) {}, true},
        {[](MaterialMapSlot& s) { s.color = Rgb(0, NaN, 0); }, false},
        {[](MaterialMapSlot& s) { s.color = INF; }, false},
        {[](MaterialMapSlot& s) { s.mapTint.b = -INF; }, false},
        {[](MaterialMapSlot& s) { s.intensityMultiplier = -0.5f; }, false},
        {[](MaterialMapSlot& s) { s.intensityMultiplier = NaN; }, false},
        {[](MaterialMapSlot& s) { s.alphaBlendMultiplier = -0.1f; }, false},
        {[](MaterialMapSlot& s) { s.alphaBlendMultiplier = INF; }, false},
        {[](MaterialMapSlot& s) { s.interpolationMode = Interpolation::Mix, s.alphaBlendMultiplier = 1.5f; }, false},
        {[](MaterialMapSlot& s) { s.interpolationMode = Interpolation::Add, s.alphaBlendMultiplier = 1.5f; }, true},
        {[](MaterialMapSlot& s) { s.intensityMultiplier = 1e6f; }, true},
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        MaterialMapSlot slot;
        cases[i].first(slot);
        EXPECT_EQ(isValid(slot), cases[i].second) << "case " << i;
    }
}

TEST(MaterialMapSlotTest, EqualityToleratesNanOnlyInTheMultipliers) {
    auto map = EntityHolder<IMap>(makeSharedPtr<ConstantColorMap>());
    MaterialMapSlot const a(Rgb(0.5f), map, true, Rgb(1, 1, 1), 1.f, Interpolation::Mix, 0.5f);
    using Edit = void (*)(MaterialMapSlot&);
    // Equal after: NaN multipliers, a number base equal to the colour's channels.
    for (Edit edit : {Edit([](MaterialMapSlot& c) { c.intensityMultiplier = c.alphaBlendMultiplier = NaN; }),
                      Edit([](MaterialMapSlot& c) { c.color = 0.5f; })}) {
        MaterialMapSlot c = a;
        edit(c);
        EXPECT_TRUE(a == c && c == a);
    }
    for (Edit edit : {Edit([](MaterialMapSlot& c) { c.map = EntityHolder<IMap>(makeSharedPtr<ConstantColorMap>()); }),
                      Edit([](MaterialMapSlot& c) { c.mapTint.g = 0.9f; }), Edit([](MaterialMapSlot& c) { c.interpolationMode = Interpolation::Add; }),
                      Edit([](MaterialMapSlot& c) { c.intensityMultiplier = 1.5f; }), Edit([](MaterialMapSlot& c) { c.mapOn = false; })}) {
        MaterialMapSlot c = a;
        edit(c);
        EXPECT_TRUE(a != c);
    }
    MaterialMapSlot nan = a;
    nan.color = Rgb(0.5f, NaN, 0.5f);
    EXPECT_TRUE(nan != nan);
}

// Varying maps stay maps: every map test's inputs.
TEST(ColorOrMapTest, EvaluatorFoldsConstantMapsAndHonoursMapOff) {
    ColorOrMap value{Rgb(0.3f, 0.6f, 0.9f), {}, true};
    value.map = EntityHolder<IMap>(makeSharedPtr<ConstantColorMap>(Rgb(0.1f, 0.2f, 0.4f), 0.5f));
    ColorOrMap::Evaluator const folded(value);
    EXPECT_TRUE(folded.isConstant() && folded.getColor() == RgbAlpha(0.1f, 0.2f, 0.4f, 0.5f));
    value.mapOn = false;
    EXPECT_EQ(ColorOrMap::Evaluator(value).getColor(), RgbAlpha(0.3f, 0.6f, 0.9f, 1.f));
}

TEST(ColorSpaceTest, TablesAreConsistentAndMatchPublishedValues) {
    for (std::size_t i = 0; i < ColorSpaceTransform::COLOR_SPACES.size(); ++i) {
        ColorSpaceTransform const& s = ColorSpaceTransform::COLOR_SPACES[i];
        EXPECT_EQ(int(s.space), int(i));
        Rgb const white = s.fromRec709 * Rgb(1, 1, 1);  // white stays white
        Matrix33 const round = s.toRec709 * s.fromRec709;
        for (int r = 0; r < 3; ++r) {
            EXPECT_NEAR(white[r], 1.f, 1e-5f) << s.name;
            for (int c = 0; c < 3; ++c) EXPECT_NEAR(round.m[r][c], r == c ? 1.f : 0.f, 1e-5f) << s.name;
        }
    }
    auto from = [](ColorSpace space) -> Matrix33 const& { return ColorSpaceTransform::COLOR_SPACES[int(space)].fromRec709; };
    EXPECT_NEAR(from(ColorSpace::AcesCg).m[0][1], 0.3395f, 1e-4f);
    EXPECT_NEAR(from(ColorSpace::Aces2065).m[1][1], 0.8134f, 1e-4f);
    EXPECT_NEAR(from(ColorSpace::Rec2020).m[2][2], 0.8956f, 1e-4f);
    EXPECT_NEAR(from(ColorSpace::DisplayP3).m[0][0], 0.8225f, 1e-4f);
}

struct Scope : IEntityHandleScope {
    Stack<Entity const*> live;
    bool contains(Entity const& e) const override { return std::find(live.begin(), live.end(), &e) != live.end(); }
};

TEST(IncludeExcludeSetTest, ConvertsFiltersAndApplies) {
    auto a = makeSharedPtr<ConstantColorMap>(), b = makeSharedPtr<ConstantColorMap>(), c = makeSharedPtr<ConstantColorMap>();
    IncludeExcludeSet set = IncludeExcludeSet::fromExcludedNodes(
        {{EntityHolder<Entity>(a), EntityHolder<Entity>(), EntityHolder<Entity>(b)}, false});
    EXPECT_EQ(set.getNodes().size(), 2u);  // the empty handle is dropped
    EXPECT_FALSE(set.applies(*a));
    EXPECT_TRUE(set.applies(*c));
    Scope scope;
    scope.live = {b.get(), c.get()};
    set.removeInvalidNodes(scope);
    ASSERT_EQ(set.getNodes().size(), 1u);
    EXPECT_EQ(set.getNodes()[0].get(), b.get());
    IncludeExcludeSet const include = IncludeExcludeSet::fromExcludedNodes({{EntityHolder<Entity>(a)}, true});
    EXPECT_TRUE(include.applies(*a));
    EXPECT_FALSE(include.applies(*b));
}

// JSON needs the entity classes registered.
using SlotJsonTest = Testing::LibraryFixture;

TEST_F(SlotJsonTest, RoundTripThroughText) {
    MaterialMapSlot slot(0.5f, EntityHolder<IMap>(makeSharedPtr<ConstantColorMap>(Rgb(0.1f, 0.2f, 0.3f), 0.4f)), false,
                         Rgb(1.f, 0.5f, 0.25f), 2.f, Interpolation::Subtract, 0.75f);
    nlohmann::json const j = toJson(slot);
    auto parsed = parseJson(j.dump());
    ASSERT_TRUE(parsed);
    MaterialMapSlot back;
    ASSERT_TRUE(fromJson(*parsed, back));
    EXPECT_TRUE(std::holds_alternative<float>(back.color));  // the number form kept
    ASSERT_TRUE(back.map);
    EXPECT_EQ(back.map->getEvaluator().constantColor, RgbAlpha(0.1f, 0.2f, 0.3f, 0.4f));
    EXPECT_EQ(toJson(back), j);
}

TEST_F(SlotJsonTest, ErrorsNameTheKeyAndChangeNothing) {
    MaterialMapSlot const original(Rgb(0.1f, 0.2f, 0.3f), {}, true, Rgb(1, 1, 1), 1.f, Interpolation::Mix, 0.5f);
    for (auto const& [text, key] :
         {std::pair{R"({"mapTint": "red"})", "mapTint"}, {R"({"color": [1, 2]})", "color"},
          {R"({"mapOn": 1})", "mapOn"}, {R"({"interpolationMode": "Blend"})", "interpolationMode"},
          {R"({"interpolationMode": 7})", "interpolationMode"}, {R"({"map": {"@class": "Zatho.NoSuchMap"}})", "map"},
          {R"({"intensityMultiplier": 2, "colour": [1, 1, 1]})", "colour"}}) {
        MaterialMapSlot slot = original;
        auto const r = fromJson(nlohmann::json::parse(text), slot);
        ASSERT_FALSE(r) << text;
        EXPECT_NE(r.error().find(key), String::npos) << r.error();
        EXPECT_TRUE(slot == original) << text;
    }
    MaterialMapSlot slot = original;
    EXPECT_FALSE(fromJson(nlohmann::json::array({1, 2}), slot));
    // Present keys are read, absent ones keep their values.
    ASSERT_TRUE(fromJson(nlohmann::json::parse(R"({"interpolationMode": 2, "color": [0.5, 0.5, 0.5]})"), slot));
    EXPECT_EQ(slot.interpolationMode, Interpolation::Add);
    EXPECT_EQ(slot.getBaseColor(), Rgb(0.5f));
    EXPECT_EQ(slot.alphaBlendMultiplier, 0.5f);
}

} // namespace
