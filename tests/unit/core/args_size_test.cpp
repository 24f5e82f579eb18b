#include "core/args.h"
#include "core/options.h"

#include <cerrno>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

// Reads a valid command line with these two values.
int parse(std::string size, std::string heartbeat, uint32_t* log_file_size) {
  std::string words[] = {"orvel",         "--hardware_id",     "ABCDEFG123456",     "--log_file_size",
                         std::move(size), "--agent_heartbeat", std::move(heartbeat)};
  std::vector<char*> argv;
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  argv.push_back(nullptr);
  const agent_options saved = options;
  AgentSettings settings{};
  errno = 0;
  const int result = parse_args(static_cast<int>(std::size(words)), argv.data(), &settings);
  *log_file_size = options.log_rotation_size;
  options = saved;
  release_settings(&settings);
  return result;
}

}  // namespace

// A number that is too big only with the last digit, which is the unit, leaves no error number behind.
TEST(LogFileSize, TheUnitIsNoPartOfTheNumber) {
  uint32_t size = 0;
  EXPECT_EQ(parse("21474836479", "0", &size), 0);
  EXPECT_EQ(size, 1048576U);
  EXPECT_EQ(parse("2147483647K", "0", &size), 0);
  EXPECT_EQ(size, 4294966272U);
  EXPECT_EQ(parse("2147483648K", "0", &size), -1);
}
