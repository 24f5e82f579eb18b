#include "broker/proxy_handshakes.h"
#include "libc_hooks.h"
#include "proxy_peer.h"

#include <gmock/gmock.h>

namespace {

using testing::AllOf;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;
using std::string_literals::operator""s;

class Socks4 : public ProxyHandshake {};
class Socks5 : public ProxyHandshake {};

const std::string granted_by_4 = "\0\x5a\0\0\0\0\0\0"s;
const std::string granted_by_5 = "\5\0\0\1\0\0\0\0\0\0"s;

std::string reply_of_5(int code) {
  std::string reply = granted_by_5;
  reply[1] = static_cast<char>(code);
  return reply;
}

std::map<std::string, std::string> credentials(const std::string& user_name, const std::string& password) {
  return {{"q_qcloud_proxy_username", user_name}, {"q_qcloud_proxy_password", password}};
}

}  // namespace

TEST_F(Socks4, TheRequestNamesPortAndAddress) {
  struct {
    int port;
    std::string bytes;
  } const cases[] = {{1, "\0\1"s}, {443, "\1\xbb"s}, {65535, "\xff\xff"s}, {65536 + 443, "\1\xbb"s}};
  for (const auto& [port, bytes] : cases) {
    proxy_end proxy;
    proxy.say(granted_by_4);
    EXPECT_EQ(socks4_connect(&proxy.connection, "127.0.0.2", port), 0);
    EXPECT_EQ(proxy.heard(), "\4\1" + bytes + "\x7f\0\0\2\0"s);
    EXPECT_THAT(log(), AllOf(HasSubstr("proxy: "), HasSubstr("DEBUG: Trying to connect to sock4.\n"),
                             HasSubstr("DEBUG: Connected to SOCKS4 proxy.\n")));
  }
}

TEST_F(Socks4, AHostNameIsResolvedHere) {
  proxy_end proxy;
  proxy.say(granted_by_4);
  EXPECT_EQ(socks4_connect(&proxy.connection, "localhost", 443), 0);
  EXPECT_EQ(proxy.heard(), "\4\1\1\xbb\x7f\0\0\1\0"s);
}

TEST_F(Socks4, AReplyMayComeInPiecesAndOnlyItsSecondByteCounts) {
  proxy_end proxy;
  proxy.say_byte_by_byte("x\x5azzzzzz");
  EXPECT_EQ(socks4_connect(&proxy.connection, "127.0.0.1", 443), 0);
}

TEST_F(Socks4, AnyOtherReplyIsARefusal) {
  for (const int code : {0, 89, 91, 92, 93, 255}) {
    proxy_end proxy;
    proxy.say({'\0', static_cast<char>(code), '\0', '\0', '\0', '\0', '\0', '\0'});
    EXPECT_EQ(socks4_connect(&proxy.connection, "127.0.0.1", 443), -1);
    EXPECT_THAT(
        log(), HasSubstr("WARNING: Could not connect to server using sock4 " + std::to_string(code) + ".\n"));
  }
}

TEST_F(Socks4, AShortReplyIsCounted) {
  for (const size_t size : {0U, 1U, 2U, 7U}) {
    proxy_end proxy;
    if (size != 0) proxy.say(granted_by_4.substr(0, size));
    proxy.fall_silent();
    EXPECT_EQ(socks4_connect(&proxy.connection, "127.0.0.1", 443), -1);
    EXPECT_THAT(log(), HasSubstr("WARNING: Readed " + std::to_string(size) +
                                 " bytes in SOCK4 request answer instead of 8.\n"));
  }
}

