#include "broker/qbroker_connection_packets.h"

#include "log_capture.h"
#include "peer.h"
#include "settings_file.h"

#include <gmock/gmock.h>

namespace {

using testing::HasSubstr;

const unsigned char* token_bytes(const std::string& token) {
  return reinterpret_cast<const unsigned char*>(token.data());
}

}  // namespace

TEST(BrokerIdentity, WithATokenItIsTheTokenPacket) {
  const settings_file settings{{{"q_agent_id", "unused"}}};
  connected_pair pair;
  const std::string token("to\0ken", 6);
  EXPECT_EQ(send_identity(&pair.connection, token_bytes(token), token.size()), 10);
  EXPECT_EQ(read_bytes(pair.peer.get(), 10), std::string("\x01\x01\x00\x06", 4) + token);
}

TEST(BrokerIdentity, WithoutATokenItIsTheAgentId) {
  const settings_file settings{{{"q_agent_id", "agent-0042"}}};
  connected_pair pair;
  EXPECT_EQ(send_identity(&pair.connection, nullptr, 0), 14);
  EXPECT_EQ(read_bytes(pair.peer.get(), 14), std::string("\x00\x01\x00\x0A", 4) + "agent-0042");
}

TEST(BrokerIdentity, AnEmptyTokenIsStillAToken) {
  connected_pair pair;
  EXPECT_EQ(send_identity(&pair.connection, token_bytes(""), 0), 4);
  EXPECT_EQ(read_bytes(pair.peer.get(), 4), std::string("\x01\x01\x00\x00", 4));
}

TEST(BrokerIdentity, TheLongestTokenFits) {
  connected_pair pair;
  const std::string token(65535, 't');
  EXPECT_EQ(send_identity(&pair.connection, token_bytes(token), token.size()), 65539);
  EXPECT_EQ(read_bytes(pair.peer.get(), 65539), std::string("\x01\x01\xFF\xFF", 4) + token);
}

TEST(BrokerIdentity, ALengthBeyond16BitsIsCutWithItsData) {
  connected_pair pair;
  const std::string token(65536 + 3, 't');
  EXPECT_EQ(send_identity(&pair.connection, token_bytes(token), token.size()), 7);
  EXPECT_EQ(read_bytes(pair.peer.get(), 7), std::string("\x01\x01\x00\x03ttt", 7));
}

TEST(BrokerIdentity, AMissingAgentIdEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const settings_file settings{};
        connected_pair pair;
        options.log_level = level_error;
        options.file_log = false;
        send_identity(&pair.connection, nullptr, 0);
      },
      testing::ExitedWithCode(1), "WARNING: Cannot get q_agent_id value.\n");
}

TEST(BrokerIdentity, AClosedPeerGivesTheWriteResult) {
  connected_pair pair;
  pair.peer.reset();
  log_capture log;
  EXPECT_EQ(send_identity(&pair.connection, token_bytes("t"), 1), -1);
  EXPECT_THAT(log.text(), HasSubstr("Wroted less then needed: -1\n"));
}

TEST(BrokerKeepalives, AreThreeBigEndianNumbers) {
  connected_pair pair;
  EXPECT_EQ(send_broker_keepalives(&pair.connection, 0x01020304, 5, 0xFFFFFFFE), 16);
  EXPECT_EQ(read_bytes(pair.peer.get(), 16),
            std::string("\x0A\x01\x00\x0C\x01\x02\x03\x04\x00\x00\x00\x05\xFF\xFF\xFF\xFE", 16));
}

TEST(BrokerKeepalives, WithoutAConnectionNothingIsSent) {
  EXPECT_EQ(send_broker_keepalives(nullptr, 1, 2, 3), -1);
}
