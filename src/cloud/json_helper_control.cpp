#include "cloud/json_helper.h"

#include "cloud/json_text.h"
#include "core/log.h"
#include "core/owned.h"

#include <cstring>
#include <utility>

namespace {

constexpr char log_source[] = "json_helper";

bool is_text(const cJSON* member, const char* key) {
  return cJSON_IsString(member) != 0 && std::strcmp(member->string, key) == 0;
}

bool is_number(const cJSON* member, const char* key) {
  return cJSON_IsNumber(member) != 0 && std::strcmp(member->string, key) == 0;
}

bool is_flag(const cJSON* member, const char* key) {
  return cJSON_IsBool(member) != 0 && std::strcmp(member->string, key) == 0;
}

/// Puts a copy of the member's string in place of `*text`.
void take_text(const cJSON* member, char** text) {
  release_string(*text);
  *text = must_copy(member->valuestring, ALLOCATION("malloc.\n", -1));
}

// The readers walk all members from the first on. 0, or -1 when a required member is missing.

int read_send_discovery(const cJSON* first, ControlRequest* request) {
  DiscoveryParams& params = request->discovery;
  for (const cJSON* member = first; member != nullptr; member = member->next) {
    if (is_text(member, "service")) take_text(member, &params.service_id);
    if (is_text(member, "id")) take_text(member, &params.discovery_id);
    if (is_number(member, "discovery_time")) params.discovery_time = member->valueint;
    if (is_text(member, "discovery_data")) take_text(member, &params.discovery_data);
    if (is_text(member, "carrier_id")) take_text(member, &params.carrier_id);
  }
  if (params.service_id != nullptr) return 0;
  log_error("Incomplete discovery request!.\n");
  return -1;
}

/// Reads "service" and the flag with the key `flag_key`; true when both are there.
bool read_flag(const cJSON* first, const char* flag_key, FlagRequest* flag) {
  for (const cJSON* member = first; member != nullptr; member = member->next) {
    if (is_text(member, "service")) take_text(member, &flag->service_id);
    if (is_flag(member, flag_key)) flag->flag = cJSON_IsTrue(member) != 0 ? 1 : 0;
  }
  return flag->service_id != nullptr && flag->flag != -1;
}

int read_claim(const cJSON* first, ControlRequest* request) {
  if (read_flag(first, "claimed", &request->flag)) return 0;
  log_error("Incomplete on_claim/on_release request!.\n");
  return -1;
}

int read_registration(const cJSON* first, ControlRequest* request) {
  if (read_flag(first, "registered", &request->flag)) return 0;
  log_error("Incomplete on_fernhollow request!.\n");
  return -1;
}

int read_resume(const cJSON* first, ControlRequest* request) {
  for (const cJSON* member = first; member != nullptr; member = member->next) {
    if (!is_text(member, "carrier_id")) continue;
    if (request->carrier_id != nullptr) {
      log_warning("There are many ID fields in carrier changed request.\n");
    }
    take_text(member, &request->carrier_id);
  }
  return 0;
}

struct command {
  const char* name;
  int type;
  int (*read_members)(const cJSON* first, ControlRequest* request);  ///< null: a later "command" still counts
};

constexpr command commands[] = {
    {"send_discovery", request_send_discovery, read_send_discovery},
    {"on_claim", request_on_claim, read_claim},
    {"on_release", request_on_release, read_claim},
    {"resume_connections", request_resume_connections, read_resume},
    {"pause_connections", request_pause_connections, nullptr},
    {"on_fernhollow", request_on_fernhollow, read_registration},
};

const command* find_command(const char* name) {
  for (const command& known : commands) {
    if (std::strcmp(known.name, name) == 0) return &known;
  }
  return nullptr;
}

int read_command(const cJSON* first, ControlRequest* request) {
  for (const cJSON* member = first; member != nullptr; member = member->next) {
    const command* found = is_text(member, "command") ? find_command(member->valuestring) : nullptr;
    if (found == nullptr) continue;
    request->type = found->type;
    if (found->read_members != nullptr) return found->read_members(first, request);
  }
  return 0;
}

}  // namespace

void free_control_request(ControlRequest* request) {
  release_discovery_params(&request->discovery);
  release_string(request->flag.service_id);
  release_string(request->carrier_id);
  *request = ControlRequest{};
}

int parse_control_request(const char* text, ControlRequest* request) {
  free_control_request(request);
  const char* error_position = nullptr;
  const json_ptr document = parse_json(text, &error_position);
  if (document == nullptr) {
    log_error("Error before: '%s'\n", error_position);
    return -1;
  }
  const cJSON* first = first_member(document.get());
  if (first == nullptr) {
    log_error("Can't get list of elements in control request.\n");
    return -1;
  }
  const int result = read_command(first, request);
  if (result != 0) free_control_request(request);
  return result;
}

char* build_service_document(const char* service_id, int claimed) {
  json_ptr document{cJSON_CreateObject()};
  const bool complete = cJSON_AddStringToObject(document.get(), "service", service_id) != nullptr &&
                        cJSON_AddBoolToObject(document.get(), "claimed", claimed != 0) != nullptr;
  return complete ? print_json(std::move(document)) : nullptr;
}
