// SPDX-License-Identifier: Apache-2.0
#include "signature/TrustAnchors.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "testing/TempDir.h"
#include "testing/TestPki.h"

namespace {

TEST(TrustAnchorsTest, EveryPemFileOfTheFolderIsRead) {
  const TestPki& pki = TestPki::get();
  TempDir dir;
  TempDir::writeFile(dir.file("root.pem"), pki.root);
  TempDir::writeFile(dir.file("more.crt"), pki.intermediate + pki.otherRoot);
  TempDir::writeFile(dir.file("README"), pki.root);
  TrustAnchors anchors;
  std::string reason;
  ASSERT_TRUE(anchors.addFolder(dir.path(), &reason)) << reason;
  EXPECT_EQ(3u, anchors.size());
  EXPECT_TRUE(anchors.problems().empty());
}

TEST(TrustAnchorsTest, FilesThatCannotBeTrustedAreLeftOutAndSaid) {
  const TestPki& pki = TestPki::get();
  TempDir dir;
  TempDir::writeFile(dir.file("root.pem"), pki.root);
  TempDir::writeFile(dir.file("broken.pem"), "-----BEGIN CERTIFICATE-----\nxx\n");
  TempDir::writeFile(dir.file("open.pem"), pki.otherRoot);
  ASSERT_EQ(0, chmod(dir.file("open.pem").c_str(), 0666));
  TempDir::writeFile(dir.file("elsewhere"), pki.otherRoot);
  ASSERT_EQ(0, symlink(dir.file("elsewhere").c_str(), dir.file("link.pem").c_str()));
  TrustAnchors anchors;
  std::string reason;
  ASSERT_TRUE(anchors.addFolder(dir.path(), &reason)) << reason;
  EXPECT_EQ(1u, anchors.size());
  ASSERT_EQ(3u, anchors.problems().size());
  EXPECT_EQ(dir.file("broken.pem") + ": holds no PEM certificate", anchors.problems()[0]);
  EXPECT_EQ(0u, anchors.problems()[1].find(dir.file("link.pem") + ": "))
      << anchors.problems()[1];
  EXPECT_NE(std::string::npos, anchors.problems()[2].find(dir.file("open.pem")))
      << anchors.problems()[2];
}

TEST(TrustAnchorsTest, AFolderOthersCanWriteIsRefused) {
  TempDir dir;
  TempDir::writeFile(dir.file("root.pem"), TestPki::get().root);
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0777));
  TrustAnchors anchors;
  std::string reason;
  EXPECT_FALSE(anchors.addFolder(dir.path(), &reason));
  EXPECT_NE(std::string::npos, reason.find(dir.path())) << reason;
  EXPECT_EQ(0u, anchors.size());
  ASSERT_EQ(0, chmod(dir.path().c_str(), 0700));
}

TEST(TrustAnchorsTest, AMissingFolderIsRefused) {
  TempDir dir;
  TrustAnchors anchors;
  std::string reason;
  EXPECT_FALSE(anchors.addFolder(dir.file("none"), &reason));
  EXPECT_FALSE(reason.empty());
}

TEST(TrustAnchorsTest, TextWithoutCertificatesAddsNone) {
  TrustAnchors anchors;
  std::string reason;
  EXPECT_FALSE(anchors.addPem("hello", &reason));
  EXPECT_EQ("holds no PEM certificate", reason);
  EXPECT_EQ(0u, anchors.size());
}

}  // namespace
