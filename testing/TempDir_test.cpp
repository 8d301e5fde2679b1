// SPDX-License-Identifier: Apache-2.0
#include "testing/TempDir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "testing/CaptureStdout.h"

TEST(TempDirTest, RemovesTreeButNotWhatALinkPointsAt) {
  TempDir outside;
  TempDir::writeFile(outside.file("keep.txt"), "keep");
  std::string inner;
  {
    TempDir dir;
    inner = dir.path();
    mkdir(dir.file("sub").c_str(), 0755);
    TempDir::writeFile(dir.file("sub/a.txt"), "a");
    ASSERT_EQ(0, symlink(outside.path().c_str(), dir.file("link").c_str()));
  }
  EXPECT_FALSE(TempDir::exists(inner));
  EXPECT_EQ("keep", TempDir::readFile(outside.file("keep.txt")));
}

TEST(CaptureStdoutTest, KeepsPrintfAndStreamInOrder) {
  CaptureStdout out;
  printf("one ");
  std::cout << "two" << std::endl;
  printf("three\n");
  EXPECT_EQ("one two\nthree\n", out.text());
}
