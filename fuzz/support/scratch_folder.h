#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

/// A folder of this process's own under $TMPDIR, removed at its end (after a crash, by whoever set $TMPDIR).
inline const std::string& scratch_folder() {
  static const std::string& path = *[] {
    const char* parent = std::getenv("TMPDIR");
    std::string name = std::string{parent != nullptr ? parent : "/tmp"} + "/orvel-fuzz-XXXXXX";
    if (mkdtemp(name.data()) == nullptr) std::abort();
    std::atexit([] { std::filesystem::remove_all(scratch_folder()); });
    return new std::string{name};  // needed until the very end
  }();
  return path;
}

inline std::string read_file(const std::string& path) {
  std::ifstream file{path, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

inline void write_file(const std::string& path, const std::string& content) {
  std::ofstream{path, std::ios::binary} << content;
}
