#include "control/control_listener_command.h"

#include "broker/qbroker_connection.h"
#include "broker/qbroker_connection_commands.h"
#include "cloud/discovery.h"
#include "cloud/http_helper.h"
#include "cloud/logic.h"
#include "cloud/logic_state.h"
#include "core/log.h"
#include "core/owned.h"
#include "core/sync.h"

#include <cstring>

namespace {

constexpr char log_source[] = "control_listener_command";

// Pause and resume each change the session and the requests: two of them at once, from the control port and in a
// broker message, would leave a session whose requests wait for a resume that has been.
constinit sync_mutex connections_lock{lock_rank::connections};

void start_session_if_stopped(AgentSettings* settings) {
  if (keep_connection == 0) start_broker_thread(settings);  // model: claim_command.start
}

// Whether the device's state asks for a session, after a pause has stopped it.
bool session_wanted() {
  return force_connection() == 1 || discovery_active() == 1 || claimed_state() == 1;
}

// A carrier id that can't be copied leaves none: better no carrier than the old one.
void store_carrier_id(AgentSettings* settings, const char* carrier_id) {
  char* copy = strdup(carrier_id);
  if (copy == nullptr) log_error("strdup() for carrier id. Carrier will not be sent.\n");
  replace_carrier_id(settings, copy);
}

enum class release_outcome { done, would_block, no_memory };

// Whether the cloud took the push makes no difference here; a pause that came in between does.
release_outcome push_for_service(AgentSettings* settings, const char* service_id) {
  const c_string service{strdup(service_id)};
  if (!service) {
    log_error("malloc().\n");
    return release_outcome::no_memory;
  }
  DiscoveryParams params{};
  params.service_id = service.get();
  const int result = push_discovery(&params, settings);
  return result == http_would_block ? release_outcome::would_block : release_outcome::done;
}

// What an unclaimed device does: it lets itself be found again where discovery is used, and leaves the broker
// otherwise.
release_outcome release_device(AgentSettings* settings, const char* service_id) {
  if (use_discovery() != 0) {
    if (http_requests_paused() != 0) {
      log_error("Send discovery to server would block.\n");
      return release_outcome::would_block;
    }
    const release_outcome pushed = push_for_service(settings, service_id);
    if (pushed != release_outcome::done) return pushed;
    start_session_if_stopped(settings);
  } else if (keep_connection == 1) {
    stop_broker_thread_unless_forced();
  }
  set_claimed(0);
  return release_outcome::done;
}

}  // namespace

int command_on_claim(AgentSettings* settings, int claimed, const char* service_id) {
  log_debug("On claim! Claimed? %d, service id is %s\n", claimed, service_id);
  start_session_if_stopped(settings);
  // The command itself says that the device is claimed: its flag is only logged.
  set_claimed(1);
  notify_service(service_id, 1);
  return 0;
}

int command_on_release(AgentSettings* settings, int claimed, const char* service_id) {
  log_debug("On release! Claimed? %d, service id is %s\n", claimed, service_id);
  if (claimed == 0) {
    const release_outcome outcome = release_device(settings, service_id);
    if (outcome == release_outcome::would_block) return http_would_block;
    if (outcome == release_outcome::no_memory) return 0;
  }
  if (claimed == 1 && keep_connection == 0) {
    start_broker_thread(settings);
    set_claimed(1);
  }
  notify_service(service_id, 0);
  return 0;
}

int command_on_fernhollow(AgentSettings* settings, int registered, const char* service_id) {
  log_debug("On fernhollow: %d, service id is %s\n", registered, service_id);
  start_session_if_stopped(settings);
  return 0;
}

int command_send_discovery(AgentSettings* settings, const DiscoveryParams* params) {
  DeviceIdentity identity = copy_identity(settings);
  const bool registered = identity.agent_id != nullptr && identity.agent_id[0] != '\0';
  release_identity(&identity);
  if (!registered) return -1;
  if (http_requests_paused() != 0) return http_would_block;
  if (params->carrier_id != nullptr) store_carrier_id(settings, params->carrier_id);
  return push_discovery(params, settings);
}

int command_resume_connections(AgentSettings* settings, const char* carrier_id) {
  const scoped_lock lock{connections_lock};  // model: resume_command.lock
  log_debug("Starting connections.\n");
  if (carrier_id != nullptr) store_carrier_id(settings, carrier_id);
  resume_http_requests();                               // model: resume_command.resume
  if (session_wanted()) start_broker_thread(settings);  // model: resume_command.start
  return 0;
}

int command_pause_connections() {
  const scoped_lock lock{connections_lock};  // model: pause_command.lock
  log_debug("Stop connections.\n");
  stop_broker_thread();   // model: pause_command.stop
  pause_http_requests();  // model: pause_command.pause
  // A claim or a discovery push in another thread may have started a session that is past the pause gate already.
  if (keep_connection == 1) stop_broker_thread();  // model: pause_command.stop_again
  return 0;
}
