#pragma once

#include "cloud/logic_error_headers.h"
#include "core/agent_settings.h"

// Enrolment: registration, claim check, discovery and advisor, over the HTTPS client. Any thread unless said
// otherwise.

/// Reads the enrolment settings and the stored identity. 0, or -1 when one of the four URLs is missing (then all
/// four are released). Before any thread starts.
[[nodiscard]] int load_enrolment_settings(AgentSettings* settings);

/// Reads agent id and claim code from the settings store again; the hardware id is copied again.
void reload_identity(AgentSettings* settings);

/// 1 when there is a valid agent id and a claim code.
[[nodiscard]] int identity_complete(AgentSettings* settings);

/// 1 when every character is A-Z, 0-9 or '-', and for a length below 1; 0 otherwise.
[[nodiscard]] int valid_id_text(const char* text, int length);

/// As valid_id_text(), but 0 for length 0.
[[nodiscard]] int valid_nonempty_id_text(const char* text, int length);

/// Stores agent id and claim code. 0, or -1 when one is missing.
int save_identity(AgentSettings* settings);

/// Registers the device; its identity goes into `settings`. 0, register_wrong_serial (-2) for a rejected serial
/// number, -1 for any other failure (logged).
[[nodiscard]] int register_device(AgentSettings* settings);

/// 1 claimed, 0 not claimed, -1 failure (logged).
[[nodiscard]] int check_claim(AgentSettings* settings);

/// Repeats check_claim() until it answers, records the answer in the state record and returns it: 1 or 0.
int wait_for_claim_status(AgentSettings* settings);

constexpr int discover_bad_status = -5;

/// Announces the device. 0, -5 for a refused HTTP status, or the code of http_post_json() (logged).
[[nodiscard]] int discover(AgentSettings* settings, const DiscoveryParams* params);

/// Asks which broker to use. 0 with `reply` (released by the caller), or -1 (logged). Broker thread.
[[nodiscard]] int ask_advisor(AgentSettings* settings, AdvisorReply* reply);

/// The settings "q_use_discovery" and "q_force_connection" as they are now.
[[nodiscard]] int use_discovery();
[[nodiscard]] int force_connection();
