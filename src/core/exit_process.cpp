#include "core/exit_process.h"

#include <atomic>
#include <cstdlib>
#include <unistd.h>

namespace {

constinit std::atomic<int> exit_begun{0};

}  // namespace

void exit_process(int status) {
  while (exit_begun.exchange(1) != 0) {  // model: exit.enter
    pause();                             // model: exit.stay_out
  }
  std::exit(status);  // NOLINT(concurrency-mt-unsafe): the exchange above lets one thread in
}
