#include "server/lib/RegularFile.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "tests/support/TempFolder.h"

using rrm::open_regular_file;
using rrm::open_regular_stream;
using rrm::test::TempFolder;

namespace {

constexpr int kAppend = O_RDWR | O_APPEND | O_CREAT;

/// The error that opening ends with; 0 when it succeeds.
int error_of(const std::string& path, int flags) {
  errno = 0;
  const int descriptor = open_regular_file(path, flags);
  if (descriptor >= 0) ::close(descriptor);
  return descriptor >= 0 ? 0 : errno;
}

}  // namespace

TEST(OpenRegularFile, OpensAndMakesFiles) {
  const TempFolder folder;
  EXPECT_EQ(error_of(folder.file("a"), O_RDONLY), ENOENT);
  EXPECT_EQ(error_of(folder.file("a"), kAppend), 0);
  EXPECT_EQ(error_of(folder.file("a"), O_RDONLY), 0);
}

TEST(OpenRegularFile, ADescriptorIsClosedOnExecAndReadsAsUsual) {
  const TempFolder folder;
  folder.write("a", "text");
  const int descriptor = open_regular_file(folder.file("a"), O_RDONLY);
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(::fcntl(descriptor, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  char text[5] = {};
  EXPECT_EQ(::read(descriptor, text, 4), 4);
  EXPECT_STREQ(text, "text");
  ::close(descriptor);
}

TEST(OpenRegularFile, APipeWithoutAnotherEndIsRefusedAtOnce) {
  const TempFolder folder;
  const std::string pipe = folder.file("pipe");
  ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
  EXPECT_EQ(error_of(pipe, O_RDONLY), EINVAL);
  EXPECT_EQ(error_of(pipe, kAppend), EINVAL);
  EXPECT_EQ(error_of(pipe, O_WRONLY | O_CREAT), ENXIO);
}

TEST(OpenRegularFile, FoldersAndDevicesToReadAreRefused) {
  const TempFolder folder;
  EXPECT_EQ(error_of(folder.path(), O_RDONLY), EISDIR);
  EXPECT_EQ(error_of(folder.path(), O_WRONLY), EISDIR);
  EXPECT_EQ(error_of("/dev/zero", O_RDONLY), EINVAL);
  EXPECT_EQ(error_of("/dev/null", O_WRONLY), 0);
}

TEST(OpenRegularStream, ReadsAFileAndTellsWhyItCannot) {
  const TempFolder folder;
  folder.write("a", "text");
  std::FILE* const stream = open_regular_stream(folder.file("a"), O_RDONLY, "r");
  ASSERT_NE(stream, nullptr);
  EXPECT_EQ(std::fgetc(stream), 't');
  std::fclose(stream);
  EXPECT_EQ(open_regular_stream(folder.path(), O_RDONLY, "r"), nullptr);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_EQ(open_regular_stream(folder.file("b"), O_RDONLY, "r"), nullptr);
  EXPECT_EQ(errno, ENOENT);
}
