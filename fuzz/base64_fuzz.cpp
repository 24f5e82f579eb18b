// Base64: what is encoded comes back, and any text is decoded as a decoder that looks at four characters at a time does.

#include "broker/base64.h"
#include "core/owned.h"
#include "story.h"

#include <cstdint>

namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

void check_identity(const std::string& bytes) {
  const c_string text{base64_encode(bytes.data(), bytes.size())};
  const std::string encoded = text.get();
  CHECK(encoded.size() == (bytes.size() + 2) / 3 * 4);
  CHECK(encoded.find_first_not_of(std::string{alphabet} + "=") == std::string::npos);
  size_t length = 0;
  const c_bytes back{base64_decode(encoded.c_str(), &length)};
  CHECK(back != nullptr);
  check_same({reinterpret_cast<const char*>(back.get()), length}, bytes);
}

// False when a character of the group can't stand there.
bool decode_group(const std::string& group, bool last, std::string* bytes) {
  const size_t digits = group.find('=') == std::string::npos ? 4 : group.find('=');
  if (digits < 2 || (digits < 4 && !last)) return false;
  uint32_t bits = 0;
  for (size_t i = 0; i < 4; ++i) {
    const size_t value = std::string{alphabet}.find(group[i]);
    if (i < digits ? value == std::string::npos : group[i] != '=') return false;
    bits = bits * 64 + (i < digits ? static_cast<uint32_t>(value) : 0);
  }
  const char three[] = {static_cast<char>(bits >> 16), static_cast<char>(bits >> 8), static_cast<char>(bits)};
  bytes->append(three, digits - 1);
  return true;
}

bool decode_naively(const std::string& text, std::string* bytes) {
  std::string characters;
  for (const char c : text) {
    if (c != '\r' && c != '\n') characters += c;
  }
  if (characters.size() % 4 != 0) return false;
  for (size_t at = 0; at < characters.size(); at += 4) {
    if (!decode_group(characters.substr(at, 4), at + 4 == characters.size(), bytes)) return false;
  }
  return true;
}

void check_decoding(const std::string& text) {
  std::string expected;
  const bool decodes = decode_naively(text, &expected);
  size_t length = 0;
  const c_bytes bytes{base64_decode(text.c_str(), &length)};
  CHECK((bytes != nullptr) == decodes);
  if (decodes) check_same({reinterpret_cast<const char*>(bytes.get()), length}, expected);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  const std::string bytes{reinterpret_cast<const char*>(data), size};
  check_identity(bytes);
  check_decoding(bytes.c_str());
  return 0;
}
