#include "cloud/discovery.h"

#include "log_capture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

namespace {

TEST(DiscoveryTest, APushWithoutARequestIsRefused) {
  AgentSettings settings{};
  log_capture log;
  EXPECT_EQ(push_discovery(nullptr, &settings), -9);
  const std::string text = log.text();
  EXPECT_THAT(text, HasSubstr("DEBUG: pushing discovery.\n"));
  EXPECT_THAT(text, HasSubstr("WARNING: If you want to make discovery request, please provide service id\n"));
}

TEST(DiscoveryTest, NoPeriodIsOpenAtFirst) {
  EXPECT_EQ(discovery_active(), 0);
}

TEST(DiscoveryTest, UptimeIsPositive) {
  EXPECT_GT(system_uptime(), 0);
}

}  // namespace
