// SPDX-License-Identifier: Apache-2.0
#include "base/TrustedPath.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"

namespace {

// A user id that is neither root nor the caller.
constexpr uid_t kOtherUser = 65534;

class TrustedPathTest : public ::testing::Test {
 protected:
  std::string folder(const char* name, mode_t mode) {
    const std::string path = dir.file(name);
    EXPECT_EQ(0, mkdir(path.c_str(), 0700));
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }
  std::string file(const char* name, mode_t mode) {
    const std::string path = dir.file(name);
    TempDir::writeFile(path, "x");
    EXPECT_EQ(0, chmod(path.c_str(), mode));
    return path;
  }
  TempDir dir;
  std::string reason;
};

TEST_F(TrustedPathTest, OwnPrivateDirectoryIsTrusted) {
  EXPECT_TRUE(TrustedPath::directory(folder("mine", 0700), &reason)) << reason;
  EXPECT_TRUE(TrustedPath::directory(folder("readable", 0755), &reason))
      << reason;
}

TEST_F(TrustedPathTest, DirectoryOthersCanWriteIsNot) {
  for (mode_t mode : {0770, 0777, 01777, 0757}) {
    const std::string path = folder(("m" + std::to_string(mode)).c_str(), mode);
    reason.clear();
    EXPECT_FALSE(TrustedPath::directory(path, &reason)) << mode;
    char text[8];
    snprintf(text, sizeof text, "%04o", static_cast<unsigned>(mode));
    EXPECT_EQ(path + " is writable by other users (mode " + text + ")", reason);
  }
}

TEST_F(TrustedPathTest, MissingDirectoryIsLeftToTheCaller) {
  EXPECT_TRUE(TrustedPath::directory(dir.file("missing"), &reason));
}

TEST_F(TrustedPathTest, FileInPlaceOfADirectoryIsNot) {
  const std::string path = file("plain", 0600);
  EXPECT_FALSE(TrustedPath::directory(path, &reason));
  EXPECT_NE(std::string::npos, reason.find("cannot open the directory"));
}

TEST_F(TrustedPathTest, LinkToOwnDirectoryCountsAsTheDirectory) {
  const std::string target = folder("target", 0700);
  ASSERT_EQ(0, symlink(target.c_str(), dir.file("link").c_str()));
  EXPECT_TRUE(TrustedPath::directory(dir.file("link"), &reason)) << reason;
}

TEST_F(TrustedPathTest, FilesOfTheCallerAreTrustedEvenUnreadable) {
  EXPECT_TRUE(TrustedPath::fileIfPresent(file("a", 0644), &reason)) << reason;
  EXPECT_TRUE(TrustedPath::fileIfPresent(file("b", 0), &reason)) << reason;
  EXPECT_TRUE(TrustedPath::fileIfPresent(dir.file("none"), &reason));
}

TEST_F(TrustedPathTest, FileOthersCanWriteIsNot) {
  const std::string path = file("shared", 0666);
  EXPECT_FALSE(TrustedPath::fileIfPresent(path, &reason));
  EXPECT_EQ(path + " is writable by other users (mode 0666)", reason);
  EXPECT_FALSE(TrustedPath::fileIfPresent(file("group", 0620), &reason));
}

TEST_F(TrustedPathTest, LinkInPlaceOfAFileIsNotFollowed) {
  const std::string target = file("target", 0600);
  ASSERT_EQ(0, symlink(target.c_str(), dir.file("link").c_str()));
  EXPECT_FALSE(TrustedPath::fileIfPresent(dir.file("link"), &reason));
  EXPECT_EQ(dir.file("link") + " is a link", reason);
}

TEST_F(TrustedPathTest, FifoIsLookedAtWithoutBlocking) {
  ASSERT_EQ(0, mkfifo(dir.file("fifo").c_str(), 0600));
  EXPECT_TRUE(TrustedPath::fileIfPresent(dir.file("fifo"), &reason)) << reason;
  ASSERT_EQ(0, chmod(dir.file("fifo").c_str(), 0622));
  EXPECT_FALSE(TrustedPath::fileIfPresent(dir.file("fifo"), &reason));
}

TEST_F(TrustedPathTest, AnotherUsersFilesAndDirectoriesAreNot) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a file away needs root";
  const std::string theirs = folder("theirs", 0755);
  const std::string planted = file("planted", 0644);
  ASSERT_EQ(0, chown(theirs.c_str(), kOtherUser, kOtherUser));
  ASSERT_EQ(0, chown(planted.c_str(), kOtherUser, kOtherUser));
  EXPECT_FALSE(TrustedPath::directory(theirs, &reason));
  EXPECT_EQ(theirs + " belongs to another user (uid 65534)", reason);
  EXPECT_FALSE(TrustedPath::fileIfPresent(planted, &reason));
  EXPECT_EQ(planted + " belongs to another user (uid 65534)", reason);
}

TEST_F(TrustedPathTest, RootsFilesAreTrustedByEveryUser) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run as another user";
  const std::string rootsFile = file("roots", 0644);
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0755));
  ChildProcess child;
  child.start([&] {
    if (setgid(kOtherUser) != 0 || setuid(kOtherUser) != 0) return 77;
    std::string why;
    return TrustedPath::fileIfPresent(rootsFile, &why) ? 0 : 1;
  });
  child.wait();
  EXPECT_TRUE(child.exitedWith(0)) << "status " << child.shellStatus();
}

