#include "broker/base64.h"
#include "broker/net_helper.h"
#include "broker/proxy_handshakes.h"
#include "broker/ssl_routine.h"
#include "libc_hooks.h"
#include "proxy_peer.h"
#include "tls_server.h"

#include <gmock/gmock.h>
#include <thread>
#include <vector>

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using std::string_literals::operator""s;

const std::string connected = "HTTP/1.1 200 Connection established\r\n\r\n";
const std::string basic_demanded =
    "HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Basic realm=\"x\"\r\n\r\n";
constexpr size_t mebibyte = size_t{1024} * 1024;

class HttpAnswer : public ProxyHandshake {};
class HttpProxy : public ProxyHandshake {
protected:
  refusing_address refused_;  // where a second connection would go
};

std::string encoded(const std::string& text) {
  return c_string{base64_encode(text.data(), text.size())}.get();
}

std::string read_answer(net_connection* connection) {
  const c_string answer{read_http_answer(connection)};
  return answer != nullptr ? answer.get() : "none";
}

// The answer that is read from these pieces, before the proxy closes.
std::string answer_from(std::initializer_list<std::string> pieces) {
  proxy_end proxy;
  for (const std::string& piece : pieces) {
    proxy.say(piece);
  }
  proxy.fall_silent();
  return read_answer(&proxy.connection);
}

std::string answer_byte_by_byte(const std::string& text) {
  proxy_end proxy;
  proxy.say_byte_by_byte(text);
  proxy.fall_silent();
  return read_answer(&proxy.connection);
}

// Gives each connection in turn the next answer, when its request is complete, and closes it.
class answering_proxy {
public:
  explicit answering_proxy(std::vector<std::string> answers)
      : thread_{[this, answers = std::move(answers)] {
          for (const std::string& answer : answers) {
            const fd_owner client = listener_.accept_one();
            std::string& request = requests_.emplace_back();
            while (request.find("\r\n\r\n") == std::string::npos) {
              const std::string byte = read_bytes(client.get(), 1);
              if (byte.empty()) break;
              request += byte;
            }
            if (send(client.get(), answer.data(), answer.size(), MSG_NOSIGNAL) < 0) return;
          }
          listener_.stop();
        }} {}
  ~answering_proxy() { finish(); }
  answering_proxy(const answering_proxy&) = delete;
  answering_proxy& operator=(const answering_proxy&) = delete;

  // The handshake of a client, from connecting on.
  int shake_hands(const char* host, int port) {
    const loopback_address address{listener_.port()};
    net_connection connection{socket_connect(address.info()), nullptr, nullptr};
    lose_patience(connection.socket);
    const int result = http_proxy_connect(&connection, host, port, address.info());
    conn_close(&connection);
    return result;
  }

  const std::vector<std::string>& requests() {
    finish();
    return requests_;
  }

private:
  void finish() {
    if (thread_.joinable()) thread_.join();
  }

  loopback_listener listener_;
  std::vector<std::string> requests_;
  std::thread thread_;
};

void give_credentials() {
  settings_file::fill({{"q_qcloud_proxy_username", "user"}, {"q_qcloud_proxy_password", "secret"}});
}

}  // namespace

TEST_F(HttpAnswer, EndsWithItsHeaderWhenNoLengthIsAnnounced) {
  EXPECT_EQ(answer_from({connected}), connected);
  EXPECT_THAT(log(), AllOf(HasSubstr("DEBUG: readed 39 bytes from http answer.\n"),
                           HasSubstr("DEBUG: Found header end"), Not(HasSubstr("lenght"))));
}

TEST_F(HttpAnswer, WhatWasReadBehindTheHeaderBelongsToIt) {
  EXPECT_EQ(answer_from({connected + "more"}), connected + "more");
}

