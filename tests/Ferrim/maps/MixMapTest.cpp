#include "Ferrim/maps/MixMap.h"

#include <cstring>
#include <random>

#include "Ferrim/maps/NoiseMap.h"
#include "MapsTestSupport.h"
#include "TestSupport/ErrorOf.h"

namespace Quelin {
namespace {

using namespace MapsTest;

// Pairs (bottom a, top b), including values above 1 and negatives.
StaticArray<std::pair<float, float>, 7> const PAIRS = {{{0.2f, 0.6f}, {0.8f, 0.3f}, {1.5f, 2.0f}, {-0.5f, 0.4f},
                                                         {0.4f, -0.5f}, {0.6f, 1.0f}, {3.0f, 0.5f}}};

struct ModeCase {
    BlendMode mode;
    StaticArray<float, 7> expected;  ///< f(a, b) for PAIRS
};

// Worked out from each mode's stated formula and convention.
ModeCase const MODES[] = {
    {BlendMode::Mix, {0.6f, 0.3f, 2.f, 0.4f, -0.5f, 1.f, 0.5f}},
    {BlendMode::Add, {0.8f, 1.1f, 3.5f, -0.1f, -0.1f, 1.6f, 3.5f}},
    {BlendMode::Subtract, {-0.4f, 0.5f, -0.5f, -0.9f, 0.9f, -0.4f, 2.5f}},
    {BlendMode::Multiply, {0.12f, 0.24f, 3.f, -0.2f, -0.2f, 0.6f, 1.5f}},
    {BlendMode::Screen, {0.68f, 0.86f, 0.5f, 0.1f, 0.1f, 1.f, 2.f}},
    {BlendMode::Overlay, {0.24f, 0.72f, 0.f, -0.4f, -0.4f, 1.f, 3.f}},
    {BlendMode::Difference, {0.4f, 0.5f, 0.5f, 0.9f, 0.9f, 0.4f, 2.5f}},
    {BlendMode::Darken, {0.2f, 0.3f, 1.5f, -0.5f, -0.5f, 0.6f, 0.5f}},
    {BlendMode::Lighten, {0.6f, 0.8f, 2.f, 0.4f, 0.4f, 1.f, 3.f}},
    {BlendMode::SoftLight, {0.232f, 0.736f, -0.75f, -0.35f, -0.08f, 0.84f, 3.f}},
    {BlendMode::LinearLight, {0.4f, 0.4f, 4.5f, -0.7f, -1.6f, 1.6f, 3.f}},
    {BlendMode::ColorDodge, {0.5f, 1.f, 1.5f, -0.5f, 0.266667f, 1.f, 3.f}},
    {BlendMode::ColorBurn, {0.f, 0.333333f, 1.5f, -0.5f, 0.f, 0.6f, 3.f}},
};

TEST(MixBlendModes, EveryModeFollowsItsFormulaFadesInByTheAmountAndGivesNanForNanButDarkenAndLighten) {
    SettableShadeContext const point;
    for (ModeCase const& m : MODES)
        for (std::size_t i = 0; i < PAIRS.size(); ++i) {
            auto const [a, b] = PAIRS[i];
            for (float t : {1.f, 0.25f}) {
                auto const e = MixEvaluator::create(constantInput(Rgb(a, 0.5f, a)), constantInput(Rgb(b, 0.5f, b)), nullptr, t, {}, m.mode);
                EXPECT_EQ(e->getMode(), m.mode);
                RgbAlpha const c = e->evalColor(point, nullptr);
                float const want = a + t * (m.expected[i] - a);
                EXPECT_NEAR(c.r, want, 1e-5f) << int(m.mode) << " pair " << i << " t " << t;
                EXPECT_EQ(c.r, c.b);
                EXPECT_FLOAT_EQ(c.alpha, 1.f);
            }
        }
    float const nan = std::numeric_limits<float>::quiet_NaN();
    for (ModeCase const& m : MODES) {
        bool const other = m.mode == BlendMode::Darken || m.mode == BlendMode::Lighten;
        // Mix: a NaN bottom is replaced by the top input, a NaN top is kept.
        float const ab = MapsDetail::blendChannel(m.mode, nan, 0.3f), ba = MapsDetail::blendChannel(m.mode, 0.3f, nan);
        EXPECT_TRUE(other || m.mode == BlendMode::Mix ? ab == 0.3f : std::isnan(ab)) << int(m.mode);
        EXPECT_TRUE(other ? ba == 0.3f : std::isnan(ba)) << int(m.mode);
    }
}

TEST(MixCurve, SmoothstepBetweenTheBoundsAndAStepWhenTheyMeet) {
    // 0.3 in [0.2, 0.6] is x = 0.25: 3x^2 - 2x^3.
    MapsDetail::AmountCurve const curve{true, 0.2f, 0.6f}, step{true, 0.5f, 0.5f}, off;
    struct Case { MapsDetail::AmountCurve const& c; float x, want; };
    for (Case const k : {Case{curve, 0.1f, 0.f}, Case{curve, 0.4f, 0.5f}, Case{curve, 0.3f, 0.15625f}, Case{curve, 0.9f, 1.f},
                         Case{step, 0.49f, 0.f}, Case{step, 0.5f, 1.f}, Case{off, -2.f, 0.f}, Case{off, 7.f, 1.f},
                         Case{off, std::numeric_limits<float>::quiet_NaN(), 0.f}})
        EXPECT_FLOAT_EQ(k.c.apply(k.x), k.want) << k.x;
}

class MixMapTest : public LibraryFixture {};

SharedPtr<MixMap> makeMix(Rgb c1, Rgb c2, float amount, BlendMode mode = BlendMode::Mix) {
    auto m = makeSharedPtr<MixMap>();
    setInputColor(*m, "color1", c1);
    setInputColor(*m, "color2", c2);
    m->set("amount", amount);
    m->set("blendMode", mode);
    return m;
}

TEST_F(MixMapTest, ConstantsFoldAndTheFoldedValueEqualsTheUnfoldedOneEverywhere) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> d(-2.f, 3.f);
    for (ModeCase const& m : MODES) {
        Rgb const c1(d(rng), d(rng), d(rng)), c2(d(rng), d(rng), d(rng));
        float const amount = 0.37f;
        auto const folded = makeMix(c1, c2, amount, m.mode)->getEvaluator();
        ASSERT_TRUE(folded.hasConstant);
        auto const unfolded = MixEvaluator::create(constantInput(c1), constantInput(c2), nullptr, amount, {}, m.mode);
        for (int i = 0; i < 20; ++i) {
            SettableShadeContext const p(d(rng), d(rng), d(rng));
            EXPECT_EQ(folded.evaluator->evalColor(p, nullptr), unfolded->evalColor(p, nullptr));
            EXPECT_NEAR(folded.evaluator->evalMono(p, nullptr).value, unfolded->evalMono(p, nullptr).value, 1e-6f);
        }
    }
}

TEST_F(MixMapTest, AmountZeroOrAFullPlainMixIsThatInputsOwnEvaluator) {
    auto const noise = makeSharedPtr<NoiseMap>();
    for (float amount : {0.f, 1.f}) {
        auto const mix = makeMix(Rgb(0.1f), Rgb(0.2f), amount);
        setInputMap(*mix, amount == 0.f ? "color1" : "color2", noise);
        auto const r = mix->getEvaluator();
        EXPECT_FALSE(r.hasConstant);
        SettableShadeContext const p(0.3f, 0.7f, 0.1f);
        EXPECT_EQ(r.evaluator->evalColor(p, nullptr), noise->getEvaluator().evaluator->evalColor(p, nullptr));
        EXPECT_EQ(dynamic_cast<MixEvaluator const*>(r.evaluator.get()), nullptr);
    }
    // A full multiply still blends.
    auto const multiply = makeMix(Rgb(0.5f), Rgb(0.2f), 1.f, BlendMode::Multiply);
    EXPECT_FLOAT_EQ(multiply->getEvaluator().constantColor.g, 0.1f);
}

/// Channel 2 reads its own point.
struct ChannelsContext : SettableShadeContext {
    using SettableShadeContext::SettableShadeContext;
    Pos getUvw(int channel, std::uint32_t = 0) const override { return channel == 2 ? second : uvw; }
    Pos second;
};

TEST_F(MixMapTest, TwoMapsMixedByAFixedAmountMatchTheGeneralEvaluatorBitForBit) {
    // Two noises on one channel run inline with the point read once; on two
    // channels, or beside another map, each input is called.
    auto noise = [](float size, Rgb const& c1, int channel) {
        auto n = makeSharedPtr<NoiseMap>();
        n->set("size", size);
        setInputColor(*n, "color1", c1);
        n->get<EntityHolder<UvMapper>>("uvMapper")->set("uvwMapChannel", channel);
        return n;
    };
    SharedPtr<IMap> const a = noise(0.1f, Rgb(0.3f, -0.2f, 2.f), 1);
    for (SharedPtr<IMap> const& b : {SharedPtr<IMap>(noise(0.37f, Rgb(0.9f, 0.1f, 0.5f), 1)),
                                     SharedPtr<IMap>(noise(0.37f, Rgb(0.9f, 0.1f, 0.5f), 2)),
                                     SharedPtr<IMap>(makeSharedPtr<CountingMap>(RgbAlpha(0.2f, 0.9f, 0.4f, 0.5f)))}) {
        auto const mix = makeMix(Rgb(0.f), Rgb(0.f), 0.3f);
        setInputMap(*mix, "color1", a);
        setInputMap(*mix, "color2", b);
        auto const fast = mix->getEvaluator().evaluator;
        auto const general = MixEvaluator::create(mapInput(a), mapInput(b), nullptr, 0.3f, {}, BlendMode::Mix);
        std::mt19937 rng(11);
        std::uniform_real_distribution<float> d(-5.f, 5.f);
        for (int i = 0; i < 20; ++i) {
            ChannelsContext p(d(rng), d(rng), d(rng));
            p.second = Pos(d(rng), d(rng), d(rng));
            RgbAlpha const c = fast->evalColor(p, nullptr), g = general->evalColor(p, nullptr);
            EXPECT_EQ(std::memcmp(&c, &g, sizeof c), 0) << i;
            EXPECT_EQ(fast->evalMono(p, nullptr), general->evalMono(p, nullptr));
            EXPECT_EQ(fast->evalBump(p, nullptr), general->evalBump(p, nullptr));
        }
    }
}

TEST_F(MixMapTest, AMaskSetsTheAmountPerPointThroughTheCurve) {
    auto const mix = makeMix(Rgb(0.f), Rgb(1.f), 0.5f);
    auto const mask = makeSharedPtr<CountingMap>(RgbAlpha(0.3f, 0.3f, 0.3f, 1.f));
    mix->set("mask", EntityHolder<Entity>(mask));
    mix->set("useCurve", true), mix->set("curveLower", 0.2f), mix->set("curveUpper", 0.6f);
    auto const r = mix->getEvaluator();
    ASSERT_FALSE(r.hasConstant);
    EXPECT_NEAR(r.evaluator->evalColor(SettableShadeContext(), nullptr).g, 0.15625f, 1e-6f);
    mix->set("maskOn", false);  // back to the fixed amount 0.5, through the curve: x = 0.75
    EXPECT_FLOAT_EQ(mix->getEvaluator().constantColor.g, 0.84375f);
}

TEST_F(MixMapTest, BumpIsTheInputsBumpsBlendedByTheSameAmount) {
    auto const mix = makeMix(Rgb(0.f), Rgb(1.f), 0.25f, BlendMode::Screen);
    setInputMap(*mix, "color2", makeSharedPtr<CountingMap>(RgbAlpha(1, 1, 1, 1)));  // bump (1, 2, 3)
    Testing::expectNear(mix->getEvaluator().evaluator->evalBump(SettableShadeContext(), nullptr), Dir(0.25f, 0.5f, 0.75f), 1e-6f);
}

TEST_F(MixMapTest, CyclesAndTooDeepChainsAreRefusedNamingTheMap) {
    auto const self = makeMix(Rgb(0.f), Rgb(1.f), 0.5f);
    setInputMap(*self, "color1", self);
    String const error = Testing::errorOf([&] { self->getEvaluator(); });
    EXPECT_NE(error.find("\"Zatho.MixMap\""), String::npos) << "a map that contains itself: " << error;
    setInputMap(*self, "color1", nullptr);  // break the reference cycle

    auto chain = [](int depth) {
        auto top = makeMix(Rgb(0.f), Rgb(1.f), 0.5f);
        for (int i = 1; i < depth; ++i) {
            auto next = makeMix(Rgb(0.f), Rgb(1.f), 0.5f);
            setInputMap(*next, "color1", top);
            top = next;
        }
        return top;
    };
    EXPECT_TRUE(chain(MAX_ENTITY_NESTING)->getEvaluator().hasConstant);
    EXPECT_THROW(chain(MAX_ENTITY_NESTING + 1)->getEvaluator(), Exception);
    // The failed build left the depth count balanced.
    EXPECT_TRUE(chain(MAX_ENTITY_NESTING)->getEvaluator().hasConstant);
}

} // namespace
} // namespace Quelin
