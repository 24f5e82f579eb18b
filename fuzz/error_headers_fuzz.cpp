// What a refusing server says in its headers.

#include "cloud/http_helper.h"
#include "cloud/logic.h"
#include "cloud/logic_error_headers.h"
#include "naive_numbers.h"
#include "story.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t longest_line = 255;

// The line that begins at `name`; false when it is not there or has no end.
bool find_line(const std::string& headers, const char* name, std::string* line) {
  const size_t begin = headers.find(name);
  if (begin == std::string::npos || headers.find('\r', begin) == std::string::npos) return false;
  line->clear();
  for (size_t at = begin; headers[at] != '\r' && headers[at] != '\0' && line->size() < longest_line; ++at) {
    *line += headers[at];
  }
  return true;
}

int read_naively(std::string headers, std::string* story) {
  if (!headers.empty()) headers.pop_back();  // the last byte never counts
  int result = -1;
  std::string line;
  if (find_line(headers, "X-Error-Code", &line)) {
    *story += "E:Found error header: " + line + ".\n";
    if (line.size() >= 14 && read_number(line.substr(14), 0).value == 1062) {
      *story += "E:Found wrong_sn error code.\n";
      result = register_wrong_serial;
    }
  }
  if (find_line(headers, "X-Error-Message", &line)) *story += "E:Found error header: " + line + ".\n";
  return result;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  const std::string text{reinterpret_cast<const char*>(data), size};
  // As the HTTP client leaves it: a block of just this size, terminated.
  auto* block = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(block, text.c_str(), size + 1);
  HttpBuffer headers{block, size};
  const int result = read_error_headers(&headers);
  CHECK(std::memcmp(block, text.c_str(), size + 1) == 0);
  std::free(block);

  std::string expected;
  CHECK(result == read_naively(text, &expected));
  check_same(take_story(), expected);
  return 0;
}
