#include "client/text.h"

#include <gtest/gtest.h>

using cpudefend::printable;

TEST(Printable, KeepsTextAndEscapesTheRest)
{
    EXPECT_EQ(printable("plain ~ text"), "plain ~ text");
    EXPECT_EQ(printable("Zürich €uro 𝄞"), "Zürich €uro 𝄞");
    EXPECT_EQ(printable("\t\x7f"), "\\x09\\x7F");
    EXPECT_EQ(printable("\xc2\x9b"), "\\xC2\\x9B");   // a control character
    EXPECT_EQ(printable("\xc3"), "\\xC3");            // cut short
    EXPECT_EQ(printable("\x80x\xff"), "\\x80x\\xFF"); // no UTF-8
    EXPECT_EQ(printable(std::string_view("\0", 1)), "\\x00");
}
