#include "ctl/settings.h"

#include "forked.h"
#include "temp_folder.h"
#include "usi.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>

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
    const fd_owner lock = lock_settings(files.storage);
    EXPECT_TRUE(lock.valid());
    EXPECT_FALSE(taken_by_another());
  }
  EXPECT_TRUE(taken_by_another());
  EXPECT_FALSE(lock_settings("/nowhere/settings").valid());
}

}  // namespace
