#include "broker/qbroker_connection_commands.h"

#include "core/log.h"
#include "core/sync.h"

#include <cerrno>
#include <unistd.h>

constinit std::atomic<int> keep_connection{0};

namespace {

constexpr char log_source[] = "qbroker_connection";

// Where commands go: the write end of the connected session's pipe, -1 while no connection is up.
struct command_state {
  sync_mutex lock{lock_rank::leaf};
  int write_end GUARDED_BY(lock) = -1;
};
constinit command_state commands{};

}  // namespace

int send_command(uint8_t code) {
  const scoped_lock lock{commands.lock};
  if (commands.write_end < 0) {
    log_warning("Cannot send command '%d' to qbroker thread - write end is not initialized.\n", code);
    return -1;
  }
  if (write(commands.write_end, &code, sizeof code) != sizeof code) {
    log_debug("%s:%s:%d: error %d\n", log_source, "send_command", __LINE__, errno);
  }
  return 0;
}

int post_close_command() {
  return send_command(close_command);
}

int post_heartbeat_command() {
  return send_command(heartbeat_command);
}

void publish_command_pipe(int write_end) {
  const scoped_lock lock{commands.lock};
  commands.write_end = write_end;
}
