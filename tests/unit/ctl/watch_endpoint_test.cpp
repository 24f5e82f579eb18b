#include "ctl/watch_endpoint.h"

#include "descriptors.h"
#include "temp_folder.h"

#include <cstdlib>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/stat.h>

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

TEST(WatchEndpoint, SocketIsItsOwnersAlone) {
  const temp_folder folder;
  const runtime_folder runtime{folder.path()};
  const watch_socket opened = open_watch_socket();
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

TEST(WatchEndpoint, FolderThatWouldMakeABadEndpointIsPassedOver) {
  const temp_folder folder;
  for (const std::string name :
       {"a,b", "a:b", "0123456789012345678901234567890123456789012345678901234567890123456789"}) {
    const std::string parent = folder / name;
    std::filesystem::create_directory(parent);
    const runtime_folder runtime{parent};
    const watch_socket opened = open_watch_socket();
    ASSERT_TRUE(opened.fd.valid());
    EXPECT_FALSE(opened.endpoint.starts_with(folder.path()));
    EXPECT_TRUE(std::filesystem::is_empty(parent));
    remove_watch_files(opened.endpoint);
  }
}

TEST(WatchEndpoint, IsStaleOnceNobodyListens) {
  const temp_folder folder;
  const runtime_folder runtime{folder.path()};
  watch_socket opened = open_watch_socket();
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

TEST(WatchEndpoint, NoDescriptorStaysOpen) {
  const temp_folder folder;
  const runtime_folder runtime{folder.path()};
  const size_t before = open_descriptors();
  {
    const watch_socket opened = open_watch_socket();
    EXPECT_FALSE(is_stale_watch(opened.endpoint));
  }
  EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
