// Preloaded: counts the calls of some functions by where they come from, and makes one of them fail.
//
// The counters live in a file that the experiment maps as well (tests/torture/faulting/points.py knows the layout), so that they
// are shared by the agent, its watchdog and its children. Programs other than the one named are left alone.
//
// A call from the program's own code is known by its path: the return addresses of the innermost frames that lie in the
// program, `path_depth` at most; it has to be built with frame pointers. A call from a library is known by the library
// and its return address alone.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

enum { path_depth = 4, most_sites = 16384, most_modules = 64, module_name_size = 120 };

// The order is that of FUNCTIONS in points.py.
enum function {
  f_malloc,
  f_calloc,
  f_realloc,
  f_strdup,
  f_open,
  f_openat,
  f_fopen,
  f_write,
  f_send,
  f_read,
  f_recv,
  f_socket,
  f_connect,
  f_pipe,
  f_fork,
  f_vfork,
  f_pthread_create,
  f_rename,
  f_renameat,
  f_fsync,
  f_accept,
  f_poll,
  f_ppoll,
  f_select
};

struct site {
  _Atomic uint64_t key;  // 0: free
  uint32_t function;
  uint32_t module;  // 0: the program itself
  uint64_t path[path_depth];
  _Atomic uint64_t calls;
};

struct shared_state {
  uint64_t target_key;   // 0: nothing fails
  uint64_t target_call;  // 1 is the first of its site
  int32_t target_errno;
  _Atomic int32_t fired;  // how often; 0 or 1
  int32_t fired_pid;
  uint32_t module_count;
  _Atomic uint32_t versions;  // of the settings
  _Atomic uint64_t lost;      // calls for which there was no room
  char modules[most_modules][module_name_size];
  struct site sites[most_sites];
};

static struct shared_state* shared;  // null: stay out of the way

static struct module { uintptr_t base, begin, end; } modules[most_modules];
static uint32_t module_count;

// --- where a call comes from

static int note_module(struct dl_phdr_info* info, size_t size, void* context) {
  (void)size;
  (void)context;
  if (module_count == most_modules) return 1;
  struct module* module = &modules[module_count];
  module->base = info->dlpi_addr;
  module->begin = UINTPTR_MAX;
  for (int i = 0; i < info->dlpi_phnum; ++i) {
    const ElfW(Phdr)* header = &info->dlpi_phdr[i];
    if (header->p_type != PT_LOAD) continue;
    const uintptr_t begin = info->dlpi_addr + header->p_vaddr;
    if (begin < module->begin) module->begin = begin;
    if (begin + header->p_memsz > module->end) module->end = begin + header->p_memsz;
  }
  snprintf(shared->modules[module_count], module_name_size, "%s", info->dlpi_name);
  ++module_count;
  return 0;
}

static int lies_in(uintptr_t address, uint32_t module) {
  return address >= modules[module].begin && address < modules[module].end;
}

// The number of the module, or module_count when it was loaded later.
static uint32_t module_of(uintptr_t address) {
  uint32_t module = 0;
  while (module < module_count && !lies_in(address, module))
    ++module;
  return module;
}

// `frame` is that of the function that was called instead of the real one.
static uint32_t find_path(void* const* frame, uint64_t path[path_depth]) {
  uintptr_t address = (uintptr_t)frame[1];
  const uint32_t module = module_of(address);
  const uintptr_t base = module < module_count ? modules[module].base : 0;
  path[0] = module < module_count ? address - base : 0;
  if (module != 0) return module;
  for (int i = 1; i < path_depth; ++i) {
    void* const* outer = frame[0];
    if (outer <= frame || (uintptr_t)outer - (uintptr_t)frame > (1 << 20)) break;
    frame = outer;
    address = (uintptr_t)frame[1];
    if (!lies_in(address, 0)) break;
    path[i] = address - base;
  }
  return module;
}

// FNV-1a; points.py computes the same.
static uint64_t key_of(uint32_t function, uint32_t module, const uint64_t path[path_depth]) {
  uint64_t numbers[2 + path_depth] = {function, module};
  memcpy(numbers + 2, path, path_depth * sizeof *path);
  uint64_t key = 14695981039346656037U;
  for (size_t i = 0; i < sizeof numbers / sizeof *numbers; ++i) {
    key = (key ^ numbers[i]) * 1099511628211U;
    key ^= key >> 29;
  }
  return key != 0 ? key : 1;
}

static struct site* find_site(uint32_t function, uint32_t module, const uint64_t path[path_depth],
                              uint64_t key) {
  for (size_t i = 0; i < most_sites; ++i) {
    struct site* site = &shared->sites[(key + i) % most_sites];
    uint64_t expected = 0;
    if (atomic_compare_exchange_strong(&site->key, &expected, key)) {
      site->function = function;
      site->module = module;
      memcpy(site->path, path, sizeof site->path);
      return site;
    }
    if (expected == key) return site;
  }
  return NULL;
}

