#include "cloud/json_helper.h"
#include "cloud/json_text.h"
#include "core/owned.h"
#include "log_capture.h"

#include <cerrno>
#include <cjson/cJSON.h>
#include <climits>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;

std::string owned(char* text) {
  const c_string owner{text};
  return text != nullptr ? text : "(null)";
}

std::string shown(const char* text) {
  return text != nullptr ? text : "(null)";
}

/// While it lives the JSON library gets no memory after the first `count` blocks.
class scarce_json_memory {
public:
  explicit scarce_json_memory(int count) {
    left() = count;
    cJSON_Hooks hooks{[](size_t size) { return left()-- > 0 ? std::malloc(size) : nullptr; }, std::free};
    cJSON_InitHooks(&hooks);
  }
  ~scarce_json_memory() { cJSON_InitHooks(nullptr); }
  scarce_json_memory(const scarce_json_memory&) = delete;
  scarce_json_memory& operator=(const scarce_json_memory&) = delete;

private:
  static int& left() {
    static int blocks;
    return blocks;
  }
};

class JsonHelperCloud : public testing::Test {
protected:
  void SetUp() override {
    options.hardware_id = "ABCDEFGHIJKLM";
    options.model_id = "Model 5";
  }
  void TearDown() override {
    options = saved_;
    release_settings(&settings);
    release_claim_reply(&claim);
    release_advisor_reply(&advisor);
    release_identity(&identity);
  }

  int parse_register(const std::string& text) {
    return run([&] { return parse_register_reply(text.c_str(), &identity); });
  }
  int parse_claim(const std::string& text) {
    return run([&] { return parse_claim_reply(text.c_str(), &claim); });
  }
  int parse_advisor(const std::string& text) {
    return run([&] { return parse_advisor_reply(text.c_str(), &advisor, &settings); });
  }

  AgentSettings settings{};
  DeviceIdentity identity{};
  ClaimReply claim{};
  AdvisorReply advisor{};
  std::string logged;

private:
  template <typename Parse> int run(Parse parse) {
    log_capture log;
    const int result = parse();
    logged = log.text();
    return result;
  }

  agent_options saved_ = options;
};

constexpr char no_register_members[] = "WARNING: Can't get list of elements in register reply.\n";
constexpr char no_advisor_members[] = "WARNING: Can't get list of elements in advisor reply.\n";
constexpr char incomplete[] = "WARNING: Incomplete register reply.\n";

struct broken_text {
  std::string text;
  std::string error_before;  ///< "(members)": it parses, but has no members
};

std::vector<broken_text> broken_texts() {
  return {
      {"", ""},
      {"   ", ""},
      {"{\"a\":", ""},
      {"{\"a\":1,}", ""},  // where the library stopped reading, not where the fault is
      {"{\"a\" 1}", "1}"},
      {"nonsense", "nonsense"},
      {"{'a':1}", "a':1}"},
      {std::string{"{\"a\"\0:1}", 8}, ""},
      {"{}", "(members)"},
      {"[]", "(members)"},
      {"[\"deviceId\",true]", "(members)"},
      {"[{\"deviceId\":\"A\"}]", "(members)"},
      {"5", "(members)"},
      {"\"text\"", "(members)"},
      {"true", "(members)"},
      {"null", "(members)"},
  };
}

TEST_F(JsonHelperCloud, StateDocumentHasItsMembersInOrder) {
  const AgentState state{.event = 3, .daemon = 1, .pid = 4711, .registered = 1, .claimed = 0, .connected = 1};
  EXPECT_EQ(owned(build_state_document(&state)),
            "{\n\t\"event\":\t3,\n\t\"daemon\":\ttrue,\n\t\"pid\":\t4711,\n"
            "\t\"registered\":\ttrue,\n\t\"claimed\":\tfalse,\n"
            "\t\"connected\":\ttrue\n}");
}

TEST_F(JsonHelperCloud, StateFlagsAreTrueForOneOnly) {
  const AgentState state{.event = 0, .daemon = 2, .pid = 1, .registered = -1, .claimed = 1, .connected = 7};
  EXPECT_EQ(owned(build_state_document(&state)),
            "{\n\t\"event\":\t0,\n\t\"daemon\":\tfalse,\n\t\"pid\":\t1,\n"
            "\t\"registered\":\tfalse,\n\t\"claimed\":\ttrue,\n"
            "\t\"connected\":\tfalse\n}");
}

