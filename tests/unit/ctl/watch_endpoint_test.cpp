#include "ctl/watch_endpoint.h"

#include "descriptors.h"
#include "temp_folder.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr char some_watch[] = "/run/orvelctl-watch-abC123/events";

/// $XDG_RUNTIME_DIR for one test.
class runtime_folder {
public:
  explicit runtime_folder(const std::string& path) { setenv("XDG_RUNTIME_DIR", path.c_str(), 1); }
  ~runtime_folder() { unsetenv("XDG_RUNTIME_DIR"); }
  runtime_folder(const runtime_folder&) = delete;
  runtime_folder& operator=(const runtime_folder&) = delete;
};

TEST(WatchEndpoint, IsKnownByItsName) {
  EXPECT_TRUE(is_watch_endpoint(some_watch));
  EXPECT_TRUE(is_watch_endpoint("/run/user/0/orvelctl-watch-abC123/events"));
  for (const char* other :
       {"", "/", "127.0.0.1:80", "/run/orvelctl-watch-abC123", "/run/orvelctl-watch-abC12/events",
        "/run/orvelctl-watch-ab/123/events", "run/orvelctl-watch-abC123/events",
        "/run/orvelctl-watch-abC1234/events", "/run/orvelctl-watch-abC123/events2",
        "/orvelctl-watch-abC123/events", "/a:1/orvelctl-watch-abC123/events"}) {
    EXPECT_FALSE(is_watch_endpoint(other)) << other;
  }
}

TEST(WatchEndpoint, IsAddedBehindTheOthers) {
  EXPECT_EQ(with_endpoint("", some_watch), some_watch);
  EXPECT_EQ(with_endpoint("a:1,/b", some_watch), std::string{"a:1,/b,"} + some_watch);
}

TEST(WatchEndpoint, IsTakenOutWhereverItIs) {
  const std::string watch = some_watch;
  EXPECT_EQ(without_endpoint(watch, watch), "");
  EXPECT_EQ(without_endpoint(watch + ",a:1", watch), "a:1");
  EXPECT_EQ(without_endpoint("a:1," + watch, watch), "a:1");
  EXPECT_EQ(without_endpoint("a:1," + watch + ",/b", watch), "a:1,/b");
  EXPECT_EQ(without_endpoint(watch + ',' + watch, watch), "");
}

TEST(WatchEndpoint, OthersStayAsTheyAre) {
  for (const char* value : {"", "a:1", "a:1,", ",a:1", "a:1,,/b", " a:1, /b", ","}) {
    EXPECT_EQ(without_endpoint(value, some_watch), value);
    EXPECT_EQ(without_stale_watches(value), value);
  }
}

watch_socket open_in(const std::string& folder) {
  std::string problems;
  return open_watch_socket({folder}, &problems);
}

