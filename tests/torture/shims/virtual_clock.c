// Preloaded: the program lives on a clock that stands still while anything happens and jumps from one deadline to the
// next when nothing does.
//
// A thread of this shim moves the clock, on the word of the experiment (tests/torture/support/virtual_clock.py), which
// says up to which moment it may run, and by how much the wall clock is ahead of the monotonic one. It jumps when every
// other thread of this process and every thread of the experiment's, which plays the rest of the world, is asleep, and
// has not run between two looks: then nothing is on its way any more. Uptime is the monotonic clock.
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

enum { second = 1000000000, millisecond = 1000000, most_descriptors = 64, looks_needed = 2 };
static const int64_t endless = INT64_MAX;
static const long between_looks_ns = 150000;

// The file that the experiment maps as well.
struct page {
  _Atomic int64_t now;         // nanoseconds of the monotonic clock
  _Atomic int64_t wall_ahead;  // nanoseconds from it to the wall clock
  _Atomic int64_t jumps;
  _Atomic int64_t timed_waits;
};

struct order {
  int64_t until;
  int64_t wall_ahead;
};

// A thread that waits for a deadline or a condition. It stands in the list from before it sleeps until after.
struct waiter {
  int64_t deadline;
  int on_wall_clock;
  const pthread_cond_t* cond;  // or null
  int wake_fd;                 // what its poll() watches beside its own, or -1
  _Atomic uint32_t over;       // woken: by its condition or its deadline
  struct waiter* next;
};

static struct page* page;  // null before the shim is set up: then the real clock counts
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static struct waiter* waiters;  // oldest first
static pthread_key_t wake_fd_key;
static int conversation = -1;
static int own_tasks = -1, others_tasks = -1;

static int64_t nanoseconds(const struct timespec* moment) {
  if (moment->tv_sec >= endless / second) return endless;
  return (int64_t)moment->tv_sec * second + moment->tv_nsec;
}

static struct timespec as_timespec(int64_t moment) {
  struct timespec result = {moment / second, moment % second};
  if (result.tv_nsec < 0) {
    result.tv_nsec += second;
    --result.tv_sec;
  }
  return result;
}

static int64_t wall_now(void) {
  return page->now + page->wall_ahead;
}

static int64_t later(int64_t moment, int64_t duration) {
  return duration > endless - moment ? endless : moment + duration;
}

// --- waiting

static int64_t deadline_of(const struct waiter* waiter) {
  if (waiter->deadline == endless || !waiter->on_wall_clock) return waiter->deadline;
  return waiter->deadline - page->wall_ahead;
}

static void futex(_Atomic uint32_t* word, int operation, uint32_t value) {
  syscall(SYS_futex, word, operation, value, NULL, NULL, 0);
}

// Call with the lock held.
static void wake(struct waiter* waiter) {
  waiter->over = 1;
  if (waiter->wake_fd < 0) {
    futex(&waiter->over, FUTEX_WAKE_PRIVATE, 1);
  } else {
    eventfd_write(waiter->wake_fd, 1);
  }
}

static void enter(struct waiter* waiter) {
  pthread_mutex_lock(&lock);
  struct waiter** end = &waiters;
  while (*end != NULL) {
    end = &(*end)->next;
  }
  *end = waiter;
  if (waiter->deadline != endless) ++page->timed_waits;
  if (deadline_of(waiter) <= page->now) wake(waiter);
  pthread_mutex_unlock(&lock);
}

static void leave(struct waiter* waiter) {
  pthread_mutex_lock(&lock);
  struct waiter** place = &waiters;
  while (*place != waiter) {
    place = &(*place)->next;
  }
  *place = waiter->next;
  pthread_mutex_unlock(&lock);
}

static int wait_on_condition(pthread_cond_t* cond, pthread_mutex_t* mutex, int64_t deadline,
                             int on_wall_clock) {
  struct waiter self = {.deadline = deadline, .on_wall_clock = on_wall_clock, .cond = cond, .wake_fd = -1};
  enter(&self);
  pthread_mutex_unlock(mutex);
  while (self.over == 0) {
    futex(&self.over, FUTEX_WAIT_PRIVATE, 0);
  }
  leave(&self);
  pthread_mutex_lock(mutex);
  return self.cond == NULL ? 0 : ETIMEDOUT;  // whoever signals takes the condition away
}

int pthread_cond_wait(pthread_cond_t* cond, pthread_mutex_t* mutex) {
  return wait_on_condition(cond, mutex, endless, 0);
}

