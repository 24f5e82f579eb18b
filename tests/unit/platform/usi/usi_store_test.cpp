#include "usi_fixture.h"

#include "descriptors.h"
#include "process_limits.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <grp.h>
#include <sched.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;

TEST_F(UsiStore, MissingFilesReadAsEmpty) {
  fs::remove(config);
  EXPECT_EQ(value_of("k"), std::nullopt);
}

TEST_F(UsiStore, CommittedValueIsInTheFileAndSeenByANewProcess) {
  EXPECT_EQ(set_and_commit("k", "v"), 0);
  EXPECT_EQ(read_text_file(storage), "k=v\n");
  restart();
  EXPECT_EQ(value_of("k"), "v");
}

TEST_F(UsiStore, StagedValueIsSeenBeforeTheCommitAndOnlyHere) {
  write_text_file(storage, "k=old\n");
  EXPECT_EQ(usiSet("k", "first"), 0);
  EXPECT_EQ(usiSet("k", "new\nline"), 0);
  EXPECT_EQ(value_of("k"), "new\nline");
  EXPECT_EQ(value_of("k", 3), "new");
  EXPECT_EQ(read_text_file(storage), "k=old\n");
}

TEST_F(UsiStore, ManyStagedValuesAreCommittedTogether) {
  for (int i = 0; i < 2000; ++i)
    ASSERT_EQ(usiSet(("key" + std::to_string(i)).c_str(), std::to_string(i).c_str()), 0);
  ASSERT_EQ(usiCommit(), 0);
  restart();
  for (int i = 0; i < 2000; ++i)
    ASSERT_EQ(value_of("key" + std::to_string(i)), std::to_string(i));
}

TEST_F(UsiStore, ValueIsCutToSizeCharacters) {
  write_text_file(storage, "k=abc\n");
  EXPECT_EQ(value_of("k", 0), "");
  EXPECT_EQ(value_of("k", 2), "ab");
  EXPECT_EQ(value_of("k", 3), "abc");
  EXPECT_EQ(value_of("k", UINT_MAX), "abc");
}

TEST_F(UsiStore, ProfileIsConsultedForKeysThatTheStorageFileLacks) {
  write_text_file(storage, "both=stored\n");
  write_text_file(profile, "both=default\nonly=default\n");
  EXPECT_EQ(value_of("both"), "stored");
  EXPECT_EQ(value_of("only"), "default");
  EXPECT_EQ(value_of("none"), std::nullopt);
  EXPECT_EQ(set_and_commit("only", "stored"), 0);
  EXPECT_EQ(value_of("only"), "stored");
  EXPECT_EQ(read_text_file(profile), "both=default\nonly=default\n");
}

TEST_F(UsiStore, UnsetKeyShowsTheProfileAgainOrNothing) {
  write_text_file(storage, "a=1\nb=2\n");
  write_text_file(profile, "b=default\n");
  EXPECT_EQ(usi_unset("a"), 0);
  EXPECT_EQ(usi_unset("b"), 0);
  EXPECT_EQ(usi_unset("none"), 1);
  EXPECT_EQ(usi_unset("a"), 1);
  EXPECT_EQ(value_of("a"), std::nullopt);
  EXPECT_EQ(value_of("b"), "default");
  EXPECT_EQ(usiCommit(), 0);
  EXPECT_EQ(read_text_file(storage), "");
  EXPECT_EQ(usi_unset("b"), 1) << "the profile's keys are not removed";
}

TEST_F(UsiStore, EachShowsStorageThenWhatOnlyTheProfileHolds) {
  write_text_file(storage, "b=1\na=x\\ny\nb=2\n");
  write_text_file(profile, "b=default\nz=3\n");
  std::string shown;
  const auto show = [](void* context, const char* key, size_t key_size, const char* value,
                       size_t value_size) {
    *static_cast<std::string*>(context) +=
        std::string{key, key_size} + "=" + std::string{value, value_size} + ";";
  };
  EXPECT_EQ(usi_each(show, &shown), 0);
  EXPECT_EQ(shown, "a=x\\ny;b=2;z=3;");
}

