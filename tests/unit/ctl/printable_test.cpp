#include "ctl/printable.h"

#include <gtest/gtest.h>

namespace {

TEST(Printable, TextStaysAsItIs) {
  for (const char* text : {"", "hello", " ~\\x", "\xC3\xA4 \xE2\x82\xAC \xF0\x9F\x99\x82"}) {
    EXPECT_EQ(printable(text), text);
  }
}

TEST(Printable, WhatControlsATerminalIsEscaped) {
  EXPECT_EQ(printable("a\x1B[2Jb\r\n\x7F"), "a\\x1B[2Jb\\x0D\\x0A\\x7F");
  EXPECT_EQ(printable("\xC2\x9B"
                      "2J"),
            "\\xC2\\x9B2J");
  EXPECT_EQ(printable(std::string_view{"\0", 1}), "\\x00");
}

TEST(Printable, WhatIsNoUtf8IsEscaped) {
  EXPECT_EQ(printable("\x9B"
                      "2J"),
            "\\x9B2J");
  EXPECT_EQ(printable("\xC3"), "\\xC3");
  EXPECT_EQ(printable("\xC3(\xFF"), "\\xC3(\\xFF");
}

TEST(Printable, LongTextIsCut) {
  EXPECT_EQ(printable("abcd", 4), "abcd");
  EXPECT_EQ(printable("abcde", 4), "abcd...");
}

}  // namespace