TEST_F(HttpAnswer, MayComeByteByByte) {
  const std::string with_body = "HTTP/1.1 407 x\r\nContent-Length: 3\r\n\r\nabc";
  EXPECT_EQ(answer_byte_by_byte(connected), connected);
  EXPECT_EQ(answer_byte_by_byte(with_body), with_body);
}

TEST_F(HttpAnswer, IsReadInChunksOf256Bytes) {
  connected_pair proxy;
  const std::string answer = std::string(300, 'x') + "\r\n\r\n";
  ASSERT_EQ(write(proxy.peer.get(), answer.data(), answer.size()), static_cast<ssize_t>(answer.size()));
  EXPECT_EQ(read_answer(&proxy.connection), answer);
  EXPECT_THAT(log(), AllOf(HasSubstr("DEBUG: readed 256 bytes from http answer.\n"),
                           HasSubstr("DEBUG: readed 48 bytes from http answer.\n")));
}

TEST_F(HttpAnswer, HasAsManyBytesBehindItsHeaderAsAreAnnounced) {
  struct {
    const char* header;
    size_t body;
  } const cases[] = {
      {"Content-Length: 10", 10},   {"Content-Length:10", 10},
      {"CONTENT-LENGTH: 10", 10},   {"content-length: 10", 0},
      {"Content-length: 10", 0},    {"Content-Length : 10", 0},
      {"Content-Length: 0", 0},     {"Content-Length: -10", 0},
      {"Content-Length: -1000", 0}, {"Content-Length: -99999999999999999999", 0},
      {"Content-Length: ten", 0},   {"CONTENT-LENGTH: 3\r\nContent-Length: 10", 10},
      {"X-Content-Length: 10", 10},
  };
  for (const auto& [header, body] : cases) {
    const std::string head = "HTTP/1.1 407 x\r\n"s + header + "\r\n\r\n";
    const std::string bytes = head + "0123456789more";
    EXPECT_EQ(answer_byte_by_byte(bytes), bytes.substr(0, head.size() + body)) << header;
  }
  EXPECT_THAT(log(), HasSubstr("DEBUG: Found content lenght."));
}

TEST_F(HttpAnswer, IsNoneWhenTheProxyClosesBeforeItIsComplete) {
  for (const char* bytes : {"", "HTTP/1.1 200", "HTTP/1.1 200 Connection established\r\n\r",
                            "HTTP/1.1 407 x\r\nContent-Length: 10\r\n\r\n012345678",
                            "HTTP/1.1 407 x\r\nContent-Length: 99999999999999999999\r\n\r\n0"}) {
    EXPECT_EQ(answer_byte_by_byte(bytes), "none") << bytes;
    EXPECT_THAT(log(), HasSubstr("WARNING: Connection closed. \n"));
  }
}

TEST_F(HttpAnswer, IsNoneWhenReadingFails) {
  connected_pair proxy;
  ASSERT_EQ(write(proxy.connection.socket, "x", 1), 1);
  proxy.peer.reset();  // with a byte unread: the connection is reset
  EXPECT_EQ(read_answer(&proxy.connection), "none");
  EXPECT_THAT(log(), HasSubstr("WARNING: Read, errno=104 - Connection reset by peer.\n"));
}

TEST_F(HttpAnswer, MayHoldAnyBytes) {
  EXPECT_EQ(answer_from({"HTTP\0/1.1\r\n\r\n"s}), "HTTP");
  EXPECT_EQ(answer_from({"\xff\xfe\r\n\r\n"}), "\xff\xfe\r\n\r\n");
}

