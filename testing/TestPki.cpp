// SPDX-License-Identifier: Apache-2.0
#include "testing/TestPki.h"

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdlib>
#include <memory>

namespace {

typedef std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> KeyPtr;
typedef std::unique_ptr<X509, decltype(&X509_free)> CertPtr;

void require(bool ok, const char* what) {
  if (!ok) {
    fprintf(stderr, "TestPki: %s failed\n", what);
    abort();
  }
}

KeyPtr rsaKey(unsigned int bits) {
  KeyPtr key(EVP_RSA_gen(bits), EVP_PKEY_free);
  require(key != nullptr, "RSA key generation");
  return key;
}

KeyPtr ecKey() {
  KeyPtr key(EVP_EC_gen("P-256"), EVP_PKEY_free);
  require(key != nullptr, "EC key generation");
  return key;
}

void addExtension(X509* certificate, X509* issuer, int nid, const char* value) {
  X509V3_CTX ctx;
  X509V3_set_ctx_nodb(&ctx);
  X509V3_set_ctx(&ctx, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &ctx, nid, value);
  require(extension != nullptr, "certificate extension");
  X509_add_ext(certificate, extension, -1);
  X509_EXTENSION_free(extension);
}

// A certificate for key named cn, issued by issuer (itself when null) with
// issuerKey, valid from `from` to `until` seconds from now.
CertPtr certify(EVP_PKEY* key, const char* cn, X509* issuer, EVP_PKEY* issuerKey,
                bool ca, long from, long until) {
  static long serial = 1;
  CertPtr certificate(X509_new(), X509_free);
  require(certificate != nullptr, "X509_new");
  X509* c = certificate.get();
  X509_set_version(c, 2);
  ASN1_INTEGER_set(X509_get_serialNumber(c), serial++);
  X509_gmtime_adj(X509_getm_notBefore(c), from);
  X509_gmtime_adj(X509_getm_notAfter(c), until);
  X509_set_pubkey(c, key);
  X509_NAME* name = X509_get_subject_name(c);
  // Most significant first, as real names are: written (RFC 2253) the
  // other way round, "CN=...,O=...".
  X509_NAME_add_entry_by_txt(name, "O", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>("Widget Tests"), -1,
                             -1, 0);
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(cn), -1, -1, 0);
  X509* signer = issuer ? issuer : c;
  X509_set_issuer_name(c, X509_get_subject_name(signer));
  addExtension(c, signer, NID_basic_constraints, ca ? "critical,CA:TRUE" : "critical,CA:FALSE");
  addExtension(c, signer, NID_key_usage,
               ca ? "critical,keyCertSign,cRLSign" : "critical,digitalSignature");
  addExtension(c, signer, NID_subject_key_identifier, "hash");
  addExtension(c, signer, NID_authority_key_identifier, "keyid:always");
  require(X509_sign(c, issuerKey ? issuerKey : key, EVP_sha256()) > 0, "X509_sign");
  return certificate;
}

std::string pem(X509* certificate) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_X509(bio.get(), certificate);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

std::string pem(EVP_PKEY* key) {
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(BIO_new(BIO_s_mem()), BIO_free);
  PEM_write_bio_PrivateKey(bio.get(), key, nullptr, nullptr, 0, nullptr, nullptr);
  char* data = nullptr;
  const long length = BIO_get_mem_data(bio.get(), &data);
  return std::string(data, static_cast<size_t>(length));
}

const long kDay = 24 * 60 * 60;

TestSigner signer(KeyPtr key, const char* cn, X509* issuer, EVP_PKEY* issuerKey,
                  long from, long until) {
  CertPtr certificate = certify(key.get(), cn, issuer, issuerKey, false, from, until);
  TestSigner made;
  made.key = pem(key.get());
  made.chain = pem(certificate.get()) + pem(issuer);
  made.subject = std::string("CN=") + cn + ",O=Widget Tests";
  return made;
}

}  // namespace

const TestPki& TestPki::get() {
  static const TestPki* made = new TestPki();
  return *made;
}

// The authorities' keys, and the signers' but two, are EC: making an RSA key
// takes a good part of a second, and every test program makes its own.
TestPki::TestPki() {
  KeyPtr rootKey = ecKey();
  CertPtr rootCert = certify(rootKey.get(), "Test Root", nullptr, nullptr, true,
                             -kDay, 3650 * kDay);
  KeyPtr intermediateKey = ecKey();
  CertPtr intermediateCert =
      certify(intermediateKey.get(), "Test Intermediate", rootCert.get(),
              rootKey.get(), true, -kDay, 3650 * kDay);
  KeyPtr otherKey = ecKey();
  CertPtr otherCert = certify(otherKey.get(), "Other Root", nullptr, nullptr, true,
                              -kDay, 3650 * kDay);
  root = pem(rootCert.get());
  intermediate = pem(intermediateCert.get());
  otherRoot = pem(otherCert.get());
  rootSubject = "CN=Test Root,O=Widget Tests";
  intermediateSubject = "CN=Test Intermediate,O=Widget Tests";

  X509* issuer = intermediateCert.get();
  EVP_PKEY* issuerKey = intermediateKey.get();
  author = signer(rsaKey(2048), "Test Author", issuer, issuerKey, -kDay, 365 * kDay);
  distributor = signer(ecKey(), "Test Distributor", issuer, issuerKey, -kDay, 365 * kDay);
  expired = signer(ecKey(), "Expired Author", issuer, issuerKey, -30 * kDay, -kDay);
  weak = signer(rsaKey(1024), "Weak Author", issuer, issuerKey, -kDay, 365 * kDay);
  stranger = signer(ecKey(), "Stranger", otherCert.get(), otherKey.get(), -kDay,
                    365 * kDay);
}
