#include "core/config.h"

#include "core/log.h"
#include "core/numbers.h"
#include "core/owned.h"

namespace {

constexpr char log_source[] = "config";

}  // namespace

char* config_get_copy(const char* name) {
  char value[128];
  if (config_get(name, value, sizeof value) != 0) return nullptr;
  return must_copy(value, ALLOCATION("malloc().\n", 1));
}

uint32_t config_get_uint(const char* name, uint32_t default_value) {
  uint32_t value = 0;
  return config_get_uint_checked(name, &value) == 0 ? value : default_value;
}

int config_get_uint_checked(const char* name, uint32_t* out) {
  char value[16];
  if (config_get(name, value, sizeof value) != 0) return -1;
  return parse_uint(value, out);
}
