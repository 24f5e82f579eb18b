#include "ctl/settings.h"

#include "forked.h"
#include "temp_folder.h"
#include "usi.h"

#include <cerrno>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CtlSettingsTest : public testing::Test {
protected:
  ~CtlSettingsTest() override { use_settings({}); }

  temp_folder folder;
  settings_files files{folder / "settings", folder / "profile", folder / "usi.conf"};
};

TEST_F(CtlSettingsTest, ValueIsReadAndWritten) {
  use_settings(files);
  EXPECT_EQ(read_setting("q_a").value, "");
  EXPECT_EQ(write_setting("q_a", "1"), 0);
  EXPECT_EQ(read_setting("q_a").value, "1");
  EXPECT_EQ(read_text_file(files.storage), "q_a=1\n");
}

TEST_F(CtlSettingsTest, FailureHasACode) {
  files.storage = folder.path();
  use_settings(files);
  EXPECT_EQ(read_setting("q_a").code, USI_NOT_A_FILE);
  EXPECT_EQ(write_setting("q_a", "1"), USI_NOT_A_FILE);
  EXPECT_EQ(write_setting("q a", "1"), USI_BAD_KEY);
}

TEST_F(CtlSettingsTest, StorageIsTheNamedOneOrTheConfigFiles) {
  EXPECT_EQ(storage_path(files), files.storage);
  files.storage = "";
  use_settings(files);
  EXPECT_EQ(storage_path(files), "/etc/orvel/settings");
  write_text_file(files.config, "storage=" + folder / "elsewhere" + "\n");
  use_settings(files);
  EXPECT_EQ(storage_path(files), folder / "elsewhere");
  EXPECT_EQ(write_setting("q_a", "1"), 0);
  EXPECT_EQ(read_text_file(folder / "elsewhere"), "q_a=1\n");
}

TEST_F(CtlSettingsTest, KeysOfAFileAreListedOnce) {
  write_text_file(files.storage, "q_handler_a=1\n# q_handler_b=1\n q_handler_c =1\nq_other=q_handler_d=\n"
                                 "q_handler_a=2\nq_handler_e\nq_handler_=3");
  EXPECT_THAT(keys_in_file(files.storage, "q_handler_"),
              ElementsAre("q_handler_a", "q_handler_c", "q_handler_"));
  EXPECT_THAT(keys_in_file("/nowhere", ""), IsEmpty());
}

TEST_F(CtlSettingsTest, LockKeepsOthersOut) {
  const auto taken_by_another = [this] {
    return run_in_child([this] {
             const fd_owner other{open(folder.path().c_str(), O_RDONLY)};
             return flock(other.get(), LOCK_EX | LOCK_NB) == 0 ? 0 : 1;
           }).status == 0;
  };
  {
    const fd_owner lock = lock_settings(files.storage, -1);
    EXPECT_TRUE(lock.valid());
    EXPECT_FALSE(taken_by_another());
  }
  EXPECT_TRUE(taken_by_another());
}

TEST_F(CtlSettingsTest, LockSaysWhyItIsNotThere) {
  EXPECT_FALSE(lock_settings("/nowhere/settings", -1).valid());
  EXPECT_EQ(errno, ENOENT);

  const fd_owner held = lock_settings(files.storage, -1);
  const pipe_ends interrupt = make_pipe(O_CLOEXEC);
  ASSERT_EQ(write(interrupt.write_end.get(), "x", 1), 1);
  EXPECT_FALSE(lock_settings(files.storage, interrupt.read_end.get()).valid());
  EXPECT_EQ(errno, EINTR);
}

TEST_F(CtlSettingsTest, LockNeedsNoWorkingFolder) {
  const std::string gone = folder / "gone";
  const auto lock_in_a_removed_folder = [&gone] {
    if (mkdir(gone.c_str(), 0700) != 0 || chdir(gone.c_str()) != 0 || rmdir(gone.c_str()) != 0) return 1;
    return lock_settings("settings", -1).valid() ? 0 : 2;
  };
  EXPECT_EQ(run_in_child(lock_in_a_removed_folder).status, 0);
}

TEST(CtlSettingsFolder, IsWhatTheNameTells) {
  EXPECT_EQ(folder_of_settings("/a/b/settings"), "/a/b");
  EXPECT_EQ(folder_of_settings("/settings"), "/");
  EXPECT_EQ(folder_of_settings("a/settings"), "a");
  EXPECT_EQ(folder_of_settings("settings"), ".");
}

}  // namespace
