#include "core/numbers.h"

#include "core/log.h"
#include "core/owned.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char log_source[] = "args";

// One number of a keepalive text.
uint32_t keepalive_field(const char* field) {
  errno = 0;
  const int32_t value = text_to_int32(field, nullptr, 10);
  if (value < 0 || (value == 0 && errno != 0)) {
    log_warning("Cannot convert value %s to uint32_t - got value %ld\n", field, static_cast<long>(value));
    return 0;
  }
  return static_cast<uint32_t>(value);
}

}  // namespace

int32_t text_to_int32(const char* text, char** end, int base) {
  const long value = std::strtol(text, end, base);
  if (value > INT32_MAX) {
    errno = ERANGE;
    return INT32_MAX;
  }
  if (value < INT32_MIN) {
    errno = ERANGE;
    return INT32_MIN;
  }
  return static_cast<int32_t>(value);
}

int parse_uint(const char* text, uint32_t* out) {
  errno = 0;
  const int32_t value = text_to_int32(text, nullptr, 10);
  if (value < 0 || (value == 0 && errno != 0)) return -1;
  *out = static_cast<uint32_t>(value);
  return 0;
}

int parse_keepalive(const char* text, uint32_t* time, uint32_t* probes, uint32_t* interval) {
  if (text == nullptr || time == nullptr || probes == nullptr || interval == nullptr) return -1;

  const c_string copy{must_copy(text, ALLOCATION("strdup().\n", 1))};
  char* rest = copy.get();
  const char* time_field = strsep(&rest, ",");
  const char* probes_field = strsep(&rest, ",");
  const char* interval_field = strsep(&rest, ",");
  if (interval_field == nullptr) return -1;

  *time = keepalive_field(time_field);
  *probes = keepalive_field(probes_field);
  *interval = keepalive_field(interval_field);
  return 0;
}
