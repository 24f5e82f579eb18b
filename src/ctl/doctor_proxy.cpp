#include "ctl/doctor_checks.h"

#include "core/numbers.h"
#include "core/owned.h"
#include "ctl/waiting.h"

#include <cerrno>
#include <cstring>
#include <netdb.h>

namespace {

using address_list = std::unique_ptr<addrinfo, releaser<freeaddrinfo>>;

constexpr const char* kinds[] = {"none", "HTTP", "HTTPS", "SOCKS4", "SOCKS5"};
constexpr uint32_t https_kind = 2;

finding check_reachable(const std::string& what, const std::string& host, const std::string& port,
                        unsigned timeout, const std::string& advice) {
  const std::string place = what + " at " + host + ':' + port;
  addrinfo hints{};
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* resolved = nullptr;
  const int error = getaddrinfo(host.c_str(), port.c_str(), &hints, &resolved);
  if (error != 0) {
    return wrong(place + ": the name can't be resolved (" + gai_strerror(error) + ")",
                 "correct q_qcloud_proxy_hostname, or the device's name servers");
  }
  const address_list addresses{resolved};
  const time_limit limit = seconds_from_now(timeout);
  for (const addrinfo* address = resolved; address != nullptr; address = address->ai_next) {
    if (connect_within(address->ai_addr, address->ai_addrlen, limit).valid()) {
      return fine(place + " takes connections");
    }
  }
  return wrong(place + " can't be reached: " + std::strerror(errno), advice);
}

}  // namespace

findings check_proxy(unsigned timeout) {
  const std::string kind_text = read_setting("q_qcloud_use_proxy").value;
  uint32_t kind = 0;
  // As the agent reads it: what is no number is none.
  if (kind_text.empty() || parse_uint(kind_text.c_str(), &kind) != 0 || kind == 0)
    return {fine("none is used")};
  if (kind >= std::size(kinds)) {
    return {wrong("q_qcloud_use_proxy is " + kind_text + ", which is no kind of proxy",
                  "set it to 0 (none), 1 (HTTP), 2 (HTTPS), 3 (SOCKS4) or 4 (SOCKS5)")};
  }
  const std::string host = read_setting("q_qcloud_proxy_hostname").value;
  const std::string port = read_setting("q_qcloud_proxy_port").value;
  if (host.empty() || port.empty()) {
    return {wrong("a proxy is to be used, but its address is not set",
                  "set q_qcloud_proxy_hostname and q_qcloud_proxy_port, or q_qcloud_use_proxy to 0")};
  }
  findings found{check_reachable(std::string{kinds[kind]} + " proxy", host, port, timeout,
                                 "start it, or correct q_qcloud_proxy_hostname and q_qcloud_proxy_port")};
  if (kind == https_kind) {
    found.push_back(check_reachable("the helper through which the cloud is asked", "127.0.0.1", "3128",
                                    timeout,
                                    "start the device's own HTTP proxy on this port, or use another kind"));
  }
  return found;
}
