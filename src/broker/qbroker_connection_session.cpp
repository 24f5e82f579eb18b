#include "broker/qbroker_connection_session.h"

#include "broker/base64.h"
#include "broker/messages/heartbeat_message.h"
#include "broker/net_helper.h"
#include "broker/packet_parser.h"
#include "broker/proxy.h"
#include "broker/qbroker_connection_commands.h"
#include "broker/qbroker_connection_packets.h"
#include "broker/ssl_routine.h"
#include "cloud/logic.h"
#include "cloud/logic_state.h"
#include "core/agent_settings.h"
#include "core/config.h"
#include "core/daemon.h"
#include "core/log.h"
#include "core/owned.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <iterator>
#include <memory>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr char log_source[] = "qbroker_connection";

constexpr uint32_t default_broker_port = 443;
constexpr size_t read_size = 4096;
// So many reads go on without a look at anything else: a flood must not keep a command or the heartbeat waiting.
constexpr int reads_at_once = 16;

using parser_ptr = std::unique_ptr<packet_parser, releaser<packet_parser_free>>;

// Where the advisor sends the agent.
struct broker_address {
  char host[256];
  int port;
  c_bytes token;
  size_t token_length;
};

// How a connection ended.
enum class session_end {
  failed,  // the peer closed, or a read, a wait or the keepalive packet failed
  over,    // anything else: no connection, an unsent identity, a stop
  closed,  // the close command or a missing heartbeat: reconnect without delay
};

// One connection while it is up.
struct broker_session {
  AgentSettings* settings;
  net_connection* connection;
  int command_read_end;
  packet_parser* parser;
};

// --- asking the advisor

void wait_as_advised(int period) {
  if (period < 1) {
    log_debug("'wait forever' command received from adviser. Sleeping forever.\n");
    sleep_forever_interruptable();  // model: session.wait_forever
    return;
  }
  log_debug("Wait command received from adviser. Sleeping for %d secs.\n", period);
  sleep_for(period);
}

void take_address(const AdvisorReply& reply, broker_address* address) {
  std::snprintf(address->host, sizeof address->host, "%s", reply.broker_host);
  address->port =
      reply.port != 0 ? reply.port : static_cast<int>(config_get_uint("q_broker_port", default_broker_port));
  address->token.reset(base64_decode(reply.token, &address->token_length));
}

// 0 with the address to connect to, or -1 after having waited as the advisor or its absence asks for.
int ask_for_address(AgentSettings* settings, broker_address* address) {
  log_debug("Making advisor request for qbroker address.\n");
  AdvisorReply reply{};
  if (ask_advisor(settings, &reply) != 0) {
    sleep_for(static_cast<int>(settings->advisor_delay));  // model: session.ask_later
    return -1;
  }
  if (reply.action == advisor_wait) wait_as_advised(reply.period);
  if (reply.action == advisor_connect) take_address(reply, address);
  release_advisor_reply(&reply);
  return reply.action == advisor_connect ? 0 : -1;
}

// --- the connected session

bool all_set(const keepalive_values& values) {
  return values.time != 0 && values.probes != 0 && values.interval != 0;
}

int send_keepalives_if_set(broker_session* session) {
  const keepalive_values& values = session->settings->broker_keepalive;
  if (!all_set(values)) return 0;
  if (send_broker_keepalives(session->connection, values.time, values.probes, values.interval) < 1) {
    log_error("Cannot send keepalives to qbroker.\n");
    return -1;
  }
  log_debug("keepalives sent to qbroker.\n");
  return 0;
}

void set_own_keepalives_if_set(broker_session* session) {
  const keepalive_values& values = session->settings->agent_keepalive;
  if (!all_set(values)) return;
  if (set_keepalive_values(session->connection->socket, static_cast<int>(values.time),
                           static_cast<int>(values.probes), static_cast<int>(values.interval)) != 0) {
    log_error("Cannot set keepalives to connection with qbroker - possibly connection status will be "
              "unsynchronized.\n");
    return;
  }
  log_debug("keepalives values are set.\n");
}

enum class read_result {
  more_now,    // TLS holds bytes that the socket doesn't show
  more_later,  // nothing more is here
  ended,
};

// Reads what is there, and what TLS has already taken from the socket.
read_result read_packets(broker_session* session) {
  unsigned char bytes[read_size];
  for (int reads = 0; reads < reads_at_once; ++reads) {
    const int count = conn_read(session->connection, bytes, sizeof bytes);
    if (count < 0) return read_result::ended;
    if (count == 0) {
      if (errno == EAGAIN) return read_result::more_later;
      log_status("Other end disconnected.\n");
      log_debug("Other end disconnected.\n");
      return read_result::ended;
    }
    packet_parse(session->parser, &session_callbacks, bytes, static_cast<size_t>(count));
    if (!conn_buffered(session->connection)) return read_result::more_later;
  }
  return read_result::more_now;
}

// True when the connection is to be closed.
bool carry_out_command(broker_session* session) {
  uint8_t command = 0;
  if (read(session->command_read_end, &command, sizeof command) != sizeof command) return false;
  if (command == heartbeat_command && send_heartbeat(session->connection) < 1) {
    log_debug("%s:%s:%d: error %d\n", log_source, "qbroker_connect", __LINE__, errno);
  }
  return command == close_command;
}

// The heartbeat's timer: when the next one is due, in milliseconds of the monotonic clock.
struct heartbeat_timer {
  int64_t period;  // 0: no heartbeats
  int64_t due;
  bool first;
};