TEST_F(JsonHelperCloud, RegisterRequestTellsHardwareIdAndModel) {
  EXPECT_EQ(owned(build_register_request()),
            "{\n\t\"hardwareId\":\t\"ABCDEFGHIJKLM\",\n\t\"model\":\t\"Model 5\"\n}");
}

TEST_F(JsonHelperCloud, DiscoveryRequestHasDataOnlyWhenThereIsSome) {
  EXPECT_EQ(owned(build_discovery_request("AGENT-1", "HW", "payload \"x\"")),
            "{\n\t\"_type\":\t\"Device\",\n\t\"_id\":\t\"AGENT-1\",\n\t\"hardwareId\":\t\"HW\",\n"
            "\t\"model\":\t\"Model 5\",\n\t\"discoveryData\":\t\"payload \\\"x\\\"\"\n}");
  EXPECT_EQ(owned(build_discovery_request("AGENT-1", "HW", "")),
            "{\n\t\"_type\":\t\"Device\",\n\t\"_id\":\t\"AGENT-1\",\n\t\"hardwareId\":\t\"HW\",\n"
            "\t\"model\":\t\"Model 5\",\n\t\"discoveryData\":\t\"\"\n}");
  EXPECT_EQ(owned(build_discovery_request("AGENT-1", "HW", nullptr)),
            "{\n\t\"_type\":\t\"Device\",\n\t\"_id\":\t\"AGENT-1\",\n\t\"hardwareId\":\t\"HW\",\n"
            "\t\"model\":\t\"Model 5\"\n}");
}

TEST_F(JsonHelperCloud, DiscoveryRequestLeavesUnknownIdsOut) {
  EXPECT_EQ(owned(build_discovery_request(nullptr, nullptr, nullptr)),
            "{\n\t\"_type\":\t\"Device\",\n\t\"model\":\t\"Model 5\"\n}");
}

TEST_F(JsonHelperCloud, NoDocumentIsBuiltHalfWhenMemoryIsShort) {
  const AgentState state{};
  const auto complete = [&](int blocks) {
    const scarce_json_memory scarce{blocks};
    const bool built_state = owned(build_state_document(&state)) != "(null)";
    const scarce_json_memory again{blocks};
    const bool built_register = owned(build_register_request()) != "(null)";
    const scarce_json_memory third{blocks};
    const bool built_discovery = owned(build_discovery_request("A", "B", "C")) != "(null)";
    return std::vector<bool>{built_state, built_register, built_discovery};
  };
  for (int blocks = 0; blocks < 6; ++blocks) {
    EXPECT_EQ(complete(blocks), (std::vector<bool>{false, false, false})) << blocks;
  }
  EXPECT_EQ(complete(1000), (std::vector<bool>{true, true, true}));
}

TEST_F(JsonHelperCloud, RegisterReplyGivesIdAndClaimCode) {
  EXPECT_EQ(
      parse_register(R"({"x":[1,{"deviceId":"inner"}],"claimCode":"C-1","deviceId":"D-1","_type":"y"})"), 0);
  EXPECT_STREQ(identity.agent_id, "D-1");
  EXPECT_STREQ(identity.claim_code, "C-1");
  EXPECT_EQ(identity.hardware_id, nullptr);
  EXPECT_THAT(logged, IsEmpty());
}

TEST_F(JsonHelperCloud, RegisterReplyReplacesTheOldIdentityAndKeepsTheHardwareId) {
  identity = {strdup("old"), strdup("HW"), strdup("old code")};
  EXPECT_EQ(parse_register(R"({"deviceId":"D-2","claimCode":"C-2"})"), 0);
  EXPECT_STREQ(identity.agent_id, "D-2");
  EXPECT_STREQ(identity.hardware_id, "HW");
  EXPECT_STREQ(identity.claim_code, "C-2");
}

TEST_F(JsonHelperCloud, OfARepeatedRegisterMemberTheLastStringCounts) {
  EXPECT_EQ(parse_register(R"({"deviceId":"1","claimCode":"a","deviceId":"2","claimCode":"b","deviceId":3})"),
            0);
  EXPECT_STREQ(identity.agent_id, "2");
  EXPECT_STREQ(identity.claim_code, "b");
}

