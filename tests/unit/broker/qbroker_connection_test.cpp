#include "broker/qbroker_connection.h"

#include "broker/qbroker_connection_commands.h"
#include "core/owned.h"
#include "log_capture.h"
#include "settings_file.h"

#include <csignal>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ContainsRegex;
using testing::HasSubstr;

namespace {

TEST(BrokerCommandTest, IsRefusedWhileNoConnectionIsUp) {
  log_capture log;
  EXPECT_EQ(post_close_command(), -1);
  EXPECT_EQ(post_heartbeat_command(), -1);
  const std::string text = log.text();
  EXPECT_THAT(
      text,
      HasSubstr("WARNING: Cannot send command '99' to qbroker thread - write end is not initialized.\n"));
  EXPECT_THAT(text, HasSubstr("Cannot send command '104' to"));
}

TEST(BrokerCommandTest, IsOneByteOnThePublishedPipe) {
  int ends[2];
  ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
  const fd_owner read_end{ends[0]};
  const fd_owner write_end{ends[1]};
  publish_command_pipe(write_end.get());
  EXPECT_EQ(post_close_command(), 0);
  EXPECT_EQ(post_heartbeat_command(), 0);
  publish_command_pipe(-1);

  unsigned char bytes[3];
  ASSERT_EQ(read(read_end.get(), bytes, sizeof bytes), 2);
  EXPECT_EQ(bytes[0], 99);
  EXPECT_EQ(bytes[1], 104);
}

TEST(BrokerCommandTest, AFailedWriteIsLoggedAndStillCountsAsSent) {
  const fd_owner unwritable{open("/dev/null", O_RDONLY | O_CLOEXEC)};
  log_capture log;
  publish_command_pipe(unwritable.get());
  EXPECT_EQ(send_command(99), 0);
  publish_command_pipe(-1);
  EXPECT_THAT(log.text(), ContainsRegex("DEBUG: qbroker_connection:send_command:[0-9]+: error 9\n"));
}

TEST(BrokerThreadTest, StoppingWithoutAThreadWarnsAndSucceeds) {
  log_capture log;
  EXPECT_EQ(stop_broker_thread(), 0);
  EXPECT_THAT(log.text(), ContainsRegex("DEBUG: stoping qbroker thread.\n"
                                        ".*WARNING: Trying to stop stopped/uncreated qbroker thread.\n"
                                        ".*DEBUG: qbroker thread stoped.\n"));
  EXPECT_EQ(keep_connection, 0);
}

// A broker thread whose advisor refuses; it then sleeps for an hour.
class RunningBrokerThread : public testing::Test {
protected:
  RunningBrokerThread() {
    settings_.advisor_url = advisor_url_;
    settings_.http_request_timeout = 20;
    settings_.http_connect_timeout = 20;
    settings_.advisor_delay = 3600;
    settings_file::fill({});
    struct sigaction breaks_calls {};
    breaks_calls.sa_handler = [](int) {};
    sigaction(SIGUSR1, &breaks_calls, nullptr);
  }

  log_capture log_;
  char advisor_url_[32] = "http://127.0.0.1:1/advisor";
  AgentSettings settings_{};
};

TEST_F(RunningBrokerThread, TellsItsLife) {
  EXPECT_EQ(start_broker_thread(&settings_), 0);
  EXPECT_EQ(keep_connection, 1);
  EXPECT_EQ(stop_broker_thread(), 0);
  EXPECT_EQ(keep_connection, 0);
  const std::string text = log_.text();
  EXPECT_THAT(text, ContainsRegex("DEBUG: starting qbroker thread.\n"));
  EXPECT_THAT(text, ContainsRegex("DEBUG: qbroker thread started.\n"));
  EXPECT_THAT(text, ContainsRegex("DEBUG: enter qbroker_connection_thread\n"));
  EXPECT_THAT(text, ContainsRegex("DEBUG: exiting msg_processor thread.\n"
                                  ".*DEBUG: exiting qbroker_connection_thread\n"
                                  ".*DEBUG: qbroker thread stoped.\n"));
}

TEST_F(RunningBrokerThread, ASecondStartIsRefusedAndLeavesTheFirstAlone) {
  EXPECT_EQ(start_broker_thread(&settings_), 0);
  EXPECT_EQ(start_broker_thread(&settings_), -1);
  EXPECT_EQ(keep_connection, 1);
  EXPECT_EQ(stop_broker_thread(), 0);
  EXPECT_THAT(log_.text(), HasSubstr("WARNING: qbroker thread already started.\n"));
}

TEST_F(RunningBrokerThread, AForcedConnectionIsLeftAloneByTheGentleStop) {
  settings_file::fill({{"q_force_connection", "1"}});
  EXPECT_EQ(start_broker_thread(&settings_), 0);
  EXPECT_EQ(stop_broker_thread_unless_forced(), -1);
  EXPECT_EQ(keep_connection, 1);
  settings_file::fill({{"q_force_connection", "2"}});
  EXPECT_EQ(stop_broker_thread_unless_forced(), 0);
  EXPECT_EQ(keep_connection, 0);
}

// A stop may come at any point of the thread's way.
TEST_F(RunningBrokerThread, StartsAndStopsAgainAndAgain) {
  for (int i = 0; i < 50; ++i) {
    ASSERT_EQ(start_broker_thread(&settings_), 0);
    ASSERT_EQ(stop_broker_thread(), 0);
  }
}

}  // namespace
