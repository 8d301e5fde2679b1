// SPDX-License-Identifier: Apache-2.0
#include "signature/CoreSignature.h"

#include <errno.h>
#include <libxml/xmlstring.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <unistd.h>
#include <xmlsec/base64.h>
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

#include "base/ScopedFd.h"
#include "config/XmlText.h"
#include "signature/PackageTree.h"
#include "signature/ReferenceUri.h"
#include "signature/Vocabulary.h"

namespace {

// Whether a check runs on this thread, the package folder its references
// read from and its files, and where the first complaint libxmlsec makes
// goes.
thread_local bool checking = false;
thread_local int currentFolder = -1;
thread_local const std::set<std::string>* currentFiles = nullptr;
thread_local std::string* currentError = nullptr;

// While one lives, references on this thread read the files below folderFd
// (with -1, none at all).
class FolderScope {
 public:
  FolderScope(int folderFd, const std::set<std::string>& files) {
    checking = true;
    currentFolder = folderFd;
    currentFiles = &files;
  }
  ~FolderScope() {
    checking = false;
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
int matchReference(const char*) { return checking ? 1 : 0; }

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
  if (!checking || currentFolder < 0 || !path || !currentFiles->count(path))
    return nullptr;
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

// Readies libxmlsec and makes *ctx a context checking with key; what
// failed ("internal: ...") when it cannot.
std::string checkingContext(EVP_PKEY* key, DSigCtxPtr* ctx) {
  std::string reason;
  if (!CoreSignature::ready(&reason)) return "internal: " + reason;
  *ctx = makeContext();
  if (!*ctx || !((*ctx)->signKey = keyOf(key))) return "internal: out of memory";
  return std::string();
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

// What checking a signature's values came to.
struct Values {
  bool processed = false;  // false with error when it could not be done
  std::string error;
  std::string mismatch;    // the first reference whose digest differs
  bool valueValid = false;
};

// libxmlsec checks every reference and the value on its own.
Values checkByLibrary(xmlSecDSigCtx* ctx, xmlNode* signature, int folderFd,
                      const std::set<std::string>& files) {
  Values values;
  values.processed =
      run(xmlSecDSigCtxVerify, ctx, signature, folderFd, files, &values.error);
  if (!values.processed || ctx->status == xmlSecDSigStatusSucceeded) {
    values.valueValid = values.processed;
    return values;
  }
  // A reference whose digest differs stops the check there; the value over
  // SignedInfo is only checked once every reference matched.
  const xmlSecSize count = xmlSecPtrListGetSize(&ctx->signedInfoReferences);
  for (xmlSecSize i = 0; i < count; ++i) {
    xmlSecDSigReferenceCtx* reference = static_cast<xmlSecDSigReferenceCtx*>(
        xmlSecPtrListGetItem(&ctx->signedInfoReferences, i));
    if (reference && reference->status != xmlSecDSigStatusSucceeded) {
      values.mismatch = pathOfUri(reference->uri);
      return values;
    }
  }
  return values;
}

xmlNode* elementFrom(xmlNode* node) {
  while (node && node->type != XML_ELEMENT_NODE) node = node->next;
  return node;
}

bool isDsig(xmlNode* node, const char* name) {
  return node && node->ns &&
         xmlStrEqual(node->ns->href, BAD_CAST signatureVocabulary::kDsigNamespace) &&
         xmlStrEqual(node->name, BAD_CAST name);
}

// Compares the file reference's DigestValue with the digest of the file at
// path: the one written, or else the file's as it is read now. False with
// *error when it cannot be compared; *matches says whether they are equal.
bool compareFile(xmlNode* reference, const std::string& path, int folderFd,
                 const CoreSignature::WrittenDigests& written, bool* matches,
                 std::string* error) {
  xmlNode* method = elementFrom(reference->children);
  xmlNode* value = method ? elementFrom(method->next) : nullptr;
  if (!isDsig(method, "DigestMethod") || !isDsig(value, "DigestValue") ||
      elementFrom(value->next)) {
    *error = "the reference to " + path + " is not a digest method and value";
    return false;
  }
  // The one digest a file reference may use, whatever was checked before.
  if (xmltext::getRawAttribute(method, "Algorithm") != signatureVocabulary::kSha256) {
    *error = "the digest of " + path + " is not SHA-256";
    return false;
  }
  Sha256::Digest digest;
  const auto known = written.find(path);
  if (known != written.end()) {
    digest = known->second;
  } else {
    ScopedFd fd(PackageTree::openFile(folderFd, path));
    if (fd.get() < 0 || !Sha256::ofFile(fd.get(), &digest)) {
      *error = "cannot read " + path + ": " + strerror(errno);
      return false;
    }
  }
  xmlChar* text = xmlNodeGetContent(value);
  if (!text) {
    *error = "out of memory";
    return false;
  }
  std::vector<xmlSecByte> given(static_cast<size_t>(xmlStrlen(text)) + 1);
  xmlSecSize size = 0;
  const int decoded = xmlSecBase64Decode_ex(
      text, given.data(), static_cast<xmlSecSize>(given.size()), &size);
  xmlFree(text);
  if (decoded < 0) {
    if (error->empty()) *error = "the digest value of " + path + " is not base64";
    return false;
  }
  *matches = size == digest.size() && memcmp(given.data(), digest.data(), size) == 0;
  return true;
}

// Reads SignedInfo's canonicalization and signature methods into the
// context's transforms (which go with it) and gives the signature method
// the context's key, as libxmlsec does before it digests any reference.
// The signature method, or null with the complaint kept.
xmlSecTransform* readMethods(xmlSecDSigCtx* ctx, xmlNode* canonicalization,
                             xmlNode* method) {
  xmlSecTransformCtx* transforms = &ctx->transformCtx;
  if (!xmlSecTransformCtxNodeRead(transforms, canonicalization,
                                  xmlSecTransformUsageC14NMethod))
    return nullptr;
  xmlSecTransform* sign =
      xmlSecTransformCtxNodeRead(transforms, method, xmlSecTransformUsageSignatureMethod);
  if (!sign) return nullptr;
  sign->operation = xmlSecTransformOperationVerify;
  xmlSecKeyReq wanted;
  if (xmlSecKeyReqInitialize(&wanted) < 0) return nullptr;
  const bool suits = xmlSecTransformSetKeyReq(sign, &wanted) >= 0 &&
                     xmlSecKeyMatch(ctx->signKey, nullptr, &wanted) == 1;
  xmlSecKeyReqFinalize(&wanted);
  if (!suits) {
    // In the words libxmlsec's own check has for it.
    xmlSecError(XMLSEC_ERRORS_HERE, nullptr, nullptr, XMLSEC_ERRORS_R_KEY_NOT_FOUND,
                "details=%s", "NULL");
    return nullptr;
  }
  return xmlSecTransformSetKey(sign, ctx->signKey) < 0 ? nullptr : sign;
}

// Checks the signature value over SignedInfo, canonicalized, with the
// signature method readMethods() gave. False when it cannot be checked.
bool checkValue(xmlSecDSigCtx* ctx, xmlNode* signedInfo, xmlSecTransform* sign,
                xmlNode* signatureValue, bool* valid) {
  xmlSecNodeSet* nodes = xmlSecNodeSetGetChildren(signedInfo->doc, signedInfo, 1, 0);
  if (!nodes) return false;
  const int executed = xmlSecTransformCtxXmlExecute(&ctx->transformCtx, nodes);
  xmlSecNodeSetDestroy(nodes);
  if (executed < 0 ||
      xmlSecTransformVerifyNodeContent(sign, signatureValue, &ctx->transformCtx) < 0)
    return false;
  *valid = sign->status == xmlSecTransformStatusOk;
  return true;
}

// The parts of a signature element the check of values walks.
struct Parts {
  xmlNode* signedInfo = nullptr;
  xmlNode* signatureValue = nullptr;
  xmlNode* canonicalization = nullptr;
  xmlNode* method = nullptr;
  xmlNode* firstReference = nullptr;
};

// False unless the element is shaped as libxmlsec insists a signature is:
// SignedInfo, SignatureValue, then KeyInfo and Objects only, and SignedInfo
// its methods followed by references only.
bool partsOf(xmlNode* signature, Parts* parts) {
  parts->signedInfo = elementFrom(signature->children);
  parts->signatureValue =
      parts->signedInfo ? elementFrom(parts->signedInfo->next) : nullptr;
  xmlNode* rest =
      parts->signatureValue ? elementFrom(parts->signatureValue->next) : nullptr;
  if (isDsig(rest, "KeyInfo")) rest = elementFrom(rest->next);
  while (isDsig(rest, "Object")) rest = elementFrom(rest->next);
  parts->canonicalization =
      parts->signedInfo ? elementFrom(parts->signedInfo->children) : nullptr;
  parts->method =
      parts->canonicalization ? elementFrom(parts->canonicalization->next) : nullptr;
  parts->firstReference = parts->method ? elementFrom(parts->method->next) : nullptr;
  xmlNode* afterReferences = parts->firstReference;
  while (isDsig(afterReferences, "Reference"))
    afterReferences = elementFrom(afterReferences->next);
  return isDsig(parts->signedInfo, "SignedInfo") &&
         isDsig(parts->signatureValue, "SignatureValue") && !rest &&
         isDsig(parts->canonicalization, "CanonicalizationMethod") &&
         isDsig(parts->method, "SignatureMethod") &&
         isDsig(parts->firstReference, "Reference") && !afterReferences;
}

bool isSameDocument(const std::string& uri) { return !uri.empty() && uri[0] == '#'; }

// What of the check of values needs no file of the package, in libxmlsec's
// own order: the methods and the key, the references within the document
// (stopping at the first that fails or differs), then the value over
// SignedInfo. No reference can reach a file meanwhile.
void prepareSteps(xmlSecDSigCtx* ctx, xmlNode* signature,
                  CoreSignature::Early* early) {
  const std::set<std::string> none;
  FolderScope scope(-1, none);
  ctx->operation = xmlSecTransformOperationVerify;
  Parts parts;
  early->shaped = partsOf(signature, &parts);
  if (!early->shaped) return;
  xmlSecTransform* sign = nullptr;
  {
    CoreSignature::Quiet quiet(&early->methods.complaint);
    sign = readMethods(ctx, parts.canonicalization, parts.method);
  }
  early->methods.done = sign != nullptr;
  if (!sign) return;

  for (xmlNode* reference = parts.firstReference; reference;
       reference = elementFrom(reference->next)) {
    if (!isSameDocument(xmltext::getRawAttribute(reference, "URI"))) continue;
    early->sameDocument.emplace_back();
    CoreSignature::Early::Step& step = early->sameDocument.back();
    CoreSignature::Quiet quiet(&step.complaint);
    xmlSecDSigReferenceCtx* same =
        xmlSecDSigReferenceCtxCreate(ctx, xmlSecDSigReferenceOriginSignedInfo);
    if (!same) return;
    step.done = xmlSecDSigReferenceCtxProcessNode(same, reference) >= 0;
    step.matches = same->status == xmlSecDSigStatusSucceeded;
    xmlSecDSigReferenceCtxDestroy(same);
    if (!step.done || !step.matches) return;
  }
  CoreSignature::Quiet quiet(&early->value.complaint);
  early->value.done = checkValue(ctx, parts.signedInfo, sign, parts.signatureValue,
                                 &early->value.matches);
}

// The check of values when the files' digests as written are known, on
// the steps prepareSteps() took: the methods, then every reference in
// order (stopping at the first that differs), then the value over
// SignedInfo. Files are compared with their written digests; what went
// wrong is told as a check in one go would have told it, by the first
// complaint heard.
Values checkWithWritten(const CoreSignature::Early& early, xmlNode* signature,
                        int folderFd, const std::set<std::string>& files,
                        const CoreSignature::WrittenDigests& written) {
  Values values;
  std::string& error = values.error;
  CoreSignature::Quiet quiet(&error);
  FolderScope scope(folderFd, files);
  auto heard = [&error](const CoreSignature::Early::Step& step) {
    if (error.empty()) error = step.complaint;
  };
  Parts parts;
  if (!early.shaped || !partsOf(signature, &parts)) {
    error = "the signature's elements are not those of an XML signature";
    return values;
  }
  heard(early.methods);
  if (!early.methods.done) return values;

  size_t sameDocument = 0;
  for (xmlNode* reference = parts.firstReference; reference;
       reference = elementFrom(reference->next)) {
    const std::string uri = xmltext::getRawAttribute(reference, "URI");
    std::string path;
    bool matches = false;
    if (isSameDocument(uri)) {
      if (sameDocument >= early.sameDocument.size()) return values;
      const CoreSignature::Early::Step& step = early.sameDocument[sameDocument++];
      heard(step);
      if (!step.done) return values;
      matches = step.matches;
    } else if (!ReferenceUri::toPath(uri, &path) || !files.count(path)) {
      error = "a reference names no file of the package";
      return values;
    } else if (!compareFile(reference, path, folderFd, written, &matches, &error)) {
      return values;
    }
    if (!matches) {
      values.processed = true;
      values.mismatch = path.empty() ? uri : path;
      return values;
    }
  }
  heard(early.value);
  values.processed = early.value.done;
  values.valueValid = early.value.matches;
  return values;
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

CoreSignature::Early CoreSignature::prepare(xmlNode* signature, EVP_PKEY* key) {
  Early early;
  DSigCtxPtr ctx;
  early.internal = checkingContext(key, &ctx);
  if (early.internal.empty()) prepareSteps(ctx.get(), signature, &early);
  return early;
}

bool CoreSignature::verify(xmlNode* signature, EVP_PKEY* key, int folderFd,
                           const std::set<std::string>& files,
                           const WrittenDigests* written,
                           std::vector<std::string>* failures,
                           const Early* early) {
  Values values;
  if (written) {
    Early now;
    if (!early) {
      now = prepare(signature, key);
      early = &now;
    }
    if (!early->internal.empty()) {
      failures->push_back(early->internal);
      return false;
    }
    values = checkWithWritten(*early, signature, folderFd, files, *written);
  } else {
    DSigCtxPtr ctx;
    const std::string internal = checkingContext(key, &ctx);
    if (!internal.empty()) {
      failures->push_back(internal);
      return false;
    }
    values = checkByLibrary(ctx.get(), signature, folderFd, files);
  }
  if (!values.processed) {
    failures->push_back("signature-not-processed: " +
                        (values.error.empty() ? std::string("failed") : values.error));
    return false;
  }
  if (!values.mismatch.empty()) {
    failures->push_back("digest-mismatch: " + values.mismatch);
    return false;
  }
  if (!values.valueValid) {
    failures->push_back("signature-value-invalid");
    return false;
  }
  return true;
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
