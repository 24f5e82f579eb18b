#include "control/control_listener.h"

#include "cloud/http_helper.h"
#include "cloud/logic.h"
#include "control/control_listener_command.h"
#include "core/config.h"
#include "core/log.h"
#include "core/owned.h"
#include "delivery/message_sender.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char log_source[] = "control_listener";

constexpr int malformed_request = -1;

// `settings` is written before the delivery worker can exist. `own_name` is read from the settings store by whoever
// asks first.
struct local_state {
  AgentSettings* settings = nullptr;
  std::atomic<char*> own_name{nullptr};
};
constinit local_state own_requests{};

int send_discovery(const ControlRequest* request, AgentSettings* settings) {
  if (use_discovery() != 0) return command_send_discovery(settings, &request->discovery);
  log_warning("Discovery is disabled.");
  return 0;
}

int on_claim(const ControlRequest* request, AgentSettings* settings) {
  return command_on_claim(settings, request->flag.flag, request->flag.service_id);
}

int on_release(const ControlRequest* request, AgentSettings* settings) {
  return command_on_release(settings, request->flag.flag, request->flag.service_id);
}

int resume_connections(const ControlRequest* request, AgentSettings* settings) {
  return command_resume_connections(settings, request->carrier_id);
}

int pause_connections(const ControlRequest* /*request*/, AgentSettings* /*settings*/) {
  return command_pause_connections();
}

int on_fernhollow(const ControlRequest* request, AgentSettings* settings) {
  return command_on_fernhollow(settings, request->flag.flag, request->flag.service_id);
}

struct command_entry {
  int type;
  int (*execute)(const ControlRequest* request, AgentSettings* settings);
};
constexpr command_entry commands[] = {
    {request_send_discovery, send_discovery},
    {request_on_claim, on_claim},
    {request_on_release, on_release},
    {request_resume_connections, resume_connections},
    {request_pause_connections, pause_connections},
    {request_on_fernhollow, on_fernhollow},
};

}  // namespace

int execute_request(const ControlRequest* request, AgentSettings* settings) {
  for (const command_entry& command : commands) {
    if (command.type == request->type) return command.execute(request, settings);
  }
  log_warning("Cannot execute request with unknown type %d.\n", request->type);
  return 0;
}

int execute_request_text(const char* text, AgentSettings* settings) {
  // This thread is the way on which a resume comes: it must never wait for one.
  refuse_requests_while_paused();
  ControlRequest request{};
  int result = malformed_request;
  if (parse_control_request(text, &request) == -1) {
    log_error("Cannot parse incoming request.\n");
  } else {
    result = execute_request(&request, settings);
  }
  free_control_request(&request);
  return result;
}

int handle_incoming_request(const void* data, uint32_t length, AgentSettings* settings) {
  const c_string text{
      static_cast<char*>(must_allocate(static_cast<size_t>(length) + 1, ALLOCATION("malloc().", -1)))};
  const size_t held = data != nullptr ? length : 0;
  if (held != 0) std::memcpy(text.get(), data, held);
  text.get()[held] = '\0';
  return execute_request_text(text.get(), settings);
}

const char* agent_handler_name() {
  if (const char* known = own_requests.own_name) return known;
  char* name = config_get_copy("q_agent_handler_name");
  if (name == nullptr) return nullptr;
  // Two threads may have read it at once: the first one's copy stays.
  char* first = nullptr;
  if (own_requests.own_name.compare_exchange_strong(first, name)) return name;
  std::free(name);
  return first;
}

void serve_local_requests(AgentSettings* settings) {
  own_requests.settings = settings;
  set_local_requests(
      {.own_handler_name = agent_handler_name, .execute = [](const void* data, uint32_t length) {
         return handle_incoming_request(data, length, own_requests.settings);
       }});
}
