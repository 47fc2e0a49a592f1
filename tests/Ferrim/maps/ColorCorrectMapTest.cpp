#include "Ferrim/maps/ColorCorrectMap.h"

#include <cmath>

#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;
using Params = ColorCorrection::Parameters;
using Source = ColorCorrection::Source;

// In range, black with partial alpha, over-bright, negative, white.
RgbAlpha const COLORS[] = {{0.2f, 0.5f, 0.8f, 1.f}, {0.f, 0.f, 0.f, 0.5f}, {1.5f, -0.2f, 3.f, 1.f},
                           {-1.f, 2.f, 0.5f, 0.3f}, {1.f, 1.f, 1.f, 1.f},  {0.9f, 0.1f, 0.1f, 0.f}};

float luma(Rgb const& c) { return 0.2126f * c.r + 0.7152f * c.g + 0.0722f * c.b; }
Rgb perChannel(Rgb const& c, float (*f)(float)) { return {f(c.r), f(c.g), f(c.b)}; }

void expectNear(RgbAlpha const& a, RgbAlpha const& b, float tol, std::string const& what) {
    for (auto [x, y] : {std::pair{a.r, b.r}, {a.g, b.g}, {a.b, b.b}, {a.alpha, b.alpha}}) EXPECT_NEAR(x, y, tol) << what;
}

TEST(ColorCorrection, DefaultsAreExactlyTheIdentity) {
    ColorCorrection const neutral{Params()};
    for (RgbAlpha const& c : COLORS) EXPECT_EQ(neutral.apply(c), c);
    // Non-finite controls fall back to their neutral values.
    float const nan = std::nanf(""), inf = INFINITY;
    Params p;
    p.exposure = inf, p.hueShift = nan, p.saturation = nan, p.vibrance = -inf, p.brightness = nan, p.contrast = inf;
    p.gamma = nan, p.lift = Rgb(nan), p.gain = Rgb(inf);
    for (RgbAlpha const& c : COLORS) EXPECT_EQ(ColorCorrection(p).apply(c), c);
    // A full turn of hue is no turn; an identity curve stays one beyond [0, 1].
    Params turn;
    turn.hueShift = 360.f, turn.channelCurves[0] = {{0.f, 0.f}, {1.f, 1.f}};
    for (RgbAlpha const& c : COLORS) expectNear(ColorCorrection(turn).apply(c), c, 1e-5f, "hue 360");
    // Gamma at its floor still gives finite results for every grey.
    Params floor;
    floor.gamma = ColorCorrection::MIN_GAMMA, floor.saturation = 0.f;
    for (RgbAlpha const& c : COLORS) EXPECT_TRUE(std::isfinite(luma(ColorCorrection(floor).apply(c).rgb())));
}

struct Control {
    char const* name;
    void (*set)(Params&);
    RgbAlpha (*expected)(RgbAlpha const&);
};

Control const CONTROLS[] = {
    {"exposure", [](Params& p) { p.exposure = 1.5f; },
     [](RgbAlpha const& c) { return RgbAlpha(c.rgb() * std::exp2(1.5f), c.alpha); }},
    {"invert", [](Params& p) { p.invert = true; },
     [](RgbAlpha const& c) { return RgbAlpha(Rgb(1.f) - c.rgb(), c.alpha); }},
    {"hue 120", [](Params& p) { p.hueShift = 120.f; },
     [](RgbAlpha const& c) { return RgbAlpha(c.b, c.r, c.g, c.alpha); }},
    {"hue -120", [](Params& p) { p.hueShift = -120.f; },
     [](RgbAlpha const& c) { return RgbAlpha(c.g, c.b, c.r, c.alpha); }},
    {"saturation", [](Params& p) { p.saturation = 0.3f; },
     [](RgbAlpha const& c) {
         float const y = luma(c.rgb());
         return RgbAlpha(Rgb(y) + (c.rgb() - Rgb(y)) * 0.3f, c.alpha);
     }},
    {"lift and gain", [](Params& p) { p.lift = Rgb(0.1f, 0.f, -0.2f), p.gain = Rgb(2.f, 0.5f, 1.f); },
     [](RgbAlpha const& c) {
         return RgbAlpha(0.1f + 1.9f * c.r, 0.5f * c.g, -0.2f + 1.2f * c.b, c.alpha);
     }},
    {"brightness and contrast", [](Params& p) { p.brightness = 0.1f, p.contrast = 0.5f; },
     [](RgbAlpha const& c) { return RgbAlpha(c.rgb() * 1.5f + Rgb(0.1f - 0.25f), c.alpha); }},
    {"gamma", [](Params& p) { p.gamma = 2.2f; },
     [](RgbAlpha const& c) {
         return RgbAlpha(perChannel(c.rgb(), [](float x) { return std::copysign(std::pow(std::fabs(x), 1.f / 2.2f), x); }),
                         c.alpha);
     }},
    {"rewire", [](Params& p) { p.rewire = {Source::ALPHA, Source::MONO, Source::ONE, Source::RED_INVERSE}; },
     [](RgbAlpha const& c) { return RgbAlpha(c.alpha, luma(c.rgb()), 1.f, 1.f - c.r); }},
    {"rewire zero and inverses", [](Params& p) { p.rewire = {Source::BLUE_INVERSE, Source::ZERO, Source::GREEN_INVERSE, Source::ALPHA_INVERSE}; },
     [](RgbAlpha const& c) { return RgbAlpha(1.f - c.b, 0.f, 1.f - c.g, 1.f - c.alpha); }},
    {"red curve", [](Params& p) { p.channelCurves[0] = {{0.f, 0.f}, {1.f, 0.5f}}; },
     [](RgbAlpha const& c) { return RgbAlpha(0.5f * c.r, c.g, c.b, c.alpha); }},
    {"master curve, per channel", [](Params& p) { p.masterCurve = {{0.f, 0.1f}, {1.f, 2.1f}}, p.preserveHue = false; },
     [](RgbAlpha const& c) { return RgbAlpha(c.rgb() * 2.f + Rgb(0.1f), c.alpha); }},
};