TEST_F(UsiStore, ConfigFileChoosesTheFilesUnlessACallDid) {
  const fs::path other = folder / "other";
  write_text_file(other, "k=other\n");
  write_text_file(storage, "k=settings\n");
  write_text_file(profile, "p=mine\n");
  write_text_file(config, "storage=" + other.string() + "\nprofile=" + profile.string() + "\n");
  usi_reset();
  usiSetConfigFile(config.c_str());
  EXPECT_EQ(value_of("k"), "other");
  EXPECT_EQ(value_of("p"), "mine");
  EXPECT_STREQ(usiGetCurrentProfile(), profile.c_str());
  usiSetStorageFile(storage.c_str());
  usiSetProfile(other.c_str());
  EXPECT_EQ(value_of("k"), "settings");
  EXPECT_EQ(value_of("p"), std::nullopt);
  EXPECT_STREQ(usiGetCurrentProfile(), other.c_str());
  EXPECT_STREQ(usiGetCurrentConfig(), config.c_str());
}

TEST_F(UsiStore, PathsInForceAreKnownBeforeTheFirstAccess) {
  usi_reset();
  EXPECT_STREQ(usiGetCurrentConfig(), "/etc/orvel/usi.conf");
  usiSetConfigFile(config.c_str());
  EXPECT_STREQ(usiGetCurrentProfile(), "/etc/orvel/profile");
  write_text_file(config, "profile=/somewhere/else\n");
  usiSetConfigFile(config.c_str());
  EXPECT_STREQ(usiGetCurrentProfile(), "/somewhere/else");
  usiSetConfigFile(folder.c_str());
  EXPECT_STREQ(usiGetCurrentProfile(), "/etc/orvel/profile") << "an unreadable config file chooses nothing";
  usiSetProfile("");
  usiSetConfigFile(nullptr);
  EXPECT_STREQ(usiGetCurrentConfig(), "/etc/orvel/usi.conf");
}

TEST_F(UsiStore, UnreadableConfigFileFailsReadsAndCommitsUntilItIsMended) {
  write_text_file(config, std::string{"a\0", 2});
  EXPECT_EQ(get_code("k"), USI_NOT_TEXT);
  EXPECT_EQ(set_and_commit("k", "v"), USI_NOT_TEXT);
  EXPECT_EQ(value_of("k"), "v") << "still staged";
  write_text_file(config, no_sync);
  EXPECT_EQ(usiCommit(), 0);
  EXPECT_EQ(read_text_file(storage), "k=v\n");
}

TEST_F(UsiStore, PathThatIsTooLongIsAnErrorAndNamesNoOtherFile) {
  usiSetStorageFile((folder.string() + "/" + std::string(PATH_MAX, 'x')).c_str());
  EXPECT_EQ(get_code("k"), -ENAMETOOLONG);
  EXPECT_EQ(set_and_commit("k", "v"), -ENAMETOOLONG);
}

TEST_F(UsiStore, NullAndBadArgumentsAreRefused) {
  char* value = nullptr;
  EXPECT_EQ(usiGet(nullptr, &value, 1), USI_BAD_ARGUMENT);
  EXPECT_EQ(usiGet("k", nullptr, 1), USI_BAD_ARGUMENT);
  EXPECT_EQ(usiSet(nullptr, "v"), USI_BAD_ARGUMENT);
  EXPECT_EQ(usiSet("k", nullptr), USI_BAD_ARGUMENT);
  for (const char* key : {"", "a=b", "#a", "a b", "a\n"}) {
    EXPECT_EQ(usiSet(key, "v"), USI_BAD_KEY) << key;
    EXPECT_EQ(value_of(key), std::nullopt) << key;
  }
  EXPECT_EQ(usiCommit(), 0);
  EXPECT_FALSE(fs::exists(storage));
}

