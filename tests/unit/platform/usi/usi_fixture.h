#pragma once

#include "usi.h"
#include "usi_internal.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

/// Sets a value of the library's own options: tests commit hundreds of times, and few of them are about the
/// disk.
constexpr char no_sync[] = "sync=none\n";

inline void write_file(const std::filesystem::path& path, const std::string& content) {
  std::ofstream{path, std::ios::binary} << content;
}

inline std::string read_file(const std::filesystem::path& path) {
  std::ifstream file{path, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

inline unsigned mode_of(const std::filesystem::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : ~0U;
}

/// The value of a setting; nothing when it is not set. A failure of the library is a failure of the test.
inline std::optional<std::string> value_of(const std::string& key, unsigned size = 1U << 30U) {
  char* value = nullptr;
  const int code = usiGet(key.c_str(), &value, size);
  EXPECT_EQ(code, 0) << key << ": " << usiStrerror(code);
  if (!value) return {};
  std::string text{value};
  free(value);
  return text;
}

/// The code of a usiGet that must not hand back a value.
inline int get_code(const char* key) {
  char* value = nullptr;
  const int code = usiGet(key, &value, 64);
  EXPECT_EQ(value, nullptr);
  free(value);
  return code;
}

inline int set_and_commit(const std::string& key, const std::string& value) {
  const int code = usiSet(key.c_str(), value.c_str());
  return code < 0 ? code : usiCommit();
}

/// Starts a child process that runs `work` and ends with its result as exit status.
template <typename Work> pid_t start_child(Work work) {
  const pid_t child = fork();
  if (child == 0) _exit(work());
  EXPECT_GT(child, 0);
  return child;
}

/// The wait status of a child.
inline int end_of(pid_t child) {
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}

/// The result of `work`, done in a child process; -1 if the process was killed.
template <typename Work> int in_child(Work work) {
  const int status = end_of(start_child(work));
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// A folder of its own with the three files of the store, and a library that knows nothing yet.
class UsiStore : public testing::Test {
protected:
  UsiStore() {
    std::string name = testing::TempDir() + "/usi-XXXXXX";
    folder = mkdtemp(name.data());
    storage = folder / "settings";
    profile = folder / "profile";
    config = folder / "usi.conf";
    write_file(config, no_sync);
    restart();
  }
  ~UsiStore() override {
    usi_reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }

  /// As in a new process.
  void restart() const {
    usi_reset();
    usiSetStorageFile(storage.c_str());
    usiSetProfile(profile.c_str());
    usiSetConfigFile(config.c_str());
  }

  [[nodiscard]] bool temporary_file_is_left() const {
    return std::filesystem::exists(std::filesystem::symlink_status(folder / "settings.usi-new"));
  }

  std::filesystem::path folder;
  std::filesystem::path storage;
  std::filesystem::path profile;
  std::filesystem::path config;
};
