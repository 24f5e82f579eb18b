#include "core/orvel_text.h"

#include "core/owned.h"

#include "logging_child.h"
#include "process_limits.h"
#include "sanitizers.h"
#include "temp_folder.h"

#include <cstring>
#include <filesystem>
#include <gtest/gtest.h>

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

TEST_F(StrAppendTest, WithoutMemoryTheTextStaysAsItIs) {
  if (under_sanitizer) GTEST_SKIP() << "a sanitizer ends the process instead";
  const child_outcome child = run_logging_child([] {
    constexpr size_t large = 64U << 20U;
    const c_string piece{static_cast<char*>(std::malloc(large))};
    std::memset(piece.get(), 'x', large - 1);
    piece.get()[large - 1] = '\0';
    char* held = nullptr;
    str_append(&held, "held");
    char* const before = held;
    set_limit(RLIMIT_AS, large);  // less than is in use
    str_append(&held, piece.get());
    return held == before && std::strcmp(held, "held") == 0 ? 42 : 1;
  });
  EXPECT_EQ(child.status, 42);
  EXPECT_EQ(child.output, "");
}

class ResolveLinkTest : public testing::Test {
protected:
  temp_folder folder;
};

TEST_F(ResolveLinkTest, GivesTheTargetAsItIsWritten) {
  std::filesystem::create_symlink("../somewhere/else", folder / "link");
  const c_string target{resolve_link((folder / "link").c_str())};
  EXPECT_STREQ(target.get(), "../somewhere/else");
}

TEST_F(ResolveLinkTest, AFileOrNothingIsNoLink) {
  EXPECT_EQ(resolve_link(folder.path().c_str()), nullptr);
  EXPECT_EQ(resolve_link((folder / "absent").c_str()), nullptr);
}

}  // namespace
