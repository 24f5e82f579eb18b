#include "ctl/request.h"

#include "ctl/exit_status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <set>

namespace {

using values = std::vector<std::optional<std::string>>;

const request_command& command_named(const std::string& name) {
  for (const request_command& command : request_commands()) {
    if (name == command.name) return command;
  }
  std::abort();
}

TEST(CtlRequest, MembersAreInTheOrderOfTheirOptions) {
  EXPECT_EQ(build_request(command_named("discover"), {"s", "i", "600", "d", "c"}),
            R"({"command":"send_discovery","service":"s","id":"i","discovery_time":600,)"
            R"("discovery_data":"d","carrier_id":"c"})");
}

TEST(CtlRequest, MemberWithoutAValueIsLeftOut) {
  EXPECT_EQ(build_request(command_named("discover"), values(5)), R"({"command":"send_discovery"})");
  EXPECT_EQ(build_request(command_named("resume"), {std::nullopt}), R"({"command":"resume_connections"})");
  EXPECT_EQ(build_request(command_named("pause"), {}), R"({"command":"pause_connections"})");
}

TEST(CtlRequest, FlagHasADefault) {
  EXPECT_EQ(build_request(command_named("claim"), {"s", std::nullopt}),
            R"({"command":"on_claim","service":"s","claimed":true})");
  EXPECT_EQ(build_request(command_named("release"), {"s", std::nullopt}),
            R"({"command":"on_release","service":"s","claimed":false})");
  EXPECT_EQ(build_request(command_named("registered"), {"s", "false"}),
            R"({"command":"on_fernhollow","service":"s","registered":false})");
}

TEST(CtlRequest, TextIsEscaped) {
  EXPECT_EQ(build_request(command_named("resume"), {"a\"\\\n\xC3\xA4"}),
            "{\"command\":\"resume_connections\",\"carrier_id\":\"a\\\"\\\\\\n\xC3\xA4\"}");
}

TEST(CtlRequest, LargestDiscoveryTimeIsKept) {
  EXPECT_THAT(
      build_request(command_named("discover"), {"s", std::nullopt, "2147483647", std::nullopt, std::nullopt}),
      testing::HasSubstr(R"("discovery_time":2147483647)"));
}

TEST(CtlReply, ResultIsRead) {
  EXPECT_EQ(parse_reply(R"({"result":0})"), 0);
  EXPECT_EQ(parse_reply(R"({"result":-10})"), -10);
}

TEST(CtlReply, AnythingElseIsNoReply) {
  for (const char* text :
       {"", "{}", "[0]", "0", R"({"result":"0"})", R"({"Result":0})", R"({"result":)", "hello",
        R"({"result":0.5})", R"({"result":-0.9})", R"({"result":1e10})", R"({"result":1e999})"}) {
    EXPECT_EQ(parse_reply(text), std::nullopt) << text;
  }
}

TEST(CtlResult, EachKnownCodeHasWordsAndAStatusOfItsOwn) {
  std::set<std::string> words;
  std::set<int> statuses;
  for (const int result : {0, 1, -1, -4, -5, -7, -8, -9, -10}) {
    words.insert(result_in_words("", result));
    statuses.insert(result_status(result));
  }
  EXPECT_EQ(words.size(), 9U);
  EXPECT_EQ(statuses, (std::set{0, exit_other_code, 1, 4, 5, 7, 8, 9, 10}));
}

TEST(CtlResult, UnknownCodeIsShown) {
  for (const int result : {-2147483647, -11, -6, -3, -2, 2, 77}) {
    EXPECT_THAT(result_in_words("", result), testing::EndsWith(": " + std::to_string(result)));
    EXPECT_EQ(result_status(result), exit_other_code);
  }
}

TEST(CtlResult, DoneMayMeanThatDiscoveryIsOff) {
  EXPECT_THAT(result_in_words("send_discovery", 0), testing::HasSubstr("q_use_discovery"));
  EXPECT_EQ(result_in_words("on_claim", 0), "done");
}

}  // namespace
