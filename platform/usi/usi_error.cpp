#include "usi.h"

#include <cstring>

namespace {

struct code_text {
  int code;
  const char* text;
};

constexpr code_text texts[] = {
    {0, "Success"},
    {USI_BAD_ARGUMENT, "Missing argument"},
    {USI_BAD_KEY, "Invalid key (empty, or with '=', a leading '#', white space or a control character)"},
    {USI_VALUE_TOO_LONG, "Value too long for a settings file"},
    {USI_NOT_TEXT, "Not a text file (it holds a NUL byte)"},
    {USI_LINE_TOO_LONG, "Line too long in settings file"},
    {USI_FILE_TOO_BIG, "Settings file too big"},
    {USI_NOT_A_FILE, "Not a regular file"},
    {USI_LOCKED, "Settings file locked by another process"},
};

constexpr int largest_errno = 4095;  // the kernel's own bound

}  // namespace

const char* usiStrerror(int code) {
  for (const code_text& known : texts)
    if (known.code == code) return known.text;
  if (code > 0 || code < -largest_errno) return "Unknown settings error";
  const char* text = strerror(-code);
  return text ? text : "Unknown settings error";
}
