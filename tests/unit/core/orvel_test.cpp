#include "core/orvel.h"

#include "core/owned.h"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace {

class StrAppendTest : public testing::Test {
protected:
  ~StrAppendTest() override { std::free(text); }

  char* text = nullptr;
};

TEST_F(StrAppendTest, NullCountsAsEmpty) {
  str_append(&text, "one");
  EXPECT_STREQ(text, "one");
}

TEST_F(StrAppendTest, AppendsInOrder) {
  for (const char* piece : {"one ", "", "two "}) {
    str_append(&text, piece);
  }
  EXPECT_STREQ(text, "one two ");
}

TEST_F(StrAppendTest, NothingToStoreLeavesNull) {
  str_append(&text, "");
  EXPECT_EQ(text, nullptr);
}

class ResolveLinkTest : public testing::Test {
protected:
  ResolveLinkTest() {
    char name[] = "/tmp/orvel-link-XXXXXX";
    folder = mkdtemp(name);
  }
  ~ResolveLinkTest() override { std::filesystem::remove_all(folder); }

  std::filesystem::path folder;
};

TEST_F(ResolveLinkTest, GivesTheTargetAsItIsWritten) {
  std::filesystem::create_symlink("../somewhere/else", folder / "link");
  const c_string target{resolve_link((folder / "link").c_str())};
  EXPECT_STREQ(target.get(), "../somewhere/else");
}

TEST_F(ResolveLinkTest, AFileOrNothingIsNoLink) {
  EXPECT_EQ(resolve_link(folder.c_str()), nullptr);
  EXPECT_EQ(resolve_link((folder / "absent").c_str()), nullptr);
}

TEST(SignalMaskTest, ClearingLetsEverySignalThrough) {
  sigset_t before;
  sigset_t blocked;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGUSR2);
  pthread_sigmask(SIG_BLOCK, &blocked, &before);

  EXPECT_EQ(clear_thread_signal_mask(), 0);
  pthread_sigmask(SIG_SETMASK, &before, &blocked);
  EXPECT_EQ(sigismember(&blocked, SIGUSR2), 0);
}

}  // namespace
