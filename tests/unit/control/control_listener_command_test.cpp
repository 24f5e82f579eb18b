#include "control/control_listener_command.h"

#include "cloud/logic.h"
#include "control_fixture.h"
#include "failing_strdup.h"
#include "in_order.h"

#include <chrono>
#include <future>
#include <gmock/gmock.h>
#include <string>
#include <thread>

using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

class ControlCommandTest : public control_fixture {
protected:
  // Runs a command; what it logged, the calls of the stand-ins included, stays in `logged`.
  template <typename command> int run(command call) {
    fake_delivery::take();
    log_capture log;
    const int result = call();
    logged = log.text();
    return result;
  }

  [[nodiscard]] bool did(const std::string& step) const {
    return logged.find("fake: 0:   DEBUG: " + step) != std::string::npos;
  }

  // The claim that the last message told the service's handler: "true", "false", or "" without such a message.
  static std::string notified(const std::string& service) {
    const auto messages = fake_delivery::take();
    if (messages.empty() || messages.back().handler != "event_sink_" + service) return "";
    return messages.back().text.find("true") != std::string::npos ? "true" : "false";
  }

  std::string logged;
};

// --- on_claim

TEST_F(ControlCommandTest, AClaimStartsTheSessionThenStoresAndTells) {
  EXPECT_EQ(run([&] { return command_on_claim(&settings, 1, "svc"); }), 0);
  EXPECT_THAT(logged,
              has_in_order({"control_listener_command: ", "DEBUG: On claim! Claimed? 1, service id is svc\n",
                            "fake: 0:   DEBUG: start session\n", "\"event\":\t3",
                            "\"service\":\t\"svc\",\n\t\"claimed\":\ttrue", "service notify was sended.\n"}));
  EXPECT_EQ(claimed_state(), 1);
  EXPECT_EQ(notified("svc"), "true");
}

TEST_F(ControlCommandTest, AClaimCountsWhateverItsFlagSays) {
  EXPECT_EQ(run([&] { return command_on_claim(&settings, 0, "svc"); }), 0);
  EXPECT_THAT(logged, HasSubstr("On claim! Claimed? 0, service id is svc\n"));
  EXPECT_EQ(settings_file::value("q_agent_claimed"), "1");
  EXPECT_EQ(notified("svc"), "true");
}

TEST_F(ControlCommandTest, AClaimLeavesARunningSessionAlone) {
  keep_connection = 1;
  EXPECT_EQ(run([&] { return command_on_claim(&settings, 1, "svc"); }), 0);
  EXPECT_FALSE(did("start session"));
}

// --- on_fernhollow

TEST_F(ControlCommandTest, AChangedRegistrationOnlyStartsTheSession) {
  EXPECT_EQ(run([&] { return command_on_fernhollow(&settings, 0, "svc"); }), 0);
  EXPECT_THAT(logged, has_in_order({"DEBUG: On fernhollow: 0, service id is svc\n", "start session\n"}));
  EXPECT_THAT(fake_delivery::take(), IsEmpty());

  EXPECT_EQ(run([&] { return command_on_fernhollow(&settings, 1, "svc"); }), 0);
  EXPECT_THAT(logged, HasSubstr("On fernhollow: 1, service id is svc\n"));
  EXPECT_FALSE(did("start session")) << "it runs";
}

// --- on_release

TEST_F(ControlCommandTest, AReleaseWithDiscoveryPushesThenStartsTheSession) {
  for (const char* switched_on : {"1", "2"}) {
    store({{"q_use_discovery", switched_on}});
    keep_connection = 0;
    set_claimed(1);
    EXPECT_EQ(run([&] { return command_on_release(&settings, 0, "svc"); }), 0);
    EXPECT_THAT(logged, has_in_order({"DEBUG: On release! Claimed? 0, service id is svc\n",
                                      "Use discovery mechanism for qCloud: ",
                                      "push svc time=0 id=- data=- carrier=-\n", "start session\n",
                                      "\"event\":\t3", "service notify was sended.\n"}));
    EXPECT_EQ(claimed_state(), 0);
    EXPECT_EQ(notified("svc"), "false");
  }
}

TEST_F(ControlCommandTest, AReleaseIsDoneAlsoWhenItsPushFails) {
  store({{"q_use_discovery", "1"}});
  keep_connection = 1;
  set_claimed(1);
  fakes.push_result = -5;
  EXPECT_EQ(run([&] { return command_on_release(&settings, 0, "svc"); }), 0);
  EXPECT_FALSE(did("start session"));
  EXPECT_EQ(claimed_state(), 0);
  EXPECT_EQ(notified("svc"), "false");
}