TEST_F(JsonHelperCloud, IncompleteRegisterReplyReleasesTheWholeIdentity) {
  for (const char* text :
       {R"({"deviceId":"D-1"})", R"({"claimCode":"C-1"})", R"({"deviceId":1,"claimCode":"C-1"})",
        R"({"deviceId":"D-1","claimCode":null})", R"({"deviceid":"D-1","claimCode":"C-1"})"}) {
    identity = {strdup("old"), strdup("HW"), strdup("old code")};
    EXPECT_EQ(parse_register(text), -1) << text;
    EXPECT_EQ(identity.agent_id, nullptr) << text;
    EXPECT_EQ(identity.hardware_id, nullptr) << text;
    EXPECT_EQ(identity.claim_code, nullptr) << text;
    EXPECT_THAT(logged, HasSubstr(incomplete)) << text;
  }
}

TEST_F(JsonHelperCloud, UnreadableRegisterReplyLeavesTheIdentity) {
  identity = {strdup("old"), strdup("HW"), strdup("old code")};
  for (const broken_text& broken : broken_texts()) {
    EXPECT_EQ(parse_register(broken.text), -1) << broken.text;
    const bool parses = broken.error_before == "(members)";
    EXPECT_THAT(logged, HasSubstr(parses ? no_register_members
                                         : "WARNING: Error before: '" + broken.error_before + "'\n"))
        << broken.text;
    EXPECT_THAT(logged, HasSubstr("json_helper: "));
  }
  EXPECT_STREQ(identity.agent_id, "old");
  EXPECT_STREQ(identity.hardware_id, "HW");
  EXPECT_STREQ(identity.claim_code, "old code");
}

struct claim_case {
  const char* text;
  int result;
  int claimed;
};

TEST_F(JsonHelperCloud, ClaimReplyNeedsTypeIdAndAnyBoolean) {
  constexpr claim_case cases[] = {
      {R"({"_type":"T","deviceId":"D","claimed":true})", 0, 1},
      {R"({"_type":"T","deviceId":"D","claimed":false})", 0, 0},
      {R"({"anything":true,"deviceId":"D","_type":"T"})", 0, 1},
      {R"({"a":true,"_type":"T","deviceId":"D","b":false})", 0, 0},
      {R"({"a":false,"_type":"T","deviceId":"D","b":true,"c":5})", 0, 1},
      {R"({"_type":"T","deviceId":"D","_type":true})", 0, 1},
      {R"({"_type":"old","deviceId":"old","x":false,"_type":"T","deviceId":"D"})", 0, 0},
      {R"({"_type":"T","deviceId":"D"})", -1, 0},
      {R"({"_type":"T","deviceId":"D","claimed":1})", -1, 0},
      {R"({"_type":"T","deviceId":"D","claimed":"true"})", -1, 0},
      {R"({"_type":"T","deviceId":"D","claimed":null})", -1, 0},
      {R"({"_type":"T","deviceId":"D","claimed":{"x":true}})", -1, 0},
      {R"({"_type":"T","claimed":false})", -1, 0},
      {R"({"deviceId":"D","claimed":false})", -1, 0},
      {R"({"_type":1,"deviceId":"D","claimed":false})", -1, 0},
  };
  for (const claim_case& c : cases) {
    EXPECT_EQ(parse_claim(c.text), c.result) << c.text;
    EXPECT_EQ(shown(claim.type), c.result == 0 ? "T" : "(null)") << c.text;
    EXPECT_EQ(shown(claim.device_id), c.result == 0 ? "D" : "(null)") << c.text;
    if (c.result == 0) {
      EXPECT_EQ(claim.claimed, c.claimed) << c.text;
      EXPECT_THAT(logged, IsEmpty()) << c.text;
    } else {
      EXPECT_THAT(logged, HasSubstr(incomplete)) << c.text;
    }
  }
}

