// The setting that says where a handler's messages go: which endpoints a message is sent to, and in what way.

#include "delivery/message_sender.h"
#include "delivery/message_sender_delivery.h"
#include "delivery/message_sender_endpoint.h"
#include "fake_settings.h"
#include "fuzz_input.h"
#include "naive_numbers.h"
#include "story.h"

#include <sys/stat.h>

namespace {

std::vector<std::string> split(const std::string& value, char separator) {
  std::vector<std::string> parts{""};
  for (const char c : value) {
    if (c == separator) {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  return parts;
}

// One endpoint; false when its port ends the whole delivery.
bool deliver_naively(const std::string& handler, const std::string& endpoint, std::string* story) {
  const size_t colon = endpoint.find(':');
  if (colon != std::string::npos) {
    const std::string host = endpoint.substr(0, colon).substr(0, 256);
    const naive_number port = read_number(endpoint.substr(colon + 1, 7), 10);
    if (port.value == 0 || port.value > 65535) {
      *story += formatted("E:Incorrect port value in configuration: '%d'.\n", port.value);
      return false;
    }
    *story += formatted("connect '%s' %d\n", host.c_str(), port.value & 0xFFFF);
    return true;
  }
  struct stat status {};
  if (stat(endpoint.c_str(), &status) != 0 || !S_ISREG(status.st_mode)) {
    *story += formatted("connect '%s' 0\n", endpoint.c_str());
    return true;
  }
  if ((status.st_mode & S_IXUSR) == 0) {
    *story += formatted("W:handler %s pointing to file, but executable bit is not set.\n", handler.c_str());
  }
  *story += formatted("execute '%s'\n", endpoint.c_str());
  return true;
}

std::string story_of(const std::string& handler, const std::string& stored) {
  const std::string value = stored.substr(0, 1023);
  const std::string asked = "D:handler_desc='q_handler_" + handler.substr(0, 117) + "'\n";
  if (value.empty()) return asked;
  const std::string read = asked + "D:host_address='" + value + "'\n";
  const std::vector<std::string> endpoints = split(value, ',');
  std::string story;
  for (const std::string& endpoint : endpoints) {
    story += read;
    if (!deliver_naively(handler, endpoint, &story)) return story;
    if (handler == "event_sink") continue;
    if (endpoints.size() > 1) {
      story += formatted("W:handler for %s has multiple endpoints (%zu). Only event_sink support this.\n",
                         handler.c_str(), endpoints.size());
    }
    return story;
  }
  return story;
}

}  // namespace

// In the place of the ways to an endpoint.

void connect_and_send(const char* address, uint16_t port, const void* data, uint32_t length) {
  CHECK(data != nullptr && length == 7);
  tell("connect '%s' %d\n", address, port);
}

void execute_and_send(const char* path, const void* data, uint32_t length) {
  CHECK(data != nullptr && length == 7);
  tell("execute '%s'\n", path);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  fuzz_input input{data, size};
  const std::string value = input.text().c_str();
  const uint8_t name_length = input.next();
  const std::string handler = name_length == 0 ? "event_sink" : std::string(name_length, 'n');
  fake_settings()["q_handler_" + handler.substr(0, 117)] = value;

  send_to_handler(handler.c_str(), "message", 7);
  check_same(take_story(), story_of(handler, value));
  CHECK(count_endpoints(value.c_str()) == static_cast<int>(split(value, ',').size()));
  return 0;
}
