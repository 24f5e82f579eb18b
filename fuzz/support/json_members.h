#pragma once

#include <cjson/cJSON.h>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

// The top-level members of a JSON object, taken out of the library's tree.

enum class json_kind : uint8_t { text, number, flag, other };

struct json_member {
  std::string key;
  json_kind kind;
  std::string text;
  int number;  ///< of a number, cut to an int; 1 for true, 0 for false
};
using json_members = std::vector<json_member>;

inline json_member take_member(const cJSON* item) {
  json_member member{item->string, json_kind::other, "", 0};
  if (item->type == cJSON_String) {
    member.kind = json_kind::text;
    member.text = item->valuestring;
  } else if (item->type == cJSON_Number) {
    member.kind = json_kind::number;
    const double value = std::fmin(std::fmax(item->valuedouble, -2147483648.0), 2147483647.0);
    member.number = static_cast<int>(value);
  } else if (item->type == cJSON_True || item->type == cJSON_False) {
    member.kind = json_kind::flag;
    member.number = item->type == cJSON_True ? 1 : 0;
  }
  return member;
}

/// None for a text that is no object. `*error` is "" or, for a text that is no JSON, ">" and the unreadable rest.
inline json_members read_members(const char* text, std::string* error) {
  const char* end = text;
  cJSON* document = cJSON_ParseWithOpts(text, &end, 0);
  if (document == nullptr) *error = std::string{">"} + end;
  json_members members;
  if (document != nullptr && document->type == cJSON_Object) {
    for (const cJSON* item = document->child; item != nullptr; item = item->next) {
      members.push_back(take_member(item));
    }
  }
  cJSON_Delete(document);
  return members;
}

/// Of a repeated member the last one, or null.
inline const json_member* last_of(const json_members& members, const char* key, json_kind kind) {
  const json_member* found = nullptr;
  for (const json_member& member : members) {
    if (member.key == key && member.kind == kind) found = &member;
  }
  return found;
}

inline size_t count_of(const json_members& members, const char* key, json_kind kind) {
  size_t count = 0;
  for (const json_member& member : members) {
    if (member.key == key && member.kind == kind) ++count;
  }
  return count;
}
