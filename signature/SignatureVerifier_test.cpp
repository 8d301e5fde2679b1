// SPDX-License-Identifier: Apache-2.0
#include "signature/SignatureVerifier.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <thread>

#include "testing/SignedPackage.h"
#include "testing/TempDir.h"
#include "testing/TestPki.h"

namespace {

bool contains(const std::vector<std::string>& list, const std::string& item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

std::string joined(const std::vector<std::string>& list) {
  std::string text;
  for (const std::string& item : list) text += item + "\n";
  return text;
}

void replaceOnce(std::string* text, const std::string& from, const std::string& to) {
  const size_t at = text->find(from);
  ASSERT_NE(std::string::npos, at) << from;
  text->replace(at, from.size(), to);
}

class SignatureVerifierTest : public ::testing::Test {
 protected:
  const TestPki& pki = TestPki::get();
  TempDir dir;
  SignedPackage signed_{dir.file("package")};
  TrustAnchors& anchors = signed_.anchors();

  void SetUp() override {
    ASSERT_EQ(0, mkdir(file("images").c_str(), 0700));
    TempDir::writeFile(file("images/icon.png"), std::string("\x89PNG\r\n\x1a\n\0\0", 10));
  }

  std::string package() const { return signed_.path(); }
  std::string file(const std::string& name) const { return signed_.file(name); }

  Verdict verify() const { return signed_.verify(); }

  std::string sign(const TestSigner& signer, SignatureMaker::Role role,
                   bool exclusive = false) {
    return signed_.sign(signer, role, exclusive);
  }
  std::string templateFor(const TestSigner& signer, SignatureMaker::Role role) {
    return signed_.templateFor(signer, role);
  }
  void signTemplate(const std::string& text, const TestSigner& signer,
                    const std::string& name = "author-signature.xml") {
    signed_.signTemplate(text, signer, name);
  }

  // The failures of the only signature, which must be invalid.
  std::vector<std::string> onlyFailures() const {
    const Verdict verdict = verify();
    EXPECT_TRUE(verdict.failures.empty()) << joined(verdict.failures);
    EXPECT_EQ(1u, verdict.signatures.size());
    if (verdict.signatures.size() != 1) return {};
    EXPECT_FALSE(verdict.signatures[0].valid);
    EXPECT_FALSE(verdict.allValid());
    return verdict.signatures[0].failures;
  }
};

TEST_F(SignatureVerifierTest, AnUnsignedPackageHasNoSignatures) {
  const Verdict verdict = verify();
  EXPECT_FALSE(verdict.isSigned());
  EXPECT_FALSE(verdict.allValid());
  EXPECT_TRUE(verdict.failures.empty());
}

TEST_F(SignatureVerifierTest, AnAuthorSignatureHoldsAndSaysWhoSigned) {
  EXPECT_EQ("author-signature.xml", sign(pki.author, SignatureMaker::kAuthor));
  const Verdict verdict = verify();
  ASSERT_EQ(1u, verdict.signatures.size());
  const SignatureVerdict& author = verdict.signatures[0];
  EXPECT_TRUE(author.valid) << joined(author.failures);
  EXPECT_TRUE(author.author);
  EXPECT_TRUE(verdict.allValid());
  EXPECT_EQ(pki.author.subject, author.signerSubject);
  EXPECT_EQ(pki.rootSubject, author.anchorSubject);
  EXPECT_EQ(95u, author.signerFingerprint.size()) << author.signerFingerprint;
  EXPECT_EQ(32u, author.identifier.size());
}

TEST_F(SignatureVerifierTest, AnEcdsaSignatureWithExclusiveCanonicalizationHolds) {
  sign(pki.distributor, SignatureMaker::kAuthor, true);
  const Verdict verdict = verify();
  ASSERT_EQ(1u, verdict.signatures.size());
  EXPECT_TRUE(verdict.signatures[0].valid) << joined(verdict.signatures[0].failures);
  EXPECT_EQ(pki.distributor.subject, verdict.signatures[0].signerSubject);
}

TEST_F(SignatureVerifierTest, DistributorsAreCheckedFromTheHighestNumberDown) {
  sign(pki.author, SignatureMaker::kAuthor);
  EXPECT_EQ("signature1.xml", sign(pki.distributor, SignatureMaker::kDistributor));
  EXPECT_EQ("signature2.xml", sign(pki.distributor, SignatureMaker::kDistributor));
  const Verdict verdict = verify();
  ASSERT_EQ(3u, verdict.signatures.size());
  EXPECT_EQ("author-signature.xml", verdict.signatures[0].file);
  EXPECT_EQ("signature2.xml", verdict.signatures[1].file);
  EXPECT_EQ("signature1.xml", verdict.signatures[2].file);
  EXPECT_FALSE(verdict.signatures[1].author);
  EXPECT_TRUE(verdict.allValid()) << joined(verdict.allFailures());
}

TEST_F(SignatureVerifierTest, ADistributorSignatureCoversTheAuthorSignature) {
  sign(pki.author, SignatureMaker::kAuthor);
  sign(pki.distributor, SignatureMaker::kDistributor);
  // The author signs again: a new identifier, the same files.
  sign(pki.author, SignatureMaker::kAuthor);
  const Verdict verdict = verify();
  ASSERT_EQ(2u, verdict.signatures.size());
  EXPECT_TRUE(verdict.signatures[0].valid) << joined(verdict.signatures[0].failures);
  EXPECT_EQ(std::vector<std::string>{"digest-mismatch: author-signature.xml"},
            verdict.signatures[1].failures);
}

TEST_F(SignatureVerifierTest, AChangedFileIsADigestMismatch) {
  sign(pki.author, SignatureMaker::kAuthor);
  TempDir::writeFile(file("index.html"), "<!DOCTYPE html><p>changed</p>\n");
  EXPECT_EQ(std::vector<std::string>{"digest-mismatch: index.html"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, TheWrittenBytesDecideNotWhatLiesThereLater) {
  sign(pki.author, SignatureMaker::kAuthor);
  const FileDigests written = SignedPackage::digestsOf(package());
  // The same file, changed in place after it was written.
  TempDir::writeFile(file("index.html"), "<!DOCTYPE html><p>changed</p>\n");
  const SignatureVerifier verifier(anchors);
  const Verdict onWritten = verifier.verify(package(), &written);
  EXPECT_TRUE(onWritten.allValid()) << joined(onWritten.allFailures());
  EXPECT_EQ(std::vector<std::string>{"author-signature.xml: digest-mismatch: index.html"},
            verifier.verify(package()).allFailures());
}

TEST_F(SignatureVerifierTest, WrittenBytesThatDifferFromTheSignedOnesAreAMismatch) {
  // Signed as the package is now; written, as far as the table says,
  // with other bytes in index.html.
  TempDir::writeFile(file("index.html"), "<!DOCTYPE html><p>written</p>\n");
  const FileDigests written = SignedPackage::digestsOf(package());
  TempDir::writeFile(file("index.html"), "<!DOCTYPE html><p>clock</p>\n");
  sign(pki.author, SignatureMaker::kAuthor);
  const Verdict verdict = SignatureVerifier(anchors).verify(package(), &written);
  EXPECT_EQ(std::vector<std::string>{"author-signature.xml: digest-mismatch: index.html"},
            verdict.allFailures());
}

TEST_F(SignatureVerifierTest, AFileTheTableDoesNotKnowIsRead) {
  const FileDigests written = SignedPackage::digestsOf(package());
  // Not written by the unpacking: a file of its own, with its own inode.
  TempDir::writeFile(file("late.js"), "late();\n");
  sign(pki.author, SignatureMaker::kAuthor);
  const SignatureVerifier verifier(anchors);
  const Verdict verdict = verifier.verify(package(), &written);
  EXPECT_TRUE(verdict.allValid()) << joined(verdict.allFailures());
  TempDir::writeFile(file("late.js"), "later();\n");
  EXPECT_EQ(std::vector<std::string>{"author-signature.xml: digest-mismatch: late.js"},
            verifier.verify(package(), &written).allFailures());
}

TEST_F(SignatureVerifierTest, AKeyThatDoesNotSuitTheMethodIsFoundBeforeAnyDigest) {
  // An EC signer's document that names RSA, over a file changed since.
  sign(pki.distributor, SignatureMaker::kAuthor);
  std::string document = TempDir::readFile(file("author-signature.xml"));
  replaceOnce(&document, "xmldsig-more#ecdsa-sha256", "xmldsig-more#rsa-sha256");
  TempDir::writeFile(file("author-signature.xml"), document);
  TempDir::writeFile(file("index.html"), "<!DOCTYPE html><p>changed</p>\n");
  const std::vector<std::string> failures = onlyFailures();
  ASSERT_EQ(1u, failures.size()) << joined(failures);
  EXPECT_EQ(0u, failures[0].find("signature-not-processed: ")) << failures[0];
}

TEST_F(SignatureVerifierTest, AChangedPropertyIsADigestMismatch) {
  sign(pki.author, SignatureMaker::kAuthor);
  std::string document = TempDir::readFile(file("author-signature.xml"));
  const size_t at = document.find("<dsp:Identifier>") + strlen("<dsp:Identifier>");
  document[at] = document[at] == 'a' ? 'b' : 'a';
  TempDir::writeFile(file("author-signature.xml"), document);
  EXPECT_EQ(std::vector<std::string>{"digest-mismatch: #prop"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, AChangedSignatureValueIsInvalid) {
  sign(pki.author, SignatureMaker::kAuthor);
  std::string document = TempDir::readFile(file("author-signature.xml"));
  const size_t at = document.find("<SignatureValue>") + strlen("<SignatureValue>") + 10;
  document[at] = document[at] == 'A' ? 'B' : 'A';
  TempDir::writeFile(file("author-signature.xml"), document);
  EXPECT_EQ(std::vector<std::string>{"signature-value-invalid"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, AnExtraFileIsNotReferenced) {
  sign(pki.author, SignatureMaker::kAuthor);
  TempDir::writeFile(file("js/extra.js"), "steal();\n");
  EXPECT_EQ(std::vector<std::string>{"signature-file-not-referenced: js/extra.js"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, AReferenceToAMissingFileIsInvalid) {
  sign(pki.author, SignatureMaker::kAuthor);
  ASSERT_EQ(0, unlink(file("js/app.js").c_str()));
  EXPECT_EQ(std::vector<std::string>{"reference-to-missing-file: js/app.js"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, APercentEncodedPathNamesTheFile) {
  TempDir::writeFile(file("js/my test.js"), "test();\n");
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  replaceOnce(&text, "URI=\"js/app.js\"", "URI=\"js%2Fapp.js\"");
  EXPECT_NE(std::string::npos, text.find("URI=\"js/my%20test.js\""));
  signTemplate(text, pki.author);
  const Verdict verdict = verify();
  ASSERT_EQ(1u, verdict.signatures.size());
  EXPECT_TRUE(verdict.signatures[0].valid) << joined(verdict.signatures[0].failures);
}

TEST_F(SignatureVerifierTest, AFileReferencedTwiceIsInvalid) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  const size_t start = text.find("<Reference URI=\"index.html\">");
  const size_t end = text.find("</Reference>", start) + strlen("</Reference>");
  text.insert(end, text.substr(start, end - start));
  signTemplate(text, pki.author);
  EXPECT_EQ(std::vector<std::string>{"duplicate-reference: index.html"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, AReferenceOutsideThePackageIsRefused) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  replaceOnce(&text, "URI=\"index.html\"", "URI=\"../package/index.html\"");
  TempDir::writeFile(file("author-signature.xml"), text);
  const std::vector<std::string> failures = onlyFailures();
  EXPECT_TRUE(contains(failures, "bad-reference-uri: ../package/index.html")) << joined(failures);
  EXPECT_TRUE(contains(failures, "signature-file-not-referenced: index.html")) << joined(failures);
}

TEST_F(SignatureVerifierTest, AnAuthorSignatureWithTheDistributorRoleIsInvalid) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  replaceOnce(&text, "#role-author", "#role-distributor");
  signTemplate(text, pki.author);
  EXPECT_EQ(std::vector<std::string>{
                "wrong-role: role-distributor in an author signature"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, MissingPropertiesAreNamed) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  const size_t start = text.find("<SignatureProperty Id=\"identifier\"");
  const size_t end = text.find("</SignatureProperty>", start) + strlen("</SignatureProperty>");
  text.erase(start, end - start);
  signTemplate(text, pki.author);
  EXPECT_EQ(std::vector<std::string>{"missing-property: Identifier"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, PropertiesThatAreNotSignedDoNotCount) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  const size_t start = text.find("<Reference URI=\"#prop\">");
  const size_t end = text.find("</Reference>", start) + strlen("</Reference>");
  text.erase(start, end - start);
  signTemplate(text, pki.author);
  EXPECT_EQ(std::vector<std::string>{"properties-not-referenced: #prop"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, AnExpiredCertificateIsNamed) {
  sign(pki.expired, SignatureMaker::kAuthor);
  EXPECT_EQ(std::vector<std::string>{"expired-certificate: " + pki.expired.subject},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, ASignerOutsideTheAnchorsIsUntrusted) {
  sign(pki.stranger, SignatureMaker::kAuthor);
  EXPECT_EQ(std::vector<std::string>{"untrusted-signer: " + pki.stranger.subject},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, WithNoAnchorsNoSignerIsTrusted) {
  sign(pki.author, SignatureMaker::kAuthor);
  TrustAnchors none;
  const Verdict verdict = SignatureVerifier(none).verify(package());
  ASSERT_EQ(1u, verdict.signatures.size());
  EXPECT_EQ(std::vector<std::string>{"untrusted-signer: " + pki.author.subject},
            verdict.signatures[0].failures);
}

TEST_F(SignatureVerifierTest, AnIntermediateCanBeTheAnchor) {
  sign(pki.author, SignatureMaker::kAuthor);
  TrustAnchors intermediateOnly;
  std::string reason;
  ASSERT_TRUE(intermediateOnly.addPem(pki.intermediate, &reason)) << reason;
  const Verdict verdict = SignatureVerifier(intermediateOnly).verify(package());
  ASSERT_EQ(1u, verdict.signatures.size());
  EXPECT_TRUE(verdict.signatures[0].valid) << joined(verdict.signatures[0].failures);
  EXPECT_EQ(pki.intermediateSubject, verdict.signatures[0].anchorSubject);
}

TEST_F(SignatureVerifierTest, CertificatesAreCheckedAtTheTimeGiven) {
  sign(pki.author, SignatureMaker::kAuthor);
  SignatureVerifier verifier(anchors);
  verifier.setTime(time(nullptr) + 2 * 365 * 24 * 3600);
  const Verdict verdict = verifier.verify(package());
  ASSERT_EQ(1u, verdict.signatures.size());
  EXPECT_EQ(std::vector<std::string>{"expired-certificate: " + pki.author.subject},
            verdict.signatures[0].failures);
}

TEST_F(SignatureVerifierTest, AShortRsaKeyIsWeak) {
  sign(pki.weak, SignatureMaker::kAuthor);
  EXPECT_EQ(std::vector<std::string>{"weak-key: 1024-bit RSA in " + pki.weak.subject},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, ASignatureNameInASubfolderIsAnOrdinaryFile) {
  ASSERT_EQ(0, mkdir(file("extra").c_str(), 0700));
  TempDir::writeFile(file("extra/author-signature.xml"), "<x/>");
  sign(pki.author, SignatureMaker::kAuthor);
  Verdict verdict = verify();
  ASSERT_EQ(1u, verdict.signatures.size());
  EXPECT_TRUE(verdict.signatures[0].valid) << joined(verdict.signatures[0].failures);

  TempDir::writeFile(file("js/signature1.xml"), "<x/>");
  EXPECT_EQ(std::vector<std::string>{"signature-file-not-referenced: js/signature1.xml"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, ADocumentThatIsNotXmlIsNotWellFormed) {
  TempDir::writeFile(file("author-signature.xml"), "<Signature><SignedInfo>");
  const std::vector<std::string> failures = onlyFailures();
  ASSERT_EQ(1u, failures.size());
  EXPECT_EQ(0u, failures[0].find("not-well-formed: line 1")) << failures[0];
}

TEST_F(SignatureVerifierTest, EntitiesAreNeverResolved) {
  sign(pki.author, SignatureMaker::kAuthor);
  std::string document = TempDir::readFile(file("author-signature.xml"));
  const size_t root = document.find("<Signature");
  document.insert(root, "<!DOCTYPE Signature [<!ENTITY secret SYSTEM \"file:///etc/passwd\">"
                        "<!ENTITY far SYSTEM \"http://127.0.0.1:9/x\">]>\n");
  replaceOnce(&document, "</dsp:Identifier>", "&secret;&far;</dsp:Identifier>");
  TempDir::writeFile(file("author-signature.xml"), document);
  EXPECT_EQ(std::vector<std::string>{"dtd-not-allowed: a document type declaration"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, AHugeDocumentIsRefusedUnread) {
  sign(pki.author, SignatureMaker::kAuthor);
  std::string document = TempDir::readFile(file("author-signature.xml"));
  replaceOnce(&document, "</Signature>",
              "<Object>" + std::string(2u << 20, 'x') + "</Object></Signature>");
  TempDir::writeFile(file("author-signature.xml"), document);
  EXPECT_EQ(std::vector<std::string>{"document-too-large: more than 1048576 bytes"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, ADocumentOfAnotherKindIsNoSignature) {
  TempDir::writeFile(file("signature1.xml"), "<widget xmlns=\"http://www.w3.org/ns/widgets\"/>");
  EXPECT_EQ(std::vector<std::string>{"not-a-signature: the root element is not ds:Signature"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, ALinkInThePackageIsRefused) {
  sign(pki.author, SignatureMaker::kAuthor);
  ASSERT_EQ(0, symlink("/etc/passwd", file("js/passwd").c_str()));
  const Verdict verdict = verify();
  EXPECT_TRUE(verdict.signatures.empty());
  EXPECT_EQ(std::vector<std::string>{"package-not-readable: js/passwd is a link"},
            verdict.failures);
  EXPECT_FALSE(verdict.allValid());
}

TEST_F(SignatureVerifierTest, OnlyADistributorSignatureIsNotEnough) {
  sign(pki.distributor, SignatureMaker::kDistributor);
  const Verdict verdict = verify();
  ASSERT_EQ(1u, verdict.signatures.size());
  EXPECT_TRUE(verdict.signatures[0].valid) << joined(verdict.signatures[0].failures);
  EXPECT_FALSE(verdict.allValid());
}

TEST_F(SignatureVerifierTest, ASignatureDocumentUnderAnotherRoleIdIsInvalid) {
  std::string text = templateFor(pki.author, SignatureMaker::kDistributor);
  signTemplate(text, pki.author, "author-signature.xml");
  const std::vector<std::string> failures = onlyFailures();
  EXPECT_TRUE(contains(failures, "wrong-signature-id: DistributorSignature")) << joined(failures);
  EXPECT_TRUE(contains(failures, "wrong-role: role-distributor in an author signature"))
      << joined(failures);
}

TEST_F(SignatureVerifierTest, ThreadsCheckPackagesAtTheSameTime) {
  sign(pki.author, SignatureMaker::kAuthor);
  TempDir other;
  SignedPackage changed(other.file("package"));
  changed.sign(pki.author, SignatureMaker::kAuthor);
  TempDir::writeFile(changed.file("js/app.js"), "changed();\n");
  std::vector<std::string> seen(8);
  std::vector<std::thread> threads;
  for (size_t i = 0; i < seen.size(); ++i) {
    threads.emplace_back([&, i] {
      for (int round = 0; round < 5; ++round) {
        const Verdict verdict = i % 2 ? changed.verify() : verify();
        seen[i] = joined(verdict.allFailures());
        if (seen[i] != (i % 2 ? "author-signature.xml: digest-mismatch: js/app.js\n" : ""))
          return;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (size_t i = 0; i < seen.size(); ++i) {
    EXPECT_EQ(i % 2 ? "author-signature.xml: digest-mismatch: js/app.js\n" : "", seen[i]);
  }
}

TEST_F(SignatureVerifierTest, AnAuthorMayNotSignADistributorsSignature) {
  TempDir::writeFile(file("signature1.xml"), "<x/>");
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  replaceOnce(&text, "<Reference URI=\"#prop\">",
              "<Reference URI=\"signature1.xml\"><DigestMethod "
              "Algorithm=\"http://www.w3.org/2001/04/xmlenc#sha256\"/>"
              "<DigestValue></DigestValue></Reference><Reference URI=\"#prop\">");
  signTemplate(text, pki.author);
  const Verdict verdict = verify();
  ASSERT_EQ(2u, verdict.signatures.size());
  EXPECT_EQ(std::vector<std::string>{"reference-to-signature-file: signature1.xml"},
            verdict.signatures[0].failures);
}

TEST_F(SignatureVerifierTest, OnlyThePropertiesAreReferencedInTheDocument) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  replaceOnce(&text, "<Reference URI=\"#prop\">",
              "<Reference URI=\"#role\"><Transforms><Transform "
              "Algorithm=\"http://www.w3.org/2006/12/xml-c14n11\"/></Transforms>"
              "<DigestMethod Algorithm=\"http://www.w3.org/2001/04/xmlenc#sha256\"/>"
              "<DigestValue></DigestValue></Reference><Reference URI=\"#prop\">");
  signTemplate(text, pki.author);
  EXPECT_EQ(std::vector<std::string>{"unexpected-reference: #role"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, AFileIsSignedAsItIs) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  replaceOnce(&text, "<Reference URI=\"config.xml\">",
              "<Reference URI=\"config.xml\"><Transforms><Transform "
              "Algorithm=\"http://www.w3.org/2006/12/xml-c14n11\"/></Transforms>");
  signTemplate(text, pki.author);
  EXPECT_EQ(std::vector<std::string>{"transform-not-allowed: config.xml"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, PropertiesOfAnotherSignatureDoNotCount) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  replaceOnce(&text, "Id=\"role\" Target=\"#AuthorSignature\"",
              "Id=\"role\" Target=\"#DistributorSignature\"");
  signTemplate(text, pki.author);
  EXPECT_EQ(std::vector<std::string>{"wrong-property-target: #DistributorSignature"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, TwoElementsWithOneIdAreRefused) {
  sign(pki.author, SignatureMaker::kAuthor);
  std::string document = TempDir::readFile(file("author-signature.xml"));
  replaceOnce(&document, "</Signature>", "<Object Id=\"prop\"/></Signature>");
  TempDir::writeFile(file("author-signature.xml"), document);
  EXPECT_EQ(std::vector<std::string>{"duplicate-id: prop"}, onlyFailures());
}

TEST_F(SignatureVerifierTest, ASignatureWithoutCertificatesNamesNoSigner) {
  std::string text = templateFor(pki.author, SignatureMaker::kAuthor);
  signTemplate(text, pki.author);
  std::string document = TempDir::readFile(file("author-signature.xml"));
  const size_t start = document.find("<KeyInfo>");
  const size_t end = document.find("</KeyInfo>") + strlen("</KeyInfo>");
  ASSERT_NE(std::string::npos, start);
  const std::string keyInfo = document.substr(start, end - start);
  document.erase(start, end - start);
  TempDir::writeFile(file("author-signature.xml"), document);
  EXPECT_EQ(std::vector<std::string>{
                "missing-certificate: the signature carries no signer certificate"},
            onlyFailures());

  const size_t data = keyInfo.find("<X509Certificate>") + strlen("<X509Certificate>");
  std::string broken = keyInfo;
  broken.insert(data, "AAAA");
  document.insert(start, broken);
  TempDir::writeFile(file("author-signature.xml"), document);
  EXPECT_EQ(std::vector<std::string>{"bad-certificate: a certificate cannot be read"},
            onlyFailures());
}

TEST_F(SignatureVerifierTest, AFileOfManyBlocksIsDigestedWhole) {
  std::string data;
  for (int i = 0; i < 300000; ++i) data += static_cast<char>('a' + i % 23);
  TempDir::writeFile(file("images/large.bin"), data);
  sign(pki.author, SignatureMaker::kAuthor);
  EXPECT_TRUE(verify().allValid()) << joined(verify().allFailures());
  data[data.size() - 1] = '!';
  TempDir::writeFile(file("images/large.bin"), data);
  EXPECT_EQ(std::vector<std::string>{"digest-mismatch: images/large.bin"}, onlyFailures());
}

}  // namespace