TEST_F(Socks4, WhatComesBehindTheReplyStaysInTheTunnel) {
  connected_pair proxy;
  const std::string bytes = granted_by_4 + "tunnel";
  ASSERT_EQ(write(proxy.peer.get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(socks4_connect(&proxy.connection, "127.0.0.1", 443), 0);
  EXPECT_EQ(read_bytes(proxy.connection.socket, 6), "tunnel");
}

TEST_F(Socks4, NoMoreIsReadThanIsMissing) {
  proxy_end proxy;
  proxy.say(granted_by_4.substr(0, 1));
  proxy.say(granted_by_4.substr(1) + std::string(64, 'x'));
  EXPECT_EQ(socks4_connect(&proxy.connection, "127.0.0.1", 443), 0);
}

TEST_F(Socks4, ARequestThatCantBeSentIsAFailure) {
  proxy_end proxy;
  proxy.leave();
  EXPECT_EQ(socks4_connect(&proxy.connection, "127.0.0.1", 443), -1);
  EXPECT_THAT(log(), AllOf(HasSubstr("WARNING: Cannot send CONNECT request, errno=32 - Broken pipe.\n"),
                           Not(HasSubstr("Wroted"))));
}

TEST_F(Socks4, ARequestThatIsSentInPartIsAFailure) {
  proxy_end proxy;
  const failing_call failing{"send"};
  EXPECT_EQ(socks4_connect(&proxy.connection, "127.0.0.1", 443), -1);
  EXPECT_THAT(log(), HasSubstr("WARNING: Sended 0 bytes in SOCK4 request instead of 9.\n"));
}

TEST_F(Socks4, AnUnknownHostIsNotAskedFor) {
  proxy_end proxy;
  EXPECT_EQ(socks4_connect(&proxy.connection, "", 443), -1);
  EXPECT_EQ(proxy.heard(), "");
  EXPECT_THAT(log(), HasSubstr("WARNING: Can't resolve host ''. h_errno=3 - "));
}

TEST_F(Socks5, WithoutAuthenticationTheRequestFollowsTheGreeting) {
  struct {
    int port;
    std::string bytes;
  } const cases[] = {{1, "\0\1"s}, {443, "\1\xbb"s}, {65535, "\xff\xff"s}, {65536 + 443, "\1\xbb"s}};
  for (const auto& [port, bytes] : cases) {
    proxy_end proxy;
    proxy.say("\5\0"s);
    proxy.say(granted_by_5);
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.2", port), 0);
    EXPECT_EQ(proxy.heard(), "\5\2\0\2"s);
    EXPECT_EQ(proxy.heard(), "\5\1\0\1\x7f\0\0\2"s + bytes);
    EXPECT_THAT(log(), HasSubstr("DEBUG: Trying to connect to sock5.\n"));
  }
}

TEST_F(Socks5, RepliesMayComeInPieces) {
  settings_file::fill(credentials("user", "secret"));
  proxy_end proxy;
  proxy.say_byte_by_byte("\5\2\1\0"s + granted_by_5);
  EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), 0);
}

TEST_F(Socks5, NoMoreIsReadThanIsMissing) {
  settings_file::fill(credentials("user", "secret"));
  const std::string too_much(64, 'x');
  proxy_end proxy;
  for (const std::string& reply : {"\5\2"s, "\1\0"s, granted_by_5}) {
    proxy.say(reply.substr(0, 1));
    proxy.say(reply.substr(1) + too_much);
  }
  EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), 0);
}

TEST_F(Socks5, ThePasswordRequestCarriesBothTextsWithTheirLengths) {
  const std::string longest(127, 'p');
  struct {
    std::string user_name;
    std::string password;
  } const cases[] = {{"user", "secret"}, {"a b@c:d%41", "%3a @:"}, {longest, longest}, {"u", longest}};
  for (const auto& [user_name, password] : cases) {
    settings_file::fill(credentials(user_name, password));
    proxy_end proxy;
    proxy.say("\5\2");
    proxy.say("\1\0"s);
    proxy.say(granted_by_5);
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), 0);
    EXPECT_EQ(proxy.heard(), "\5\2\0\2"s);
    EXPECT_EQ(proxy.heard(), "\1" + std::string{static_cast<char>(user_name.size())} + user_name +
                                 static_cast<char>(password.size()) + password);
    EXPECT_THAT(log(), HasSubstr("DEBUG: Registered on SOCKS5 server.\n"));
  }
}

TEST_F(Socks5, CredentialsAreCutAt127Characters) {
  settings_file::fill(credentials(std::string(128, 'u'), std::string(200, 'p')));
  proxy_end proxy;
  proxy.say("\5\2");
  proxy.fall_silent();
  EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
  proxy.heard();
  EXPECT_EQ(proxy.heard(), "\1\x7f" + std::string(127, 'u') + "\x7f" + std::string(127, 'p'));
}

TEST_F(Socks5, WithoutCredentialsADemandForThemIsAFailure) {
  const std::map<std::string, std::string> cases[] = {
      {}, {{"q_qcloud_proxy_username", "user"}}, {{"q_qcloud_proxy_password", "secret"}}};
  for (const auto& settings : cases) {
    settings_file::fill(settings);
    proxy_end proxy;
    proxy.say("\5\2");
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
    proxy.heard();
    EXPECT_EQ(proxy.heard(), "");
    EXPECT_THAT(
        log(),
        HasSubstr("WARNING: Authentification is required. Username and/or password is not present.\n"));
  }
}

TEST_F(Socks5, RefusedCredentialsAreNamedByTheirStatus) {
  settings_file::fill(credentials("user", "wrong"));
  for (const int status : {1, 2, 255}) {
    proxy_end proxy;
    proxy.say("\5\2");
    proxy.say({'\1', static_cast<char>(status)});
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
    EXPECT_THAT(log(), HasSubstr("WARNING: Error during autorization : " + std::to_string(status) + ".\n"));
  }
}

TEST_F(Socks5, OtherMethodsAreRefused) {
  struct {
    int method;
    const char* text;
  } const cases[] = {
      {1, "WARNING: GSSAPI autorization is not supported yet.\n"},
      {3, "WARNING: Autorization method is not present.\n"},
      {255, "WARNING: Autorization method is not present.\n"},
  };
  for (const auto& [method, text] : cases) {
    proxy_end proxy;
    proxy.say({'\5', static_cast<char>(method)});
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
    EXPECT_THAT(log(), HasSubstr(text));
  }
}

