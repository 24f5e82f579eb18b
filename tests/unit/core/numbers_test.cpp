#include "core/numbers.h"

#include "log_capture.h"

#include <cerrno>
#include <cstdint>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

TEST(TextToInt32Test, ReadsAsA32BitStrtolWould) {
  struct {
    const char* text;
    int base;
    int32_t value;
    int error;
  } const cases[] = {
      {"0", 10, 0, 0},
      {" +42x", 10, 42, 0},
      {"-7", 10, -7, 0},
      {"", 10, 0, 0},
      {"x", 10, 0, 0},
      {"ff", 16, 255, 0},
      {"2147483647", 10, INT32_MAX, 0},
      {"2147483648", 10, INT32_MAX, ERANGE},
      {"4294967296", 10, INT32_MAX, ERANGE},
      {"99999999999999999999", 10, INT32_MAX, ERANGE},
      {"-2147483648", 10, INT32_MIN, 0},
      {"-2147483649", 10, INT32_MIN, ERANGE},
      {"-99999999999999999999", 10, INT32_MIN, ERANGE},
  };
  for (const auto& c : cases) {
    errno = 0;
    EXPECT_EQ(text_to_int32(c.text, nullptr, c.base), c.value) << c.text;
    EXPECT_EQ(errno, c.error) << c.text;
  }
}

TEST(TextToInt32Test, TellsWhereTheNumberEnds) {
  const char* text = "12ab";
  char* end = nullptr;
  EXPECT_EQ(text_to_int32(text, &end, 10), 12);
  EXPECT_EQ(end, text + 2);
}

TEST(TextToInt32Test, LeavesAnEarlierErrorNumber) {
  errno = EINVAL;
  EXPECT_EQ(text_to_int32("5", nullptr, 10), 5);
  EXPECT_EQ(errno, EINVAL);
}

TEST(ParseUintTest, AcceptsWhatIsNotNegative) {
  struct {
    const char* text;
    uint32_t value;
  } const cases[] = {{"0", 0}, {"14369", 14369},           {"007", 7}, {"abc", 0},
                     {"", 0},  {"2147483648", 2147483647}, {"12a", 12}};
  for (const auto& c : cases) {
    uint32_t value = 77;
    EXPECT_EQ(parse_uint(c.text, &value), 0) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  }
}

TEST(ParseUintTest, RefusesNegativeNumbersAndLeavesTheResultAlone) {
  for (const char* text : {"-1", "-2147483648", "-99999999999999999999", " -5"}) {
    uint32_t value = 77;
    EXPECT_EQ(parse_uint(text, &value), -1) << text;
    EXPECT_EQ(value, 77U) << text;
  }
}

TEST(ParseUintTest, AnEarlierErrorNumberDoesNotCount) {
  errno = ERANGE;
  uint32_t value = 77;
  EXPECT_EQ(parse_uint("0", &value), 0);
  EXPECT_EQ(value, 0U);
}

TEST(ParseKeepaliveTest, ReadsThreeFields) {
  struct {
    const char* text;
    uint32_t time, probes, interval;
  } const cases[] = {
      {"60,5,10", 60, 5, 10}, {"60,5,10,99", 60, 5, 10}, {",,", 0, 0, 0},
      {"0,0,0", 0, 0, 0},     {"x,5,y", 0, 5, 0},        {"2147483648,1,2", 2147483647, 1, 2},
  };
  for (const auto& c : cases) {
    log_capture log;
    keepalive_values got{9, 9, 9};
    EXPECT_EQ(parse_keepalive(c.text, &got.time, &got.probes, &got.interval), 0) << c.text;
    EXPECT_EQ(got.time, c.time) << c.text;
    EXPECT_EQ(got.probes, c.probes) << c.text;
    EXPECT_EQ(got.interval, c.interval) << c.text;
    EXPECT_THAT(log.text(), IsEmpty()) << c.text;
  }
}

TEST(ParseKeepaliveTest, ANegativeFieldIsWarnedAboutAndBecomesZero) {
  log_capture log;
  keepalive_values got{9, 9, 9};
  EXPECT_EQ(parse_keepalive("60,-1,10", &got.time, &got.probes, &got.interval), 0);
  EXPECT_EQ(got.time, 60U);
  EXPECT_EQ(got.probes, 0U);
  EXPECT_EQ(got.interval, 10U);
  const std::string text = log.text();
  EXPECT_THAT(text, testing::MatchesRegex(
                        "args: [0-9]+: WARNING: Cannot convert value -1 to uint32_t - got value -1\n"));
}

TEST(ParseKeepaliveTest, TheWarningCarriesTheFieldAndTheValueThatCameOfIt) {
  log_capture log;
  keepalive_values got{9, 9, 9};
  EXPECT_EQ(parse_keepalive("-3x,-99999999999,1", &got.time, &got.probes, &got.interval), 0);
  const std::string text = log.text();
  EXPECT_THAT(text, HasSubstr("value -3x to uint32_t - got value -3\n"));
  EXPECT_THAT(text, HasSubstr("value -99999999999 to uint32_t - got value -2147483648\n"));
}

TEST(ParseKeepaliveTest, FewerThanThreeFieldsWriteNothingAndWarnOfNothing) {
  for (const char* text : {"60,5", "-1", "", "x", "-1,-2"}) {
    log_capture log;
    keepalive_values got{9, 9, 9};
    EXPECT_EQ(parse_keepalive(text, &got.time, &got.probes, &got.interval), -1) << text;
    EXPECT_EQ(got.time + got.probes + got.interval, 27U) << text;
    EXPECT_THAT(log.text(), IsEmpty()) << text;
  }
}

TEST(ParseKeepaliveTest, NullArgumentsAreRefused) {
  uint32_t a = 9;
  uint32_t b = 9;
  uint32_t c = 9;
  EXPECT_EQ(parse_keepalive(nullptr, &a, &b, &c), -1);
  EXPECT_EQ(parse_keepalive("1,2,3", nullptr, &b, &c), -1);
  EXPECT_EQ(parse_keepalive("1,2,3", &a, nullptr, &c), -1);
  EXPECT_EQ(parse_keepalive("1,2,3", &a, &b, nullptr), -1);
  EXPECT_EQ(a + b + c, 27U);
}

}  // namespace
