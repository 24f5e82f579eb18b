#include "delivery/message_sender.h"

#include "core/config.h"
#include "core/log.h"
#include "core/numbers.h"
#include "delivery/message_sender_delivery.h"
#include "delivery/message_sender_endpoint.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>

namespace {

constexpr char log_source[] = "message_sender";

constexpr size_t key_size = 128;  ///< "q_handler_", at most 117 characters of the name, and the terminator
constexpr size_t value_size = 1024;

// Who executes messages to the agent itself. Set once, before the worker can exist.
constinit local_requests own_requests{};

bool is_own_name(const char* handler_name) {
  if (handler_name == nullptr || own_requests.own_handler_name == nullptr) return false;
  const char* own_name = own_requests.own_handler_name();
  return own_name != nullptr && std::strcmp(own_name, handler_name) == 0;
}

// Reads the handler's setting. 0, or -1 with errno ENOENT.
int read_endpoints(const char* handler_name, char (&value)[value_size]) {
  char key[key_size];
  std::snprintf(key, sizeof key, "q_handler_%s", handler_name);
  log_debug("handler_desc='%s'\n", key);
  if (config_get(key, value, sizeof value) != 0) {
    errno = ENOENT;
    return -1;
  }
  if (*value == '\0') {  // only with a store that gives an empty value: config_get() takes it for none
    log_debug("host_address is empty.\n");
    errno = ENOENT;
    return -1;
  }
  log_debug("host_address='%s'\n", value);
  return 0;
}

// 0 and `*port`, or -1. A negative number wraps round (-1 is port 65535), which is intended.
int parse_port(const char* text, uint16_t* port) {
  errno = 0;
  const long number = text_to_int32(text, nullptr, 10);
  if (number == 0 && errno == EINVAL) {
    log_error("Incorrect port in configuration for handler line: '%s'.\n", text);
    return -1;
  }
  if (number == 0 || number >= 65536) {
    log_error("Incorrect port value in configuration: '%ld'.\n", number);
    return -1;
  }
  *port = static_cast<uint16_t>(number);
  return 0;
}

// One delivery attempt, failed or not: 0. A setting that names no valid port: -1.
int deliver(const char* handler_name, const endpoint_text& endpoint, const void* data, uint32_t length) {
  if (endpoint.has_port) {
    uint16_t port = 0;
    if (parse_port(endpoint.port, &port) != 0) return -1;
    connect_and_send(endpoint.address, port, data, length);
    return 0;
  }
  struct stat status {};
  if (stat(endpoint.address, &status) != 0 || !S_ISREG(status.st_mode)) {
    connect_and_send(endpoint.address, 0, data, length);
    return 0;
  }
  if ((status.st_mode & S_IXUSR) == 0) {
    log_warning("handler %s pointing to file, but executable bit is not set.\n", handler_name);
  }
  execute_and_send(endpoint.address, data, length);
  return 0;
}

}  // namespace

void set_local_requests(const local_requests& requests) {
  own_requests = requests;
}

int send_to_handler(const char* handler_name, const void* data, uint32_t length) {
  if (is_own_name(handler_name)) return own_requests.execute(data, length);
  if (handler_name == nullptr) {
    log_error("description is null.\n");
    errno = EINVAL;
    return -1;
  }
  const bool serves_all_endpoints = std::strcmp(handler_name, "event_sink") == 0;
  for (int index = 0;; ++index) {
    // Read again for every endpoint, on purpose: a delivery may take long, and a setting that changed meanwhile
    // counts from the next endpoint on.
    char value[value_size];
    if (read_endpoints(handler_name, value) != 0) return -1;
    const int count = count_endpoints(value);
    if (count <= index) {
      log_warning("requested %d handler, but we can find only %d.\n", index, count);
      errno = EINVAL;
      return -1;
    }
    if (deliver(handler_name, endpoint_at(value, index), data, length) != 0) return -1;
    if (!serves_all_endpoints) {
      if (count == 1) return 1;
      log_warning("handler for %s has multiple endpoints (%d). Only event_sink support this.\n", handler_name,
                  count);
      return -1;
    }
    if (index + 1 >= count) return -1;
  }
}
