#include "core/owned.h"

#include "core/log.h"

#include "log_lines.h"
#include "logging_child.h"
#include "process_limits.h"
#include "sanitizers.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <new>

namespace {

using testing::ElementsAre;

constexpr char log_source[] = "owned_test";

bool is_open(int fd) {
  return fcntl(fd, F_GETFD) != -1;
}

int any_descriptor() {
  return open("/dev/null", O_RDONLY | O_CLOEXEC);
}

// Larger than any block; the compiler must not see it.
volatile size_t too_much = SIZE_MAX / 2;

TEST(FdOwnerTest, ClosesWhatItOwns) {
  const int fd = any_descriptor();
  {
    const fd_owner owner{fd};
    EXPECT_TRUE(owner.valid());
    EXPECT_EQ(owner.get(), fd);
  }
  EXPECT_FALSE(is_open(fd));
}

TEST(FdOwnerTest, OwnsNothingAtFirst) {
  const fd_owner owner;
  EXPECT_FALSE(owner.valid());
  EXPECT_EQ(owner.get(), -1);
}

TEST(FdOwnerTest, KeepsOpenWhatItReleases) {
  fd_owner owner{any_descriptor()};
  const int fd = owner.release();
  EXPECT_FALSE(owner.valid());
  owner.reset();
  EXPECT_TRUE(is_open(fd));
  close(fd);
}

TEST(FdOwnerTest, MovingHandsOverAndClosesTheOldOne) {
  const int first = any_descriptor();
  const int second = any_descriptor();
  fd_owner target{first};
  fd_owner source{second};
  target = std::move(source);
  EXPECT_FALSE(is_open(first));
  EXPECT_EQ(target.get(), second);

  const fd_owner last{std::move(target)};
  EXPECT_TRUE(is_open(second));
  EXPECT_EQ(last.get(), second);
}

TEST(FdOwnerTest, ResetClosesOnce) {
  const int fd = any_descriptor();
  fd_owner owner{fd};
  owner.reset();
  EXPECT_FALSE(is_open(fd));
  const int reused = any_descriptor();
  EXPECT_EQ(reused, fd);
  owner.reset();
  EXPECT_TRUE(is_open(reused));
  close(reused);
}

TEST(PipeTest, WhatIsWrittenAtOneEndIsReadAtTheOther) {
  const pipe_ends pipe = make_pipe(O_CLOEXEC | O_NONBLOCK);
  ASSERT_TRUE(pipe.valid());
  for (const int end : {pipe.read_end.get(), pipe.write_end.get()}) {
    EXPECT_EQ(fcntl(end, F_GETFD), FD_CLOEXEC);
    EXPECT_NE(fcntl(end, F_GETFL) & O_NONBLOCK, 0);
  }
  char byte = 'x';
  EXPECT_EQ(write(pipe.write_end.get(), &byte, 1), 1);
  byte = 0;
  EXPECT_EQ(read(pipe.read_end.get(), &byte, 1), 1);
  EXPECT_EQ(byte, 'x');
}

TEST(PipeTest, WithoutDescriptorsThereIsNone) {
  const limit_guard no_more{RLIMIT_NOFILE, 0};
  errno = 0;
  const pipe_ends pipe = make_pipe(O_CLOEXEC);
  EXPECT_EQ(errno, EMFILE);
  EXPECT_FALSE(pipe.valid());
  EXPECT_FALSE(pipe.read_end.valid() || pipe.write_end.valid());
}

int released_value = 0;
void note_release(const int* value) {
  released_value = *value;
}

TEST(ReleaserTest, CallsTheFunctionAtTheEndOfTheScope) {
  int value = 7;
  {
    const std::unique_ptr<int, releaser<note_release>> owner{&value};
    EXPECT_EQ(released_value, 0);
  }
  EXPECT_EQ(released_value, 7);
}

TEST(ReleaseStringTest, FreesNullsAndIsHarmlessTwice) {
  char* text = strdup("text");
  release_string(text);
  EXPECT_EQ(text, nullptr);
  release_string(text);
  EXPECT_EQ(text, nullptr);
}

TEST(MustAllocateTest, GivesABlockEvenForNoBytes) {
  void* block = must_allocate(0, ALLOCATION("malloc().\n", 1));
  EXPECT_NE(block, nullptr);
  std::free(block);
}

TEST(MustCopyTest, CopiesTheTextWithItsEnd) {
  for (const char* text : {"", "text"}) {
    const c_string copy{must_copy(text, ALLOCATION("strdup().\n", 1))};
    EXPECT_STREQ(copy.get(), text);
    EXPECT_NE(copy.get(), text);
  }
}

TEST(MustCopyTest, NullStaysNullIfItMayBe) {
  const c_string copy{must_copy_if_any("text", ALLOCATION("strdup().\n", 1))};
  EXPECT_STREQ(copy.get(), "text");
  EXPECT_EQ(must_copy_if_any(nullptr, ALLOCATION("strdup().\n", 1)), nullptr);
}

TEST(AllocationFailureTest, LogsThePlaceAndEndsTheProcess) {
  const allocation_site site{"some_module", 42, "malloc.\n", 255};
  const child_outcome result = run_logging_child([&]() -> int { allocation_failed(site); });
  EXPECT_EQ(result.status, 255);
  EXPECT_EQ(result.output, "some_module: 42: WARNING: malloc.\n");
}

TEST(AllocationFailureTest, EndsTheProcessWhenABlockCantBeHad) {
  if (under_sanitizer) GTEST_SKIP() << "the sanitizer's allocator aborts";
  const child_outcome result = run_logging_child([] {
    std::free(must_allocate(too_much, ALLOCATION("malloc().\n", 3)));
    return 0;
  });
  EXPECT_EQ(result.status, 3);
  EXPECT_THAT(messages(result.output), ElementsAre("WARNING: malloc()."));
}

}  // namespace
