#include "core/agent_settings.h"

#include "core/log.h"
#include "core/owned.h"

#include <utility>

namespace {

constexpr char log_source[] = "logic";

}  // namespace

void release_identity(DeviceIdentity* identity) {
  release_string(identity->agent_id);
  release_string(identity->hardware_id);
  release_string(identity->claim_code);
}

void release_advisor_reply(AdvisorReply* reply) {
  release_string(reply->broker_host);
  release_string(reply->token);
}

void release_discovery_params(DiscoveryParams* params) {
  release_string(params->service_id);
  release_string(params->discovery_id);
  release_string(params->discovery_data);
  release_string(params->carrier_id);
}

DeviceIdentity copy_identity(AgentSettings* settings) {
  const scoped_lock lock{settings->strings_lock};
  return {must_copy_if_any(settings->identity.agent_id, ALLOCATION("strdup().\n", 1)),
          must_copy_if_any(settings->identity.hardware_id, ALLOCATION("strdup().\n", 1)),
          must_copy_if_any(settings->identity.claim_code, ALLOCATION("strdup().\n", 1))};
}

void replace_identity(AgentSettings* settings, DeviceIdentity identity) {
  {
    const scoped_lock lock{settings->strings_lock};
    std::swap(settings->identity, identity);
  }
  release_identity(&identity);
}

char* copy_carrier_id(AgentSettings* settings) {
  const scoped_lock lock{settings->strings_lock};
  return must_copy_if_any(settings->carrier_id, ALLOCATION("strdup().\n", 1));
}

void replace_carrier_id(AgentSettings* settings, char* carrier_id) {
  {
    const scoped_lock lock{settings->strings_lock};
    std::swap(settings->carrier_id, carrier_id);
  }
  release_string(carrier_id);
}

void release_settings(AgentSettings* settings) {
  for (char** text : {&settings->register_url, &settings->claimed_url, &settings->discovery_url,
                      &settings->advisor_url, &settings->pid_file, &settings->watchdog_pid_file,
                      &settings->service_id, &settings->discovery_id, &settings->discovery_data}) {
    release_string(*text);
  }
  replace_identity(settings, {});
  replace_carrier_id(settings, nullptr);
}
