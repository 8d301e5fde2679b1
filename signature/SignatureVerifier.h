// SPDX-License-Identifier: Apache-2.0
// SignatureVerifier checks the signatures of an unpacked package against the
// device's trust anchors: every signature document at the package's root,
// the author's first and then the distributors' from the highest number
// down, each checked on its own and judged in a Verdict. It reads the files
// as they lie in the package's folder, one name at a time through no link,
// and holds no more than one signature document in memory at a time.
//
//   TrustAnchors anchors;
//   anchors.addFolder("/etc/widgetengine/trust-anchors", &reason);
//   Verdict verdict = SignatureVerifier(anchors).verify(widgetFolder);
//
// Given the digests an unpacking took of the files it wrote (FileDigests),
// it compares the references with those rather than reading the files: the
// verdict is then on the bytes as they were written. A file the digests do
// not know is read.
#ifndef WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_
#define WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_

#include <ctime>
#include <set>
#include <string>

#include "signature/CoreSignature.h"
#include "signature/TrustAnchors.h"
#include "signature/Verdict.h"

class FileDigests;

class SignatureVerifier {
 public:
  // anchors must outlive the verifier.
  explicit SignatureVerifier(const TrustAnchors& anchors) : anchors_(anchors) {}

  // Certificates are checked as valid at this time rather than now.
  void setTime(time_t at) { at_ = at; }

  // Checks the package unpacked in the directory open at folderFd (the
  // caller's to close), with the digests of its files as they were written
  // when written is not null.
  Verdict verify(int folderFd, const FileDigests* written = nullptr) const;
  // The same for the directory at path, a link in whose place is refused.
  Verdict verify(const std::string& path, const FileDigests* written = nullptr) const;

 private:
  SignatureVerdict verifyOne(int folderFd, const std::string& file,
                             const std::set<std::string>& files,
                             const CoreSignature::WrittenDigests* written) const;

  const TrustAnchors& anchors_;
  time_t at_ = 0;
};

#endif  // WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_
