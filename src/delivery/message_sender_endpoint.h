#pragma once

#include <cstddef>
#include <cstdint>

// From the text of a handler's setting to one of its endpoints. Pure: nothing is opened or logged.
//   value    = endpoint *( "," endpoint )
//   endpoint = host ":" port  |  path of an executable file  |  path of a Unix stream socket

constexpr size_t endpoint_address_size = 257;  ///< 256 characters and the terminator
constexpr size_t endpoint_port_size = 8;       ///< 7 characters and the terminator

struct endpoint_text {
  char address[1024];             ///< host (cut to 256 characters) or path
  char port[endpoint_port_size];  ///< text behind the first colon, cut to 7 characters
  bool has_port;                  ///< the endpoint holds a colon
};

/// Number of endpoints in `value`: its commas plus one.
[[nodiscard]] int count_endpoints(const char* value);

/// The endpoint at `index` (from 0, below count_endpoints()).
[[nodiscard]] endpoint_text endpoint_at(const char* value, int index);
