#include "fake_settings.h"

#include "core/config.h"

#include <cstring>

std::map<std::string, std::string>& fake_settings() {
  static std::map<std::string, std::string> settings;
  return settings;
}

int config_get(const char* name, char* dst, uint32_t size) {
  const auto found = fake_settings().find(name);
  if (found == fake_settings().end() || found->second.empty()) return -1;
  const std::string value = found->second.substr(0, size - 1);
  std::memcpy(dst, value.c_str(), value.size() + 1);
  return 0;
}

int config_set(const char* name, const char* value) {
  fake_settings()[name] = value;
  return 0;
}
