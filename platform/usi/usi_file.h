#pragma once

#include "usi_text.h"

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

// Settings files on disk: reading one only when it changed, and replacing one in one step.

/// Repeats a system call that a signal interrupted.
template <typename Call> auto usi_uninterrupted(Call call) {
  auto result = call();
  while (result < 0 && errno == EINTR)
    result = call();
  return result;
}

/// Owns a descriptor; -1 is none.
struct usi_fd {
  usi_fd() = default;
  explicit usi_fd(int opened) : fd{opened} {}
  usi_fd(usi_fd&& other) noexcept : fd{std::exchange(other.fd, -1)} {}
  usi_fd& operator=(usi_fd&& other) noexcept {
    std::swap(fd, other.fd);
    return *this;
  }
  usi_fd(const usi_fd&) = delete;
  usi_fd& operator=(const usi_fd&) = delete;
  ~usi_fd() {
    if (fd >= 0) close(fd);
  }

  int fd = -1;
};

/// What tells one version of a file from another.
struct usi_stamp {
  bool exists;
  dev_t device;
  ino_t inode;
  off_t size;
  timespec modified;
  timespec changed;
};

/// A file's content as last read, and how to tell that it is still the same. `usi_file file{};` was never
/// read.
struct usi_file {
  usi_text text;
  usi_stamp stamp;
  void* pin;     ///< a page mapped from the file, never touched: keeps its inode number from being used again
  bool current;  ///< the stamp can be relied on; otherwise the next look reads the file
  bool durable;  ///< this process knows that the content is on the medium
};

/// Makes the content that of the file at `path` now; costs one stat() when it did not change.
/// Returns 0 (a missing file has no content), or a negative code, and the earlier content stays.
int usi_file_refresh(usi_file* file, const char* path);

/// Frees what the file holds, back to never read; harmless twice.
void usi_file_release(usi_file* file);

/// Makes `text` (taken over, left empty) the content: it is what the open file `fd` holds.
void usi_file_adopt(usi_file* file, usi_text* text, int fd);

/// Where a file is replaced: its folder and its name there, symbolic links resolved.
struct usi_place {
  usi_fd folder;
  char name[256];
};

/// Finds the place of the file that `path` names, which need not exist. Returns 0 or a negative code.
int usi_place_open(usi_place* place, const char* path);

/// Holds the lock of a place until the end of its scope, or of the process.
struct usi_place_lock {
  usi_place_lock() = default;
  usi_place_lock(const usi_place_lock&) = delete;
  usi_place_lock& operator=(const usi_place_lock&) = delete;
  ~usi_place_lock();

  usi_fd file;
};

/// Takes the lock of a place, which excludes other processes and other threads that take it. Readers are not
/// affected.
/// Returns 0, USI_LOCKED after 5 seconds in vain, or another negative code.
int usi_place_take_lock(const usi_place* place, usi_place_lock* lock);

/// Replaces the file of a locked place by one with this text; `sync` makes it durable. No temporary file
/// stays behind. Returns 0, and `replaced` (empty before) is the new file as if read, with the text taken
/// over; or a negative code: then the old file is in place, or, if only the folder's fsync failed, the new
/// one.
int usi_place_replace(const usi_place* place, usi_text* text, bool sync, usi_file* replaced);

/// Makes the present file and its name durable. Returns 0 or a negative code.
int usi_sync_path(const char* path);
