#include "usi_faults.h"
#include "usi_fixture.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstring>
#include <new>
#include <random>
#include <set>
#include <sys/mman.h>

// Whatever fails or dies at whatever instant: the storage file holds the old content or the new one, whole.

namespace {

namespace fs = std::filesystem;
using calls = std::vector<std::string>;

constexpr char old_content[] = "# kept\nk=old\nother=1\n";
constexpr char new_content[] = "# kept\nk=new\nother=1\nadded=2\n";

class UsiCrash : public UsiStore {
protected:
  UsiCrash() { write_text_file(config, "sync=full\n"); }

  /// The old file, mode 0640, nothing cached, and two values staged. With `leftover`, a commit was killed
  /// before.
  void prepare(bool leftover) {
    fs::remove(folder / "settings.usi-new");
    fs::remove(storage);
    write_text_file(storage, old_content);
    ASSERT_EQ(chmod(storage.c_str(), 0640), 0);
    if (leftover) write_text_file(folder / "settings.usi-new", "k=to");
    restart();
    ASSERT_EQ(usiSet("k", "new"), 0);
    ASSERT_EQ(usiSet("added", "2"), 0);
  }

  /// Commits under the plan; the calls that were made.
  static calls commit_under(const fault_plan& plan, int* code) {
    faults_arm(plan);
    *code = usiCommit();
    return faults_disarm();
  }

  calls calls_of_a_commit(bool leftover) {
    prepare(leftover);
    int code = -1;
    calls made = commit_under({}, &code);
    EXPECT_EQ(code, 0);
    EXPECT_EQ(read_text_file(storage), new_content);
    return made;
  }

  void expect_old_or_new(const std::string& what) const {
    const std::string content = read_text_file(storage);
    EXPECT_TRUE(content == old_content || content == new_content) << what << ": '" << content << "'";
    EXPECT_EQ(mode_of(storage), 0640U) << what;
  }

