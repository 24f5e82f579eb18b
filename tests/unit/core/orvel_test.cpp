#include "core/orvel.h"

#include "log_lines.h"
#include "logging_child.h"

#include <gtest/gtest.h>
#include <string>

namespace {

TEST(OrvelMainTest, WithoutSettingsItEndsTheProcessWithStatus1) {
  const child_outcome child = run_logging_child([]() -> int {
    orvel_main(nullptr);
    return 42;
  });
  EXPECT_EQ(child.status, 1);
  EXPECT_EQ(messages(child.output), std::vector<std::string>{"DEBUG: orvel_main..."});
}

}  // namespace
