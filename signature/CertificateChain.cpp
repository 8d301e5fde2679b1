// SPDX-License-Identifier: Apache-2.0
#include "signature/CertificateChain.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <memory>
#include <string>

#include "signature/Vocabulary.h"

namespace {

// More than any real chain; each is a few kilobytes.
const size_t kMostCertificates = 10;
// Below this an RSA key is too weak to vouch for anything.
const int kSmallestRsaBits = 2048;

}  // namespace

CertificateChain::~CertificateChain() {
  for (X509* certificate : all_) X509_free(certificate);
}

std::string CertificateChain::subjectOf(X509* certificate) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  if (!bio || !certificate) return std::string();
  X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0,
                     XN_FLAG_RFC2253 & ~ASN1_STRFLGS_ESC_MSB);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return length > 0 ? std::string(data, static_cast<size_t>(length)) : std::string();
}

bool CertificateChain::read(const std::vector<std::string>& certificates,
                            std::vector<std::string>* failures) {
  if (certificates.empty()) {
    failures->push_back("missing-certificate: the signature carries no signer certificate");
    return false;
  }
  if (certificates.size() > kMostCertificates) {
    failures->push_back("bad-certificate: more than " +
                        std::to_string(kMostCertificates) + " certificates");
    return false;
  }
  for (const std::string& der : certificates) {
    const unsigned char* at = reinterpret_cast<const unsigned char*>(der.data());
    X509* certificate = d2i_X509(nullptr, &at, static_cast<long>(der.size()));
    if (!certificate ||
        at != reinterpret_cast<const unsigned char*>(der.data()) + der.size()) {
      X509_free(certificate);
      ERR_clear_error();
      failures->push_back("bad-certificate: a certificate cannot be read");
      return false;
    }
    all_.push_back(certificate);
  }
  // The signer issued no other certificate of the set.
  for (X509* candidate : all_) {
    bool issuedAnother = false;
    for (X509* other : all_) {
      if (other != candidate && X509_check_issued(candidate, other) == X509_V_OK)
        issuedAnother = true;
    }
    if (issuedAnother) continue;
    if (signer_) {
      failures->push_back("bad-certificate: the certificates make no single chain");
      signer_ = nullptr;
      return false;
    }
    signer_ = candidate;
  }
  if (!signer_) {
    failures->push_back("bad-certificate: the certificates make no single chain");
    return false;
  }
  return true;
}

bool CertificateChain::verify(const TrustAnchors& anchors, time_t at,
                              std::vector<std::string>* failures) {
  anchor_.clear();
  if (!signer_) return false;
  const size_t before = failures->size();
  const std::string subject = signerSubject();

  const uint32_t usage = X509_get_key_usage(signer_);
  if (usage != UINT32_MAX &&
      !(usage & (X509v3_KU_DIGITAL_SIGNATURE | X509v3_KU_NON_REPUDIATION)))
    failures->push_back("key-usage: " + subject + " may not sign");
  EVP_PKEY* key = X509_get0_pubkey(signer_);
  if (!key) {
    failures->push_back("bad-certificate: no public key in " + subject);
  } else if (EVP_PKEY_base_id(key) == EVP_PKEY_RSA &&
             EVP_PKEY_get_bits(key) < kSmallestRsaBits) {
    failures->push_back("weak-key: " + std::to_string(EVP_PKEY_get_bits(key)) +
                        "-bit RSA in " + subject);
  }

  std::unique_ptr<STACK_OF(X509), void (*)(STACK_OF(X509)*)> untrusted(
      sk_X509_new_null(), [](STACK_OF(X509)* s) { sk_X509_free(s); });
  std::unique_ptr<X509_STORE_CTX, decltype(&X509_STORE_CTX_free)> context(
      X509_STORE_CTX_new(), X509_STORE_CTX_free);
  if (!untrusted || !context) {
    failures->push_back("internal: out of memory");
    return false;
  }
  for (X509* certificate : all_) {
    if (certificate != signer_) sk_X509_push(untrusted.get(), certificate);
  }
  if (X509_STORE_CTX_init(context.get(), anchors.store(), signer_,
                          untrusted.get()) != 1) {
    ERR_clear_error();
    failures->push_back("internal: the chain cannot be checked");
    return false;
  }
  // An anchor may be an intermediate: the chain ends at the first anchor.
  X509_VERIFY_PARAM* param = X509_STORE_CTX_get0_param(context.get());
  X509_VERIFY_PARAM_set_flags(param, X509_V_FLAG_PARTIAL_CHAIN);
  X509_VERIFY_PARAM_set_time(param, at);
  const int verified = X509_verify_cert(context.get());
  ERR_clear_error();
  if (verified == 1) {
    STACK_OF(X509)* chain = X509_STORE_CTX_get0_chain(context.get());
    if (chain && sk_X509_num(chain) > 0)
      anchor_ = subjectOf(sk_X509_value(chain, sk_X509_num(chain) - 1));
  } else {
    const int error = X509_STORE_CTX_get_error(context.get());
    const std::string where =
        subjectOf(X509_STORE_CTX_get_current_cert(context.get()));
    switch (error) {
      case X509_V_ERR_CERT_HAS_EXPIRED:
        failures->push_back(std::string(signatureVocabulary::kExpiredCertificate) + ": " + where);
        break;
      case X509_V_ERR_CERT_NOT_YET_VALID:
        failures->push_back(std::string(signatureVocabulary::kCertificateNotYetValid) + ": " + where);
        break;
      case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
      case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
      case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
      case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
      case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
        failures->push_back(std::string(signatureVocabulary::kUntrustedSigner) + ": " + subject);
        break;
      default:
        failures->push_back("bad-certificate: " + where + ": " +
                            X509_verify_cert_error_string(error));
    }
  }
  return failures->size() == before;
}

std::string CertificateChain::signerSubject() const { return subjectOf(signer_); }

std::string CertificateChain::signerFingerprint() const {
  if (!signer_) return std::string();
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (X509_digest(signer_, EVP_sha256(), digest, &length) != 1) return std::string();
  std::string text;
  char pair[4];
  for (unsigned int i = 0; i < length; ++i) {
    snprintf(pair, sizeof(pair), i == 0 ? "%02X" : ":%02X", digest[i]);
    text += pair;
  }
  return text;
}

EVP_PKEY* CertificateChain::signerKey() const {
  return signer_ ? X509_get0_pubkey(signer_) : nullptr;
}
