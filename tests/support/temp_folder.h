#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

/// A new folder under /tmp, removed with everything in it at the end. Only its owner gets in unless `mode` says more.
class temp_folder {
public:
  explicit temp_folder(std::filesystem::perms mode = std::filesystem::perms::owner_all) {
    char name[] = "/tmp/orvel-unit-XXXXXX";
    if (mkdtemp(name) == nullptr) std::abort();
    path_ = name;
    std::filesystem::permissions(path_, mode);
  }
  ~temp_folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  temp_folder(const temp_folder&) = delete;
  temp_folder& operator=(const temp_folder&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  [[nodiscard]] std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
  std::string path_;
};

inline std::string read_text_file(const std::string& name) {
  std::ifstream file{name, std::ios::binary};
  return {std::istreambuf_iterator<char>{file}, {}};
}

inline void write_text_file(const std::string& name, const std::string& content) {
  std::ofstream{name, std::ios::binary} << content;
}