TEST(ColorCorrection, EachControlFollowsItsFormulaOrWorkedValues) {
    for (Control const& control : CONTROLS) {
        Params p;
        control.set(p);
        ColorCorrection const changed(p);
        for (RgbAlpha const& c : COLORS) {
            std::string const what = std::string(control.name) + " on " + std::to_string(c.r) + " " +
                                     std::to_string(c.g) + " " + std::to_string(c.b);
            expectNear(changed.apply(c), control.expected(c), 2e-3f * (1.f + std::fabs(c.r) + std::fabs(c.b)), what);
        }
    }
    // Vibrance spares saturated colours (a spread beyond the brightest channel counts as fully
    // saturated); (1, 0.5, 0.5), saturation 0.5, moves from its luma 0.6063 by 1 + 0.8 * 0.5.
    Params p;
    p.vibrance = 0.8f;
    for (auto [in, want] : {std::pair{RgbAlpha(1.f, 0.f, 0.f, 1.f), RgbAlpha(1.f, 0.f, 0.f, 1.f)},
                            {RgbAlpha(-1.f, 2.f, 0.5f, 0.3f), RgbAlpha(-1.f, 2.f, 0.5f, 0.3f)},
                            {RgbAlpha(1.f, 0.5f, 0.5f, 1.f), RgbAlpha(1.15748f, 0.45748f, 0.45748f, 1.f)}})
        expectNear(ColorCorrection(p).apply(in), want, 1e-5f, "vibrance");
}

TEST(ColorCorrection, HuePreservingMasterCurveMovesTheExtremesAndKeepsTheHue) {
    Params p;
    p.masterCurve = {{0.f, 0.f}, {0.5f, 0.8f}, {1.f, 1.f}};
    MonotoneCurve const curve = MonotoneCurve::fromPoints(p.masterCurve);
    ColorCorrection const preserving(p);
    p.preserveHue = false;
    ColorCorrection const plain(p);
    for (RgbAlpha const& c : {RgbAlpha(0.2f, 0.5f, 0.8f, 1.f), RgbAlpha(0.9f, 0.1f, 0.4f, 1.f), RgbAlpha(1.5f, -0.2f, 0.3f, 1.f)}) {
        Rgb const in = c.rgb(), out = preserving.apply(c).rgb();
        int hi = 0, lo = 0;
        for (int i = 1; i < 3; ++i) hi = in[i] > in[hi] ? i : hi, lo = in[i] < in[lo] ? i : lo;
        int const mid = 3 - hi - lo;
        EXPECT_FLOAT_EQ(out[hi], curve.evaluate(in[hi]));
        EXPECT_FLOAT_EQ(out[lo], curve.evaluate(in[lo]));
        EXPECT_NEAR((out[mid] - out[lo]) / (out[hi] - out[lo]), (in[mid] - in[lo]) / (in[hi] - in[lo]), 1e-5f);
        // Applied per channel the same curve changes that proportion: the option matters.
        Rgb const q = plain.apply(c).rgb();
        EXPECT_EQ(q[mid], curve.evaluate(in[mid]));
        EXPECT_GT(std::fabs((q[mid] - q[lo]) / (q[hi] - q[lo]) - (in[mid] - in[lo]) / (in[hi] - in[lo])), 1e-3f);
    }
    // Grey stays grey.
    RgbAlpha const grey = preserving.apply({0.3f, 0.3f, 0.3f, 1.f});
    EXPECT_EQ(grey.r, grey.g);
    EXPECT_EQ(grey.g, grey.b);
}

class ColorCorrectMapTest : public LibraryFixture {};

TEST_F(ColorCorrectMapTest, ConstantInputFoldsAndMapInputIsCorrectedPerSample) {
    auto map = makeSharedPtr<ColorCorrectMap>();
    map->set("color", ColorOrMap{Rgb(0.2f, 0.4f, 0.6f), {}, true}.toData());
    map->set("exposure", 1.f);
    map->set("rewireBlue", Source::ZERO);
    IMap::OptimizedResult folded = map->getEvaluator();
    ASSERT_EQ(folded.hasConstant, 1);
    EXPECT_EQ(folded.constantColor, RgbAlpha(0.4f, 0.8f, 0.f, 1.f));

    auto input = makeSharedPtr<CountingMap>(RgbAlpha(0.5f, 0.25f, 1.f, 0.5f));
    setInputMap(*map, "color", input);
    auto const e = map->getEvaluator().evaluator;
    SettableShadeContext ctx;
    EXPECT_EQ(e->evalColor(ctx, nullptr), RgbAlpha(1.f, 0.5f, 0.f, 0.5f));
    EXPECT_FLOAT_EQ(e->evalMono(ctx, nullptr).value, 0.5f);
    EXPECT_EQ(e->evalBump(ctx, nullptr), Dir(1, 2, 3));  // the input's bump
    EXPECT_EQ(input->calls.load(), 3);
}

} // namespace
} // namespace Quelin
