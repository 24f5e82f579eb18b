#include "cloud/logic_error_headers.h"

#include "cloud/http_helper.h"
#include "core/log.h"
#include "core/numbers.h"

#include <algorithm>
#include <string_view>

namespace {

constexpr char log_source[] = "logic";

constexpr size_t line_size = 256;
constexpr int wrong_sn = 1062;            // the cloud's code for a serial number that it does not know
constexpr size_t error_code_offset = 14;  // the name, its colon and one blank

struct header_line {
  char text[line_size];
  bool found;
};

// The first line that begins at `name`, without its carriage return; a line without one is none.
header_line find_header(std::string_view headers, std::string_view name) {
  header_line line{};
  const size_t begin = headers.find(name);
  if (begin == std::string_view::npos) return line;
  const size_t end = headers.find('\r', begin);
  if (end == std::string_view::npos) return line;
  headers.substr(begin, std::min(end - begin, line_size - 1)).copy(line.text, line_size - 1);
  line.found = true;
  return line;
}

bool says_wrong_serial(const header_line& line) {
  if (std::string_view{line.text}.size() < error_code_offset) return false;
  return text_to_int32(line.text + error_code_offset, nullptr, 0) == wrong_sn;
}

}  // namespace

int read_error_headers(const HttpBuffer* headers) {
  std::string_view text{headers->text, headers->length};
  // The last byte never counts. An empty text has none.
  if (!text.empty()) text.remove_suffix(1);

  int result = -1;
  const header_line code = find_header(text, "X-Error-Code");
  if (code.found) {
    log_error("Found error header: %s.\n", code.text);
    if (says_wrong_serial(code)) {
      log_error("Found wrong_sn error code.\n");
      result = register_wrong_serial;
    }
  }
  const header_line message = find_header(text, "X-Error-Message");
  if (message.found) log_error("Found error header: %s.\n", message.text);
  return result;
}
