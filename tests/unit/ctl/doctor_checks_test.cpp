#include "ctl/doctor_checks.h"

#include "../broker/certificates.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

using testing::HasSubstr;

MATCHER_P(IsWrong, text, "") {
  return arg.wrong && !arg.advice.empty() && arg.text.find(text) != std::string::npos;
}
MATCHER(IsFine, "") {
  return !arg.wrong && arg.advice.empty() && !arg.text.empty();
}

TEST(DoctorUrl, AddressesAreTaken) {
  for (const char* url :
       {"https://cloud", "https://cloud.example:8443/a/b", "https://[::1]/a", "HTTPS://cloud/"}) {
    EXPECT_THAT(check_url("q_register_url", url), IsFine()) << url;
  }
  EXPECT_THAT(check_url("q_register_url", "https://" + std::string(119, 'a')), IsFine());
}

TEST(DoctorUrl, WhatIsWrongIsNamed) {
  const std::pair<std::string, const char*> cases[] = {
      {"", "is not set"},
      {"cloud", "is no address"},
      {"https://", "is no address"},
      {"https:// cloud", "is no address"},
      {"https://cloud:99999/", "is no address"},
      {"http://cloud", "is not https"},
      {"ftp://cloud", "is not https"},
      {"https://cloud/?a=b", "something behind its path"},
      {"https://cloud/#a", "something behind its path"},
      {"https://" + std::string(120, 'a'), "more than 127 characters"},
  };
  for (const auto& [url, text] : cases) {
    EXPECT_THAT(check_url("q_register_url", url), IsWrong(text)) << url;
  }
}

TEST(DoctorNumber, OnlyDigitsAreANumber) {
  for (const char* number : {"", "0", "60", "000000000000001"}) {
    EXPECT_THAT(check_number("q_claim_delay", number), IsFine()) << number;
  }
  for (const char* text : {"soon", "-1", "1s", " 1", "1.5", "0000000000000001"}) {
    EXPECT_THAT(check_number("q_claim_delay", text), IsWrong("q_claim_delay is no number")) << text;
  }
}

TEST(DoctorNumber, NumberThatTheAgentCanNotHoldIsWrong) {
  EXPECT_THAT(check_number("q_claim_delay", "2147483647"), IsFine());
  EXPECT_THAT(check_number("q_claim_delay", "2147483648"), IsWrong("q_claim_delay is too large: 2147483648"));
  EXPECT_THAT(check_number("q_claim_delay", "999999999999999"), IsWrong("is too large"));
  EXPECT_THAT(check_number("q_broker_port", "65535"), IsFine());
  EXPECT_THAT(check_number("q_broker_port", "65536"), IsWrong("is too large"));
}

TEST(DoctorClock, ClockBeforeTheProgramsBirthIsWrong) {
  constexpr time_t built = 1'700'000'000;
  EXPECT_THAT(check_clock(0, built), IsWrong("before this program was built"));
  EXPECT_THAT(check_clock(built - 1, built), IsWrong("before this program was built"));
  EXPECT_THAT(check_clock(built, built), IsFine());
}

class DoctorCertificatesTest : public testing::Test {
protected:
  findings check(const std::string& content, time_t seconds_from_now = 0) {
    return check_certificates("ca.pem", content, std::time(nullptr) + seconds_from_now);
  }

  test_authority authority;
  std::string text = read_text_file(authority.file());  // valid from an hour ago until tomorrow
};

TEST_F(DoctorCertificatesTest, ValidOneIsFine) {
  const findings found = check(text);
  ASSERT_EQ(found.size(), 1U);
  EXPECT_THAT(found[0], IsFine());
  EXPECT_THAT(found[0].text, HasSubstr("Test Authority"));
}

TEST_F(DoctorCertificatesTest, ClockOutsideTheirTimeIsNamed) {
  EXPECT_THAT(check(text, -7200)[0], IsWrong("is not valid yet"));
  EXPECT_THAT(check(text, 100000)[0], IsWrong("has expired"));
}

TEST_F(DoctorCertificatesTest, EachOfAFileIsLookedAt) {
  const findings found = check("a comment\n" + text + text);
  ASSERT_EQ(found.size(), 2U);
  EXPECT_THAT(found[1], IsFine());
}

TEST_F(DoctorCertificatesTest, TextWithoutAnyIsWrong) {
  for (const std::string& none : {std::string{}, std::string{"hello"}, text.substr(0, text.size() / 2)}) {
    const findings found = check(none);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_THAT(found[0], IsWrong("holds no certificate"));
  }
}

TEST(DoctorMode, OthersMayNotReadSecretsNorWriteAnything) {
  EXPECT_THAT(check_mode("f", S_IFREG | 0600, true), IsFine());
  EXPECT_THAT(check_mode("f", S_IFREG | 0400, true), IsFine());
  EXPECT_THAT(check_mode("f", S_IFREG | 0644, false), IsFine());
  EXPECT_THAT(check_mode("f", S_IFREG | 0640, true), IsWrong("mode 0640"));
  EXPECT_THAT(check_mode("f", S_IFREG | 0604, true), IsWrong("mode 0604"));
  EXPECT_THAT(check_mode("f", S_IFREG | 0664, false), IsWrong("others may change it"));
  EXPECT_THAT(check_mode("f", S_IFDIR | 0700, true), IsWrong("is not a file"));
}

constexpr char tcp_table[] =
    "  sl  local_address rem_address   st tx_queue rx_queue tr tm->when retrnsmt   uid\n"
    "   0: %08X:1F90 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0\n"  // 127.0.0.1:8080
    "   1: 00000000:0016 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0\n"
    "   2: %08X:0050 %08X:9C40 01 00000000:00000000 00:00000000 00000000     0\n";
constexpr char tcp6_table[] =
    "  sl  local_address                         remote_address                        st tx_queue\n"
    "   0: 00000000000000000000000000000000:1F91 00000000000000000000000000000000:0000 0A 00000000:00000000\n"
    "   1: 0000000000000000%08X%08X:1F92 00000000000000000000000000000000:0000 0A 00000000:00000000\n"
    "   2: 000000000000000000000000%08X:1F93 00000000000000000000000000000000:0000 0A 00000000:00000000\n";

std::string filled(const char* format, unsigned a, unsigned b, unsigned c) {
  char text[1024];
  std::snprintf(text, sizeof text, format, a, b, c);
  return text;
}

TEST(DoctorListeners, TableOfSocketsIsRead) {
  const uint32_t own = htonl(INADDR_LOOPBACK);
  const uint32_t next = htonl(INADDR_LOOPBACK + 1);
  const std::string tcp = filled(tcp_table, own, own, own);
  EXPECT_TRUE(listens_on(tcp, own, 8080));
  EXPECT_FALSE(listens_on(tcp, next, 8080));
  EXPECT_TRUE(listens_on(tcp, next, 22));
  EXPECT_FALSE(listens_on(tcp, own, 80));  // a connection, not a listener
  EXPECT_FALSE(listens_on(tcp, own, 8081));

  const std::string tcp6 = filled(tcp6_table, htonl(0xFFFF), own, htonl(1));
  EXPECT_TRUE(listens_on(tcp6, own, 0x1F91));
  EXPECT_TRUE(listens_on(tcp6, own, 0x1F92));
  EXPECT_FALSE(listens_on(tcp6, next, 0x1F92));
  EXPECT_FALSE(listens_on(tcp6, own, 0x1F93));  // ::1 only
  EXPECT_FALSE(listens_on("", own, 1));
}

}  // namespace
