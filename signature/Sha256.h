// SPDX-License-Identifier: Apache-2.0
// Sha256 takes the SHA-256 digest of bytes handed to it piece by piece, so
// that a file can be digested as it is written or read, a block at a time,
// without being held whole.
#ifndef WIDGETENGINE_SIGNATURE_SHA256_H_
#define WIDGETENGINE_SIGNATURE_SHA256_H_

#include <array>
#include <cstddef>

typedef struct evp_md_ctx_st EVP_MD_CTX;

class Sha256 {
 public:
  typedef std::array<unsigned char, 32> Digest;

  // Throws std::bad_alloc when OpenSSL has no memory for the context.
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  // Begins a new digest, forgetting whatever was added before.
  void restart();
  void add(const void* data, size_t size);
  // The digest of everything added since the last restart.
  Digest finish();

  // The digest of the file open at fd, read from where it stands to its
  // end. False with errno set when it cannot be read.
  static bool ofFile(int fd, Digest* digest);

 private:
  EVP_MD_CTX* ctx_;
  bool ok_ = false;
};

#endif  // WIDGETENGINE_SIGNATURE_SHA256_H_
