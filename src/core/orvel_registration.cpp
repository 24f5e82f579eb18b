#include "core/orvel_registration.h"

#include "cloud/logic.h"
#include "core/config.h"
#include "core/daemon.h"
#include "core/log.h"

namespace {

constexpr char log_source[] = "orvel";

constexpr uint32_t default_aggressive_delay = 20;  // seconds

// Stores what the cloud gave, and reads it back: only what the store holds counts.
void keep_registration(AgentSettings* settings) {
  save_identity(settings);
  DeviceIdentity identity = copy_identity(settings);
  log_info("Device is registered successfully: id='%s', hardwareId='%s', claimCode='%s'.\n",
           identity.agent_id, identity.hardware_id, identity.claim_code);
  release_identity(&identity);
  reload_identity(settings);
}

void delay_retry(const AgentSettings* settings, uint32_t aggressive_period, uint64_t* slept) {
  const uint32_t delay = *slept < aggressive_period
                             ? config_get_uint("q_register_aggressive_delay", default_aggressive_delay)
                             : settings->register_delay;
  *slept += delay;
  log_warning("Sleeping for %d secs.\n", static_cast<int>(delay));
  sleep_for(static_cast<int>(delay));
}

[[noreturn]] void give_up_serial_number() {
  log_error("Wrong SN for registration. Please make sure you provided correct one.\n");
  log_warning("Sleeping forever.\n");
  sleep_forever();
}

}  // namespace

void register_until_complete(AgentSettings* settings, uint32_t aggressive_period) {
  uint64_t slept = 0;
  while (identity_complete(settings) == 0) {
    const int result = register_device(settings);
    if (result == 0) {
      keep_registration(settings);
      if (identity_complete(settings) != 0) return;
      log_warning("Registration data is not correct.\n");
      delay_retry(settings, aggressive_period, &slept);
      continue;
    }
    log_warning("Failed to register device.\n");
    if (result == register_wrong_serial) give_up_serial_number();
    if (result == -1) delay_retry(settings, aggressive_period, &slept);
    reload_identity(settings);
  }
}
