// SPDX-License-Identifier: Apache-2.0
// TrustAnchors are the certificates a device maker trusts to vouch for
// signers: roots, or intermediates (a chain may end at any anchor, not only
// at a self-signed one). They are read from PEM files the device maker
// puts in a folder, never from the system's store of web authorities.
#ifndef WIDGETENGINE_SIGNATURE_TRUSTANCHORS_H_
#define WIDGETENGINE_SIGNATURE_TRUSTANCHORS_H_

#include <string>
#include <vector>

typedef struct x509_store_st X509_STORE;

class TrustAnchors {
 public:
  TrustAnchors();
  ~TrustAnchors();
  TrustAnchors(const TrustAnchors&) = delete;
  TrustAnchors& operator=(const TrustAnchors&) = delete;

  // Adds the certificates of every file ending in .pem or .crt in the folder
  // at path. The folder and each file must be the caller's or root's and
  // writable by no one else, and no link is followed. False with *reason
  // when the folder cannot be used; a file that cannot be is left out and
  // said in problems().
  bool addFolder(const std::string& path, std::string* reason);

  // Adds the certificates of PEM text. False with *reason when it holds
  // none or is not PEM.
  bool addPem(const std::string& text, std::string* reason);

  // How many certificates were added.
  size_t size() const { return count_; }
  // Why each file left out was.
  const std::vector<std::string>& problems() const { return problems_; }

  // The store the chains are checked against; it stays the anchors'.
  X509_STORE* store() const { return store_; }

 private:
  X509_STORE* store_;
  size_t count_;
  std::vector<std::string> problems_;
};

#endif  // WIDGETENGINE_SIGNATURE_TRUSTANCHORS_H_
