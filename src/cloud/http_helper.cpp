#include "cloud/http_helper.h"

#include "cloud/http_helper_share.h"
#include "core/config.h"
#include "core/daemon.h"
#include "core/log.h"
#include "core/options.h"
#include "core/owned.h"
#include "core/sync.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <curl/curl.h>
#include <utility>

namespace {

constexpr char log_source[] = "http_helper";

/// The turn lets one request run at a time in the process. It is given back by whoever took it, also while it
/// waits at the pause gate; `turn_changed` is broadcast when the turn is free and when a thread is to stop.
struct http_state {
  std::atomic<int> paused{0};  ///< 1: requests wait at the pause gate, on the sleep gate's condition
  sync_mutex turn_lock{lock_rank::leaf};
  sync_condition turn_changed;
  bool turn_taken GUARDED_BY(turn_lock) = false;
};
constinit http_state state;

// Set for threads that must not wait for a resume.
thread_local constinit bool refuses_while_paused = false;

constexpr size_t largest_reply = size_t{16} * 1024 * 1024;  // a broken cloud must not eat the device's memory
constexpr size_t line_size = 256;                           // longer credentials are cut

using curl_ptr = std::unique_ptr<CURL, releaser<curl_easy_cleanup>>;
using curl_list_ptr = std::unique_ptr<curl_slist, releaser<curl_slist_free_all>>;

/// A copy of the device's identity as it is when the request is made.
struct identity_copy {
  explicit identity_copy(AgentSettings* settings) : identity{copy_identity(settings)} {}
  ~identity_copy() { release_identity(&identity); }
  identity_copy(const identity_copy&) = delete;
  identity_copy& operator=(const identity_copy&) = delete;

  DeviceIdentity identity;
};

bool request_refused() {
  return refuses_while_paused && state.paused != 0;
}

/// Whether the calling thread's request still may wait, or be made.
bool may_go_on() {
  return thread_may_wait() && !request_refused();
}

/// Waits for the turn and holds it to the end of the scope. It is not held when the thread was told to stop.
class request_turn {
public:
  request_turn() {
    const scoped_lock lock{state.turn_lock};     // model: turn.lock
    while (state.turn_taken && may_go_on()) {    // model: turn.test
      state.turn_changed.wait(state.turn_lock);  // model: turn.wait
    }
    held_ = !state.turn_taken && may_go_on();  // model: turn.take
    if (held_) state.turn_taken = true;
  }
  ~request_turn() {
    if (!held_) return;
    const scoped_lock lock{state.turn_lock};
    state.turn_taken = false;  // model: turn.give
    // model: turn.broadcast
    state.turn_changed.broadcast();  // to all: the one that a signal would wake may be one that is to stop
  }
  request_turn(const request_turn&) = delete;
  request_turn& operator=(const request_turn&) = delete;

