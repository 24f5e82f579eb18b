#include "cloud/json_helper.h"
#include "core/owned.h"
#include "log_capture.h"
#include "process_limits.h"
#include "sanitizers.h"

#include <climits>
#include <cstring>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <sys/resource.h>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

std::string shown(const char* text) {
  return text != nullptr ? text : "(null)";
}

class JsonHelperControl : public testing::Test {
protected:
  void TearDown() override { free_control_request(&request); }

  int parse(const std::string& text) {
    log_capture log;
    const int result = parse_control_request(text.c_str(), &request);
    logged = log.text();
    return result;
  }

  ControlRequest request;
  std::string logged;
};

TEST_F(JsonHelperControl, ServiceDocumentHasItsMembersInOrder) {
  const c_string claimed{build_service_document("svc", 1)};
  EXPECT_STREQ(claimed.get(), "{\n\t\"service\":\t\"svc\",\n\t\"claimed\":\ttrue\n}");
  const c_string released{build_service_document("a \"b\"", 0)};
  EXPECT_STREQ(released.get(), "{\n\t\"service\":\t\"a \\\"b\\\"\",\n\t\"claimed\":\tfalse\n}");
}

struct type_case {
  const char* text;
  int type;
};

TEST_F(JsonHelperControl, TheFirstKnownCommandFixesTheType) {
  constexpr type_case cases[] = {
      {R"({"command":"send_discovery","service":"s"})", request_send_discovery},
      {R"({"command":"on_claim","service":"s","claimed":true})", request_on_claim},
      {R"({"command":"on_release","service":"s","claimed":true})", request_on_release},
      {R"({"command":"resume_connections"})", request_resume_connections},
      {R"({"command":"pause_connections"})", request_pause_connections},
      {R"({"command":"on_fernhollow","service":"s","registered":true})", request_on_fernhollow},
      {R"({"service":"s","claimed":false,"command":"on_claim"})", request_on_claim},
      {R"({"command":"on_claim","command":"on_release","service":"s","claimed":true})", request_on_claim},
      {R"({"command":"unknown","command":"resume_connections"})", request_resume_connections},
      {R"({"command":4,"command":"resume_connections"})", request_resume_connections},
      {R"({"command":"pause_connections","command":"resume_connections"})", request_resume_connections},
      {R"({"command":"pause_connections","command":"unknown"})", request_pause_connections},
      {R"({"command":"pause_connections","command":"pause_connections"})", request_pause_connections},
      {R"({"command":"resume_connections","command":"pause_connections"})", request_resume_connections},
      {R"({"command":"unknown"})", request_none},
      {R"({"command":"On_claim","service":"s","claimed":true})", request_none},
      {R"({"Command":"on_claim","service":"s","claimed":true})", request_none},
      {R"({"command":""})", request_none},
      {R"({"command":true})", request_none},
      {R"({"command":["on_claim"]})", request_none},
      {R"({"command":{"command":"pause_connections"}})", request_none},
      {R"({"service":"s","claimed":true})", request_none},
  };
  for (const type_case& c : cases) {
    EXPECT_EQ(parse(c.text), 0) << c.text;
    EXPECT_EQ(request.type, c.type) << c.text;
    EXPECT_THAT(logged, IsEmpty()) << c.text;
  }
}

TEST_F(JsonHelperControl, CommandAfterPauseIsReadAsUsual) {
  EXPECT_EQ(parse(R"({"command":"pause_connections","command":"on_claim"})"), -1);
  EXPECT_EQ(parse(R"({"command":"pause_connections","carrier_id":"c","command":"resume_connections"})"), 0);
  EXPECT_STREQ(request.carrier_id, "c");
}

TEST_F(JsonHelperControl, SendDiscoveryTakesAllItsMembers) {
  EXPECT_EQ(parse(R"({"id":"i","discovery_time":600,"carrier_id":"c","command":"send_discovery",
                      "discovery_data":"d","service":"s"})"),
            0);
  EXPECT_STREQ(request.discovery.service_id, "s");
  EXPECT_STREQ(request.discovery.discovery_id, "i");
  EXPECT_STREQ(request.discovery.discovery_data, "d");
  EXPECT_STREQ(request.discovery.carrier_id, "c");
  EXPECT_EQ(request.discovery.discovery_time, 600);
  EXPECT_EQ(request.carrier_id, nullptr);
  EXPECT_EQ(request.flag.service_id, nullptr);
}

