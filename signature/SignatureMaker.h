// SPDX-License-Identifier: Apache-2.0
// SignatureMaker signs an unpacked package as its author or as a
// distributor: it writes the signature document that SignatureVerifier
// accepts, a SHA-256 reference to every file, the profile, role and
// identifier properties, RSA-SHA256 or ECDSA-SHA256 as the key is, and the
// signer's certificate with the rest of its chain.
//
//   SignatureMaker maker;
//   maker.loadSigner("author.key", "author-chain.pem", &reason);
//   maker.sign("unpacked/", SignatureMaker::kAuthor, &written, &reason);
#ifndef WIDGETENGINE_SIGNATURE_SIGNATUREMAKER_H_
#define WIDGETENGINE_SIGNATURE_SIGNATUREMAKER_H_

#include <set>
#include <string>
#include <vector>

typedef struct x509_st X509;
typedef struct evp_pkey_st EVP_PKEY;

class SignatureMaker {
 public:
  enum Role { kAuthor, kDistributor };

  SignatureMaker() = default;
  ~SignatureMaker();
  SignatureMaker(const SignatureMaker&) = delete;
  SignatureMaker& operator=(const SignatureMaker&) = delete;

  // The signer: a private key and its certificate followed by the rest of
  // the chain, all PEM. False with *reason when they cannot be read or the
  // key is not the certificate's, or neither RSA nor EC.
  bool loadSigner(const std::string& keyPath, const std::string& certificatesPath,
                  std::string* reason);
  bool setSigner(const std::string& keyPem, const std::string& certificatesPem,
                 std::string* reason);

  // Canonicalizes with exclusive C14N instead of C14N 1.1.
  void setExclusiveCanonicalization(bool exclusive) { exclusive_ = exclusive; }
  // The Identifier property; by default a fresh random one.
  void setIdentifier(const std::string& identifier) { identifier_ = identifier; }

  // Signs the package in the folder at path: author-signature.xml for the
  // author, signatureN.xml for a distributor (N one more than the highest
  // there). Writes the document in place of any of that name; *written
  // receives its name. False with *reason, nothing written, when it cannot.
  bool sign(const std::string& path, Role role, std::string* written,
            std::string* reason);

  // The document sign() fills in for a package of files (an unsigned
  // template, without the signature files the role leaves out).
  std::string makeTemplate(const std::set<std::string>& files, Role role) const;

  // Fills in a template for the package in the folder open at folderFd.
  bool signTemplate(int folderFd, const std::string& text, std::string* document,
                    std::string* reason) const;

 private:
  void clear();

  EVP_PKEY* key_ = nullptr;
  std::vector<X509*> certificates_;
  bool exclusive_ = false;
  std::string identifier_;
};

#endif  // WIDGETENGINE_SIGNATURE_SIGNATUREMAKER_H_