  [[nodiscard]] bool held() const { return held_; }

private:
  bool held_;
};

size_t append_to_buffer(char* chunk, size_t size, size_t count, void* user) {
  auto* buffer = static_cast<HttpBuffer*>(user);
  const size_t length = size * count;
  char* grown = nullptr;
  if (length <= largest_reply - buffer->length) {
    grown = static_cast<char*>(std::realloc(buffer->text, buffer->length + length + 1));
  }
  if (grown == nullptr) {
    log_error("not enough memory (realloc returned NULL).\n");
    return 0;  // makes libcurl abort the transfer
  }
  std::memcpy(grown + buffer->length, chunk, length);
  buffer->text = grown;
  buffer->length += length;
  buffer->text[buffer->length] = '\0';
  return length;
}

void set_proxy_address(CURL* curl, uint32_t use_proxy, const char* host, const char* port) {
  const size_t size = std::strlen(host) + std::strlen(port) + 2;
  const c_string address{static_cast<char*>(must_allocate(size, ALLOCATION("malloc().\n", 1)))};
  std::snprintf(address.get(), size, "%s:%s", host, port);
  curl_easy_setopt(curl, CURLOPT_PROXY, address.get());

  switch (use_proxy) {
  case 1:
    curl_easy_setopt(curl, CURLOPT_PROXYTYPE, long{CURLPROXY_HTTP});
    curl_easy_setopt(curl, CURLOPT_PROXYAUTH, CURLAUTH_ANY);
    break;
  case 2:  // a helper program on the device stands in for the configured proxy
    curl_easy_setopt(curl, CURLOPT_PROXY, "127.0.0.1:3128");
    curl_easy_setopt(curl, CURLOPT_PROXYTYPE, long{CURLPROXY_HTTP});
    break;
  case 3:
    curl_easy_setopt(curl, CURLOPT_PROXYTYPE, long{CURLPROXY_SOCKS4});
    break;
  case 4:
    curl_easy_setopt(curl, CURLOPT_PROXYTYPE, long{CURLPROXY_SOCKS5});
    break;
  default:
    break;
  }
}

void set_proxy(CURL* curl, uint32_t use_proxy) {
  const c_string host{config_get_copy("q_qcloud_proxy_hostname")};
  const c_string port{config_get_copy("q_qcloud_proxy_port")};
  if (host != nullptr && port != nullptr) {
    set_proxy_address(curl, use_proxy, host.get(), port.get());
  } else {
    // Intended: no line end, and the request goes out without a proxy.
    log_error("Could not get proxy address/proxy port values from config");
  }

  const c_string user{config_get_copy("q_qcloud_proxy_username")};
  const c_string password{config_get_copy("q_qcloud_proxy_password")};
  if (user == nullptr || password == nullptr) return;
  char credentials[line_size];
  std::snprintf(credentials, sizeof credentials, "%s:%s", user.get(), password.get());
  curl_easy_setopt(curl, CURLOPT_PROXYUSERPWD, credentials);
}

/// libcurl counts in 32-bit milliseconds and refuses longer times, which would leave no time-out at all.
long timeout_option(uint32_t seconds) {
  return static_cast<long>(std::min<uint32_t>(seconds, INT32_MAX / 1000));
}

/// A handle with everything set that is the same for all requests; null when libcurl gives none.
curl_ptr configured_handle(const AgentSettings& settings, HttpBuffer* headers, HttpBuffer* reply) {
  curl_ptr handle{curl_easy_init()};
  CURL* curl = handle.get();
  if (curl == nullptr) return nullptr;
  const uint32_t use_proxy = config_get_uint("q_qcloud_use_proxy", 0);

  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 1L);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TIMEOUT, timeout_option(settings.http_request_timeout));
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, timeout_option(settings.http_connect_timeout));
  curl_easy_setopt(curl, CURLOPT_SHARE, shared_curl());
  if (use_proxy != 0) set_proxy(curl, use_proxy);

  // Without a header function libcurl hands the header lines to the write function, with the header buffer.
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append_to_buffer);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, headers);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, reply);

  if (options.ca_path != nullptr) curl_easy_setopt(curl, CURLOPT_CAPATH, options.ca_path);
  if (options.ca_file != nullptr) curl_easy_setopt(curl, CURLOPT_CAINFO, options.ca_file);
  const bool verify_peer = options.ca_path != nullptr || options.ca_file != nullptr;
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, 2L);
  curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, verify_peer ? 1L : 0L);
  if (curl_easy_setopt(curl, CURLOPT_SSLVERSION, long{CURL_SSLVERSION_TLSv1_2}) != CURLE_OK) {
    log_error("Can not enforce curl to TLS v1.2 or later\n");
    return nullptr;
  }
  return handle;
}

// Not for a thread that is refused while paused: between two tests of the flag a resume and the next pause may come.
void wait_at_pause_gate() {
  if (refuses_while_paused) return;                 // model: pause_gate.refuse
  while (state.paused != 0 && thread_may_wait()) {  // model: pause_gate.look, pause_gate.may_wait
    log_debug("Pause http request until we allow to do it\n");
    wait_for_wakeup(&state.paused);
  }
}

/// What each request begins with: the turn, a handle, and the wait at the pause gate, also when there is no handle.
/// The turn is held to the end of the scope.
struct opened_request {
  opened_request(const char* url, const AgentSettings& settings, HttpBuffer* headers, HttpBuffer* reply) {
    if (!turn.held()) return;
    curl_ptr configured = configured_handle(settings, headers, reply);
    wait_at_pause_gate();
    if (!may_go_on()) return;  // model: request.test
    handle = std::move(configured);
    may_be_made = true;
    if (handle != nullptr) return;
    log_error("curl initialization error.\n");
    log_status("curl initialization error. url='%s'\n", url);
  }

  request_turn turn;
  curl_ptr handle;           ///< null also when libcurl gives none (logged)
  bool may_be_made = false;  ///< false: held back, or the thread is to stop; then there is no handle
};

void add_header_line(curl_list_ptr& list, const char* line) {
  curl_slist* grown = curl_slist_append(list.get(), line);
  if (grown == nullptr) allocation_failed(ALLOCATION("malloc().\n", 1));
  (void)list.release();  // it is part of the grown list
  list.reset(grown);
}

