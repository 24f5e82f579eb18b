#include "ctl/pid_file.h"

#include "core/daemon.h"
#include "core/owned.h"
#include "forked.h"
#include "temp_folder.h"

#include <csignal>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

class CtlPidFileTest : public testing::Test {
protected:
  pid_file_state state_of(const std::string& content) {
    write_text_file(path, content);
    return look_at_pid_file(path).state;
  }

  temp_folder folder;
  std::string path = folder / "agent.pid";
};

TEST_F(CtlPidFileTest, MissingFileIsAbsent) {
  EXPECT_EQ(look_at_pid_file(path).state, pid_file_state::absent);
}

TEST_F(CtlPidFileTest, LockedFileIsARunningAgent) {
  pipe_ends locked = make_pipe(0);
  const pid_t agent = start_child([&] {
    const int fd = lock_pid_file(path.c_str());
    if (write(locked.write_end.get(), "l", 1) == 1) pause();
    return fd;
  });
  char byte = 0;
  ASSERT_EQ(read(locked.read_end.get(), &byte, 1), 1);
  const pid_file_view view = look_at_pid_file(path);
  EXPECT_EQ(view.state, pid_file_state::running);
  EXPECT_EQ(view.pid, agent);
  kill(agent, SIGKILL);
  wait_for_child(agent);
  EXPECT_EQ(look_at_pid_file(path).state, pid_file_state::stale);
}

TEST_F(CtlPidFileTest, NumberOfAnEndedProcessIsStale) {
  const pid_t ended = dead_process();
  EXPECT_EQ(state_of(std::to_string(ended) + "\n"), pid_file_state::stale);
  EXPECT_EQ(look_at_pid_file(path).pid, ended);
}

TEST_F(CtlPidFileTest, NumberOfALivingProcessWithoutALockIsAnother) {
  EXPECT_EQ(state_of(std::to_string(getpid()) + "\n"), pid_file_state::other);
}

TEST_F(CtlPidFileTest, TextWithoutANumberIsNamed) {
  for (const char* content : {"", "\n", "none", "-5\n", "0"}) {
    EXPECT_EQ(state_of(content), pid_file_state::no_number) << content;
  }
}

TEST_F(CtlPidFileTest, WhatIsNoFileIsUnreadable) {
  EXPECT_EQ(look_at_pid_file(folder.path()).state, pid_file_state::unreadable);
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  EXPECT_EQ(look_at_pid_file(path).state, pid_file_state::unreadable);
}

}  // namespace
