#include "cloud/logic_error_headers.h"

#include "cloud/http_helper.h"

#include "in_order.h"
#include "log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

using testing::HasSubstr;

namespace {

class ErrorHeadersTest : public testing::Test {
protected:
  int read(std::string text) {
    const HttpBuffer headers{text.data(), text.size()};
    log_capture log;
    const int result = read_error_headers(&headers);
    logged = log.text();
    return result;
  }

  std::string logged;
};

TEST_F(ErrorHeadersTest, OnlyTheCodeOfAWrongSerialNumberIsSpecial) {
  struct {
    const char* text;
    int result;
  } const cases[] = {
      {"X-Error-Code: 1062\r\n\r\n", -2},
      {"X-Error-Code: 0x426\r\n\r\n", -2},
      {"X-Error-Code: 02046\r\n\r\n", -2},
      {"X-Error-Code:  1062\r\n\r\n", -2},
      {"X-Error-Code: 1062 x\r\n\r\n", -2},
      {"A: b\r\nX-Error-Code: 1062\r\nC: d\r\n\r\n", -2},
      {"X-Error-Code: 1063\r\n\r\n", -1},
      {"X-Error-Code: 01062\r\n\r\n", -1},
      {"X-Error-Code:1062\r\n\r\n", -1},
      {"x-error-code: 1062\r\n\r\n", -1},
      {"X-Error-Code: 1062", -1},
      {"X-Error-Code: 1062\n\n", -1},
      {"X-Error-Code: 1062\r", -1},
      {"A: b\r\n\r\n", -1},
      {"", -1},
      {"\r", -1},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(read(test.text), test.result) << test.text;
    EXPECT_EQ(logged.find("WARNING: Found wrong_sn error code.\n") != std::string::npos, test.result == -2)
        << test.text;
  }
}

TEST_F(ErrorHeadersTest, ALineThatEndsBeforeTheNumberHasNone) {
  // What follows the line must not be taken for its number.
  for (const char* name : {"X-Error-Code", "X-Error-Code:", "X-Error-Code: "}) {
    EXPECT_EQ(read(std::string{name} + "\r1062\r\n1062\r\n"), -1) << name;
    EXPECT_THAT(logged, HasSubstr("Found error header: " + std::string{name} + ".\n"));
  }
}

TEST_F(ErrorHeadersTest, TheNumberBeginsFourteenCharactersIntoTheLine) {
  EXPECT_EQ(read("X-Error-Code=!1062\r\n"), -2);
  EXPECT_EQ(read("X-Error-Code:1062\r\n"), -1) << "062 is octal";
}

TEST_F(ErrorHeadersTest, CodeAndMessageAreLoggedInThisOrder) {
  EXPECT_EQ(read("X-Error-Message: no such device\r\nX-Error-Code: 1062\r\n\r\n"), -2);
  EXPECT_THAT(logged, has_in_order({"WARNING: Found error header: X-Error-Code: 1062.\n",
                                    "WARNING: Found wrong_sn error code.\n",
                                    "WARNING: Found error header: X-Error-Message: no such device.\n"}));
}

TEST_F(ErrorHeadersTest, AMessageWithoutALineEndIsNotLogged) {
  EXPECT_EQ(read("X-Error-Message: cut off"), -1);
  EXPECT_EQ(logged, "");
}

TEST_F(ErrorHeadersTest, AVeryLongLineIsCut) {
  const std::string text = "X-Error-Message: " + std::string(100'000, 'x');
  EXPECT_EQ(read(text + "\r\n"), -1);
  EXPECT_THAT(logged, HasSubstr("Found error header: " + text.substr(0, 255) + ".\n"));
}

}  // namespace
