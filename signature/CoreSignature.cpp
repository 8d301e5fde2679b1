// SPDX-License-Identifier: Apache-2.0
#include "signature/CoreSignature.h"

#include <errno.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <unistd.h>
#include <xmlsec/crypto.h>
#include <xmlsec/errors.h>
#include <xmlsec/io.h>
#include <xmlsec/openssl/evp.h>
#include <xmlsec/openssl/x509.h>
#include <xmlsec/xmldsig.h>
#include <xmlsec/xmlsec.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>

#include "signature/PackageTree.h"
#include "signature/ReferenceUri.h"

namespace {

// The package folder of the check running on this thread (-1 outside one)
// and its files, and where the first complaint libxmlsec makes goes.
thread_local int currentFolder = -1;
thread_local const std::set<std::string>* currentFiles = nullptr;
thread_local std::string* currentError = nullptr;

// While one lives, references on this thread read the files below folderFd.
class FolderScope {
 public:
  FolderScope(int folderFd, const std::set<std::string>& files) {
    currentFolder = folderFd;
    currentFiles = &files;
  }
  ~FolderScope() {
    currentFolder = -1;
    currentFiles = nullptr;
  }
  FolderScope(const FolderScope&) = delete;
  FolderScope& operator=(const FolderScope&) = delete;
};

// The input callbacks that libxmlsec reads a reference's URI with. During
// a check they take every URI, so that libxml2's own (files relative to
// the working directory, the network) are never reached; outside one they
// take none and leave libxmlsec as it was for any other user in the process.
int matchReference(const char*) { return currentFolder >= 0 ? 1 : 0; }

// A file a reference reads. libxmlsec asks for a kilobyte at a time; the
// file is read in larger blocks, one held at a time.
struct OpenReference {
  explicit OpenReference(int fd) : fd(fd) {}
  int fd;
  size_t at = 0;
  size_t end = 0;
  char block[64 * 1024];
};

// libxmlsec asks first for the URI with its escapes decoded, which is the
// package path when the URI names a file; only a path of the package is
// opened, so that no second decoding can make one file's name another's.
void* openReference(const char* path) {
  if (currentFolder < 0 || !path || !currentFiles->count(path)) return nullptr;
  const int fd = PackageTree::openFile(currentFolder, path);
  if (fd < 0) return nullptr;
  return new OpenReference(fd);
}

int readReference(void* context, char* buffer, int length) {
  OpenReference* file = static_cast<OpenReference*>(context);
  if (length <= 0) return 0;
  if (file->at == file->end) {
    ssize_t got;
    do {
      got = read(file->fd, file->block, sizeof(file->block));
    } while (got < 0 && errno == EINTR);
    if (got <= 0) return static_cast<int>(got);
    file->at = 0;
    file->end = static_cast<size_t>(got);
  }
  const size_t given = std::min(static_cast<size_t>(length), file->end - file->at);
  memcpy(buffer, file->block + file->at, given);
  file->at += given;
  return static_cast<int>(given);
}

int closeReference(void* context) {
  OpenReference* file = static_cast<OpenReference*>(context);
  const int result = close(file->fd);
  delete file;
  return result;
}

// libxmlsec's complaints during a check are kept for the verdict; others
// go where they always went.
void keepError(const char* file, int line, const char* func,
               const char* errorObject, const char* errorSubject, int reason,
               const char* msg) {
  if (!currentError) {
    xmlSecErrorsDefaultCallback(file, line, func, errorObject, errorSubject,
                                reason, msg);
    return;
  }
  if (currentError->empty()) {
    const char* said = nullptr;
    for (xmlSecSize i = 0; xmlSecErrorsGetMsg(i); ++i) {
      if (xmlSecErrorsGetCode(i) == reason) said = xmlSecErrorsGetMsg(i);
    }
    *currentError = said ? said : "failed";
    if (msg && *msg) *currentError += std::string(": ") + msg;
  }
}

bool readied = false;
std::string notReadied;

void readyOnce() {
  if (xmlSecInit() < 0) {
    notReadied = "libxmlsec cannot be initialized";
    return;
  }
  if (xmlSecCheckVersion() != 1) {
    notReadied = "libxmlsec is not the version the engine was built with";
    return;
  }
  if (xmlSecCryptoAppInit(nullptr) < 0 || xmlSecCryptoInit() < 0) {
    notReadied = "libxmlsec's OpenSSL back end cannot be initialized";
    return;
  }
  // libxmlsec asks the callbacks registered last first: ours come before
  // its own, which stay for other users.
  xmlSecIOCleanupCallbacks();
  if (xmlSecIORegisterDefaultCallbacks() < 0 ||
      xmlSecIORegisterCallbacks(matchReference, openReference, readReference,
                                closeReference) < 0) {
    notReadied = "libxmlsec's input cannot be set up";
    return;
  }
  xmlSecErrorsSetCallback(keepError);
  readied = true;
}

struct DSigCtxFree {
  void operator()(xmlSecDSigCtx* ctx) const { xmlSecDSigCtxDestroy(ctx); }
};
typedef std::unique_ptr<xmlSecDSigCtx, DSigCtxFree> DSigCtxPtr;

struct KeyFree {
  void operator()(xmlSecKey* key) const { xmlSecKeyDestroy(key); }
};

// A context that runs only the algorithms a widget signature may use and
// reads only the same document and package files.
DSigCtxPtr makeContext() {
  DSigCtxPtr ctx(xmlSecDSigCtxCreate(nullptr));
  if (!ctx) return ctx;
  ctx->flags = XMLSEC_DSIG_FLAGS_IGNORE_MANIFESTS;
  // libxmlsec counts a relative URI as remote; what any URI reaches is
  // decided by the input callbacks above, which read package files only.
  ctx->enabledReferenceUris =
      xmlSecTransformUriTypeSameDocument | xmlSecTransformUriTypeRemote;
  const xmlSecTransformId referenceTransforms[] = {
      xmlSecTransformInclC14N11Id, xmlSecTransformExclC14NId,
      xmlSecTransformSha256Id};
  const xmlSecTransformId signatureTransforms[] = {
      xmlSecTransformInclC14N11Id, xmlSecTransformExclC14NId,
      xmlSecTransformRsaSha256Id, xmlSecTransformEcdsaSha256Id};
  for (xmlSecTransformId id : referenceTransforms) {
    if (xmlSecDSigCtxEnableReferenceTransform(ctx.get(), id) < 0) return nullptr;
  }
  for (xmlSecTransformId id : signatureTransforms) {
    if (xmlSecDSigCtxEnableSignatureTransform(ctx.get(), id) < 0) return nullptr;
  }
  return ctx;
}

// A libxmlsec key holding a reference of its own to pkey.
xmlSecKey* keyOf(EVP_PKEY* pkey) {
  std::unique_ptr<xmlSecKey, KeyFree> key(xmlSecKeyCreate());
  if (!key || !pkey || EVP_PKEY_up_ref(pkey) != 1) return nullptr;
  xmlSecKeyData* value = xmlSecOpenSSLEvpKeyAdopt(pkey);
  if (!value) {
    EVP_PKEY_free(pkey);
    return nullptr;
  }
  if (xmlSecKeySetValue(key.get(), value) < 0) {
    xmlSecKeyDataDestroy(value);
    return nullptr;
  }
  return key.release();
}

// Runs operation (libxmlsec's sign or verify) on the signature, references
// reading files below folderFd. False with *error saying why it failed.
bool run(int (*operation)(xmlSecDSigCtx*, xmlNode*), xmlSecDSigCtx* ctx,
         xmlNode* signature, int folderFd, const std::set<std::string>& files,
         std::string* error) {
  CoreSignature::Quiet quiet(error);
  FolderScope scope(folderFd, files);
  if (operation(ctx, signature) >= 0) return true;
  if (error->empty()) *error = "failed";
  return false;
}

std::string pathOfUri(const xmlChar* uri) {
  if (!uri) return std::string();
  const std::string text = reinterpret_cast<const char*>(uri);
  std::string path;
  return ReferenceUri::toPath(text, &path) ? path : text;
}

}  // namespace

