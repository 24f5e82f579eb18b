// Numbers and keepalive triples from text.

#include "core/numbers.h"
#include "naive_numbers.h"
#include "story.h"

#include <cerrno>

namespace {

void check_number(const std::string& text, int base) {
  const naive_number expected = read_number(text, base);
  errno = 0;
  char* end = nullptr;
  CHECK(text_to_int32(text.c_str(), &end, base) == expected.value);
  CHECK(errno == (expected.out_of_range ? ERANGE : 0));
  CHECK(static_cast<size_t>(end - text.c_str()) == expected.length);
  CHECK(text_to_int32(text.c_str(), nullptr, base) == expected.value);
}

void check_uint(const std::string& text) {
  const naive_number expected = read_number(text, 10);
  uint32_t value = 4711;
  errno = EINVAL;  // of an earlier call
  CHECK(parse_uint(text.c_str(), &value) == (expected.value < 0 ? -1 : 0));
  CHECK(value == (expected.value < 0 ? 4711U : static_cast<uint32_t>(expected.value)));
}

void check_triple(const std::string& text) {
  const naive_triple expected = read_triple(text);
  uint32_t values[3] = {11, 12, 13};
  errno = ERANGE;  // of an earlier call
  CHECK(parse_keepalive(text.c_str(), &values[0], &values[1], &values[2]) == (expected.complete ? 0 : -1));
  for (size_t i = 0; i < 3; ++i) {
    CHECK(values[i] == (expected.complete ? expected.values[i] : 11U + i));
  }
  check_same(take_story(), expected.warnings);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  begin_run();
  const std::string text{reinterpret_cast<const char*>(data), size};
  for (const int base : {0, 8, 10, 16}) {
    check_number(text, base);
  }
  check_uint(text);
  check_triple(text);
  return 0;
}
