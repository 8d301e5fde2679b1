// SPDX-License-Identifier: Apache-2.0
#include "testing/ChildProcess.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "testing/ScopedEnv.h"

namespace {

TEST(ChildProcessTest, ProgramsOutputsAndStatusAreKept) {
  ChildProcess child;
  ASSERT_TRUE(child.start({"/bin/sh", "-c", "echo out; echo err >&2; exit 3"}));
  child.wait();
  EXPECT_TRUE(child.exitedWith(3));
  EXPECT_EQ(3, child.shellStatus());
  EXPECT_FALSE(child.crashed());
  EXPECT_FALSE(child.hung());
  EXPECT_EQ("out\n", child.out());
  EXPECT_EQ("err\n", child.err());
}

TEST(ChildProcessTest, MergedOutputsKeepTheirOrder) {
  ChildProcess child;
  child.mergeOutput();
  ASSERT_TRUE(child.start({"/bin/sh", "-c", "echo one; echo two >&2; echo three"}));
  child.wait();
  EXPECT_EQ("one\ntwo\nthree\n", child.out());
  EXPECT_EQ("", child.err());
}

TEST(ChildProcessTest, EnvironmentIsSetAndUnsetForTheChildAlone) {
  ScopedEnv kept("CHILD_PROCESS_TEST_KEPT", "kept");
  ScopedEnv gone("CHILD_PROCESS_TEST_GONE", "here");
  ChildProcess child;
  child.setEnv("CHILD_PROCESS_TEST_NEW", "");
  child.unsetEnv("CHILD_PROCESS_TEST_GONE");
  ASSERT_TRUE(child.start({"/bin/sh", "-c",
                           "echo \"$CHILD_PROCESS_TEST_KEPT ${CHILD_PROCESS_TEST_NEW-unset}"
                           "${CHILD_PROCESS_TEST_NEW+set} ${CHILD_PROCESS_TEST_GONE-unset}\""}));
  child.wait();
  EXPECT_EQ("kept set unset\n", child.out());
  EXPECT_STREQ("here", getenv("CHILD_PROCESS_TEST_GONE"));
}

TEST(ChildProcessTest, TheChildStartsInItsDirectory) {
  ChildProcess child;
  child.setDirectory("/");
  ASSERT_TRUE(child.start({"/bin/sh", "-c", "pwd"}));
  child.wait();
  EXPECT_EQ("/\n", child.out());
}

TEST(ChildProcessTest, AFunctionRunsInTheChild) {
  const pid_t parent = getpid();
  ChildProcess child;
  ASSERT_TRUE(child.start([&] {
    std::printf("in the child: %d\n", getpid() != parent);
    return 5;
  }));
  child.wait();
  EXPECT_TRUE(child.exitedWith(5));
  EXPECT_EQ("in the child: 1\n", child.out());
}

TEST(ChildProcessTest, AMissingProgramExitsWith127) {
  ChildProcess child;
  ASSERT_TRUE(child.start({"/nonexistent/program"}));
  child.wait();
  EXPECT_TRUE(child.exitedWith(127));
}

TEST(ChildProcessTest, ASignalIsACrashAndAHangIsKilled) {
  ChildProcess killed;
  ASSERT_TRUE(killed.start({"/bin/sleep", "100"}));
  killed.kill(SIGTERM);
  killed.wait();
  EXPECT_TRUE(killed.crashed());
  EXPECT_EQ(128 + SIGTERM, killed.shellStatus());

  ChildProcess hung;
  ASSERT_TRUE(hung.start({"/bin/sleep", "100"}));
  hung.wait(std::chrono::milliseconds(50));
  EXPECT_TRUE(hung.hung());
  EXPECT_FALSE(hung.crashed());
  EXPECT_FALSE(hung.exitedWith(0));
  EXPECT_FALSE(hung.running());
}

TEST(ChildProcessTest, ARunningChildIsKilledWithItsObject) {
  pid_t pid;
  {
    ChildProcess child;
    ASSERT_TRUE(child.start({"/bin/sleep", "100"}));
    pid = child.pid();
  }
  // Reaped: the process id names no child of this process any more.
  EXPECT_EQ(-1, kill(pid, 0));
}

}  // namespace