// The errno with which this call is to fail, or 0.
static int fault(enum function function, void* const* frame) {
  if (shared == NULL) return 0;
  const int saved_errno = errno;
  uint64_t path[path_depth] = {0};
  const uint32_t module = find_path(frame, path);
  const uint64_t key = key_of(function, module, path);
  struct site* site = find_site(function, module, path, key);
  if (site == NULL) {
    atomic_fetch_add(&shared->lost, 1);
    return 0;
  }
  const uint64_t call = atomic_fetch_add(&site->calls, 1) + 1;
  errno = saved_errno;
  if (key != shared->target_key || call != shared->target_call) return 0;
  shared->fired_pid = getpid();
  atomic_fetch_add(&shared->fired, 1);
  return shared->target_errno;
}

#define FAULT(function) fault(function, __builtin_frame_address(0))
#define FAIL(function, value) \
  do { \
    const int error_ = FAULT(function); \
    if (error_ != 0) { \
      errno = error_; \
      return (value); \
    } \
  } while (0)
#define REAL(name, type) \
  static __typeof__(type) real_; \
  if (real_ == NULL) *(void**)&real_ = dlsym(RTLD_NEXT, name); \
  const __typeof__(type) real = real_

// Says where the program dies, on its standard error; the signal then ends it as it would have.
static void show_death(int number) {
  static const char title[] = "\ndeath by a signal:\n";
  void* frames[64];
  shared = NULL;
  if (write(STDERR_FILENO, title, sizeof title - 1) > 0) {
    backtrace_symbols_fd(frames, backtrace(frames, 64), STDERR_FILENO);
  }
  raise(number);
}

static void watch_deaths(void) {
  void* frame;
  backtrace(&frame, 1);  // the first call loads a library
  const struct sigaction action = {.sa_handler = show_death, .sa_flags = (int)SA_RESETHAND | SA_NODEFER};
  sigaction(SIGSEGV, &action, NULL);
  sigaction(SIGBUS, &action, NULL);
  sigaction(SIGABRT, &action, NULL);
}

