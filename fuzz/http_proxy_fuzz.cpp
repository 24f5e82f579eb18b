// What an HTTP proxy answers to CONNECT, in any pieces, with credentials asked for or not.

#include "broker/base64.h"
#include "broker/proxy_handshakes.h"
#include "core/owned.h"
#include "fake_settings.h"
#include "naive_numbers.h"
#include "scripted_proxy.h"
#include "story.h"

#include <optional>

namespace {

constexpr size_t chunk_size = 256;

// --- reading an answer

// The length of the whole answer once its header is there: `header_end` when nothing announces a body.
size_t whole_length(const std::string& answer, size_t header_end, std::string* story) {
  size_t name = answer.find("Content-Length:");
  if (name == std::string::npos) name = answer.find("CONTENT-LENGTH:");
  if (name == std::string::npos) return 0;
  *story += "D:Found content lenght.";
  return header_end + static_cast<size_t>(std::max(read_number(answer.substr(name + 15), 10).value, 0));
}

std::optional<std::string> read_naively(script_reader* reader, std::string* story) {
  std::string answer;
  std::optional<size_t> expected;
  while (!expected || answer.size() < *expected) {
    const std::string chunk = reader->read(chunk_size);
    if (chunk.empty()) {
      *story +=
          reader->resets() ? "E:Read, errno=104 - Connection reset by peer.\n" : "E:Connection closed. \n";
      return {};
    }
    *story += formatted("D:readed %zu bytes from http answer.\n", chunk.size());
    answer += chunk;
    const size_t end = answer.find("\r\n\r\n");
    if (!expected && end != std::string::npos) {
      *story += "D:Found header end";
      expected = whole_length(answer, end + 4, story);
    }
  }
  return answer;
}

void check_reading(const scripted_proxy& script) {
  proxy = script;
  net_connection connection{7, nullptr, nullptr};
  const c_string answer{read_http_answer(&connection)};
  std::string story;
  script_reader reader{script.connections.front()};
  const std::optional<std::string> expected = read_naively(&reader, &story);
  check_same(take_story(), story);
  CHECK((answer != nullptr) == expected.has_value());
  // The terminator stands at the end of the answer, zero bytes within it or not.
  if (expected) check_same({answer.get(), expected->size() + 1}, *expected + '\0');
}

// --- asking for a tunnel

struct request_plan {
  std::string host;
  int port;
  bool tls;
  std::string user_name;
  std::string password;
};

// The naive agent: what it does on which connection, and the story of it.
struct naive_agent {
  request_plan plan;
  scripted_proxy script;
  std::string story;

  bool contains(const std::string& answer, const char* word) {
    return std::string{answer.c_str()}.find(word) != std::string::npos;
  }
  bool connected(const std::string& answer) {
    return contains(answer, "200") && contains(answer, "Connection established");
  }
  bool refused(const std::string& answer) {
    return contains(answer, "407") && contains(answer, "Proxy Authentication Required");
  }

  // Sends a request, whose length is that of one with a five-digit port, and reads the answer.
  std::optional<std::string> ask(const std::string& header) {
    const std::string begin = "CONNECT " + plan.host + ":";
    const std::string end =
        " HTTP/1.1\r\nHost: " + plan.host + "\r\n" + header + "Proxy-Connection: Keep-Alive\r\n\r\n";
    std::string request = begin + std::to_string(plan.port) + end;
    request.resize(begin.size() + 5 + end.size(), '\0');
    const write_outcome outcome = script.writes.front();
    script.writes.erase(script.writes.begin());
    if (outcome != write_outcome::whole) {
      story += outcome == write_outcome::fails ? "E:Cannot send request to http, errno=32 - Broken pipe.\n"
                                               : "E:Cannot send request to http, errno=0 - Success.\n";
    } else {
      story += story_of_write(request) + "D:Sending request : " + request.c_str();
      script_reader reader{script.connections.front()};
      if (std::optional<std::string> answer = read_naively(&reader, &story)) return answer;
    }
    story += "E:Cannot get answer.\n";
    return {};
  }

  bool offers_basic(const std::string& answer) {
    const std::string text = answer.c_str();
    const size_t begin = text.find("Proxy-Authenticate:");
    if (begin == std::string::npos) {
      story += "E:Cannot find proxy auth method.\n";
      return false;
    }
    const std::string line = text.substr(begin, text.find_first_of("\r\n", begin) - begin);
    const bool basic = line.find("Basic") != std::string::npos;
    story += basic ? "I:found basic authentification.\n"
                   : "E:Could not find appropriate method to authentificate on proxy.\n";
    return basic;
  }

  bool connect_again() {
    story += "closed\n";
    if (script.refuses || script.connections.size() < 2) {
      story += "E:cannot open socket for auth to proxy.";
      return false;
    }
    story += "connected again\n";
    script.connections.erase(script.connections.begin());
    if (plan.tls) story += "TLS for '" + plan.host + "'\n";
    return !plan.tls || !script.tls_fails;
  }

  bool connect_with_credentials() {
    const std::string user_name = plan.user_name.substr(0, 127);
    const std::string password = plan.password.substr(0, 127);
    if (user_name.empty() || password.empty()) return false;
    const std::string text = user_name + ":" + password;
    const c_string credentials{base64_encode(text.data(), text.size())};
    const std::optional<std::string> answer =
        ask(formatted("Proxy-Authorization: Basic %s \r\n", credentials.get()));
    if (answer) {
      story += formatted("D:Received after autorization: %s.\n", answer->c_str());
      if (connected(*answer)) {
        story += "I:Connected to server.\n";
        return true;
      }
      if (refused(*answer)) story += "E:Could not connect to server with given credentials.\n";
    }
    story += "E:Cannot connect to server using proxy.\n";
    return false;
  }

  bool connect() {
    story += "D:Connecting to http proxy. \n";
    const std::optional<std::string> answer = ask("");
    if (!answer) return false;
    story += formatted("D:Received from proxy server: %s\n", answer->c_str());
    if (connected(*answer)) {
      story += "D:Connected to server.\n";
      return true;
    }
    if (!refused(*answer)) return false;
    story += "I:Autentification required.\n";
    return offers_basic(*answer) && connect_again() && connect_with_credentials();
  }
};

void check_connecting(const request_plan& plan, const scripted_proxy& script) {
  proxy = script;
  fake_settings()["q_qcloud_proxy_username"] = plan.user_name;
  fake_settings()["q_qcloud_proxy_password"] = plan.password;
  char session = 0;  // never looked at
  net_connection connection{7, plan.tls ? reinterpret_cast<SSL*>(&session) : nullptr, nullptr};
  const int result = http_proxy_connect(&connection, plan.host.c_str(), plan.port, nullptr);
  naive_agent expected{plan, script, ""};
  CHECK(result == (expected.connect() ? 0 : -1));
  check_same(take_story(), expected.story);
}

request_plan read_plan(fuzz_input* input) {
  constexpr int ports[] = {0, 1, 443, 9999, 65535, 99999, 100000, INT32_MAX, INT32_MIN};
  request_plan plan;
  plan.host = std::string(input->next(), 'h');
  plan.port = ports[input->next() % std::size(ports)];
  plan.tls = input->next() % 2 == 1;
  plan.user_name = std::string(input->next(), 'u');
  plan.password = std::string(input->next(), 'p');
  return plan;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  fuzz_input input{data, size};
  const request_plan plan = read_plan(&input);
  const scripted_proxy script = read_script(&input, input.text());
  check_reading(script);
  check_connecting(plan, script);
  return 0;
}
