// LUT files that once crashed the readers or were silently half-read: each is
// refused with one line naming the file, the line and the problem.
#include <gtest/gtest.h>

#include "Ferrim/colorMappingOperators/Lut.h"
#include "QuelinLib/MessageText.h"

using namespace Quelin;

namespace {
struct HostileCase {
    char const* name;
    bool is3dl;
    String text;
    int line;
    char const* problem;
};

String lattice3dl(int entries) {
    String s;
    for (int i = 0; i < entries; ++i) s += "0 0 0\n";
    return s;
}

class LutHostileInput : public ::testing::TestWithParam<HostileCase> {};
} // namespace

TEST_P(LutHostileInput, RefusedWithOnePrintableLine) {
    HostileCase const& c = GetParam();
    char const* const file = c.is3dl ? "look.3dl" : "look.cube";
    auto const lut = c.is3dl ? parse3dlLut(c.text, file) : parseCubeLut(c.text, file);
    ASSERT_FALSE(lut) << c.name;
    EXPECT_EQ(lut.error().rfind(String(file) + ":" + std::to_string(c.line) + ": ", 0), 0u) << lut.error();
    EXPECT_NE(lut.error().find(c.problem), String::npos) << lut.error();
    EXPECT_EQ(lut.error(), singleLine(lut.error())) << "not one printable line";
}

INSTANTIATE_TEST_SUITE_P(
    Texts, LutHostileInput,
    ::testing::Values(
        // A damaged first value made the line look like a writer's keyword,
        // and the table silently lost an entry.
        HostileCase{"LetterBeforeFirstEntry", false, "LUT_1D_SIZE 2\nx0 0 0\n0 0 0\n1 1 1\n", 2, "\"x0\" is not a number"},
        HostileCase{"NanEntry", false, "LUT_1D_SIZE 2\nnan 0.5 0.5\n0 0 0\n", 2, "\"nan\" is not a number"},
        HostileCase{"LowercaseWord", false, "title \"x\"\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n", 1, "neither a keyword nor a number"},
        HostileCase{"BinaryJunk", false, "LUT_1D_SIZE 2\n\x89PNG\x01\xff 0\n", 2, "\"\\x89PNG\\x01\\xFF\""},
        HostileCase{"HugeSize", false, "LUT_3D_SIZE 99999999999999999999\n", 1, "from 2 to 256"},
        HostileCase{"DamagedIn3dl", true, "x 0 0\n" + lattice3dl(8), 1, "\"x\" is not an integer"},
        // Converting this mesh value to an integer for the shaper was
        // undefined; it is refused before use.
        HostileCase{"HugeMeshValue", true, "0 300 600 99999999999999\n" + lattice3dl(64), 1, "mesh value 99999999999999"},
        HostileCase{"MeshBeyondIntegers", true, "0 300 600 999999999999999999999\n" + lattice3dl(64), 1, "is not an integer"},
        HostileCase{"LongMesh", true, [] {
                        String mesh;
                        for (int i = 0; i < 300; ++i) mesh += std::to_string(i) + " ";
                        return mesh + "\n0 0 0\n";
                    }(),
                    1, "300 points, more than 256"}),
    [](auto const& info) { return String(info.param.name); });

TEST(LutHostileFiles, DevicesAndFoldersAreRefusedBeforeReading) {
    // /dev/zero has no end: reading it whole would never finish.
    for (char const* path : {"/dev/zero", "/tmp"}) {
        auto const lut = readCubeLut(path);
        ASSERT_FALSE(lut) << path;
        EXPECT_EQ(lut.error(), String(path) + ": not a regular file");
    }
}

TEST(LutHostileFiles, WriterKeywordsBeforeTheTableAreStillSkipped) {
    auto const lut = parseCubeLut("LUT_IN_VIDEO_RANGE\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n", "look.cube");
    ASSERT_TRUE(lut) << lut.error();
    EXPECT_EQ(lut->lut1d->size, 2);
}
