#include "ctl/settings.h"

#include "usi.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <poll.h>
#include <sys/file.h>

namespace {

constexpr char default_storage[] = "/etc/orvel/settings";

std::string trimmed(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return "";
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

void use_settings(const settings_files& files) {
  usiSetStorageFile(files.storage.c_str());
  usiSetProfile(files.profile.c_str());
  usiSetConfigFile(files.config.c_str());
}

std::string storage_path(const settings_files& files) {
  if (!files.storage.empty()) return files.storage;
  // The library doesn't tell; but its config file has the format of a storage file, so it can be asked what it says.
  usiSetStorageFile(usiGetCurrentConfig());
  const setting chosen = read_setting("storage");
  usiSetStorageFile(nullptr);
  return chosen.code == 0 && !chosen.value.empty() ? chosen.value : default_storage;
}

setting read_setting(const std::string& key) {
  char* found = nullptr;
  const int code = usiGet(key.c_str(), &found, UINT_MAX);
  const c_string value{found};
  return {code, value ? value.get() : ""};
}

int write_setting(const std::string& key, const std::string& value) {
  const int code = usiSet(key.c_str(), value.c_str());
  return code < 0 ? code : usiCommit();
}

std::vector<std::string> keys_in_file(const std::string& path, const std::string& prefix) {
  std::vector<std::string> keys;
  std::ifstream file{path};
  for (std::string line; std::getline(file, line);) {
    const size_t equals = line.find('=');
    if (equals == std::string::npos) continue;
    std::string key = trimmed(line.substr(0, equals));
    if (key.compare(0, prefix.size(), prefix) != 0) continue;
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(std::move(key));
  }
  return keys;
}

std::string folder_of_settings(const std::string& storage) {
  const size_t slash = storage.rfind('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : storage.substr(0, slash);
}

fd_owner lock_settings(const std::string& storage, int interrupt) {
  constexpr int most_attempts = 200;
  constexpr int pause = 50;  // milliseconds
  // The folder, since each commit replaces the file itself.
  fd_owner fd{open(folder_of_settings(storage).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
  if (!fd.valid()) return fd;
  for (int attempt = 0; attempt < most_attempts; ++attempt) {
    if (flock(fd.get(), LOCK_EX | LOCK_NB) == 0) return fd;
    pollfd watched{interrupt, POLLIN, 0};
    if (poll(&watched, 1, pause) > 0) {
      fd.reset();
      errno = EINTR;
      return fd;
    }
  }
  fd.reset();
  errno = EWOULDBLOCK;
  return fd;
}