TEST_F(JsonHelperControl, SendDiscoveryNeedsTheServiceOnly) {
  EXPECT_EQ(parse(R"({"command":"send_discovery","service":"s"})"), 0);
  EXPECT_EQ(request.discovery.discovery_id, nullptr);
  EXPECT_EQ(request.discovery.discovery_data, nullptr);
  EXPECT_EQ(request.discovery.carrier_id, nullptr);
  EXPECT_EQ(request.discovery.discovery_time, 0);
}

TEST_F(JsonHelperControl, OfARepeatedDiscoveryMemberTheLastOneCounts) {
  EXPECT_EQ(parse(R"({"command":"send_discovery","service":"1","service":"2","id":"1","id":"2",
                      "discovery_data":"1","discovery_data":"2","carrier_id":"1","carrier_id":"2",
                      "discovery_time":1,"discovery_time":2})"),
            0);
  EXPECT_STREQ(request.discovery.service_id, "2");
  EXPECT_STREQ(request.discovery.discovery_id, "2");
  EXPECT_STREQ(request.discovery.discovery_data, "2");
  EXPECT_STREQ(request.discovery.carrier_id, "2");
  EXPECT_EQ(request.discovery.discovery_time, 2);
  EXPECT_THAT(logged, IsEmpty());
}

TEST_F(JsonHelperControl, DiscoveryMembersOfAnotherTypeAreIgnored) {
  EXPECT_EQ(parse(R"({"command":"send_discovery","service":"s","service":5,"id":1,"discovery_data":{"a":1},
                      "carrier_id":null,"discovery_time":"600"})"),
            0);
  EXPECT_STREQ(request.discovery.service_id, "s");
  EXPECT_EQ(request.discovery.discovery_id, nullptr);
  EXPECT_EQ(request.discovery.discovery_data, nullptr);
  EXPECT_EQ(request.discovery.carrier_id, nullptr);
  EXPECT_EQ(request.discovery.discovery_time, 0);
}

struct time_case {
  const char* value;
  int time;
};

TEST_F(JsonHelperControl, DiscoveryTimeIsTakenAsAnInteger) {
  constexpr time_case cases[] = {{"1.9", 1}, {"-3", -3}, {"1e30", INT_MAX}, {"-1e999", INT_MIN}, {"true", 0}};
  for (const time_case& c : cases) {
    ASSERT_EQ(
        parse(std::string{R"({"command":"send_discovery","service":"s","discovery_time":)"} + c.value + "}"),
        0);
    EXPECT_EQ(request.discovery.discovery_time, c.time) << c.value;
  }
}

TEST_F(JsonHelperControl, SendDiscoveryWithoutServiceFails) {
  for (const char* members : {R"("id":"i","carrier_id":"c")", R"("service":5)", R"("service":null)"}) {
    EXPECT_EQ(parse(std::string{R"({"command":"send_discovery",)"} + members + "}"), -1) << members;
    EXPECT_THAT(logged, HasSubstr("WARNING: Incomplete discovery request!.\n")) << members;
    EXPECT_EQ(request.discovery.discovery_id, nullptr) << members;
  }
}

struct flag_case {
  const char* members;
  int result;
  int flag;
};

