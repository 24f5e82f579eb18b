#include "broker/net_helper.h"

#include "broker/qbroker_connection_commands.h"
#include "interrupted_call.h"
#include "libc_hooks.h"
#include "log_capture.h"
#include "peer.h"

#include <atomic>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <netinet/tcp.h>
#include <thread>

namespace {

using testing::HasSubstr;
using testing::Not;

fd_owner tcp_socket() {
  return fd_owner{socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)};
}

int option_of(int fd, int level, int option) {
  int value = -1;
  socklen_t size = sizeof value;
  getsockopt(fd, level, option, &value, &size);
  return value;
}

addrinfo address_of(const sockaddr_in& address) {
  addrinfo entry{};
  entry.ai_family = AF_INET;
  entry.ai_socktype = SOCK_STREAM;
  entry.ai_addr = const_cast<sockaddr*>(reinterpret_cast<const sockaddr*>(&address));
  entry.ai_addrlen = sizeof address;
  return entry;
}

class NetHelper : public testing::Test {
protected:
  void TearDown() override { keep_connection = 0; }
};

}  // namespace

TEST_F(NetHelper, ConnectsACloseOnExecSocket) {
  const loopback_listener listener;
  const sockaddr_in address = loopback(listener.port());
  const addrinfo entry = address_of(address);
  const fd_owner fd{socket_connect(&entry)};
  ASSERT_TRUE(fd.valid());
  EXPECT_TRUE(listener.accept_one().valid());
  EXPECT_EQ(fcntl(fd.get(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(fcntl(fd.get(), F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(NetHelper, ARefusedConnectIsWarnedAboutAndKeepsErrno) {
  loopback_listener listener;
  listener.stop();
  const sockaddr_in address = loopback(listener.port());
  const addrinfo entry = address_of(address);
  log_capture log;
  EXPECT_EQ(socket_connect(&entry), -1);
  EXPECT_EQ(errno, ECONNREFUSED);
  EXPECT_THAT(log.text(), HasSubstr("WARNING: Can't connect to server, errno=111 - Connection refused.\n"));
}

TEST_F(NetHelper, ASocketThatCantBeMadeIsAnError) {
  addrinfo entry{};
  entry.ai_family = AF_MAX;
  entry.ai_socktype = SOCK_STREAM;
  log_capture log;
  EXPECT_EQ(socket_connect(&entry), -1);
  EXPECT_THAT(log.text(), HasSubstr("Can't open socket: Address family not supported by protocol.\n"));
}

TEST_F(NetHelper, SwitchesKeepalivesOn) {
  const fd_owner fd = tcp_socket();
  EXPECT_EQ(set_keepalive(fd.get()), 0);
  EXPECT_EQ(option_of(fd.get(), SOL_SOCKET, SO_KEEPALIVE), 1);
}

TEST_F(NetHelper, AFailedKeepaliveIsAnError) {
  log_capture log;
  EXPECT_EQ(set_keepalive(-1), -1);
  EXPECT_EQ(set_keepalive_values(-1, 1, 2, 3), -1);
  const std::string text = log.text();
  EXPECT_THAT(text, HasSubstr("setsockopt(): Bad file descriptor.\n"));
  EXPECT_THAT(text, Not(HasSubstr("TCP_KEEPIDLE")));
}

TEST_F(NetHelper, KeepaliveValuesAreIdleCountInterval) {
  const fd_owner fd = tcp_socket();
  EXPECT_EQ(set_keepalive_values(fd.get(), 61, 7, 13), 0);
  EXPECT_EQ(option_of(fd.get(), SOL_SOCKET, SO_KEEPALIVE), 1);
  EXPECT_EQ(option_of(fd.get(), IPPROTO_TCP, TCP_KEEPIDLE), 61);
  EXPECT_EQ(option_of(fd.get(), IPPROTO_TCP, TCP_KEEPCNT), 7);
  EXPECT_EQ(option_of(fd.get(), IPPROTO_TCP, TCP_KEEPINTVL), 13);
}

TEST_F(NetHelper, KeepaliveValuesStopAtTheFirstFailure) {
  struct {
    int idle, count, interval;
    const char* text;
  } const cases[] = {
      {0, 0, 0, "Cannot set TCP_KEEPIDLE - setsockopt(): Invalid argument.\n"},
      {61, 0, 0, "Cannot set TCP_KEEPCNT - setsockopt(): Invalid argument.\n"},
      {61, 7, 0, "Cannot set TCP_KEEPINTVL - setsockopt(): Invalid argument.\n"},
  };
  for (const auto& [idle, count, interval, expected] : cases) {
    const fd_owner fd = tcp_socket();
    log_capture log;
    EXPECT_EQ(set_keepalive_values(fd.get(), idle, count, interval), -1);
    const std::string text = log.text();
    EXPECT_THAT(text, HasSubstr(expected));
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
  }
}

TEST_F(NetHelper, RecvAllCollectsWhatComesInPieces) {
  connected_pair pair;
  std::thread writer{[&] {
    for (const char* piece : {"a", "bcd", "efghij"}) {
      send_all(pair.peer.get(), piece, std::strlen(piece));
      std::this_thread::yield();
    }
  }};
  char buffer[10];
  EXPECT_EQ(recv_all(&pair.connection, buffer, sizeof buffer), 10);
  writer.join();
  EXPECT_EQ(std::string(buffer, sizeof buffer), "abcdefghij");
}

TEST_F(NetHelper, RecvAllOfAClosedStreamIsZero) {
  connected_pair pair;
  send_all(pair.peer.get(), "abc", 3);
  pair.peer.reset();
  log_capture log;
  char buffer[10];
  EXPECT_EQ(recv_all(&pair.connection, buffer, sizeof buffer), 0);
  EXPECT_THAT(log.text(), HasSubstr("Connection was closed.\n"));
}

TEST_F(NetHelper, RecvAllReportsAReadError) {
  net_connection broken{-1, nullptr, nullptr};
  log_capture log;
  char buffer[10];
  EXPECT_EQ(recv_all(&broken, buffer, sizeof buffer), -1);
  EXPECT_THAT(log.text(), HasSubstr("Cannot read data from socket. errno = 9 - Bad file descriptor.\n"));
}

TEST_F(NetHelper, RecvAllGoesOnAfterASignalWhileTheConnectionIsWanted) {
  connected_pair pair;
  keep_connection = 1;
  log_capture log;
  ssize_t result = -2;
  {
    interrupted_call call{[&] {
      char buffer[4];
      result = recv_all(&pair.connection, buffer, sizeof buffer);
    }};
    call.interrupt();
    send_all(pair.peer.get(), "abcd", 4);
  }
  EXPECT_EQ(result, 4);
  EXPECT_THAT(log.text(), HasSubstr("recv was interrupted by signal.\n"));
}

TEST_F(NetHelper, RecvAllGivesUpAfterASignalWhenTheConnectionIsNotWanted) {
  connected_pair pair;
  keep_connection = 0;
  log_capture log;
  ssize_t result = -2;
  {
    interrupted_call call{[&] {
      char buffer[4];
      result = recv_all(&pair.connection, buffer, sizeof buffer);
    }};
    if (!call.interrupt_until_ended()) pair.peer.reset();
  }
  EXPECT_EQ(result, -1);
  EXPECT_THAT(log.text(), HasSubstr("recv was interrupted by signal.\n"));
}

TEST_F(NetHelper, SendAllSendsMoreThanTheSocketHolds) {
  connected_pair pair;
  const std::string bytes(4'000'000, 'x');
  std::string received;
  std::thread reader{[&] { received = read_bytes(pair.peer.get(), bytes.size()); }};
  EXPECT_EQ(send_all(pair.connection.socket, bytes.data(), bytes.size()), 4'000'000);
  reader.join();
  EXPECT_EQ(received, bytes);
}

TEST_F(NetHelper, SendAllGoesOnAfterASignal) {
  connected_pair pair;
  const std::string bytes(4'000'000, 'x');
  log_capture log;
  ssize_t result = -2;
  {
    interrupted_call call{[&] { result = send_all(pair.connection.socket, bytes.data(), bytes.size()); }};
    call.interrupt();
    EXPECT_EQ(read_bytes(pair.peer.get(), bytes.size()), bytes);
  }
  EXPECT_EQ(result, 4'000'000);
  EXPECT_THAT(log.text(), HasSubstr("EINTR. ignore it.\n"));
}

TEST_F(NetHelper, SendAllToAClosedPeerIsAnErrorWithoutASignal) {
  connected_pair pair;
  pair.peer.reset();
  log_capture log;
  EXPECT_EQ(send_all(pair.connection.socket, "abc", 3), -1);
  EXPECT_THAT(log.text(), HasSubstr("Send data to socket error. errno = 32 - Broken pipe.\n"));
}

TEST_F(NetHelper, SendAllReportsASendOfNothing) {
  connected_pair pair;
  log_capture log;
  const failing_call send_gives_0{"send"};
  EXPECT_EQ(send_all(pair.connection.socket, "abc", 3), 0);
  EXPECT_THAT(log.text(), HasSubstr("Connection was closed.\n"));
}

TEST_F(NetHelper, NothingToSendIsSent) {
  EXPECT_EQ(send_all(-1, nullptr, 0), 0);
}

TEST(ResolveIpv4, GivesTheFirstAddress) {
  in_addr address{};
  int resolver_error = -1;
  EXPECT_EQ(resolve_ipv4("127.0.0.2", &address, &resolver_error), 0);
  EXPECT_EQ(ntohl(address.s_addr), INADDR_LOOPBACK + 1);
  EXPECT_EQ(resolver_error, 0);
}

TEST(ResolveIpv4, AnAddressIsNotLookedUp) {
  const resolver_that_needs resolver{1};  // and then finds another one
  in_addr address{};
  int resolver_error = -1;
  EXPECT_EQ(resolve_ipv4("127.0.0.2", &address, &resolver_error), 0);
  EXPECT_EQ(ntohl(address.s_addr), INADDR_LOOPBACK + 1);
  EXPECT_EQ(resolver_error, 0);
}

TEST(ResolveIpv4, AnyNumberOfAddressesFits) {
  const resolver_that_needs resolver{size_t{20} * 1024};
  in_addr address{};
  int resolver_error = 0;
  EXPECT_EQ(resolve_ipv4("many.test", &address, &resolver_error), 0);
  EXPECT_EQ(ntohl(address.s_addr), INADDR_LOOPBACK + 2);
}

TEST(ResolveIpv4, AResolverThatNeverHasEnoughIsAFailure) {
  const resolver_that_needs resolver{SIZE_MAX};
  in_addr address{};
  int resolver_error = 0;
  EXPECT_EQ(resolve_ipv4("endless.test", &address, &resolver_error), -1);
  EXPECT_EQ(resolver_error, NETDB_INTERNAL);
}

TEST(ResolveIpv4, AFailureSaysWhy) {
  in_addr address{};
  int resolver_error = 0;
  EXPECT_EQ(resolve_ipv4("", &address, &resolver_error), -1);
  EXPECT_NE(resolver_error, 0);
}
