#include "Ferrim/maps/FractalMap.h"

#include <cmath>
#include <random>

#include "Ferrim/maps/CellularMap.h"
#include "Ferrim/maps/NoiseMap.h"
#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;
using Params = FractalEvaluator::Parameters;
using Type = FractalMap::Type;

FractalEvaluator makeEvaluator(Params const& p) {
    return FractalEvaluator(identityMapper(), constantInput(Rgb(0, 0, 0)), constantInput(Rgb(1, 1, 1)), p);
}

Params params(Type type, float octaves, float lacunarity = 2.f, float gain = 0.5f) {
    Params p;
    p.type = type, p.octaves = octaves, p.lacunarity = lacunarity, p.gain = gain, p.size = 1.f;
    return p;
}

Pos const P(0.37f, -1.21f, 2.05f);

std::vector<Pos> samplePoints(int n) {
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> d(-40.f, 40.f);
    std::vector<Pos> v;
    for (int i = 0; i < n; ++i) v.emplace_back(d(rng), d(rng), d(rng));
    return v;
}

TEST(FractalSpectrum, EachOctaveIsTheNoiseAtLacunarityToTheKScaledByGainToTheK) {
    for (float lac : {2.f, 2.7f}) {
        for (int k : {0, 1, 3}) {
            auto sum = [&](int octaves) { return makeEvaluator(params(Type::FBM, float(octaves), lac, 0.6f)).octaveSum(P, 0.f); };
            float const f = std::pow(lac, float(k));
            // One octave at k = 0 has no "below": the sum starts at the first octave.
            EXPECT_NEAR(sum(k + 1) - (k == 0 ? 0.f : sum(k)), std::pow(0.6f, float(k)) * NoiseMap::noise(P * f), 1e-5f) << lac << " " << k;
        }
    }
}

TEST(FractalFootprint, OctavesFadeMonotonicallyWithFootprintAndFrequency) {
    auto const e = makeEvaluator(params(Type::FBM, 8.f));
    float previousFootprintWeight[8] = {1, 1, 1, 1, 1, 1, 1, 1};
    for (float fp = 0.f; fp < 2.f; fp = fp * 1.3f + 0.001f) {
        for (int i = 0; i < 8; ++i) {
            float const w = e.octaveWeight(i, fp);
            EXPECT_LE(w, previousFootprintWeight[i]) << fp << " " << i;
            if (i > 0) {
                EXPECT_LE(w, e.octaveWeight(i - 1, fp));
            }
            previousFootprintWeight[i] = w;
        }
    }
    // Kept below a quarter wavelength, gone from half a wavelength.
    EXPECT_EQ(e.octaveWeight(3, 0.25f / 8.f), 1.f);
    EXPECT_EQ(e.octaveWeight(3, 0.5f / 8.f), 0.f);
    EXPECT_GT(e.octaveWeight(3, 0.375f / 8.f), 0.f);

    // The spread of values shrinks as the footprint grows, down to one value (the mean).
    double previous = 1e9;
    for (float fp : {0.f, 0.01f, 0.05f, 0.2f, 0.6f}) {
        double s = 0, s2 = 0;
        auto const pts = samplePoints(1000);
        for (Pos const& p : pts) {
            double const v = e.value(p, fp);
            s += v, s2 += v * v;
        }
        double const variance = s2 / double(pts.size()) - (s / double(pts.size())) * (s / double(pts.size()));
        EXPECT_LT(variance, previous) << fp;
        previous = variance;
    }
    EXPECT_EQ(e.value(Pos(1.3f, 2.f, 0.2f), 0.6f), 0.5f);
    // Culling off: the footprint is ignored.
    Params off = params(Type::FBM, 8.f);
    off.footprintCulling = false;
    auto const noCulling = makeEvaluator(off);
    EXPECT_EQ(noCulling.value(Pos(1.3f, 2.f, 0.2f), 0.6f), e.value(Pos(1.3f, 2.f, 0.2f), 0.f));
}

TEST(FractalTypes, OneOctaveOfEachTypeIsItsBasis) {
    Pos const p = P;
    float const n = NoiseMap::noise(p);
    EXPECT_FLOAT_EQ(makeEvaluator(params(Type::FBM, 1.f)).value(p, 0.f), (n + 1.f) * 0.5f);
    EXPECT_FLOAT_EQ(makeEvaluator(params(Type::TURBULENCE, 1.f)).value(p, 0.f), std::fabs(n));
    EXPECT_FLOAT_EQ(makeEvaluator(params(Type::RIDGED, 1.f)).value(p, 0.f), (1.f - std::fabs(n)) * (1.f - std::fabs(n)));
    EXPECT_FLOAT_EQ(makeEvaluator(params(Type::WORLEY, 1.f)).value(p, 0.f), std::sqrt(CellularEvaluator::distanceSlots(p)[0]));
    // Ridged: the second octave is weighted by the first's crest.
    auto const r2 = makeEvaluator(params(Type::RIDGED, 2.f));
    float const r0 = (1.f - std::fabs(n)) * (1.f - std::fabs(n));
    float const n1 = NoiseMap::noise(p * 2.f);
    EXPECT_NEAR(r2.octaveSum(p, 0.f), r0 + 0.5f * r0 * (1.f - std::fabs(n1)) * (1.f - std::fabs(n1)), 1e-6f);
}

TEST(FractalTypes, ValuesStayInTheUnitRangeAndNonFiniteParametersFallBack) {
    for (Type t : {Type::FBM, Type::RIDGED, Type::TURBULENCE, Type::WORLEY}) {
        auto const e = makeEvaluator(params(t, 5.5f));
        for (Pos const& p : samplePoints(300)) {
            float const v = e.value(p, 0.f);
            EXPECT_GE(v, 0.f);
            EXPECT_LE(v, 1.f);
        }
    }
    Params bad = params(Type::FBM, std::nanf(""), INFINITY, -3.f);
    bad.size = std::nanf("");
    auto const e = makeEvaluator(bad);
    EXPECT_EQ(e.parameters().octaves, Params().octaves);
    EXPECT_EQ(e.parameters().lacunarity, Params().lacunarity);
    EXPECT_EQ(e.parameters().gain, 0.f);
    EXPECT_EQ(e.parameters().size, Params().size);
}

class FractalMapTest : public LibraryFixture {};

TEST_F(FractalMapTest, RecordDrivesTheEvaluator) {
    auto map = makeSharedPtr<FractalMap>();
    map->set("type", Type::RIDGED);
    map->set("octaves", 3.f);
    map->set("size", 0.5f);
    map->set("lacunarity", 40.f);  // clamped to 16
    auto const e = map->getEvaluator().evaluator;
    SettableShadeContext ctx(0.3f, 0.7f, 0.1f);
    auto const reference = makeEvaluator(Params{Type::RIDGED, 0.5f, 3.f, 16.f, 0.5f, 1.f, true});
    float const v = reference.value(ctx.uvw, 0.f);
    EXPECT_FLOAT_EQ(e->evalMono(ctx, nullptr).value, v);
    EXPECT_FLOAT_EQ(e->evalColor(ctx, nullptr).g, v);
}

} // namespace
} // namespace Quelin
