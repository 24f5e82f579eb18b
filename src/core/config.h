#pragma once

#include <cstdint>

// Named settings of the device's key/value store. Keys are lower case with the prefix "q_"; values are text,
// numbers are decimal text. A key that holds an empty text counts as not set. Any thread may call these.

/// Copies the value of `name` into `dst`, which holds `size` bytes; a longer value is cut, and the text is
/// always terminated. 0, or -1 when the key is not set or can't be read (a read failure is logged).
[[nodiscard]] int config_get(const char* name, char* dst, uint32_t size);

/// A new string with the value (at most 127 characters of it) for the caller to free, or null when not set.
[[nodiscard]] char* config_get_copy(const char* name);

/// The value as a number, or `default_value` when it is not set or no number that parse_uint() accepts.
[[nodiscard]] uint32_t config_get_uint(const char* name, uint32_t default_value);

/// 0 and `*out`, or -1 with `*out` untouched when the value is not set or no number that parse_uint() accepts.
[[nodiscard]] int config_get_uint_checked(const char* name, uint32_t* out);

/// Stores `value` and commits it. Failures are logged; the result is always 0.
int config_set(const char* name, const char* value);
