// SPDX-License-Identifier: Apache-2.0
#include "testing/FileWatch.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>

#include "testing/TempDir.h"

namespace {

TEST(FileWatchTest, SeesAFileMadeInAFolderMadeAfterTheWatchBegan) {
  TempDir dir;
  FileWatch watch(dir.path());
  const std::string file = dir.path() + "/a/b/c";
  std::thread maker([&] {
    mkdir((dir.path() + "/a").c_str(), 0755);
    mkdir((dir.path() + "/a/b").c_str(), 0755);
    TempDir::writeFile(file, "c");
  });
  EXPECT_TRUE(watch.waitFor([&] { return TempDir::exists(file); }));
  maker.join();
}

TEST(FileWatchTest, AConditionThatNeverHoldsEndsAtTheDeadline) {
  TempDir dir;
  FileWatch watch(dir.path());
  EXPECT_FALSE(watch.waitFor([] { return false; }, std::chrono::milliseconds(20)));
}

}  // namespace
