#include "usi_file.h"

#include "usi.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/file.h>

namespace {

constexpr int max_links = 40;  // as many as the kernel follows
constexpr int64_t lock_patience_ms = 5000;
constexpr long longest_pause_ms = 16;

constexpr char lock_suffix[] = ".lock";
constexpr char temporary_suffix[] = ".usi-new";

struct path_text {
  char text[PATH_MAX];
};

struct file_name {
  char text[300];
};

/// The name of a helper file beside the place's file; too long a name fails in open().
file_name beside(const usi_place* place, const char* suffix) {
  file_name name{};
  snprintf(name.text, sizeof name.text, "%s%s", place->name, suffix);
  return name;
}

/// Follows one link: `path` becomes what it points to. A relative target counts from the link's folder.
int follow(path_text* path, const char* target) {
  path_text next{};
  const char* slash = *target == '/' ? nullptr : strrchr(path->text, '/');
  const int folder = slash ? static_cast<int>(slash - path->text) + 1 : 0;
  const int length = snprintf(next.text, sizeof next.text, "%.*s%s", folder, path->text, target);
  if (length < 0 || static_cast<size_t>(length) >= sizeof next.text) return -ENAMETOOLONG;
  *path = next;
  return 0;
}

/// Resolves links in the last component only: the kernel resolves those in folders.
int resolve_links(path_text* path) {
  for (int links = 0; links <= max_links; ++links) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path->text, target, sizeof target);
    if (length < 0) return errno == EINVAL || errno == ENOENT ? 0 : -errno;
    if (static_cast<size_t>(length) == sizeof target) return -ENAMETOOLONG;
    target[length] = 0;
    if (const int code = follow(path, target)) return code;
  }
  return -ELOOP;
}

int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/// A file under a temporary name, which goes unless it was kept.
struct temporary_file {
  temporary_file(int opened_folder, const file_name& chosen) : folder{opened_folder}, name{chosen} {}
  temporary_file(const temporary_file&) = delete;
  temporary_file& operator=(const temporary_file&) = delete;
  ~temporary_file() {
    if (!kept) unlinkat(folder, name.text, 0);
  }

  int folder;
  file_name name;
  bool kept = false;
};

/// Creates a file that did not exist. One left by a killed commit is removed first: we hold the lock, so
/// nobody writes it.
int create(int folder, const char* name) {
  const auto attempt = [=] {
    return openat(folder, name, O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR);
  };
  const int fd = usi_uninterrupted(attempt);
  if (fd >= 0 || errno != EEXIST) return fd;
  if (unlinkat(folder, name, 0) < 0) return -1;
  return usi_uninterrupted(attempt);
}

/// Gives the new file the mode and the owner of the one it replaces. What is right already is not set again, which
/// would cost the file system a transaction.
int keep_attributes(const usi_place* place, int fd) {
  struct stat fresh {};
  if (fstat(fd, &fresh) < 0) return -errno;
  struct stat old {};
  mode_t mode = S_IRUSR | S_IWUSR;
  if (fstatat(place->folder.fd, place->name, &old, AT_SYMLINK_NOFOLLOW) == 0) {
    if (!S_ISREG(old.st_mode)) return USI_NOT_A_FILE;
    const bool same_owner = old.st_uid == fresh.st_uid && old.st_gid == fresh.st_gid;
    if (!same_owner && fchown(fd, old.st_uid, old.st_gid) < 0) return -errno;
    mode = old.st_mode & 07777;
  } else if (errno != ENOENT) {
    return -errno;
  }
  return mode != (fresh.st_mode & 07777) && fchmod(fd, mode) < 0 ? -errno : 0;
}

int write_bytes(int fd, const char* bytes, size_t size) {
  while (size > 0) {
    const ssize_t written = usi_uninterrupted([=] { return write(fd, bytes, size); });
    if (written < 0) return -errno;
    bytes += written;
    size -= static_cast<size_t>(written);
  }
  return 0;
}

/// Puts a file or a folder on the medium. Where the file system has no such call (EINVAL: read-only image
/// formats, some network file systems for folders) there is nothing to wait for.
int sync_descriptor(int fd) {
  return usi_uninterrupted([fd] { return fsync(fd); }) < 0 && errno != EINVAL ? -errno : 0;
}