TEST_F(HttpAnswer, IsNoneBeyondOneMebibyte) {
  struct {
    size_t size;
    bool accepted;
  } const cases[] = {{mebibyte, true}, {mebibyte + 1, false}, {2 * mebibyte, false}};
  for (const auto& [size, accepted] : cases) {
    connected_pair proxy;
    std::thread writer{[&proxy, size = size] {
      const std::string bytes = std::string(size - 4, 'x') + "\r\n\r\n";
      size_t sent = 0;
      while (sent < bytes.size()) {
        const ssize_t count = send(proxy.peer.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (count <= 0) return;
        sent += static_cast<size_t>(count);
      }
    }};
    EXPECT_EQ(read_answer(&proxy.connection).size(), accepted ? size : "none"s.size()) << size;
    shutdown(proxy.connection.socket, SHUT_RDWR);
    writer.join();
    log();
  }
}

TEST_F(HttpProxy, TheRequestHasTheLengthThatItHasWithAFiveDigitPort) {
  struct {
    int port;
    const char* text;
    size_t zeros;
  } const cases[] = {{1, "1", 4}, {80, "80", 3}, {443, "443", 2}, {8883, "8883", 1}, {65535, "65535", 0}};
  for (const auto& [port, text, zeros] : cases) {
    proxy_end proxy;
    proxy.say(connected);
    EXPECT_EQ(http_proxy_connect(&proxy.connection, "broker.test", port, nullptr), 0);
    EXPECT_EQ(proxy.heard(), "CONNECT broker.test:"s + text +
                                 " HTTP/1.1\r\nHost: broker.test\r\nProxy-Connection: Keep-Alive\r\n\r\n" +
                                 std::string(zeros, '\0'));
  }
}

TEST_F(HttpProxy, TheRequestWithCredentialsDoesSoToo) {
  struct {
    int port;
    const char* text;
    size_t zeros;
  } const cases[] = {{1, "1", 4}, {80, "80", 3}, {443, "443", 2}, {8883, "8883", 1}, {65535, "65535", 0}};
  for (const auto& [port, text, zeros] : cases) {
    proxy_end proxy;
    proxy.say(connected);
    EXPECT_EQ(http_proxy_connect_with_credentials(&proxy.connection, "b.test", port, "user", "secret"), 0);
    EXPECT_EQ(proxy.heard(),
              "CONNECT b.test:"s + text +
                  " HTTP/1.1\r\nHost: b.test\r\nProxy-Authorization: Basic dXNlcjpzZWNyZXQ= \r\n"
                  "Proxy-Connection: Keep-Alive\r\n\r\n" +
                  std::string(zeros, '\0'));
  }
}

TEST_F(HttpProxy, APortOfMoreDigitsCutsTheRequest) {
  proxy_end proxy;
  proxy.say(connected);
  EXPECT_EQ(http_proxy_connect(&proxy.connection, "b.test", 2147483647, nullptr), 0);
  EXPECT_EQ(proxy.heard(),
            "CONNECT b.test:2147483647 HTTP/1.1\r\nHost: b.test\r\nProxy-Connection: Keep-Aliv");
}

TEST_F(HttpProxy, CredentialsAreEncodedWithAColonBetween) {
  const std::string longest(127, 'p');
  struct {
    std::string user_name;
    std::string password;
  } const cases[] = {{"user", ""}, {"a b@c", "d:%41 @"}, {"a:b", "c"}, {longest, longest}};
  for (const auto& [user_name, password] : cases) {
    proxy_end proxy;
    proxy.say(connected);
    EXPECT_EQ(http_proxy_connect_with_credentials(&proxy.connection, "b.test", 65535, user_name.c_str(),
                                                  password.c_str()),
              0);
    EXPECT_THAT(proxy.heard(),
                HasSubstr("Proxy-Authorization: Basic " + encoded(user_name + ":" + password) + " \r\n"));
  }
}

TEST_F(HttpProxy, A200WithItsReasonOpensTheTunnel) {
  proxy_end proxy;
  proxy.say("HTTP/1.0 407 no, 200 Connection established\r\n\r\n");
  EXPECT_EQ(http_proxy_connect(&proxy.connection, "b.test", 443, nullptr), 0);
  EXPECT_THAT(
      log(),
      AllOf(
          HasSubstr("DEBUG: Connecting to http proxy. \n"),
          HasSubstr("DEBUG: Sending request : CONNECT b.test:443 HTTP/1.1\r\nHost: b.test\r\n"
                    "Proxy-Connection: Keep-Alive\r\n\r\n"),
          HasSubstr("DEBUG: Received from proxy server: HTTP/1.0 407 no, 200 Connection established\r\n\r\n"),
          HasSubstr("DEBUG: Connected to server.\n")));
}

TEST_F(HttpProxy, AnyOtherAnswerIsARefusalWithoutAText) {
  for (const char* answer : {"HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 403 Forbidden\r\n\r\n",
                             "HTTP/1.1 201 Connection established\r\n\r\n", "\r\n\r\n",
                             "HTTP/1.1 407 Authenticate\r\nProxy-Authenticate: Basic\r\n\r\n",
                             "HTTP/1.1 200 connection established\r\n\r\n"}) {
    proxy_end proxy;
    proxy.say(answer);
    EXPECT_EQ(http_proxy_connect(&proxy.connection, "b.test", 443, refused_.info()), -1) << answer;
    EXPECT_THAT(log(), Not(HasSubstr("WARNING")));
  }
}

TEST_F(HttpProxy, NoAnswerIsAFailure) {
  proxy_end proxy;
  proxy.fall_silent();
  EXPECT_EQ(http_proxy_connect(&proxy.connection, "b.test", 443, refused_.info()), -1);
  EXPECT_THAT(log(),
              AllOf(HasSubstr("WARNING: Connection closed. \n"), HasSubstr("WARNING: Cannot get answer.\n")));
  EXPECT_EQ(http_proxy_connect_with_credentials(&proxy.connection, "b.test", 443, "u", "p"), -1);
  EXPECT_THAT(log(),
              AllOf(HasSubstr("WARNING: Connection closed. \n"), HasSubstr("WARNING: Cannot get answer.\n")));
}

TEST_F(HttpProxy, ARequestThatCantBeSentIsAFailure) {
  proxy_end proxy;
  proxy.leave();
  EXPECT_EQ(http_proxy_connect(&proxy.connection, "b.test", 443, refused_.info()), -1);
  EXPECT_THAT(log(), AllOf(HasSubstr("WARNING: Cannot send request to http, errno=32 - Broken pipe.\n"),
                           HasSubstr("WARNING: Cannot get answer.\n"), Not(HasSubstr("Sending request")),
                           Not(HasSubstr("Wroted"))));
}

TEST_F(HttpProxy, ARequestThatIsSentInPartIsAFailure) {
  proxy_end proxy;
  const later_send failing{1, 3};
  EXPECT_EQ(http_proxy_connect(&proxy.connection, "b.test", 443, refused_.info()), -1);
  EXPECT_THAT(log(), HasSubstr("WARNING: Cannot send request to http, errno=0 - Success.\n"));
}

TEST_F(HttpProxy, ADemandForBasicCredentialsIsMetOnAConnectionOfItsOwn) {
  give_credentials();
  answering_proxy proxy{{basic_demanded, connected}};
  EXPECT_EQ(proxy.shake_hands("b.test", 65535), 0);
  EXPECT_THAT(
      proxy.requests(),
      ElementsAre("CONNECT b.test:65535 HTTP/1.1\r\nHost: b.test\r\nProxy-Connection: Keep-Alive\r\n\r\n",
                  "CONNECT b.test:65535 HTTP/1.1\r\nHost: b.test\r\n"
                  "Proxy-Authorization: Basic dXNlcjpzZWNyZXQ= \r\n"
                  "Proxy-Connection: Keep-Alive\r\n\r\n"));
  EXPECT_THAT(log(), AllOf(HasSubstr("INFO: Autentification required.\n"),
                           HasSubstr("INFO: found basic authentification.\n"),
                           HasSubstr("DEBUG: Received after autorization: " + connected + ".\n"),
                           HasSubstr("INFO: Connected to server.\n")));
}

TEST_F(HttpProxy, TheDemandMayHaveABody) {
  give_credentials();
  std::string demand = basic_demanded;
  demand.replace(demand.rfind("\r\n"), 2, "Content-Length: 6\r\n\r\n<html>");
  answering_proxy proxy{{demand, connected}};
  EXPECT_EQ(proxy.shake_hands("b.test", 65535), 0);
}

TEST_F(HttpProxy, ASecondDemandIsARefusalOfTheCredentials) {
  give_credentials();
  answering_proxy proxy{{basic_demanded, basic_demanded}};
  EXPECT_EQ(proxy.shake_hands("b.test", 65535), -1);
  EXPECT_EQ(proxy.requests().size(), 2U);
  EXPECT_THAT(log(), AllOf(HasSubstr("WARNING: Could not connect to server with given credentials.\n"),
                           HasSubstr("WARNING: Cannot connect to server using proxy.\n")));
}

TEST_F(HttpProxy, AnotherAnswerToTheCredentialsIsARefusal) {
  give_credentials();
  answering_proxy proxy{{basic_demanded, "HTTP/1.1 403 Forbidden\r\n\r\n"}};
  EXPECT_EQ(proxy.shake_hands("b.test", 65535), -1);
  EXPECT_THAT(log(), AllOf(Not(HasSubstr("given credentials")),
                           HasSubstr("WARNING: Cannot connect to server using proxy.\n")));
}

TEST_F(HttpProxy, WithoutCredentialsTheDemandIsNotMet) {
  const std::map<std::string, std::string> cases[] = {
      {}, {{"q_qcloud_proxy_username", "user"}}, {{"q_qcloud_proxy_password", "secret"}}};
  for (const auto& settings : cases) {
    settings_file::fill(settings);
    answering_proxy proxy{{basic_demanded, ""}};
    EXPECT_EQ(proxy.shake_hands("b.test", 65535), -1);
    EXPECT_THAT(proxy.requests(), ElementsAre(HasSubstr("CONNECT"), ""));
    EXPECT_THAT(log(), Not(HasSubstr("WARNING")));
  }
}

TEST_F(HttpProxy, AProxyThatRefusesTheSecondConnectionIsAFailure) {
  give_credentials();
  const refusing_address address;
  proxy_end proxy;
  proxy.say(basic_demanded);
  EXPECT_EQ(http_proxy_connect(&proxy.connection, "b.test", 65535, address.info()), -1);
  EXPECT_EQ(proxy.connection.socket, -1);
  EXPECT_THAT(log(), AllOf(HasSubstr("WARNING: Can't connect to server, errno=111 - Connection refused.\n"),
                           HasSubstr("WARNING: cannot open socket for auth to proxy.")));
}

TEST_F(HttpProxy, OnlyTheFirstLineThatNamesMethodsCounts) {
  const std::string start = "HTTP/1.1 407 Proxy Authentication Required\r\n";
  struct {
    const char* methods;
    const char* text;
  } const cases[] = {
      {"", "WARNING: Cannot find proxy auth method.\n"},
      {"proxy-authenticate: Basic\r\n", "WARNING: Cannot find proxy auth method.\n"},
      {"Proxy-Authenticate: Digest realm=\"x\"\r\n",
       "WARNING: Could not find appropriate method to authentificate on proxy.\n"},
      {"Proxy-Authenticate: Digest\r\nProxy-Authenticate: Basic\r\n",
       "WARNING: Could not find appropriate method to authentificate on proxy.\n"},
      {"X: Basic\r\nProxy-Authenticate:\r\nY: Basic\r\n",
       "WARNING: Could not find appropriate method to authentificate on proxy.\n"},
      {"Proxy-Authenticate: basic\r\n",
       "WARNING: Could not find appropriate method to authentificate on proxy.\n"},
  };
  give_credentials();
  for (const auto& [methods, text] : cases) {
    proxy_end proxy;
    proxy.say(start + methods + "\r\n");
    EXPECT_EQ(http_proxy_connect(&proxy.connection, "b.test", 443, refused_.info()), -1) << methods;
    EXPECT_THAT(log(), AllOf(HasSubstr("INFO: Autentification required.\n"), HasSubstr(text)));
  }
}

TEST_F(HttpProxy, BasicMayStandBehindAnotherMethodOfTheLine) {
  give_credentials();
  answering_proxy proxy{
      {"HTTP/1.1 407 Proxy Authentication Required\r\nProxy-Authenticate: Digest x, Basic y\r\n\r\n",
       connected}};
  EXPECT_EQ(proxy.shake_hands("b.test", 65535), 0);
}

TEST_F(HttpProxy, WithoutKeepalivesTheSecondConnectionIsUsedAllTheSame) {
  give_credentials();
  answering_proxy proxy{{basic_demanded, connected}};
  const failing_call failing{"setsockopt"};
  EXPECT_EQ(proxy.shake_hands("b.test", 65535), 0);
  EXPECT_THAT(log(), HasSubstr("WARNING: Can not set keepalive options for the socket.\n"));
}

TEST_F(HttpProxy, TheSecondConnectionHasTlsWhenTheFirstHadAndKeepalives) {
  give_credentials();
  const test_authority authority;
  const std::string ca_file = authority.file();
  const identity server = authority.issue_for("b.test");
  const loopback_listener listener;
  const loopback_address address{listener.port()};
  std::vector<std::string> requests;
  const auto answer_with = [&requests](const std::string& answer) {
    return tls_server_plan{.after_handshake = [&requests, answer](SSL* ssl) {
      char request[4096];
      const int size = SSL_read(ssl, request, sizeof request);
      requests.emplace_back(request, static_cast<size_t>(std::max(size, 0)));
      SSL_write(ssl, answer.data(), static_cast<int>(answer.size()));
    }};
  };
  options.ca_file = ca_file.c_str();
  {
    tls_server first{server, [&] { return listener.accept_one(); }, answer_with(basic_demanded)};
    net_connection connection{socket_connect(address.info()), nullptr, nullptr};
    ASSERT_EQ(ssl_connect(&connection, "b.test"), 0) << log();
    // Accepts only once the first server, which takes its connection before, has been asked.
    tls_server second{server, [&] { return listener.accept_one(); }, answer_with(connected)};
    EXPECT_EQ(http_proxy_connect(&connection, "b.test", 65535, address.info()), 0);
    EXPECT_NE(connection.ssl, nullptr);
    int keepalive = 0;
    socklen_t size = sizeof keepalive;
    getsockopt(connection.socket, SOL_SOCKET, SO_KEEPALIVE, &keepalive, &size);
    EXPECT_EQ(keepalive, 1);
    conn_close(&connection);
  }
  options.ca_file = nullptr;
  EXPECT_THAT(requests, ElementsAre(Not(HasSubstr("Proxy-Authorization")), HasSubstr("Proxy-Authorization")));
}

TEST(HttpProxyMemory, WhenARequestOrAnAnswerFindsNoneTheProcessEnds) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const agent_options saved = options;
  options.log_level = level_debug;
  options.console_log = true;
  options.file_log = false;
  proxy_end proxy;
  proxy.say(connected);
  EXPECT_EXIT(
      {
        const failing_allocation failing{2 * "b.test"s.size() + 66};
        static_cast<void>(http_proxy_connect(&proxy.connection, "b.test", 443, nullptr));
      },
      testing::ExitedWithCode(1), "WARNING: malloc\\(\\)\\.");
  EXPECT_EXIT(
      {
        const failing_allocation failing{connected.size() + 1};
        read_answer(&proxy.connection);
      },
      testing::ExitedWithCode(1), "WARNING: realloc\\(\\)\\.");
  options = saved;
}