TEST_F(ControlCommandTest, AReleaseWithDiscoveryIsRefusedWhilePaused) {
  store({{"q_use_discovery", "1"}});
  set_claimed(1);
  pause_http_requests();
  EXPECT_EQ(run([&] { return command_on_release(&settings, 0, "svc"); }), -10);
  EXPECT_THAT(logged, HasSubstr("WARNING: Send discovery to server would block.\n"));
  EXPECT_FALSE(did("push"));
  EXPECT_EQ(claimed_state(), 1) << "nothing changed";
  EXPECT_THAT(fake_delivery::take(), IsEmpty());
}

TEST_F(ControlCommandTest, AReleaseWithoutMemoryEndsThere) {
  store({{"q_use_discovery", "1"}});
  set_claimed(1);
  const int result = run([&] {
    const failing_strdup no_memory;
    return command_on_release(&settings, 0, "svc");
  });
  EXPECT_EQ(result, 0);
  EXPECT_THAT(logged, HasSubstr("WARNING: malloc().\n"));
  EXPECT_FALSE(did("push"));
  EXPECT_FALSE(did("start session"));
  EXPECT_EQ(claimed_state(), 1);
  EXPECT_THAT(fake_delivery::take(), IsEmpty());
}

TEST_F(ControlCommandTest, AReleaseWithoutDiscoveryStopsARunningSession) {
  keep_connection = 1;
  set_claimed(1);
  EXPECT_EQ(run([&] { return command_on_release(&settings, 0, "svc"); }), 0);
  EXPECT_THAT(logged, has_in_order({"stop session unless forced\n", "\"event\":\t3"}));
  EXPECT_EQ(keep_connection, 0);
  EXPECT_EQ(claimed_state(), 0);
  EXPECT_EQ(notified("svc"), "false");
}

TEST_F(ControlCommandTest, AForcedSessionOutlivesARelease) {
  keep_connection = 1;
  set_claimed(1);
  fakes.forced = true;
  EXPECT_EQ(run([&] { return command_on_release(&settings, 0, "svc"); }), 0);
  EXPECT_EQ(keep_connection, 1);
  EXPECT_EQ(claimed_state(), 0);
}

TEST_F(ControlCommandTest, AReleaseWithoutDiscoveryAndSessionOnlyStoresAndTells) {
  set_claimed(1);
  EXPECT_EQ(run([&] { return command_on_release(&settings, 0, "svc"); }), 0);
  EXPECT_THAT(logged, Not(HasSubstr("fake: ")));
  EXPECT_EQ(claimed_state(), 0);
  EXPECT_EQ(notified("svc"), "false");
}

TEST_F(ControlCommandTest, AReleaseThatSaysClaimedStartsAStoppedSession) {
  EXPECT_EQ(run([&] { return command_on_release(&settings, 1, "svc"); }), 0);
  EXPECT_THAT(logged, has_in_order({"DEBUG: On release! Claimed? 1, service id is svc\n", "start session\n",
                                    "\"event\":\t3"}));
  EXPECT_EQ(claimed_state(), 1);
  EXPECT_EQ(notified("svc"), "false") << "the service is told of a release in any case";
}

TEST_F(ControlCommandTest, AReleaseThatSaysClaimedStoresNothingWhileTheSessionRuns) {
  keep_connection = 1;
  EXPECT_EQ(run([&] { return command_on_release(&settings, 1, "svc"); }), 0);
  EXPECT_THAT(logged, Not(HasSubstr("fake: ")));
  EXPECT_EQ(claimed_state(), 0);
  EXPECT_EQ(notified("svc"), "false");
}

// --- send_discovery

class SendDiscoveryTest : public ControlCommandTest {
protected:
  ~SendDiscoveryTest() override { release_discovery_params(&params); }

  int send() {
    return run([&] { return command_send_discovery(&settings, &params); });
  }

  DiscoveryParams params{.service_id = copy_of("svc"),
                         .discovery_time = 600,
                         .discovery_id = copy_of("id"),
                         .discovery_data = copy_of("data"),
                         .carrier_id = nullptr};
};

TEST_F(SendDiscoveryTest, PushesTheRequestAndGivesThePushsResult) {
  for (const int result : {0, -5, -7, -8, -4, 1}) {
    fakes.push_result = result;
    EXPECT_EQ(send(), result);
    EXPECT_TRUE(did("push svc time=600 id=id data=data carrier=-\n"));
  }
}

TEST_F(SendDiscoveryTest, NeedsAnAgentId) {
  for (const char* agent_id : {"", static_cast<const char*>(nullptr)}) {
    replace_identity(&settings, {copy_of(agent_id), nullptr, copy_of("code")});
    pause_http_requests();
    EXPECT_EQ(send(), -1) << "also while paused";
    EXPECT_FALSE(did("push"));
    resume_http_requests();
  }
}