TEST_F(UsiStore, ValueThatFitsNoLineIsRefusedAndTheEarlierOneStays) {
  const std::string longest(USI_MAX_LINE - 2, 'v');
  EXPECT_EQ(usiSet("k", longest.c_str()), 0);
  EXPECT_EQ(usiSet("k", (longest + "v").c_str()), USI_VALUE_TOO_LONG);
  EXPECT_EQ(usiSet("k", std::string(USI_MAX_LINE / 2, '\n').c_str()), USI_VALUE_TOO_LONG) << "escapes count";
  EXPECT_EQ(usiCommit(), 0);
  restart();
  EXPECT_EQ(value_of("k"), longest);
}

TEST_F(UsiStore, EveryCodeHasAText) {
  EXPECT_STREQ(usiStrerror(0), "Success");
  EXPECT_STREQ(usiStrerror(-ENOSPC), "No space left on device");
  EXPECT_STREQ(usiStrerror(-EACCES), "Permission denied");
  for (int code = USI_BAD_ARGUMENT; code >= USI_LOCKED; --code)
    EXPECT_STRNE(usiStrerror(code), "Unknown settings error") << code;
  for (const int code : {1, INT_MAX, INT_MIN, -5000})
    EXPECT_STREQ(usiStrerror(code), "Unknown settings error") << code;
}

TEST_F(UsiStore, CommitOfAnotherProcessIsSeenOnTheNextGet) {
  write_text_file(storage, "k=0\n");
  EXPECT_EQ(value_of("k"), "0");
  // One digit, no pause: neither the size nor the clock may be needed to tell the versions apart.
  for (int i = 1; i < 60; ++i) {
    const std::string value(1, static_cast<char>('0' + i % 10));
    ASSERT_EQ(run_in_child([&] { return set_and_commit("k", value) == 0 ? 0 : 1; }).status, 0);
    ASSERT_EQ(value_of("k"), value);
  }
}

ino_t inode_of(const fs::path& path) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 ? status.st_ino : 0;
}

TEST_F(UsiStore, VersionReadLastIsToldApartFromAllLaterOnesByItsInodeNumber) {
  write_text_file(storage, "k=x\n");
  for (const bool own :
       {false, true}) {  // a version that was read, and one that was written by an own commit
    EXPECT_EQ(own ? set_and_commit("k", "own") : 0, 0);
    EXPECT_EQ(value_of("k"), own ? "own" : "x");
    const ino_t remembered = inode_of(storage);
    for (int i = 0; i < 20; ++i) {
      const std::string value = std::to_string(i);
      ASSERT_EQ(run_in_child([&] { return set_and_commit("k", value) == 0 ? 0 : 1; }).status, 0);
      ASSERT_NE(inode_of(storage), remembered) << "file systems give a free number to the next file";
    }
    EXPECT_EQ(value_of("k"), "19");
  }
}

TEST_F(UsiStore, CommitMergesIntoWhatOthersWrote) {
  write_text_file(storage, "mine=1\ntheirs=1\n");
  EXPECT_EQ(value_of("theirs"), "1");
  EXPECT_EQ(usiSet("mine", "2"), 0);
  ASSERT_EQ(run_in_child([] { return set_and_commit("theirs", "2") == 0 ? 0 : 1; }).status, 0);
  EXPECT_EQ(usiCommit(), 0);
  EXPECT_EQ(read_text_file(storage), "mine=2\ntheirs=2\n");
}

TEST_F(UsiStore, CommitThatChangesNothingWritesNothing) {
  write_text_file(storage, "k=v");
  struct stat before {};
  stat(storage.c_str(), &before);
  EXPECT_EQ(usiCommit(), 0);
  EXPECT_EQ(set_and_commit("k", "v"), 0);
  struct stat after {};
  stat(storage.c_str(), &after);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(read_text_file(storage), "k=v");
  EXPECT_FALSE(fs::exists(folder / "settings.lock"));
}