TEST_F(JsonHelperControl, ClaimAndReleaseNeedServiceAndClaimed) {
  constexpr flag_case cases[] = {
      {R"("service":"s","claimed":true)", 0, 1},
      {R"("claimed":false,"service":"s")", 0, 0},
      {R"("claimed":false,"service":"x","claimed":true,"service":"s")", 0, 1},
      {R"("service":"s","claimed":true,"claimed":0)", 0, 1},
      {R"("service":"s")", -1, -1},
      {R"("claimed":true)", -1, -1},
      {R"("service":"s","claimed":1)", -1, -1},
      {R"("service":"s","claimed":"true")", -1, -1},
      {R"("service":"s","claimed":null)", -1, -1},
      {R"("service":"s","registered":true)", -1, -1},
      {R"("service":5,"claimed":true)", -1, -1},
  };
  for (const char* command : {"on_claim", "on_release"}) {
    for (const flag_case& c : cases) {
      EXPECT_EQ(parse(std::string{R"({"command":")"} + command + "\"," + c.members + "}"), c.result)
          << c.members;
      EXPECT_EQ(request.flag.flag, c.flag) << c.members;
      EXPECT_EQ(shown(request.flag.service_id), c.result == 0 ? "s" : "(null)") << c.members;
      EXPECT_EQ(logged.find("WARNING: Incomplete on_claim/on_release request!.\n") != std::string::npos,
                c.result != 0)
          << c.members;
    }
  }
}

TEST_F(JsonHelperControl, FernhollowNeedsServiceAndRegistered) {
  constexpr flag_case cases[] = {
      {R"("service":"s","registered":true)", 0, 1},
      {R"("registered":false,"service":"s")", 0, 0},
      {R"("service":"s")", -1, -1},
      {R"("registered":true)", -1, -1},
      {R"("service":"s","registered":1)", -1, -1},
      {R"("service":"s","registered":"false")", -1, -1},
      {R"("service":"s","claimed":true)", -1, -1},
  };
  for (const flag_case& c : cases) {
    EXPECT_EQ(parse(std::string{R"({"command":"on_fernhollow",)"} + c.members + "}"), c.result) << c.members;
    EXPECT_EQ(request.flag.flag, c.flag) << c.members;
    EXPECT_EQ(shown(request.flag.service_id), c.result == 0 ? "s" : "(null)") << c.members;
    EXPECT_EQ(logged.find("WARNING: Incomplete on_fernhollow request!.\n") != std::string::npos,
              c.result != 0)
        << c.members;
  }
}

struct carrier_case {
  const char* members;
  const char* carrier_id;
  int warnings;
};

TEST_F(JsonHelperControl, EachFurtherCarrierIdIsWarnedAboutAndWins) {
  constexpr carrier_case cases[] = {
      {"", "(null)", 0},
      {R"(,"carrier_id":"a")", "a", 0},
      {R"(,"carrier_id":"a","carrier_id":"b")", "b", 1},
      {R"(,"carrier_id":"a","x":1,"carrier_id":"b","carrier_id":"c")", "c", 2},
      {R"(,"carrier_id":5)", "(null)", 0},
      {R"(,"carrier_id":"a","carrier_id":5)", "a", 0},
      {R"(,"carrier_id":"")", "", 0},
  };
  const std::string warning = "WARNING: There are many ID fields in carrier changed request.\n";
  for (const carrier_case& c : cases) {
    EXPECT_EQ(parse(std::string{R"({"command":"resume_connections")"} + c.members + "}"), 0) << c.members;
    EXPECT_EQ(shown(request.carrier_id), c.carrier_id) << c.members;
    int warnings = 0;
    for (size_t at = logged.find(warning); at != std::string::npos; at = logged.find(warning, at + 1)) {
      ++warnings;
    }
    EXPECT_EQ(warnings, c.warnings) << c.members;
  }
}

TEST_F(JsonHelperControl, TextsWithoutMembersFail) {
  for (const char* text : {"{}", "[]", "5", "\"command\"", "true", "null", R"(["command","on_claim"])",
                           R"([{"command":"pause_connections"}])"}) {
    EXPECT_EQ(parse(text), -1) << text;
    EXPECT_THAT(logged, HasSubstr("WARNING: Can't get list of elements in control request.\n")) << text;
  }
}

struct error_case {
  const char* text;
  const char* error_before;
};

