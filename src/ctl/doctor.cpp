#include "ctl/doctor.h"

#include "ctl/build_time.h"
#include "ctl/doctor_checks.h"
#include "ctl/exit_status.h"
#include "ctl/printable.h"

#include <cstdio>
#include <ctime>

namespace {

/// Prints what was found; how much of it is wrong.
int print_findings(const char* title, const findings& found) {
  int count = 0;
  std::printf("%s\n", title);
  for (const finding& one : found) {
    std::printf("  %s %s\n", one.wrong ? "WRONG" : "ok   ", printable(one.text).c_str());
    if (one.wrong) std::printf("        -> %s\n", printable(one.advice).c_str());
    count += one.wrong ? 1 : 0;
  }
  return count;
}

}  // namespace

int run_doctor(const ctl_command_line& line) {
  int count = 0;
  count += print_findings("settings files", check_files(line));
  count += print_findings("clock", {check_clock(std::time(nullptr), build_time)});
  count += print_findings("trusted certificates", check_trust(line));
  count += print_findings("addresses and numbers", check_urls_and_numbers());
  count += print_findings("proxy", check_proxy(line.timeout));
  count += print_findings("handlers", check_handlers(line));
  count += print_findings("pid file", {check_pid_file(line.pid_file)});
  if (count == 0) {
    std::puts("nothing is wrong");
  } else {
    std::printf("%d %s wrong\n", count, count == 1 ? "thing is" : "things are");
  }
  return finish_output(count == 0 ? exit_done : exit_wrong);
}
