// SPDX-License-Identifier: Apache-2.0
// What the maker writes verifies with the xmlsec1 command-line tool, and
// what that tool signs verifies with SignatureVerifier: the two read the
// same documents alike.
#include "signature/SignatureMaker.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "base/ScopedFd.h"
#include "signature/CertificateChain.h"
#include "signature/CoreSignature.h"
#include "signature/SignatureDocument.h"
#include "signature/SignatureVerifier.h"
#include "testing/ChildProcess.h"
#include "testing/SignedPackage.h"
#include "testing/TempDir.h"
#include "testing/TestPki.h"

namespace {

std::string joined(const std::vector<std::string>& list) {
  std::string text;
  for (const std::string& item : list) text += item + "\n";
  return text;
}

// The PEM certificates of text, one by one.
std::vector<std::string> certificatesOf(const std::string& text) {
  const std::string end = "-----END CERTIFICATE-----\n";
  std::vector<std::string> found;
  size_t start = 0, at;
  while ((at = text.find(end, start)) != std::string::npos) {
    found.push_back(text.substr(start, at + end.size() - start));
    start = at + end.size();
  }
  return found;
}

// Tells xmlsec1 that the Id of an Object is an ID, which no DTD says.
const char* const kIdAttribute[] = {"--id-attr:Id",
                                    "http://www.w3.org/2000/09/xmldsig#:Object"};

class SignatureMakerTest : public ::testing::Test {
 protected:
  const TestPki& pki = TestPki::get();
  TempDir dir;
  SignedPackage signed_{dir.file("package")};

  void SetUp() override {
    TempDir::writeFile(package() + "/js/my app.js", "tick();\n");
    TempDir::writeFile(dir.file("root.pem"), pki.root);
  }

  std::string package() const { return signed_.path(); }

  // Runs xmlsec1 with arguments in the package folder, where the files its
  // references name are; its exit status, and its output in *output.
  int xmlsec1(std::vector<std::string> arguments, std::string* output) {
    ChildProcess xmlsec1;
    xmlsec1.mergeOutput();
    xmlsec1.setDirectory(package());
    // The command (--sign, --verify) first, then the options.
    arguments.insert(arguments.begin() + 1, std::begin(kIdAttribute),
                     std::end(kIdAttribute));
    arguments.insert(arguments.begin(), "/usr/bin/xmlsec1");
    xmlsec1.start(arguments);
    xmlsec1.wait();
    *output = xmlsec1.out();
    return xmlsec1.shellStatus();
  }

  void sign(const TestSigner& signer, SignatureMaker::Role role, bool exclusive) {
    signed_.sign(signer, role, exclusive);
  }

  void expectXmlsec1Verifies(const std::string& name) {
    std::string output;
    EXPECT_EQ(0, xmlsec1({"--verify", "--trusted-pem", dir.file("root.pem"), name},
                         &output))
        << output;
  }

  std::string templateFor(SignatureMaker::Role role, const TestSigner& signer) {
    return signed_.templateFor(signer, role);
  }

  // Signs text with xmlsec1 and signer into the package as name.
  void xmlsec1Sign(const std::string& text, const TestSigner& signer,
                   const std::string& name) {
    TempDir::writeFile(dir.file("template.xml"), text);
    TempDir::writeFile(dir.file("key.pem"), signer.key);
    const std::vector<std::string> chain = certificatesOf(signer.chain);
    std::string files = dir.file("key.pem");
    for (size_t i = 0; i < chain.size(); ++i) {
      const std::string file = dir.file("chain" + std::to_string(i) + ".pem");
      TempDir::writeFile(file, chain[i]);
      files += "," + file;
    }
    std::string output;
    ASSERT_EQ(0, xmlsec1({"--sign", "--privkey-pem", files, "--output", name,
                          dir.file("template.xml")},
                         &output))
        << output;
  }

