#include "usi_file.h"

#include "usi.h"

#include <cstdlib>
#include <fcntl.h>
#include <sys/mman.h>

namespace {

bool same_time(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool same_stamp(const usi_stamp& a, const usi_stamp& b) {
  if (!a.exists || !b.exists) return a.exists == b.exists;
  return a.device == b.device && a.inode == b.inode && a.size == b.size &&
         same_time(a.modified, b.modified) && same_time(a.changed, b.changed);
}

usi_stamp stamp_of(const struct stat& status) {
  return {true, status.st_dev, status.st_ino, status.st_size, status.st_mtim, status.st_ctim};
}

/// Maps a page that is never touched: while it is mapped, the file's inode lives on and its number is not
/// given to another file, so that a commit of the same size within one clock tick can't pass for the content
/// read before. A descriptor would do the same, but one kept open may be closed by whoever closes all of
/// them. Null on failure.
void* pin_inode(int fd) {
  void* page = mmap(nullptr, 1, PROT_NONE, MAP_PRIVATE, fd, 0);
  return page == MAP_FAILED ? nullptr : page;
}

/// Reads `size` bytes or, if the file was cut since, up to its end. Returns what was read, or a negative
/// code.
ssize_t read_bytes(int fd, char* to, size_t size) {
  size_t filled = 0;
  while (filled < size) {
    const ssize_t got = usi_uninterrupted([&] { return read(fd, to + filled, size - filled); });
    if (got < 0) return -errno;
    if (got == 0) break;
    filled += static_cast<size_t>(got);
  }
  return static_cast<ssize_t>(filled);
}

void install(usi_file* file, usi_text* text, const usi_stamp& stamp, void* pin) {
  usi_file_release(file);
  file->text = std::exchange(*text, {});
  file->stamp = stamp;
  file->pin = pin;
  file->current = pin || !stamp.exists;
}

int load_descriptor(usi_file* file, int fd) {
  struct stat status {};
  if (fstat(fd, &status) < 0) return -errno;
  if (!S_ISREG(status.st_mode)) return USI_NOT_A_FILE;
  if (status.st_size > USI_MAX_FILE) return USI_FILE_TOO_BIG;
  const auto size = static_cast<size_t>(status.st_size);
  usi_string bytes{static_cast<char*>(malloc(size + 1))};
  if (!bytes) return -ENOMEM;
  const ssize_t got = read_bytes(fd, bytes.get(), size);
  if (got < 0) return static_cast<int>(got);
  usi_text text{};
  const int code = usi_text_parse(&text, bytes.release(), static_cast<size_t>(got));
  if (code < 0) return code;
  install(file, &text, stamp_of(status),
          pin_inode(fd));  // the status from before the reading: later writes differ
  return 0;
}

int load(usi_file* file, const char* path) {
  // O_NONBLOCK: a pipe put in place of the file just now must not block us.
  const usi_fd source{
      usi_uninterrupted([path] { return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); })};
  if (source.fd >= 0) return load_descriptor(file, source.fd);
  if (errno != ENOENT) return -errno;
  usi_text empty{};
  install(file, &empty, usi_stamp{}, nullptr);
  return 0;
}

}  // namespace

int usi_file_refresh(usi_file* file, const char* path) {
  struct stat status {};
  usi_stamp now{};
  if (stat(path, &status) == 0) {
    if (!S_ISREG(status.st_mode)) return USI_NOT_A_FILE;
    now = stamp_of(status);
  } else if (errno != ENOENT) {
    return -errno;
  }
  return file->current && same_stamp(now, file->stamp) ? 0 : load(file, path);
}

void usi_file_release(usi_file* file) {
  usi_text_release(&file->text);
  if (file->pin) munmap(file->pin, 1);
  *file = {};
}

void usi_file_adopt(usi_file* file, usi_text* text, int fd) {
  struct stat status {};
  void* pin = fstat(fd, &status) == 0 ? pin_inode(fd) : nullptr;
  install(file, text, stamp_of(status), pin);
}
