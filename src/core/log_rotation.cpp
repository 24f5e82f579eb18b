#include "core/log_rotation.h"

#include "core/options.h"
#include "core/owned.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

namespace {

// One rotation at a time. What the rotating thread takes, its compression thread gives back, so `running` is a
// semaphore; whoever holds it owns `folder`.
struct rotation_state {
  std::atomic<int> running{0};
  int folder = -1;  ///< open folder of the log, locked against other processes; -1: could not be opened
};
constinit rotation_state state{};
static_assert(std::atomic<int>::is_always_lock_free);

// The largest number of generations that is looked for.
constexpr int most_generations = 10'000;

constexpr timespec lock_pause{0, 50'000'000};
constexpr int lock_attempts = 200;

using gzip_file = std::unique_ptr<gzFile_s, releaser<gzclose>>;

// The names that generation `n` may have; generation 0 is the log itself and has no compressed form.
struct generation_names {
  char plain[4096 + 12];
  char compressed[sizeof plain + 3];
  char part[sizeof compressed + 5];  // the compressed form while it is written: the process may end meanwhile

  generation_names(const char* base, int n) {
    std::snprintf(plain, sizeof plain, n == 0 ? "%s" : "%s.%d", base, n);
    std::snprintf(compressed, sizeof compressed, "%s.%d.gz", base, n);
    std::snprintf(part, sizeof part, "%s.gz.part", plain);
  }
};

int generation_count() {
  return std::clamp(options.log_rotation_count, 0, most_generations);
}

// Locks the folder of `file` for this process. False only when another process holds it: a folder that can't
// be opened or locked is rotated in without.
bool lock_folder(const char* file) {
  char folder[4096] = ".";
  const char* slash = std::strrchr(file, '/');
  if (slash != nullptr) {
    const size_t length = std::min(static_cast<size_t>(slash - file) + 1, sizeof folder - 1);
    std::memcpy(folder, file, length);
    folder[length] = '\0';
  }
  state.folder = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (state.folder < 0 || flock(state.folder, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return true;
  close(std::exchange(state.folder, -1));
  return false;
}

bool begin_rotation(const char* file) {
  if (state.running.exchange(1, std::memory_order_acquire) != 0) return false;
  if (lock_folder(file)) return true;
  state.running.store(0, std::memory_order_release);
  return false;
}

// The lock is given back by word: a child that was forked meanwhile holds a copy of the descriptor. It goes last,
// so that whoever finds it free finds `running` free as well.
void end_rotation() {
  const int folder = std::exchange(state.folder, -1);
  state.running.store(0, std::memory_order_release);
  if (folder < 0) return;
  flock(folder, LOCK_UN);
  close(folder);
}

// Moves generation `n - 1` to `n`, in the forms that it has. No compression runs, so a part of `n` is what a process
// left behind that was killed while it compressed.
void move_up(const char* base, int n) {
  const generation_names from{base, n - 1};
  const generation_names to{base, n};
  unlink(to.part);
  const bool moved_plain = std::rename(from.plain, to.plain) == 0;
  const bool moved_compressed = n > 1 && std::rename(from.compressed, to.compressed) == 0;
  // What falls off at the end goes in whichever form it has.
  if (moved_plain != moved_compressed) unlink(moved_plain ? to.compressed : to.plain);
}

void start_compression(const char* file) {
  sigset_t all;
  sigset_t before;
  pthread_attr_t detached;
  pthread_t thread;
  char* base_name = strdup(file);
  if (base_name == nullptr) return end_rotation();

  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_attr_init(&detached);
  pthread_attr_setdetachstate(&detached, PTHREAD_CREATE_DETACHED);
  const auto body = [](void* name) -> void* {
    compress_rotated(static_cast<char*>(name));
    return nullptr;
  };
  const bool started = pthread_create(&thread, &detached, body, base_name) == 0;
  pthread_attr_destroy(&detached);
  pthread_sigmask(SIG_SETMASK, &before, nullptr);

  if (started) return;
  std::free(base_name);
  end_rotation();
}

// Waits until no writer that opened the file before it was moved is left. A lock that can't be had at all
// (some file systems) is done without.
bool wait_for_writers(int file) {
  for (int attempt = 0; attempt < lock_attempts; ++attempt) {
    if (flock(file, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK) return true;
    nanosleep(&lock_pause, nullptr);
  }
  return false;
}

// Copies `source` to `out`. True when every byte got through.
bool copy_compressed(int source, gzFile out) {
  char block[16384];
  for (;;) {
    const ssize_t size = read(source, block, sizeof block);
    if (size <= 0) return size == 0;
    if (gzwrite(out, block, static_cast<unsigned>(size)) != size) return false;
  }
}

// Compresses one generation and deletes its plain form; when that fails, it stays and no half of the other does.
void compress_generation(const generation_names& names) {
  const fd_owner source{open(names.plain, O_RDONLY | O_CLOEXEC)};
  if (!source.valid() || !wait_for_writers(source.get())) return;

  struct stat status {};
  const bool has_content = fstat(source.get(), &status) == 0 && status.st_size > 0;
  gzip_file out{has_content ? gzopen(names.part, "wbe") : nullptr};
  if (out) {
    const bool copied = copy_compressed(source.get(), out.get());
    const bool closed = gzclose(out.release()) == Z_OK;
    const bool whole = copied && closed && std::rename(names.part, names.compressed) == 0;
    unlink(whole ? names.plain : names.part);
  }
  flock(source.get(), LOCK_UN);
}

}  // namespace

bool needs_rotation(off_t size, size_t line_length) {
  return static_cast<uint64_t>(size) + line_length > options.log_rotation_size;
}

void rotate_log(const char* file, size_t line_length) {
  if (!begin_rotation(file)) return;
  struct stat status {};
  if (stat(file, &status) != 0) status.st_size = 0;
  if (!needs_rotation(status.st_size, line_length)) return end_rotation();
  for (int n = generation_count(); n >= 1; --n) {
    move_up(file, n);
  }
  start_compression(file);
}

void compress_rotated(char* base_name) {
  const c_string base{base_name};
  for (int n = 1; n <= generation_count(); ++n) {
    compress_generation({base.get(), n});
  }
  end_rotation();
}

int delete_oldest_generation(const char* file) {
  for (int n = generation_count(); n >= 1; --n) {
    const generation_names names{file, n};
    if (unlink(names.plain) == 0 || unlink(names.compressed) == 0) return 1;
  }
  return 0;
}

void rotation_after_fork() {
  const int folder = std::exchange(state.folder, -1);
  if (folder >= 0) close(folder);
  state.running.store(0, std::memory_order_relaxed);
}
