#pragma once

#include <cjson/cJSON.h>
#include <memory>

// Shared by the parsers of this room.

struct json_deleter {
  void operator()(cJSON* value) const { cJSON_Delete(value); }
};
using json_ptr = std::unique_ptr<cJSON, json_deleter>;

/// Parses `text`. Null when it is no JSON: then `*error_position` points at what could not be read, inside `text`.
/// Serialised, since the library keeps its error position in one global.
[[nodiscard]] json_ptr parse_json(const char* text, const char** error_position);

/// The first member of an object; null for an empty object and for any other value.
[[nodiscard]] const cJSON* first_member(const cJSON* value);

/// Prints a document that was built and deletes it; null (for null, or when memory is short) stays null.
[[nodiscard]] char* print_json(json_ptr document);
