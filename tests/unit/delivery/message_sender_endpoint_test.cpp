#include "delivery/message_sender_endpoint.h"

#include <gtest/gtest.h>
#include <string>

namespace {

struct count_case {
  const char* value;
  int count;
};

TEST(MessageSenderEndpoint, EndpointsAreCountedByTheirCommas) {
  constexpr count_case cases[] = {{"", 1},  {"a:1", 1}, {"a:1,b:2", 2}, {"a:1,", 2},
                                  {",", 2}, {",,", 3},  {"/a,/b,/c", 3}};
  for (const count_case& each : cases) {
    EXPECT_EQ(count_endpoints(each.value), each.count) << each.value;
  }
}

struct endpoint_case {
  const char* value;
  int index;
  const char* address;
  const char* port;
  bool has_port;
};

TEST(MessageSenderEndpoint, ValueIsTakenApartAtCommasAndFirstColons) {
  constexpr endpoint_case cases[] = {
      {"localhost:80", 0, "localhost", "80", true},
      {"a:1,b:2", 0, "a", "1", true},
      {"a:1,b:2", 1, "b", "2", true},
      {"/run/one,b:2,/run/three", 0, "/run/one", "", false},
      {"/run/one,b:2,/run/three", 1, "b", "2", true},
      {"/run/one,b:2,/run/three", 2, "/run/three", "", false},
      {" a:1, b:2", 0, " a", "1", true},
      {" a:1, b:2", 1, " b", "2", true},
      {"a:b:c", 0, "a", "b:c", true},
      {":80", 0, "", "80", true},
      {"host:", 0, "host", "", true},
      {":", 0, "", "", true},
      {"", 0, "", "", false},
      {"a:1,", 1, "", "", false},
      {",b:2", 0, "", "", false},
      {",b:2", 1, "b", "2", true},
      {"host:1234567", 0, "host", "1234567", true},
      {"host:12345678", 0, "host", "1234567", true},
  };
  for (const endpoint_case& each : cases) {
    const endpoint_text endpoint = endpoint_at(each.value, each.index);
    EXPECT_STREQ(endpoint.address, each.address) << each.value;
    EXPECT_STREQ(endpoint.port, each.port) << each.value;
    EXPECT_EQ(endpoint.has_port, each.has_port) << each.value;
  }
}

TEST(MessageSenderEndpoint, HostIsCutAfter256Characters) {
  for (const size_t length : {size_t{255}, size_t{256}, size_t{257}, size_t{900}}) {
    const std::string host(length, 'h');
    const endpoint_text endpoint = endpoint_at((host + ":80").c_str(), 0);
    EXPECT_EQ(endpoint.address, host.substr(0, 256));
    EXPECT_STREQ(endpoint.port, "80");
  }
}

TEST(MessageSenderEndpoint, PathIsNotCut) {
  const std::string path = "/" + std::string(1022, 'p');
  EXPECT_EQ(endpoint_at(path.c_str(), 0).address, path);
}

}  // namespace
