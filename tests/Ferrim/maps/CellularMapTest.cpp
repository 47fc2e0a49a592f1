#include "Ferrim/maps/CellularMap.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

#include "MapsTestSupport.h"

namespace Quelin {
namespace {

using namespace MapsTest;

constexpr float INF = std::numeric_limits<float>::infinity();

std::uint32_t step(std::uint32_t s) { return s * 1664525u + 1013904223u; }

/// The feature points of a cell, straight from the seeding rule.
Stack<Pos> referencePoints(int kx, int ky, int kz) {
    float const seedF = (541.f * float(kx) + 79.f * float(ky)) + 31.f * float(kz);
    std::uint32_t s = step(std::uint32_t(std::int32_t(seedF)));
    auto const& T = CellularEvaluator::pointCountTable();
    float const u = float(s) * 0x1p-32f;
    int n = 1;
    while (n < 9 && u >= T[std::size_t(n - 1)]) ++n;
    Stack<Pos> points;
    for (int i = 0; i < n; ++i) {
        std::uint32_t const s1 = step(s), s2 = step(s1), s3 = step(s2);
        points.push_back(Pos(float(kx) + float(s1) * 0x1p-32f, float(ky) + float(s2) * 0x1p-32f,
                             float(kz) + float(s3) * 0x1p-32f));
        s = s3;
    }
    return points;
}

/// Sorted squared distances to every point of the 5 x 5 x 5 cells around p.
Stack<float> bruteForceDistances(Pos const& p) {
    Stack<float> d;
    int const cx = int(std::floor(p.x)), cy = int(std::floor(p.y)), cz = int(std::floor(p.z));
    for (int i = -2; i <= 2; ++i)
        for (int j = -2; j <= 2; ++j)
            for (int k = -2; k <= 2; ++k)
                for (Pos const& q : referencePoints(cx + i, cy + j, cz + k)) {
                    float const dx = p.x - q.x, dy = p.y - q.y, dz = p.z - q.z;
                    d.push_back(dx * dx + dy * dy + dz * dz);
                }
    std::sort(d.begin(), d.end());
    return d;
}

CellularEvaluator makeEvaluator(CellularMap::CellShape shape, float size = 1.f) {
    return CellularEvaluator(shape, constantInput(Rgb(1, 1, 1)), constantInput(Rgb(0.5f, 0.25f, 0.5f)),
                             constantInput(Rgb(0, 0, 0)), identityMapper(), size);
}

TEST(CellularTables, PointCountsArePoissonProbabilitiesNotAccumulated) {
    auto const& T = CellularEvaluator::pointCountTable();
    double factorial = 1.0;
    for (int k = 0; k < 8; ++k) {
        factorial *= k + 1;
        double const poisson = std::exp(-3.0) * std::pow(3.0, k + 1) / factorial;
        EXPECT_NEAR(T[std::size_t(k)], poisson, 1e-6 * poisson + 1e-7) << k;
    }
    // First entry that u stays below; none for u >= 0.2241, so nine points.
    for (auto [u, count] : {std::pair{0.10, 1}, {0.20, 2}, {0.23, 9}, {0.99, 9}})
        EXPECT_EQ(CellularEvaluator::pointCount(std::uint32_t(u * 4294967296.0)), count) << u;
}

TEST(CellularDistances, NearestSlotIsTheTrueNearestPoint) {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> d(-40.f, 40.f);
    int notShifted = 0;
    for (int i = 0; i < 300; ++i) {
        Pos const p(d(rng), d(rng), d(rng));
        auto const slots = CellularEvaluator::distanceSlots(p);
        auto const all = bruteForceDistances(p);
        ASSERT_EQ(slots[0], all[0]) << p.x << " " << p.y << " " << p.z;
        // Slots ascend, and no slot is below the true k-th nearest distance.
        for (int k = 1; k < 4; ++k) {
            EXPECT_LE(slots[std::size_t(k - 1)], slots[std::size_t(k)]);
            EXPECT_GE(slots[std::size_t(k)], all[std::size_t(k)]);
        }
        // Overwritten slots do not move down, so F2 is often not the true second distance.
        if (slots[1] != all[1]) ++notShifted;
    }
    EXPECT_GT(notShifted, 0);
}

// A search that keeps fewer slots exact gives exactly the same leading slots,
// near the origin and far out where the rounding margin matters.
TEST(CellularDistances, FewerNeededSlotsKeepTheLeadingOnesExact) {
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> d(-1.f, 1.f);
    for (int i = 0; i < 600; ++i) {
        float const reach = i % 3 == 0 ? 40.f : i % 3 == 1 ? 3000.f : 2.f;
        Pos const p(reach * d(rng), reach * d(rng), reach * d(rng));
        auto const all = CellularEvaluator::distanceSlots(p);
        for (int needed = 1; needed <= 4; ++needed) {
            auto const some = CellularEvaluator::distanceSlots(p, needed);
            for (int k = 0; k < needed; ++k)
                ASSERT_EQ(some[std::size_t(k)], all[std::size_t(k)]) << needed << " " << k << " " << p.x << " " << p.y << " " << p.z;
        }
    }
}

TEST(CellularBlend, HalfTakesTheUpperBranchWhichIsNotClampedNorAreUnfilledSlots) {
    SettableShadeContext ctx;
    auto const e = makeEvaluator(CellularMap::CellShape::CIRCULAR);
    EXPECT_EQ(e.colorForValue(0.5f, ctx, nullptr), RgbAlpha(0.5f, 0.25f, 0.5f, 1.f));
    EXPECT_EQ(e.colorForValue(0.25f, ctx, nullptr), RgbAlpha(0.25f, 0.125f, 0.25f, 1.f));
    EXPECT_EQ(e.colorForValue(1.f, ctx, nullptr), RgbAlpha(1, 1, 1, 1));
    // 1.5: t = 2, so 2 high - mid.
    EXPECT_EQ(e.colorForValue(1.5f, ctx, nullptr), RgbAlpha(1.5f, 1.75f, 1.5f, 1.f));
    // Negative values take the upper branch too: t = -1.5.
    EXPECT_EQ(e.colorForValue(-0.25f, ctx, nullptr), RgbAlpha(2.5f * 0.5f - 1.5f, 2.5f * 0.25f - 1.5f, 2.5f * 0.5f - 1.5f, 1.f));
    EXPECT_FLOAT_EQ(e.monoForValue(1.5f, ctx, nullptr).value, 2.f - Rgb(0.5f, 0.25f, 0.5f).mean());
    // CHIPS with an unfilled second slot is infinite, and so is its colour; CIRCULAR leaves the unused slots out.
    auto const chips = makeEvaluator(CellularMap::CellShape::CHIPS);
    float const v = chips.valueFromSlots({0.04f, INF, INF, INF});
    EXPECT_EQ(v, INF);
    EXPECT_FALSE(std::isfinite(chips.colorForValue(v, ctx, nullptr).r));
    EXPECT_FLOAT_EQ(e.valueFromSlots({0.04f, INF, INF, INF}), 0.2f);
}

class CellularMapTest : public LibraryFixture {};

TEST_F(CellularMapTest, RecordDrivesTheEvaluator) {
    CellularMap map;
    map.set("size", 0.5f);
    map.set("shape", CellularMap::CellShape::CHIPS);
    SettableShadeContext ctx(0.3f, 1.7f, -0.2f);
    // CHIPS at size 0.5 is F2 - F1 at twice the UVW; the default colours 0, 0.5, 1 give that value back.
    auto const slots = CellularEvaluator::distanceSlots(Pos(0.6f, 3.4f, -0.4f));
    EXPECT_NEAR(map.getEvaluatorImpl().evaluator->evalMono(ctx, nullptr).value,
                std::sqrt(slots[1]) - std::sqrt(slots[0]), 1e-5f);
}

} // namespace
} // namespace Quelin