__attribute__((constructor)) static void begin(void) {
  const char* program = getenv("FAULTS_PROGRAM");
  const char* file = getenv("FAULTS_STATE");
  char self[4096];
  const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
  if (program == NULL || file == NULL || length < 0) return;
  self[length] = '\0';
  if (strcmp(self, program) != 0) return;
  int (*real_open)(const char*, int, ...) = (int (*)(const char*, int, ...))dlsym(RTLD_NEXT, "open");
  const int fd = real_open(file, O_RDWR | O_CLOEXEC);
  if (fd < 0) abort();
  struct shared_state* state = mmap(NULL, sizeof *state, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  close(fd);
  if (state == MAP_FAILED) abort();
  watch_deaths();
  shared = state;
  dl_iterate_phdr(note_module, NULL);
  shared->module_count = module_count;
}

// --- memory; the C library's own names for its functions need no look-up, which would allocate

extern void* __libc_malloc(size_t size);
extern void* __libc_calloc(size_t count, size_t size);
extern void* __libc_realloc(void* block, size_t size);

void* malloc(size_t size) {
  FAIL(f_malloc, NULL);
  return __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  FAIL(f_calloc, NULL);
  return __libc_calloc(count, size);
}

void* realloc(void* block, size_t size) {
  FAIL(f_realloc, NULL);
  return __libc_realloc(block, size);
}

char* strdup(const char* text) {
  FAIL(f_strdup, NULL);
  const size_t size = strlen(text) + 1;
  char* copy = __libc_malloc(size);
  return copy != NULL ? memcpy(copy, text, size) : NULL;
}

// --- files

static mode_t mode_argument(int flags, va_list arguments) {
  return (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(arguments, mode_t) : 0;
}

#define OPEN(name) \
  int name(const char* path, int flags, ...) { \
    va_list arguments; \
    va_start(arguments, flags); \
    const mode_t mode = mode_argument(flags, arguments); \
    va_end(arguments); \
    FAIL(f_open, -1); \
    REAL(#name, int (*)(const char*, int, ...)); \
    return real(path, flags, mode); \
  }
#define OPENAT(name) \
  int name(int folder, const char* path, int flags, ...) { \
    va_list arguments; \
    va_start(arguments, flags); \
    const mode_t mode = mode_argument(flags, arguments); \
    va_end(arguments); \
    FAIL(f_openat, -1); \
    REAL(#name, int (*)(int, const char*, int, ...)); \
    return real(folder, path, flags, mode); \
  }
#define FOPEN(name) \
  FILE* name(const char* path, const char* mode) { \
    FAIL(f_fopen, NULL); \
    REAL(#name, FILE* (*)(const char*, const char*)); \
    return real(path, mode); \
  }
OPEN(open)
OPEN(open64)
OPENAT(openat)
OPENAT(openat64)
FOPEN(fopen)
FOPEN(fopen64)

ssize_t write(int fd, const void* bytes, size_t size) {
  FAIL(f_write, -1);
  REAL("write", ssize_t(*)(int, const void*, size_t));
  return real(fd, bytes, size);
}

ssize_t read(int fd, void* bytes, size_t size) {
  FAIL(f_read, -1);
  REAL("read", ssize_t(*)(int, void*, size_t));
  return real(fd, bytes, size);
}

int rename(const char* from, const char* to) {
  FAIL(f_rename, -1);
  REAL("rename", int (*)(const char*, const char*));
  return real(from, to);
}

// Each version of the settings that was put in place: a later one may hide what is wrong with it.
static void keep_version(int folder, const char* name) {
  const char* kept = getenv("FAULTS_VERSIONS");
  if (shared == NULL || kept == NULL || strcmp(name, "settings") != 0) return;
  const int saved_errno = errno;
  char path[4096];
  snprintf(path, sizeof path, "%s/%u", kept, (unsigned)atomic_fetch_add(&shared->versions, 1));
  if (linkat(folder, name, AT_FDCWD, path, 0) != 0) abort();
  errno = saved_errno;
}

int renameat(int from_folder, const char* from, int to_folder, const char* to) {
  FAIL(f_renameat, -1);
  REAL("renameat", int (*)(int, const char*, int, const char*));
  const int result = real(from_folder, from, to_folder, to);
  if (result == 0) keep_version(to_folder, to);
  return result;
}

int fsync(int fd) {
  FAIL(f_fsync, -1);
  REAL("fsync", int (*)(int));
  return real(fd);
}

// --- sockets and pipes

int socket(int domain, int type, int protocol) {
  FAIL(f_socket, -1);
  REAL("socket", int (*)(int, int, int));
  return real(domain, type, protocol);
}

int connect(int fd, const struct sockaddr* address, socklen_t size) {
  FAIL(f_connect, -1);
  REAL("connect", int (*)(int, const struct sockaddr*, socklen_t));
  return real(fd, address, size);
}

int accept(int fd, struct sockaddr* address, socklen_t* size) {
  FAIL(f_accept, -1);
  REAL("accept", int (*)(int, struct sockaddr*, socklen_t*));
  return real(fd, address, size);
}

int accept4(int fd, struct sockaddr* address, socklen_t* size, int flags) {
  FAIL(f_accept, -1);
  REAL("accept4", int (*)(int, struct sockaddr*, socklen_t*, int));
  return real(fd, address, size, flags);
}

ssize_t send(int fd, const void* bytes, size_t size, int flags) {
  FAIL(f_send, -1);
  REAL("send", ssize_t(*)(int, const void*, size_t, int));
  return real(fd, bytes, size, flags);
}

ssize_t recv(int fd, void* bytes, size_t size, int flags) {
  FAIL(f_recv, -1);
  REAL("recv", ssize_t(*)(int, void*, size_t, int));
  return real(fd, bytes, size, flags);
}

int pipe(int ends[2]) {
  FAIL(f_pipe, -1);
  REAL("pipe", int (*)(int*));
  return real(ends);
}

int pipe2(int ends[2], int flags) {
  FAIL(f_pipe, -1);
  REAL("pipe2", int (*)(int*, int));
  return real(ends, flags);
}

// --- waiting

int poll(struct pollfd* watched, nfds_t count, int timeout) {
  FAIL(f_poll, -1);
  REAL("poll", int (*)(struct pollfd*, nfds_t, int));
  return real(watched, count, timeout);
}

int ppoll(struct pollfd* watched, nfds_t count, const struct timespec* timeout, const sigset_t* mask) {
  FAIL(f_ppoll, -1);
  REAL("ppoll", int (*)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*));
  return real(watched, count, timeout, mask);
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, struct timeval* timeout) {
  FAIL(f_select, -1);
  REAL("select", int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*));
  return real(count, readable, writable, exceptional, timeout);
}

// --- processes and threads

pid_t fork(void) {
  FAIL(f_fork, -1);
  REAL("fork", pid_t(*)(void));
  return real();
}

// A function that is called can't return twice on one stack, so the child gets a memory of its own.
pid_t vfork(void) {
  FAIL(f_vfork, -1);
  REAL("fork", pid_t(*)(void));
  return real();
}

int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                   void* argument) {
  const int error = FAULT(f_pthread_create);
  if (error != 0) return error;
  REAL("pthread_create", int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*));
  return real(thread, attributes, body, argument);
}
