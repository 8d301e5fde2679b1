// SPDX-License-Identifier: Apache-2.0
#include "signature/ReferenceUri.h"

#include <gtest/gtest.h>

namespace {

TEST(ReferenceUriTest, PercentEscapesAreDecoded) {
  std::string path;
  ASSERT_TRUE(ReferenceUri::toPath("js%2Ftest.js", &path));
  EXPECT_EQ("js/test.js", path);
  ASSERT_TRUE(ReferenceUri::toPath("images/my%20icon.png", &path));
  EXPECT_EQ("images/my icon.png", path);
  ASSERT_TRUE(ReferenceUri::toPath("config.xml", &path));
  EXPECT_EQ("config.xml", path);
}

TEST(ReferenceUriTest, WhatCouldLeaveThePackageNamesNoFile) {
  std::string path;
  for (const char* uri :
       {"", "/etc/passwd", "file:///etc/passwd", "http://127.0.0.1/a.js", "../a.js",
        "a/../../b", "a/./b", "a//b", "a/", "%2e%2e/x", "a%2F..%2Fb", "a%00b",
        "a%2", "a%zz", "a?b", "a#b", "#prop", "a\\b", "a b", "%2Fetc%2Fpasswd"}) {
    EXPECT_FALSE(ReferenceUri::toPath(uri, &path)) << uri;
  }
}

TEST(ReferenceUriTest, APathComesBackAsItWent) {
  for (const char* name : {"index.html", "js/app.js", "a b/c&d.js", "x:y.txt",
                           "caf\xc3\xa9.html", "100%.txt", "q?.js"}) {
    std::string path;
    const std::string uri = ReferenceUri::fromPath(name);
    ASSERT_TRUE(ReferenceUri::toPath(uri, &path)) << uri;
    EXPECT_EQ(name, path);
  }
  EXPECT_EQ("a%20b/c%26d.js", ReferenceUri::fromPath("a b/c&d.js"));
}

// Every byte of a non-ASCII name is written as three: a long name's URI is
// longer than the name, and must still name it.
TEST(ReferenceUriTest, ALongNameWrittenEscapedComesBack) {
  std::string name;
  while (name.size() + 256 <= 4096) name += std::string(254, '\xe9') + "/";
  name += "x";
  const std::string uri = ReferenceUri::fromPath(name);
  ASSERT_GT(uri.size(), 4096u);
  std::string path;
  ASSERT_TRUE(ReferenceUri::toPath(uri, &path));
  EXPECT_EQ(name, path);
  // A path longer than any the system has is no file's.
  EXPECT_FALSE(ReferenceUri::toPath(ReferenceUri::fromPath(name + std::string(4096, 'a')), &path));
}

}  // namespace