TEST_F(SendDiscoveryTest, IsRefusedFromPauseToResume) {
  params.carrier_id = copy_of("new");
  replace_carrier_id(&settings, copy_of("old"));
  run([] { return command_pause_connections(); });
  EXPECT_EQ(send(), -10);
  EXPECT_FALSE(did("push"));
  EXPECT_EQ(carrier_id(), "old");
  run([&] { return command_resume_connections(&settings, nullptr); });
  EXPECT_EQ(send(), 0);
  EXPECT_TRUE(did("push"));
}

TEST_F(SendDiscoveryTest, ItsCarrierIdReplacesTheHeldOne) {
  replace_carrier_id(&settings, copy_of("old"));
  EXPECT_EQ(send(), 0);
  EXPECT_EQ(carrier_id(), "old") << "a request without one keeps it";
  params.carrier_id = copy_of("new");
  EXPECT_EQ(send(), 0);
  EXPECT_EQ(carrier_id(), "new");
  EXPECT_TRUE(did("push svc time=600 id=id data=data carrier=new\n"));
}

TEST_F(SendDiscoveryTest, ACarrierIdWithoutMemoryLeavesNoneAndThePushGoesOn) {
  replace_carrier_id(&settings, copy_of("old"));
  params.carrier_id = copy_of("new");
  const failing_strdup no_memory;
  EXPECT_EQ(send(), 0);
  EXPECT_THAT(logged,
              has_in_order({"WARNING: strdup() for carrier id. Carrier will not be sent.\n", "push svc"}));
  EXPECT_EQ(carrier_id(), "(none)");
}

// --- pause and resume

TEST_F(ControlCommandTest, APauseStopsTheSessionAndHoldsRequestsBack) {
  keep_connection = 1;
  EXPECT_EQ(run([] { return command_pause_connections(); }), 0);
  EXPECT_THAT(logged, has_in_order({"DEBUG: Stop connections.\n", "stop session\n"}));
  EXPECT_EQ(keep_connection, 0);
  EXPECT_EQ(http_requests_paused(), 1);
}

TEST_F(ControlCommandTest, AResumeLetsRequestsGoAndStartsAWantedSession) {
  struct {
    const char* force;
    int discovery_open;
    int claimed;
    bool starts;
  } const cases[] = {{"0", 0, 0, false}, {"1", 0, 0, true}, {"2", 0, 0, false},
                     {"0", 1, 0, true},  {"0", 0, 1, true}, {"1", 1, 1, true}};
  for (const auto& test : cases) {
    store({{"q_force_connection", test.force}});
    fakes.discovery_open = test.discovery_open;
    set_claimed(test.claimed);
    keep_connection = 0;
    pause_http_requests();
    EXPECT_EQ(run([&] { return command_resume_connections(&settings, nullptr); }), 0);
    EXPECT_THAT(logged, HasSubstr("DEBUG: Starting connections.\n"));
    EXPECT_EQ(http_requests_paused(), 0);
    EXPECT_EQ(did("start session"), test.starts)
        << test.force << ' ' << test.discovery_open << ' ' << test.claimed;
  }
}

TEST_F(ControlCommandTest, AResumeThatComesDuringAPauseHasTheLastWord) {
  store({{"q_force_connection", "1"}});
  keep_connection = 1;
  std::promise<void> resumed;
  std::thread resuming;
  fakes.when_stopped = [&] {
    resuming = std::thread{[&] {
      command_resume_connections(&settings, nullptr);
      resumed.set_value();
    }};
    // It has to wait: it would be over long before.
    EXPECT_EQ(resumed.get_future().wait_for(std::chrono::milliseconds{200}), std::future_status::timeout);
  };
  command_pause_connections();
  resuming.join();
  EXPECT_EQ(http_requests_paused(), 0);
  EXPECT_EQ(keep_connection, 1);
}

TEST_F(ControlCommandTest, AResumeTakesANewCarrierIdAndKeepsTheOldOneWithout) {
  replace_carrier_id(&settings, copy_of("old"));
  run([&] { return command_resume_connections(&settings, nullptr); });
  EXPECT_EQ(carrier_id(), "old");
  run([&] { return command_resume_connections(&settings, "new"); });
  EXPECT_EQ(carrier_id(), "new");
}

TEST_F(ControlCommandTest, AResumeWithoutMemoryForTheCarrierIdGoesOnWithNone) {
  replace_carrier_id(&settings, copy_of("old"));
  pause_http_requests();
  const int result = run([&] {
    const failing_strdup no_memory;
    return command_resume_connections(&settings, "new");
  });
  EXPECT_EQ(result, 0);
  EXPECT_THAT(logged, has_in_order({"DEBUG: Starting connections.\n",
                                    "WARNING: strdup() for carrier id. Carrier will not be sent.\n"}));
  EXPECT_EQ(carrier_id(), "(none)");
  EXPECT_EQ(http_requests_paused(), 0);
}

}  // namespace
