#pragma once

#include "core/log.h"
#include "core/options.h"
#include "forked.h"

/// As run_in_child(), and the child writes every log line to its console.
template <typename Body> child_outcome run_logging_child(Body body) {
  return run_in_child([&] {
    options.log_level = level_debug;
    options.console_log = true;
    options.file_log = false;
    return body();
  });
}
