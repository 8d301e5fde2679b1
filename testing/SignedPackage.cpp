// SPDX-License-Identifier: Apache-2.0
#include "testing/SignedPackage.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/ScopedFd.h"
#include "signature/PackageTree.h"
#include "testing/FolderDigests.h"
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

Verdict SignedPackage::verify() const {
  const SignatureVerifier verifier(anchors_);
  const Verdict read = verifier.verify(path_);
  const FileDigests written = digestsOf(path_);
  EXPECT_EQ(describe(read), describe(verifier.verify(path_, &written)))
      << "the files read and their written digests give different verdicts";
  // As an unpacking that wrote the files at the root first has it: what
  // needs no other file checked before the rest.
  ScopedFd folder(open(path_.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  EXPECT_LE(0, folder.get()) << path_;
  std::vector<std::string> rootFiles;
  for (const auto& entry : std::filesystem::directory_iterator(path_)) {
    if (std::filesystem::is_regular_file(entry.symlink_status()))
      rootFiles.push_back(entry.path().filename().string());
  }
  const SignatureVerifier::Early early = verifier.prepare(folder.get(), rootFiles);
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(describe(read), describe(verifier.verify(folder.get(), &written, &early)))
        << "checking the signature documents ahead gives a different verdict";
  }
  return read;
}

FileDigests SignedPackage::digestsOf(const std::string& folder) {
  // A tree the verifier refuses (a link in it) gives what was taken before
  // the refusal; the verifier reads the package no further either.
  FileDigests digests;
  std::string reason;
  folderdigests::take(folder, &digests, &reason);
  return digests;
}

std::string SignedPackage::describe(const Verdict& verdict) {
  std::string text;
  for (const std::string& failure : verdict.failures) text += failure + "\n";
  for (const SignatureVerdict& one : verdict.signatures) {
    text += one.file + (one.author ? " author" : " distributor") +
            (one.valid ? " valid\n" : " invalid\n");
    text += "  signer " + one.signerSubject + " " + one.signerFingerprint + "\n";
    text += "  anchor " + one.anchorSubject + "\n";
    text += "  identifier " + one.identifier + "\n";
    for (const std::string& failure : one.failures) text += "  " + failure + "\n";
  }
  return text;
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
