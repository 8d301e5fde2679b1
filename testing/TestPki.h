// SPDX-License-Identifier: Apache-2.0
// TestPki is a small certificate authority for the signature tests, made
// once per test program with OpenSSL: a root, an intermediate under it, and
// signers under the intermediate (RSA, EC, one expired, one with a key too
// short), plus a stranger under a root no device trusts. Everything is PEM
// text; a signer's chain is its certificate followed by its issuers'.
#ifndef WIDGETENGINE_TESTING_TESTPKI_H_
#define WIDGETENGINE_TESTING_TESTPKI_H_

#include <string>

struct TestSigner {
  std::string key;      // PEM private key
  std::string chain;    // PEM certificates, the signer's first
  std::string subject;  // as the verdicts write it ("CN=...,O=...")
};

class TestPki {
 public:
  // The one made for this process.
  static const TestPki& get();

  std::string root;          // PEM certificate of the trusted root
  std::string intermediate;  // PEM certificate of the intermediate
  std::string otherRoot;     // PEM certificate of a root no device trusts
  std::string rootSubject;
  std::string intermediateSubject;

  TestSigner author;       // RSA 2048
  TestSigner distributor;  // EC P-256
  TestSigner expired;      // EC, valid until yesterday
  TestSigner weak;         // RSA 1024
  TestSigner stranger;     // EC under otherRoot, which its chain carries

 private:
  TestPki();
};

#endif  // WIDGETENGINE_TESTING_TESTPKI_H_
