#pragma once

#include "story.h"

#include <cstdint>
#include <string>
#include <vector>

// Numbers from text once more, written without strtol(3): what a 32-bit one gives.

struct naive_number {
  int32_t value;
  bool out_of_range;
  size_t length;  ///< characters up to the end of the number; 0 when there is none
};

inline int naive_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'z') return c - 'a' + 10;
  if (c >= 'A' && c <= 'Z') return c - 'A' + 10;
  return 99;
}

/// `base` is 8, 10, 16 or 0 (told by the prefix).
inline naive_number read_number(const std::string& text, int base) {
  const std::string c_text = text.c_str();  // a zero byte ends it
  const auto at = [&](size_t position) { return position < c_text.size() ? c_text[position] : '\0'; };
  size_t position = 0;
  while (at(position) != '\0' && std::string{" \t\n\v\f\r"}.find(at(position)) != std::string::npos) {
    ++position;
  }
  const bool negative = at(position) == '-';
  if (at(position) == '-' || at(position) == '+') ++position;
  const bool hexadecimal = at(position) == '0' && (at(position + 1) | 0x20) == 'x' &&
                           naive_digit(at(position + 2)) < 16 && (base == 0 || base == 16);
  if (base == 0) base = hexadecimal ? 16 : at(position) == '0' ? 8 : 10;
  if (hexadecimal) position += 2;
  constexpr int64_t far_out = int64_t{1} << 40;  // beyond it the exact value makes no difference
  int64_t value = 0;
  const size_t first = position;
  for (; naive_digit(at(position)) < base; ++position) {
    if (value < far_out) value = value * base + naive_digit(at(position));
  }
  if (position == first) return {0, false, 0};
  if (negative) value = -value;
  if (value > INT32_MAX) return {INT32_MAX, true, position};
  if (value < INT32_MIN) return {INT32_MIN, true, position};
  return {static_cast<int32_t>(value), false, position};
}

struct naive_triple {
  bool complete;
  uint32_t values[3];
  std::string warnings;
};

/// "<time>,<probes>,<interval>".
inline naive_triple read_triple(const std::string& text) {
  std::vector<std::string> fields{""};
  for (const char c : std::string{text.c_str()}) {
    if (c == ',') {
      fields.emplace_back();
    } else {
      fields.back() += c;
    }
  }
  naive_triple triple{};
  triple.complete = fields.size() >= 3;
  for (size_t i = 0; triple.complete && i < 3; ++i) {
    const int32_t value = read_number(fields[i], 10).value;
    if (value >= 0) {
      triple.values[i] = static_cast<uint32_t>(value);
    } else {
      triple.warnings +=
          formatted("W:Cannot convert value %s to uint32_t - got value %d\n", fields[i].c_str(), value);
    }
  }
  return triple;
}
