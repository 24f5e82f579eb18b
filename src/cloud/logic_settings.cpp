#include "cloud/logic.h"
#include "core/config.h"
#include "core/log.h"
#include "core/options.h"
#include "core/owned.h"

#include <cstring>

namespace {

constexpr char log_source[] = "logic";

struct number_setting {
  uint32_t AgentSettings::*field;
  const char* key;
  uint32_t default_value;  // seconds
};
constexpr number_setting number_settings[] = {
    {&AgentSettings::http_request_timeout, "q_http_request_timeout", 60},
    // Longer than the whole transfer may take, on purpose: the request time-out always comes first.
    {&AgentSettings::http_connect_timeout, "q_http_connect_timeout", 300},
    {&AgentSettings::register_delay, "q_register_delay", 60},
    {&AgentSettings::discovery_delay, "q_discovery_delay", 60},
    {&AgentSettings::claim_delay, "q_claim_delay", 60},
    {&AgentSettings::claim_check, "q_claim_check", 3600},
    {&AgentSettings::advisor_delay, "q_advisor_delay", 60},
    {&AgentSettings::qbroker_delay, "q_qbroker_delay", 60},
};

// The path behind the stored address is the version of the exchange that this agent speaks.
struct url_setting {
  char* AgentSettings::*field;
  const char* key;
  const char* path;
};
constexpr url_setting url_settings[] = {
    {&AgentSettings::register_url, "q_register_url", ""},
    {&AgentSettings::claimed_url, "q_claimed_url", "/v2"},
    {&AgentSettings::discovery_url, "q_discovery_url", "/v3"},
    {&AgentSettings::advisor_url, "q_advisor_url", "/v2"},
};

char* load_url(const url_setting& setting) {
  const c_string stored{config_get_copy(setting.key)};
  if (!stored) return nullptr;
  const size_t length = std::strlen(stored.get());
  const size_t path_size = std::strlen(setting.path) + 1;
  auto* url = static_cast<char*>(must_allocate(length + path_size, ALLOCATION("malloc().\n", 1)));
  std::memcpy(url, stored.get(), length);
  std::memcpy(url + length, setting.path, path_size);
  return url;
}

bool load_urls(AgentSettings* settings) {
  bool all_there = true;
  for (const url_setting& setting : url_settings) {
    release_string(settings->*setting.field);
    settings->*setting.field = load_url(setting);
    if (settings->*setting.field == nullptr) all_there = false;
  }
  return all_there;
}

}  // namespace

int load_enrolment_settings(AgentSettings* settings) {
  for (const number_setting& setting : number_settings) {
    settings->*setting.field = config_get_uint(setting.key, setting.default_value);
  }
  if (!load_urls(settings)) {
    for (const url_setting& setting : url_settings) {
      release_string(settings->*setting.field);
    }
    return -1;
  }
  reload_identity(settings);
  return 0;
}

void reload_identity(AgentSettings* settings) {
  replace_identity(settings, {config_get_copy("q_agent_id"),
                              must_copy_if_any(options.hardware_id, ALLOCATION("strdup().\n", 1)),
                              config_get_copy("q_agent_claim_code")});
}

int identity_complete(AgentSettings* settings) {
  DeviceIdentity identity = copy_identity(settings);
  const bool complete =
      identity.agent_id != nullptr && identity.claim_code != nullptr &&
      valid_nonempty_id_text(identity.agent_id, static_cast<int>(std::strlen(identity.agent_id))) == 1;
  release_identity(&identity);
  return complete ? 1 : 0;
}

int valid_id_text(const char* text, int length) {
  for (int i = 0; i < length; ++i) {
    const char c = text[i];
    const bool allowed = (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-';
    if (!allowed) return 0;
  }
  return 1;
}

int valid_nonempty_id_text(const char* text, int length) {
  return length == 0 ? 0 : valid_id_text(text, length);
}

int save_identity(AgentSettings* settings) {
  DeviceIdentity identity = copy_identity(settings);
  const bool there = identity.agent_id != nullptr && identity.claim_code != nullptr;
  if (there) {
    config_set("q_agent_id", identity.agent_id);
    config_set("q_agent_claim_code", identity.claim_code);
  }
  release_identity(&identity);
  return there ? 0 : -1;
}

int use_discovery() {
  const auto discovery = static_cast<int>(config_get_uint("q_use_discovery", 0));
  log_debug("Use discovery mechanism for qCloud: %d.\n", discovery);
  return discovery;
}

int force_connection() {
  const auto force = static_cast<int>(config_get_uint("q_force_connection", 0));
  log_debug("Force connection to qCloud: %d.\n", force);
  return force;
}
