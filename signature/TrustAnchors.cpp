// SPDX-License-Identifier: Apache-2.0
#include "signature/TrustAnchors.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>

#include "base/ScopedFd.h"
#include "base/TrustedPath.h"

namespace {

// A file of anchors holds a few certificates; a larger one is not read.
const size_t kLargestFile = 1u << 20;
const size_t kMostFiles = 1000;

bool endsWith(const std::string& text, const char* suffix) {
  const size_t length = strlen(suffix);
  return text.size() >= length &&
         text.compare(text.size() - length, length, suffix) == 0;
}

struct DirClose {
  void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

TrustAnchors::TrustAnchors() : store_(X509_STORE_new()), count_(0) {}

TrustAnchors::~TrustAnchors() { X509_STORE_free(store_); }

bool TrustAnchors::addPem(const std::string& text, std::string* reason) {
  if (!store_) {
    *reason = "out of memory";
    return false;
  }
  std::unique_ptr<BIO, decltype(&BIO_free)> bio(
      BIO_new_mem_buf(text.data(), static_cast<int>(text.size())), BIO_free);
  if (!bio || text.size() > kLargestFile) {
    *reason = "not PEM certificates";
    return false;
  }
  size_t added = 0;
  while (X509* certificate = PEM_read_bio_X509(bio.get(), nullptr, nullptr, nullptr)) {
    // The store takes its own reference; adding one it has is no error.
    X509_STORE_add_cert(store_, certificate);
    X509_free(certificate);
    ++added;
  }
  // Reading stops with an error at the end of the text.
  ERR_clear_error();
  if (added == 0) {
    *reason = "holds no PEM certificate";
    return false;
  }
  count_ += added;
  return true;
}

bool TrustAnchors::addFolder(const std::string& path, std::string* reason) {
  ScopedFd folder(TrustedPath::openDirectory(path, reason));
  if (folder.get() < 0) return false;
  const int listFd = openat(folder.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::unique_ptr<DIR, DirClose> dir(listFd < 0 ? nullptr : fdopendir(listFd));
  if (!dir) {
    if (listFd >= 0) close(listFd);
    *reason = "the trust anchors' folder " + path + " cannot be read: " + strerror(errno);
    return false;
  }
  std::vector<std::string> names;
  while (struct dirent* entry = readdir(dir.get())) {
    const std::string name = entry->d_name;
    if (endsWith(name, ".pem") || endsWith(name, ".crt")) names.push_back(name);
    if (names.size() > kMostFiles) break;
  }
  std::sort(names.begin(), names.end());
  const std::string prefix = path + (endsWith(path, "/") ? "" : "/");
  for (const std::string& name : names) {
    const std::string file = prefix + name;
    ScopedFd fd(openat(folder.get(), name.c_str(),
                       O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    std::string why;
    struct stat st;
    if (fd.get() < 0) {
      problems_.push_back(file + ": " + strerror(errno));
      continue;
    }
    if (!TrustedPath::opened(fd.get(), file, &why)) {
      problems_.push_back(why);
      continue;
    }
    if (fstat(fd.get(), &st) != 0 || !S_ISREG(st.st_mode) ||
        static_cast<size_t>(st.st_size) > kLargestFile) {
      problems_.push_back(file + ": not a plain file of at most 1 MiB");
      continue;
    }
    std::string text;
    char buffer[16384];
    ssize_t got;
    while ((got = ::read(fd.get(), buffer, sizeof(buffer))) > 0 &&
           text.size() <= kLargestFile)
      text.append(buffer, static_cast<size_t>(got));
    if (got < 0 || !addPem(text, &why)) {
      problems_.push_back(file + ": " + (got < 0 ? strerror(errno) : why));
    }
  }
  return true;
}
