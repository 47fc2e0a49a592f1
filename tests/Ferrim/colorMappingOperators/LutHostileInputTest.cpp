// Malformed LUT texts, among them ones that once crashed the readers or were
// silently half-read: each is refused with one line naming the file, the line
// and the problem.
#include <gtest/gtest.h>

#include "Ferrim/colorMappingOperators/Lut.h"
#include "QuelinLib/MessageText.h"

using namespace Quelin;

namespace {
struct HostileCase { char const* name; bool is3dl; String text; int line; char const* problem; };

String lattice3dl(int entries) {
    String s;
    for (int i = 0; i < entries; ++i) s += "0 0 0\n";
    return s;
}

} // namespace

TEST(LutHostileInput, RefusedWithOnePrintableLine) {
    for (HostileCase const& c : {
        HostileCase{"BadSize", false, "LUT_3D_SIZE two\n0 0 0\n", 1, "LUT_3D_SIZE"},
        HostileCase{"WrongCount", false, "LUT_1D_SIZE 2\n0 0 0\n1 1\n", 3, "expected 3 values, found 2"},
        HostileCase{"NotANumber", false, "LUT_1D_SIZE 2\r\n0 0 0\r\n1 x 1\r\n", 3, "\"x\" is not a number"},
        HostileCase{"DataBeforeSize", false, "0 0 0\nLUT_1D_SIZE 2\n", 1, "before"},
        HostileCase{"TooMany", false, "LUT_1D_SIZE 2\n0 0 0\n1 1 1\n2 2 2\n", 4, "more entries"},
        HostileCase{"TooFew", false, "LUT_3D_SIZE 2\n0 0 0\n1 1 1\n\n", 3, "expected 8 entries, found 2"},
        HostileCase{"EmptyDomain", false, "DOMAIN_MIN 0 0 0\nDOMAIN_MAX 1 0 1\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n", 1, "domain"},
        HostileCase{"ShortDomain", false, "DOMAIN_MAX 1 1\n", 1, "needs 3 values"},
        HostileCase{"KeywordAfterData", false, "LUT_1D_SIZE 2\n0 0 0\nTITLE \"x\"\n1 1 1\n", 3, "after the table"},
        HostileCase{"NoSize", false, "TITLE \"nothing\"\n", 1, "no LUT_1D_SIZE"},
        HostileCase{"FractionIn3dl", true, "0 512 1023\n0 0 0\n0.5 0 0\n", 3, "\"0.5\" is not an integer"},
        HostileCase{"NotACube3dl", true, "0 0 0\n1 1 1\n2 2 2\n", 3, "do not make a cube"},
        HostileCase{"WrongCount3dl", true, "0 0 0\n0 0\n", 2, "expected 3 values"},
        HostileCase{"TooDeep3dl", true, "0 0 0\n0 0 0\n0 0 0\n0 0 0\n0 0 0\n0 0 0\n0 0 0\n0 0 70000\n", 8, "16-bit"},
        // A damaged first value made the line look like a writer's keyword,
        // and the table silently lost an entry.
        HostileCase{"LetterBeforeFirstEntry", false, "LUT_1D_SIZE 2\nx0 0 0\n0 0 0\n1 1 1\n", 2, "\"x0\" is not a number"},
        HostileCase{"NanEntry", false, "LUT_1D_SIZE 2\nnan 0.5 0.5\n0 0 0\n", 2, "\"nan\" is not a number"},
        HostileCase{"LowercaseWord", false, "title \"x\"\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n", 1, "neither a keyword nor a number"},
        HostileCase{"BinaryJunk", false, "LUT_1D_SIZE 2\n\x89PNG\x01\xff 0\n", 2, "\"\\x89PNG\\x01\\xFF\""},
        HostileCase{"HugeSize", false, "LUT_3D_SIZE 99999999999999999999\n", 1, "from 2 to 256"},
        // Converting this mesh value to an integer for the shaper was
        // undefined; it is refused before use.
        HostileCase{"HugeMeshValue", true, "0 300 600 99999999999999\n" + lattice3dl(64), 1, "mesh value 99999999999999"},
        HostileCase{"MeshBeyondIntegers", true, "0 300 600 999999999999999999999\n" + lattice3dl(64), 1, "is not an integer"},
        HostileCase{"LongMesh", true, [] {
                        String mesh;
                        for (int i = 0; i < 300; ++i) mesh += std::to_string(i) + " ";
                        return mesh + "\n0 0 0\n";
                    }(),
                    1, "300 points, more than 256"}}) {
        char const* const file = c.is3dl ? "look.3dl" : "look.cube";
        auto const lut = c.is3dl ? parse3dlLut(c.text, file) : parseCubeLut(c.text, file);
        ASSERT_FALSE(lut) << c.name;
        EXPECT_EQ(lut.error().rfind(String(file) + ":" + std::to_string(c.line) + ": ", 0), 0u) << lut.error();
        EXPECT_NE(lut.error().find(c.problem), String::npos) << lut.error();
        EXPECT_EQ(lut.error(), singleLine(lut.error())) << "not one printable line";
    }
}

TEST(LutHostileFiles, WriterKeywordsBeforeTheTableAreStillSkipped) {
    auto const lut = parseCubeLut("LUT_IN_VIDEO_RANGE\nLUT_1D_SIZE 2\n0 0 0\n1 1 1\n", "look.cube");
    ASSERT_TRUE(lut) << lut.error();
    EXPECT_EQ(lut->lut1d->size, 2);
}
