#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "Ferrim/TextureMap/BatchSampling.h"
#include "QuelinLib/WideIsa.h"

namespace Quelin::TextureSampling::Batch {
namespace {

// The eight-lane set-up against the lane-by-lane one, field by field and bit
// for bit, over every pair of wrap modes, both filterings and chains whose
// levels are odd-sized, with coordinates and footprints on and past every edge.
TEST(BatchSampling, WideSetUpEqualsScalarSetUpBitForBit) {
    Prepare const wide = avx2Prepare();
    if (!wide || !isWideIsaSupported(WideIsa::Avx2)) GTEST_SKIP() << "no AVX2 build or processor";
    constexpr float INF = std::numeric_limits<float>::infinity(), NaN = std::numeric_limits<float>::quiet_NaN();
    std::vector<float> const edges = {0.f, -0.f, 1.f, 0.99999994f, 1.00000012f, -1e-30f, 1e-40f, 0.5f, 2.f, -3.5f,
                                      1e30f, -1e30f, INF, -INF, NaN, 1e-8f, 9e-9f, 0.03125f, 0.7f, 16.f};
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> coordinate(-2.f, 3.f), exponent(-12.f, 2.f);
    std::vector<MapLookupPoint> points;
    for (float e : edges)
        for (float f : edges) points.push_back({Pos(e, f, 0.f), Dir(f, e, 0.f)});
    for (int i = 0; i < 400; ++i)
        points.push_back({Pos(coordinate(rng), coordinate(rng), 0.f),
                          Dir(std::exp2(exponent(rng)), std::exp2(exponent(rng)), 0.f)});
    for (int levels : {1, 6, 16}) {
        Batch::Setup setup;
        setup.topLevel = levels - 1;
        for (int l = 0; l < levels; ++l) {
            setup.width[l] = std::max(1, 37000 >> l) + (l % 2);
            setup.height[l] = std::max(1, 9000 >> l);
            setup.widthF[l] = float(setup.width[l]);
            setup.heightF[l] = float(setup.height[l]);
        }
        for (int pair = 0; pair < 16; ++pair)
            for (bool filtered : {false, true}) {
                setup.wrapU = WrapMode(pair >> 2);
                setup.wrapV = WrapMode(pair & 3);
                setup.addressing = {setup.wrapU == WrapMode::Repeat ? Address::Repeat : Address::Clamp,
                                    setup.wrapV == WrapMode::Mirror ? Address::Mirror : Address::Clamp};
                setup.filtered = filtered;
                for (std::size_t first = 0; first + LANES <= points.size(); first += LANES) {
                    Block a, b;
                    std::memset(&a, 0x55, sizeof a);
                    std::memset(&b, 0xAA, sizeof b);
                    prepareScalar(setup, &points[first], a);
                    wide(setup, &points[first], b);
                    ASSERT_EQ(std::memcmp(&a, &b, sizeof a), 0)
                        << "levels " << levels << ", wrap pair " << pair << ", filtered " << filtered << ", points from "
                        << first;
                }
            }
    }
}

} // namespace
} // namespace Quelin::TextureSampling::Batch
