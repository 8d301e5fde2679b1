// SPDX-License-Identifier: Apache-2.0
// SignedPackage is an unpacked package folder for the signature tests (a
// config.xml, index.html and js/app.js to begin with), the ways they sign
// it (as SignatureMaker does, or from the maker's template after a test has
// changed it) and a check of it against TestPki's root. Failures are the
// test's. Every check is made twice, reading the files and from a table of
// their digests as an unpacking keeps it, and the two verdicts must agree.
#ifndef WIDGETENGINE_TESTING_SIGNEDPACKAGE_H_
#define WIDGETENGINE_TESTING_SIGNEDPACKAGE_H_

#include <string>

#include "signature/FileDigests.h"
#include "signature/SignatureMaker.h"
#include "signature/SignatureVerifier.h"
#include "testing/TestPki.h"

class SignedPackage {
 public:
  // Makes the folder at path, whose parent must be there.
  explicit SignedPackage(const std::string& path);

  const std::string& path() const { return path_; }
  // The anchors verify() trusts: TestPki's root.
  TrustAnchors& anchors() { return anchors_; }
  Verdict verify() const;
  std::string file(const std::string& name) const { return path_ + "/" + name; }

  // Signs as the maker does; the name of the document written.
  std::string sign(const TestSigner& signer, SignatureMaker::Role role,
                   bool exclusive = false) const;
  // The template the maker fills in for the folder as it is now.
  std::string templateFor(const TestSigner& signer, SignatureMaker::Role role) const;
  // Fills in text with signer and writes the document as name.
  void signTemplate(const std::string& text, const TestSigner& signer,
                    const std::string& name = "author-signature.xml") const;

  // The digests of every file below folder as it is now, as an unpacking
  // that had just written them would have them (as far as they can be
  // taken: see folderdigests::take).
  static FileDigests digestsOf(const std::string& folder);
  // Everything a verdict says, one line a fact, to compare two.
  static std::string describe(const Verdict& verdict);

 private:
  std::string path_;
  TrustAnchors anchors_;
};

#endif  // WIDGETENGINE_TESTING_SIGNEDPACKAGE_H_
