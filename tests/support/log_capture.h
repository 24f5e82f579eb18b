#pragma once

#include "core/log.h"
#include "core/options.h"

#include <gtest/gtest.h>
#include <string>

/// While it lives, every log line of this process goes to the console at level DEBUG and is collected.
class log_capture {
public:
  log_capture() : saved_{options} {
    options.log_level = level_debug;
    options.console_log = true;
    options.file_log = false;
    testing::internal::CaptureStderr();
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

private:
  agent_options saved_;
  bool ended_ = false;
};
