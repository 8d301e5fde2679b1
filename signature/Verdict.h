// SPDX-License-Identifier: Apache-2.0
// A Verdict is what checking a package's signatures found: for each
// signature document, in the order they were processed, whether it holds,
// who signed it and which rules it broke, each as "rule-name: detail".
#ifndef WIDGETENGINE_SIGNATURE_VERDICT_H_
#define WIDGETENGINE_SIGNATURE_VERDICT_H_

#include <string>
#include <vector>

struct SignatureVerdict {
  // The document's path in the package ("author-signature.xml").
  std::string file;
  bool author = false;
  // No rule failed: every file covered, every digest and the signature
  // value right, and the signer's chain reached a trust anchor.
  bool valid = false;
  // The signer certificate's subject and SHA-256 fingerprint, when it
  // could be read, and the subject of the trust anchor its chain reached.
  std::string signerSubject;
  std::string signerFingerprint;
  std::string anchorSubject;
  // The value of the signature's Identifier property.
  std::string identifier;
  std::vector<std::string> failures;
};

struct Verdict {
  // Rules broken by the package as a whole (a folder that cannot be read,
  // a link among its files); no signature of it can hold then.
  std::vector<std::string> failures;
  // Author first, then distributors from the highest number down.
  std::vector<SignatureVerdict> signatures;

  // The package carries any signature document.
  bool isSigned() const { return !signatures.empty(); }
  // The author's signature, null when there is none.
  const SignatureVerdict* author() const;
  // The package carries a valid author signature, and no signature of it,
  // nor the package itself, broke a rule.
  bool allValid() const;
  // Every failure, each preceded by the file it was found in.
  std::vector<std::string> allFailures() const;
};

#endif  // WIDGETENGINE_SIGNATURE_VERDICT_H_
