#include "broker/ssl_routine.h"
#include "certificates.h"

#include <gtest/gtest.h>

namespace {

using namespace std::string_literals;

struct hostname_case {
  const char* what;
  certificate_plan plan;
  const char* hostname;
  int result;
};

// A table.
const std::vector<hostname_case>& cases() {
  static const auto& all = *new std::vector<hostname_case>{
      {"the only DNS name", {.common_names = {}, .alt_names = {{GEN_DNS, "broker.test"}}}, "broker.test", 1},
      {"another DNS name", {.common_names = {}, .alt_names = {{GEN_DNS, "other.test"}}}, "broker.test", -1},
      {"the last of three DNS names",
       {.common_names = {},
        .alt_names = {{GEN_DNS, "a.test"}, {GEN_DNS, "b.test"}, {GEN_DNS, "broker.test"}}},
       "broker.test",
       1},
      {"letter case of the host",
       {.common_names = {}, .alt_names = {{GEN_DNS, "broker.test"}}},
       "BROKER.Test",
       1},
      {"letter case of the certificate",
       {.common_names = {}, .alt_names = {{GEN_DNS, "Broker.TEST"}}},
       "broker.test",
       1},
      {"a prefix", {.common_names = {}, .alt_names = {{GEN_DNS, "broker.test.example"}}}, "broker.test", -1},
      {"a suffix", {.common_names = {}, .alt_names = {{GEN_DNS, "my.broker.test"}}}, "broker.test", -1},
      {"a shorter name", {.common_names = {}, .alt_names = {{GEN_DNS, "broker"}}}, "broker.test", -1},
      {"a trailing dot", {.common_names = {}, .alt_names = {{GEN_DNS, "broker.test."}}}, "broker.test", -1},
      {"a wildcard above the host",
       {.common_names = {}, .alt_names = {{GEN_DNS, "*.test"}}},
       "broker.test",
       -1},
      {"a wildcard as literal text", {.common_names = {}, .alt_names = {{GEN_DNS, "*.test"}}}, "*.TEST", 1},
      {"commonName without the extension", {.common_names = {"broker.test"}}, "Broker.Test", 1},
      {"another commonName", {.common_names = {"other.test"}}, "broker.test", -1},
      {"wildcard commonName", {.common_names = {"*.test"}}, "broker.test", -1},
      {"the first of two commonNames", {.common_names = {"broker.test", "other.test"}}, "broker.test", 1},
      {"the second of two commonNames", {.common_names = {"other.test", "broker.test"}}, "broker.test", -1},
      {"no name at all", {.common_names = {}}, "broker.test", -1},
      {"commonName beside another DNS name",
       {.common_names = {"broker.test"}, .alt_names = {{GEN_DNS, "other.test"}}},
       "broker.test",
       -1},
      {"commonName beside an extension without DNS names",
       {.common_names = {"broker.test"}, .alt_names = {{GEN_EMAIL, "broker.test"}, {GEN_URI, "broker.test"}}},
       "broker.test",
       -1},
      {"commonName beside an empty extension",
       {.common_names = {"broker.test"}, .empty_alt_names = true},
       "broker.test",
       -1},
      {"commonName beside an unreadable extension",
       {.common_names = {"broker.test"}, .raw_alt_names = "garbage"},
       "broker.test",
       -1},
      {"other kinds of names are skipped",
       {.common_names = {},
        .alt_names = {{GEN_EMAIL, "a@b"}, {GEN_IPADD, "\x7F\0\0\x01"s}, {GEN_DNS, "broker.test"}}},
       "broker.test",
       1},
      {"an address is no DNS name",
       {.common_names = {}, .alt_names = {{GEN_IPADD, "\x7F\0\0\x01"s}}},
       "127.0.0.1",
       -1},
      {"an address written as DNS name",
       {.common_names = {}, .alt_names = {{GEN_DNS, "127.0.0.1"}}},
       "127.0.0.1",
       1},
      {"an embedded NUL",
       {.common_names = {}, .alt_names = {{GEN_DNS, "broker.test\0.evil.test"s}}},
       "broker.test",
       -1},
      {"an embedded NUL ends the search",
       {.common_names = {}, .alt_names = {{GEN_DNS, "x\0y"s}, {GEN_DNS, "broker.test"}}},
       "broker.test",
       -1},
      {"a match before an embedded NUL",
       {.common_names = {}, .alt_names = {{GEN_DNS, "broker.test"}, {GEN_DNS, "x\0y"s}}},
       "broker.test",
       1},
      {"an embedded NUL in a name of another kind",
       {.common_names = {}, .alt_names = {{GEN_URI, "x\0y"s}, {GEN_DNS, "broker.test"}}},
       "broker.test",
       1},
      {"a NUL at the end",
       {.common_names = {}, .alt_names = {{GEN_DNS, "broker.test\0"s}}},
       "broker.test",
       -1},
      {"an embedded NUL in the commonName",
       {.common_names = {"broker.test\0.evil.test"s}},
       "broker.test",
       -1},
      {"an empty host name", {.common_names = {}, .alt_names = {{GEN_DNS, "broker.test"}}}, "", -1},
  };
  return all;
}

}  // namespace

TEST(HostnameCheck, FollowsTheCertificatesNames) {
  for (const hostname_case& one : cases()) {
    const identity made = make_identity(one.plan);
    EXPECT_EQ(validate_hostname(one.hostname, made.certificate.get()), one.result) << one.what;
  }
}

TEST(HostnameCheck, NullArgumentsNeverMatch) {
  const identity made = make_identity({.common_names = {"broker.test"}});
  EXPECT_EQ(validate_hostname(nullptr, made.certificate.get()), -1);
  EXPECT_EQ(validate_hostname("broker.test", nullptr), -1);
  EXPECT_EQ(validate_hostname(nullptr, nullptr), -1);
}
