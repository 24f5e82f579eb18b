#pragma once

#include <curl/curl.h>

// The share through which all requests use the same DNS and TLS session caches.

/// Makes the share of DNS and TLS session caches. Once, after curl_global_init(). 0, or -1 (logged).
int init_shared_curl();

/// Releases the share, then libcurl's global state. At the very end, when no thread makes a request.
void clean_shared_curl();

/// The share that each request's handle is attached to: null before init_shared_curl() and after
/// clean_shared_curl(). It belongs to the module. Any thread.
[[nodiscard]] CURLSH* shared_curl();
