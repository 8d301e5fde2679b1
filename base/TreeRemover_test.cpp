// SPDX-License-Identifier: Apache-2.0
#include "base/TreeRemover.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/TempDir.h"

namespace {

// A user id that is neither root nor the caller.
constexpr uid_t kOtherUser = 65534;

int openDirectory(const std::string& path) {
  return open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

std::string currentDirectory() {
  char buffer[PATH_MAX];
  return getcwd(buffer, sizeof buffer) ? buffer : "";
}

int openDescriptors() {
  int count = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  while (const dirent* entry = readdir(dir)) {
    if (entry->d_name[0] != '.') ++count;
  }
  closedir(dir);
  return count - 1;  // the listing's own
}

// A chain of depth folders below path, each holding a file, made from
// descriptors so that no path grows with the depth.
void makeChain(const std::string& path, int depth) {
  ASSERT_EQ(0, mkdir(path.c_str(), 0755));
  int fd = openDirectory(path);
  ASSERT_GE(fd, 0);
  for (int i = 0; i < depth; ++i) {
    ASSERT_EQ(0, mkdirat(fd, "d", 0755));
    const int file = openat(fd, "f", O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    ASSERT_GE(file, 0);
    close(file);
    const int next = openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    close(fd);
    ASSERT_GE(next, 0);
    fd = next;
  }
  close(fd);
}

// Runs body in a child process as kOtherUser and gives its exit status: 77
// when the child cannot become that user, -1 when it did not exit.
template <typename Body>
int asOtherUser(Body body) {
  ChildProcess child;
  if (!child.start([&] {
        if (setgid(kOtherUser) != 0 || setuid(kOtherUser) != 0) return 77;
        return static_cast<int>(body());
      })) {
    return -1;
  }
  child.wait();
  return child.crashed() || child.hung() ? -1 : child.shellStatus();
}

class TreeRemoverTest : public ::testing::Test {
 protected:
  // A folder that kOtherUser owns, for the tests that run as that user,
  // who cannot open a folder of mode 0 as root could.
  std::string home() {
    const std::string path = dir.file("home");
    mkdir(path.c_str(), 0755);
    EXPECT_EQ(0, chown(path.c_str(), kOtherUser, kOtherUser));
    chmod(dir.path().c_str(), 0755);
    return path;
  }

  // Empties the directory at path with a TreeRemover that records the
  // errno of every folder it could not open.
  bool removeContents(const std::string& path) {
    const int fd = openDirectory(path);
    EXPECT_GE(fd, 0) << path;
    if (fd < 0) return false;
    const TreeRemover remover([this](int error) { failures.push_back(error); });
    const bool listed = remover.removeContents(fd);
    close(fd);
    return listed;
  }

  TempDir dir;
  std::vector<int> failures;
};

TEST_F(TreeRemoverTest, EmptiesNestedFoldersAndKeepsTheTop) {
  const std::string top = dir.file("top");
  ASSERT_EQ(0, mkdir(top.c_str(), 0755));
  ASSERT_EQ(0, mkdir((top + "/a").c_str(), 0755));
  ASSERT_EQ(0, mkdir((top + "/a/b").c_str(), 0755));
  ASSERT_EQ(0, mkdir((top + "/empty").c_str(), 0700));
  TempDir::writeFile(top + "/a/b/c.txt", "c");
  TempDir::writeFile(top + "/a/.hidden", "h");
  TempDir::writeFile(top + "/file", "f");
  ASSERT_EQ(0, mkfifo((top + "/a/fifo").c_str(), 0600));
  const std::string before = currentDirectory();

  EXPECT_TRUE(removeContents(top));
  EXPECT_TRUE(TempDir::isDirectory(top));
  EXPECT_TRUE(TempDir::listDirectory(top).empty());
  EXPECT_TRUE(failures.empty());
  EXPECT_EQ(before, currentDirectory());
}

TEST_F(TreeRemoverTest, LinksGoButNeverWhatTheyPointAt) {
  TempDir outside;
  TempDir::writeFile(outside.file("precious.txt"), "keep");
  ASSERT_EQ(0, mkdir(outside.file("folder").c_str(), 0755));
  TempDir::writeFile(outside.file("folder/inner.txt"), "keep");
  const std::string top = dir.file("top");
  ASSERT_EQ(0, mkdir(top.c_str(), 0755));
  ASSERT_EQ(0, mkdir((top + "/sub").c_str(), 0755));
  ASSERT_EQ(0, symlink(outside.path().c_str(), (top + "/sub/toDir").c_str()));
  ASSERT_EQ(0, symlink(outside.file("folder").c_str(), (top + "/toFolder").c_str()));
  ASSERT_EQ(0, symlink(outside.file("precious.txt").c_str(),
                       (top + "/toFile").c_str()));
  ASSERT_EQ(0, symlink("..", (top + "/sub/up").c_str()));
  ASSERT_EQ(0, symlink("/nowhere/at/all", (top + "/dangling").c_str()));

  EXPECT_TRUE(removeContents(top));
  EXPECT_TRUE(TempDir::listDirectory(top).empty());
  EXPECT_EQ("keep", TempDir::readFile(outside.file("precious.txt")));
  EXPECT_EQ("keep", TempDir::readFile(outside.file("folder/inner.txt")));
  EXPECT_TRUE(TempDir::exists(dir.file("top")));
}

TEST_F(TreeRemoverTest, ADescriptorThatIsNoDirectoryIsNotListed) {
  TempDir::writeFile(dir.file("file"), "f");
  const int fd = open(dir.file("file").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(TreeRemover().removeContents(fd));
  close(fd);
  EXPECT_EQ("f", TempDir::readFile(dir.file("file")));
}

TEST_F(TreeRemoverTest, TreesDeeperThanTheDescriptorBoundGoWhole) {
  const int depth = 40 * TreeRemover::kOpenLevels;
  const std::string top = dir.file("deep");
  makeChain(top, depth);

  // With one descriptor per level this could not get past a few dozen
  // levels: the limit leaves room for the bound and little more.
  struct rlimit saved;
  ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &saved));
  const int inUse = openDescriptors();
  ASSERT_GT(inUse, 0);
  struct rlimit tight = saved;
  tight.rlim_cur = static_cast<rlim_t>(inUse + TreeRemover::kOpenLevels + 8);
  ASSERT_LT(tight.rlim_cur, static_cast<rlim_t>(depth));
  const int fd = openDirectory(top);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &tight));
  const bool listed = TreeRemover().removeContents(fd);
  ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &saved));
  close(fd);

  EXPECT_TRUE(listed);
  EXPECT_TRUE(TempDir::listDirectory(top).empty());
  EXPECT_EQ(inUse, openDescriptors());
}

