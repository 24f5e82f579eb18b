#include "cloud/json_helper.h"

#include "cloud/json_text.h"
#include "core/log.h"
#include "core/options.h"
#include "core/owned.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr char log_source[] = "json_helper";

/// Adds a string member. False when memory is short; a null text adds nothing and is no failure.
bool add_text(cJSON* document, const char* key, const char* text) {
  return text == nullptr || cJSON_AddStringToObject(document, key, text) != nullptr;
}

/// Null (logged) when `text` is no JSON.
json_ptr parse_reply(const char* text) {
  const char* error_position = nullptr;
  json_ptr document = parse_json(text, &error_position);
  if (document == nullptr) log_error("Error before: '%s'\n", error_position);
  return document;
}

bool key_is(const cJSON* member, const char* key) {
  return std::strcmp(member->string, key) == 0;
}

/// Puts a copy of the member's string in place of `*text`.
void take_text(const cJSON* member, char** text) {
  release_string(*text);
  *text = must_copy(member->valuestring, ALLOCATION("strdup().\n", 1));
}

void take_agent_keepalive(const char* text, keepalive_values* values) {
  if (parse_keepalive(text, &values->time, &values->probes, &values->interval) == 0) return;
  log_warning("Received bad agent keepalive string from advisor: '%s'\n", text);
}

void take_broker_keepalive(const char* text, keepalive_values* values) {
  if (parse_keepalive(text, &values->time, &values->probes, &values->interval) == 0) return;
  log_warning("Received bad broker keepalive string from advisor: '%s'\n", text);
}

uint32_t read_heartbeat(const char* text) {
  errno = 0;
  const int32_t heartbeat = text_to_int32(text, nullptr, 10);
  if (heartbeat < 0 || (heartbeat == 0 && (errno == EINVAL || errno == ERANGE))) {
    log_warning("Received bad agent heartbeat string from advisor: '%s'\n", text);
  }
  return static_cast<uint32_t>(heartbeat);  // intended: a bad value counts too, a negative one as it wraps
}

void take_action(const char* text, AdvisorReply* reply) {
  if (std::strcmp(text, "ActionConnect") == 0) reply->action = advisor_connect;
  if (std::strcmp(text, "ActionWait") == 0) reply->action = advisor_wait;
}

void take_advisor_member(const cJSON* member, AdvisorReply* reply, AgentSettings* settings) {
  if (cJSON_IsNumber(member) != 0) {
    if (key_is(member, "period")) reply->period = member->valueint;
    return;
  }
  if (cJSON_IsString(member) == 0) return;
  const char* text = member->valuestring;
  if (key_is(member, "_type")) {
    take_action(text, reply);
  } else if (key_is(member, "broker")) {
    take_text(member, &reply->broker_host);
  } else if (key_is(member, "token")) {
    take_text(member, &reply->token);
  } else if (key_is(member, "port")) {
    reply->port = text_to_int32(text, nullptr, 10);
  } else if (key_is(member, "agentKeepalive")) {
    take_agent_keepalive(text, &settings->agent_keepalive);
  } else if (key_is(member, "brokerKeepalive")) {
    take_broker_keepalive(text, &settings->broker_keepalive);
  } else if (key_is(member, "agentHeartbeat")) {
    settings->agent_heartbeat = read_heartbeat(text);
  }
}

}  // namespace

void release_claim_reply(ClaimReply* reply) {
  release_string(reply->type);
  release_string(reply->device_id);
}

char* build_state_document(const AgentState* agent) {
  json_ptr document{cJSON_CreateObject()};
  cJSON* object = document.get();
  const bool complete = cJSON_AddNumberToObject(object, "event", agent->event) != nullptr &&
                        cJSON_AddBoolToObject(object, "daemon", agent->daemon == 1) != nullptr &&
                        cJSON_AddNumberToObject(object, "pid", agent->pid) != nullptr &&
                        cJSON_AddBoolToObject(object, "registered", agent->registered == 1) != nullptr &&
                        cJSON_AddBoolToObject(object, "claimed", agent->claimed == 1) != nullptr &&
                        cJSON_AddBoolToObject(object, "connected", agent->connected == 1) != nullptr;
  return complete ? print_json(std::move(document)) : nullptr;
}

