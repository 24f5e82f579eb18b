#include "broker/messages/heartbeat_message.h"

#include "broker/packet_format.h"
#include "broker/qbroker_connection_commands.h"
#include "broker/ssl_routine.h"
#include "core/log.h"
#include "core/sync.h"

#include <atomic>
#include <cstring>
#include <ctime>

namespace {

constexpr char log_source[] = "heartbeat_message";

// Kept over reconnections: a number is never used twice. The check may run beside the broker thread.
struct heartbeat_counters {
  sync_mutex lock{lock_rank::leaf};
  uint64_t last_sent GUARDED_BY(lock) = 0;
  uint64_t last_received GUARDED_BY(lock) = 0;
  // What host_to_net64() found out about this machine.
  std::atomic<int> byte_order{0};
};
constinit heartbeat_counters heartbeats;

constexpr int byte_order_unknown = 0;
constexpr int byte_order_little = 1;
constexpr int byte_order_big = 2;

int detect_byte_order() {
  const uint16_t one = 1;
  unsigned char first_byte = 0;
  std::memcpy(&first_byte, &one, 1);
  return first_byte == 1 ? byte_order_little : byte_order_big;
}

uint64_t next_sequence_number() {
  scoped_lock held{heartbeats.lock};
  return ++heartbeats.last_sent;
}

unsigned char* put_network64(unsigned char* bytes, uint64_t value) {
  const uint64_t network = host_to_net64(value);
  return put_bytes(bytes, &network, sizeof network);
}

uint64_t get_network64(const unsigned char* bytes) {
  uint64_t network = 0;
  std::memcpy(&network, bytes, sizeof network);
  return host_to_net64(network);
}

}  // namespace

int send_heartbeat(net_connection* connection) {
  const uint64_t sequence_number = next_sequence_number();
  unsigned char packet[packet_header_size + heartbeat_chunk_size];
  unsigned char* position = put_header(packet, packet_heartbeat, heartbeat_chunk_size);
  position = put_network64(position, sequence_number);
  put_network64(position, static_cast<uint64_t>(int64_t{std::time(nullptr)}));
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
  const uint64_t received = get_network64(chunk);
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

uint64_t host_to_net64(uint64_t value) {
  int order = heartbeats.byte_order.load(std::memory_order_relaxed);
  if (order == byte_order_unknown) {
    order = detect_byte_order();
    heartbeats.byte_order.store(order, std::memory_order_relaxed);
  }
  return order == byte_order_little ? __builtin_bswap64(value) : value;
}
