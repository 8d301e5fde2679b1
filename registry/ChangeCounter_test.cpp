// SPDX-License-Identifier: Apache-2.0
// The shared counter: one value for every attachment to a file, in this
// process and in others; refused when someone else could have made or
// written it; gone when its last user lets go, and once its file is gone
// when that user was killed; never kept by a process after its removal.
#include "registry/ChangeCounter.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "registry/SqlLite3.h"
#include "testing/ChildProcess.h"
#include "testing/RegistryTestUtil.h"
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
  const std::string path = dir.file("widget.db");
  dev_t device = 0;
  ino_t inode = 0;
  int planted = -1;
};

TEST_F(ChangeCounterTest, AttachmentsOfOneFileShareTheValue) {
  ChangeCounter a, b;
  ASSERT_TRUE(a.attach(device, inode, path));
  ASSERT_TRUE(b.attach(device, inode, path));
  const uint32_t start = b.read();
  a.bump();
  EXPECT_EQ(start + 1, b.read());
  ChildProcess child;
  child.start([&] {
    ChangeCounter c;
    if (!c.attach(device, inode, path)) return 1;
    c.bump();
    return 0;
  });
  child.wait();
  ASSERT_TRUE(child.exitedWith(0));
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
  ASSERT_TRUE(a.attach(device, inode, path));
  ASSERT_TRUE(b.attach(status.st_dev, status.st_ino, dir.file("other.db")));
  const uint32_t start = b.read();
  a.bump();
  EXPECT_EQ(start, b.read());
}

TEST_F(ChangeCounterTest, TheLastToLetGoRemovesIt) {
  {
    ChangeCounter a;
    ASSERT_TRUE(a.attach(device, inode, path));
    {
      ChangeCounter b;
      ASSERT_TRUE(b.attach(device, inode, path));
    }
    EXPECT_TRUE(segmentExists());
  }
  EXPECT_FALSE(segmentExists());
}

TEST_F(ChangeCounterTest, ACounterRemovedUnderneathIsFoundAgain) {
  ChangeCounter a;
  ASSERT_TRUE(a.attach(device, inode, path));
  const int old = shmget(ChangeCounter::keyOf(device, inode), 0, 0);
  ASSERT_EQ(0, shmctl(old, IPC_RMID, nullptr));
  ChangeCounter b;
  ASSERT_TRUE(b.attach(device, inode, path));
  // Until it looks again, a reads a counter nobody moves any more.
  EXPECT_FALSE(a.revalidate());
  EXPECT_TRUE(a.attached());
  const uint32_t start = a.read();
  b.bump();
  EXPECT_EQ(start + 1, a.read());
  EXPECT_TRUE(a.revalidate());
}

TEST_F(ChangeCounterTest, ASegmentOthersMayWriteIsRefused) {
  ASSERT_GE(plant(ChangeCounter::kSegmentSize, 0666), 0);
  ChangeCounter a;
  EXPECT_FALSE(a.attach(device, inode, path));
  EXPECT_FALSE(a.attached());
  EXPECT_EQ(0u, a.read());
  a.bump();  // harmless
}

TEST_F(ChangeCounterTest, ASegmentOfAnotherSizeIsRefused) {
  ASSERT_GE(plant(64, 0600), 0);
  ChangeCounter a;
  EXPECT_FALSE(a.attach(device, inode, path));
}

TEST_F(ChangeCounterTest, ASegmentOfAnotherUserIsRefused) {
  if (geteuid() != 0) GTEST_SKIP() << "making another user's segment needs root";
  ASSERT_GE(plant(ChangeCounter::kSegmentSize, 0600), 0);
  struct shmid_ds status;
  ASSERT_EQ(0, shmctl(planted, IPC_STAT, &status));
  status.shm_perm.uid = 65534;
  ASSERT_EQ(0, shmctl(planted, IPC_SET, &status));
  ChangeCounter a;
  EXPECT_FALSE(a.attach(device, inode, path));
}

TEST_F(ChangeCounterTest, ASegmentOnlyItsOwnerMayReadIsNoHarm) {
  // Another user's private segment under the key cannot even be looked at:
  // the counter is simply not used.
  if (geteuid() != 0) GTEST_SKIP() << "making another user's segment needs root";
  ASSERT_GE(plant(ChangeCounter::kSegmentSize, 0600), 0);
  struct shmid_ds status;
  ASSERT_EQ(0, shmctl(planted, IPC_STAT, &status));
  status.shm_perm.uid = 65534;
  status.shm_perm.mode = 0600;
  ASSERT_EQ(0, shmctl(planted, IPC_SET, &status));
  ChildProcess child;
  child.start([&] {
    // As an ordinary user, who cannot read it.
    if (setuid(4242) != 0) return 2;
    ChangeCounter c;
    return c.attach(device, inode, path) ? 1 : 0;
  });
  child.wait();
  EXPECT_TRUE(child.exitedWith(0)) << child.shellStatus();
}

