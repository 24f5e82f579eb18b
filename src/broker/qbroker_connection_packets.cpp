#include "broker/qbroker_connection_packets.h"

#include "broker/packet_format.h"
#include "broker/ssl_routine.h"
#include "core/config.h"
#include "core/exit_process.h"
#include "core/log.h"
#include "core/owned.h"

#include <cstring>

namespace {

constexpr char log_source[] = "qbroker_connection";
constexpr char agent_id_key[] = "q_agent_id";

int send_one_chunk(net_connection* connection, uint8_t type, const void* data, size_t data_length) {
  const auto length = static_cast<uint16_t>(data_length);  // what the length field holds
  c_bytes packet{
      static_cast<unsigned char*>(must_allocate(packet_header_size + length, ALLOCATION("malloc().\n", 1)))};
  put_bytes(put_header(packet.get(), type, length), data, length);
  return conn_write(connection, packet.get(), packet_header_size + length);
}

}  // namespace

int send_identity(net_connection* connection, const unsigned char* token, size_t token_length) {
  if (token != nullptr) return send_one_chunk(connection, packet_identity_by_token, token, token_length);

  c_string agent_id{config_get_copy(agent_id_key)};
  if (agent_id == nullptr) {
    log_error("Cannot get %s value.\n", agent_id_key);
    exit_process(1);
  }
  return send_one_chunk(connection, packet_identity_by_id, agent_id.get(), std::strlen(agent_id.get()));
}

int send_broker_keepalives(net_connection* connection, uint32_t time, uint32_t probes, uint32_t interval) {
  unsigned char packet[packet_header_size + keepalives_chunk_size];
  unsigned char* position = put_header(packet, packet_keepalives, keepalives_chunk_size);
  position = put_u32(position, time);
  position = put_u32(position, probes);
  put_u32(position, interval);
  return conn_write(connection, packet, sizeof packet);
}
