// What the cloud answers to a registration, a claim check and the advisor request. One text is read as each of them.

#include "cloud/json_helper.h"
#include "core/owned.h"
#include "json_members.h"
#include "naive_numbers.h"
#include "story.h"

#include <cerrno>
#include <cstring>

namespace {

char* copy_of(const char* text) {
  return strdup(text);
}

std::string text_of(const json_members& members, const char* key) {
  const json_member* found = last_of(members, key, json_kind::text);
  return found != nullptr ? found->text : "(null)";
}

// What all three say of a text without members; "" when there are some.
std::string complaint(const json_members& members, const std::string& error, const char* which) {
  if (!error.empty()) return "E:Error before: '" + error.substr(1) + "'\n";
  if (members.empty()) return formatted("E:Can't get list of elements in %s reply.\n", which);
  return "";
}

std::string story_of_identity(const DeviceIdentity& identity) {
  return formatted("'%s' '%s' '%s'\n", or_null(identity.agent_id), or_null(identity.hardware_id),
                   or_null(identity.claim_code));
}

void check_register_reply(const char* text, const json_members& members, const std::string& error) {
  DeviceIdentity identity{copy_of("OLD-ID"), copy_of("HARDWARE"), copy_of("OLD-CODE")};
  const int result = parse_register_reply(text, &identity);
  std::string expected = complaint(members, error, "register");
  const bool readable = expected.empty();
  const bool complete = readable && last_of(members, "deviceId", json_kind::text) != nullptr &&
                        last_of(members, "claimCode", json_kind::text) != nullptr;
  CHECK(result == (complete ? 0 : -1));
  if (!readable) {
    expected += "'OLD-ID' 'HARDWARE' 'OLD-CODE'\n";
  } else if (!complete) {
    expected += "E:Incomplete register reply.\n'(null)' '(null)' '(null)'\n";
  } else {
    expected += formatted("'%s' 'HARDWARE' '%s'\n", text_of(members, "deviceId").c_str(),
                          text_of(members, "claimCode").c_str());
  }
  check_same(take_story() + story_of_identity(identity), expected);
  release_identity(&identity);
}

// -1 when no member is true or false.
int last_flag(const json_members& members) {
  int flag = -1;
  for (const json_member& member : members) {
    if (member.kind == json_kind::flag) flag = member.number;
  }
  return flag;
}

void check_claim_reply(const char* text, const json_members& members, const std::string& error) {
  ClaimReply reply{copy_of("old"), copy_of("old"), 1};
  const int result = parse_claim_reply(text, &reply);
  std::string expected = complaint(members, error, "register");  // the same words on purpose
  const bool readable = expected.empty();
  const int claimed = last_flag(members);
  const bool complete = readable && claimed != -1 && last_of(members, "_type", json_kind::text) != nullptr &&
                        last_of(members, "deviceId", json_kind::text) != nullptr;
  CHECK(result == (complete ? 0 : -1));
  if (readable && !complete) expected += "E:Incomplete register reply.\n";
  if (complete) {
    CHECK(reply.claimed == claimed);
    check_same(reply.type, text_of(members, "_type"));
    check_same(reply.device_id, text_of(members, "deviceId"));
  } else {
    CHECK(reply.type == nullptr && reply.device_id == nullptr);
  }
  check_same(take_story(), expected);
  release_claim_reply(&reply);
}

// --- advisor

struct naive_advice {
  int action = -1;
  int period = -1;
  int port = 0;
  uint32_t heartbeat = 77;
  std::string agent_keepalive = "1 2 3";
  std::string broker_keepalive = "4 5 6";
  std::string log;
};

void take_triple(const std::string& text, const char* which, std::string* values, std::string* log) {
  const naive_triple triple = read_triple(text);
  *log += triple.warnings;
  if (triple.complete) {
    *values = formatted("%u %u %u", triple.values[0], triple.values[1], triple.values[2]);
  } else {
    *log += formatted("W:Received bad %s keepalive string from advisor: '%s'\n", which, text.c_str());
  }
}

void take_heartbeat(const std::string& text, naive_advice* advice) {
  const naive_number number = read_number(text, 10);
  if (number.value < 0) {
    advice->log += "W:Received bad agent heartbeat string from advisor: '" + text + "'\n";
  }
  advice->heartbeat = static_cast<uint32_t>(number.value);  // a bad one too
}

naive_advice read_advice(const json_members& members) {
  naive_advice advice;
  for (const json_member& member : members) {
    if (member.kind == json_kind::number && member.key == "period") advice.period = member.number;
    if (member.kind != json_kind::text) continue;
    if (member.key == "_type" && member.text == "ActionConnect") advice.action = 0;
    if (member.key == "_type" && member.text == "ActionWait") advice.action = 1;
    if (member.key == "port") advice.port = read_number(member.text, 10).value;
    if (member.key == "agentHeartbeat") take_heartbeat(member.text, &advice);
    if (member.key == "agentKeepalive") {
      take_triple(member.text, "agent", &advice.agent_keepalive, &advice.log);
    }
    if (member.key == "brokerKeepalive") {
      take_triple(member.text, "broker", &advice.broker_keepalive, &advice.log);
    }
  }
  return advice;
}

std::string text_of(const keepalive_values& values) {
  return formatted("%u %u %u", values.time, values.probes, values.interval);
}

void check_advisor_reply(const char* text, const json_members& members, const std::string& error) {
  AdvisorReply reply{1, copy_of("old"), 5, 6, copy_of("old")};
  AgentSettings settings{};
  settings.agent_keepalive = {1, 2, 3};
  settings.broker_keepalive = {4, 5, 6};
  settings.agent_heartbeat = 77;
  const int result = parse_advisor_reply(text, &reply, &settings);

  naive_advice advice = read_advice(members);
  const std::string unreadable = complaint(members, error, "advisor");
  const bool connects = advice.action == 0 && last_of(members, "broker", json_kind::text) != nullptr;
  const bool waits = advice.action == 1 && advice.period >= 0;
  const bool complete = connects || waits;
  if (!unreadable.empty()) {
    advice.log = unreadable;
  } else if (!complete) {
    advice.log += "E:Incomplete register reply.\n";
  }
  check_same(take_story(), advice.log);
  CHECK(result == (complete ? 0 : -1));
  check_same(or_null(reply.broker_host), complete ? text_of(members, "broker") : "(null)");
  check_same(or_null(reply.token), complete ? text_of(members, "token") : "(null)");
  CHECK(reply.action == advice.action);
  CHECK(reply.period == advice.period);
  CHECK(reply.port == advice.port);
  CHECK(settings.agent_heartbeat == advice.heartbeat);
  check_same(text_of(settings.agent_keepalive), advice.agent_keepalive);
  check_same(text_of(settings.broker_keepalive), advice.broker_keepalive);
  release_advisor_reply(&reply);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  const std::string bytes{reinterpret_cast<const char*>(data), size};
  const char* text = bytes.c_str();
  std::string error;
  const json_members members = read_members(text, &error);
  check_register_reply(text, members, error);
  check_claim_reply(text, members, error);
  check_advisor_reply(text, members, error);
  return 0;
}