int pthread_cond_clockwait(pthread_cond_t* cond, pthread_mutex_t* mutex, clockid_t clock,
                           const struct timespec* deadline) {
  return wait_on_condition(cond, mutex, nanoseconds(deadline), clock == CLOCK_REALTIME);
}

int pthread_cond_timedwait(pthread_cond_t* cond, pthread_mutex_t* mutex, const struct timespec* deadline) {
  return wait_on_condition(cond, mutex, nanoseconds(deadline), 1);
}

static int wake_waiters(const pthread_cond_t* cond, int all) {
  pthread_mutex_lock(&lock);
  for (struct waiter* waiter = waiters; waiter != NULL; waiter = waiter->next) {
    if (waiter->cond != cond || waiter->over) continue;
    waiter->cond = NULL;
    wake(waiter);
    if (!all) break;
  }
  pthread_mutex_unlock(&lock);
  return 0;
}

int pthread_cond_signal(pthread_cond_t* cond) {
  return wake_waiters(cond, 0);
}

int pthread_cond_broadcast(pthread_cond_t* cond) {
  return wake_waiters(cond, 1);
}

// 0, or the nanoseconds that are left when a signal came first.
static int64_t sleep_until(int64_t deadline, int on_wall_clock) {
  struct waiter self = {.deadline = deadline, .on_wall_clock = on_wall_clock, .wake_fd = -1};
  enter(&self);
  int interrupted = 0;
  while (self.over == 0 && !interrupted) {
    interrupted = syscall(SYS_futex, &self.over, FUTEX_WAIT_PRIVATE, 0, NULL, NULL, 0) != 0 && errno == EINTR;
  }
  leave(&self);
  return self.over ? 0 : deadline_of(&self) - page->now;
}

int nanosleep(const struct timespec* duration, struct timespec* rest) {
  const int64_t left = sleep_until(later(page->now, nanoseconds(duration)), 0);
  if (left == 0) return 0;
  if (rest != NULL) *rest = as_timespec(left);
  errno = EINTR;
  return -1;
}

int clock_nanosleep(clockid_t clock, int flags, const struct timespec* moment, struct timespec* rest) {
  const int absolute = (flags & TIMER_ABSTIME) != 0;
  const int64_t given = nanoseconds(moment);
  const int64_t left =
      sleep_until(absolute ? given : later(page->now, given), absolute && clock == CLOCK_REALTIME);
  if (left == 0) return 0;
  if (!absolute && rest != NULL) *rest = as_timespec(left);
  return EINTR;
}

unsigned sleep(unsigned seconds) {
  return (unsigned)((sleep_until(later(page->now, (int64_t)seconds * second), 0) + second - 1) / second);
}

int usleep(useconds_t duration) {
  const struct timespec as_spec = {duration / 1000000, (long)(duration % 1000000) * 1000};
  return nanosleep(&as_spec, NULL);
}

// --- waiting for descriptors

static void close_wake_fd(void* value) {
  close((int)(intptr_t)value - 1);
}

static int thread_wake_fd(void) {
  intptr_t kept = (intptr_t)pthread_getspecific(wake_fd_key);
  if (kept == 0) {
    kept = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK) + 1;
    if (kept == 0) abort();
    pthread_setspecific(wake_fd_key, (void*)kept);
  }
  return (int)kept - 1;
}

static int real_ppoll(struct pollfd* watched, nfds_t count, const struct timespec* limit,
                      const sigset_t* mask) {
  struct timespec copy = limit != NULL ? *limit : (struct timespec){0, 0};  // the system call changes it
  return (int)syscall(SYS_ppoll, watched, count, limit != NULL ? &copy : NULL, mask, sizeof(uint64_t));
}

static int poll_until(struct pollfd* watched, nfds_t count, int64_t deadline, const sigset_t* mask) {
  if (count > most_descriptors) abort();
  struct pollfd all[most_descriptors + 1];
  if (count != 0) memcpy(all, watched, count * sizeof *watched);
  struct waiter self = {.deadline = deadline, .wake_fd = thread_wake_fd()};
  all[count] = (struct pollfd){self.wake_fd, POLLIN, 0};
  enter(&self);
  int ready = real_ppoll(all, count + 1, NULL, mask);
  const int error = errno;
  leave(&self);
  eventfd_t unused;
  if (self.over) eventfd_read(self.wake_fd, &unused);
  for (nfds_t i = 0; i < count; ++i) {
    watched[i].revents = ready > 0 ? all[i].revents : 0;
  }
  if (ready > 0 && all[count].revents != 0) --ready;
  errno = error;
  return ready;
}

