#include "ctl/doctor_checks.h"

#include "broker/net_helper.h"
#include "core/numbers.h"
#include "ctl/watch_endpoint.h"
#include "delivery/message_sender_endpoint.h"
#include "usi.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr std::string_view key_prefix = "q_handler_";
constexpr size_t longest_key = 127;

std::string read_text(const char* path) {
  std::ifstream file{path};
  return {std::istreambuf_iterator<char>{file}, {}};
}

std::string hexadecimal(int digits, uint32_t number) {
  char text[16];
  std::snprintf(text, sizeof text, "%0*X", digits, number);
  return text;
}

bool is_loopback(in_addr address) {
  return (ntohl(address.s_addr) >> 24) == 127;
}

/// Without connecting: the handler would take an empty connection for an empty message.
finding check_tcp(const std::string& what, const endpoint_text& endpoint) {
  const std::string port_text = endpoint.port;
  const int32_t port = text_to_int32(endpoint.port, nullptr, 10);
  const bool digits = !port_text.empty() && port_text.find_first_not_of("0123456789") == std::string::npos;
  if (!digits || port < 1 || port > 65535) {
    return wrong(what + ": no port between 1 and 65535", "write it as host:port, without blanks");
  }
  in_addr address{};
  int resolver_error = 0;
  if (resolve_ipv4(endpoint.address, &address, &resolver_error) != 0) {
    return wrong(what + ": the host has no IPv4 address that can be found",
                 "correct the name, or write an address");
  }
  if (!is_loopback(address)) return fine(what + ", not tried (orvelctl send-test does)");
  const auto number = static_cast<uint16_t>(port);
  if (listens_on(read_text("/proc/net/tcp"), address.s_addr, number) ||
      listens_on(read_text("/proc/net/tcp6"), address.s_addr, number)) {
    return fine(what + ", somebody listens");
  }
  return wrong(what + ": nobody listens there", "start the handler, or correct the port");
}

/// Columns of /proc/net/unix: Num RefCount Protocol Flags Type St Inode Path.
bool listens_on_path(const std::string& path) {
  constexpr unsigned long accepts_connections = 0x10000;
  std::istringstream table{read_text("/proc/net/unix")};
  for (std::string line; std::getline(table, line);) {
    std::istringstream columns{line};
    std::string skipped;
    std::string flags;
    std::string name;
    columns >> skipped >> skipped >> skipped >> flags >> skipped >> skipped >> skipped >> std::ws;
    std::getline(columns, name);
    if (name == path && (std::strtoul(flags.c_str(), nullptr, 16) & accepts_connections) != 0) return true;
  }
  return false;
}

finding check_path(const std::string& what, const std::string& path, const std::string& storage) {
  struct stat status {};
  if (path.empty() || path.front() != '/') {
    return wrong(what + ": neither host:port nor a path that begins with /", "write the whole path");
  }
  if (const std::string danger = watch_danger(path, storage); !danger.empty()) {
    return wrong(what + " is dangerous: " + danger,
                 "take it out of the setting, and see who has put it there: no watch has");
  }
  if (is_watch_endpoint(path) && is_stale_watch(path)) {
    return wrong(what + " was left by a watch that was killed",
                 "run orvelctl watch once and end it with Ctrl-C: it takes such endpoints away");
  }
  if (stat(path.c_str(), &status) != 0) {
    return wrong(what + ": there is no such program or socket (" + std::strerror(errno) + ")",
                 "start or install the handler, or correct the path");
  }
  if (S_ISREG(status.st_mode)) {
    if (faccessat(AT_FDCWD, path.c_str(), X_OK, AT_EACCESS) != 0) {
      return wrong(what + " is not executable for this user (" + std::strerror(errno) + ")",
                   "chmod +x " + path + ", or run doctor as the user that the agent runs as");
    }
    return fine(what + ", a program");
  }
  if (!S_ISSOCK(status.st_mode)) return wrong(what + " is neither a file nor a socket", "correct the path");
  if (path.size() > sizeof(sockaddr_un::sun_path)) {
    return wrong(what + " is longer than the 108 bytes of a socket's path", "use a shorter path");
  }
  if (listens_on_path(path)) return fine(what + ", somebody listens");
  return wrong(what + ": nobody listens on this socket", "start the handler");
}

findings check_handler(const std::string& key, const std::string& value, const std::string& storage) {
  findings found;
  const int count = count_endpoints(value.c_str());
  const bool all_served = key == std::string{key_prefix} + "event_sink";
  if (key.size() > longest_key || value.size() > longest_endpoints) {
    found.push_back(
        wrong(key + " is longer than the agent reads", "at most 117 characters of name and 1023 of value"));
  }
  if (count > 1 && !all_served) {
    found.push_back(wrong(key + " has several endpoints, but only the first gets messages",
                          "leave one: only event_sink may have several"));
  }
  for (int index = 0; index < (all_served ? count : 1); ++index) {
    const endpoint_text endpoint = endpoint_at(value.c_str(), index);
    const std::string shown =
        endpoint.has_port ? std::string{endpoint.address} + ':' + endpoint.port : endpoint.address;
    std::string what = key;
    what.append(1, ' ').append(shown);
    if (shown.find_first_of(" \t") != std::string::npos) {
      found.push_back(wrong(what + ": a blank", "write endpoints without blanks, separated by commas alone"));
    } else {
      found.push_back(endpoint.has_port ? check_tcp(what, endpoint)
                                        : check_path(what, endpoint.address, storage));
    }
  }
  return found;
}

}  // namespace

bool listens_on(std::string_view table, uint32_t address, uint16_t port) {
  // The kernel prints the words of an address as the machine holds them: one of IPv4, four of IPv6.
  const std::string own = hexadecimal(8, address);
  const std::string mapped = std::string(16, '0') + hexadecimal(8, htonl(0xFFFF)) + own;
  const std::string port_text = hexadecimal(4, port);
  std::istringstream lines{std::string{table}};
  for (std::string line; std::getline(lines, line);) {
    std::istringstream columns{line};
    std::string skipped;
    std::string local;
    std::string state;
    columns >> skipped >> local >> skipped >> state;
    const size_t colon = local.find(':');
    if (state != "0A" || colon == std::string::npos || local.substr(colon + 1) != port_text) continue;
    const std::string place = local.substr(0, colon);
    if (place == own || place == mapped || place.find_first_not_of('0') == std::string::npos) return true;
  }
  return false;
}

findings check_handlers(const ctl_command_line& line) {
  const std::string storage = storage_path(line.files);
  std::vector<std::string> keys = keys_in_file(storage, std::string{key_prefix});
  for (const std::string& key : keys_in_file(usiGetCurrentProfile(), std::string{key_prefix})) {
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
  }
  findings found;
  for (const std::string& key : keys) {
    const std::string value = read_setting(key).value;
    if (value.empty()) continue;
    for (finding& one : check_handler(key, value, storage)) {
      found.push_back(std::move(one));
    }
  }
  if (found.empty()) found.push_back(fine("no handler is set"));
  return found;
}