TEST_F(TrustedPathTest, FileAndFolderLooksAtEveryCompanion) {
  const std::string db = file("widget.db", 0644);
  EXPECT_TRUE(TrustedPath::fileAndFolder(db, {"-journal", "-wal"}, &reason))
      << reason;
  const std::string journal = file("widget.db-journal", 0666);
  EXPECT_FALSE(TrustedPath::fileAndFolder(db, {"-journal", "-wal"}, &reason));
  EXPECT_EQ(journal + " is writable by other users (mode 0666)", reason);
  ASSERT_EQ(0, chmod(journal.c_str(), 0600));
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
  EXPECT_FALSE(TrustedPath::fileAndFolder(db, {"-journal"}, &reason));
  EXPECT_EQ(dir.path() + "/ is writable by other users (mode 0777)", reason);
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0700));
}

TEST_F(TrustedPathTest, LinksOfTheCallerAreFollowedWhereverTheyLead) {
  const std::string target = folder("target", 0700);
  ASSERT_EQ(0, mkdir((target + "/inner").c_str(), 0700));
  // A relative link, a link on the way, and a link with ".." in it.
  ASSERT_EQ(0, symlink("target", dir.file("relative").c_str()));
  ASSERT_EQ(0, symlink("../target/inner", dir.file("target/up").c_str()));
  EXPECT_TRUE(TrustedPath::directory(dir.file("relative/inner"), &reason))
      << reason;
  EXPECT_TRUE(TrustedPath::directory(dir.file("relative/up/"), &reason))
      << reason;
  const int fd = TrustedPath::openDirectory(dir.file("relative/up"), &reason);
  ASSERT_LE(0, fd) << reason;
  char real[PATH_MAX];
  ASSERT_NE(nullptr, realpath((target + "/inner").c_str(), real));
  EXPECT_EQ(std::string(real) + "/", TrustedPath::realPathOf(fd));
  close(fd);
}

// An absolute path is walked from the root wherever the process stands,
// even in a folder that has since been removed (whose ".." leads nowhere).
TEST_F(TrustedPathTest, AbsolutePathsAreWalkedFromTheRootWhereverTheCallerStands) {
  const std::string inner = folder("inner", 0700);
  char start[PATH_MAX];
  ASSERT_NE(nullptr, getcwd(start, sizeof start));
  char real[PATH_MAX];
  ASSERT_NE(nullptr, realpath(inner.c_str(), real));
  const std::string gone = folder("gone", 0700);
  std::vector<std::string> places = {inner};
#if !defined(WIDGETENGINE_TEST_EMULATED)
  // Under an emulator with a system image, a process whose folder is gone
  // has no other way to the root than the name "/", which is the image's.
  places.push_back(gone);
#endif
  for (const std::string& where : places) {
    ASSERT_EQ(0, chdir(where.c_str()));
    if (where == gone) {
      ASSERT_EQ(0, rmdir(gone.c_str()));
    }
    const int fd = TrustedPath::openDirectory(inner, &reason);
    const std::string found = fd >= 0 ? TrustedPath::realPathOf(fd) : reason;
    if (fd >= 0) close(fd);
    ASSERT_EQ(0, chdir(start));
    EXPECT_EQ(std::string(real) + "/", found) << where;
  }
}

TEST_F(TrustedPathTest, LinkLoopIsRefusedAndMissingTargetIsMissing) {
  ASSERT_EQ(0, symlink("b", dir.file("a").c_str()));
  ASSERT_EQ(0, symlink("a", dir.file("b").c_str()));
  EXPECT_FALSE(TrustedPath::directory(dir.file("a"), &reason));
  EXPECT_EQ("cannot open the directory " + dir.file("a") + ": " +
                strerror(ELOOP),
            reason);
  ASSERT_EQ(0, symlink("nowhere", dir.file("dangling").c_str()));
  EXPECT_EQ(-1, TrustedPath::openDirectory(dir.file("dangling"), &reason));
  EXPECT_EQ(ENOENT, errno);
  EXPECT_TRUE(TrustedPath::directory(dir.file("dangling"), &reason));
}

TEST_F(TrustedPathTest, LinkAnotherUserMadeIsNeverFollowed) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a link away needs root";
  const std::string target = folder("target", 0700);
  ASSERT_EQ(0, mkdir((target + "/inner").c_str(), 0700));
  const std::string link = dir.file("link");
  ASSERT_EQ(0, symlink(target.c_str(), link.c_str()));
  ASSERT_EQ(0, lchown(link.c_str(), kOtherUser, kOtherUser));
  // The directory it leads to is the caller's own: the link is what is
  // refused, at the end of the path or on the way.
  EXPECT_FALSE(TrustedPath::directory(link, &reason));
  EXPECT_EQ(link + " is a link that belongs to another user (uid 65534)",
            reason);
  EXPECT_FALSE(TrustedPath::directory(link + "/inner/", &reason));
  EXPECT_EQ(link + " is a link that belongs to another user (uid 65534)",
            reason);
  EXPECT_EQ(-1, TrustedPath::walk(link + "/inner", &reason));
  EXPECT_EQ(EPERM, errno);
  // One of root's is followed, as root could change the caller's files
  // anyway.
  ASSERT_EQ(0, lchown(link.c_str(), 0, 0));
  EXPECT_TRUE(TrustedPath::directory(link + "/inner/", &reason)) << reason;
}

}  // namespace
