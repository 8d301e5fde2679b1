// SPDX-License-Identifier: Apache-2.0
#include "signature/SignatureFiles.h"

#include <gtest/gtest.h>

namespace {

TEST(SignatureFilesTest, OnlyNamesAtTheRootAreSignatures) {
  EXPECT_EQ(SignatureFiles::kAuthor, SignatureFiles::kindOf("author-signature.xml"));
  EXPECT_EQ(SignatureFiles::kDistributor, SignatureFiles::kindOf("signature1.xml"));
  EXPECT_EQ(SignatureFiles::kDistributor, SignatureFiles::kindOf("signature907.xml"));
  for (const char* name :
       {"js/author-signature.xml", "a/signature1.xml", "signature0.xml",
        "signature01.xml", "signature.xml", "signature1.XML", "Signature1.xml",
        "signature1a.xml", "signature-1.xml", "Author-Signature.xml",
        "author-signature.xml.bak", "config.xml"}) {
    EXPECT_EQ(SignatureFiles::kNone, SignatureFiles::kindOf(name)) << name;
  }
}

TEST(SignatureFilesTest, TheAuthorComesFirstThenDistributorsFromTheHighestDown) {
  const std::vector<std::string> found = SignatureFiles::inProcessingOrder(
      {"signature2.xml", "index.html", "signature10.xml", "author-signature.xml",
       "signature9.xml", "js/signature99.xml", "signature123456789012345678901.xml"});
  const std::vector<std::string> expected = {
      "author-signature.xml", "signature123456789012345678901.xml",
      "signature10.xml", "signature9.xml", "signature2.xml"};
  EXPECT_EQ(expected, found);
}

TEST(SignatureFilesTest, TheNextDistributorNumberIsOneAboveTheHighest) {
  EXPECT_EQ("1", SignatureFiles::nextDistributorNumber({"index.html"}));
  EXPECT_EQ("3", SignatureFiles::nextDistributorNumber({"signature2.xml", "signature1.xml"}));
  EXPECT_EQ("100", SignatureFiles::nextDistributorNumber({"signature99.xml", "signature8.xml"}));
  EXPECT_EQ("signature100.xml", SignatureFiles::distributorName("100"));
}

}  // namespace
