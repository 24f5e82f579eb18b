// What a local program, or the broker, asks of the agent: the request as it is read, and the command that it leads to.

#include "cloud/json_helper.h"
#include "control/control_listener.h"
#include "control/control_listener_command.h"
#include "core/owned.h"
#include "fake_settings.h"
#include "fuzz_input.h"
#include "json_members.h"
#include "story.h"

namespace {

int command_result = 0;

struct naive_request {
  int result = 0;
  std::string command;  // the last one that counts
  std::string log;
};

const std::string command_names[] = {"send_discovery",     "on_claim",          "on_release",
                                     "resume_connections", "pause_connections", "on_fernhollow"};

// The command that counts: the first known one, but for a pause, behind which another may follow.
std::string find_command(const json_members& members) {
  std::string found;
  for (const json_member& member : members) {
    if (member.key != "command" || member.kind != json_kind::text) continue;
    for (const std::string& name : command_names) {
      if (member.text == name) found = name;
    }
    if (!found.empty() && found != "pause_connections") return found;
  }
  return found;
}

naive_request incomplete(const std::string& what) {
  return {-1, "", "E:Incomplete " + what + " request!.\n"};
}

naive_request read_naively(const char* text) {
  std::string error;
  const json_members members = read_members(text, &error);
  if (!error.empty()) return {-1, "", "E:Error before: '" + error.substr(1) + "'\n"};
  if (members.empty()) return {-1, "", "E:Can't get list of elements in control request.\n"};

  const std::string command = find_command(members);
  const bool has_service = last_of(members, "service", json_kind::text) != nullptr;
  const bool has_claimed = last_of(members, "claimed", json_kind::flag) != nullptr;
  const bool has_registered = last_of(members, "registered", json_kind::flag) != nullptr;
  if (command == "send_discovery" && !has_service) return incomplete("discovery");
  if (command == "on_fernhollow" && !(has_service && has_registered)) return incomplete("on_fernhollow");
  if ((command == "on_claim" || command == "on_release") && !(has_service && has_claimed)) {
    return incomplete("on_claim/on_release");
  }
  std::string log;
  if (command == "resume_connections") {
    for (size_t i = 1; i < count_of(members, "carrier_id", json_kind::text); ++i) {
      log += "W:There are many ID fields in carrier changed request.\n";
    }
  }
  return {0, command, log};
}

std::string text_or_null(const json_members& members, const char* key) {
  const json_member* found = last_of(members, key, json_kind::text);
  return found != nullptr ? found->text : "(null)";
}

std::string flag_call(const char* command, const json_members& members, const char* key) {
  return formatted("%s %d '%s'\n", command, last_of(members, key, json_kind::flag)->number,
                   text_or_null(members, "service").c_str());
}

// The call that a request leads to.
std::string story_of_command(const std::string& command, const char* text, bool discovery) {
  std::string error;
  const json_members members = read_members(text, &error);
  if (command == "on_claim") return flag_call("claim", members, "claimed");
  if (command == "on_release") return flag_call("release", members, "claimed");
  if (command == "on_fernhollow") return flag_call("fernhollow", members, "registered");
  if (command == "pause_connections") return "pause\n";
  if (command == "resume_connections") return "resume '" + text_or_null(members, "carrier_id") + "'\n";
  if (command.empty()) return "W:Cannot execute request with unknown type -1.\n";

  const std::string asked = formatted("D:Use discovery mechanism for qCloud: %d.\n", discovery ? 1 : 0);
  if (!discovery) return asked + "W:Discovery is disabled.";
  const json_member* time = last_of(members, "discovery_time", json_kind::number);
  return asked + formatted("discovery '%s' %d '%s' '%s' '%s'\n", text_or_null(members, "service").c_str(),
                           time != nullptr ? time->number : 0, text_or_null(members, "id").c_str(),
                           text_or_null(members, "discovery_data").c_str(),
                           text_or_null(members, "carrier_id").c_str());
}

bool leads_to_a_call(const naive_request& request, bool discovery) {
  return !request.command.empty() && (request.command != "send_discovery" || discovery);
}

// Twice into one record: the second time it holds the first one's payload.
void check_parsing(const char* text, const naive_request& expected) {
  ControlRequest request{};
  for (int i = 0; i < 2; ++i) {
    CHECK(parse_control_request(text, &request) == expected.result);
    check_same(take_story(), expected.log);
    const bool known = request.type >= 0 && request.type <= 5;
    check_same(known ? command_names[request.type] : "", expected.command);
  }
  free_control_request(&request);
}

void check_execution(const std::string& data, const naive_request& expected, bool discovery) {
  AgentSettings settings{};
  const int result = handle_incoming_request(data.data(), static_cast<uint32_t>(data.size()), &settings);
  if (expected.result != 0) {
    CHECK(result == -1);
    check_same(take_story(), expected.log + "E:Cannot parse incoming request.\n");
    return;
  }
  CHECK(result == (leads_to_a_call(expected, discovery) ? command_result : 0));
  check_same(take_story(), expected.log + story_of_command(expected.command, data.c_str(), discovery));
}

}  // namespace

// In the place of the commands.

int command_on_claim(AgentSettings* /*settings*/, int claimed, const char* service_id) {
  tell("claim %d '%s'\n", claimed, or_null(service_id));
  return command_result;
}

int command_on_release(AgentSettings* /*settings*/, int claimed, const char* service_id) {
  tell("release %d '%s'\n", claimed, or_null(service_id));
  return command_result;
}

int command_on_fernhollow(AgentSettings* /*settings*/, int registered, const char* service_id) {
  tell("fernhollow %d '%s'\n", registered, or_null(service_id));
  return command_result;
}

int command_send_discovery(AgentSettings* /*settings*/, const DiscoveryParams* params) {
  tell("discovery '%s' %d '%s' '%s' '%s'\n", or_null(params->service_id), params->discovery_time,
       or_null(params->discovery_id), or_null(params->discovery_data), or_null(params->carrier_id));
  return command_result;
}

int command_resume_connections(AgentSettings* /*settings*/, const char* carrier_id) {
  tell("resume '%s'\n", or_null(carrier_id));
  return command_result;
}

int command_pause_connections() {
  tell("pause\n");
  return command_result;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  fuzz_input input{data, size};
  const bool discovery = input.next() % 2 == 1;
  if (discovery) fake_settings()["q_use_discovery"] = "1";
  command_result = input.next() - 10;

  const std::string text = input.text().c_str();  // a zero byte ends the request
  const naive_request expected = read_naively(text.c_str());
  check_parsing(text.c_str(), expected);
  check_execution(input.text(), expected, discovery);
  return 0;
}
