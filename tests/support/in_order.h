#pragma once

#include <gmock/gmock.h>
#include <string>
#include <utility>
#include <vector>

/// Matches a text in which all `pieces` stand, one behind the other; anything may be between them.
MATCHER_P(HasInOrder, pieces, "") {
  size_t position = 0;
  for (const std::string& piece : pieces) {
    const size_t found = arg.find(piece, position);
    if (found == std::string::npos) {
      *result_listener << "misses, behind what comes before it: " << piece;
      return false;
    }
    position = found + piece.size();
  }
  return true;
}

inline auto has_in_order(std::vector<std::string> pieces) {
  return HasInOrder(std::move(pieces));
}