TEST_F(UsiStore, NewStorageFileIsPrivateWhateverTheUmask) {
  for (const mode_t mask : {0U, 0022U, 0777U}) {
    fs::remove(storage);
    const mode_t before = umask(mask);
    EXPECT_EQ(set_and_commit("k", std::to_string(mask)), 0);
    umask(before);
    EXPECT_EQ(mode_of(storage), 0600U);
  }
}

TEST_F(UsiStore, ExistingFileKeepsModeAndOwner) {
  write_text_file(storage, "k=1\n");
  const bool is_root = geteuid() == 0;  // only root can give a file away
  const uid_t user = is_root ? 12345 : geteuid();
  const gid_t group = is_root ? 23456 : getegid();
  ASSERT_EQ(chown(storage.c_str(), user, group), 0);
  ASSERT_EQ(chmod(storage.c_str(), 0640), 0);
  EXPECT_EQ(set_and_commit("k", "2"), 0);
  EXPECT_EQ(mode_of(storage), 0640U);
  struct stat status {};
  stat(storage.c_str(), &status);
  EXPECT_EQ(status.st_uid, user);
  EXPECT_EQ(status.st_gid, group);
}

TEST_F(UsiStore, FileOfAnotherOwnerIsNotTakenOver) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to make a file of another owner";
  write_text_file(storage, "k=1\n");
  ASSERT_EQ(chmod(storage.c_str(), 0666), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0777), 0);
  EXPECT_EQ(run_in_child([] {
              drop_privileges();
              return -set_and_commit("k", "2");
            }).status,
            EPERM);
  EXPECT_EQ(read_text_file(storage), "k=1\n");
  EXPECT_FALSE(temporary_file_is_left());
}

TEST_F(UsiStore, SymbolicLinkStaysAndItsTargetIsReplaced) {
  const struct {
    const char* what;
    const char* first;   // target of the storage path
    const char* second;  // target of "middle", if any
  } cases[] = {
      {"relative", "real/target", nullptr},
      {"absolute", nullptr, nullptr},
      {"chain", "real/middle", "target"},
      {"chain upwards", "real/middle", "../real/target"},
  };
  fs::create_directory(folder / "real");
  for (const auto& one : cases) {
    for (const bool exists : {true, false}) {
      const fs::path target = folder / "real/target";
      fs::remove(target);
      fs::remove(storage);
      fs::remove(folder / "real/middle");
      if (exists) write_text_file(target, "k=1\n");
      fs::create_symlink(one.first ? fs::path{one.first} : target, storage);
      if (one.second) fs::create_symlink(one.second, folder / "real/middle");
      restart();
      ASSERT_EQ(set_and_commit("k", "2"), 0) << one.what;
      EXPECT_TRUE(fs::is_symlink(storage)) << one.what;
      EXPECT_EQ(read_text_file(target), "k=2\n") << one.what;
      EXPECT_TRUE(fs::exists(folder / "real/target.lock")) << one.what;
      EXPECT_EQ(value_of("k"), "2") << one.what;
    }
  }
}

TEST_F(UsiStore, LinkedFolderAndRelativePathWork) {
  fs::create_directory(folder / "real");
  fs::create_directory_symlink("real", folder / "linked");
  usiSetStorageFile((folder / "linked/settings").c_str());
  EXPECT_EQ(set_and_commit("k", "v"), 0);
  EXPECT_EQ(read_text_file(folder / "real/settings"), "k=v\n");
  EXPECT_EQ(run_in_child([this] {
              if (chdir(folder.c_str()) != 0) return 1;
              usiSetStorageFile("plain");
              return set_and_commit("k", "v") == 0 ? 0 : 2;
            }).status,
            0);
  EXPECT_EQ(read_text_file(folder / "plain"), "k=v\n");
}

