// SPDX-License-Identifier: Apache-2.0
// SignatureCheck is the signature step of one installation: under the
// policy in force it checks the unpacked package against the device's trust
// anchors, says whether the policy lets the package in, and makes the row
// the registry keeps of what it found. With the policy off it does nothing.
#ifndef WIDGETENGINE_SIGNATURECHECK_H_
#define WIDGETENGINE_SIGNATURECHECK_H_

#include <nlohmann/json_fwd.hpp>
#include <memory>
#include <string>
#include <vector>

#include "base/Outcome.h"
#include "base/Settings.h"
#include "registry/SqlLite3.h"
#include "signature/FileDigests.h"
#include "signature/SignatureVerifier.h"
#include "signature/TrustAnchors.h"

struct Verdict;

class SignatureCheck {
 public:
  // Takes the policy and the anchors' folder in force now, so that one
  // installation is judged by one policy from start to end.
  SignatureCheck();

  // The host's choice (widgetengine_set_signature_policy) or else
  // WIDGETENGINE_SIGNATURES; the host's folder or else the settings'.
  static settings::SignaturePolicy policy();
  static std::string anchorsFolder();
  static const char* policyName(settings::SignaturePolicy policy);

  // What a verdict says, as the registry keeps it: "signed", "valid",
  // "author" (null or one signature), "distributors" and "failures".
  static nlohmann::json describe(const Verdict& verdict);

  // Checks as report does when the policy is off: an update of a widget
  // whose installed version is signed is judged by its signer whatever the
  // policy. Called before the unpacking starts.
  void atLeastReport();

  // Whether the policy asks for anything at all.
  bool active() const { return policy_ != settings::kSignaturesOff; }

  // Where the unpacking puts the digests of the files it writes, when the
  // policy is on (null when it is off, so that nothing is digested).
  FileDigests* written() { return active() ? &written_ : nullptr; }

  // Reads the trust anchors and checks what of the package's signature
  // documents needs none of its other files, once the unpacking into
  // folder has written the files named in written (every signature
  // document among them) and while it writes the rest. It may run on
  // another thread than check(), which must come after it has returned.
  // Optional: check() does whatever it did not.
  void prepare(const std::string& folder, const std::vector<std::string>& written);

  // Checks the package unpacked in folder, on the digests written() was
  // given as far as they go. A refusal, whose reason names the first rule
  // that failed, when the policy requires signatures and they do not hold;
  // ok otherwise.
  Outcome check(const std::string& folder);

  // What check() found, for the registry.
  const SqlLite3::SignatureRow& row() const { return row_; }
  // Whether check() found a valid author signature (whose signer is
  // row().authorSubject, row().authorFingerprint).
  bool validAuthor() const { return validAuthor_; }

 private:
  void readAnchors();

  settings::SignaturePolicy policy_;
  std::string anchorsFolder_;
  // The anchors as read for this installation, and why their folder could
  // not be used when it could not.
  std::unique_ptr<TrustAnchors> anchors_;
  bool anchorsRead_ = false;
  std::string anchorsUnread_;
  SignatureVerifier::Early early_;
  FileDigests written_;
  SqlLite3::SignatureRow row_;
  bool validAuthor_ = false;
};

#endif  // WIDGETENGINE_SIGNATURECHECK_H_
