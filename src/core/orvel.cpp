#include "core/orvel.h"

#include "broker/qbroker_connection.h"
#include "cloud/discovery.h"
#include "cloud/http_helper.h"
#include "cloud/http_helper_share.h"
#include "cloud/logic.h"
#include "cloud/logic_locks.h"
#include "cloud/logic_state.h"
#include "control/control_listener.h"
#include "core/args.h"
#include "core/config.h"
#include "core/daemon.h"
#include "core/exit_process.h"
#include "core/log.h"
#include "core/orvel_registration.h"
#include "core/orvel_signals.h"
#include "core/orvel_text.h"
#include "core/owned.h"
#include "core/version.h"
#include "core/watchdog.h"
#include "delivery/message_sender.h"
#include "usi.h"

#include <cerrno>
#include <curl/curl.h>
#include <fcntl.h>
#include <malloc.h>
#include <openssl/ssl.h>
#include <pthread.h>

namespace {

constexpr char log_source[] = "orvel";

constexpr uint32_t default_aggressive_time = 120;  // seconds

// --- before the agent runs

// One heap for all threads. With one for each, as the C library gives them by itself, what a thread has freed is no use
// to the others, and a device's memory is spent several times over.
void share_one_heap() {
#ifdef M_ARENA_MAX
  mallopt(M_ARENA_MAX, 1);
#endif
}

void log_profile_path() {
  const char* path = usiGetCurrentProfile();
  const c_string target{resolve_link(path)};
  if (target) {
    log_info("USI Profile Path: %s -> %s\n", path, target.get());
  } else {
    log_info("USI Profile Path: %s\n", path);
  }
}

void log_config_path() {
  const char* path = usiGetCurrentConfig();
  const c_string target{resolve_link(path)};
  if (target) {
    log_info("USI Config Path: %s -> %s\n", path, target.get());
  } else {
    log_info("USI Config Path: %s\n", path);
  }
}

void write_version_keys() {
  config_set("q_agent_connected", "0");
  config_set("q_agent_pid", "0");
  config_set("q_version", version_string);

  char* pieces = nullptr;
  for (const char* piece : {"Components: ", "Toolchain:mips-linux ", "Platform:amd64/ubuntu:22.04 "}) {
    str_append(&pieces, piece);
  }
  const c_string build{pieces};
  if (build) config_set("q_agent_build", build.get());
}

// --- orvel_main's steps

// The request with which start-up announces the device. Without a service id there is nothing to announce: then
// discovery must be off.
DiscoveryParams make_discovery_params(AgentSettings* settings) {
  if (settings->service_id == nullptr && use_discovery() != 0) {
    log_error("If you want to use discovery, you need to provide service_id for discovery!\n");
    log_error("Cannot create needed discovery data from settings. exiting.\n");
    unlock_pid_file(settings->pid_file, settings->pid_fd);
    exit_process(1);
  }
  const uint32_t time = settings->discovery_time != 0 ? settings->discovery_time : settings->discovery_delay;
  DiscoveryParams params{};
  params.service_id = must_copy_if_any(settings->service_id, ALLOCATION("strdup().\n", 1));
  params.discovery_time = static_cast<int32_t>(time);
  params.discovery_id = must_copy_if_any(settings->discovery_id, ALLOCATION("strdup().\n", 1));
  params.discovery_data = must_copy_if_any(settings->discovery_data, ALLOCATION("strdup().\n", 1));
  params.carrier_id = copy_carrier_id(settings);
  return params;
}

// Without a pipe there is no control listener, and the agent can't be told to stop.
pipe_ends open_control_pipe() {
  pipe_ends pipe = make_pipe(O_CLOEXEC);
  if (!pipe.valid()) {
    log_error("Cannot create pipe: errno %d.\n", errno);
    return pipe;
  }
  fcntl(pipe.write_end.get(), F_SETFL, O_NONBLOCK);
  termination.control_pipe = pipe.write_end.get();  // model: main.pipe
  termination.pipe_ready = 1;                       // model: main.ready
  return pipe;
}

// Discovery may have been switched on since the request was made without a service: then there is none to push.
void announce_device(AgentSettings* settings, const DiscoveryParams* params) {
  push_discovery(params->service_id != nullptr ? params : nullptr, settings);
}

void decide_connection(AgentSettings* settings, const DiscoveryParams* params, int claimed) {
  if (force_connection() == 1) {
    log_debug("Establishing connection with qCloud forcibly.\n");
    start_broker_thread(settings);
    if (use_discovery() == 1 && claimed == 0) announce_device(settings, params);
    return;
  }
  const bool discovery = use_discovery() != 0;
  if (!discovery && claimed == 0) {
    log_info("Device is not claimed. Connection to qCloud won't be established.\n");
    return;
  }
  start_broker_thread(settings);
  if (discovery && claimed == 0) announce_device(settings, params);
}

// Waits until a stop has ended the control listener, then ends the process. Without a stop there is nothing left to
// wait for, and the other threads go on.
void wait_for_end(pthread_t listener, const char* pid_file, int pid_fd) {
  termination.main_waiting = 1;                        // model: main.announce
  if (listener != 0) pthread_join(listener, nullptr);  // model: main.join
  if (termination.sigterm_received != 0) {             // model: main.exit
    log_debug("Exit because sigterm was received.\n");
    finish_state_record();
    unlock_pid_file(pid_file, pid_fd);
    exit_process(0);
  }
  log_info("sleeping forever.\n");
  sleep_forever();  // model: main.sleep
}

// Start-up backwards. The agent ends by exit_process() today; this is the order for a caller that wants to go on.
void shut_down(pipe_ends* pipe, DiscoveryParams* params, const char* pid_file, int pid_fd) {
  pipe->read_end.reset();
  pipe->write_end.reset();
  clean_shared_curl();
  shutdown_thread_pool();
  clean_locks();
  release_discovery_params(params);
  unlock_pid_file(pid_file, pid_fd);
}

void* main_thread(void* settings) {
  orvel_main(static_cast<AgentSettings*>(settings));
  announce_main_end();
  return nullptr;
}

void run_main_thread(AgentSettings* settings) {
  pthread_t thread{};
  const int error = pthread_create(&thread, nullptr, main_thread, settings);
  if (error != 0) {
    log_error("Failed to create main thread ret=%d.\n", error);
    exit_process(1);
  }
  serve_signals();
  pthread_join(thread, nullptr);
}

}  // namespace

