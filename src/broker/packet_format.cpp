#include "broker/packet_format.h"

#include <atomic>

namespace {

enum class byte_order { unknown, little, big };

// What the first conversion found out about this machine.
constinit std::atomic<byte_order> known_order{byte_order::unknown};
static_assert(std::atomic<byte_order>::is_always_lock_free);

byte_order detect_byte_order() {
  const uint16_t one = 1;
  unsigned char first_byte = 0;
  std::memcpy(&first_byte, &one, 1);
  return first_byte == 1 ? byte_order::little : byte_order::big;
}

}  // namespace

uint64_t host_to_net64(uint64_t value) {
  byte_order order = known_order.load(std::memory_order_relaxed);
  if (order == byte_order::unknown) {
    order = detect_byte_order();
    known_order.store(order, std::memory_order_relaxed);
  }
  return order == byte_order::little ? __builtin_bswap64(value) : value;
}
