// SPDX-License-Identifier: Apache-2.0
#include "base/UrlPath.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(UrlPathTest, PlainPathsStayInside) {
  for (const char* path : {"index.html", "a/b/c.png", "locales/fr/index.html",
                           "a/../b.html", "./x", "a//b", "", "dots.../x",
                           "...", "a/..b/c", "index.html?../../..", "x#/../../.."}) {
    EXPECT_TRUE(UrlPath::staysInside(path)) << path;
  }
}

TEST(UrlPathTest, PathsTheBrowserResolvesOutsideAreCaught) {
  for (const char* path :
       {"../x", "a/../../x", "%2e%2e/etc/passwd", "%2E%2E/x", ".%2e/x",
        "a/%2e%2e/%2e%2e/x", "..\\x", "a\\..\\..\\x", "%2e%2e%2fx",
        "%2e%2e%5cx", "a/b/../../../x", "..", "a/../.."}) {
    EXPECT_FALSE(UrlPath::staysInside(path)) << path;
  }
}

TEST(UrlPathTest, EscapesAreDecodedOnceAndBrokenOnesKeptAsTheyAre) {
  EXPECT_TRUE(UrlPath::staysInside("%252e%252e/x"));  // "%2e%2e" once decoded
  EXPECT_TRUE(UrlPath::staysInside("%2"));
  EXPECT_TRUE(UrlPath::staysInside("%zz/x"));
  EXPECT_FALSE(UrlPath::staysInside("%2e."));
}

TEST(UrlPathTest, LongPathsCostOnePass) {
  std::string deep;
  for (int i = 0; i < 100000; ++i) deep += "a/";
  for (int i = 0; i < 100000; ++i) deep += "../";
  EXPECT_TRUE(UrlPath::staysInside(deep));
  EXPECT_FALSE(UrlPath::staysInside(deep + ".."));
  EXPECT_TRUE(UrlPath::staysInside(std::string(1 << 20, '%')));
}

}  // namespace
