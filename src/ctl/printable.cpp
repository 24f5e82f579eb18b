#include "ctl/printable.h"

#include <algorithm>
#include <cstdio>

namespace {

constexpr unsigned char delete_character = 0x7F;

unsigned char byte_at(std::string_view text, size_t index) {
  return static_cast<unsigned char>(text[index]);
}

bool is_continuation(unsigned char byte) {
  return (byte & 0xC0U) == 0x80;
}

/// The size of the character that `text` begins with; 0 when it controls a terminal or is no UTF-8.
size_t character_size(std::string_view text) {
  const unsigned char first = byte_at(text, 0);
  if (first < 0x80) return first >= ' ' && first != delete_character ? 1 : 0;
  const size_t size = first < 0xC2 ? 0U : first < 0xE0 ? 2U : first < 0xF0 ? 3U : first < 0xF5 ? 4U : 0U;
  if (size > text.size()) return 0;
  const bool whole = std::all_of(text.begin() + 1, text.begin() + static_cast<std::ptrdiff_t>(size),
                                 [](char c) { return is_continuation(static_cast<unsigned char>(c)); });
  const bool controls = first == 0xC2 && byte_at(text, 1) < 0xA0;  // U+0080 to U+009F
  return whole && !controls ? size : 0;
}

}  // namespace

std::string printable(std::string_view text, size_t longest) {
  std::string shown;
  std::string_view rest = text.substr(0, longest);
  while (!rest.empty()) {
    const size_t size = character_size(rest);
    char escaped[8] = "";
    if (size == 0) std::snprintf(escaped, sizeof escaped, "\\x%02X", byte_at(rest, 0));
    shown += size == 0 ? std::string_view{escaped} : rest.substr(0, size);
    rest.remove_prefix(std::max<size_t>(size, 1));
  }
  return text.size() > longest ? shown + "..." : shown;
}
