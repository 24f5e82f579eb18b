#include "functions/benchmarks.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <malloc.h>

namespace {

std::string folder;

}  // namespace

std::string bench_file(const std::string& name) {
  return folder + "/" + name;
}

void must(bool done, const char* what) {
  if (done) return;
  std::fprintf(stderr, "bench_functions: %s: %s\n", what, std::strerror(errno));
  std::exit(1);
}

void count_iterations(benchmark::State& state) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (argc != 2) {
    std::fprintf(stderr, "usage: bench_functions [--benchmark_...] FOLDER\n");
    return 2;
  }
  folder = argv[1];
  // Both sides keep the memory of a burst for the next one. When the C library gives it back to the kernel depends on
  // which block happens to lie last, and would hide the work.
  must(mallopt(M_TRIM_THRESHOLD, 1 << 30) == 1, "mallopt");
  benchmark::RunSpecifiedBenchmarks();
  return 0;
}
