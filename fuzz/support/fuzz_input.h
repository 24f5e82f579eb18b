#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// An input with two parts: a text, and behind it control bytes, which say how the text is fed and what goes wrong on
/// the way. The last byte of the input is the number of control bytes before it. An input that ends in a zero byte
/// is all text.
class fuzz_input {
public:
  fuzz_input(const uint8_t* data, size_t size) {
    const size_t count = size == 0 ? 0 : std::min<size_t>(data[size - 1], size - 1);
    const size_t text_size = size == 0 ? 0 : size - 1 - count;
    text_.assign(reinterpret_cast<const char*>(data), text_size);
    controls_.assign(data + text_size, data + text_size + count);
  }

  [[nodiscard]] const std::string& text() const { return text_; }

  /// The next control byte; 0 when there is none left.
  uint8_t next() { return used_ < controls_.size() ? controls_[used_++] : uint8_t{0}; }

  /// Cuts `text` into pieces as the control bytes say: each is a piece's length, those above 200 a thousand times
  /// the excess; 0 stands for the whole rest.
  std::vector<std::string> cut(const std::string& text) {
    std::vector<std::string> pieces;
    for (size_t at = 0; at < text.size();) {
      const size_t control = next();
      const size_t wanted = control > 200 ? (control - 200) * 1000 : control;
      const size_t size = wanted == 0 ? text.size() - at : std::min(wanted, text.size() - at);
      pieces.push_back(text.substr(at, size));
      at += size;
    }
    return pieces;
  }

private:
  std::string text_;
  std::vector<uint8_t> controls_;
  size_t used_ = 0;
};

/// Replaces each 0xEE, high byte, low byte, filler by that many fillers, so that a short input can stand for a long
/// stream. At most `limit` bytes come out.
inline std::string expanded(const std::string& text, size_t limit) {
  std::string out;
  for (size_t at = 0; at < text.size() && out.size() < limit; ++at) {
    if (text[at] != '\xEE' || at + 3 >= text.size()) {
      out += text[at];
      continue;
    }
    const auto high = static_cast<unsigned char>(text[at + 1]);
    const auto low = static_cast<unsigned char>(text[at + 2]);
    out.append(std::min<size_t>(high * 256U + low, limit - out.size()), text[at + 3]);
    at += 3;
  }
  return out;
}