CoreSignature::Quiet::Quiet(std::string* complaint) : previous_(currentError) {
  currentError = complaint;
}

CoreSignature::Quiet::~Quiet() { currentError = previous_; }

bool CoreSignature::ready(std::string* reason) {
  static std::once_flag once;
  std::call_once(once, readyOnce);
  if (!readied) *reason = notReadied;
  return readied;
}

bool CoreSignature::verify(xmlNode* signature, EVP_PKEY* key, int folderFd,
                           const std::set<std::string>& files,
                           std::vector<std::string>* failures) {
  std::string reason;
  if (!ready(&reason)) {
    failures->push_back("internal: " + reason);
    return false;
  }
  DSigCtxPtr ctx = makeContext();
  if (!ctx || !(ctx->signKey = keyOf(key))) {
    failures->push_back("internal: out of memory");
    return false;
  }
  std::string error;
  if (!run(xmlSecDSigCtxVerify, ctx.get(), signature, folderFd, files, &error)) {
    failures->push_back("signature-not-processed: " + error);
    return false;
  }
  if (ctx->status == xmlSecDSigStatusSucceeded) return true;
  // A reference whose digest differs stops the check there; the value over
  // SignedInfo is only checked once every reference matched.
  const xmlSecSize count = xmlSecPtrListGetSize(&ctx->signedInfoReferences);
  for (xmlSecSize i = 0; i < count; ++i) {
    xmlSecDSigReferenceCtx* reference = static_cast<xmlSecDSigReferenceCtx*>(
        xmlSecPtrListGetItem(&ctx->signedInfoReferences, i));
    if (reference && reference->status != xmlSecDSigStatusSucceeded) {
      failures->push_back("digest-mismatch: " + pathOfUri(reference->uri));
      return false;
    }
  }
  failures->push_back("signature-value-invalid");
  return false;
}

bool CoreSignature::sign(xmlNode* signature, EVP_PKEY* pkey,
                         const std::vector<X509*>& certificates, int folderFd,
                         const std::set<std::string>& files, std::string* reason) {
  if (!ready(reason)) return false;
  DSigCtxPtr ctx = makeContext();
  std::unique_ptr<xmlSecKey, KeyFree> key(ctx ? keyOf(pkey) : nullptr);
  if (!key) {
    *reason = "out of memory";
    return false;
  }
  xmlSecKeyData* x509 = xmlSecKeyEnsureData(key.get(), xmlSecOpenSSLKeyDataX509Id);
  if (!x509) {
    *reason = "out of memory";
    return false;
  }
  for (X509* certificate : certificates) {
    X509* copy = X509_dup(certificate);
    if (!copy || xmlSecOpenSSLKeyDataX509AdoptCert(x509, copy) < 0) {
      X509_free(copy);
      *reason = "out of memory";
      return false;
    }
  }
  ctx->signKey = key.release();
  std::string error;
  if (!run(xmlSecDSigCtxSign, ctx.get(), signature, folderFd, files, &error)) {
    *reason = "the signature cannot be made: " + error;
    return false;
  }
  return true;
}
