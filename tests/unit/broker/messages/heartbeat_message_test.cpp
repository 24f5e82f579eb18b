#include "broker/messages/heartbeat_message.h"

#include "../peer.h"
#include "broker/packet_format.h"
#include "broker/qbroker_connection_commands.h"
#include "log_capture.h"

#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <thread>

namespace {

using testing::HasSubstr;

uint64_t big_endian(const std::string& bytes) {
  uint64_t value = 0;
  for (const char byte : bytes) {
    value = value << 8 | static_cast<unsigned char>(byte);
  }
  return value;
}

// Sends one heartbeat; its 20 bytes.
std::string heartbeat() {
  connected_pair pair;
  EXPECT_EQ(send_heartbeat(&pair.connection), 20);
  return read_bytes(pair.peer.get(), 20);
}

uint64_t sequence_number_of(const std::string& packet) {
  return big_endian(packet.substr(4, 8));
}

void respond(uint64_t sequence_number) {
  const uint64_t network = host_to_net64(sequence_number);
  unsigned char chunk[16] = {};
  std::memcpy(chunk, &network, sizeof network);
  heartbeat_response_received(chunk, sizeof chunk);
}

// The command pipe of a session.
struct command_pipe {
  command_pipe() {
    if (pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0) std::abort();
    publish_command_pipe(ends[1]);
  }
  ~command_pipe() {
    publish_command_pipe(-1);
    close(ends[0]);
    close(ends[1]);
  }
  command_pipe(const command_pipe&) = delete;
  command_pipe& operator=(const command_pipe&) = delete;

  [[nodiscard]] std::string commands() const {
    char bytes[16];
    const ssize_t count = read(ends[0], bytes, sizeof bytes);
    return count > 0 ? std::string(bytes, static_cast<size_t>(count)) : "";
  }

  int ends[2];
};

}  // namespace

TEST(Heartbeat, CarriesItsNumberAndTheTime) {
  const auto before = static_cast<uint64_t>(time(nullptr));
  const std::string packet = heartbeat();
  const auto after = static_cast<uint64_t>(time(nullptr));
  ASSERT_EQ(packet.size(), 20U);
  EXPECT_EQ(packet.substr(0, 4), std::string("\x0B\x01\x00\x10", 4));
  EXPECT_GE(big_endian(packet.substr(12)), before);
  EXPECT_LE(big_endian(packet.substr(12)), after);
}

TEST(Heartbeat, TheFirstOneOfAProcessIsNumber1) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(sequence_number_of(heartbeat()) == 1 ? 0 : 1), testing::ExitedWithCode(0), "");
}

TEST(Heartbeat, NumbersGoUpByOne) {
  const uint64_t first = sequence_number_of(heartbeat());
  EXPECT_EQ(sequence_number_of(heartbeat()), first + 1);
}

TEST(Heartbeat, TheNumberIsLogged) {
  log_capture log;
  const uint64_t number = sequence_number_of(heartbeat());
  EXPECT_THAT(log.text(),
              HasSubstr("DEBUG: heartbeat with seq number " + std::to_string(number) + " was sent.\n"));
}

TEST(Heartbeat, WithoutAConnectionTheNumberIsUsedUp) {
  const uint64_t first = sequence_number_of(heartbeat());
  EXPECT_EQ(send_heartbeat(nullptr), -1);
  EXPECT_EQ(sequence_number_of(heartbeat()), first + 2);
}

TEST(Heartbeat, AnAnsweredOneIsFine) {
  const command_pipe pipe;
  respond(sequence_number_of(heartbeat()));
  log_capture log;
  EXPECT_EQ(check_heartbeat(), 0);
  EXPECT_THAT(log.text(), HasSubstr("DEBUG: heartbeat OK!\n"));
  EXPECT_EQ(pipe.commands(), "");
}

TEST(Heartbeat, AMissingAnswerClosesTheConnection) {
  const command_pipe pipe;
  heartbeat();
  log_capture log;
  EXPECT_EQ(check_heartbeat(), -1);
  EXPECT_THAT(log.text(),
              HasSubstr("WARNING: latest heartbeat is not received! Sending command to close connection.\n"));
  EXPECT_EQ(pipe.commands(), "c");
}

TEST(Heartbeat, AnAnswerToAnOlderOneCountsAsMissing) {
  const command_pipe pipe;
  const uint64_t older = sequence_number_of(heartbeat());
  const uint64_t newer = sequence_number_of(heartbeat());
  log_capture log;
  respond(older);
  EXPECT_EQ(check_heartbeat(), -1);
  EXPECT_EQ(pipe.commands(), "c");
  EXPECT_THAT(log.text(),
              HasSubstr("Received heartbeat response with sequence number " + std::to_string(older) +
                        ", latest sent was " + std::to_string(newer) + ".\n"));
}

TEST(Heartbeat, AResponseOfAnotherLengthIsIgnored) {
  const uint64_t number = sequence_number_of(heartbeat());
  respond(number);
  for (const uint16_t length :
       {uint16_t{0}, uint16_t{1}, uint16_t{15}, uint16_t{17}, uint16_t{20}, uint16_t{65535}}) {
    const std::string chunk(65535, '\x7F');
    log_capture log;
    heartbeat_response_received(reinterpret_cast<const unsigned char*>(chunk.data()), length);
    EXPECT_EQ(check_heartbeat(), 0);
    EXPECT_THAT(log.text(),
                HasSubstr("WARNING: Size of hearbeat responce is more than we expected. Expected 16, "
                          "but received " +
                          std::to_string(length) + ".\n"));
  }
}

TEST(Heartbeat, MayBeCheckedFromAnotherThread) {
  const command_pipe pipe;
  connected_pair pair;
  std::thread checker{[] {
    for (int i = 0; i < 100; ++i) {
      check_heartbeat();
    }
  }};
  for (uint64_t i = 0; i < 100; ++i) {
    send_heartbeat(&pair.connection);
    respond(i);
  }
  checker.join();
  EXPECT_EQ(read_bytes(pair.peer.get(), 2000).size(), 2000U);
}