  void expect_later_commit_succeeds(const std::string& what) const {
    EXPECT_EQ(usiCommit(), 0) << what;
    EXPECT_EQ(read_text_file(storage), new_content) << what;
    EXPECT_EQ(mode_of(storage), 0640U) << what;
    EXPECT_FALSE(temporary_file_is_left()) << what;
  }
};

calls without_allocations(calls made) {
  std::erase(made, "malloc");
  return made;
}

size_t position(const calls& made, const std::string& name, size_t from = 0) {
  const auto found = std::find(made.begin() + static_cast<std::ptrdiff_t>(from), made.end(), name);
  return static_cast<size_t>(found - made.begin());
}

TEST_F(UsiCrash, FileIsOnTheMediumBeforeItsNameAndTheNameBeforeTheEndOfTheCommit) {
  const calls made = calls_of_a_commit(false);
  const size_t written = position(made, "write");
  const size_t synced = position(made, "fsync", written);
  const size_t renamed = position(made, "renameat", synced);
  const size_t folder_synced = position(made, "fsync", renamed);
  EXPECT_LT(folder_synced, made.size()) << "write, fsync, rename, fsync";
  EXPECT_EQ(position(made, "write", synced), made.size()) << "nothing is written after the fsync";
  EXPECT_EQ(std::count(made.begin(), made.end(), "flock"), 2) << "given back, for a child may hold a copy";
}

TEST_F(UsiCrash, NoSyncMakesNoFsync) {
  write_text_file(config, no_sync);
  const calls made = calls_of_a_commit(false);
  EXPECT_EQ(position(made, "fsync"), made.size());
  EXPECT_LT(position(made, "renameat"), made.size());
}

TEST_F(UsiCrash, GetOfAnUnchangedFileCostsOneStat) {
  write_text_file(storage, old_content);
  EXPECT_EQ(value_of("k"), "old");
  faults_arm({});
  EXPECT_EQ(value_of("k"), "old");
  EXPECT_EQ(without_allocations(faults_disarm()), calls{"stat"});
  EXPECT_EQ(value_of("none"), std::nullopt);
  faults_arm({});
  EXPECT_EQ(value_of("none"), std::nullopt);
  EXPECT_EQ(without_allocations(faults_disarm()), (calls{"stat", "stat"})) << "storage file and profile";
  EXPECT_EQ(set_and_commit("k", "mine"), 0);
  faults_arm({});
  EXPECT_EQ(value_of("k"), "mine");
  EXPECT_EQ(without_allocations(faults_disarm()), calls{"stat"}) << "the own commit needs no reading";
}

TEST_F(UsiCrash, CommitOfWhatTheFileHoldsMakesItDurableOnce) {
  write_text_file(storage, old_content);
  EXPECT_EQ(usiSet("k", "old"), 0);
  int code = -1;
  const calls first = commit_under({}, &code);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(std::count(first.begin(), first.end(), "fsync"), 2);
  EXPECT_EQ(position(first, "write"), first.size());
  EXPECT_EQ(usiSet("k", "old"), 0);
  EXPECT_EQ(without_allocations(commit_under({}, &code)), calls{"stat"});
  EXPECT_EQ(code, 0);
  EXPECT_EQ(commit_under({}, &code), calls{}) << "nothing staged";
  EXPECT_EQ(set_and_commit("k", "mine"), 0);
  EXPECT_EQ(usiSet("k", "mine"), 0);
  EXPECT_EQ(without_allocations(commit_under({}, &code)), calls{"stat"}) << "the own commit was durable";
}

TEST_F(UsiCrash, ShortReadsAndWritesAreContinued) {
  prepare(false);
  int code = -1;
  const calls made = commit_under({fault_kind::short_io, 1}, &code);
  EXPECT_EQ(code, 0);
  EXPECT_GT(std::count(made.begin(), made.end(), "write"), 5);
  EXPECT_GT(std::count(made.begin(), made.end(), "read"), 5);
  EXPECT_EQ(read_text_file(storage), new_content);
}

TEST_F(UsiCrash, InterruptedCallsAreRepeated) {
  const std::set<std::string> repeated{"open", "openat", "read", "write", "fsync", "flock"};
  const calls whole = calls_of_a_commit(false);
  for (size_t at = 0; at < whole.size(); ++at) {
    if (!repeated.contains(whole[at]) || position(whole, whole[at], at + 1) == whole.size()) continue;
    prepare(false);
    int code = -1;
    commit_under({fault_kind::fail, static_cast<int>(at) + 1, EINTR}, &code);
    EXPECT_EQ(code, 0) << whole[at];
    EXPECT_EQ(read_text_file(storage), new_content) << whole[at];
  }
}

TEST_F(UsiCrash, FailureOfAnyCallLeavesOldOrNewAndTheValuesStaged) {
  int failures = 0;
  for (const bool leftover : {false, true}) {
    const int count = static_cast<int>(calls_of_a_commit(leftover).size());
    for (const int error : {EIO, ENOSPC, EINTR}) {
      for (int at = 1; at <= count; ++at) {
        prepare(leftover);
        int code = -1;
        const calls made = commit_under({fault_kind::fail, at, error}, &code);
        ASSERT_GE(static_cast<int>(made.size()), at);
        const std::string& name = made[static_cast<size_t>(at) - 1];
        const std::string what = name + ", call " + std::to_string(at) + " with " + strerror(error);
        expect_old_or_new(what);
        // The earlier commit's leftover may still be there; what this one wrote is not.
        EXPECT_TRUE(!temporary_file_is_left() || read_text_file(folder / "settings.usi-new") == "k=to")
            << what;
        EXPECT_EQ(value_of("k"), "new") << what;
        EXPECT_EQ(value_of("added"), "2") << what;
        EXPECT_TRUE(code < 0 || read_text_file(storage) == new_content) << what;
        if (code < 0) ++failures;
        expect_later_commit_succeeds(what);
      }
    }
  }
  EXPECT_GT(failures, 50);
}

TEST_F(UsiCrash, FailedFsyncOfTheFolderIsMadeGoodByTheNextCommit) {
  const calls whole = calls_of_a_commit(false);
  const size_t last_fsync = position(whole, "fsync", position(whole, "renameat"));
  prepare(false);
  int code = 0;
  commit_under({fault_kind::fail, static_cast<int>(last_fsync) + 1, EIO}, &code);
  EXPECT_EQ(code, -EIO);
  const calls next = commit_under({}, &code);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(std::count(next.begin(), next.end(), "fsync"), 2);
}

TEST_F(UsiCrash, KillAtAnyCallLeavesOldOrNewAndTheNextCommitCleansUp) {
  for (const bool leftover : {false, true}) {
    const int count = static_cast<int>(calls_of_a_commit(leftover).size());
    ASSERT_GT(count, 20);
    for (const fault_kind kind : {fault_kind::kill_before, fault_kind::kill_after}) {
      for (int at = 1; at <= count; ++at) {
        prepare(leftover);
        const int status = wait_for_child(start_child([&] {
          faults_arm({kind, at});
          return usiCommit();
        }));
        const std::string what =
            std::string{kind == fault_kind::kill_before ? "before" : "after"} + " call " + std::to_string(at);
        ASSERT_EQ(status, -1) << what << ": the call was not reached";
        expect_old_or_new(what);
        expect_later_commit_succeeds(what);
      }
    }
  }
}

TEST_F(UsiCrash, FailureOfAnyCallOfAGetIsTold) {
  write_text_file(storage, "a=1\n");
  write_text_file(profile, "k=v\n");
  faults_arm({});
  EXPECT_EQ(value_of("k"), "v");
  const int count = static_cast<int>(faults_disarm().size());
  EXPECT_GE(count, 18) << "three files, six calls each";
  for (const int error : {EIO, EACCES}) {
    for (int at = 1; at <= count; ++at) {
      restart();
      char* value = nullptr;
      faults_arm({fault_kind::fail, at, error});
      const int code = usiGet("k", &value, 10);
      const calls made = faults_disarm();
      const std::string what = made[static_cast<size_t>(at) - 1] + ": " + usiStrerror(code);
      EXPECT_TRUE(code == 0 || code == -error || code == -ENOMEM) << what;
      EXPECT_STREQ(value, code == 0 ? "v" : nullptr) << what;
      free(value);
      EXPECT_EQ(value_of("k"), "v") << what;
    }
  }
}

TEST_F(UsiCrash, FailedAllocationIsACodeNotACrash) {
  if (!faults_reach_allocations()) GTEST_SKIP() << "sanitizers bring their own allocator";
  faults_arm({fault_kind::fail, 1});
  EXPECT_EQ(usiSet("k", "v"), -ENOMEM);
  const size_t allocations = faults_disarm().size();
  EXPECT_EQ(allocations, 1U);
  for (int at = 2; at <= 3; ++at) {
    faults_arm({fault_kind::fail, at});
    EXPECT_EQ(usiSet("k", "v"), -ENOMEM);
    faults_disarm();
    EXPECT_EQ(value_of("k"), std::nullopt);
  }
  EXPECT_EQ(usiSet("k", "v"), 0);
}

/// What the writer and the test share.
struct shared_counts {
  std::atomic<int> committed;  ///< the newest generation whose commit returned
};

shared_counts* share_counts() {
  void* memory =
      mmap(nullptr, sizeof(shared_counts), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? nullptr : new (memory) shared_counts{};
}

constexpr int keys_of_a_generation = 40;

std::string content_of(int generation) {
  std::string content;
  for (int i = 0; i < keys_of_a_generation; ++i)
    content += "key" + std::to_string(i) + "=" + std::to_string(generation) + std::string(50, 'x') + "\n";
  return content;
}

/// The generation that a text begins with; -1 if it does not.
int generation_of(const std::string& text) {
  int generation = -1;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), generation);
  return result.ec == std::errc{} ? generation : -1;
}

