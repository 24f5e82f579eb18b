#pragma once

#include <benchmark/benchmark.h>
#include <string>

// What the files of this program share. Benchmarks are named WORK/agent and WORK/floor, and each says with
// SetItemsProcessed() how many pieces of work it did: the rows read the rate.

/// A path in the folder for files, which is empty at the start and is thrown away.
std::string bench_file(const std::string& name);

/// Ends the program when the ground for a measurement can't be laid.
void must(bool done, const char* what);

/// Counts one piece of work for each iteration.
void count_iterations(benchmark::State& state);