int ppoll(struct pollfd* watched, nfds_t count, const struct timespec* limit, const sigset_t* mask) {
  if (page == NULL || limit == NULL || nanoseconds(limit) == 0)
    return real_ppoll(watched, count, limit, mask);
  return poll_until(watched, count, later(page->now, nanoseconds(limit)), mask);
}

int poll(struct pollfd* watched, nfds_t count, int limit) {
  const struct timespec as_spec = {limit / 1000, (long)(limit % 1000) * millisecond};
  return ppoll(watched, count, limit < 0 ? NULL : &as_spec, NULL);
}

// Small packets would otherwise wait for the kernel's timers, which know nothing of this clock.
int connect(int fd, const struct sockaddr* address, socklen_t size) {
  const int on = 1;
  if (address->sa_family != AF_UNIX) setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return (int)syscall(SYS_connect, fd, address, size);
}

// --- what the time is

int clock_gettime(clockid_t clock, struct timespec* moment) {
  switch (page == NULL ? -1 : clock) {
  case CLOCK_REALTIME:
  case CLOCK_REALTIME_COARSE:
    *moment = as_timespec(wall_now());
    return 0;
  case CLOCK_MONOTONIC:
  case CLOCK_MONOTONIC_RAW:
  case CLOCK_MONOTONIC_COARSE:
  case CLOCK_BOOTTIME:
    *moment = as_timespec(page->now);
    return 0;
  default:
    return (int)syscall(SYS_clock_gettime, clock, moment);
  }
}

int gettimeofday(struct timeval* restrict moment, void* restrict zone) {
  (void)zone;
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  *moment = (struct timeval){now.tv_sec, now.tv_nsec / 1000};
  return 0;
}

time_t time(time_t* result) {
  struct timespec now;
  clock_gettime(CLOCK_REALTIME, &now);
  if (result != NULL) *result = now.tv_sec;
  return now.tv_sec;
}

int sysinfo(struct sysinfo* info) {
  const int result = (int)syscall(SYS_sysinfo, info);
  if (page != NULL) info->uptime = page->now / second;
  return result;
}

// --- what the agent and its libraries do not use today: to be made virtual before they do

static void refuse(const char* function) {
  dprintf(STDERR_FILENO, "virtual clock: %s() is not virtual\n", function);
  abort();
}

int select(int count, fd_set* restrict in, fd_set* restrict out, fd_set* restrict bad,
           struct timeval* restrict limit) {
  if (limit != NULL) refuse("select");
  return (int)syscall(SYS_select, count, in, out, bad, limit);
}

int epoll_wait(int fd, struct epoll_event* events, int count, int limit) {
  if (limit > 0) refuse("epoll_wait");
  return (int)syscall(SYS_epoll_pwait, fd, events, count, limit, NULL, sizeof(uint64_t));
}

int sem_timedwait(sem_t* restrict semaphore, const struct timespec* restrict deadline) {
  (void)semaphore, (void)deadline;
  refuse("sem_timedwait");
  return -1;
}

int pthread_mutex_timedlock(pthread_mutex_t* restrict mutex, const struct timespec* restrict deadline) {
  (void)mutex, (void)deadline;
  refuse("pthread_mutex_timedlock");
  return -1;
}

int sigtimedwait(const sigset_t* restrict set, siginfo_t* restrict info,
                 const struct timespec* restrict limit) {
  (void)set, (void)info, (void)limit;
  refuse("sigtimedwait");
  return -1;
}

// --- moving the clock

