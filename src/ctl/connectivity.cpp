#include "ctl/connectivity.h"

#include "core/owned.h"

#include <zlib.h>

namespace {

constexpr size_t stamp_size = sizeof "2026-01-01 00:00:00" - 1;
constexpr std::string_view state_mark = " S: ";
constexpr size_t largest_log = size_t{64} * 1024 * 1024;

using gz_file = std::unique_ptr<gzFile_s, releaser<gzclose>>;

/// The content of a plain or compressed file. False when there is none.
bool read_log(const std::string& path, std::string* text) {
  const gz_file file{gzopen(path.c_str(), "rbe")};
  if (!file) return false;
  text->clear();
  char block[16384];
  for (int count = 0; text->size() < largest_log && (count = gzread(file.get(), block, sizeof block)) > 0;) {
    text->append(block, static_cast<size_t>(count));
  }
  return true;
}

/// "connected" or "disconnected"; "" for any other line.
std::string_view state_in(std::string_view line) {
  if (line.size() < stamp_size || line.substr(stamp_size, state_mark.size()) != state_mark) return "";
  const std::string_view word = line.substr(stamp_size + state_mark.size());
  return word == "connected" || word == "disconnected" ? word : "";
}

}  // namespace

bool scan_backwards(std::string_view text, connectivity* found) {
  while (!text.empty()) {
    if (text.back() == '\n') text.remove_suffix(1);
    const size_t start = text.rfind('\n') + 1;  // 0 when there is none
    const std::string_view line = text.substr(start);
    text.remove_suffix(line.size());
    const std::string_view state = state_in(line);
    if (state.empty()) continue;
    const bool connected = state == "connected";
    if (found->known && connected != found->connected) return true;
    *found = {true, connected, std::string{line.substr(0, stamp_size)}};
  }
  return false;
}

connectivity read_connectivity(const std::string& path) {
  connectivity found{};
  std::string text;
  if (!read_log(path, &text) || scan_backwards(text, &found)) return found;
  for (int generation = 1;; ++generation) {
    const std::string older = path + '.' + std::to_string(generation);
    if (!read_log(older, &text) && !read_log(older + ".gz", &text)) return found;
    if (scan_backwards(text, &found)) return found;
  }
}
