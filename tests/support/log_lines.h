#pragma once

#include <sstream>
#include <string>
#include <string_view>
#include <vector>

/// The lines of a text, without their ends.
inline std::vector<std::string> lines_of(const std::string& text) {
  std::istringstream stream{text};
  std::vector<std::string> lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// The lines of a console log ("source: line:   TAG: text") as "TAG: text". Other lines stay as they are.
inline std::vector<std::string> messages(const std::string& console) {
  std::vector<std::string> found = lines_of(console);
  for (std::string& line : found) {
    const size_t before_tag = line.find(": ", line.find(": ") + 1);
    if (before_tag != std::string::npos) line.erase(0, line.find_first_not_of(": ", before_tag));
  }
  return found;
}

inline size_t count_of(const std::string& text, std::string_view part) {
  size_t count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size())) {
    ++count;
  }
  return count;
}
