// SPDX-License-Identifier: Apache-2.0
#include "install/EntryName.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(EntryNameTest, PlainNamesAndFoldersAreAccepted) {
  for (const char* name : {"config.xml", "images/icon.png", "a/b/c.txt", "dir/",
                           "a..b", "..a/b", "with space.txt", "~tilde", "x=1&y"}) {
    EXPECT_TRUE(EntryName::isAccepted(name)) << name;
  }
}

TEST(EntryNameTest, SpecialCharactersAndClimbingAreRefused) {
  for (const char c : std::string("!\"*:<>?\\^`{|}\x7f")) {
    EXPECT_FALSE(EntryName::isAccepted(std::string("a") + c + "b")) << c;
  }
  EXPECT_FALSE(EntryName::isAccepted("caf\xc3\xa9.html"));
  EXPECT_FALSE(EntryName::isAccepted(std::string("tab\there")));
  EXPECT_FALSE(EntryName::isAccepted(std::string("nul\0x", 5)));
  for (const char* name : {"..", "../x", "a/../b", "a/..", "a/../"}) {
    EXPECT_FALSE(EntryName::isAccepted(name)) << name;
  }
}

TEST(EntryNameTest, AFolderIsANameEndingWithASlash) {
  EXPECT_TRUE(EntryName::isFolder("a/"));
  EXPECT_TRUE(EntryName::isFolder("/"));
  EXPECT_FALSE(EntryName::isFolder("a"));
  EXPECT_FALSE(EntryName::isFolder("a/b"));
  EXPECT_FALSE(EntryName::isFolder(""));
}

TEST(EntryNameTest, ANameLibzipDoesNotGiveIsEmpty) {
  zip_stat_t stat;
  zip_stat_init(&stat);
  EXPECT_EQ("", EntryName::of(stat));
  stat.name = "x.txt";
  EXPECT_EQ("", EntryName::of(stat));
  stat.valid |= ZIP_STAT_NAME;
  EXPECT_EQ("x.txt", EntryName::of(stat));
}

}  // namespace