  Verdict verify() const { return signed_.verify(); }
};

TEST_F(SignatureMakerTest, AnAuthorSignatureVerifiesWithXmlsec1) {
  sign(pki.author, SignatureMaker::kAuthor, false);
  expectXmlsec1Verifies("author-signature.xml");
}

TEST_F(SignatureMakerTest, AnEcdsaDistributorSignatureVerifiesWithXmlsec1) {
  sign(pki.author, SignatureMaker::kAuthor, false);
  sign(pki.distributor, SignatureMaker::kDistributor, true);
  expectXmlsec1Verifies("author-signature.xml");
  expectXmlsec1Verifies("signature1.xml");
}

TEST_F(SignatureMakerTest, Xmlsec1CatchesAChangedFileToo) {
  sign(pki.author, SignatureMaker::kAuthor, false);
  TempDir::writeFile(package() + "/index.html", "<p>changed</p>\n");
  std::string output;
  EXPECT_NE(0, xmlsec1({"--verify", "--trusted-pem", dir.file("root.pem"),
                        "author-signature.xml"},
                       &output));
}

TEST_F(SignatureMakerTest, WhatXmlsec1SignsVerifies) {
  xmlsec1Sign(templateFor(SignatureMaker::kAuthor, pki.author), pki.author,
              "author-signature.xml");
  xmlsec1Sign(templateFor(SignatureMaker::kDistributor, pki.distributor),
              pki.distributor, "signature1.xml");
  const Verdict verdict = verify();
  ASSERT_EQ(2u, verdict.signatures.size());
  EXPECT_TRUE(verdict.allValid()) << joined(verdict.allFailures());
  EXPECT_EQ(pki.author.subject, verdict.signatures[0].signerSubject);
  EXPECT_EQ(pki.distributor.subject, verdict.signatures[1].signerSubject);
}

TEST_F(SignatureMakerTest, Sha1IsRefused) {
  std::string text = templateFor(SignatureMaker::kAuthor, pki.author);
  const std::string sha256 = "http://www.w3.org/2001/04/xmlenc#sha256";
  size_t at;
  while ((at = text.find(sha256)) != std::string::npos)
    text.replace(at, sha256.size(), "http://www.w3.org/2000/09/xmldsig#sha1");
  const std::string rsa = "http://www.w3.org/2001/04/xmldsig-more#rsa-sha256";
  text.replace(text.find(rsa), rsa.size(), "http://www.w3.org/2000/09/xmldsig#rsa-sha1");
  xmlsec1Sign(text, pki.author, "author-signature.xml");
  const Verdict verdict = verify();
  ASSERT_EQ(1u, verdict.signatures.size());
  const std::vector<std::string>& failures = verdict.signatures[0].failures;
  EXPECT_FALSE(verdict.signatures[0].valid);
  EXPECT_NE(failures.end(),
            std::find(failures.begin(), failures.end(), "weak-algorithm: rsa-sha1"))
      << joined(failures);
  EXPECT_NE(failures.end(), std::find(failures.begin(), failures.end(), "weak-algorithm: sha1"))
      << joined(failures);

  // libxmlsec itself runs none of them either.
  SignatureDocument document("author-signature.xml", true);
  std::vector<std::string> found;
  ASSERT_TRUE(document.parse(TempDir::readFile(package() + "/author-signature.xml"), &found));
  const std::set<std::string> files = {"config.xml", "index.html", "js/app.js",
                                       "js/my app.js"};
  document.check(files, &found);
  EXPECT_FALSE(document.readyForValues());
  found.clear();
  CertificateChain chain;
  ASSERT_TRUE(chain.read(document.certificates(), &found));
  ScopedFd folder(open(package().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  EXPECT_FALSE(CoreSignature::verify(document.signatureElement(), chain.signerKey(),
                                     folder.get(), files, nullptr, &found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(0u, found[0].find("signature-not-processed: ")) << found[0];
  // Nor does the check on the digests an unpacking took.
  found.clear();
  const CoreSignature::WrittenDigests none;
  EXPECT_FALSE(CoreSignature::verify(document.signatureElement(), chain.signerKey(),
                                     folder.get(), files, &none, &found));
  ASSERT_EQ(1u, found.size());
  EXPECT_EQ(0u, found[0].find("signature-not-processed: ")) << found[0];
}

TEST_F(SignatureMakerTest, ADistributorTakesTheNextNumber) {
  TempDir::writeFile(package() + "/signature7.xml", "<x/>");
  SignatureMaker maker;
  std::string reason, written;
  ASSERT_TRUE(maker.setSigner(pki.distributor.key, pki.distributor.chain, &reason));
  ASSERT_TRUE(maker.sign(package(), SignatureMaker::kDistributor, &written, &reason))
      << reason;
  EXPECT_EQ("signature8.xml", written);
  // Nothing else was left behind.
  const std::vector<std::string> names = TempDir::listDirectory(package());
  EXPECT_EQ((std::vector<std::string>{"config.xml", "index.html", "js", "signature7.xml",
                                      "signature8.xml"}),
            names);
}

TEST_F(SignatureMakerTest, AKeyThatIsNotTheCertificatesIsRefused) {
  SignatureMaker maker;
  std::string reason;
  EXPECT_FALSE(maker.setSigner(pki.author.key, pki.distributor.chain, &reason));
  EXPECT_EQ("the key is not the first certificate's", reason);
  EXPECT_FALSE(maker.setSigner("not a key", pki.author.chain, &reason));
  EXPECT_EQ("the key is not a PEM private key", reason);
  EXPECT_FALSE(maker.setSigner(pki.author.key, "", &reason));
  EXPECT_EQ("no PEM certificate", reason);
  std::string written;
  EXPECT_FALSE(maker.sign(package(), SignatureMaker::kAuthor, &written, &reason));
  EXPECT_EQ("no signer", reason);
  EXPECT_FALSE(TempDir::exists(package() + "/author-signature.xml"));
}

TEST_F(SignatureMakerTest, SignersAreReadFromFiles) {
  TempDir::writeFile(dir.file("author.key"), pki.author.key);
  TempDir::writeFile(dir.file("author.pem"), pki.author.chain);
  SignatureMaker maker;
  std::string reason, written;
  ASSERT_TRUE(maker.loadSigner(dir.file("author.key"), dir.file("author.pem"), &reason))
      << reason;
  maker.setIdentifier("release-1.0");
  ASSERT_TRUE(maker.sign(package(), SignatureMaker::kAuthor, &written, &reason)) << reason;
  const Verdict verdict = verify();
  ASSERT_EQ(1u, verdict.signatures.size());
  EXPECT_TRUE(verdict.signatures[0].valid) << joined(verdict.signatures[0].failures);
  EXPECT_EQ("release-1.0", verdict.signatures[0].identifier);
  EXPECT_FALSE(maker.loadSigner(dir.file("missing.key"), dir.file("author.pem"), &reason));
  EXPECT_EQ(dir.file("missing.key") + ": No such file or directory", reason);
}

}  // namespace
