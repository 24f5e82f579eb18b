// What a SOCKS4 or SOCKS5 proxy replies, in any pieces.

#include "broker/proxy_handshakes.h"
#include "fake_settings.h"
#include "scripted_proxy.h"
#include "story.h"

namespace {

struct request_plan {
  bool version5;
  uint16_t port;
  std::string user_name;
  std::string password;
};

// The naive agent: what it sends and logs, reply by reply.
struct naive_agent {
  request_plan plan;
  scripted_proxy script;
  std::string story;

  // Sends; false (told) when the write does not go through. `what` is the request's name.
  bool send(const std::string& bytes, const char* what, const std::string& when_short) {
    const write_outcome outcome = script.writes.front();
    script.writes.erase(script.writes.begin());
    if (outcome == write_outcome::whole) story += story_of_write(bytes);
    if (outcome == write_outcome::fails) {
      story += formatted("E:Cannot send %s, errno=32 - Broken pipe.\n", what);
    }
    if (outcome == write_outcome::one_byte_short) story += when_short;
    return outcome == write_outcome::whole;
  }

  // As many of `size` bytes as come.
  std::string read(size_t size) {
    std::string reply;
    std::string all;
    for (const std::string& piece : script.connections.front().pieces) {
      all += piece;
    }
    reply = all.substr(0, size);
    script.connections.front().pieces = {all.substr(reply.size())};
    return reply;
  }

  bool complete(const std::string& reply, size_t size, const char* what, const char* end) {
    if (reply.size() == size) return true;
    story += formatted("E:Readed %zu bytes in %s answer instead of %zu%s", reply.size(), what, size, end);
    return false;
  }

  std::string port_bytes() {
    return {static_cast<char>(plan.port / 256), static_cast<char>(plan.port % 256)};
  }
  std::string address_bytes() {
    return {reinterpret_cast<const char*>(&script.address), sizeof script.address};
  }

  bool resolve() {
    story += "resolved 'broker.test'\n";
    if (!script.resolves) story += "W:Can't resolve host 'broker.test'. h_errno=1 - Unknown host.\n";
    return script.resolves;
  }

  bool connect4() {
    story += "D:Trying to connect to sock4.\n";
    if (!resolve()) return false;
    const std::string request = "\x04\x01" + port_bytes() + address_bytes() + '\0';
    if (!send(request, "CONNECT request", "E:Sended 8 bytes in SOCK4 request instead of 9.\n")) return false;
    const std::string reply = read(8);
    if (!complete(reply, 8, "SOCK4 request", ".\n")) return false;
    const bool granted = reply[1] == 'Z';
    story += granted ? "D:Connected to SOCKS4 proxy.\n"
                     : formatted("E:Could not connect to server using sock4 %d.\n",
                                 static_cast<unsigned char>(reply[1]));
    return granted;
  }

  bool authenticate() {
    const std::string user_name = plan.user_name.substr(0, 127);
    const std::string password = plan.password.substr(0, 127);
    if (user_name.empty() || password.empty()) {
      story += "E:Authentification is required. Username and/or password is not present.\n";
      return false;
    }
    const std::string request = '\x01' + std::string{static_cast<char>(user_name.size())} + user_name +
                                static_cast<char>(password.size()) + password;
    if (!send(request, "SOCKS5 autorization request",
              "E:Cannot send SOCKS5 autorization request, errno=0 - Success.\n")) {
      return false;
    }
    const std::string reply = read(2);
    if (!complete(reply, 2, "SOCK5 autorization request", ".\n")) return false;
    story += reply[1] == 0
                 ? "D:Registered on SOCKS5 server.\n"
                 : formatted("E:Error during autorization : %d.\n", static_cast<unsigned char>(reply[1]));
    return reply[1] == 0;
  }

  bool agree_on_method() {
    if (!send({5, 2, 0, 2}, "SOCKS5 hello request",
              "E:Sended 3 bytes in SOCKS5 hello request request instead of 4")) {
      return false;
    }
    const std::string reply = read(2);
    if (!complete(reply, 2, "SOCK5 hello request", "")) return false;
    if (reply[0] != 5) {
      story += "E:SOCKS5 is not supported on the other side.\n";
      return false;
    }
    if (reply[1] == 0) return true;
    if (reply[1] == 2) return authenticate();
    story += reply[1] == 1 ? "E:GSSAPI autorization is not supported yet.\n"
                           : "E:Autorization method is not present.\n";
    return false;
  }

  bool connect5() {
    constexpr const char* refusals[] = {
        "General SOCKS server failure.\n", "Connection not allowed by ruleset.\n",
        "Network unreachable.\n",          "Host unreachable.\n",
        "Connection refused.\n",           "TTL expired.\n",
        "Command not supported.\n",        "Address type not supported.\n"};
    story += "D:Trying to connect to sock5.\n";
    if (!resolve() || !agree_on_method()) return false;
    const std::string request = std::string{5, 1, 0, 1} + address_bytes() + port_bytes();
    if (!send(request, "SOCKS5 connection request",
              "E:Sended 9 bytes in SOCKS5 connection request request instead of 4.\n")) {
      return false;
    }
    const std::string reply = read(10);
    if (!complete(reply, 10, "SOCK5 connection request", ".\n")) return false;
    const auto code = static_cast<unsigned char>(reply[1]);
    if (code == 0) return true;
    story += formatted("E:Access denied answer=%d.\nE:%s", code,
                       code <= 8 ? refusals[code - 1] : "SOCKS Error unassigned.\n");
    return false;
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  fuzz_input input{data, size};
  request_plan plan;
  plan.version5 = input.next() % 2 == 0;
  plan.port = static_cast<uint16_t>(input.next() * 256 + 0xBB);
  plan.user_name = std::string(input.next(), 'u');
  plan.password = std::string(input.next(), 'p');
  scripted_proxy script = read_script(&input, "");
  script.connections = {{input.cut(input.text()), input.next() % 2 == 1}};
  fake_settings()["q_qcloud_proxy_username"] = plan.user_name;
  fake_settings()["q_qcloud_proxy_password"] = plan.password;

  proxy = script;
  net_connection connection{7, nullptr, nullptr};
  naive_agent expected{plan, script, ""};
  if (plan.version5) {
    CHECK(socks5_connect(&connection, "broker.test", plan.port) == (expected.connect5() ? 0 : -1));
  } else {
    CHECK(socks4_connect(&connection, "broker.test", plan.port) == (expected.connect4() ? 0 : -1));
  }
  check_same(take_story(), expected.story);
  // Not a byte more than the replies has been taken: what follows belongs to the broker.
  std::string left;
  for (const std::string& piece : proxy.connections.front().pieces) {
    left += piece;
  }
  std::string expected_left;
  for (const std::string& piece : expected.script.connections.front().pieces) {
    expected_left += piece;
  }
  check_same(left, expected_left);
  return 0;
}
