#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include "Ferrim/TextureMap/BatchSampling.h"
#include "QuelinLib/WideIsa.h"

namespace Quelin::TextureSampling::Batch {
namespace {

/// Wrap pair 4 u + v (u, v as WrapMode), addressed as the texture map does.
void setWrapPair(Setup& setup, int pair) {
    setup.wrapU = WrapMode(pair >> 2);
    setup.wrapV = WrapMode(pair & 3);
    setup.addressing = {addressOf(setup.wrapU), addressOf(setup.wrapV)};
}

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
                setWrapPair(setup, pair);
                setup.filtered = filtered;
                for (std::size_t first = 0; first + LANES <= points.size(); first += LANES) {
                    Block a, b;
                    std::memset(&a, 0x55, sizeof a);
                    std::memset(&b, 0xAA, sizeof b);
                    prepareScalar(setup, &points[first], a);
                    wide(setup, &points[first], b);
                    if (!filtered)  // the coarser tap set is left as it was
                        for (Block* k : {&a, &b}) {
                            for (auto* f : {k->x0[1], k->x1[1], k->y0[1], k->y1[1]}) std::fill_n(f, LANES, 0);
                            for (auto* f : {k->fx[1], k->fy[1]}) std::fill_n(f, LANES, 0.f);
                        }
                    ASSERT_EQ(std::memcmp(&a, &b, sizeof a), 0)
                        << "levels " << levels << ", wrap pair " << pair << ", filtered " << filtered << ", points from "
                        << first;
                }
            }
    }
}

// The filter this processor runs (eight-lane planes for 8-bit texels) against
// the portable lane-by-lane one, bit for bit: odd-sized chains of RGBA and RGB
// texels through a table, every pair of wrap modes, both filterings, partial
// blocks, and coordinates on and past the edges.
TEST(BatchSampling, WideFiltersEqualPortableFiltersBitForBit) {
    if (!avx2Prepare() || !isWideIsaSupported(WideIsa::Avx2)) GTEST_SKIP() << "no AVX2 build or processor";
    Table8 const table = makeTable8(1.7f);
    TexelConversion cv;
    cv.table = table.data();
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> coordinate(-0.5f, 1.5f), exponent(-9.f, 1.f);
    std::vector<MapLookupPoint> points;
    for (float e : {0.f, 1.f, 0.5f, 0.99999994f, -0.25f, 1.25f})
        for (float f : {0.f, 1.f, 0.3f, 0.015625f}) points.push_back({Pos(e, f, 0.f), Dir(f * 0.1f, f, 0.f)});
    while (points.size() < CHUNK + 13)
        points.push_back({Pos(coordinate(rng), coordinate(rng), 0.f),
                          Dir(std::exp2(exponent(rng)), std::exp2(exponent(rng)), 0.f)});
    auto const check = [&]<PixelFormat F>() {
        SCOPED_TRACE(int(F));
        constexpr int B = Detail::bytesOf(F);
        std::vector<std::vector<std::byte>> levels;
        Batch::Setup setup;
        std::byte const* pixels[MAX_LEVELS];
        std::int64_t rowBytes[MAX_LEVELS];
        int const widths[] = {37, 18, 9, 4, 2, 1}, heights[] = {23, 11, 5, 2, 1, 1};
        for (int l = 0; l < 6; ++l) {
            levels.emplace_back(std::size_t(widths[l] * heights[l] * B));
            for (std::byte& b : levels.back()) b = std::byte(rng());
            pixels[l] = levels.back().data();
            rowBytes[l] = widths[l] * B;
            setup.width[l] = widths[l];
            setup.height[l] = heights[l];
            setup.widthF[l] = float(widths[l]);
            setup.heightF[l] = float(heights[l]);
        }
        for (int pair = 0; pair < 16; ++pair)
            for (bool filtered : {false, true}) {
                setWrapPair(setup, pair);
                setup.filtered = filtered;
                setup.topLevel = filtered ? 5 : 0;
                Filter const wide = selectFilter(F, Conversion::Table8, setup.topLevel + 1);
                ASSERT_NE(wide, nullptr);
                for (std::size_t first = 0; first < points.size(); first += CHUNK) {
                    auto const chunk = std::span(points).subspan(first, std::min(CHUNK, points.size() - first));
                    Float4 a[CHUNK], b[CHUNK];
                    bool inA[CHUNK], inB[CHUNK];
                    filterChunk<F, Conversion::Table8, &prepareScalar>(setup, chunk, pixels, rowBytes, cv, a, inA);
                    wide(setup, chunk, pixels, rowBytes, cv, b, inB);
                    for (std::size_t i = 0; i < chunk.size(); ++i) {
                        ASSERT_EQ(inA[i], inB[i]) << "point " << first + i;
                        if (inA[i]) {
                            ASSERT_EQ(std::memcmp(&a[i], &b[i], sizeof(Float4)), 0)
                                << "wrap pair " << pair << ", filtered " << filtered << ", point " << first + i;
                        }
                    }
                }
            }
    };
    check.template operator()<PixelFormat::Rgba8>();
    check.template operator()<PixelFormat::Rgb8>();
}

} // namespace
} // namespace Quelin::TextureSampling::Batch
