#include "broker/proxy.h"

#include "broker/ssl_routine.h"
#include "descriptors.h"
#include "libc_hooks.h"
#include "log_capture.h"
#include "settings_file.h"
#include "tls_server.h"

#include <atomic>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <thread>

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using std::string_literals::operator""s;

std::map<std::string, std::string> proxy_settings(int type, int port) {
  return {{"q_qcloud_use_proxy", std::to_string(type)},
          {"q_qcloud_proxy_hostname", "127.0.0.1"},
          {"q_qcloud_proxy_port", std::to_string(port)}};
}

// Addresses for a fake resolver, in order.
class address_chain {
public:
  void add(int family, uint16_t port) {
    entry& added = entries_[count_];
    added.address.ss_family = static_cast<sa_family_t>(family);
    added.info.ai_family = family;
    added.info.ai_socktype = SOCK_STREAM;
    added.info.ai_addr = reinterpret_cast<sockaddr*>(&added.address);
    if (family == AF_INET) {
      auto& ipv4 = reinterpret_cast<sockaddr_in&>(added.address);
      ipv4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      ipv4.sin_port = htons(port);
      added.info.ai_addrlen = sizeof ipv4;
    } else {
      auto& ipv6 = reinterpret_cast<sockaddr_in6&>(added.address);
      ipv6.sin6_addr = in6addr_loopback;
      ipv6.sin6_port = htons(port);
      added.info.ai_addrlen = sizeof ipv6;
    }
    if (count_ > 0) entries_[count_ - 1].info.ai_next = &added.info;
    ++count_;
  }
  addrinfo* list() { return &entries_[0].info; }

private:
  struct entry {
    addrinfo info{};
    sockaddr_storage address{};
  };
  entry entries_[4];
  size_t count_ = 0;
};

class BrokerConnection : public testing::Test {
protected:
  BrokerConnection() {
    ignore_sigpipe();
    settings_file::fill({});
  }
  ~BrokerConnection() override { options.ca_file = nullptr; }

  std::string log() { return log_.text(); }

  log_capture log_;
};

}  // namespace