TEST(WatchEndpoint, SocketIsItsOwnersAlone) {
  const temp_folder folder;
  const watch_socket opened = open_in(folder.path());
  ASSERT_TRUE(opened.fd.valid());
  EXPECT_TRUE(is_watch_endpoint(opened.endpoint));
  EXPECT_TRUE(opened.endpoint.starts_with(folder.path()));
  struct stat status {};
  ASSERT_EQ(stat(opened.endpoint.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
  ASSERT_EQ(stat(std::filesystem::path{opened.endpoint}.parent_path().c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0700U);
  remove_watch_files(opened.endpoint);
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
}

TEST(WatchEndpoint, FolderThatTakesNoSocketIsPassedOver) {
  const temp_folder folder;
  const std::pair<const char*, const char*> cases[] = {
      {"a,b", "comma"},
      {"a:b", "colon"},
      {"0123456789012345678901234567890123456789012345678901234567890123456789", "107 bytes"}};
  for (const auto& [name, problem] : cases) {
    const std::string odd = folder / name;
    std::filesystem::create_directory(odd);
    std::string problems;
    const watch_socket opened = open_watch_socket({odd, folder.path()}, &problems);
    ASSERT_TRUE(opened.fd.valid());
    EXPECT_TRUE(opened.endpoint.starts_with(folder / "orvelctl-watch-"));
    EXPECT_TRUE(std::filesystem::is_empty(odd));
    EXPECT_NE(problems.find(odd), std::string::npos);
    EXPECT_NE(problems.find(problem), std::string::npos) << problems;
  }
}

TEST(WatchEndpoint, WithoutAFolderThereIsAReason) {
  std::string problems;
  EXPECT_FALSE(open_watch_socket({}, &problems).fd.valid());
  EXPECT_FALSE(problems.empty());
  problems = "";
  EXPECT_FALSE(open_watch_socket({"/nowhere"}, &problems).fd.valid());
  EXPECT_EQ(problems, "/nowhere: No such file or directory");
}

TEST(WatchFolders, RuntimeFolderInAFolderOfAllIsNoneOfThem) {
  const temp_folder folder;  // mode 0700, but in /tmp
  const temp_folder settings;
  const runtime_folder runtime{folder.path()};
  const std::vector<std::string> folders = watch_folders(settings / "settings");
  EXPECT_EQ(std::ranges::count(folders, folder.path()), 0);
  EXPECT_EQ(std::ranges::count(folders, "/tmp"), 0);
  EXPECT_EQ(std::ranges::count(folders, "/run"), geteuid() == 0 ? 1 : 0);
  EXPECT_EQ(folders.back(), settings.path());
}

TEST(WatchFolders, SettingsFolderOfAllIsNoneOfThem) {
  const temp_folder folder{std::filesystem::perms::all};
  const std::vector<std::string> folders = watch_folders(folder / "settings");
  EXPECT_EQ(std::ranges::count(folders, folder.path()), 0);
  EXPECT_EQ(std::ranges::count(watch_folders("/tmp/settings"), "/tmp"), 0);
}

TEST(WatchFolders, RuntimeFolderHasToBeItsUsersAlone) {
  if (geteuid() != 0) GTEST_SKIP() << "a folder outside /tmp, and another user, need root";
  char name[] = "/run/orvel-unit-XXXXXX";
  ASSERT_NE(mkdtemp(name), nullptr);
  const runtime_folder runtime{name};
  const auto taken = [&name] { return watch_folders("/nowhere/settings").front() == name; };
  EXPECT_TRUE(taken());
  EXPECT_EQ(chmod(name, 0711), 0);
  EXPECT_FALSE(taken());
  EXPECT_EQ(chmod(name, 0700), 0);
  EXPECT_EQ(chown(name, 65534, 65534), 0);
  EXPECT_FALSE(taken());
  rmdir(name);
}

TEST(WatchDanger, SocketOfThisUserIsNone) {
  const temp_folder folder;
  watch_socket opened = open_in(folder.path());
  EXPECT_EQ(watch_danger(opened.endpoint, folder / "settings"), "");
  opened.fd.reset();
  EXPECT_EQ(watch_danger(opened.endpoint, folder / "settings"), "");
  EXPECT_EQ(watch_danger(some_watch, folder / "settings"), "");  // there is nothing
  EXPECT_EQ(watch_danger("/bin/cat", folder / "settings"), "");
}

TEST(WatchDanger, ProgramInPlaceOfTheSocketIsOne) {
  const temp_folder folder;
  const watch_socket opened = open_in(folder.path());
  std::filesystem::remove(opened.endpoint);
  std::filesystem::copy_file("/bin/true", opened.endpoint);
  EXPECT_NE(watch_danger(opened.endpoint, folder / "settings").find("no socket"), std::string::npos);
  EXPECT_EQ(without_stale_watches("a:1," + opened.endpoint), "a:1");
  std::filesystem::remove(opened.endpoint);
  std::filesystem::create_symlink("/bin/true", opened.endpoint);
  EXPECT_NE(watch_danger(opened.endpoint, folder / "settings").find("no socket"), std::string::npos);
}

TEST(WatchDanger, OtherUserIsOneUnlessTheSettingsAreTheirs) {
  if (geteuid() != 0) GTEST_SKIP() << "another user needs root";
  const temp_folder folder;
  write_text_file(folder / "settings", "");
  const watch_socket opened = open_in(folder.path());
  EXPECT_EQ(chown(std::filesystem::path{opened.endpoint}.parent_path().c_str(), 65534, 65534), 0);
  EXPECT_NE(watch_danger(opened.endpoint, folder / "settings").find("another user"), std::string::npos);
  EXPECT_EQ(chown((folder / "settings").c_str(), 65534, 65534), 0);
  EXPECT_EQ(watch_danger(opened.endpoint, folder / "settings"), "");
}

TEST(WatchEndpoint, IsStaleOnceNobodyListens) {
  const temp_folder folder;
  watch_socket opened = open_in(folder.path());
  EXPECT_FALSE(is_stale_watch(opened.endpoint));
  EXPECT_EQ(without_stale_watches("a:1," + opened.endpoint), "a:1," + opened.endpoint);
  opened.fd.reset();
  EXPECT_TRUE(is_stale_watch(opened.endpoint));
  EXPECT_EQ(without_stale_watches("a:1," + opened.endpoint + ",/b"), "a:1,/b");
  EXPECT_TRUE(std::filesystem::is_empty(folder.path()));
  EXPECT_TRUE(is_stale_watch(opened.endpoint));  // its files are gone, too
}

TEST(WatchEndpoint, OnlyASocketIsRemoved) {
  const temp_folder folder;
  const std::string watch = folder / "orvelctl-watch-abC123";
  std::filesystem::create_directory(watch);
  write_text_file(watch + "/events", "precious");
  remove_watch_files(watch + "/events");
  EXPECT_EQ(read_text_file(watch + "/events"), "precious");
}

TEST(WatchEndpoint, NothingIsRemovedBehindALink) {
  const temp_folder folder;
  const watch_socket opened = open_in(folder.path());
  const std::string link = folder / "orvelctl-watch-link12";
  std::filesystem::create_directory_symlink(std::filesystem::path{opened.endpoint}.parent_path(), link);
  remove_watch_files(link + "/events");
  EXPECT_TRUE(std::filesystem::exists(opened.endpoint));
}

TEST(WatchEndpoint, NoDescriptorStaysOpen) {
  const temp_folder folder;
  const size_t before = open_descriptors();
  {
    const watch_socket opened = open_in(folder.path());
    EXPECT_FALSE(is_stale_watch(opened.endpoint));
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