// The segment of the registry file at path, or -1.
int segmentOf(const std::string& path) {
  struct stat status;
  if (stat(path.c_str(), &status) != 0) return -1;
  return shmget(ChangeCounter::keyOf(status.st_dev, status.st_ino), 0, 0);
}

bool segmentAlive(int id) {
  struct shmid_ds status;
  return shmctl(id, IPC_STAT, &status) == 0;
}

// Starts in child an engine on the registry in folder: it looks a widget up
// (which attaches the registry's counter), then writes a byte to ready and,
// unless finish, waits to be killed.
void startEngine(ChildProcess& child, const std::string& folder, int ready,
                 bool finish) {
  child.setEnv("YRA_DATA_PATH", folder + "/");
  child.start([&] {
    SqlLite3 db;
    std::string name;
    if (!db.isOpen()) return 2;
    db.getNameByLaunchURL("file:///nothing", name);
    char c = 'r';
    if (write(ready, &c, 1) != 1) return 3;
    if (!finish) {
      for (;;) pause();
    }
    return 0;
  });
}

}  // namespace

TEST_F(ChangeCounterTest, CountersLeftByKilledEnginesGoOnceTheirRegistryIsGone) {
#if defined(WIDGETENGINE_TEST_EMULATED)
  const int kRegistries = 60;
#else
  const int kRegistries = 300;
#endif
  std::vector<std::string> folders;
  std::vector<int> segments;
  int taken = 0;
  int ready[2];
  ASSERT_EQ(0, pipe(ready));
  for (int i = 0; i < kRegistries; ++i) {
    folders.push_back(dir.file("r" + std::to_string(i)));
    ASSERT_EQ(0, mkdir(folders.back().c_str(), 0700));
    ChildProcess engine;
    startEngine(engine, folders.back(), ready[1], false);
    const pid_t pid = engine.pid();
    ASSERT_GT(pid, 0);
    char c;
    ASSERT_EQ(1, read(ready[0], &c, 1)) << i;
    engine.kill(SIGKILL);
    engine.wait();
    ASSERT_TRUE(engine.crashed()) << i;
    // Killed while attached: the counter it made is left behind. (Under
    // a key that a segment of another program holds, it made none.)
    const int id = segmentOf(folders.back() + "/widget.db");
    struct shmid_ds segment;
    if (id >= 0 && shmctl(id, IPC_STAT, &segment) == 0 && segment.shm_cpid == pid) {
      segments.push_back(id);
    } else {
      segments.push_back(-1);
      ++taken;
    }
  }
  std::printf("killed engines: registries=%d counters-left=%d keys-taken=%d\n",
              kRegistries, kRegistries - taken, taken);
  ASSERT_LE(taken, kRegistries / 10);
  // All registries but one go away; then one engine runs.
  size_t live = 0;
  while (segments[live] < 0) ++live;
  for (int i = 0; i < kRegistries; ++i) {
    if (static_cast<size_t>(i) != live) {
      ASSERT_EQ(0, unlink((folders[i] + "/widget.db").c_str()));
    }
  }
  const std::string caller = dir.file("caller");
  ASSERT_EQ(0, mkdir(caller.c_str(), 0700));
  ChildProcess engine;
  startEngine(engine, caller, ready[1], true);
  char c;
  ASSERT_EQ(1, read(ready[0], &c, 1));
  engine.wait();
  ASSERT_TRUE(engine.exitedWith(0)) << engine.shellStatus();
  close(ready[0]);
  close(ready[1]);

  int left = 0;
  for (size_t i = 0; i < segments.size(); ++i) {
    if (i != live && segments[i] >= 0 && segmentAlive(segments[i])) ++left;
  }
  EXPECT_EQ(0, left) << "counters left of " << kRegistries - 1 - taken
                     << " registries that are gone";
  // The registry that is still there keeps its counter, which its next
  // engine finds again; once the registry goes, so does the counter.
  EXPECT_TRUE(segmentAlive(segments[live]));
  EXPECT_EQ(segments[live], segmentOf(folders[live] + "/widget.db"));
  ASSERT_EQ(0, unlink((folders[live] + "/widget.db").c_str()));
  EXPECT_GE(ChangeCounter::reclaim(), 1);
  EXPECT_FALSE(segmentAlive(segments[live]));
}