TEST_F(BrokerConnection, ADirectOneIsAPlainSocketWithKeepalives) {
  const loopback_listener broker;
  const net_connection_ptr connection = open_broker_connection("127.0.0.1", broker.port(), false);
  ASSERT_NE(connection, nullptr) << log();
  const fd_owner peer = broker.accept_one();
  EXPECT_EQ(connection->ssl, nullptr);
  EXPECT_EQ(connection->ssl_ctx, nullptr);
  int keepalive = 0;
  socklen_t size = sizeof keepalive;
  getsockopt(connection->socket, SOL_SOCKET, SO_KEEPALIVE, &keepalive, &size);
  EXPECT_EQ(keepalive, 1);
  EXPECT_EQ(fcntl(connection->socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  EXPECT_EQ(conn_write(connection.get(), "hello", 5), 5);
  EXPECT_EQ(read_bytes(peer.get(), 5), "hello");
  conn_close(connection.get());
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(BrokerConnection, ADirectOneWithTlsChecksTheBrokersName) {
  const test_authority authority;
  const std::string ca_file = authority.file();
  options.ca_file = ca_file.c_str();
  const identity server = authority.issue_for("127.0.0.1");
  const loopback_listener broker;
  tls_server peer{server, [&broker] { return broker.accept_one(); }};
  const net_connection_ptr connection = open_broker_connection("127.0.0.1", broker.port(), true);
  ASSERT_NE(connection, nullptr) << log();
  EXPECT_NE(connection->ssl, nullptr);
  peer.finish();
  EXPECT_FALSE(peer.server_name_sent);
  conn_close(connection.get());
}

TEST_F(BrokerConnection, AFailedTlsStartLeavesNothingOpen) {
  const test_authority authority;
  const std::string ca_file = authority.file();
  options.ca_file = ca_file.c_str();
  const identity server = authority.issue_for("other.test");
  const loopback_listener broker;
  const size_t descriptors = open_descriptors();
  for (int attempt = 0; attempt < 3; ++attempt) {
    tls_server peer{server, [&broker] { return broker.accept_one(); }};
    EXPECT_EQ(open_broker_connection("127.0.0.1", broker.port(), true), nullptr);
    peer.finish();
    EXPECT_EQ(open_descriptors(), descriptors);
  }
  EXPECT_THAT(log(), AllOf(HasSubstr("Hostname validation failed.\n"),
                           HasSubstr("WARNING: Cannot create ssl connection to broker.\n")));
}

TEST_F(BrokerConnection, AnUnreadableAuthorityFileLeavesNothingOpen) {
  options.ca_file = "/nonexistent/ca.pem";
  const loopback_listener broker;
  EXPECT_EQ(open_broker_connection("127.0.0.1", broker.port(), true), nullptr);
  EXPECT_TRUE(ends_without_data(broker.accept_one().get()));
  EXPECT_THAT(log(), HasSubstr("Cannot create ssl connection to broker.\n"));
}

TEST_F(BrokerConnection, ARefusedOneNamesTheBrokerAndTheReason) {
  loopback_listener broker;
  broker.stop();
  EXPECT_EQ(open_broker_connection("127.0.0.1", broker.port(), true), nullptr);
  EXPECT_THAT(log(), AllOf(HasSubstr("WARNING: Can't connect to server, errno=111 - Connection refused.\n"),
                           HasSubstr("WARNING: Can't connect to '127.0.0.1':" +
                                     std::to_string(broker.port()) + ", errno=111 - Connection refused.\n")));
}

TEST_F(BrokerConnection, AnUnknownHostIsWarnedAboutWithTheResolversView) {
  const fake_resolver resolver{EAI_NONAME, nullptr};
  EXPECT_EQ(open_broker_connection("no-such-host.invalid", 443, true), nullptr);
  const std::string text = log();
  EXPECT_THAT(text,
              AllOf(HasSubstr("WARNING: Can't resolve host 'no-such-host.invalid'. getaddrinfo returned -2 - "
                              "Name or service not known.\n"),
                    HasSubstr("DEBUG: system has "), HasSubstr(" DNS servers\n")));
  std::ifstream resolv_conf{"/etc/resolv.conf"};
  for (std::string line; std::getline(resolv_conf, line);) {
    EXPECT_THAT(text, HasSubstr("DEBUG: resolv conf file has following values: '" + line.substr(0, 1023)));
  }
}

TEST_F(BrokerConnection, APortIsCutToFiveDigits) {
  const fake_resolver resolver{EAI_SERVICE, nullptr};
  EXPECT_EQ(open_broker_connection("broker.test", 1'234'567, false), nullptr);
  EXPECT_THAT(log(), HasSubstr("getaddrinfo returned -8 - "));
}

TEST_F(BrokerConnection, AnEmptyAddressListIsAnError) {
  const fake_resolver resolver{0, nullptr};
  EXPECT_EQ(open_broker_connection("broker.test", 443, false), nullptr);
  EXPECT_THAT(log(), HasSubstr("WARNING: Cannot find address to which we should connect to.\n"));
}

TEST_F(BrokerConnection, TheFirstIpv4AddressIsTriedEvenBehindAnIpv6One) {
  loopback_listener refusing;
  refusing.stop();
  const loopback_listener broker;
  address_chain addresses;
  addresses.add(AF_INET6, refusing.port());
  addresses.add(AF_INET, broker.port());
  addresses.add(AF_INET, refusing.port());
  const fake_resolver resolver{0, addresses.list()};
  const net_connection_ptr connection = open_broker_connection("broker.test", 443, false);
  ASSERT_NE(connection, nullptr) << log();
  EXPECT_TRUE(broker.accept_one().valid());
  conn_close(connection.get());
}

TEST_F(BrokerConnection, OnlyOneAddressIsTried) {
  loopback_listener refusing;
  refusing.stop();
  const loopback_listener broker;
  address_chain addresses;
  addresses.add(AF_INET, refusing.port());
  addresses.add(AF_INET, broker.port());
  const fake_resolver resolver{0, addresses.list()};
  EXPECT_EQ(open_broker_connection("broker.test", 443, false), nullptr);
  EXPECT_THAT(log(), HasSubstr("Can't connect to 'broker.test':443, errno=111 - Connection refused.\n"));
}

TEST_F(BrokerConnection, WithIpv6OnlyTheFirstAddressIsTried) {
  const loopback_listener broker{AF_INET6};
  if (!broker.usable()) GTEST_SKIP() << "no IPv6 loopback here";
  loopback_listener refusing;
  refusing.stop();
  address_chain addresses;
  addresses.add(AF_INET6, broker.port());
  addresses.add(AF_INET6, refusing.port());
  const fake_resolver resolver{0, addresses.list()};
  const net_connection_ptr connection = open_broker_connection("broker.test", 443, false);
  ASSERT_NE(connection, nullptr) << log();
  EXPECT_TRUE(broker.accept_one().valid());
  conn_close(connection.get());
}

TEST_F(BrokerConnection, FailedKeepalivesDoNotPreventIt) {
  const loopback_listener broker;
  const failing_call failing{"setsockopt"};
  const net_connection_ptr connection = open_broker_connection("127.0.0.1", broker.port(), false);
  ASSERT_NE(connection, nullptr);
  conn_close(connection.get());
  EXPECT_THAT(log(), AllOf(HasSubstr("WARNING: setsockopt(): Protocol not available.\n"),
                           HasSubstr("WARNING: Can not set keepalive options for the socket.\n")));
}

TEST_F(BrokerConnection, WithoutMemoryForTheRecordItFailsAndTheProcessGoesOn) {
  const loopback_listener broker;
  {
    const failing_allocation failing{sizeof(net_connection)};
    EXPECT_EQ(open_broker_connection("127.0.0.1", broker.port(), false), nullptr);
  }
  EXPECT_TRUE(ends_without_data(broker.accept_one().get()));
  EXPECT_THAT(log(), HasSubstr("WARNING: malloc().\n"));
}

TEST_F(BrokerConnection, EachKindOfProxyHasItsHandshakeAndItsTextForAFailure) {
  struct {
    int type;
    std::string first_bytes;
    const char* text;
  } const cases[] = {
      {1, "CONNECT", "WARNING: Cannot connect using HTTP proxy.\n"},
      {3, "\4\1", "WARNING: Cannot connect using SOCK4 proxy.\n"},
      {4, "\5\2", "WARNING: Cannot connect using SOCK5 proxy.\n"},
      {7, "", "WARNING: Unrecognized proxy type"},
      {5, "", "WARNING: Unrecognized proxy type"},
  };
  for (const auto& [type, first_bytes, expected] : cases) {
    const loopback_listener proxy;
    settings_file::fill(proxy_settings(type, proxy.port()));
    log_.restart();
    std::string heard;
    std::thread closing{[&proxy, &heard, size = first_bytes.size()] {
      const fd_owner peer = proxy.accept_one();
      heard = read_bytes(peer.get(), size);
    }};
    EXPECT_EQ(open_broker_connection("127.0.0.1", 443, true), nullptr) << type;
    closing.join();
    EXPECT_EQ(heard, first_bytes) << type;
    EXPECT_THAT(log(), HasSubstr(expected));
  }
}

TEST_F(BrokerConnection, TheTenthFailedAttemptIsLikeTheFirst) {
  const std::string demand =
      "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"x\"\r\n\r\n";
  struct {
    int type;
    std::string answer;  // to the first connection of an attempt, if it is to have two
  } const cases[] = {{1, ""}, {1, demand}, {2, ""}, {3, ""}, {4, ""}, {7, ""}};
  for (const auto& [type, answer] : cases) {
    const loopback_listener proxy;
    auto settings = proxy_settings(type, proxy.port());
    settings.insert({{"q_qcloud_proxy_username", "user"}, {"q_qcloud_proxy_password", "secret"}});
    settings_file::fill(settings);
    std::string first_log;
    size_t first_descriptors = 0;
    for (int attempt = 1; attempt <= 10; ++attempt) {
      log_.restart();
      std::thread closing{[&proxy, &demanding = answer] {
        fd_owner peer = proxy.accept_one();
        if (!demanding.empty()) {
          read_bytes(peer.get(), 2 * std::string{"127.0.0.1"}.size() + 65);
          send(peer.get(), demanding.data(), demanding.size(), MSG_NOSIGNAL);
          peer = proxy.accept_one();
        }
        read_bytes(peer.get(), 1);
      }};
      EXPECT_EQ(open_broker_connection("127.0.0.1", 443, true), nullptr);
      closing.join();
      const std::string lines = log();
      if (attempt == 1) {
        first_log = lines;
        first_descriptors = open_descriptors();
      }
      EXPECT_EQ(lines, first_log) << type;
      EXPECT_EQ(open_descriptors(), first_descriptors) << type;
    }
  }
}

TEST_F(BrokerConnection, ThroughAProxyThereIsNoTlsToTheBroker) {
  struct {
    int type;
    std::string answer;
  } const cases[] = {
      {1, "HTTP/1.1 200 Connection established\r\n\r\n"},
      {3, "\0\x5a\0\0\0\0\0\0"s},
      {4, "\5\0\5\0\0\1\0\0\0\0\0\0"s},
  };
  for (const auto& [type, answer] : cases) {
    const loopback_listener proxy;
    settings_file::fill(proxy_settings(type, proxy.port()));
    fd_owner peer;
    std::thread granting{[&proxy, &peer, &bytes = answer] {
      peer = proxy.accept_one();
      EXPECT_EQ(send(peer.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL),
                static_cast<ssize_t>(bytes.size()));
    }};
    const net_connection_ptr connection = open_broker_connection("127.0.0.1", 443, true);
    granting.join();
    ASSERT_NE(connection, nullptr) << log();
    EXPECT_EQ(connection->ssl, nullptr);
    conn_close(connection.get());
  }
}

TEST_F(BrokerConnection, AnHttpsProxyGetsTlsUnderTheBrokersName) {
  const test_authority authority;
  const std::string ca_file = authority.file();
  options.ca_file = ca_file.c_str();
  struct {
    const char* name;
    const char* text;
  } const cases[] = {
      {"broker.test", "WARNING: Cannot connect using HTTPS proxy.\n"},
      {"proxy.test", "WARNING: Cannot create ssl connection to HTTPS proxy.\n"},
  };
  for (const auto& [name, expected] : cases) {
    const identity server = authority.issue_for(name);
    const loopback_listener proxy;
    settings_file::fill(proxy_settings(2, proxy.port()));
    tls_server peer{server, [&proxy] { return proxy.accept_one(); }};
    log_.restart();
    EXPECT_EQ(open_broker_connection("broker.test", 443, false), nullptr);
    peer.finish();
    EXPECT_TRUE(peer.accepted);
    EXPECT_THAT(log(), HasSubstr(expected));
  }
}

TEST_F(BrokerConnection, ARefusingProxyHasItsOwnText) {
  loopback_listener proxy;
  proxy.stop();
  settings_file::fill(proxy_settings(1, proxy.port()));
  EXPECT_EQ(open_broker_connection("broker.test", 443, true), nullptr);
  EXPECT_THAT(log(),
              AllOf(HasSubstr("WARNING: Can't connect to proxy server, errno=111 - Connection refused.\n"),
                    Not(HasSubstr("broker.test"))));
}

TEST_F(BrokerConnection, AProxyNeedsAPortInItsLow16Bits) {
  for (const int port : {0, 65536, 131072}) {
    settings_file::fill(proxy_settings(1, port));
    log_.restart();
    EXPECT_EQ(open_broker_connection("broker.test", 443, true), nullptr);
    EXPECT_THAT(log(), HasSubstr("WARNING: Could not found proxy port. \n"));
  }
}

TEST_F(BrokerConnection, OnlyTheLow16BitsOfAProxyPortCount) {
  const loopback_listener proxy;
  settings_file::fill(proxy_settings(7, 65536 + proxy.port()));
  EXPECT_EQ(open_broker_connection("broker.test", 443, true), nullptr);
  EXPECT_TRUE(proxy.accept_one().valid());
}

TEST_F(BrokerConnection, AProxyNeedsAnAddress) {
  settings_file::fill({{"q_qcloud_use_proxy", "1"}, {"q_qcloud_proxy_port", "3128"}});
  EXPECT_EQ(open_broker_connection("broker.test", 443, true), nullptr);
  EXPECT_THAT(log(), HasSubstr("WARNING: Could not find proxy server address.\n"));
}

TEST_F(BrokerConnection, AProxyThatCantBeResolvedIsNamed) {
  settings_file::fill({{"q_qcloud_use_proxy", "4"},
                       {"q_qcloud_proxy_port", "1080"},
                       {"q_qcloud_proxy_hostname", "no-such-host.invalid"}});
  const fake_resolver resolver{EAI_NONAME, nullptr};
  EXPECT_EQ(open_broker_connection("broker.test", 443, true), nullptr);
  EXPECT_THAT(log(), HasSubstr("Can't resolve host 'no-such-host.invalid'. getaddrinfo returned -2 - "));
}