// Adds a thread's number and how often it has run to `*seen`. False when it is not asleep.
static int thread_sleeps(int tasks, const char* thread, uint64_t* seen) {
  char path[64], text[4096];
  snprintf(path, sizeof path, "%s/status", thread);
  const int fd = openat(tasks, path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  const ssize_t length = read(fd, text, sizeof text - 1);
  close(fd);
  text[length > 0 ? length : 0] = '\0';
  const char *state = strstr(text, "\nState:\t"), *switches = strstr(text, "\nvoluntary_ctxt_switches:");
  if (state == NULL || switches == NULL || state[8] != 'S') return 0;
  for (const char* rest = thread; *rest != '\0'; ++rest) {
    *seen = (*seen ^ (unsigned char)*rest) * 1099511628211u;
  }
  for (; *switches != '\0'; ++switches) {
    *seen = (*seen ^ (unsigned char)*switches) * 1099511628211u;
  }
  return 1;
}

// The same for all threads in an open folder of /proc, but for the calling one.
static int threads_sleep(int tasks, uint64_t* seen) {
  struct entry {
    uint64_t inode;
    int64_t offset;
    unsigned short size;
    unsigned char type;
    char name[];
  };
  char own[16];
  _Alignas(8) char entries[4096];
  snprintf(own, sizeof own, "%d", gettid());
  lseek(tasks, 0, SEEK_SET);
  long length;
  while ((length = syscall(SYS_getdents64, tasks, entries, sizeof entries)) > 0) {
    for (long at = 0; at < length;) {
      const struct entry* entry = (const struct entry*)(entries + at);
      at += entry->size;
      if (entry->name[0] == '.' || strcmp(entry->name, own) == 0) continue;
      if (!thread_sleeps(tasks, entry->name, seen)) return 0;
    }
  }
  return 1;
}

static void wait_until_nothing_moves(void) {
  const struct timespec pause = {0, between_looks_ns};
  uint64_t last = 0;
  for (int equal = 1; equal < looks_needed;) {
    syscall(SYS_nanosleep, &pause, NULL);
    uint64_t seen = 14695981039346656037u;
    const int asleep = threads_sleep(own_tasks, &seen) && threads_sleep(others_tasks, &seen);
    equal = asleep && seen == last ? equal + 1 : 1;
    last = asleep ? seen : 0;
  }
}

static int64_t nearest_deadline(void) {
  int64_t nearest = endless;
  pthread_mutex_lock(&lock);
  for (const struct waiter* waiter = waiters; waiter != NULL; waiter = waiter->next) {
    if (deadline_of(waiter) < nearest) nearest = deadline_of(waiter);
  }
  pthread_mutex_unlock(&lock);
  return nearest;
}

static void jump_to(int64_t moment) {
  pthread_mutex_lock(&lock);
  if (moment > page->now) page->now = moment;
  ++page->jumps;
  for (struct waiter* waiter = waiters; waiter != NULL; waiter = waiter->next) {
    if (!waiter->over && deadline_of(waiter) <= page->now) wake(waiter);
  }
  pthread_mutex_unlock(&lock);
}

static void* move_clock(void* unused) {
  (void)unused;
  struct order order;
  while (recv(conversation, &order, sizeof order, MSG_WAITALL) == sizeof order) {
    page->wall_ahead = order.wall_ahead;
    for (;;) {
      wait_until_nothing_moves();
      const int64_t next = nearest_deadline();
      if (next > order.until) break;
      jump_to(next);
    }
    if (order.until > page->now) page->now = order.until;
    const int64_t reached = page->now;
    if (send(conversation, &reached, sizeof reached, MSG_NOSIGNAL) < 0) break;
  }
  return NULL;
}

static int connect_to(const char* path) {
  struct sockaddr_un address = {.sun_family = AF_UNIX};
  snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
  const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(fd, (const struct sockaddr*)&address, sizeof address) != 0) abort();
  return fd;
}

static int open_tasks(const char* process) {
  char path[64];
  snprintf(path, sizeof path, "/proc/%s/task", process);
  const int fd = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) abort();
  return fd;
}

// VIRTUAL_CLOCK is "process id of the experiment:file to map:socket to connect to".
__attribute__((constructor)) static void set_up(void) {
  char* const value = getenv("VIRTUAL_CLOCK");
  if (value == NULL) abort();
  char* rest = value;
  const char *process = strsep(&rest, ":"), *file = strsep(&rest, ":");
  const int fd = open(file, O_RDWR | O_CLOEXEC);
  void* mapped = mmap(NULL, sizeof(struct page), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (fd < 0 || mapped == MAP_FAILED || rest == NULL) abort();
  close(fd);
  own_tasks = open_tasks("self");
  others_tasks = open_tasks(process);
  conversation = connect_to(rest);
  unsetenv("LD_PRELOAD");  // programs that this one starts live in real time
  unsetenv("VIRTUAL_CLOCK");
  pthread_key_create(&wake_fd_key, close_wake_fd);
  page = mapped;

  sigset_t all, before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  pthread_t thread;
  if (pthread_create(&thread, NULL, move_clock, NULL) != 0) abort();
  pthread_detach(thread);
  pthread_sigmask(SIG_SETMASK, &before, NULL);
}
