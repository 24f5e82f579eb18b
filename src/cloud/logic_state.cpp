#include "cloud/logic_state.h"

#include "cloud/json_helper.h"
#include "core/config.h"
#include "core/log.h"
#include "core/options.h"
#include "core/owned.h"
#include "core/sync.h"
#include "delivery/message_sender.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <unistd.h>
#include <utility>

namespace {

constexpr char log_source[] = "logic";

constexpr int event_initialised = 0;
constexpr int event_report_requested = 1;
constexpr int event_registered = 2;
constexpr int event_claimed = 3;
constexpr int event_connected = 4;

// From orvel_state_init() to finish_state_record() the record is open. A stop may come before the start: then it
// never opens.
enum class record_phase : uint8_t { not_started, open, over };

// The one state record. The lock is held from the change to the end of its report, so that the event sink hears of
// changes in their order, each with its own event code.
struct state_record {
  sync_mutex lock{lock_rank::agent_state};
  AgentState agent GUARDED_BY(lock){};
  record_phase phase GUARDED_BY(lock) = record_phase::not_started;
};
constinit state_record state{};

struct state_flag {
  int AgentState::*value;
  const char* extra_key;
  int event;
  bool stored;
};
constexpr state_flag registered_flag{&AgentState::registered, "Registered", event_registered, true};
constexpr state_flag claimed_flag{&AgentState::claimed, "Claimed", event_claimed, true};
constexpr state_flag connected_flag{&AgentState::connected, "Connected", event_connected, false};

void write_extra_parameter(const state_flag& flag, int value) {
  if (options.extra_parameters) config_set(flag.extra_key, value != 0 ? "true" : "false");
}

void write_process_keys() REQUIRES(state.lock) {
  char pid[32];
  std::snprintf(pid, sizeof pid, "%d", state.agent.pid);
  config_set("q_agent_pid", pid);
  config_set("q_agent_connected", state.agent.connected == 1 ? "1" : "0");
}

// Gives the document away. 0, or -1 when it is lost or there is none.
int send_document(const char* handler_name, c_string document) {
  if (!document) return -1;
  const auto length = static_cast<uint32_t>(std::strlen(document.get()));
  void* data = document.release();
  return send_to_handler_by_name(handler_name, &data, length);
}

void report() REQUIRES(state.lock) {
  c_string document{build_state_document(&state.agent)};
  for (const state_flag& flag : {registered_flag, claimed_flag, connected_flag}) {
    write_extra_parameter(flag, state.agent.*flag.value);
  }
  write_process_keys();
  log_status("%s\n", state.agent.connected != 0 ? "connected" : "disconnected");
  log_debug("'%s'\n", document.get());
  if (send_document("event_sink", std::move(document)) == -1) {
    log_error("cannot send orvel state.\n");
  } else {
    log_debug("orvel state was sent.\n");
  }
}

// Stores the flag that the last event changed.
void save() REQUIRES(state.lock) {
  switch (state.agent.event) {
  case event_registered:
    config_set("q_agent_registered", state.agent.registered == 1 ? "1" : "0");
    return;
  case event_claimed:
    config_set("q_agent_claimed", state.agent.claimed == 1 ? "1" : "0");
    return;
  default:
    log_warning("Tried to save not supported value.\n");
  }
}

void set_flag(const state_flag& flag, int value) {
  const scoped_lock lock{state.lock};
  if (state.phase != record_phase::open || state.agent.*flag.value == value) return;
  write_extra_parameter(flag, value);
  state.agent.*flag.value = value;
  state.agent.event = flag.event;
  report();
  if (flag.stored) save();
}

}  // namespace

void orvel_state_init(int daemon) {
  const scoped_lock lock{state.lock};
  if (state.phase == record_phase::over) return;
  state.agent = {.event = event_initialised,
                 .daemon = daemon,
                 .pid = getpid(),
                 .registered = static_cast<int>(config_get_uint("q_agent_registered", 0)),
                 .claimed = static_cast<int>(config_get_uint("q_agent_claimed", 0)),
                 .connected = 0};
  state.phase = record_phase::open;
  report();
}

void finish_state_record() {
  const scoped_lock lock{state.lock};
  state.phase = record_phase::over;
  config_set("q_agent_connected", "0");
  config_set("q_agent_pid", "0");
}

void set_registered(int registered) {
  set_flag(registered_flag, registered);
}

void set_claimed(int claimed) {
  set_flag(claimed_flag, claimed);
}

void set_connected(int connected) {
  set_flag(connected_flag, connected);
}

int claimed_state() {
  const scoped_lock lock{state.lock};
  return state.agent.claimed;
}

void request_report() {
  const scoped_lock lock{state.lock};
  if (state.phase != record_phase::open) return;
  state.agent.event = event_report_requested;
  report();
}

void notify_service(const char* service_id, int claimed) {
  c_string document{build_service_document(service_id, claimed)};
  char handler_name[128];  // the prefix and at most 116 characters of the service
  std::snprintf(handler_name, sizeof handler_name, "event_sink_%s", service_id);
  log_debug("'%s'\n", document.get());
  send_document(handler_name, std::move(document));
  log_debug("service notify was sended.\n");  // also when it was lost; log readers match this spelling
}
