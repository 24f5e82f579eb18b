// A log line to the file, and a log call that writes nothing.

#include "core/log.h"
#include "floor/floor.h"
#include "functions/benchmarks.h"

#include <fstream>
#include <iterator>
#include <unistd.h>

namespace {

constexpr char log_source[] = "bench";

constexpr int lines = 100'000;

// An empty log that is never rotated, and nothing on the console.
std::string prepare_log() {
  static const std::string file = bench_file("log");
  unlink(file.c_str());
  options.log_file = file.c_str();
  options.log_level = level_debug;
  options.log_rotation_size = UINT32_MAX;
  options.console_log = false;
  return file;
}

void write_line(int available) {
  log_debug("Available threads: %d, waiting threads: %d.\n", available, 0);
}

void log_line_of_agent(benchmark::State& state) {
  prepare_log();
  for (auto _ : state) {
    write_line(1);
  }
  count_iterations(state);
}

void log_line_of_floor(benchmark::State& state) {
  const std::string file = prepare_log();
  write_line(1);
  std::ifstream log{file};
  const std::string line{std::istreambuf_iterator<char>{log}, {}};
  for (auto _ : state) {
    must(floor_log_line(file.c_str(), line.data(), line.size()) == 0, "log line");
  }
  count_iterations(state);
}

void filtered_call_of_agent(benchmark::State& state) {
  options.log_level = level_silent;
  for (auto _ : state) {
    log_error("never written\n");
    benchmark::ClobberMemory();
  }
  count_iterations(state);
}

int threshold = level_silent;

// One integer from memory compared with a constant, and a call that is passed by.
void filtered_call_of_floor(benchmark::State& state) {
  benchmark::DoNotOptimize(threshold);
  for (auto _ : state) {
    if (threshold <= level_error) write_line(1);
    benchmark::ClobberMemory();
  }
  count_iterations(state);
}

BENCHMARK(log_line_of_agent)->Name("log_line/agent")->Iterations(lines);
BENCHMARK(log_line_of_floor)->Name("log_line/floor")->Iterations(lines);
BENCHMARK(filtered_call_of_agent)->Name("filtered_call/agent");
BENCHMARK(filtered_call_of_floor)->Name("filtered_call/floor");

}  // namespace