TEST_F(Socks5, AnotherVersionIsRefused) {
  for (const char version : {'\0', '\1', '\4', 'H'}) {
    proxy_end proxy;
    proxy.say({version, '\0'});
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
    EXPECT_THAT(log(), HasSubstr("WARNING: SOCKS5 is not supported on the other side.\n"));
  }
}

TEST_F(Socks5, EachReplyCodeHasItsText) {
  struct {
    int code;
    const char* text;
  } const cases[] = {
      {1, "General SOCKS server failure.\n"}, {2, "Connection not allowed by ruleset.\n"},
      {3, "Network unreachable.\n"},          {4, "Host unreachable.\n"},
      {5, "Connection refused.\n"},           {6, "TTL expired.\n"},
      {7, "Command not supported.\n"},        {8, "Address type not supported.\n"},
      {9, "SOCKS Error unassigned.\n"},       {255, "SOCKS Error unassigned.\n"},
  };
  for (const auto& [code, text] : cases) {
    proxy_end proxy;
    proxy.say("\5\0"s);
    proxy.say(reply_of_5(code));
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
    const std::string lines = log();
    const size_t denied = lines.find("WARNING: Access denied answer=" + std::to_string(code) + ".\n");
    ASSERT_NE(denied, std::string::npos) << lines;
    EXPECT_NE(lines.find(std::string{"WARNING: "} + text, denied), std::string::npos) << lines;
  }
}

TEST_F(Socks5, AShortReplyIsCountedAtEachStep) {
  settings_file::fill(credentials("user", "secret"));
  struct {
    std::string replies;
    const char* text;
  } const cases[] = {
      {"", "Readed 0 bytes in SOCK5 hello request answer instead of 2"},
      {"\5", "Readed 1 bytes in SOCK5 hello request answer instead of 2"},
      {"\5\2", "Readed 0 bytes in SOCK5 autorization request answer instead of 2.\n"},
      {"\5\2\1", "Readed 1 bytes in SOCK5 autorization request answer instead of 2.\n"},
      {"\5\0"s, "Readed 0 bytes in SOCK5 connection request answer instead of 10.\n"},
      {"\5\0\5\0\0\1\0\0\0\0\0"s, "Readed 9 bytes in SOCK5 connection request answer instead of 10.\n"},
      {"\5\2\1\0\5"s, "Readed 1 bytes in SOCK5 connection request answer instead of 10.\n"},
  };
  for (const auto& [replies, text] : cases) {
    proxy_end proxy;
    proxy.say_byte_by_byte(replies);
    proxy.fall_silent();
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
    EXPECT_THAT(log(), EndsWith(std::string{"WARNING: "} + text));
  }
}

TEST_F(Socks5, RequestsThatCantBeSentAreFailures) {
  settings_file::fill(credentials("user", "secret"));
  struct {
    int send;  // the send that fails, counted from 1
    std::string replies;
    const char* text;
  } const cases[] = {
      {1, "", "Cannot send SOCKS5 hello request, errno=32 - Broken pipe.\n"},
      {2, "\5\2", "Cannot send SOCKS5 autorization request, errno=32 - Broken pipe.\n"},
      {2, "\5\0"s, "Cannot send SOCKS5 connection request, errno=32 - Broken pipe.\n"},
      {3, "\5\2\1\0"s, "Cannot send SOCKS5 connection request, errno=32 - Broken pipe.\n"},
  };
  for (const auto& [send, replies, text] : cases) {
    proxy_end proxy;
    proxy.say_byte_by_byte(replies);
    const later_send failing{send, -1};
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
    EXPECT_THAT(log(), HasSubstr(std::string{"WARNING: "} + text));
  }
}

TEST_F(Socks5, RequestsThatAreSentInPartAreFailures) {
  settings_file::fill(credentials("user", "secret"));
  struct {
    int send;
    std::string replies;
    const char* text;
  } const cases[] = {
      {1, "", "Sended 3 bytes in SOCKS5 hello request request instead of 4"},
      {2, "\5\2", "Cannot send SOCKS5 autorization request, errno=0 - Success.\n"},
      {2, "\5\0"s, "Sended 3 bytes in SOCKS5 connection request request instead of 4.\n"},
  };
  for (const auto& [send, replies, text] : cases) {
    proxy_end proxy;
    proxy.say_byte_by_byte(replies);
    const later_send failing{send, 3};
    EXPECT_EQ(socks5_connect(&proxy.connection, "127.0.0.1", 443), -1);
    EXPECT_THAT(log(), EndsWith(std::string{"WARNING: "} + text));
  }
}

TEST_F(Socks5, AnUnknownHostIsFoundOutBeforeTheGreeting) {
  proxy_end proxy;
  EXPECT_EQ(socks5_connect(&proxy.connection, "", 443), -1);
  EXPECT_EQ(proxy.heard(), "");
  EXPECT_THAT(log(), HasSubstr("WARNING: Can't resolve host ''. h_errno=3 - "));
}
