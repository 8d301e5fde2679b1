// SPDX-License-Identifier: Apache-2.0
// The shared counter: one value for every attachment to a file, in this
// process and in others; refused when someone else could have made or
// written it; gone when its last user lets go.
#include "registry/ChangeCounter.h"

#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "testing/TempDir.h"

namespace {

class ChangeCounterTest : public ::testing::Test {
 protected:
  ChangeCounterTest() {
    TempDir::writeFile(dir.file("widget.db"), "");
    struct stat status;
    stat(dir.file("widget.db").c_str(), &status);
    device = status.st_dev;
    inode = status.st_ino;
  }
  ~ChangeCounterTest() override {
    if (planted >= 0) shmctl(planted, IPC_RMID, nullptr);
  }
  bool segmentExists() const {
    return shmget(ChangeCounter::keyOf(device, inode), 0, 0) >= 0;
  }
  // Makes the file's segment first, as another program or user could; it
  // is removed when the test ends.
  int plant(size_t size, int mode) {
    planted = shmget(ChangeCounter::keyOf(device, inode), size, IPC_CREAT | IPC_EXCL | mode);
    return planted;
  }

  TempDir dir;
  dev_t device = 0;
  ino_t inode = 0;
  int planted = -1;
};

TEST_F(ChangeCounterTest, AttachmentsOfOneFileShareTheValue) {
  ChangeCounter a, b;
  ASSERT_TRUE(a.attach(device, inode));
  ASSERT_TRUE(b.attach(device, inode));
  const uint32_t start = b.read();
  a.bump();
  EXPECT_EQ(start + 1, b.read());
  pid_t child = fork();
  if (child == 0) {
    ChangeCounter c;
    if (!c.attach(device, inode)) _exit(1);
    c.bump();
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(start + 2, a.read());
  EXPECT_TRUE(a.revalidate());
}

TEST_F(ChangeCounterTest, OtherFilesHaveOtherCounters) {
  TempDir::writeFile(dir.file("other.db"), "");
  struct stat status;
  stat(dir.file("other.db").c_str(), &status);
  EXPECT_NE(ChangeCounter::keyOf(device, inode),
            ChangeCounter::keyOf(status.st_dev, status.st_ino));
  ChangeCounter a, b;
  ASSERT_TRUE(a.attach(device, inode));
  ASSERT_TRUE(b.attach(status.st_dev, status.st_ino));
  const uint32_t start = b.read();
  a.bump();
  EXPECT_EQ(start, b.read());
}

TEST_F(ChangeCounterTest, TheLastToLetGoRemovesIt) {
  {
    ChangeCounter a;
    ASSERT_TRUE(a.attach(device, inode));
    {
      ChangeCounter b;
      ASSERT_TRUE(b.attach(device, inode));
    }
    EXPECT_TRUE(segmentExists());
  }
  EXPECT_FALSE(segmentExists());
}

TEST_F(ChangeCounterTest, ACounterRemovedUnderneathIsFoundAgain) {
  ChangeCounter a;
  ASSERT_TRUE(a.attach(device, inode));
  const int old = shmget(ChangeCounter::keyOf(device, inode), 0, 0);
  ASSERT_EQ(0, shmctl(old, IPC_RMID, nullptr));
  ChangeCounter b;
  ASSERT_TRUE(b.attach(device, inode));
  // Until it looks again, a reads a counter nobody moves any more.
  EXPECT_FALSE(a.revalidate());
  EXPECT_TRUE(a.attached());
  const uint32_t start = a.read();
  b.bump();
  EXPECT_EQ(start + 1, a.read());
  EXPECT_TRUE(a.revalidate());
}

TEST_F(ChangeCounterTest, ASegmentOthersMayWriteIsRefused) {
  ASSERT_GE(plant(64, 0666), 0);
  ChangeCounter a;
  EXPECT_FALSE(a.attach(device, inode));
  EXPECT_FALSE(a.attached());
  EXPECT_EQ(0u, a.read());
  a.bump();  // harmless
}

TEST_F(ChangeCounterTest, ASegmentOfAnotherSizeIsRefused) {
  ASSERT_GE(plant(4096, 0600), 0);
  ChangeCounter a;
  EXPECT_FALSE(a.attach(device, inode));
}

TEST_F(ChangeCounterTest, ASegmentOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "making another user's segment needs root";
  ASSERT_GE(plant(64, 0600), 0);
  struct shmid_ds status;
  ASSERT_EQ(0, shmctl(planted, IPC_STAT, &status));
  status.shm_perm.uid = 65534;
  ASSERT_EQ(0, shmctl(planted, IPC_SET, &status));
  ChangeCounter a;
  EXPECT_FALSE(a.attach(device, inode));
}

TEST_F(ChangeCounterTest, ASegmentOnlyItsOwnerMayReadIsNoHarm) {
  // Another user's private segment under the key cannot even be looked at:
  // the counter is simply not used.
  if (geteuid() != 0) GTEST_SKIP() << "making another user's segment needs root";
  ASSERT_GE(plant(64, 0600), 0);
  struct shmid_ds status;
  ASSERT_EQ(0, shmctl(planted, IPC_STAT, &status));
  status.shm_perm.uid = 65534;
  status.shm_perm.mode = 0600;
  ASSERT_EQ(0, shmctl(planted, IPC_SET, &status));
  pid_t child = fork();
  if (child == 0) {
    // As an ordinary user, who cannot read it.
    if (setuid(4242) != 0) _exit(2);
    ChangeCounter c;
    _exit(c.attach(device, inode) ? 1 : 0);
  }
  int result = 0;
  waitpid(child, &result, 0);
  EXPECT_TRUE(WIFEXITED(result) && WEXITSTATUS(result) == 0) << result;
}

}  // namespace
