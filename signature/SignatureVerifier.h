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
#ifndef WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_
#define WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_

#include <ctime>
#include <set>
#include <string>

#include "signature/TrustAnchors.h"
#include "signature/Verdict.h"

class SignatureVerifier {
 public:
  // anchors must outlive the verifier.
  explicit SignatureVerifier(const TrustAnchors& anchors) : anchors_(anchors) {}

  // Certificates are checked as valid at this time rather than now.
  void setTime(time_t at) { at_ = at; }

  // Checks the package unpacked in the directory open at folderFd (the
  // caller's to close).
  Verdict verify(int folderFd) const;
  // The same for the directory at path, a link in whose place is refused.
  Verdict verify(const std::string& path) const;

 private:
  SignatureVerdict verifyOne(int folderFd, const std::string& file,
                             const std::set<std::string>& files) const;

  const TrustAnchors& anchors_;
  time_t at_ = 0;
};

#endif  // WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_
