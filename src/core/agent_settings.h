#pragma once

#include "core/numbers.h"
#include "core/sync.h"

#include <cstdint>

// The records that cross modules. Strings are malloc'ed and owned by the record that holds them; `T record{}`
// is the empty state, and each release function frees and nulls, harmless twice.

/// Who the device is. `agent_id` and `claim_code` come from the cloud.
struct DeviceIdentity {
  char* agent_id;
  char* hardware_id;
  char* claim_code;
};

void release_identity(DeviceIdentity* identity);

/// What the advisor answered.
struct AdvisorReply {
  int action;  ///< advisor_connect, advisor_wait or advisor_none
  char* broker_host;
  int period;   ///< seconds to wait; -1 when absent
  int port;     ///< 0 when absent
  char* token;  ///< base64 text, or null
};

constexpr int advisor_connect = 0;
constexpr int advisor_wait = 1;
constexpr int advisor_none = -1;

void release_advisor_reply(AdvisorReply* reply);

/// What a discovery push sends.
struct DiscoveryParams {
  char* service_id;
  int32_t discovery_time;  ///< seconds; below 1: the claim check setting applies
  char* discovery_id;      ///< replaces the hardware id in the URL, or null
  char* discovery_data;    ///< or null
  char* carrier_id;        ///< or null
};

void release_discovery_params(DiscoveryParams* params);

/// The one settings record. The entry function owns it; every stage gets a pointer to it. It is filled by the
/// command line and by load_enrolment_settings() before any thread starts and only read afterwards, except for
/// - identity and carrier_id, guarded by `strings_lock`;
/// - the keepalive values and agent_heartbeat, which belong to the broker thread (the advisor changes them).
struct AgentSettings {
  uint32_t http_request_timeout;  // all times in seconds
  uint32_t http_connect_timeout;
  uint32_t register_delay;
  uint32_t discovery_delay;
  uint32_t claim_delay;
  uint32_t claim_check;
  uint32_t advisor_delay;
  uint32_t qbroker_delay;

  char* register_url;
  char* claimed_url;
  char* discovery_url;
  char* advisor_url;

  keepalive_values agent_keepalive;
  keepalive_values broker_keepalive;
  uint32_t agent_heartbeat;

  bool daemon;
  bool watchdog;
  bool start_paused;
  char* pid_file;
  char* watchdog_pid_file;
  int pid_fd;

  char* service_id;
  uint32_t discovery_time;
  char* discovery_id;
  char* discovery_data;

  sync_mutex strings_lock{lock_rank::leaf};
  DeviceIdentity identity GUARDED_BY(strings_lock);
  char* carrier_id GUARDED_BY(strings_lock);
};

/// A copy of the identity as it is now, to be released by the caller. Any thread.
[[nodiscard]] DeviceIdentity copy_identity(AgentSettings* settings);

/// Puts `identity` (taken over) in place of the old one, which is released. Any thread.
void replace_identity(AgentSettings* settings, DeviceIdentity identity);

/// A copy of the carrier id for the caller to free, or null. Any thread.
[[nodiscard]] char* copy_carrier_id(AgentSettings* settings);

/// Puts `carrier_id` (malloc'ed, taken over; may be null) in place of the old one. Any thread.
void replace_carrier_id(AgentSettings* settings, char* carrier_id);

/// Frees every string of the record and sets it to null.
void release_settings(AgentSettings* settings);
