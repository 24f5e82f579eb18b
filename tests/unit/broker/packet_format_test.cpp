#include "broker/packet_format.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

TEST(ByteOrder, NetworkOrderIsBigEndianBothWays) {
  const uint64_t network = host_to_net64(0x0102030405060708);
  EXPECT_EQ(std::memcmp(&network, "\x01\x02\x03\x04\x05\x06\x07\x08", 8), 0);
  for (const uint64_t value : {uint64_t{0}, uint64_t{1}, ~uint64_t{0}, uint64_t{0xFEDCBA9876543210}}) {
    EXPECT_EQ(host_to_net64(host_to_net64(value)), value);
  }
}

TEST(ByteOrder, NumbersAreWrittenAndReadBigEndian) {
  unsigned char bytes[15];
  unsigned char* end = put_u64(put_u32(put_u16(put_u8(bytes, 0x01), 0x0203), 0x04050607), 0x08090A0B0C0D0E0F);
  EXPECT_EQ(end, bytes + sizeof bytes);
  EXPECT_EQ(std::memcmp(bytes, "\x01\x02\x03\x04\x05\x06\x07\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F", 15), 0);
  EXPECT_EQ(get_u16(bytes + 1), 0x0203);
  EXPECT_EQ(get_u64(bytes + 7), 0x08090A0B0C0D0E0FU);
}

}  // namespace
