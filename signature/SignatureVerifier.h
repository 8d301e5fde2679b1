// SPDX-License-Identifier: Apache-2.0
// SignatureVerifier checks the signatures of an unpacked package against the
// device's trust anchors: every signature document at the package's root,
// the author's first and then the distributors' from the highest number
// down, each checked on its own and judged in a Verdict. It reads the files
// as they lie in the package's folder, one name at a time through no link,
// and holds no more than one signature document in memory at a time
// beyond those prepare() kept, which together are no larger than one.
//
//   TrustAnchors anchors;
//   anchors.addFolder("/etc/widgetengine/trust-anchors", &reason);
//   Verdict verdict = SignatureVerifier(anchors).verify(widgetFolder);
//
// Given the digests an unpacking took of the files it wrote (FileDigests),
// it compares the references with those rather than reading the files: the
// verdict is then on the bytes as they were written. A file the digests do
// not know is read. An unpacking that writes the signature documents first
// can have them checked (prepare()) while it writes the rest, leaving only
// the comparison with the package's files for afterwards.
#ifndef WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_
#define WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_

#include <ctime>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "signature/CoreSignature.h"
#include "signature/TrustAnchors.h"
#include "signature/Verdict.h"

class FileDigests;
class SignatureDocument;

class SignatureVerifier {
 public:
  // A package's signature documents checked as far as they can be before
  // its other files are written (prepare()), for verify() to finish.
  class Early {
   public:
    Early();
    ~Early();
    Early(Early&&) noexcept;
    Early& operator=(Early&&) noexcept;

   private:
    friend class SignatureVerifier;
    struct Document;
    std::vector<std::unique_ptr<Document>> documents_;
  };

  // anchors must outlive the verifier.
  explicit SignatureVerifier(const TrustAnchors& anchors) : anchors_(anchors) {}

  // Certificates are checked as valid at this time rather than now.
  void setTime(time_t at) { at_ = at; }

  // Checks what of the signature documents among rootFiles (paths at the
  // root of the package in the directory open at folderFd, every one of
  // them written in full) needs none of the package's other files: each
  // is read and parsed, its signer's chain checked and its value over
  // SignedInfo computed, for a verify() with written digests. Documents
  // are taken in processing order while their bytes, together, are no
  // more than one document may be; verify() checks the others itself.
  Early prepare(int folderFd, const std::vector<std::string>& rootFiles) const;

  // Checks the package unpacked in the directory open at folderFd (the
  // caller's to close), with the digests of its files as they were written
  // when written is not null, taking what early holds of a signature
  // document that is still the file prepare() read. The verdict is the
  // one a verify() without early gives.
  Verdict verify(int folderFd, const FileDigests* written = nullptr,
                 const Early* early = nullptr) const;
  // The same for the directory at path, a link in whose place is refused.
  Verdict verify(const std::string& path, const FileDigests* written = nullptr,
                 const Early* early = nullptr) const;

 private:
  // Checks the document at file of what needs no other file of the
  // package; its values too when they will be compared with written
  // digests.
  std::unique_ptr<Early::Document> prepareOne(int folderFd, const std::string& file,
                                              bool withValues) const;
  SignatureVerdict finishOne(Early::Document& document, int folderFd,
                             const std::set<std::string>& files,
                             const CoreSignature::WrittenDigests* written) const;

  const TrustAnchors& anchors_;
  time_t at_ = 0;
};

#endif  // WIDGETENGINE_SIGNATURE_SIGNATUREVERIFIER_H_
