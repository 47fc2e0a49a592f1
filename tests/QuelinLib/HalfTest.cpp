#include "QuelinLib/Half.h"
#include <cmath>
#include <gtest/gtest.h>
#include <limits>

using namespace Quelin;

namespace {
bool isHalfNan(std::uint16_t h) { return (h & 0x7C00u) == 0x7C00u && (h & 0x3FFu) != 0; }
} // namespace

TEST(HalfTest, EveryHalfSurvivesTheRoundTripAndFloatsGoToTheNearestEvenHalf) {
    for (std::uint32_t bits = 0; bits <= 0xFFFFu; ++bits) {
        auto const h = std::uint16_t(bits);
        float const f = halfToFloat(h);
        std::uint16_t const back = floatToHalf(f);
        if (isHalfNan(h)) {
            ASSERT_TRUE(std::isnan(f)) << std::hex << bits;
            ASSERT_TRUE(isHalfNan(back)) << std::hex << bits;
            ASSERT_EQ(back & 0x8000u, h & 0x8000u);
        } else {
            ASSERT_EQ(back, h) << std::hex << bits;
        }
    }
    // A NaN payload only in the low float bits must not collapse into infinity.
    EXPECT_TRUE(isHalfNan(floatToHalf(std::bit_cast<float>(0x7F800001u))));
    for (auto const [value, bits] : {std::pair<float, std::uint16_t>{-2.f, 0xC000}, {-0.f, 0x8000},
                                     {65504.f, 0x7BFF},   // largest finite
                                     {65519.99f, 0x7BFF}, // just below the tie to infinity
                                     {65520.f, 0x7C00},   // ties to even: infinity
                                     {std::ldexp(1.f, -14), 0x0400},  // smallest normal
                                     {std::ldexp(1.f, -24), 0x0001},  // smallest subnormal
                                     {std::ldexp(1.f, -25), 0x0000},  // tie between 0 and 2^-24: even is 0
                                     {std::ldexp(1.5f, -25), 0x0001}, // above the tie
                                     {std::ldexp(3.f, -25), 0x0002},  // 1.5 units ties to 2
                                     {1.f + std::ldexp(1.f, -11), 0x3C00},     // tie, stays even
                                     {1.f + 3 * std::ldexp(1.f, -11), 0x3C02}, // tie, rounds up to even
                                     // subnormal rounding carries into the normals
                                     {std::ldexp(1023.5f, -24), 0x0400},
                                     {-std::numeric_limits<float>::infinity(), 0xFC00}})
        EXPECT_EQ(floatToHalf(value), bits) << value;
}

TEST(HalfTest, StoredHalfAndBufferConversionsMatchTheScalarOnes) {
    EXPECT_EQ(Half(0.333333f).bits, 0x3555);
    EXPECT_EQ(float(Half(0.333333f)), halfToFloat(0x3555));
    float const buffer[3] = {1.f, -0.25f, 1e-5f};
    std::uint16_t halves[3];
    floatToHalf(buffer, halves, 3);
    float back[3];
    halfToFloat(halves, back, 3);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(back[i], halfToFloat(floatToHalf(buffer[i]))) << i;
}
