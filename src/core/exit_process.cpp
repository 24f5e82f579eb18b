#include "core/exit_process.h"

#include <atomic>
#include <cstdlib>
#include <unistd.h>

namespace {

constinit std::atomic<int> exit_begun{0};

}  // namespace

void exit_process(int status) {
  while (exit_begun.exchange(1) != 0) {
    pause();
  }
  std::exit(status);  // NOLINT(concurrency-mt-unsafe): the exchange above lets one thread in
}
