// SPDX-License-Identifier: Apache-2.0
#include "install/EntryWriter.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "testing/TempDir.h"

namespace {

// CRC-32 of "abc".
constexpr uint32_t kCrcOfAbc = 0x352441c2;

class EntryWriterTest : public ::testing::Test {
 protected:
  void SetUp() override {
    path = dir.file("out");
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
  }
  void TearDown() override {
    if (fd >= 0) close(fd);
  }

  TempDir dir;
  std::string path;
  int fd = -1;
};

TEST_F(EntryWriterTest, WritesTheDeclaredBytesAndKnowsTheirChecksum) {
  EntryWriter writer(fd, 3);
  EXPECT_FALSE(writer.matches(kCrcOfAbc));
  ASSERT_TRUE(writer.write("a", 1));
  ASSERT_TRUE(writer.write("bc", 2));
  EXPECT_TRUE(writer.matches(kCrcOfAbc));
  EXPECT_FALSE(writer.matches(kCrcOfAbc + 1));
  EXPECT_EQ("abc", TempDir::readFile(path));
}

TEST_F(EntryWriterTest, NeverWritesMoreThanDeclared) {
  EntryWriter writer(fd, 3);
  ASSERT_TRUE(writer.write("ab", 2));
  errno = 0;
  EXPECT_FALSE(writer.write("cd", 2));
  EXPECT_EQ(EFBIG, errno);
  EXPECT_EQ("ab", TempDir::readFile(path));
  // What fits is still taken.
  EXPECT_TRUE(writer.write("c", 1));
  EXPECT_TRUE(writer.matches(kCrcOfAbc));
}

TEST_F(EntryWriterTest, AShortEntryDoesNotMatch) {
  EntryWriter writer(fd, 4);
  ASSERT_TRUE(writer.write("abc", 3));
  EXPECT_FALSE(writer.matches(kCrcOfAbc));
}

TEST_F(EntryWriterTest, WithoutChecksumWritesTheSameAndMatchesNothing) {
  EntryWriter writer(fd, 3, nullptr, false);
  ASSERT_TRUE(writer.write("abc", 3));
  EXPECT_EQ("abc", TempDir::readFile(path));
  EXPECT_FALSE(writer.matches(kCrcOfAbc));
  EXPECT_FALSE(writer.matches(0));
}

TEST_F(EntryWriterTest, AFailedWriteSaysWhy) {
  const int readOnly = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(readOnly, 0);
  EntryWriter writer(readOnly, 3);
  errno = 0;
  EXPECT_FALSE(writer.write("abc", 3));
  EXPECT_EQ(EBADF, errno);
  close(readOnly);
}

}  // namespace
