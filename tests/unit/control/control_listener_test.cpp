#include "control/control_listener.h"

#include "control_fixture.h"
#include "descriptors.h"
#include "in_order.h"
#include "loopback.h"
#include "process_limits.h"
#include "sanitizers.h"
#include "waiting.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <iterator>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

using testing::HasSubstr;
using testing::Not;

namespace {

int bind_to(int fd, uint16_t port) {
  const sockaddr_in address = loopback(port);
  return bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

fd_owner make_socket() {
  return fd_owner{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
}

// A port that nobody uses, held by a socket that never listens: no other program gets it, and a listener that
// shares its port may.
class reserved_port {
public:
  reserved_port() : holder_{make_socket()} {
    const int on = 1;
    setsockopt(holder_.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
    if (bind_to(holder_.get(), 0) != 0) std::abort();
    number = port_of(holder_.get());
  }

  uint16_t number;

private:
  fd_owner holder_;
};

class ControlListenerTest : public control_fixture {
protected:
  ControlListenerTest() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) std::abort();
    pipe_read_end.reset(ends[0]);
    pipe_write_end.reset(ends[1]);
    options.control_port = port.number;
  }

  void start() {
    thread = start_control_listener(&settings, pipe_read_end.get());
    ASSERT_NE(thread, pthread_t{0});
  }

  // Ends the listener by a byte in its pipe, or by itself, and gives the log.
  std::string stop(log_capture* log, bool ends_by_itself = false) {
    if (!ends_by_itself) {
      const char byte = control_end_thread;
      EXPECT_EQ(write(pipe_write_end.get(), &byte, 1), 1);
    }
    pthread_join(thread, nullptr);
    return log->text();
  }

  // A connected client. The listener may not be listening yet: then it tries again.
  [[nodiscard]] fd_owner connect_client() const {
    const sockaddr_in address = loopback(port.number);
    fd_owner client;
    EXPECT_TRUE(eventually([&] {
      client = make_socket();
      return connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    })) << "nobody listens";
    return client;
  }

  static void send_all(int client, const std::string& text, size_t piece) {
    for (size_t sent = 0; sent < text.size();) {
      const ssize_t count =
          send(client, text.data() + sent, std::min(piece, text.size() - sent), MSG_NOSIGNAL);
      if (count <= 0) return;
      sent += static_cast<size_t>(count);
    }
  }

  // One whole exchange as a local program makes it.
  [[nodiscard]] std::string ask(const std::string& text, size_t piece = 1 << 20) const {
    const fd_owner client = connect_client();
    send_all(client.get(), text, piece);
    shutdown(client.get(), SHUT_WR);
    return read_all(client.get());
  }

  reserved_port port;
  fd_owner pipe_read_end;
  fd_owner pipe_write_end;
  pthread_t thread = 0;
};

TEST_F(ControlListenerTest, AnswersARequestWithItsResultCode) {
  log_capture log;
  start();
  EXPECT_EQ(ask(R"({"command":"pause_connections"})"), R"({"result":0})");
  EXPECT_THAT(stop(&log),
              has_in_order({"control_listener: ", "DEBUG: start control listener thread.\n",
                            "DEBUG: Received message {\"command\":\"pause_connections\"}.\n",
                            "DEBUG: Stop connections.\n", "DEBUG: Command execution result is 0\n",
                            "DEBUG: received message in control listener pipe!\n",
                            "DEBUG: end control listener thread.\n"}));
  EXPECT_EQ(http_requests_paused(), 1);
}

TEST_F(ControlListenerTest, EachCommandGoesItsWayAndAnswers) {
  struct {
    const char* text;
    const char* answer;
    const char* logged;
  } const cases[] = {
      {R"({"command":"send_discovery","service":"svc","discovery_time":5})", R"({"result":0})",
       "push svc time=5 id=- data=- carrier=-\n"},
      {R"({"command":"on_claim","service":"svc","claimed":false})", R"({"result":0})",
       "On claim! Claimed? 0, service id is svc\n"},
      {R"({"service":"svc","claimed":true,"command":"on_release"})", R"({"result":0})",
       "On release! Claimed? 1, service id is svc\n"},
      {R"({"command":"resume_connections","carrier_id":"c"})", R"({"result":0})", "Starting connections.\n"},
      {R"({"command":"on_fernhollow","service":"svc","registered":true})", R"({"result":0})",
       "On fernhollow: 1, service id is svc\n"},
      {R"({"command":"pause_connections"})", R"({"result":0})", "Stop connections.\n"},
      {R"({"command":"send_discovery","service":"svc"})", R"({"result":-10})", "result is -10\n"},
      {R"({"command":"on_release","service":"svc","claimed":false})", R"({"result":-10})",
       "WARNING: Send discovery to server would block.\n"},
      {R"({"command":"dance"})", R"({"result":0})", "Cannot execute request with unknown type -1.\n"},
      {R"({"hello":1})", R"({"result":0})", "Cannot execute request with unknown type -1.\n"},
      {R"({"command":"on_claim","service":"svc","claimed":1})", R"({"result":-1})",
       "Incomplete on_claim/on_release request!.\n"},
      {R"({"command":"on_release","service":"svc"})", R"({"result":-1})",
       "Incomplete on_claim/on_release request!.\n"},
      {R"({"command":"on_fernhollow","service":"svc"})", R"({"result":-1})",
       "Incomplete on_fernhollow request!.\n"},
      {R"({"command":"send_discovery"})", R"({"result":-1})", "Incomplete discovery request!.\n"},
      {"{}", R"({"result":-1})", "Can't get list of elements in control request.\n"},
      {"no JSON", R"({"result":-1})", "Error before: 'no JSON'\n"},
  };
  store({{"q_use_discovery", "1"}});
  log_capture log;
  start();
  std::vector<std::string> expected;
  for (const auto& test : cases) {
    EXPECT_EQ(ask(test.text), test.answer) << test.text;
    expected.insert(expected.end(), {"Received message " + std::string{test.text} + ".\n", test.logged});
  }
  EXPECT_THAT(stop(&log), has_in_order(expected));
  EXPECT_EQ(carrier_id(), "c");
}

TEST_F(ControlListenerTest, AClientThatSendsNothingGetsAnAnswer) {
  log_capture log;
  start();
  EXPECT_EQ(ask(""), R"({"result":-1})");
  EXPECT_THAT(stop(&log), has_in_order({"DEBUG: Received message .\n", "WARNING: Error before: ''\n",
                                        "WARNING: Cannot parse incoming request.\n",
                                        "DEBUG: Command execution result is -1\n"}));
}

TEST_F(ControlListenerTest, ARequestIsAssembledHoweverItArrives) {
  log_capture log;
  start();
  const std::string filler(1000, 'x');
  const std::string text =
      R"({"ignored":")" + filler + R"(","command":"resume_connections","carrier_id":"end"})";
  struct {
    size_t piece;
  } const cases[] = {{1}, {7}, {255}, {256}, {257}, {1000}};
  for (const auto& test : cases) {
    replace_carrier_id(&settings, nullptr);
    EXPECT_EQ(ask(text, test.piece), R"({"result":0})") << test.piece;
    EXPECT_EQ(carrier_id(), "end") << test.piece;
  }
  EXPECT_THAT(stop(&log), HasSubstr("Received message " + text + ".\n"));
}

TEST_F(ControlListenerTest, ARequestOfOneMebibyteIsReadWhole) {
  log_capture log;
  start();
  const std::string text =
      R"({"ignored":")" + std::string(1 << 20, 'x') + R"(","command":"pause_connections"})";
  EXPECT_EQ(ask(text), R"({"result":0})");
  stop(&log);
  EXPECT_EQ(http_requests_paused(), 1);
}

TEST_F(ControlListenerTest, ReadingEndsAtFourMebibytes) {
  log_capture log;
  start();
  // The answer may be lost with a connection that closes on unread bytes: what counts is what was executed.
  static_cast<void>(ask(std::string(4 << 20, ' ') + R"({"command":"pause_connections"})"));
  EXPECT_EQ(ask(R"({"command":"dance"})"), R"({"result":0})");
  const std::string text = stop(&log);
  EXPECT_NE(text.find("Cannot parse incoming request.\n"), std::string::npos);
  EXPECT_EQ(text.find("pause_connections"), std::string::npos);
}

TEST_F(ControlListenerTest, ANulByteEndsTheText) {
  log_capture log;
  start();
  const std::string text{"{\"command\":\"pause_connections\"}\0garbage", 39};
  EXPECT_EQ(ask(text), R"({"result":0})");
  EXPECT_EQ(ask(std::string{"\0{}", 3}), R"({"result":-1})");
  EXPECT_THAT(stop(&log), has_in_order({"Received message {\"command\":\"pause_connections\"}.\n",
                                        "Received message .\n"}));
}

TEST_F(ControlListenerTest, BinaryRequestsAreAnsweredAsUnreadable) {
  log_capture log;
  start();
  EXPECT_EQ(ask("\xff\xfe\x80%s%n\x01"), R"({"result":-1})");
  EXPECT_THAT(stop(&log), HasSubstr("Received message \xff\xfe\x80%s%n\x01.\n"));
}

TEST_F(ControlListenerTest, ClientsAreServedInTheOrderInWhichTheyCame) {
  log_capture log;
  start();
  const fd_owner slow = connect_client();
  const fd_owner waiting = connect_client();
  send_all(waiting.get(), R"({"command":"dance"})", 100);
  shutdown(waiting.get(), SHUT_WR);
  pollfd watched{waiting.get(), POLLIN, 0};
  EXPECT_EQ(poll(&watched, 1, 50), 0) << "the first client has not finished";

  send_all(slow.get(), R"({"command":"pause_connections"})", 100);
  shutdown(slow.get(), SHUT_WR);
  EXPECT_EQ(read_all(slow.get()), R"({"result":0})");
  EXPECT_EQ(read_all(waiting.get()), R"({"result":0})");
  EXPECT_THAT(stop(&log), has_in_order({"pause_connections", "dance"}));
}

TEST_F(ControlListenerTest, AClientThatVanishesCostsOneErrorLine) {
  log_capture log;
  start();
  {
    const fd_owner client = connect_client();
    send_all(client.get(), R"({"command":"dance"})", 100);
    const linger reset{1, 0};
    setsockopt(client.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
  }
  EXPECT_EQ(ask(R"({"command":"dance"})"), R"({"result":0})");
  EXPECT_THAT(stop(&log),
              HasSubstr("WARNING: write() error " + std::to_string(EPIPE) + " writing back to client\n"));
}

TEST_F(ControlListenerTest, AWaitingClientIsServedBeforeThePipe) {
  log_capture log;
  start();
  const fd_owner first = connect_client();
  const fd_owner second = connect_client();
  const char byte = control_end_thread;
  ASSERT_EQ(write(pipe_write_end.get(), &byte, 1), 1);
  for (const fd_owner* client : {&first, &second}) {
    shutdown(client->get(), SHUT_WR);
    EXPECT_EQ(read_all(client->get()), R"({"result":-1})");
  }
  EXPECT_THAT(stop(&log, true), HasSubstr("end control listener thread.\n"));
}

TEST_F(ControlListenerTest, AClosedPipeEndsTheThread) {
  log_capture log;
  start();
  pipe_write_end.reset();
  EXPECT_THAT(stop(&log, true), has_in_order({"received message in control listener pipe!\n",
                                              "end control listener thread.\n"}));
}

TEST_F(ControlListenerTest, ThePortCanBeSharedAndIsClosedAtTheEnd) {
  log_capture log;
  start();
  { const fd_owner client = connect_client(); }
  const fd_owner sharing = make_socket();
  const int on = 1;
  setsockopt(sharing.get(), SOL_SOCKET, SO_REUSEPORT, &on, sizeof on);
  EXPECT_EQ(bind_to(sharing.get(), port.number), 0);
  stop(&log);
  const sockaddr_in address = loopback(port.number);
  const fd_owner client = make_socket();
  EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), -1);
}

TEST_F(ControlListenerTest, OnlyTheLoopbackAddressIsListenedOn) {
  log_capture log;
  start();
  { const fd_owner client = connect_client(); }
  sockaddr_in other = loopback(port.number);
  other.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 1);
  const fd_owner client = make_socket();
  EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&other), sizeof other), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  stop(&log);
}

