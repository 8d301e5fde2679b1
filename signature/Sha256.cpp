// SPDX-License-Identifier: Apache-2.0
#include "signature/Sha256.h"

#include <errno.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <memory>
#include <new>

Sha256::Sha256() : ctx_(EVP_MD_CTX_new()) {
  if (!ctx_) throw std::bad_alloc();
  restart();
}

Sha256::~Sha256() { EVP_MD_CTX_free(ctx_); }

namespace {

// OpenSSL looks the implementation up in its providers whenever it is named
// by EVP_sha256(), under a lock; a file is digested per restart, so the
// lookup is made once and kept for the life of the process.
const EVP_MD* sha256() {
#if OPENSSL_VERSION_NUMBER >= 0x30000000L
  static EVP_MD* const fetched = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  if (fetched) return fetched;
#endif
  return EVP_sha256();
}

}  // namespace

void Sha256::restart() {
  ok_ = EVP_DigestInit_ex(ctx_, sha256(), nullptr) == 1;
}

void Sha256::add(const void* data, size_t size) {
  if (ok_ && size > 0) ok_ = EVP_DigestUpdate(ctx_, data, size) == 1;
}

Sha256::Digest Sha256::finish() {
  // A digest that could not be taken is all zeros, which no file's is
  // (as far as anyone will ever know), so it matches nothing signed.
  Digest digest{};
  unsigned int length = 0;
  if (!ok_ || EVP_DigestFinal_ex(ctx_, digest.data(), &length) != 1 ||
      length != digest.size()) {
    digest.fill(0);
  }
  ok_ = false;
  return digest;
}

bool Sha256::ofFile(int fd, Digest* digest) {
  Sha256 sha;
  const size_t kBlock = 64 * 1024;
  std::unique_ptr<char[]> block(new char[kBlock]);
  for (;;) {
    const ssize_t got = read(fd, block.get(), kBlock);
    if (got == 0) break;
    if (got < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    sha.add(block.get(), static_cast<size_t>(got));
  }
  *digest = sha.finish();
  return true;
}