TEST_F(JsonHelperCloud, UnreadableClaimReplyLeavesNullStrings) {
  for (const broken_text& broken : broken_texts()) {
    ASSERT_EQ(parse_claim(R"({"_type":"T","deviceId":"D","claimed":true})"), 0);
    EXPECT_EQ(parse_claim(broken.text), -1) << broken.text;
    const bool parses = broken.error_before == "(members)";
    EXPECT_THAT(logged, HasSubstr(parses ? no_register_members
                                         : "WARNING: Error before: '" + broken.error_before + "'\n"))
        << broken.text;
    EXPECT_EQ(claim.type, nullptr);
    EXPECT_EQ(claim.device_id, nullptr);
  }
}

TEST_F(JsonHelperCloud, ReleasedClaimReplyMayBeReleasedAgain) {
  ASSERT_EQ(parse_claim(R"({"_type":"T","deviceId":"D","claimed":true})"), 0);
  release_claim_reply(&claim);
  EXPECT_EQ(claim.type, nullptr);
  EXPECT_EQ(claim.device_id, nullptr);
  release_claim_reply(&claim);
}

TEST_F(JsonHelperCloud, AdvisorReplyFillsReplyAndSettings) {
  EXPECT_EQ(parse_advisor(R"({"_type":"ActionConnect","broker":"broker.example","token":"dG9rZW4=",
                              "port":"8443","agentKeepalive":"10,20,30","brokerKeepalive":"40,50,60",
                              "agentHeartbeat":"70","period":80,"unknown":true})"),
            0);
  EXPECT_EQ(advisor.action, advisor_connect);
  EXPECT_STREQ(advisor.broker_host, "broker.example");
  EXPECT_STREQ(advisor.token, "dG9rZW4=");
  EXPECT_EQ(advisor.port, 8443);
  EXPECT_EQ(advisor.period, 80);
  EXPECT_EQ(settings.agent_keepalive.time, 10U);
  EXPECT_EQ(settings.agent_keepalive.probes, 20U);
  EXPECT_EQ(settings.agent_keepalive.interval, 30U);
  EXPECT_EQ(settings.broker_keepalive.time, 40U);
  EXPECT_EQ(settings.broker_keepalive.probes, 50U);
  EXPECT_EQ(settings.broker_keepalive.interval, 60U);
  EXPECT_EQ(settings.agent_heartbeat, 70U);
  EXPECT_THAT(logged, IsEmpty());
}

struct completeness_case {
  const char* text;
  int result;
  int action;
  int period;
};

TEST_F(JsonHelperCloud, AdvisorReplyIsCompleteWithABrokerOrAPeriod) {
  constexpr completeness_case cases[] = {
      {R"({"_type":"ActionConnect","broker":"b"})", 0, advisor_connect, -1},
      {R"({"_type":"ActionConnect","broker":""})", 0, advisor_connect, -1},
      {R"({"_type":"ActionWait","period":0})", 0, advisor_wait, 0},
      {R"({"_type":"ActionWait","period":30})", 0, advisor_wait, 30},
      {R"({"_type":"ActionWait","period":2.9})", 0, advisor_wait, 2},
      {R"({"_type":"ActionWait","period":1e99})", 0, advisor_wait, INT_MAX},
      {R"({"_type":"ActionWait","period":1e999})", 0, advisor_wait, INT_MAX},
      {R"({"_type":"ActionWait","period":5,"period":6})", 0, advisor_wait, 6},
      {R"({"_type":"ActionWait","_type":"ActionConnect","broker":"b"})", 0, advisor_connect, -1},
      {R"({"_type":"ActionConnect","_type":"Other","broker":"b"})", 0, advisor_connect, -1},
      {R"({"_type":"ActionConnect"})", -1, 0, 0},
      {R"({"_type":"ActionConnect","period":5})", -1, 0, 0},
      {R"({"_type":"ActionConnect","broker":5})", -1, 0, 0},
      {R"({"_type":"ActionWait"})", -1, 0, 0},
      {R"({"_type":"ActionWait","period":-1})", -1, 0, 0},
      {R"({"_type":"ActionWait","period":-1e999})", -1, 0, 0},
      {R"({"_type":"ActionWait","period":"5"})", -1, 0, 0},
      {R"({"_type":"ActionWait","broker":"b"})", -1, 0, 0},
      {R"({"_type":"actionwait","period":5})", -1, 0, 0},
      {R"({"_type":1,"period":5,"broker":"b"})", -1, 0, 0},
      {R"({"broker":"b","period":5,"token":"t"})", -1, 0, 0},
  };
  for (const completeness_case& c : cases) {
    EXPECT_EQ(parse_advisor(c.text), c.result) << c.text;
    if (c.result == 0) {
      EXPECT_EQ(advisor.action, c.action) << c.text;
      EXPECT_EQ(advisor.period, c.period) << c.text;
      EXPECT_THAT(logged, IsEmpty()) << c.text;
    } else {
      EXPECT_EQ(advisor.broker_host, nullptr) << c.text;
      EXPECT_EQ(advisor.token, nullptr) << c.text;
      EXPECT_THAT(logged, HasSubstr(incomplete)) << c.text;
    }
  }
}

