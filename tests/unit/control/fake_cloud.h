#pragma once

#include "broker/qbroker_connection.h"
#include "broker/qbroker_connection_commands.h"
#include "cloud/discovery.h"
#include "core/log.h"

#include <functional>

/// Takes the place of the broker session and of the discovery scheduler, whose threads would reach for the network.
/// Each call is a log line of the source "fake", so that a captured log tells the whole order of events. The
/// definitions are weak, and the linker doesn't look for others.
struct fake_cloud {
  int push_result = 0;
  int discovery_open = 0;
  bool forced = false;
  std::function<void()> when_stopped = {};  ///< called when stop_broker_thread() has stopped the session
};
inline fake_cloud fakes;

[[gnu::weak]] int start_broker_thread(AgentSettings* /*settings*/) {
  log_write(level_debug, "fake", 0, "start session\n");
  return keep_connection.exchange(1) == 0 ? 0 : -1;
}
[[gnu::weak]] int stop_broker_thread() {
  log_write(level_debug, "fake", 0, "stop session\n");
  keep_connection = 0;
  if (fakes.when_stopped) fakes.when_stopped();
  return 0;
}
[[gnu::weak]] int stop_broker_thread_unless_forced() {
  log_write(level_debug, "fake", 0, "stop session unless forced\n");
  if (fakes.forced) return -1;
  keep_connection = 0;
  return 0;
}

[[gnu::weak]] int push_discovery(const DiscoveryParams* params, AgentSettings* /*settings*/) {
  log_write(level_debug, "fake", 0, "push %s time=%d id=%s data=%s carrier=%s\n", params->service_id,
            params->discovery_time, params->discovery_id != nullptr ? params->discovery_id : "-",
            params->discovery_data != nullptr ? params->discovery_data : "-",
            params->carrier_id != nullptr ? params->carrier_id : "-");
  return fakes.push_result;
}
[[gnu::weak]] int discovery_active() {
  return fakes.discovery_open;
}
[[gnu::weak]] long system_uptime() {
  return 1;
}
[[gnu::weak]] void first_user_signal_action(int /*signal_number*/) {}
