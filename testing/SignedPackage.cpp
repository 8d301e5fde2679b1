// SPDX-License-Identifier: Apache-2.0
#include "testing/SignedPackage.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "base/ScopedFd.h"
#include "signature/PackageTree.h"
#include "testing/TempDir.h"

SignedPackage::SignedPackage(const std::string& path) : path_(path) {
  std::string reason;
  EXPECT_TRUE(anchors_.addPem(TestPki::get().root, &reason)) << reason;
  EXPECT_EQ(0, mkdir(path_.c_str(), 0700));
  EXPECT_EQ(0, mkdir(file("js").c_str(), 0700));
  TempDir::writeFile(file("config.xml"),
                     "<widget xmlns=\"http://www.w3.org/ns/widgets\"/>\n");
  TempDir::writeFile(file("index.html"), "<!DOCTYPE html><p>clock</p>\n");
  TempDir::writeFile(file("js/app.js"), "tick();\n");
}

std::string SignedPackage::sign(const TestSigner& signer, SignatureMaker::Role role,
                                bool exclusive) const {
  SignatureMaker maker;
  std::string reason, written;
  EXPECT_TRUE(maker.setSigner(signer.key, signer.chain, &reason)) << reason;
  maker.setExclusiveCanonicalization(exclusive);
  EXPECT_TRUE(maker.sign(path_, role, &written, &reason)) << reason;
  return written;
}

std::string SignedPackage::templateFor(const TestSigner& signer,
                                       SignatureMaker::Role role) const {
  SignatureMaker maker;
  std::string reason;
  EXPECT_TRUE(maker.setSigner(signer.key, signer.chain, &reason)) << reason;
  ScopedFd fd(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  PackageTree tree;
  EXPECT_TRUE(tree.read(fd.get(), &reason)) << reason;
  return maker.makeTemplate(tree.files(), role);
}

void SignedPackage::signTemplate(const std::string& text, const TestSigner& signer,
                                 const std::string& name) const {
  SignatureMaker maker;
  std::string reason, document;
  ASSERT_TRUE(maker.setSigner(signer.key, signer.chain, &reason)) << reason;
  ScopedFd fd(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(maker.signTemplate(fd.get(), text, &document, &reason)) << reason;
  TempDir::writeFile(file(name), document);
}
