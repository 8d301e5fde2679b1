// SPDX-License-Identifier: Apache-2.0
// CertificateChain is the signer's certificate and the others that came with
// it in a signature, checked against the device's trust anchors: a path from
// the signer to an anchor, every certificate valid at the time of the check,
// and a signer whose key may sign.
#ifndef WIDGETENGINE_SIGNATURE_CERTIFICATECHAIN_H_
#define WIDGETENGINE_SIGNATURE_CERTIFICATECHAIN_H_

#include <ctime>
#include <string>
#include <vector>

#include "signature/TrustAnchors.h"

typedef struct x509_st X509;
typedef struct evp_pkey_st EVP_PKEY;

class CertificateChain {
 public:
  CertificateChain() = default;
  ~CertificateChain();
  CertificateChain(const CertificateChain&) = delete;
  CertificateChain& operator=(const CertificateChain&) = delete;

  // Takes the certificates (DER) in any order. The signer is the one that
  // issued none of the others. False with a failed rule on *failures when
  // one cannot be read or no single signer stands out.
  bool read(const std::vector<std::string>& certificates,
            std::vector<std::string>* failures);

  // Checks the signer's chain against anchors at time at. Each failed rule
  // goes on *failures; true when there was none.
  bool verify(const TrustAnchors& anchors, time_t at,
              std::vector<std::string>* failures);

  // The signer's subject ("CN=...,O=..."), the SHA-256 fingerprint of its
  // certificate (upper-case hex pairs joined by ':') and, after a verify()
  // that succeeded, the subject of the anchor the chain reached.
  std::string signerSubject() const;
  std::string signerFingerprint() const;
  const std::string& anchorSubject() const { return anchor_; }

  // The signer's public key, the chain's to keep; null before read().
  EVP_PKEY* signerKey() const;

  // A certificate's subject as the verdicts write it.
  static std::string subjectOf(X509* certificate);

 private:
  X509* signer_ = nullptr;
  std::vector<X509*> all_;
  std::string anchor_;
};

#endif  // WIDGETENGINE_SIGNATURE_CERTIFICATECHAIN_H_
