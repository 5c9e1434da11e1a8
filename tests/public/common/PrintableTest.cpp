#include "public/common/Printable.h"

#include <gtest/gtest.h>

namespace skein {
namespace {

TEST(Printable, keepsTextInEveryScript) {
    for (const char* text : {"", "plain ~", "é 猫 𝄞", "\u00A0\u2027\u2070"}) EXPECT_EQ(printable(text), text);
}

TEST(Printable, replacesWhatCouldPlayTricksOnATerminal) {
    EXPECT_EQ(printable("\x1B[31m\n\t\x7F"), "?[31m???");
    EXPECT_EQ(printable("a\u009Bb\u0080"), "a?b?");
    EXPECT_EQ(printable("\u200E\u202E\u2028\u2066x\u2069"), "????x?");
    EXPECT_EQ(printable("\xFF\xE7\x8C"
                        "a\xC3"),
              "???a?");
}

}  // namespace
}  // namespace skein
