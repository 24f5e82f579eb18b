#include "broker/messages/heartbeat_message.h"
#include "broker/packet_parser.h"
#include "delivery_capture.h"
#include "log_capture.h"

#include <gmock/gmock.h>
#include <string>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class SessionPackets : public testing::Test {
protected:
  ~SessionPackets() override { packet_parser_free(parser_); }

  void feed(const std::string& bytes) {
    EXPECT_EQ(packet_parse(parser_, &session_callbacks, reinterpret_cast<const unsigned char*>(bytes.data()),
                           bytes.size()),
              bytes.size());
  }

  packet_parser* parser_ = packet_parser_create(nullptr);
};

std::string chunk(const std::string& data) {
  return std::string{static_cast<char>(data.size() >> 8), static_cast<char>(data.size())} + data;
}

std::string packet(int type, int count, const std::string& chunks) {
  return std::string{static_cast<char>(type), static_cast<char>(count)} + chunks;
}

}  // namespace

TEST_F(SessionPackets, APlainMessageReachesItsHandler) {
  const delivery_capture handler{"greeter"};
  feed(packet(2, 4, chunk("greeter") + chunk("one ") + chunk("two ") + chunk("three")));
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre("one two three"));
}

TEST_F(SessionPackets, EachPlainMessageBeginsAnew) {
  const delivery_capture handler{"greeter"};
  feed(packet(2, 2, chunk("greeter") + chunk("first")) + packet(2, 2, chunk("greeter") + chunk("second")));
  feed(packet(2, 1, chunk("greeter")) + packet(2, 2, chunk("greeter") + chunk("last")));
  EXPECT_THAT(delivery_capture::wait_for(4), ElementsAre("first", "second", "", "last"));
}

TEST_F(SessionPackets, AnEmptyFirstChunkLeavesNoHandlerName) {
  log_capture log;
  feed(packet(2, 1, chunk("")));
  EXPECT_THAT(log.text(), HasSubstr("WARNING: received message from qbroker without handler id\n"));
}

TEST_F(SessionPackets, AnUnfinishedMessageOfAnEarlierConnectionIsForgotten) {
  const delivery_capture handler{"greeter"};
  feed(packet(2, 3, chunk("greeter") + chunk("lost")));
  packet_parser_free(parser_);
  parser_ = packet_parser_create(nullptr);
  feed(packet(2, 2, chunk("greeter") + chunk("kept")));
  EXPECT_THAT(delivery_capture::wait_for(1), ElementsAre("kept"));
}

TEST_F(SessionPackets, AHeartbeatResponseIsTaken) {
  log_capture log;
  feed(packet(12, 1, chunk(std::string(7, '\0') + '\x05' + std::string(8, 'x'))));
  EXPECT_THAT(log.text(), HasSubstr("Received heartbeat response with sequence number 5, latest sent was "));
}

TEST_F(SessionPackets, OtherTypesAreSkippedWithoutAWord) {
  log_capture log;
  for (int type = 0; type < 256; ++type) {
    if (type != 2 && type != 12) feed(packet(type, 2, chunk("greeter") + chunk("data")));
  }
  EXPECT_THAT(log.text(), IsEmpty());
}
