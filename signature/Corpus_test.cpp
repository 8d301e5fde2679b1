// SPDX-License-Identifier: Apache-2.0
// Packages signed elsewhere, by other tools, from the shared corpus of real
// widget material (skipped when it is not on this machine).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>

#include "signature/SignatureVerifier.h"
#include "testing/ChildProcess.h"
#include "testing/TempDir.h"

namespace {

// WIDGETENGINE_CORPUS names the corpus folder where it is not the usual one.
std::string corpus() {
  const char* set = getenv("WIDGETENGINE_CORPUS");
  return std::string(set && *set ? set : "/work/shared/corpus") +
         "/vodafone-web-testsuite/dist/";
}

std::string joined(const std::vector<std::string>& list) {
  std::string text;
  for (const std::string& item : list) text += item + "\n";
  return text;
}

// The package unpacked into dir/package; false when it is not there.
bool unpack(const TempDir& dir, const std::string& package) {
  struct stat st;
  if (stat(package.c_str(), &st) != 0) return false;
  ChildProcess unzip;
  unzip.start({"/usr/bin/unzip", "-q", package, "-d", dir.file("package")});
  unzip.wait();
  return unzip.exitedWith(0);
}

TEST(SignatureCorpusTest, ADistributorSignatureFromAnotherToolIsReadThrough) {
  TempDir dir;
  if (!unpack(dir, corpus() + "jil-test-signed/test-jil-Config.wgt"))
    GTEST_SKIP() << "the corpus is not here";
  TrustAnchors none;
  const Verdict verdict = SignatureVerifier(none).verify(dir.file("package"));
  ASSERT_EQ(1u, verdict.signatures.size()) << joined(verdict.failures);
  const SignatureVerdict& signature = verdict.signatures[0];
  EXPECT_EQ("signature1.xml", signature.file);
  EXPECT_FALSE(signature.valid);
  // An early draft's form: another Id, and properties signed without
  // canonicalizing them first.
  EXPECT_EQ((std::vector<std::string>{
                "wrong-signature-id: DistributorASignature",
                "transform-not-allowed: #prop needs exactly one canonicalization",
                "untrusted-signer: CN=Config (tests/jil/Config),O=Vodafone,C=DE"}),
            signature.failures);
  EXPECT_EQ(95u, signature.signerFingerprint.size());
}

TEST(SignatureCorpusTest, AnAuthorSignatureFromAnotherToolIsReadThrough) {
  TempDir dir;
  if (!unpack(dir, corpus() + "developer-signed/test-jil-Config.wgt"))
    GTEST_SKIP() << "the corpus is not here";
  TrustAnchors none;
  const Verdict verdict = SignatureVerifier(none).verify(dir.file("package"));
  ASSERT_EQ(1u, verdict.signatures.size()) << joined(verdict.failures);
  EXPECT_TRUE(verdict.signatures[0].author);
  EXPECT_EQ((std::vector<std::string>{
                "transform-not-allowed: #prop needs exactly one canonicalization",
                "untrusted-signer: CN=Vodafone,OU=JIL,OU=Vodafone,O=Vodafone,"
                "L=D\xc3\xbcsseldorf,ST=North Rhine Westfalia,C=DE"}),
            verdict.signatures[0].failures);
}

}  // namespace
