#include "core/exit_process.h"

#include "logging_child.h"

#include <atomic>
#include <cstdio>
#include <gtest/gtest.h>

namespace {

TEST(ExitProcessTest, EndsWithTheStatus) {
  for (const int status : {0, 1, 255}) {
    EXPECT_EQ(run_logging_child([&]() -> int { exit_process(status); }).status, status);
  }
}

TEST(ExitProcessTest, MinusOneIsStatus255) {
  EXPECT_EQ(run_logging_child([]() -> int { exit_process(-1); }).status, 255);
}

TEST(ExitProcessTest, RunsExitHandlersAndWritesBufferedOutput) {
  const child_outcome result = run_logging_child([]() -> int {
    static char buffer[BUFSIZ];
    std::setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    std::atexit([] { std::fputs("handler ", stderr); });
    std::fputs("body ", stderr);
    exit_process(0);
  });
  EXPECT_EQ(result.output, "body handler ");
}

// The first caller stands in an exit handler until the second one has called, too.
std::atomic<int> second_caller_ready{0};

void second_caller() {
  second_caller_ready = 1;
  exit_process(4);
}

TEST(ExitProcessTest, ASecondCallerWaitsForTheFirst) {
  const child_outcome result = run_logging_child([]() -> int {
    std::atexit([] {
      std::thread{second_caller}.detach();
      while (second_caller_ready == 0) {
        std::this_thread::yield();
      }
      // What would come out if the second caller got through: it has time to, but nothing depends on it.
      std::this_thread::sleep_for(std::chrono::milliseconds{50});
      if (write(STDERR_FILENO, "first", 5) != 5) _exit(9);
    });
    exit_process(3);
  });
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.output, "first");
}

}  // namespace