/// Adds the line that proves who the device is. False, and nothing is added, while that isn't known.
bool add_authorization(curl_list_ptr& list, AgentSettings* settings) {
  const identity_copy copy{settings};
  if (copy.identity.agent_id == nullptr || copy.identity.claim_code == nullptr) return false;
  char line[line_size];
  std::snprintf(line, sizeof line, "Authorization: %s:%s", copy.identity.agent_id, copy.identity.claim_code);
  add_header_line(list, line);
  return true;
}

int unmade_post() {
  return request_refused() ? http_would_block : http_post_failed;
}

int post_result(CURLcode code) {
  switch (code) {
  case CURLE_COULDNT_RESOLVE_HOST:
    return http_unresolved;
  case CURLE_COULDNT_CONNECT:
    return http_unconnected;
  case CURLE_OPERATION_TIMEDOUT:
    return http_timed_out;
  default:
    return http_post_failed;
  }
}

}  // namespace

HttpBuffer http_buffer_create() {
  return {static_cast<char*>(std::calloc(1, 1)), 0};
}

void http_buffer_free(HttpBuffer* buffer) {
  release_string(buffer->text);
  buffer->length = 0;
}

int http_post_json(const char* url, AgentSettings* settings, const char* body, long* status,
                   HttpBuffer* headers, HttpBuffer* reply) {
  const opened_request request{url, *settings, headers, reply};
  if (!request.may_be_made) return unmade_post();
  CURL* curl = request.handle.get();
  if (curl == nullptr) return http_post_failed;

  curl_easy_setopt(curl, CURLOPT_URL, url);
  curl_list_ptr lines;
  add_header_line(lines, "Content-Type: application/json");
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, lines.get());
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
  if (add_authorization(lines, settings)) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, lines.get());

  const CURLcode code = curl_easy_perform(curl);
  if (code != CURLE_OK) {
    log_error("curl_easy_perform(url='%s') failed with error code %d: '%s'.\n", url, static_cast<int>(code),
              curl_easy_strerror(code));
    log_status("curl_easy_perform(url='%s') failed with error code %d: '%s'.\n", url, static_cast<int>(code),
               curl_easy_strerror(code));
    return post_result(code);
  }
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, status);
  return 0;
}

int http_get_with_header(const char* url, AgentSettings* settings, const char* extra_header, long* status,
                         HttpBuffer* headers, HttpBuffer* reply) {
  const opened_request request{url, *settings, headers, reply};
  CURL* curl = request.handle.get();
  if (curl == nullptr) return -1;

  log_debug("Setup URL for CURL handle.\n");
  curl_easy_setopt(curl, CURLOPT_URL, url);
  curl_list_ptr lines;
  add_authorization(lines, settings);
  if (extra_header != nullptr) {
    add_header_line(lines, extra_header);
    log_debug("appending additional header %s.\n", extra_header);
  }
  if (lines != nullptr) curl_easy_setopt(curl, CURLOPT_HTTPHEADER, lines.get());

  log_debug("Performing CURL request.\n");
  const CURLcode code = curl_easy_perform(curl);
  if (code != CURLE_OK) {
    log_error("curl_easy_perform(url='%s') failed with code %d: '%s'.\n", url, static_cast<int>(code),
              curl_easy_strerror(code));
    log_status("curl_easy_perform(url='%s') failed with code %d: '%s'.\n", url, static_cast<int>(code),
               curl_easy_strerror(code));
  } else {
    log_debug("CURL request was successfully performed.\n");
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, status);
  }
  log_debug("Deleting CURL handle.\n");
  return code == CURLE_OK ? 0 : -1;
}

int http_get(const char* url, AgentSettings* settings, long* status, HttpBuffer* headers, HttpBuffer* reply) {
  return http_get_with_header(url, settings, nullptr, status, headers, reply);
}

void pause_http_requests() {
  state.paused = 1;     // model: pause.set
  wake_http_waiters();  // model: pause.wake_http
}

void resume_http_requests() {
  state.paused = 0;  // model: resume.clear
  wake_sleepers();   // model: resume.wake_sleepers
}

void refuse_requests_while_paused() {
  refuses_while_paused = true;
}

int http_requests_paused() {
  return state.paused;
}

void wake_http_waiters() {
  const scoped_lock lock{state.turn_lock};  // model: wake_http.lock
  state.turn_changed.broadcast();           // model: wake_http.broadcast
}
