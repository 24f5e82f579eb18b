#pragma once

#include <cstddef>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <unistd.h>
#include <utility>

// Ownership: smart handles for C resources, and the allocations whose failure ends the process.

/// Deleter that calls a C release function: `using ssl_ptr = std::unique_ptr<SSL, releaser<SSL_free>>;`
template <auto release> struct releaser {
  template <typename T> void operator()(T* resource) const { release(resource); }
};

/// A malloc'ed string, and a malloc'ed block of bytes.
using c_string = std::unique_ptr<char, releaser<std::free>>;
using c_bytes = std::unique_ptr<unsigned char, releaser<std::free>>;

/// Owns a file descriptor; -1 is none.
class fd_owner {
public:
  fd_owner() = default;
  explicit fd_owner(int fd) : fd_{fd} {}
  fd_owner(fd_owner&& other) noexcept : fd_{other.release()} {}
  fd_owner& operator=(fd_owner&& other) noexcept {
    reset(other.release());
    return *this;
  }
  fd_owner(const fd_owner&) = delete;
  fd_owner& operator=(const fd_owner&) = delete;
  ~fd_owner() { reset(); }

  [[nodiscard]] int get() const { return fd_; }
  [[nodiscard]] bool valid() const { return fd_ >= 0; }
  [[nodiscard]] int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = fd;
  }

private:
  int fd_ = -1;
};

/// The two ends of a pipe, or of none.
struct pipe_ends {
  fd_owner read_end;
  fd_owner write_end;

  [[nodiscard]] bool valid() const { return read_end.valid() && write_end.valid(); }
};

/// A new pipe with the flags of pipe2(2); none, and errno, when it can't be made.
[[nodiscard]] inline pipe_ends make_pipe(int flags) {
  int ends[2];
  if (::pipe2(ends, flags) != 0) return {};
  return {fd_owner{ends[0]}, fd_owner{ends[1]}};
}

/// Frees a record's string and sets it to null.
inline void release_string(char*& text) {
  std::free(std::exchange(text, nullptr));
}

/// Where an allocation happens, and what is logged (at ERROR) and which exit status ends the process if it fails.
struct allocation_site {
  const char* source;
  int line;
  const char* text;
  int status;
};
#define ALLOCATION(text, status) (allocation_site{log_source, __LINE__, text, status})

/// `size` bytes from malloc; never null.
[[nodiscard]] void* must_allocate(size_t size, const allocation_site& site);

/// A copy of `text` from malloc; never null. `text` must not be null.
[[nodiscard]] char* must_copy(const char* text, const allocation_site& site);

/// As must_copy(), but null stays null.
[[nodiscard]] char* must_copy_if_any(const char* text, const allocation_site& site);

/// Logs and ends the process as `site` says.
[[noreturn]] void allocation_failed(const allocation_site& site);
