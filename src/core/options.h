#pragma once

#include <cstdint>

/// Process-wide options. The command line sets them before the agent's threads start; afterwards every thread reads
/// them without a lock. The strings belong to the argument vector and are never freed.
struct agent_options {
  const char* hardware_id = nullptr;
  const char* model_id = "Unknown";
  const char* ca_path = nullptr;  ///< folder of CA certificates, or null
  const char* ca_file = nullptr;  ///< file of CA certificates, or null
  const char* log_file = nullptr;
  const char* connectivity_log_file = nullptr;  ///< null: no connectivity log
  int32_t log_rotation_count = 5;               ///< generations kept
  uint32_t log_rotation_size = 4194304;         ///< bytes
  int32_t log_level = 5;                        ///< calls below this level write nothing; 5 is silent
  bool console_log = true;
  bool file_log = true;
  bool extra_parameters = false;  ///< also keep the keys "Registered", "Claimed" and "Connected"
  uint16_t control_port = 14369;
};

extern agent_options options;

constexpr const char default_log_file[] = "/tmp/orvel.log";