int run_program(int argc, char** argv) {
  share_one_heap();
  options.log_file = default_log_file;
  AgentSettings settings{};
  if (parse_args(argc, argv, &settings) != 0) {
    log_error("Cannot parse args/load needed variables from nvram.\n");
    release_settings(&settings);
    return -1;
  }
  if (settings.daemon) {
    if (daemonize() != 0) {
      log_error("failed to daemonize.\n");
      exit_process(1);
    }
    log_info("orvel started as daemon.\n");
  }
  log_profile_path();
  log_config_path();
  write_version_keys();
  if (settings.watchdog) run_watchdog(settings.watchdog_pid_file, run_agent, &settings);
  run_agent(&settings);
  release_settings(&settings);
  return 0;
}

void run_agent(AgentSettings* settings) {
  if (load_enrolment_settings(settings) != 0) {
    log_error("Failed to read mandatory config settings.\n");
    return;
  }
  if (install_signal_handlers(settings->watchdog) != 0) {
    log_error("Failed to setup signal handers.\n");
    exit_process(1);
  }
  log_info("Orvel version %s%s started.\n", version_string, version_suffix);
  settings->pid_fd = lock_pid_file(settings->pid_file);
  if (settings->pid_fd == -1) {
    log_error("failed to lock the pid file.\n");
    exit_process(1);
  }
  log_info("orvel locked the pid file.\n");
  // Threads outlive exit(): nothing may take the TLS library's state away from them.
  OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);
  log_debug("curl_global_init...\n");
  curl_global_init(CURL_GLOBAL_ALL);
  log_debug("curl_global_init completed.\n");
  run_main_thread(settings);
}

void orvel_main(AgentSettings* settings) {
  log_debug("orvel_main...\n");
  if (settings == nullptr) exit_process(1);
  const int pid_fd = settings->pid_fd;

  if (clear_thread_signal_mask() != 0) log_error("failed to set thread mask");
  log_debug("clear_thread_signal_mask...\n");
  block_handled_signals();  // they are the first thread's business

  init_shared_curl();
  log_debug("init_shared_curl...\n");
  OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
  log_debug("SSL_load_error_strings...\n");
  OPENSSL_init_ssl(0, nullptr);
  log_debug("SSL_library_init...\n");
  init_locks();
  log_debug("init_locks...\n");
  serve_local_requests(settings);
  init_thread_pool();
  log_debug("init_thread_pool...\n");
  orvel_state_init(settings->daemon ? 1 : 0);
  log_debug("orvel_state_init...\n");

  DiscoveryParams params = make_discovery_params(settings);
  const uint32_t aggressive_period = config_get_uint("q_register_aggressive_time", default_aggressive_time);
  // Before a client can ask for anything, so that none of its requests gets through or is undone.
  if (settings->start_paused) pause_http_requests();
  pipe_ends pipe = open_control_pipe();
  // model: main.listener
  const pthread_t listener =
      pipe.read_end.valid() ? start_control_listener(settings, pipe.read_end.get()) : pthread_t{0};
  if (settings->start_paused) stop_broker_thread();

  register_until_complete(settings, aggressive_period);
  set_registered(1);
  const int claimed = wait_for_claim_status(settings);
  log_debug("is_claimed='%d'\n", claimed);
  decide_connection(settings, &params, claimed);

  wait_for_end(listener, settings->pid_file, pid_fd);
  shut_down(&pipe, &params, settings->pid_file, pid_fd);
}