TEST_F(TreeRemoverTest, UnreadableFoldersAreSaidAndTheRestGoes) {
  const std::string top = home() + "/top";
  const int status = asOtherUser([&] {
    if (mkdir(top.c_str(), 0755) != 0 || mkdir((top + "/closed").c_str(), 0755) != 0 ||
        mkdir((top + "/open").c_str(), 0755) != 0) {
      return 10;
    }
    TempDir::writeFile(top + "/closed/inside", "x");
    TempDir::writeFile(top + "/open/f", "x");
    TempDir::writeFile(top + "/g", "x");
    if (chmod((top + "/closed").c_str(), 0) != 0) return 11;
    std::vector<int> errors;
    const int fd = openDirectory(top);
    if (fd < 0) return 12;
    if (!TreeRemover([&](int error) { errors.push_back(error); }).removeContents(fd)) {
      return 13;
    }
    return errors == std::vector<int>{EACCES} ? 0 : 14;
  });
  if (status == 77) GTEST_SKIP() << "no other user to run as";
  EXPECT_EQ(0, status);
  EXPECT_EQ(std::vector<std::string>{"closed"}, TempDir::listDirectory(top));
  EXPECT_EQ(std::vector<std::string>{"inside"},
            TempDir::listDirectory(top + "/closed"));
}

// A folder the walk has left and must open again is replaced, while the walk
// is deeper down, by another folder or by a link to one. The walk gives that
// part up rather than removing what is in the newcomer.
void expectSwappedFolderIsLeftAlone(const std::string& home, bool byLink) {
  const std::string top = home + "/top";
  const std::string other = home + "/other";
  const int depth = 3 * TreeRemover::kOpenLevels;
  const int status = asOtherUser([&] {
    makeChain(top, depth);
    if (::testing::Test::HasFatalFailure()) return 10;
    // The bottom folder cannot be opened: its failure, told while the walk is
    // at the bottom, is when the swap is made.
    std::string bottom = top;
    for (int i = 0; i < depth; ++i) bottom += "/d";
    if (mkdir((bottom + "/closed").c_str(), 0) != 0) return 11;
    if (mkdir(other.c_str(), 0755) != 0 || mkdir((other + "/d").c_str(), 0755) != 0)
      return 12;
    TempDir::writeFile(other + "/f", "keep");
    bool swapped = false;
    const TreeRemover remover([&](int) {
      if (swapped) return;
      swapped = true;
      if (rename((top + "/d/d").c_str(), (home + "/moved").c_str()) != 0) return;
      if (byLink) {
        if (symlink(other.c_str(), (top + "/d/d").c_str()) != 0) return;
      } else if (rename(other.c_str(), (top + "/d/d").c_str()) != 0) {
        return;
      }
    });
    const int fd = openDirectory(top);
    if (fd < 0) return 13;
    const bool listed = remover.removeContents(fd);
    close(fd);
    return listed && swapped ? 0 : 14;
  });
  if (status == 77) GTEST_SKIP() << "no other user to run as";
  EXPECT_EQ(0, status);
  const std::string newcomer = byLink ? other : top + "/d/d";
  EXPECT_EQ("keep", TempDir::readFile(newcomer + "/f"));
  EXPECT_TRUE(TempDir::isDirectory(newcomer + "/d"));
  if (byLink) {
    struct stat link;
    ASSERT_EQ(0, lstat((top + "/d/d").c_str(), &link));
    EXPECT_TRUE(S_ISLNK(link.st_mode));
  }
}

TEST_F(TreeRemoverTest, AFolderSwappedForAnotherIsNotEmptied) {
  expectSwappedFolderIsLeftAlone(home(), false);
}

TEST_F(TreeRemoverTest, AFolderSwappedForALinkIsNotFollowed) {
  expectSwappedFolderIsLeftAlone(home(), true);
}

}  // namespace
