#include "ctl/command_line.h"

#include "ctl/exit_status.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;
using testing::Optional;

struct parsed {
  std::optional<ctl_command_line> line;
  int status = -1;
  std::string complaint;
};

parsed parse(std::vector<std::string> words) {
  std::vector<char*> argv{const_cast<char*>("orvelctl")};
  for (std::string& word : words) {
    argv.push_back(word.data());
  }
  parsed result;
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  result.line = read_command_line(static_cast<int>(argv.size()), argv.data(), &result.status);
  result.complaint = testing::internal::GetCapturedStderr();
  testing::internal::GetCapturedStdout();
  return result;
}

TEST(CtlCommandLine, DefaultsAreTheAgents) {
  const parsed result = parse({"status"});
  ASSERT_TRUE(result.line);
  EXPECT_EQ(result.line->command, "status");
  EXPECT_EQ(result.line->control_port, 14369);
  EXPECT_EQ(result.line->pid_file, "/tmp/orvel.pid");
  EXPECT_EQ(result.line->timeout, 60U);
  EXPECT_EQ(result.line->files.storage + result.line->files.profile + result.line->files.config, "");
  EXPECT_EQ(result.line->request, nullptr);
}

TEST(CtlCommandLine, FilesAreNamedAsTheAgentNamesThem) {
  const parsed result = parse({"-c", "s", "--usi_profile", "p", "--usi_conf", "u", "--connectivity_log_file",
                               "l", "--pid_file", "f", "--control_port", "5", "watch"});
  ASSERT_TRUE(result.line);
  EXPECT_EQ(result.line->files.storage, "s");
  EXPECT_EQ(result.line->files.profile, "p");
  EXPECT_EQ(result.line->files.config, "u");
  EXPECT_EQ(result.line->connectivity_log, "l");
  EXPECT_EQ(result.line->pid_file, "f");
  EXPECT_EQ(result.line->control_port, 5);
}

TEST(CtlCommandLine, MembersHaveValuesOrNone) {
  const parsed result = parse({"discover", "--carrier_id", "", "--service", "s"});
  ASSERT_TRUE(result.line);
  ASSERT_NE(result.line->request, nullptr);
  EXPECT_STREQ(result.line->request->command, "send_discovery");
  EXPECT_THAT(result.line->members, ElementsAre(Optional(std::string{"s"}), std::nullopt, std::nullopt,
                                                std::nullopt, Optional(std::string{})));
}

TEST(CtlCommandLine, TextMayLookLikeAnything) {
  for (const std::string text : {"", "-", "--", "-x", "[a,b]", "{\"a\":1}", "a b", "raw"}) {
    const parsed result = parse({"send-test", "lamp", "--text", text});
    ASSERT_TRUE(result.line) << text << ' ' << result.complaint;
    EXPECT_THAT(result.line->text, Optional(text));
    EXPECT_EQ(result.line->handler, "lamp");
  }
  EXPECT_EQ(parse({"raw", "[1,2]"}).line->raw, "[1,2]");
  EXPECT_EQ(parse({"raw", "-"}).line->raw, "-");
}

TEST(CtlCommandLine, MistakeIsOneLine) {
  const parsed result = parse({"claim"});
  EXPECT_FALSE(result.line);
  EXPECT_EQ(result.status, exit_usage);
  EXPECT_EQ(result.complaint,
            "orvelctl: --service is required; see orvelctl --help, or --help behind a command\n");
}

TEST(CtlCommandLine, HelpIsNoMistake) {
  const parsed result = parse({"claim", "--help"});
  EXPECT_FALSE(result.line);
  EXPECT_EQ(result.status, exit_done);
  EXPECT_EQ(result.complaint, "");
}

}  // namespace