/// The generation of a whole file.
int generation_in(const std::string& content) {
  return content.starts_with("key0=") ? generation_of(content.substr(strlen("key0="))) : -1;
}

/// Writes generation after generation, all keys in each commit, until it is killed.
int write_generations(shared_counts* counts) {
  for (int generation = counts->committed + 1;; ++generation) {
    const std::string value = std::to_string(generation) + std::string(50, 'x');
    for (int i = 0; i < keys_of_a_generation; ++i)
      if (usiSet(("key" + std::to_string(i)).c_str(), value.c_str()) != 0) return 1;
    if (usiCommit() != 0) return 1;
    counts->committed = generation;
  }
}

TEST_F(UsiCrash, WriterKilledAtRandomInstantsLeavesWholeGenerations) {
  constexpr int kills = 220;
  shared_counts* counts = share_counts();
  ASSERT_NE(counts, nullptr);
  write_text_file(storage, content_of(0));
  std::mt19937 random{20240101};
  std::uniform_int_distribution<int> microseconds{0, 12000};
  for (int round = 0; round < kills; ++round) {
    write_text_file(config,
                    round % 2 ? no_sync
                              : "sync=full\n");  // the one dies while writing, the other mostly in fsync
    restart();
    const pid_t writer = start_child([=] { return write_generations(counts); });
    const auto until = std::chrono::steady_clock::now() + std::chrono::microseconds{microseconds(random)};
    do {
      const int earliest = counts->committed;
      const int seen = generation_of(value_of("key7").value_or(""));
      ASSERT_GE(seen, earliest) << "a finished commit is seen";
      const std::string content = read_text_file(storage);
      ASSERT_EQ(content, content_of(generation_in(content))) << "whole";
    } while (std::chrono::steady_clock::now() < until);
    kill(writer, SIGKILL);
    ASSERT_EQ(wait_for_child(writer), -1) << "the writer failed by itself";
    const std::string content = read_text_file(storage);
    const int left = generation_in(content);
    ASSERT_EQ(content, content_of(left));
    ASSERT_TRUE(left == counts->committed || left == counts->committed + 1)
        << left << " " << counts->committed;
    counts->committed = left;
  }
  EXPECT_GT(counts->committed, kills / 4) << "the writers got something done";
  munmap(counts, sizeof *counts);
  EXPECT_EQ(set_and_commit("last", "1"), 0);
  EXPECT_FALSE(temporary_file_is_left());
}

TEST_F(UsiCrash, TwoProcessesWithAThousandCommitsEachLoseNone) {
  constexpr int commits = 1000;
  write_text_file(config, no_sync);
  const auto write_all = [](const char* prefix) {
    for (int i = 0; i < commits; ++i)
      if (set_and_commit(prefix + std::to_string(i), std::to_string(i)) != 0) return 1;
    return 0;
  };
  const pid_t first = start_child([&] { return write_all("first"); });
  const pid_t second = start_child([&] { return write_all("second"); });
  EXPECT_EQ(wait_for_child(first), 0);
  EXPECT_EQ(wait_for_child(second), 0);
  for (int i = 0; i < commits; ++i) {
    ASSERT_EQ(value_of("first" + std::to_string(i)), std::to_string(i));
    ASSERT_EQ(value_of("second" + std::to_string(i)), std::to_string(i));
  }
}

}  // namespace
