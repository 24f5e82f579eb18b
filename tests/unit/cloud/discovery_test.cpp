#include "cloud/discovery.h"

#include "broker/qbroker_connection.h"
#include "core/daemon.h"
#include "failing_system.h"
#include "fake_delivery.h"
#include "http_fixture.h"
#include "http_server.h"
#include "in_order.h"

#include <csignal>
#include <gmock/gmock.h>
#include <memory>

// The broker session's place is taken by log lines of the source "fake": it would reach for the network.
[[gnu::weak]] int start_broker_thread(AgentSettings* /*settings*/) {
  log_write(level_debug, "fake", 0, "start session\n");
  return 0;
}
[[gnu::weak]] int stop_broker_thread_unless_forced() {
  log_write(level_debug, "fake", 0, "stop session unless forced\n");
  return 0;
}

using http_test::answer;
using testing::HasSubstr;
using testing::Not;

namespace {

constexpr char unclaimed[] = R"({"_type":"Device","deviceId":"X","claimed":false})";
constexpr char claimed[] = R"({"_type":"Device","deviceId":"X","claimed":true})";

class DiscoveryTest : public http_test::fixture {
protected:
  ~DiscoveryTest() override {
    refused_by_system.uptime = false;
    refused_by_system.threads = false;
    end_period();
    release_settings(&settings);
  }

  // A cloud that gives this answer to every request.
  void cloud_answers(int code, const char* body) {
    cloud = std::make_unique<http_test::server>(answer(code, body));
    for (char** url : {&settings.discovery_url, &settings.claimed_url}) {
      point_to(url, *cloud);
    }
  }
  static void point_to(char** url, const http_test::server& server) {
    std::free(*url);
    *url = must_copy(server.url().c_str(), allocation_site{"test", __LINE__, "", 1});
  }

  int push(int seconds) {
    DiscoveryParams params{};
    params.service_id = service;
    params.discovery_time = seconds;
    const int result = push_discovery(&params, &settings);
    if (discovery_active() == 1) has_thread = true;
    return result;
  }

  // Wakes the discovery thread until the log holds this so many times: a wake-up just before a sleep is lost.
  static bool wake_until_logged(const std::string& text, size_t count) {
    return eventually([&] {
      first_user_signal_action(SIGUSR1);
      return count_of(logged_so_far(), text) >= count;
    });
  }

  // The period of a claimed device ends at the next wake-up; a push that fails joins the ended thread.
  void end_period() {
    if (!has_thread) return;
    const http_test::server refusing{answer(500, "")};
    point_to(&settings.discovery_url, refusing);
    EXPECT_TRUE(eventually([&] {
      first_user_signal_action(SIGUSR1);
      push(0);
      return logged_so_far().find("after  join discovery thread.\n") != std::string::npos;
    }));
  }

  log_capture log;  // for the whole test: the discovery thread logs too
  std::unique_ptr<http_test::server> cloud;
  bool has_thread = false;
  char service[8] = "service";
};

TEST_F(DiscoveryTest, APushWithoutARequestIsRefused) {
  EXPECT_EQ(push_discovery(nullptr, &settings), -9);
  const std::string text = logged_so_far();
  EXPECT_THAT(text, HasSubstr("DEBUG: pushing discovery.\n"));
  EXPECT_THAT(text, HasSubstr("WARNING: If you want to make discovery request, please provide service id\n"));
}

TEST_F(DiscoveryTest, NoPeriodIsOpenAtFirst) {
  EXPECT_EQ(discovery_active(), 0);
}

TEST_F(DiscoveryTest, UptimeIsPositive) {
  EXPECT_GT(system_uptime(), 0);
}

TEST_F(DiscoveryTest, APushOpensAPeriodWithItsThreadAndSession) {
  cloud_answers(200, claimed);
  EXPECT_EQ(push(1000), 0);
  EXPECT_EQ(discovery_active(), 1);
  EXPECT_THAT(logged_so_far(),
              has_in_order({"discovery: ", "pushing discovery.\n", "Discover OK!.\n",
                            "Setting new discovery time.\n", "start session\n", "discovery pushed.\n"}));
}

TEST_F(DiscoveryTest, AFailedPushOpensNone) {
  cloud_answers(500, "");
  EXPECT_EQ(push(1000), -5);
  EXPECT_EQ(discovery_active(), 0);
  const std::string text = logged_so_far();
  EXPECT_THAT(text, HasSubstr("DEBUG: Failed to send discovery.\n"));
  EXPECT_THAT(text, Not(HasSubstr("start session")));
}

TEST_F(DiscoveryTest, WithoutAThreadThereIsNeitherPeriodNorSession) {
  cloud_answers(200, claimed);
  refused_by_system.threads = true;
  EXPECT_EQ(push(1000), 0);
  refused_by_system.threads = false;
  EXPECT_THAT(logged_so_far(),
              has_in_order({"discovery: ", "WARNING: Failed to create discovery thread ret=11.\n"}));
  EXPECT_THAT(logged_so_far(), Not(HasSubstr("start session")));
  EXPECT_EQ(discovery_active(), 0);

  EXPECT_EQ(push(1000), 0);
  EXPECT_EQ(discovery_active(), 1);
  EXPECT_THAT(logged_so_far(), HasSubstr("start session"));
  EXPECT_THAT(logged_so_far(), Not(HasSubstr("before join discovery thread.")));
}

TEST_F(DiscoveryTest, WithoutAnUptimeAPeriodIsOpenAndTheWholeDeadlineIsSleptAgain) {
  cloud_answers(200, unclaimed);
  refused_by_system.uptime = true;
  EXPECT_EQ(system_uptime(), 0);
  EXPECT_EQ(discovery_active(), 0);
  EXPECT_EQ(push(50), 0);
  EXPECT_EQ(discovery_active(), 1);
  EXPECT_TRUE(wake_until_logged("Sleep in discovery thread for 50 seconds.\n", 3));
  EXPECT_THAT(logged_so_far(), Not(HasSubstr("discovery thread ended.\n")));
}

TEST_F(DiscoveryTest, APeriodThatIsOverWhenItsThreadWakesStopsTheSession) {
  cloud_answers(200, unclaimed);
  refused_by_system.uptime = true;
  EXPECT_EQ(push(1), 0);  // a deadline that is past once the uptime can be read
  EXPECT_TRUE(eventually([] { return count_of(logged_so_far(), "Sleep in discovery") > 0; }));
  refused_by_system.uptime = false;
  EXPECT_TRUE(wake_until_logged("discovery thread ended.\n", 1));
  EXPECT_THAT(logged_so_far(), has_in_order({"Device is not claimed.\n", "stop session unless forced\n",
                                             "discovery: ", "discovery thread ended.\n"}));
  EXPECT_EQ(discovery_active(), 0);
}

TEST_F(DiscoveryTest, OnlyTheFirstUserSignalWakesSleepers) {
  std::atomic<bool> awake{false};
  std::thread sleeper{[&] {
    sleep_for(100'000);
    awake = true;
  }};
  first_user_signal_action(SIGUSR2);
  first_user_signal_action(16 == SIGUSR1 ? SIGUSR2 : 16);
  EXPECT_FALSE(awake);
  EXPECT_TRUE(eventually([&] {
    first_user_signal_action(SIGUSR1);
    return awake.load();
  }));
  sleeper.join();
}

}  // namespace
