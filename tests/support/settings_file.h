#pragma once

#include "usi.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <unistd.h>

/// The settings store of a test program: one file for the process, filled anew by each test.
class settings_file {
public:
  explicit settings_file(const std::map<std::string, std::string>& values = {}) { fill(values); }

  /// Replaces the whole content.
  static void fill(const std::map<std::string, std::string>& values) {
    const std::string next = path() + ".next";
    {
      std::ofstream file{next};
      for (const auto& [key, value] : values) {
        file << key << '=' << value << '\n';
      }
    }
    std::filesystem::rename(next, path());
  }

  /// The stored value, or "" when the key is not there.
  static std::string value(const std::string& key) {
    std::ifstream file{path()};
    std::string found;
    for (std::string line; std::getline(file, line);) {
      if (line.compare(0, key.size() + 1, key + "=") == 0) found = line.substr(key.size() + 1);
    }
    return found;
  }

  static const std::string& path() {
    static const std::string chosen = [] {
      char folder[] = "/tmp/orvel-unit-XXXXXX";
      if (mkdtemp(folder) == nullptr) std::abort();
      const std::string file = std::string{folder} + "/settings";
      usiSetStorageFile(file.c_str());
      static const std::string to_remove = folder;
      static const pid_t owner = getpid();
      std::atexit([] {
        if (getpid() == owner) std::filesystem::remove_all(to_remove);
      });
      return file;
    }();
    return chosen;
  }
};
