#pragma once

#include "core/log.h"
#include "core/log_rotation.h"
#include "core/options.h"
#include "temp_folder.h"
#include "waiting.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <sys/file.h>
#include <unistd.h>
#include <vector>
#include <zlib.h>

/// The content of a whole and valid gzip file; "broken" otherwise.
inline std::string read_gzip(const std::string& name) {
  const std::string raw = read_text_file(name);
  gzFile file = gzopen(name.c_str(), "rb");
  if (raw.compare(0, 2, "\x1f\x8b") != 0 || file == nullptr) return "broken";
  std::string content;
  char block[4096];
  int size = 0;
  while ((size = gzread(file, block, sizeof block)) > 0) {
    content.append(block, static_cast<size_t>(size));
  }
  return gzclose(file) == Z_OK && size == 0 ? content : "broken";
}

inline std::string incompressible(size_t size) {
  std::string noise;
  std::minstd_rand random{1};
  while (noise.size() < size) {
    noise += static_cast<char>(random() >> 8);
  }
  return noise;
}

/// A lock on a file or folder, as another process would hold it.
class held_lock {
public:
  held_lock(const std::string& name, int kind) : fd_{open(name.c_str(), O_RDONLY | O_CLOEXEC)} {
    EXPECT_EQ(flock(fd_, kind), 0) << strerror(errno);
  }
  ~held_lock() {
    flock(fd_, LOCK_UN);  // by word: a child may hold a copy
    close(fd_);
  }
  held_lock(const held_lock&) = delete;
  held_lock& operator=(const held_lock&) = delete;

private:
  int fd_;
};

/// A log of 4096 bytes and five generations in a folder of its own.
class RotationTest : public testing::Test {
protected:
  RotationTest() {
    options.log_level = level_debug;
    options.console_log = false;
    options.file_log = true;
    options.log_file = file.c_str();
    options.log_rotation_size = 4096;
    options.log_rotation_count = 5;
  }
  ~RotationTest() override {
    wait_for_compression();
    options = saved;
  }

  /// Returns once no compression runs. Taking part in the turns of rotation, without need for one, makes what the
  /// compression thread did visible to this thread.
  void wait_for_compression() const {
    const int fd = open(folder.path().c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(eventually([fd] { return flock(fd, LOCK_EX | LOCK_NB) == 0; }))
        << "a compression doesn't end";
    flock(fd, LOCK_UN);
    close(fd);
    rotate_log((folder / "absent").c_str(), 0);
  }

  /// A line of exactly `length` bytes in the file, whose message begins with `mark`.
  void write_line(const std::string& mark, size_t length) const {
    const size_t frame = std::string{"2000-01-01 00:00:00 ():m:1\t   INFO: \n"}.size();
    const size_t fill = length - frame - std::to_string(getpid()).size() - mark.size();
    log_write(level_info, "m", 1, "%s%s\n", mark.c_str(), std::string(fill, '.').c_str());
  }

  /// The folder's files, by name.
  [[nodiscard]] std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator{folder.path()}) {
      names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  [[nodiscard]] std::string generation(int n) const { return file + "." + std::to_string(n); }

  /// The marks of a file's lines, one after the other: they are single letters here.
  static std::string marks(const std::string& content) {
    std::string found;
    for (size_t at = 0; (at = content.find("INFO: ", at)) != std::string::npos; ++at) {
      found += content[at + 6];
    }
    return found;
  }

  /// How many descriptors of this process are open on the file.
  static int times_opened(const std::string& name) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator{"/proc/self/fd"}) {
      std::error_code closed_meanwhile;
      if (std::filesystem::read_symlink(entry.path(), closed_meanwhile) == name) ++count;
    }
    return count;
  }

  agent_options saved = options;
  temp_folder folder;
  std::string file = folder / "log";
};
