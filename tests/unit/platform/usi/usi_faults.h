#pragma once

#include <string>
#include <vector>

// Stands between the settings library and the system: this program defines the system-call functions that the
// library calls, passes them on, and at a chosen call fails or kills the process instead.

enum class fault_kind {
  none,         ///< only record
  fail,         ///< the call is not made and fails with `error` (close() is made all the same)
  kill_before,  ///< the process is killed instead of making the call
  kill_after,   ///< the process is killed when the call has been made
  short_io,     ///< from the `at`-th call on, read() and write() move at most 3 bytes
};

struct fault_plan {
  fault_kind kind = fault_kind::none;
  int at = 1;  ///< which call, counted from 1
  int error = 0;
};

/// Starts counting calls of the calling thread, and carries out the plan.
void faults_arm(const fault_plan& plan);

/// Stops it, and returns the names of the calls made since, in order ("openat", "write"...).
std::vector<std::string> faults_disarm();

/// Whether allocations take part ("malloc"): not under a sanitizer, which brings its own.
bool faults_reach_allocations();
