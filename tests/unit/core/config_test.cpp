#include "core/config.h"

#include "core/owned.h"
#include "forked.h"
#include "log_capture.h"
#include "settings_file.h"

#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>

namespace {

using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;

TEST(ConfigGetTest, CopiesTheValueAndTerminatesIt) {
  const settings_file store{{{"q_url", "https://one"}}};
  char value[32];
  EXPECT_EQ(config_get("q_url", value, sizeof value), 0);
  EXPECT_STREQ(value, "https://one");
}

TEST(ConfigGetTest, CutsALongerValueToTheBuffer) {
  const settings_file store{{{"q_url", "0123456789"}}};
  struct {
    uint32_t size;
    const char* kept;
  } const cases[] = {{1, ""}, {2, "0"}, {10, "012345678"}, {11, "0123456789"}, {12, "0123456789"}};
  for (const auto& c : cases) {
    char value[16] = "...............";
    EXPECT_EQ(config_get("q_url", value, c.size), 0) << c.size;
    EXPECT_STREQ(value, c.kept) << c.size;
    EXPECT_EQ(value[c.size], '.') << c.size;
  }
}

TEST(ConfigGetTest, AnUnsetKeyAndAnEmptyTextAreNotSetAndNothingIsLogged) {
  const settings_file store{{{"q_empty", ""}}};
  log_capture log;
  char value[8] = "before";
  EXPECT_EQ(config_get("q_absent", value, sizeof value), -1);
  EXPECT_EQ(config_get("q_empty", value, sizeof value), -1);
  EXPECT_STREQ(value, "before");
  EXPECT_THAT(log.text(), IsEmpty());
}

TEST(ConfigGetCopyTest, GivesANewString) {
  const settings_file store{{{"q_name", "device"}}};
  const c_string copy{config_get_copy("q_name")};
  EXPECT_STREQ(copy.get(), "device");
}

TEST(ConfigGetCopyTest, HoldsAtMost127Characters) {
  for (const size_t length : {127U, 128U, 129U, 4000U}) {
    const settings_file store{{{"q_long", std::string(length, 'x')}}};
    const c_string copy{config_get_copy("q_long")};
    EXPECT_EQ(std::string{copy.get()}, std::string(127, 'x')) << length;
  }
}

TEST(ConfigGetCopyTest, IsNullWhenNotSet) {
  const settings_file store{{{"q_empty", ""}}};
  EXPECT_EQ(config_get_copy("q_absent"), nullptr);
  EXPECT_EQ(config_get_copy("q_empty"), nullptr);
}

TEST(ConfigGetUintTest, ReadsNumbersAndFallsBackToTheDefault) {
  struct {
    const char* stored;
    uint32_t value;
  } const cases[] = {
      {"0", 0},
      {"300", 300},
      {"-1", 77},
      {"", 77},
      {"abc", 0},
      {"99999999999", 2147483647},
      {"000000000000001", 1},
      {"0000000000000012", 1},  // cut to 15 characters
      {"5 minutes", 5},
  };
  for (const auto& c : cases) {
    const settings_file store{{{"q_number", c.stored}}};
    EXPECT_EQ(config_get_uint("q_number", 77), c.value) << c.stored;
  }
  EXPECT_EQ(config_get_uint("q_absent", 77), 77U);
}

TEST(ConfigGetUintCheckedTest, LeavesTheResultAloneOnFailure) {
  const settings_file store{{{"q_negative", "-5"}, {"q_empty", ""}, {"q_good", "9"}}};
  for (const char* name : {"q_negative", "q_empty", "q_absent"}) {
    uint32_t value = 77;
    EXPECT_EQ(config_get_uint_checked(name, &value), -1) << name;
    EXPECT_EQ(value, 77U) << name;
  }
  uint32_t value = 77;
  EXPECT_EQ(config_get_uint_checked("q_good", &value), 0);
  EXPECT_EQ(value, 9U);
}

TEST(ConfigSetTest, StoresAndCommits) {
  const settings_file store;
  log_capture log;
  EXPECT_EQ(config_set("q_version", "one two"), 0);
  EXPECT_EQ(store.value("q_version"), "one two");
  EXPECT_THAT(log.text(), IsEmpty());
}

TEST(ConfigSetTest, AFailedSetIsLoggedAndStillFollowedByACommit) {
  const settings_file store;
  ASSERT_EQ(usiSet("q_staged", "earlier"), 0);
  log_capture log;
  EXPECT_EQ(config_set("bad key", "value"), 0);
  EXPECT_THAT(log.text(), MatchesRegex("config_usi: [0-9]+:    INFO: Can't set value by name:'bad key' "
                                       "error: .+\\.\n"));
  EXPECT_EQ(store.value("q_staged"), "earlier");
}

// A folder where the storage file should be can neither be read nor be replaced. The library keeps what could not
// be committed, so this runs in a process of its own.
TEST(ConfigFailureTest, AStoreThatCantBeReadOrWrittenIsLoggedAndReadsAsNotSet) {
  const settings_file store;
  const std::string folder = settings_file::path() + ".folder";
  std::filesystem::create_directory(folder);
  const child_outcome child = run_in_child([&] {
    options.log_level = level_debug;
    options.file_log = false;
    usiSetStorageFile(folder.c_str());
    char value[8];
    uint32_t number = 7;
    const bool as_not_set = config_get("q_name", value, sizeof value) == -1 &&
                            config_get_copy("q_name") == nullptr && config_get_uint("q_name", 5) == 5 &&
                            config_get_uint_checked("q_name", &number) == -1 && number == 7;
    return as_not_set && config_set("q_name", "x") == 0 ? 0 : 1;
  });
  EXPECT_EQ(child.status, 0) << child.output;
  const std::string reason = usiStrerror(USI_NOT_A_FILE);
  EXPECT_THAT(child.output, MatchesRegex("config_usi: [0-9]+:    INFO: Can't get value by name:'q_name' .*"));
  EXPECT_THAT(child.output, HasSubstr("Can't get value by name:'q_name' error: " + reason + ".\n"));
  EXPECT_THAT(child.output, HasSubstr("Can't commit nvram, error: " + reason + ".\n"));
}

}  // namespace
