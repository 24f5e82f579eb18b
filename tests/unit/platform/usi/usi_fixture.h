#pragma once

#include "forked.h"
#include "temp_folder.h"
#include "usi.h"
#include "usi_internal.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <sys/stat.h>

/// Sets a value of the library's own options: tests commit hundreds of times, and few of them are about the
/// disk.
constexpr char no_sync[] = "sync=none\n";

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

/// A folder of its own with the three files of the store, and a library that knows nothing yet.
class UsiStore : public testing::Test {
protected:
  UsiStore() {
    write_text_file(config, no_sync);
    restart();
  }
  ~UsiStore() override { usi_reset(); }

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

  const temp_folder home;
  const std::filesystem::path folder{home.path()};
  const std::filesystem::path storage = folder / "settings";
  const std::filesystem::path profile = folder / "profile";
  const std::filesystem::path config = folder / "usi.conf";
};