TEST_F(UsiStore, EndlessLinksAreAnError) {
  fs::create_symlink("settings", storage);
  EXPECT_EQ(get_code("k"), -ELOOP);
  EXPECT_EQ(set_and_commit("k", "v"), -ELOOP);
}

TEST_F(UsiStore, WhatIsNoSettingsFileIsRefusedAndLeftAlone) {
  const struct {
    const char* what;
    std::string content;
    int code;
  } cases[] = {
      {"binary", std::string{"k=1\n\0\1\2", 7}, USI_NOT_TEXT},
      {"zeros", std::string(4096, '\0'), USI_NOT_TEXT},
      {"line of 1 MiB", "k=1\nlong=" + std::string(1U << 20U, 'x') + "\n", USI_LINE_TOO_LONG},
      {"too big", std::string(USI_MAX_FILE + 1, '\n'), USI_FILE_TOO_BIG},
  };
  for (const auto& one : cases) {
    write_text_file(storage, one.content);
    restart();
    EXPECT_EQ(get_code("k"), one.code) << one.what;
    EXPECT_EQ(set_and_commit("k", "2"), one.code) << one.what;
    EXPECT_EQ(value_of("k"), "2") << one.what << ": still staged";
    EXPECT_EQ(read_text_file(storage), one.content) << one.what;
    write_text_file(storage, "other=1\n");
    EXPECT_EQ(usiCommit(), 0) << one.what;
    EXPECT_EQ(read_text_file(storage), "other=1\nk=2\n") << one.what;
  }
}

TEST_F(UsiStore, FolderPipeOrNameWithoutFileIsRefused) {
  const fs::path pipe = folder / "pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  for (const std::string& path : {folder.string(), pipe.string(), folder.string() + "/", std::string{"/"}}) {
    usiSetStorageFile(path.c_str());
    EXPECT_EQ(get_code("k"), USI_NOT_A_FILE) << path;
    EXPECT_EQ(set_and_commit("other", "v"), USI_NOT_A_FILE) << path;
  }
  EXPECT_TRUE(fs::is_fifo(pipe));
}

TEST_F(UsiStore, MissingFolderIsAnErrorOfTheCommitOnly) {
  usiSetStorageFile((folder / "none/settings").c_str());
  EXPECT_EQ(value_of("k"), std::nullopt);
  EXPECT_EQ(set_and_commit("k", "v"), -ENOENT);
  fs::create_directory(folder / "none");
  EXPECT_EQ(usiCommit(), 0);
  EXPECT_EQ(read_text_file(folder / "none/settings"), "k=v\n");
}