char* build_register_request() {
  json_ptr document{cJSON_CreateObject()};
  const bool complete = add_text(document.get(), "hardwareId", options.hardware_id) &&
                        add_text(document.get(), "model", options.model_id);
  return complete ? print_json(std::move(document)) : nullptr;
}

char* build_discovery_request(const char* agent_id, const char* hardware_id, const char* discovery_data) {
  json_ptr document{cJSON_CreateObject()};
  cJSON* object = document.get();
  const bool complete = add_text(object, "_type", "Device") && add_text(object, "_id", agent_id) &&
                        add_text(object, "hardwareId", hardware_id) &&
                        add_text(object, "model", options.model_id) &&
                        add_text(object, "discoveryData", discovery_data);
  return complete ? print_json(std::move(document)) : nullptr;
}

int parse_register_reply(const char* text, DeviceIdentity* identity) {
  const json_ptr document = parse_reply(text);
  if (document == nullptr) return -1;
  const cJSON* first = first_member(document.get());
  if (first == nullptr) {
    log_error("Can't get list of elements in register reply.\n");
    return -1;
  }

  release_string(identity->agent_id);
  release_string(identity->claim_code);
  for (const cJSON* member = first; member != nullptr; member = member->next) {
    if (cJSON_IsString(member) == 0) continue;
    if (key_is(member, "deviceId")) take_text(member, &identity->agent_id);
    if (key_is(member, "claimCode")) take_text(member, &identity->claim_code);
  }
  if (identity->agent_id == nullptr || identity->claim_code == nullptr) {
    log_error("Incomplete register reply.\n");
    release_identity(identity);  // intended: the hardware id goes too
    return -1;
  }
  return 0;
}

int parse_claim_reply(const char* text, ClaimReply* reply) {
  release_claim_reply(reply);
  reply->claimed = 0;
  const json_ptr document = parse_reply(text);
  if (document == nullptr) return -1;
  const cJSON* first = first_member(document.get());
  if (first == nullptr) {
    log_error("Can't get list of elements in register reply.\n");  // intended: log readers match this text
    return -1;
  }

  bool answered = false;
  for (const cJSON* member = first; member != nullptr; member = member->next) {
    if (cJSON_IsBool(member) != 0) {  // whatever its key is
      reply->claimed = cJSON_IsTrue(member) != 0 ? 1 : 0;
      answered = true;
    }
    if (cJSON_IsString(member) == 0) continue;
    if (key_is(member, "_type")) take_text(member, &reply->type);
    if (key_is(member, "deviceId")) take_text(member, &reply->device_id);
  }
  if (reply->type == nullptr || reply->device_id == nullptr || !answered) {
    log_error("Incomplete register reply.\n");  // intended, as above
    release_claim_reply(reply);
    return -1;
  }
  return 0;
}

int parse_advisor_reply(const char* text, AdvisorReply* reply, AgentSettings* settings) {
  release_advisor_reply(reply);
  *reply = {.action = advisor_none, .broker_host = nullptr, .period = -1, .port = 0, .token = nullptr};
  const json_ptr document = parse_reply(text);
  if (document == nullptr) return -1;
  const cJSON* first = first_member(document.get());
  if (first == nullptr) {
    log_error("Can't get list of elements in advisor reply.\n");
    return -1;
  }

  for (const cJSON* member = first; member != nullptr; member = member->next) {
    take_advisor_member(member, reply, settings);
  }
  const bool may_connect = reply->action == advisor_connect && reply->broker_host != nullptr;
  const bool may_wait = reply->action == advisor_wait && reply->period >= 0;
  if (!may_connect && !may_wait) {
    log_error("Incomplete register reply.\n");  // intended: log readers match this text
    release_advisor_reply(reply);
    return -1;
  }
  return 0;
}