int64_t monotonic_ms() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

// The number is a signed one: what the advisor gives is taken as it comes, and below 1 means no heartbeats.
heartbeat_timer start_heartbeat_timer(uint32_t seconds) {
  const int64_t period = std::max<int64_t>(static_cast<int32_t>(seconds), 0) * 1000;
  return {period, period > 0 ? monotonic_ms() + period : 0, true};
}

// Time-out for poll(2): -1 without heartbeats.
int wait_limit(const heartbeat_timer& timer) {
  if (timer.period == 0) return -1;
  return static_cast<int>(std::clamp<int64_t>(timer.due - monotonic_ms(), 0, INT32_MAX));
}

// Sends a heartbeat when it is due and the one before it was answered. -1 when that answer is missing: the
// connection is dead.
int beat_if_due(broker_session* session, heartbeat_timer* timer) {
  const int64_t now = monotonic_ms();
  if (timer->period == 0 || now < timer->due) return 0;
  timer->due = now + timer->period;  // from now, so that a late heartbeat's answer has a whole period too
  const bool first = std::exchange(timer->first, false);
  if (!first && check_heartbeat() != 0) return -1;
  if (send_heartbeat(session->connection) < 1) {
    log_debug("%s:%s:%d: error %d\n", log_source, "qbroker_connect", __LINE__, errno);
  }
  return 0;
}

// Waits for the socket, the command pipe and the heartbeat timer, and serves them, until the connection ends.
session_end serve_connection(broker_session* session) {
  heartbeat_timer timer = start_heartbeat_timer(session->settings->agent_heartbeat);
  pollfd watched[] = {{session->connection->socket, POLLIN, 0}, {session->command_read_end, POLLIN, 0}};
  read_result last = read_result::more_later;
  while (keep_connection != 0) {  // model: session.still
    const int limit = last == read_result::more_now ? 0 : wait_limit(timer);
    if (poll(watched, std::size(watched), limit) < 0) {  // model: session.poll
      if (errno == EINTR) continue;
      log_error("select error %d.\n", errno);
      return session_end::failed;
    }
    if (watched[0].revents != 0 || last == read_result::more_now) last = read_packets(session);
    if (last == read_result::ended) return session_end::failed;
    if (watched[1].revents != 0 && carry_out_command(session)) return session_end::closed;
    if (beat_if_due(session, &timer) != 0) return session_end::closed;
  }
  return session_end::over;
}

// From the fresh connection to its end. A failed keepalive packet still goes through the connected state: whoever
// follows the state record sees that the broker was reached.
session_end run_session(broker_session* session, const broker_address& address) {
  if (keep_connection == 0) return session_end::over;
  if (send_identity(session->connection, address.token.get(), address.token_length) < 1)
    return session_end::over;
  const bool keepalives_sent = send_keepalives_if_set(session) == 0;
  if (keepalives_sent) set_own_keepalives_if_set(session);
  set_connected(1);
  set_nonblocking(session->connection);
  conn_read_ahead(session->connection);
  log_debug("Reading packet header.\n");
  const parser_ptr parser{packet_parser_create(session->settings)};
  if (!keepalives_sent) return session_end::failed;
  session->parser = parser.get();
  return serve_connection(session);
}

// --- one connection

// Without a pipe the session runs all the same, out of reach for commands.
pipe_ends open_command_pipe() {
  pipe_ends pipe = make_pipe(O_CLOEXEC);
  if (!pipe.valid()) {
    log_debug("%s:%s:%d: error %d\n", log_source, "qbroker_connect", __LINE__, errno);
    return pipe;
  }
  fcntl(pipe.write_end.get(), F_SETFL, O_NONBLOCK);
  publish_command_pipe(pipe.write_end.get());
  return pipe;
}

session_end connect_and_serve(AgentSettings* settings, const broker_address& address) {
  const auto use_ssl = static_cast<int>(config_get_uint("q_broker_ssl", 1));
  log_info("qbroker_host=%s, qbroker_port=%d, using ssl=%d\n", address.host, address.port, use_ssl);
  // model: session.connect
  const net_connection_ptr connection = open_broker_connection(address.host, address.port, use_ssl != 0);
  if (!connection) return session_end::over;

  log_debug("Connected to qbroker.\n");
  const pipe_ends pipe = open_command_pipe();
  broker_session session{settings, connection.get(), pipe.read_end.get(), nullptr};
  const session_end end = run_session(&session, address);

  if (conn_close(connection.get()) != 0) {
    log_error("Failed to close socket. - %s.\n", std::strerror(errno));
  }
  publish_command_pipe(-1);
  return end;
}

}  // namespace

void qbroker_connect(AgentSettings* settings) {
  while (keep_connection != 0) {  // model: session.test
    broker_address address{};
    if (ask_for_address(settings, &address) != 0) continue;  // model: session.ask

    const session_end end = connect_and_serve(settings, address);
    log_debug("keep_connection=%d, success=%d.\n", keep_connection.load(),
              end == session_end::failed ? 0 : 1);
    set_connected(0);
    if (keep_connection == 0) break;

    const uint32_t delay = end == session_end::closed ? 0 : settings->qbroker_delay;
    if (delay != 0) {
      log_error("Connection to qbroker was closed. Sleeping for %d secs.\n", static_cast<int>(delay));
      sleep_for(static_cast<int>(delay));  // model: session.delay
    }
  }
  log_debug("exiting msg_processor thread.\n");
}