TEST_F(ChangeCounterTest, ACounterInUseIsNeverReclaimed) {
  ChangeCounter a;
  ASSERT_TRUE(a.attach(device, inode, path));
  ASSERT_EQ(0, unlink(path.c_str()));
  ChangeCounter::reclaim();
  EXPECT_TRUE(segmentExists());
  EXPECT_TRUE(a.revalidate());
}

TEST_F(ChangeCounterTest, ACounterWhoseInodeNowBelongsToAnotherFileIsReclaimed) {
  ChildProcess child;
  child.start([&] {
    ChangeCounter c;
    c.attach(device, inode, path);
    kill(getpid(), SIGKILL);
    return 1;
  });
  child.wait();
  ASSERT_TRUE(child.crashed());
  const int id = shmget(ChangeCounter::keyOf(device, inode), 0, 0);
  ASSERT_GE(id, 0);
  // The name now leads to another file, put in its place in one step as a
  // restored copy would be (so that no moment without a file lets another
  // test's engine reclaim the counter first): the counter counted for one
  // that is gone. Made while the first still existed, the new file cannot
  // have its inode.
  const std::string copy = dir.file("restored");
  TempDir::writeFile(copy, "");
  ASSERT_EQ(0, rename(copy.c_str(), path.c_str()));
  struct stat now;
  ASSERT_EQ(0, stat(path.c_str(), &now));
  ASSERT_FALSE(now.st_ino == inode && now.st_dev == device);
  ChangeCounter::reclaim();
  EXPECT_FALSE(segmentAlive(id));
}

TEST_F(ChangeCounterTest, AttachingWhileTheLastUserLetsGoFindsTheLiveCounter) {
  // One process attaches and lets go without end, so that the counter is
  // removed and made again all the time; here a new attachment is taken in
  // every round, and another process, attached anew in every round too,
  // moves the counter: the value read here must have moved at once.
  registrytest::CounterChurn racer(path);
  ASSERT_TRUE(racer.running());
  int go[2], done[2];
  ASSERT_EQ(0, pipe(go));
  ASSERT_EQ(0, pipe(done));
  const int kRounds = registrytest::raceRounds(20000);
  ChildProcess writer;
  writer.start([&] {
    close(go[1]);
    close(done[0]);
    char c;
    while (read(go[0], &c, 1) == 1) {
      {
        ChangeCounter w;
        c = w.attach(device, inode, path) ? 'y' : 'n';
        w.bump();
      }
      if (write(done[1], &c, 1) != 1) return 1;
    }
    return 0;
  });
  close(go[0]);
  close(done[1]);
  // Every round ends one way: not attached here, or attached and the
  // writer's move seen at once (fresh) or not (stale).
  int fresh = 0, stale = 0, refused = 0, writerRefused = 0;
  for (int round = 0; round < kRounds; ++round) {
    ChangeCounter o;
    if (!o.attach(device, inode, path)) {
      ++refused;
      continue;
    }
    const uint32_t before = o.read();
    char c = 'x';
    ASSERT_EQ(1, write(go[1], &c, 1));
    ASSERT_EQ(1, read(done[0], &c, 1));
    if (c != 'y') ++writerRefused;
    if (o.read() != before + 1)
      ++stale;
    else
      ++fresh;
  }
  close(go[1]);
  close(done[0]);
  writer.wait();
  EXPECT_TRUE(writer.exitedWith(0));
  EXPECT_TRUE(racer.stop());
  std::printf("change-counter race: rounds=%d fresh=%d stale=%d refused=%d "
              "writer-refused=%d\n",
              kRounds, fresh, stale, refused, writerRefused);
  EXPECT_EQ(kRounds, fresh + stale + refused);
  EXPECT_EQ(kRounds, fresh);
  EXPECT_EQ(0, refused);
  EXPECT_EQ(0, writerRefused);
  EXPECT_EQ(0, stale) << "of " << kRounds << " rounds";
  // Two that let go at once may each see the other still attached, and
  // leave the counter; it goes with its file.
  ASSERT_EQ(0, unlink(path.c_str()));
  ChangeCounter::reclaim();
  EXPECT_FALSE(segmentExists());
}
