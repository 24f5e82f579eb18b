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
  const char* address;
  const char* port;
  int index;
  bool has_port;
};

TEST(MessageSenderEndpoint, ValueIsTakenApartAtCommasAndFirstColons) {
  constexpr endpoint_case cases[] = {
      {"localhost:80", "localhost", "80", 0, true},
      {"a:1,b:2", "a", "1", 0, true},
      {"a:1,b:2", "b", "2", 1, true},
      {"/run/one,b:2,/run/three", "/run/one", "", 0, false},
      {"/run/one,b:2,/run/three", "b", "2", 1, true},
      {"/run/one,b:2,/run/three", "/run/three", "", 2, false},
      {" a:1, b:2", " a", "1", 0, true},
      {" a:1, b:2", " b", "2", 1, true},
      {"a:b:c", "a", "b:c", 0, true},
      {":80", "", "80", 0, true},
      {"host:", "host", "", 0, true},
      {":", "", "", 0, true},
      {"", "", "", 0, false},
      {"a:1,", "", "", 1, false},
      {",b:2", "", "", 0, false},
      {",b:2", "b", "2", 1, true},
      {"host:1234567", "host", "1234567", 0, true},
      {"host:12345678", "host", "1234567", 0, true},
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
