#include "delivery/message_sender_delivery.h"

#include "failing_calls.h"
#include "handler_ends.h"
#include "log_capture.h"
#include "log_lines.h"
#include "temp_folder.h"

#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::StartsWith;

void deliver_text(const std::string& address, uint16_t port, const std::string& text) {
  connect_and_send(address.c_str(), port, text.data(), static_cast<uint32_t>(text.size()));
}

TEST(MessageSenderDelivery, TcpHandlerGetsTheMessageOnAConnectionOfItsOwn) {
  const listening_handler handler;
  log_capture log;
  deliver_text("127.0.0.1", handler.port(), "first");
  deliver_text("localhost", handler.port(), "second");
  EXPECT_THAT(messages(log.text()),
              ElementsAre("INFO: Sent to handler 5 bytes.", "INFO: Sent to handler 6 bytes."));
  EXPECT_EQ(handler.receive(), "first");
  EXPECT_EQ(handler.receive(), "second");
}

TEST(MessageSenderDelivery, UnixHandlerGetsTheMessage) {
  const temp_folder folder;
  const listening_handler handler{folder / "socket"};
  log_capture log;
  deliver_text(folder / "socket", 0, "hello");
  EXPECT_THAT(messages(log.text()), ElementsAre("INFO: Sent to handler 5 bytes."));
  EXPECT_EQ(handler.receive(), "hello");
}

TEST(MessageSenderDelivery, LongMessageArrivesByteForByte) {
  const std::string text = payload_of(3'000'000);
  const temp_folder folder;
  const listening_handler tcp;
  const listening_handler local{folder / "socket"};
  std::string received[2];
  std::thread reader{[&] {
    received[0] = tcp.receive();
    received[1] = local.receive();
  }};
  deliver_text("127.0.0.1", tcp.port(), text);
  deliver_text(folder / "socket", 0, text);
  reader.join();
  EXPECT_TRUE(received[0] == text);
  EXPECT_TRUE(received[1] == text);
}

TEST(MessageSenderDelivery, EmptyMessageOpensAndClosesTheConnection) {
  const listening_handler handler;
  log_capture log;
  connect_and_send("127.0.0.1", handler.port(), "unused", 0);
  connect_and_send("127.0.0.1", handler.port(), nullptr, 5);
  EXPECT_EQ(log.text(), "");
  EXPECT_EQ(handler.receive(), "");
  EXPECT_EQ(handler.receive(), "");
}

TEST(MessageSenderDelivery, RefusedTcpConnectionIsLogged) {
  listening_handler handler;
  handler.stop();
  log_capture log;
  deliver_text("127.0.0.1", handler.port(), "lost");
  EXPECT_THAT(messages(log.text()),
              ElementsAre("WARNING: Can't connect to '127.0.0.1':" + std::to_string(handler.port()) +
                          ", errno=111 - Connection refused."));
}

TEST(MessageSenderDelivery, HostWithoutAddressIsLogged) {
  // Neither name is ever asked for on the network: the first is no name, the second too long for one.
  for (const std::string& host : {std::string{}, std::string(256, 'h')}) {
    log_capture log;
    deliver_text(host, 80, "lost");
    EXPECT_THAT(messages(log.text()),
                ElementsAre(testing::MatchesRegex("WARNING: Can't resolve host '" + host +
                                                  "'\\. h_errno=-?[0-9]+ - .*\\.")));
  }
}

TEST(MessageSenderDelivery, MissingUnixSocketIsLogged) {
  const temp_folder folder;
  log_capture log;
  deliver_text(folder / "socket", 0, "lost");
  EXPECT_THAT(messages(log.text()),
              ElementsAre("WARNING: Can't connect to unix socket '" + folder / "socket" +
                          "', errno=2 - No such file or directory."));
}

TEST(MessageSenderDelivery, UnixPathThatFillsTheAddressIsValid) {
  const temp_folder folder;
  for (const size_t length : {size_t{107}, size_t{108}}) {
    const std::string path = path_of_length(folder, length);
    const listening_handler handler{path};
    deliver_text(path, 0, "hello");
    EXPECT_EQ(handler.receive(), "hello") << length;
  }
}

TEST(MessageSenderDelivery, LongerUnixPathFailsAndIsNotCut) {
  const temp_folder folder;
  const std::string path = path_of_length(folder, 109);
  const listening_handler at_cut_path{path.substr(0, 108)};
  log_capture log;
  deliver_text(path, 0, "lost");
  EXPECT_THAT(messages(log.text()), ElementsAre("WARNING: Can't connect to unix socket '" + path +
                                                "', errno=22 - Invalid argument."));
  EXPECT_FALSE(at_cut_path.has_connection());
}

TEST(MessageSenderDelivery, EmptyUnixPathFails) {
  log_capture log;
  deliver_text("", 0, "lost");
  EXPECT_THAT(messages(log.text()),
              ElementsAre("WARNING: Can't connect to unix socket '', errno=22 - Invalid argument."));
}

TEST(MessageSenderDelivery, HandlerThatClosesEarlyIsLogged) {
  const temp_folder folder;
  const listening_handler handler{folder / "socket"};
  const std::string text = payload_of(3'000'000);
  std::thread closer{[&] { static_cast<void>(handler.accept_one()); }};
  log_capture log;
  deliver_text(folder / "socket", 0, text);
  closer.join();
  EXPECT_THAT(messages(log.text()),
              ElementsAre(StartsWith("WARNING: Send data to socket error. errno = "),
                          "WARNING: Failed to send msg to qhandler on port '" + folder / "socket" + "':0."));
}

TEST(MessageSenderDelivery, MissingSocketIsLogged) {
  for (const uint16_t port : {uint16_t{0}, uint16_t{80}}) {
    log_capture log;
    const failing_call failing{"socket", EMFILE};
    deliver_text("127.0.0.1", port, "lost");
    EXPECT_THAT(messages(log.text()),
                ElementsAre("WARNING: Can't open socket: errno=24-Too many open files."));
  }
}

TEST(MessageSenderDelivery, FailedCloseIsLogged) {
  const listening_handler handler;
  log_capture log;
  {
    const failing_call failing{"close", EIO};
    deliver_text("127.0.0.1", handler.port(), "hello");
  }
  EXPECT_THAT(messages(log.text()),
              ElementsAre("INFO: Sent to handler 5 bytes.",
                          "WARNING: Failed to close socket: errno=5-Input/output error."));
  EXPECT_EQ(handler.receive(), "hello");
}

TEST(MessageSenderDelivery, FailedCloseAfterAFailedConnectIsLoggedToo) {
  log_capture log;
  {
    const failing_call failing{"close", EIO};
    deliver_text("", 0, "lost");
  }
  EXPECT_THAT(messages(log.text()),
              ElementsAre(StartsWith("WARNING: Can't connect to unix socket"),
                          "WARNING: Failed to close socket: errno=5-Input/output error."));
}

}  // namespace