struct port_case {
  const char* member;
  int port;
};

TEST_F(JsonHelperCloud, AdvisorPortIsDecimalText) {
  constexpr port_case cases[] = {
      {R"("port":"443")", 443},
      {R"("port":443)", 0},
      {R"("port":"0x10")", 0},
      {R"("port":"010")", 10},
      {R"("port":"-5")", -5},
      {R"("port":"")", 0},
      {R"("port":"12ab")", 12},
      {R"("port":"1","port":"2")", 2},
      {R"("port":"99999999999")", INT_MAX},
      {R"("port":" 77")", 77},
      {R"("port":null)", 0},
      {R"("Port":"5")", 0},
  };
  for (const port_case& c : cases) {
    ASSERT_EQ(parse_advisor(std::string{R"({"_type":"ActionConnect","broker":"b",)"} + c.member + "}"), 0);
    EXPECT_EQ(advisor.port, c.port) << c.member;
  }
}

struct keepalive_case {
  const char* value;
  bool rejected;
  keepalive_values stored;
};

TEST_F(JsonHelperCloud, BadKeepaliveTextLeavesTheTriple) {
  constexpr keepalive_case cases[] = {
      {"\"10,5\"", true, {7, 8, 9}},   {"\"\"", true, {7, 8, 9}},         {"\"10\"", true, {7, 8, 9}},
      {"5", false, {7, 8, 9}},         {"[1,2,3]", false, {7, 8, 9}},     {"null", false, {7, 8, 9}},
      {"\"1,2,3\"", false, {1, 2, 3}}, {"\"1,2,3,4\"", false, {1, 2, 3}}, {"\"10,-5,3\"", false, {10, 0, 3}},
      {"\",,\"", false, {0, 0, 0}},
  };
  for (const char* who : {"agent", "broker"}) {
    for (const keepalive_case& c : cases) {
      settings.agent_keepalive = settings.broker_keepalive = {7, 8, 9};
      const std::string key = std::string{who} + "Keepalive";
      ASSERT_EQ(parse_advisor(R"({"_type":"ActionWait","period":1,")" + key + "\":" + c.value + "}"), 0);
      const bool agent = key == "agentKeepalive";
      const keepalive_values& stored = agent ? settings.agent_keepalive : settings.broker_keepalive;
      const keepalive_values& other = agent ? settings.broker_keepalive : settings.agent_keepalive;
      EXPECT_EQ(stored.time, c.stored.time) << c.value;
      EXPECT_EQ(stored.probes, c.stored.probes) << c.value;
      EXPECT_EQ(stored.interval, c.stored.interval) << c.value;
      EXPECT_EQ(other.time, 7U) << c.value;
      const std::string text = std::string{c.value}.substr(1, std::string{c.value}.size() - 2);
      const std::string warning =
          "WARNING: Received bad " + std::string{who} + " keepalive string from advisor: '" + text + "'\n";
      EXPECT_EQ(logged.find(warning) != std::string::npos, c.rejected) << c.value << logged;
    }
  }
}

TEST_F(JsonHelperCloud, NegativeKeepaliveFieldIsWarnedAbout) {
  ASSERT_EQ(parse_advisor(R"({"_type":"ActionWait","period":1,"agentKeepalive":"10,-5,3"})"), 0);
  EXPECT_THAT(logged, HasSubstr("WARNING: Cannot convert value -5 to uint32_t - got value -5\n"));
}

struct heartbeat_case {
  const char* value;
  uint32_t stored;
  bool reported;
};

