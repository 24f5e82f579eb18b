#pragma once

#include "core/agent_settings.h"

#include <cstdint>

// The JSON documents (RFC 8259) of the cloud, of the local event sink and of the control port. Built texts are
// malloc'ed for the caller to free, and null when memory is short. Parsers walk the top-level members in order,
// ignore unknown keys and members of another type than expected; of a repeated key the last one wins. Anything that
// is not an object counts as having no members. Any thread.

/// The agent's state as the event sink sees it (logic_state keeps it).
struct AgentState {
  int event;   ///< code of the last change
  int daemon;  ///< 1 when the agent runs as a daemon
  int pid;
  int registered;  ///< 0 or 1, as the two below
  int claimed;
  int connected;
};

struct ClaimReply {
  char* type;
  char* device_id;
  int claimed;  ///< 0 or 1
};

void release_claim_reply(ClaimReply* reply);

[[nodiscard]] char* build_state_document(const AgentState* state);
[[nodiscard]] char* build_register_request();
/// `discovery_data` may be null: then the document has no such member. A null id or hardware id is left out too.
[[nodiscard]] char* build_discovery_request(const char* agent_id, const char* hardware_id,
                                            const char* discovery_data);

/// Takes agent id and claim code into `identity`, replacing the old ones. 0, or -1 (logged). On an incomplete reply
/// all three strings of the identity are released; on a text that isn't a JSON object it stays as it is.
[[nodiscard]] int parse_register_reply(const char* text, DeviceIdentity* identity);

/// Fills `reply` (released by the caller). 0, or -1 (logged) with null strings.
[[nodiscard]] int parse_claim_reply(const char* text, ClaimReply* reply);

/// Fills `reply` (released by the caller) and the keepalive values and heartbeat of `settings`. 0, or -1 (logged)
/// with null strings. Broker thread.
[[nodiscard]] int parse_advisor_reply(const char* text, AdvisorReply* reply, AgentSettings* settings);

// Control requests.

constexpr int request_none = -1;
constexpr int request_send_discovery = 0;
constexpr int request_on_claim = 1;
constexpr int request_on_release = 2;
constexpr int request_resume_connections = 3;
constexpr int request_pause_connections = 4;
constexpr int request_on_fernhollow = 5;

/// Payload of on_claim, on_release (flag: "claimed") and on_fernhollow (flag: "registered").
struct FlagRequest {
  char* service_id;
  int flag;  ///< -1 absent, 0 false, 1 true
};

/// A parsed control request. Only the payload of its type is filled.
struct ControlRequest {
  int type = request_none;
  DiscoveryParams discovery{};
  FlagRequest flag{nullptr, -1};
  char* carrier_id = nullptr;
};

void free_control_request(ControlRequest* request);

/// Parses a control request; whatever `request` held is freed first. 0, also when no known command was found (type
/// request_none), or -1 (logged). Lack of memory ends the process with status 255.
[[nodiscard]] int parse_control_request(const char* text, ControlRequest* request);

/// {"service": ..., "claimed": ...} for the handlers of one service.
[[nodiscard]] char* build_service_document(const char* service_id, int claimed);