int fill(const usi_place* place, const usi_text* text, bool sync, int fd) {
  if (const int code = keep_attributes(place, fd)) return code;
  if (const int code = write_bytes(fd, text->bytes, text->size)) return code;
  return sync ? sync_descriptor(fd) : 0;
}

}  // namespace

int usi_place_open(usi_place* place, const char* path) {
  path_text resolved{};
  if (strlen(path) >= sizeof resolved.text) return -ENAMETOOLONG;
  snprintf(resolved.text, sizeof resolved.text, "%s", path);
  if (const int code = resolve_links(&resolved)) return code;
  char* slash = strrchr(resolved.text, '/');
  const char* name = slash ? slash + 1 : resolved.text;
  if (*name == 0) return USI_NOT_A_FILE;
  const size_t name_size = strlen(name) + 1;
  if (name_size > sizeof place->name) return -ENAMETOOLONG;
  memcpy(place->name, name, name_size);
  const char* folder = ".";
  if (slash) {
    slash[slash == resolved.text ? 1 : 0] = 0;  // "/name" is in the folder "/"
    folder = resolved.text;
  }
  place->folder =
      usi_fd{usi_uninterrupted([folder] { return open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC); })};
  return place->folder.fd < 0 ? -errno : 0;
}

int usi_place_take_lock(const usi_place* place, usi_place_lock* lock) {
  const file_name name = beside(place, lock_suffix);
  lock->file = usi_fd{usi_uninterrupted([&] {
    return openat(place->folder.fd, name.text,
                  O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, S_IRUSR | S_IWUSR);
  })};
  const int fd = lock->file.fd;
  if (fd < 0) return -errno;
  // Tried again and again instead of waited for: the holder may be a stopped process, and only then it takes
  // long.
  const int64_t deadline = monotonic_ms() + lock_patience_ms;
  long pause_ms = 1;
  while (usi_uninterrupted([fd] { return flock(fd, LOCK_EX | LOCK_NB); }) < 0) {
    if (errno != EWOULDBLOCK) return -errno;
    if (monotonic_ms() >= deadline) return USI_LOCKED;
    const timespec pause{0, pause_ms * 1000000};
    nanosleep(&pause, nullptr);
    pause_ms = std::min(pause_ms * 2, longest_pause_ms);
  }
  return 0;
}

usi_place_lock::~usi_place_lock() {
  // Given back explicitly: a child that was just forked may hold the descriptor until its exec.
  if (file.fd >= 0) flock(file.fd, LOCK_UN);
}

int usi_place_replace(const usi_place* place, usi_text* text, bool sync, usi_file* replaced) {
  const int folder = place->folder.fd;
  const file_name name = beside(place, temporary_suffix);
  const usi_fd fresh{create(folder, name.text)};
  if (fresh.fd < 0) return -errno;
  temporary_file temporary{folder, name};
  if (const int code = fill(place, text, sync, fresh.fd)) return code;
  // It is known by this one from now on: what pins its inode must not keep it open for writing, or its file
  // system could not be made read-only any more.
  const usi_fd readable{
      usi_uninterrupted([&] { return openat(folder, name.text, O_RDONLY | O_CLOEXEC | O_NOFOLLOW); })};
  if (readable.fd < 0) return -errno;
  if (renameat(folder, name.text, folder, place->name) < 0) return -errno;
  temporary.kept = true;
  usi_file_adopt(replaced, text, readable.fd);  // at once: from now on others may write to the file
  if (const int code = sync ? sync_descriptor(folder) : 0) return code;
  replaced->durable = true;
  return 0;
}

int usi_sync_path(const char* path) {
  usi_place place{};
  if (const int code = usi_place_open(&place, path)) return code;
  const usi_fd file{usi_uninterrupted([&] {
    return openat(place.folder.fd, place.name, O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  })};
  if (file.fd < 0) return -errno;
  const int code = sync_descriptor(file.fd);
  return code < 0 ? code : sync_descriptor(place.folder.fd);
}
