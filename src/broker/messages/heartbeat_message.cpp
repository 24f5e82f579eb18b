#include "broker/messages/heartbeat_message.h"

#include "broker/packet_format.h"
#include "broker/qbroker_connection_commands.h"
#include "broker/ssl_routine.h"
#include "core/log.h"
#include "core/sync.h"

#include <ctime>

namespace {

constexpr char log_source[] = "heartbeat_message";

// Kept over reconnections: a number is never used twice. The check may run beside the broker thread.
struct heartbeat_counters {
  sync_mutex lock{lock_rank::leaf};
  uint64_t last_sent GUARDED_BY(lock) = 0;
  uint64_t last_received GUARDED_BY(lock) = 0;
};
constinit heartbeat_counters heartbeats;

uint64_t next_sequence_number() {
  scoped_lock held{heartbeats.lock};
  return ++heartbeats.last_sent;
}

}  // namespace

int send_heartbeat(net_connection* connection) {
  const uint64_t sequence_number = next_sequence_number();
  unsigned char packet[packet_header_size + heartbeat_chunk_size];
  unsigned char* position = put_header(packet, packet_heartbeat, heartbeat_chunk_size);
  position = put_u64(position, sequence_number);
  put_u64(position, static_cast<uint64_t>(int64_t{std::time(nullptr)}));
  if (connection == nullptr) return -1;

  const int result = conn_write(connection, packet, sizeof packet);
  log_debug("heartbeat with seq number %llu was sent.\n", static_cast<unsigned long long>(sequence_number));
  return result;
}

void heartbeat_response_received(const unsigned char* chunk, uint16_t length) {
  if (length != heartbeat_chunk_size) {
    // Log readers match this text, also for a response that is too short.
    log_warning("Size of hearbeat responce is more than we expected. Expected %zu, but received %zu.\n",
                heartbeat_chunk_size, size_t{length});
    return;
  }
  const uint64_t received = get_u64(chunk);
  scoped_lock held{heartbeats.lock};
  log_debug("Received heartbeat response with sequence number %llu, latest sent was %llu.\n",
            static_cast<unsigned long long>(received), static_cast<unsigned long long>(heartbeats.last_sent));
  heartbeats.last_received = received;
}

int check_heartbeat() {
  bool answered = false;
  {
    scoped_lock held{heartbeats.lock};
    answered = heartbeats.last_received == heartbeats.last_sent;
  }
  if (answered) {
    log_debug("heartbeat OK!\n");
    return 0;
  }
  log_error("latest heartbeat is not received! Sending command to close connection.\n");
  post_close_command();
  return -1;
}