TEST_F(UsiStore, MissingPermissionIsAnErrorAndNothingIsLost) {
  write_text_file(storage, "k=1\n");
  ASSERT_EQ(chmod(storage.c_str(), 0), 0);
  ASSERT_EQ(chmod(config.c_str(), 0644), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  EXPECT_EQ(run_in_child([] {
              drop_privileges();
              return -get_code("k");
            }).status,
            EACCES);
  ASSERT_EQ(chmod(storage.c_str(), 0644), 0);
  ASSERT_EQ(chmod(folder.c_str(), 0555), 0);
  EXPECT_EQ(run_in_child([] {
              drop_privileges();
              return -set_and_commit("k", "2");
            }).status,
            EACCES);
  ASSERT_EQ(chmod(folder.c_str(), 0755), 0);
  EXPECT_EQ(read_text_file(storage), "k=1\n");
}

/// A small file system of the calling process's own, with `free_bytes` left. Gone with the process.
bool mount_small_disk(const fs::path& folder, size_t free_bytes) {
  if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return false;
  if (mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=256k") != 0) return false;
  write_text_file(folder / "filler", std::string(256 * 1024 - free_bytes, 'x'));
  return fs::file_size(folder / "filler") == 256 * 1024 - free_bytes;
}

TEST_F(UsiStore, FullDiskKeepsTheOldFileAndTheStagedValue) {
  const std::string big(50000, 'v');
  const fs::path disk = folder / "disk";
  fs::create_directory(disk);
  constexpr int not_possible = 77;
  const int result = run_in_child([&] {
                       if (!mount_small_disk(disk, 8192)) return not_possible;
                       const fs::path file = disk / "settings";
                       usiSetStorageFile(file.c_str());
                       if (set_and_commit("k", "1") != 0) return 1;
                       if (set_and_commit("k", big) != -ENOSPC) return 2;
                       if (read_text_file(file) != "k=1\n" || fs::exists(disk / "settings.usi-new")) return 3;
                       if (value_of("k") != big) return 4;
                       fs::remove(disk / "filler");
                       if (usiCommit() != 0) return 5;
                       return read_text_file(file) == "k=" + big + "\n" ? 0 : 6;
                     }).status;
  if (result == not_possible) GTEST_SKIP() << "needs the right to mount a file system";
  EXPECT_EQ(result, 0);
}

TEST_F(UsiStore, NoDescriptorStaysOpen) {
  const size_t before = open_descriptors();
  EXPECT_EQ(set_and_commit("k", "v"), 0);
  EXPECT_EQ(value_of("none"), std::nullopt);
  EXPECT_EQ(set_and_commit("k", "v"), 0);
  EXPECT_EQ(open_descriptors(), before);
}

TEST_F(UsiStore, StoppedProcessWithTheLockDelaysNoReaderAndACommitFiveSecondsAtMost) {
  write_text_file(storage, "k=1\n");
  const fs::path lock = folder / "settings.lock";
  const pid_t holder = start_child([&] {
    const int fd = open(lock.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    return fd >= 0 && flock(fd, LOCK_EX) == 0 ? raise(SIGSTOP) : 1;
  });
  int status = 0;
  ASSERT_EQ(waitpid(holder, &status, WUNTRACED), holder);
  ASSERT_TRUE(WIFSTOPPED(status));

  std::atomic<bool> is_started{false};
  std::atomic<bool> is_over{false};
  std::thread committer{[&] {
    EXPECT_EQ(usiSet("k", "2"), 0);
    is_started = true;
    EXPECT_EQ(usiCommit(), USI_LOCKED);
    is_over = true;
  }};
  while (!is_started)
    sched_yield();
  int reads = 0;
  while (!is_over) {
    ASSERT_EQ(value_of("k"), "2") << "staged values are seen";
    ASSERT_EQ(value_of("other"), std::nullopt);
    ++reads;
  }
  committer.join();
  EXPECT_GT(reads, 10);
  EXPECT_EQ(read_text_file(storage), "k=1\n");

  kill(holder, SIGKILL);
  wait_for_child(holder);
  EXPECT_EQ(usiCommit(), 0);
  EXPECT_EQ(read_text_file(storage), "k=2\n");
}

TEST_F(UsiStore, ThreadsSetCommitAndReadAtTheSameTime) {
  constexpr int threads = 4;
  constexpr int rounds = 100;
  std::vector<std::thread> workers;
  workers.reserve(threads);
  for (int worker = 0; worker < threads; ++worker) {
    workers.emplace_back([worker] {
      const std::string key = "key" + std::to_string(worker);
      for (int round = 0; round < rounds; ++round) {
        EXPECT_EQ(set_and_commit(key, std::to_string(round)), 0);
        EXPECT_EQ(value_of(key), std::to_string(round));
        EXPECT_NE(usiStrerror(-EIO), nullptr);
        EXPECT_NE(usiGetCurrentProfile(), nullptr);
      }
    });
  }
  for (std::thread& worker : workers)
    worker.join();
  restart();
  for (int worker = 0; worker < threads; ++worker)
    EXPECT_EQ(value_of("key" + std::to_string(worker)), std::to_string(rounds - 1));
}

}  // namespace
