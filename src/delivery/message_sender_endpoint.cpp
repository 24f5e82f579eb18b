#include "delivery/message_sender_endpoint.h"

#include <algorithm>
#include <string_view>

namespace {

void copy_cut(char* dst, size_t size, std::string_view text) {
  dst[text.copy(dst, size - 1)] = '\0';
}

std::string_view nth_part(std::string_view value, int index) {
  for (; index > 0; --index) {
    value.remove_prefix(value.find(',') + 1);
  }
  return value.substr(0, value.find(','));
}

}  // namespace

int count_endpoints(const char* value) {
  const std::string_view text{value};
  return static_cast<int>(std::count(text.begin(), text.end(), ',')) + 1;
}

endpoint_text endpoint_at(const char* value, int index) {
  std::string_view text = nth_part(value, index);
  const size_t colon = text.find(':');
  endpoint_text endpoint{};
  endpoint.has_port = colon != std::string_view::npos;
  if (endpoint.has_port) {
    copy_cut(endpoint.address, endpoint_address_size, text.substr(0, colon));
    text.remove_prefix(colon + 1);
    copy_cut(endpoint.port, sizeof endpoint.port, text);
  } else {
    copy_cut(endpoint.address, sizeof endpoint.address, text);
  }
  return endpoint;
}
