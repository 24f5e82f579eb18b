// Reading a setting while the file stays as it is, and the commit of one changed setting.

#include "floor/floor.h"
#include "functions/benchmarks.h"
#include "usi.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sys/stat.h>
#include <vector>

namespace {

constexpr int commits = 300;

std::string key_of(int64_t number) {
  return "q_handler_service_" + std::to_string(number);
}

// A storage file with `count` settings like those of handlers.
std::string write_settings(int64_t count) {
  const std::string file = bench_file("settings");
  std::ofstream out{file, std::ios::trunc};
  for (int64_t i = 0; i < count; ++i) {
    out << key_of(i) << "=127.0.0.1:" << 20000 + i << "\n";
  }
  must(static_cast<bool>(out.flush()), "settings");
  return file;
}

void choose_settings(const std::string& file) {
  usiSetConfigFile(bench_file("absent.conf").c_str());
  usiSetProfile(bench_file("absent.profile").c_str());
  usiSetStorageFile(file.c_str());
}

void read_of_library(benchmark::State& state) {
  choose_settings(write_settings(state.range(0)));
  std::vector<std::string> keys;
  for (int64_t i = 0; i < state.range(0); ++i) {
    keys.push_back(key_of(i));
  }
  size_t next = 0;
  for (auto _ : state) {
    char* value = nullptr;
    must(usiGet(keys[next].c_str(), &value, 128) == 0 && value != nullptr, "usiGet");
    std::free(value);
    if (++next == keys.size()) next = 0;
  }
  count_iterations(state);
}

// No reader can know without it that the file is still the same.
void read_of_floor(benchmark::State& state) {
  const std::string file = write_settings(state.range(0));
  for (auto _ : state) {
    struct stat status;
    must(stat(file.c_str(), &status) == 0, "stat");
    benchmark::DoNotOptimize(status);
  }
  count_iterations(state);
}

// Times `commit` each time that it is called. A disk has moods: the median of the single commits says what one costs.
template <typename Commit> void time_commits(benchmark::State& state, Commit commit) {
  std::vector<double> times;
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    commit();
    times.push_back(std::chrono::duration<double>{std::chrono::steady_clock::now() - begin}.count());
  }
  std::nth_element(times.begin(), times.begin() + static_cast<ptrdiff_t>(times.size() / 2), times.end());
  state.counters["items_per_second"] = 1 / times[times.size() / 2];
}

void commit_of_library(benchmark::State& state) {
  choose_settings(write_settings(200));
  const std::string key = key_of(100);
  int turn = 0;
  time_commits(state, [&] {
    const char* value = ++turn % 2 != 0 ? "127.0.0.1:30001" : "127.0.0.1:30002";
    must(usiSet(key.c_str(), value) == 0 && usiCommit() == 0, "usiCommit");
  });
}

void commit_of_floor(benchmark::State& state) {
  const std::string file = write_settings(200);
  const std::string folder = bench_file("");
  const std::string temporary = file + ".new";
  const std::string lock = file + ".lock";
  const floor_commit_paths paths{folder.c_str(), file.c_str(), temporary.c_str(), lock.c_str()};
  std::ifstream in{file};
  const std::string bytes{std::istreambuf_iterator<char>{in}, {}};
  time_commits(state, [&] { must(floor_commit(&paths, bytes.data(), bytes.size()) == 0, "commit"); });
}

void numbers_of_settings(benchmark::internal::Benchmark* each) {
  for (const int64_t count : {10, 20, 50, 100, 200, 500, 1000, 2000}) {
    each->Arg(count);
  }
}

BENCHMARK(read_of_library)->Name("setting/agent")->Apply(numbers_of_settings);
BENCHMARK(read_of_floor)->Name("setting/floor")->Apply(numbers_of_settings);
BENCHMARK(commit_of_library)->Name("commit/agent")->Iterations(commits);
BENCHMARK(commit_of_floor)->Name("commit/floor")->Iterations(commits);

}  // namespace
