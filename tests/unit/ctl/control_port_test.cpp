#include "ctl/control_port.h"

#include "ctl/waiting.h"
#include "loopback.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>

namespace {

TEST(CtlControlPort, RequestIsSentWholeAndTheAnswerIsRead) {
  const loopback_listener agent;
  const std::string request(3'000'000, 'r');
  std::string received;
  std::thread serve{[&] {
    const fd_owner client = agent.accept_one();
    received = read_all(client.get());
    ASSERT_EQ(send(client.get(), "answer", 6, MSG_NOSIGNAL), 6);
  }};
  std::string reply;
  EXPECT_EQ(exchange(agent.port(), request, 60, &reply), 0);
  serve.join();
  EXPECT_EQ(received, request);
  EXPECT_EQ(reply, "answer");
}

TEST(CtlControlPort, NobodyListens) {
  uint16_t port = 0;
  {
    const loopback_listener closed;
    port = closed.port();
  }
  std::string reply;
  EXPECT_EQ(exchange(port, "request", 60, &reply), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
}

TEST(CtlControlPort, BusyAgentIsWaitedForNoLongerThanAllowed) {
  const loopback_listener busy;  // nobody accepts
  std::string reply;
  EXPECT_EQ(exchange(busy.port(), "request", 1, &reply), -2);
  EXPECT_EQ(errno, ETIMEDOUT);
}

TEST(CtlWaiting, PassedLimitIsNoMillisecond) {
  EXPECT_EQ(milliseconds_until(time_limit{}), 0);
  EXPECT_GT(milliseconds_until(seconds_from_now(86400)), 86'000'000);
}

TEST(CtlWaiting, TimeThatIsOverIsAnError) {
  const pipe_ends pipe = make_pipe(O_CLOEXEC);
  errno = 0;
  EXPECT_FALSE(wait_ready(pipe.read_end.get(), POLLIN, time_limit{}));
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_TRUE(wait_ready(pipe.write_end.get(), POLLOUT, time_limit{}));
}

}  // namespace
