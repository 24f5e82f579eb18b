#pragma once

#include "core/log.h"
#include "core/options.h"

#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>

/// While it lives, every log line of this process goes to the console at level DEBUG and is collected.
class log_capture {
public:
  log_capture() : saved_{options} {
    options.log_level = level_debug;
    options.console_log = true;
    options.file_log = false;
    restart();
  }
  ~log_capture() {
    if (!ended_) testing::internal::GetCapturedStderr();
    options = saved_;
  }
  log_capture(const log_capture&) = delete;
  log_capture& operator=(const log_capture&) = delete;

  /// Ends the capture; everything that was written, lines as "source: line: tag: message".
  std::string text() {
    ended_ = true;
    return testing::internal::GetCapturedStderr();
  }

  /// Begins anew, whether the capture was ended or not; what was collected is dropped.
  void restart() {
    if (!ended_) testing::internal::GetCapturedStderr();
    testing::internal::CaptureStderr();
    ended_ = false;
  }

private:
  agent_options saved_;
  bool ended_ = true;
};

/// What a log_capture has collected so far, lines of other threads included.
inline std::string logged_so_far() {
  std::ifstream captured{"/proc/self/fd/2"};
  return {std::istreambuf_iterator<char>{captured}, {}};
}
