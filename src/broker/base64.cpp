#include "broker/base64.h"

#include "core/owned.h"

#include <array>
#include <cstdint>

namespace {

constexpr char log_source[] = "base64";

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr uint8_t no_digit = 255;

constexpr std::array<uint8_t, 256> digit_values = [] {
  std::array<uint8_t, 256> values{};
  values.fill(no_digit);
  for (uint8_t i = 0; i < 64; ++i) {
    values[static_cast<unsigned char>(alphabet[i])] = i;
  }
  return values;
}();

// The characters of one group of four that have been read: `bits` holds six bits for each.
struct digit_group {
  uint32_t bits = 0;
  int digits = 0;
  int padding = 0;

  [[nodiscard]] bool full() const { return digits + padding == 4; }

  // False when `character` can't stand here.
  [[nodiscard]] bool take(char character) {
    if (character == '=') {
      bits <<= 6;
      ++padding;
      return digits >= 2;
    }
    const uint8_t value = digit_values[static_cast<unsigned char>(character)];
    if (value == no_digit || padding != 0) return false;
    bits = (bits << 6) | value;
    ++digits;
    return true;
  }
};

}  // namespace

char* base64_encode(const void* bytes, size_t length) {
  const auto* in = static_cast<const unsigned char*>(bytes);
  auto* text = static_cast<char*>(must_allocate(length / 3 * 4 + 5, ALLOCATION("malloc().\n", 1)));
  char* out = text;
  for (size_t i = 0; i < length; i += 3) {
    const size_t left = length - i;
    const uint32_t group =
        uint32_t{in[i]} << 16 | (left > 1 ? uint32_t{in[i + 1]} << 8 : 0) | (left > 2 ? in[i + 2] : 0U);
    *out++ = alphabet[group >> 18];
    *out++ = alphabet[group >> 12 & 63];
    *out++ = left > 1 ? alphabet[group >> 6 & 63] : '=';
    *out++ = left > 2 ? alphabet[group & 63] : '=';
  }
  *out = '\0';
  return text;
}

unsigned char* base64_decode(const char* text, size_t* length) {
  if (text == nullptr) return nullptr;
  size_t text_length = 0;
  while (text[text_length] != '\0') {
    ++text_length;
  }
  c_bytes bytes{
      static_cast<unsigned char*>(must_allocate(text_length / 4 * 3 + 3, ALLOCATION("malloc().\n", 1)))};
  size_t count = 0;
  digit_group group;
  bool ended = false;  // padding ends the text
  for (const char* next = text; *next != '\0'; ++next) {
    if (*next == '\r' || *next == '\n') continue;
    if (ended || !group.take(*next)) return nullptr;
    if (!group.full()) continue;
    for (int i = 0; i < 3 - group.padding; ++i) {
      bytes.get()[count++] = static_cast<unsigned char>(group.bits >> (16 - 8 * i));
    }
    ended = group.padding != 0;
    group = {};
  }
  if (group.digits != 0) return nullptr;
  *length = count;
  return bytes.release();
}
