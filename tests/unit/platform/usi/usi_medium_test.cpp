#include "usi_fixture.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

// What the library does to the file system that holds its files, beyond their content.

namespace {

using UsiMedium = UsiStore;

/// 0 when no process has the file open for writing, or the reason why that can't be told.
int not_open_for_writing(const std::filesystem::path& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  const int code = fcntl(fd, F_SETLEASE, F_RDLCK) == 0 ? 0 : errno;
  close(fd);
  return code;
}

// Otherwise its file system could not be made read-only while the process lives.
TEST_F(UsiMedium, CommittedFileIsNotKeptOpenForWriting) {
  write_text_file(storage, "k=old\n");
  if (const int code = not_open_for_writing(storage)) GTEST_SKIP() << "no leases here: " << strerror(code);
  ASSERT_EQ(set_and_commit("k", "new"), 0);
  EXPECT_EQ(not_open_for_writing(storage), 0);
  EXPECT_EQ(value_of("k"), "new");
  EXPECT_EQ(not_open_for_writing(storage), 0);
}

}  // namespace
