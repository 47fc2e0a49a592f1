#include <gtest/gtest.h>

#include "QuelinLibImage/ImageLimits.h"

using namespace Quelin;

TEST(ImageLimits, DeclaredSizesBeyondTheLimitsOrTheFileAreRefused) {
    struct Case {
        DeclaredImageSize size;
        char const* problem;  ///< nullptr: accepted
    };
    std::int64_t const mib = 1 << 20;
    for (Case const& c : {
             Case{{1920, 1080, 4, 2, 12 * mib}, nullptr},
             Case{{16384, 16384, 4, 4, std::nullopt}, nullptr},        // the largest, file size unknown
             Case{{2048, 2048, 4, 2, 1000}, nullptr},                  // 32 MiB of blank image in a small file
             Case{{0, 10, 3, 1, std::nullopt}, "empty"},
             Case{{65537, 1, 3, 1, std::nullopt}, "per side"},
             Case{{16384, 16385, 1, 1, std::nullopt}, "268435456 pixels"},
             Case{{4096, 4096, 65, 1, std::nullopt}, "channels"},
             Case{{16384, 16384, 8, 4, std::nullopt}, "bytes"},        // 8 GiB of float channels
             Case{{8192, 8192, 4, 2, 779}, "the file's 779 bytes"},    // 512 MiB from a 779-byte file
         }) {
        auto const r = checkDeclaredImageSize("\"in.exr\"", c.size);
        if (!c.problem) {
            EXPECT_TRUE(r) << r.error();
            continue;
        }
        ASSERT_FALSE(r) << c.problem;
        EXPECT_EQ(r.error().rfind("\"in.exr\": ", 0), 0u) << r.error();
        EXPECT_NE(r.error().find(c.problem), String::npos) << r.error();
    }
}
