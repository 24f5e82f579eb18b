#pragma once

#include <cstddef>
#include <curl/curl.h>
#include <string>
#include <vector>

/// Stands between the test program and libcurl while it lives: it notes every option that is set on a request's
/// handle and on the share, and makes calls fail on demand. One at a time. Without a probe calls just go through.
class curl_probe {
public:
  curl_probe();
  ~curl_probe();
  curl_probe(const curl_probe&) = delete;
  curl_probe& operator=(const curl_probe&) = delete;

  /// The options set so far, in order, as "NAME=value" (numbers, strings, header lists) or "NAME" (the rest).
  [[nodiscard]] std::vector<std::string> options() const;

  void fail_easy_init();
  void refuse_option(CURLoption option);
  /// No transfer takes place: each gives this result.
  void answer_transfers(CURLcode result);

  void fail_share_init();
  /// Refuses the share's option number `position`, counted from 1.
  void refuse_share_option(int position);
  void fail_share_cleanup();
  [[nodiscard]] curl_lock_function lock_callback() const;
  [[nodiscard]] curl_unlock_function unlock_callback() const;

  /// realloc() fails for `size` bytes and more. Not under the thread sanitizer: it calls realloc() for threads that
  /// it doesn't know yet.
  void fail_realloc_from(size_t size);
};