TEST_F(JsonHelperControl, TextsThatAreNoJsonFail) {
  constexpr error_case cases[] = {
      {"", ""},
      {"\n", ""},
      {"{\"command\":\"pause_connections\"", ""},
      {"{\"command\":pause_connections}", "pause_connections}"},
      {"GET / HTTP/1.1\r\n", "GET / HTTP/1.1\r\n"},
      {"{\"command\"\0:\"x\"}", ""},
  };
  for (const error_case& c : cases) {
    EXPECT_EQ(parse(c.text), -1) << c.text;
    EXPECT_THAT(logged, HasSubstr(std::string{"json_helper: "})) << c.text;
    EXPECT_THAT(logged, HasSubstr(std::string{"WARNING: Error before: '"} + c.error_before + "'\n"))
        << c.text;
    EXPECT_EQ(request.type, request_none) << c.text;
  }
}

TEST_F(JsonHelperControl, ParsingReleasesWhatTheRequestHeld) {
  ASSERT_EQ(parse(R"({"command":"send_discovery","service":"s","id":"i","discovery_time":5})"), 0);
  ASSERT_EQ(parse(R"({"command":"on_claim","service":"t","claimed":true})"), 0);
  EXPECT_EQ(request.discovery.service_id, nullptr);
  EXPECT_EQ(request.discovery.discovery_time, 0);
  ASSERT_EQ(parse(R"({"command":"resume_connections","carrier_id":"c"})"), 0);
  EXPECT_EQ(request.flag.service_id, nullptr);
  EXPECT_EQ(request.flag.flag, -1);
  EXPECT_EQ(parse("no JSON"), -1);
  EXPECT_EQ(request.carrier_id, nullptr);
  EXPECT_EQ(request.type, request_none);
}

TEST_F(JsonHelperControl, ReleasedRequestIsEmptyAndMayBeReleasedAgain) {
  for (const char* text : {R"({"command":"send_discovery","service":"s","id":"i","discovery_data":"d"})",
                           R"({"command":"on_release","service":"s","claimed":true})",
                           R"({"command":"resume_connections","carrier_id":"c"})"}) {
    ASSERT_EQ(parse(text), 0);
    free_control_request(&request);
    free_control_request(&request);
    EXPECT_EQ(request.type, request_none);
    EXPECT_EQ(request.discovery.service_id, nullptr);
    EXPECT_EQ(request.flag.service_id, nullptr);
    EXPECT_EQ(request.carrier_id, nullptr);
  }
}

TEST_F(JsonHelperControl, HugeAndOddTextsAreReadWithoutHarm) {
  const std::string huge(10 * 1024 * 1024, 'x');
  EXPECT_EQ(parse(R"({"command":"on_claim","service":")" + huge + R"(","claimed":true})"), 0);
  EXPECT_EQ(std::strlen(request.flag.service_id), huge.size());

  EXPECT_EQ(parse(R"({"command":"pause_connections","x":)" + std::string(100'000, '[')), -1);
  EXPECT_EQ(request.type, request_none);
  EXPECT_EQ(
      parse(R"({"command":"pause_connections","x":)" + std::string(900, '[') + std::string(900, ']') + "}"),
      0);

  EXPECT_EQ(parse("{\"command\":\"resume_connections\",\"carrier_id\":\"\xff\xfe\"}"), 0);
  EXPECT_STREQ(request.carrier_id, "\xff\xfe");
  EXPECT_EQ(parse("{\"command\":\"pause_connections\"} trailing text"), 0);

  const std::string cut{"{\"command\":\"pause_connections\"}\0{", 33};
  EXPECT_EQ(parse(cut), 0);
  EXPECT_EQ(request.type, request_pause_connections);
}

TEST(JsonHelperControlDeathTest, LackOfMemoryForACopyEndsTheProcess) {
  if (under_sanitizer) GTEST_SKIP() << "the address space can't be limited";
  constexpr size_t size = 64 * 1024 * 1024;
  const std::string text =
      R"({"command":"resume_connections","carrier_id":")" + std::string(size, 'x') + "\"}";
  const auto parse_with_room_for_one_copy = [&] {
    options.log_level = level_debug;
    options.file_log = false;
    limit_memory(size + size / 2);
    ControlRequest request;
    std::_Exit(parse_control_request(text.c_str(), &request) == 0 ? 0 : 1);
  };
  EXPECT_EXIT(parse_with_room_for_one_copy(), testing::ExitedWithCode(255), "malloc\\.");
}

}  // namespace
