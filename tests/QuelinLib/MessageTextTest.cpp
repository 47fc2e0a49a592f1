#include <gtest/gtest.h>

#include "QuelinLib/MessageText.h"

using namespace Quelin;

TEST(MessageText, PrintableTextEscapesWhatATerminalWouldMisread) {
    struct Case { String in, out; };
    for (Case const& c : {Case{"plain", "plain"},
                          Case{"caf\xc3\xa9 \xe2\x82\xac", "caf\xc3\xa9 \xe2\x82\xac"},  // valid UTF-8 stays
                          Case{"a\x01\x1b[2Jb", "a\\x01\\x1B[2Jb"},
                          Case{"\xff\xfe", "\\xFF\\xFE"},
                          Case{"\xc3", "\\xC3"},                  // sequence cut short
                          Case{"\xc0\xaf", "\\xC0\\xAF"},         // overlong '/'
                          Case{"\xed\xa0\x80", "\\xED\\xA0\\x80"},  // surrogate
                          Case{String("a\0b", 3), "a\\x00b"},
                          Case{"tab\there", "tab here"}}) {
        EXPECT_EQ(printableText(c.in), c.out);
    }
    EXPECT_EQ(printableText(String(100, 'x'), 10), String(10, 'x') + "...");
}

TEST(MessageText, SingleLineJoinsLinesAndDropsBlankOnes) {
    EXPECT_EQ(singleLine("Could not open: bad header\n  chunk table damaged\r\n\n"), "Could not open: bad header; chunk table damaged");
    EXPECT_EQ(singleLine("  one  "), "one");
    EXPECT_EQ(singleLine("\n\n"), "");
    EXPECT_EQ(singleLine("junk \x02\n"), "junk \\x02");
}
