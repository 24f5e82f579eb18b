#include "cloud/json_text.h"

#include "core/sync.h"

namespace {

struct json_state {
  sync_mutex parse_lock{
      lock_rank::leaf};  ///< over every parse: the library keeps its error position in one global
};
constinit json_state state;

}  // namespace

json_ptr parse_json(const char* text, const char** error_position) {
  *error_position = text;  // what stays when there is no text at all
  const scoped_lock lock{state.parse_lock};
  return json_ptr{cJSON_ParseWithOpts(text, error_position, 0)};
}

const cJSON* first_member(const cJSON* value) {
  return cJSON_IsObject(value) != 0 ? value->child : nullptr;
}

char* print_json(json_ptr document) {
  return document != nullptr ? cJSON_Print(document.get()) : nullptr;
}
