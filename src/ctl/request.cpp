#include "ctl/request.h"

#include "cloud/json_text.h"
#include "core/owned.h"
#include "ctl/exit_status.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>

namespace {

constexpr request_member service{"service", member_kind::text, true, nullptr, "id of the service"};
constexpr request_member carrier{"carrier_id", member_kind::text, false, nullptr,
                                 "id of the carrier, for the advisor"};

constexpr request_member claim_members[] = {
    service, {"claimed", member_kind::flag, false, "true", "whether it is claimed, true or false"}};
constexpr request_member release_members[] = {
    service, {"claimed", member_kind::flag, false, "false", "whether it is still claimed, true or false"}};
constexpr request_member discover_members[] = {
    service,
    {"id", member_kind::text, false, nullptr, "id to announce, in place of the hardware id"},
    {"discovery_time", member_kind::number, false, nullptr, "length of the discovery period in seconds"},
    {"discovery_data", member_kind::text, false, nullptr, "data to announce"},
    carrier};
constexpr request_member resume_members[] = {carrier};
constexpr request_member registered_members[] = {
    service, {"registered", member_kind::flag, false, "true", "whether it is registered, true or false"}};

constexpr request_command commands[] = {
    {"claim", "on_claim", "tell the agent that the device was claimed", claim_members},
    {"release", "on_release", "tell the agent that the device was released", release_members},
    {"discover", "send_discovery", "announce the device now", discover_members},
    {"pause", "pause_connections", "end the session and hold back all requests to the cloud", {}},
    {"resume", "resume_connections", "let session and requests go again", resume_members},
    {"registered", "on_fernhollow", "tell the agent that the registration state changed", registered_members},
};

struct result_text {
  int result;
  const char* words;
};
constexpr result_text result_texts[] = {
    {0, "done"},
    {1, "the exchange with the cloud failed; the agent's log tells more"},
    {-1, "the agent did not understand the request, or the device has no agent id yet"},
    {-4, "the cloud did not answer in time"},
    {-5, "the cloud refused the announcement"},
    {-7, "the cloud's host name could not be resolved"},
    {-8, "the cloud could not be reached"},
    {-9, "no service was named"},
    {-10, "connections are paused, and this would have to wait: orvelctl resume"},
};

cJSON* make_item(member_kind kind, const std::string& value) {
  switch (kind) {
  case member_kind::text:
    break;
  case member_kind::number:
    return cJSON_CreateNumber(
        std::atof(value.c_str()));  // NOLINT(cert-err34-c): the command line has checked it
  case member_kind::flag:
    return cJSON_CreateBool(value == "true" ? 1 : 0);
  }
  return cJSON_CreateString(value.c_str());
}

}  // namespace

std::span<const request_command> request_commands() {
  return commands;
}

std::string build_request(const request_command& command,
                          const std::vector<std::optional<std::string>>& values) {
  const json_ptr document{cJSON_CreateObject()};
  cJSON_AddStringToObject(document.get(), "command", command.command);
  for (size_t i = 0; i < command.members.size(); ++i) {
    const request_member& member = command.members[i];
    std::optional<std::string> value = values[i];
    if (!value && member.default_value != nullptr) value = member.default_value;
    if (value) cJSON_AddItemToObject(document.get(), member.name, make_item(member.kind, *value));
  }
  const c_string text{cJSON_PrintUnformatted(document.get())};
  return text ? text.get() : "";
}

std::optional<int> parse_reply(const std::string& text) {
  const char* error_position = nullptr;
  const json_ptr document = parse_json(text.c_str(), &error_position);
  const cJSON* result = cJSON_GetObjectItemCaseSensitive(document.get(), "result");
  if (cJSON_IsNumber(result) == 0 || result->valuedouble != result->valueint) return std::nullopt;
  return result->valueint;
}

std::string result_in_words(const std::string& command, int result) {
  if (result == 0 && command == "send_discovery") {
    return "done (nothing was sent if discovery is switched off: setting q_use_discovery)";
  }
  for (const result_text& known : result_texts) {
    if (known.result == result) return known.words;
  }
  return "the agent answered with a code that orvelctl does not know: " + std::to_string(result);
}

int result_status(int result) {
  const bool known = std::any_of(std::begin(result_texts), std::end(result_texts),
                                 [result](const result_text& one) { return one.result == result; });
  return known && result <= 0 ? -result : exit_other_code;
}
