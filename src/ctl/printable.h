#pragma once

#include <string>
#include <string_view>

/// `text` for a terminal: what would control it stands as \xNN, and so do bytes that are no UTF-8. Of a text of more
/// than `longest` bytes the beginning, with "..." behind it.
[[nodiscard]] std::string printable(std::string_view text, size_t longest = std::string_view::npos);
