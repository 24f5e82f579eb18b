#include "broker/qbroker_connection_session.h"

#include "../cloud/http_server.h"
#include "broker/packet_format.h"
#include "broker/qbroker_connection.h"
#include "broker/qbroker_connection_commands.h"
#include "libc_hooks.h"
#include "log_capture.h"
#include "peer.h"
#include "settings_file.h"

#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::Not;

namespace {

// The broker thread with an advisor that names this test as the broker, on plain TCP. A lost connection would be
// followed by an hour's sleep.
class BrokerSession : public testing::Test {
protected:
  explicit BrokerSession(keepalive_values broker_keepalive = {}) {
    settings_.broker_keepalive = broker_keepalive;
    settings_file::fill({{"q_broker_ssl", "0"}, {"q_agent_id", "AGENT"}});
    struct sigaction breaks_calls {};
    breaks_calls.sa_handler = [](int) {};
    sigaction(SIGUSR1, &breaks_calls, nullptr);
    settings_.advisor_url = url_.data();
    settings_.http_request_timeout = 20;
    settings_.http_connect_timeout = 20;
    settings_.advisor_delay = 3600;
    settings_.qbroker_delay = 3600;
    start_broker_thread(&settings_);
  }
  ~BrokerSession() override { stop_broker_thread(); }

  // The agent's next connection, once it has said who it is.
  fd_owner next_connection() {
    fd_owner peer = broker_.accept_one();
    EXPECT_EQ(read_bytes(peer.get(), 9), std::string("\x00\x01\x00\x05", 4) + "AGENT");
    return peer;
  }

  std::string advice() const {
    return R"({"_type":"ActionConnect","broker":"127.0.0.1","port":")" + std::to_string(broker_.port()) +
           "\"}";
  }

  log_capture log_;
  loopback_listener broker_;
  http_test::server advisor_{http_test::answer(200, advice())};
  std::string url_ = advisor_.url();
  AgentSettings settings_{};
};

}  // namespace

TEST_F(BrokerSession, TheHeartbeatCommandSendsAHeartbeat) {
  const fd_owner peer = next_connection();
  EXPECT_EQ(post_heartbeat_command(), 0);
  EXPECT_EQ(read_bytes(peer.get(), 20).substr(0, 4), std::string("\x0B\x01\x00\x10", 4));
}

TEST_F(BrokerSession, TheCloseCommandReconnectsWithoutTheDelay) {
  const fd_owner first = next_connection();
  EXPECT_EQ(post_close_command(), 0);
  EXPECT_TRUE(ends_without_data(first.get()));
  const fd_owner second = next_connection();
  EXPECT_TRUE(second.valid());
  stop_broker_thread();
  const std::string log = log_.text();
  EXPECT_THAT(log, HasSubstr("DEBUG: keep_connection=1, success=1.\n"));
  EXPECT_THAT(log, Not(HasSubstr("Connection to qbroker was closed.")));
}

class BrokerSessionWithoutKeepalives : unsendable_packet, public BrokerSession {
protected:
  BrokerSessionWithoutKeepalives() : unsendable_packet{packet_keepalives}, BrokerSession{{60, 5, 10}} {}
};

TEST_F(BrokerSessionWithoutKeepalives, EndsFailedAfterAShortConnectedState) {
  const fd_owner peer = next_connection();
  EXPECT_TRUE(ends_without_data(peer.get()));
  stop_broker_thread();
  const std::string log = log_.text();
  EXPECT_THAT(log, HasSubstr("WARNING: Cannot send keepalives to qbroker.\n"));
  EXPECT_THAT(log, HasSubstr("DEBUG: Reading packet header.\n"));
  EXPECT_THAT(log, HasSubstr("success=0.\n"));
  EXPECT_LT(log.find("Cannot send keepalives"), log.find("Reading packet header."));
  EXPECT_LT(log.find("Reading packet header."), log.find("success=0."));
}

TEST_F(BrokerSession, AnyOtherCommandIsIgnored) {
  const fd_owner peer = next_connection();
  EXPECT_EQ(send_command(7), 0);
  EXPECT_EQ(post_heartbeat_command(), 0);
  EXPECT_EQ(read_bytes(peer.get(), 20).size(), 20U);
}

TEST_F(BrokerSession, AStoppedSessionTakesNoCommands) {
  const fd_owner peer = next_connection();
  stop_broker_thread();
  EXPECT_TRUE(ends_without_data(peer.get()));
  EXPECT_EQ(post_close_command(), -1);
}
