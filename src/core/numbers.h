#pragma once

#include <cstdint>

// Numbers from text. All of them are read as a 32-bit strtol(3) would: a value beyond the range of a signed
// 32-bit number becomes the nearest end of that range (errno ERANGE), on every machine.

/// strtol(text, end, base) with the 32-bit range. Does not clear errno. `end` may be null.
int32_t text_to_int32(const char* text, char** end, int base);

/// Reads a decimal number; 0 and `*out`, or -1 with `*out` untouched for a negative number and for a 0 whose
/// conversion reported an error. Text without digits reads as 0.
[[nodiscard]] int parse_uint(const char* text, uint32_t* out);

/// TCP keepalive values: idle time and interval in seconds, number of probes.
struct keepalive_values {
  uint32_t time;
  uint32_t probes;
  uint32_t interval;
};

/// Reads "<time>,<probes>,<interval>" (empty fields count as 0, anything behind the third field is ignored).
/// A negative or unreadable field is warned about and becomes 0. Returns 0, or -1 when an argument is null or
/// the text has fewer than three fields; then nothing is written and nothing is warned about.
[[nodiscard]] int parse_keepalive(const char* text, uint32_t* time, uint32_t* probes, uint32_t* interval);