TEST_F(ControlListenerTest, AnOccupiedPortEndsTheThread) {
  const fd_owner occupant = make_socket();
  ASSERT_EQ(bind_to(occupant.get(), 0), 0);
  ASSERT_EQ(listen(occupant.get(), 1), 0);
  options.control_port = port_of(occupant.get());
  log_capture log;
  start();
  const std::string text = stop(&log, true);
  EXPECT_THAT(text, HasSubstr("WARNING: bind(). errno: " + std::to_string(EADDRINUSE) + ".\n"));
  EXPECT_THAT(text, Not(HasSubstr("end control listener thread")));
}

TEST_F(ControlListenerTest, AFailedAcceptEndsTheThread) {
  log_capture log;
  start();
  EXPECT_EQ(ask("x"), R"({"result":-1})");  // now it listens, and has closed what it opened
  const fd_owner client = make_socket();
  const auto next_free = static_cast<rlim_t>(fd_owner{dup(client.get())}.get());
  std::optional<limit_guard> none_left{std::in_place, RLIMIT_NOFILE, next_free};
  const sockaddr_in address = loopback(port.number);
  EXPECT_EQ(connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
  const std::string text = stop(&log, true);
  none_left.reset();
  EXPECT_THAT(text, has_in_order({"WARNING: accept(). errno: " + std::to_string(EMFILE) + ".\n",
                                  "end control listener thread.\n"}));
}

TEST_F(ControlListenerTest, AFailedWaitEndsTheThread) {
  log_capture log;
  start();
  EXPECT_EQ(ask("x"), R"({"result":-1})");  // now it listens, and has closed what it opened
  const size_t idle = open_descriptors();
  const fd_owner client = connect_client();
  EXPECT_TRUE(
      eventually([&] { return open_descriptors() >= idle + 2; }));  // the client's end and the accepted one
  // A wait on more descriptors than the process may have is refused.
  std::optional<limit_guard> too_few{std::in_place, RLIMIT_NOFILE, rlim_t{1}};
  shutdown(client.get(), SHUT_WR);
  EXPECT_EQ(read_all(client.get()), R"({"result":-1})");
  pthread_join(thread, nullptr);
  too_few.reset();
  EXPECT_THAT(log.text(), has_in_order({"WARNING: select(). errno: " + std::to_string(EINVAL) + ".\n",
                                        "end control listener thread.\n"}));
}

TEST_F(ControlListenerTest, AMissingSocketEndsTheThread) {
  if (under_address_sanitizer) GTEST_SKIP() << "it needs a descriptor for each thread that starts";
  log_capture log;
  std::optional<limit_guard> none{std::in_place, RLIMIT_NOFILE, rlim_t{0}};
  start();
  pthread_join(thread, nullptr);
  none.reset();
  const std::string text = log.text();
  EXPECT_THAT(text, HasSubstr("WARNING: socket(). errno: " + std::to_string(EMFILE) + ".\n"));
  EXPECT_THAT(text, Not(HasSubstr("end control listener thread")));
}

// A folder is always readable to poll() and never to read().
TEST_F(ControlListenerTest, AFailedReadOfThePipeEndsTheThread) {
  log_capture log;
  pipe_read_end.reset(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  start();
  EXPECT_THAT(stop(&log, true),
              has_in_order({"received message in control listener pipe!\n",
                            "WARNING: read() error " + std::to_string(EISDIR) + " from pipe\n",
                            "end control listener thread.\n"}));
}

// --- ends of the process

class ControlListenerDeathTest : public ControlListenerTest {
protected:
  ControlListenerDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

  // What the death test's process does: the listener gets one byte, and afterwards the process ends with 7.
  [[noreturn]] void run_listener_until(char byte) {
    options.console_log = true;
    options.log_level = level_info;
    start();
    if (write(pipe_write_end.get(), &byte, 1) == 1) pthread_join(thread, nullptr);
    std::exit(7);
  }
};

TEST_F(ControlListenerDeathTest, TheExitByteEndsTheProcess) {
  EXPECT_EXIT(run_listener_until(control_exit_process), testing::ExitedWithCode(0),
              "INFO: received command from orvel thread to call exit\\(\\)");
}

TEST_F(ControlListenerDeathTest, AnyOtherByteEndsTheThreadOnly) {
  EXPECT_EXIT(run_listener_until(control_end_thread), testing::ExitedWithCode(7), "^$");
  EXPECT_EXIT(run_listener_until('x'), testing::ExitedWithCode(7), "^$");
}

}  // namespace
