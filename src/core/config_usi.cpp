#include "core/config.h"

#include "core/log.h"
#include "core/owned.h"
#include "usi.h"

#include <cstdio>

namespace {

constexpr char log_source[] = "config_usi";

}  // namespace

int config_get(const char* name, char* dst, uint32_t size) {
  char* found = nullptr;
  const int code = usiGet(name, &found, size);
  const c_string value{found};
  if (code < 0) log_info("Can't get value by name:'%s' error: %s.\n", name, usiStrerror(code));
  // Even a failed read may have handed a value back, and then that counts.
  if (!value || *value == '\0') return -1;
  std::snprintf(dst, size, "%s", value.get());
  return 0;
}

int config_set(const char* name, const char* value) {
  const int set_code = usiSet(name, value);
  if (set_code < 0) log_info("Can't set value by name:'%s' error: %s.\n", name, usiStrerror(set_code));
  // After a failed set too: an earlier value may still wait for its commit.
  const int commit_code = usiCommit();
  if (commit_code < 0) log_info("Can't commit nvram, error: %s.\n", usiStrerror(commit_code));
  return 0;
}