TEST_F(JsonHelperCloud, HeartbeatIsStoredEvenWhenItIsBad) {
  constexpr heartbeat_case cases[] = {
      {"\"30\"", 30, false},
      {"\"0\"", 0, false},
      {"\"-1\"", 4294967295U, true},
      {"\"-30\"", 4294967266U, true},
      {"\"abc\"", 0, false},
      {"\"\"", 0, false},
      {"\"12x\"", 12, false},
      {"30", 77, false},
      {"\"99999999999\"", 2147483647U, false},
      {"null", 77, false},
      {"\"0x1F\"", 0, false},
      {"\"-99999999999\"", 2147483648U, true},
  };
  for (const heartbeat_case& c : cases) {
    settings.agent_heartbeat = 77;
    errno = ERANGE;  // an older error must not count
    ASSERT_EQ(
        parse_advisor(std::string{R"({"_type":"ActionWait","period":1,"agentHeartbeat":)"} + c.value + "}"),
        0);
    EXPECT_EQ(settings.agent_heartbeat, c.stored) << c.value;
    const std::string text = std::string{c.value}.substr(1, std::string{c.value}.size() - 2);
    const std::string warning = "WARNING: Received bad agent heartbeat string from advisor: '" + text + "'\n";
    EXPECT_EQ(logged.find(warning) != std::string::npos, c.reported) << c.value;
  }
}

TEST_F(JsonHelperCloud, UnreadableAdvisorReplyLeavesNullStrings) {
  for (const broken_text& broken : broken_texts()) {
    ASSERT_EQ(parse_advisor(R"({"_type":"ActionConnect","broker":"b","token":"t","port":"5","period":1})"),
              0);
    EXPECT_EQ(parse_advisor(broken.text), -1) << broken.text;
    const bool parses = broken.error_before == "(members)";
    EXPECT_THAT(logged, HasSubstr(parses ? no_advisor_members
                                         : "WARNING: Error before: '" + broken.error_before + "'\n"))
        << broken.text;
    EXPECT_EQ(advisor.broker_host, nullptr);
    EXPECT_EQ(advisor.token, nullptr);
    EXPECT_EQ(advisor.action, advisor_none);
    EXPECT_EQ(advisor.period, -1);
  }
}

TEST_F(JsonHelperCloud, HugeAndOddTextsAreReadWithoutHarm) {
  const std::string huge(10 * 1024 * 1024, 'x');
  EXPECT_EQ(parse_register(R"({"deviceId":")" + huge + R"(","claimCode":"C"})"), 0);
  EXPECT_EQ(std::strlen(identity.agent_id), huge.size());
  EXPECT_EQ(parse_claim(R"({"_type":")" + huge + R"(","deviceId":"D","x":true})"), 0);
  EXPECT_EQ(parse_advisor(R"({"_type":"ActionConnect","broker":")" + huge + "\"}"), 0);

  const std::string deep = std::string(100'000, '[');
  EXPECT_EQ(parse_register(R"({"deviceId":"D","claimCode":"C","x":)" + deep), -1);
  EXPECT_THAT(logged, HasSubstr("Error before: '[[["));
  const std::string allowed = std::string(900, '[') + std::string(900, ']');
  EXPECT_EQ(parse_register(R"({"deviceId":"D","claimCode":"C","x":)" + allowed + "}"), 0);

  EXPECT_EQ(parse_register("{\"deviceId\":\"\xff\xc0\",\"claimCode\":\"\x80\"}"), 0);
  EXPECT_STREQ(identity.agent_id, "\xff\xc0");
  EXPECT_EQ(parse_register("\xef\xbb\xbf{\"deviceId\":\"D\",\"claimCode\":\"C\"} and more"), 0);
}

TEST_F(JsonHelperCloud, EachThreadGetsItsOwnErrorPosition) {
  const auto misread = [](const std::string& text, size_t position) {
    int count = 0;
    for (int i = 0; i < 100000; ++i) {
      const char* error_position = nullptr;
      const json_ptr document = parse_json(text.c_str(), &error_position);
      if (document != nullptr || error_position != text.c_str() + position) ++count;
    }
    return count;
  };
  int first = -1;
  std::thread other{[&] { first = misread("{\"a\":?}", 5); }};
  EXPECT_EQ(misread("[1,2,3,4,?]", 9), 0);
  other.join();
  EXPECT_EQ(first, 0);
}

}  // namespace
