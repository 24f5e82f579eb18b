// A pid file that somebody else has left, with anything in it.

#include "core/daemon.h"
#include "fuzz_input.h"
#include "scratch_folder.h"
#include "story.h"

#include <cerrno>
#include <csignal>
#include <optional>
#include <unistd.h>

namespace {

int probe_error = 0;

// The number at the beginning, of at most eight characters, its sign included.
std::optional<int> read_pid(const std::string& content) {
  size_t at = content.find_first_not_of(" \t\n\v\f\r");
  if (at == std::string::npos) return {};
  const size_t end = std::min(at + 8, content.size());
  const bool negative = content[at] == '-';
  if (content[at] == '-' || content[at] == '+') ++at;
  int number = 0;
  const size_t first = at;
  while (at < end && content[at] >= '0' && content[at] <= '9') {
    number = number * 10 + (content[at++] - '0');
  }
  if (at == first) return {};
  return negative ? -number : number;
}

// What is logged about a file that stands there; `*replaced` tells whether it gives way.
std::string story_of(const std::string& path, const std::string& content, bool* replaced) {
  std::string story = "D:open() " + path + "\nI:opened ok\n";
  const std::optional<int> pid = read_pid(content);
  if (!pid) return story + "E:Error reading data from pid file - possibly data is in wrong format\n";
  story += formatted("probed %d\n", *pid);
  story += formatted("D:read from pid file pid %d, kill result is %d, errno is %d\n", *pid,
                     probe_error == 0 ? 0 : -1, probe_error);
  *replaced = probe_error == ESRCH;
  if (probe_error == 0) return story + "I:Daemon is already running.\n";
  if (probe_error != ESRCH) return story + formatted("E:kill(). errno %d\n", probe_error);
  return story + "I:Remove not associated pid file.\n";
}

}  // namespace

// No process is looked for: the input says what is found.
extern "C" int kill(pid_t process, int number) noexcept {
  CHECK(number == 0);
  tell("probed %d\n", process);
  errno = probe_error;
  return probe_error == 0 ? 0 : -1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  constexpr int outcomes[] = {ESRCH, 0, EPERM, EINVAL};
  begin_run();
  fuzz_input input{data, size};
  const std::string path = scratch_folder() + "/agent.pid";
  const std::string& content = input.text();
  probe_error = outcomes[input.next() % std::size(outcomes)];
  const bool exists = input.next() % 8 != 7;
  bool replaced = !exists;
  std::string expected;
  if (exists) {
    write_file(path, content);
    expected = story_of(path, content, &replaced);
  }

  const int fd = lock_pid_file(path.c_str());
  check_same(take_story(), expected);
  CHECK((fd >= 0) == replaced);
  check_same(read_file(path), replaced ? std::to_string(getpid()) + "\n" : content);
  if (fd >= 0) {
    CHECK(unlock_pid_file(path.c_str(), fd) == 0);
  } else {
    CHECK(unlink(path.c_str()) == 0);
  }
  CHECK(access(path.c_str(), F_OK) != 0);
  return 0;
}
