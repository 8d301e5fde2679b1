// SPDX-License-Identifier: Apache-2.0
#include "signature/SignatureVerifier.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <vector>

#include "base/ScopedFd.h"
#include "signature/CertificateChain.h"
#include "signature/FileDigests.h"
#include "signature/PackageTree.h"
#include "signature/SignatureDocument.h"
#include "signature/SignatureFiles.h"
#include "signature/Vocabulary.h"

namespace {

// Reads the signature document at file below folderFd, refusing one larger
// than any signature before reading it, and says which file it read. False
// with the failed rule.
bool readDocument(int folderFd, const std::string& file, std::string* bytes,
                  std::string* failure, dev_t* device, ino_t* inode) {
  ScopedFd fd(PackageTree::openFile(folderFd, file));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
    *failure = std::string("not-readable: ") + strerror(errno);
    return false;
  }
  *device = st.st_dev;
  *inode = st.st_ino;
  const size_t largest = signatureVocabulary::kLargestDocument;
  if (st.st_size < 0 || static_cast<uint64_t>(st.st_size) > largest) {
    *failure = "document-too-large: more than " + std::to_string(largest) + " bytes";
    return false;
  }
  char buffer[16384];
  ssize_t got;
  while ((got = read(fd.get(), buffer, sizeof(buffer))) != 0) {
    if (got < 0) {
      if (errno == EINTR) continue;
      *failure = std::string("not-readable: ") + strerror(errno);
      return false;
    }
    bytes->append(buffer, static_cast<size_t>(got));
    // The file may grow after it was measured.
    if (bytes->size() > largest) {
      *failure = "document-too-large: more than " + std::to_string(largest) + " bytes";
      return false;
    }
  }
  return true;
}

}  // namespace

struct SignatureVerifier::Early::Document {
  std::string file;
  bool author = false;
  // The file read, as found when it was opened.
  dev_t device = 0;
  ino_t inode = 0;
  size_t size = 0;
  // What reading and parsing it found: why it could not be, when it could
  // not (document null).
  std::vector<std::string> failures;
  std::unique_ptr<SignatureDocument> document;
  // The signer's chain, when its certificates could be read, and what
  // reading and checking it found.
  std::unique_ptr<CertificateChain> chain;
  bool chainRead = false;
  bool chainVerified = false;
  std::vector<std::string> chainFailures;
  // The values as far as they need no file (with written digests only).
  bool prepared = false;
  CoreSignature::Early values;
};

SignatureVerifier::Early::Early() = default;
SignatureVerifier::Early::~Early() = default;
SignatureVerifier::Early::Early(Early&&) noexcept = default;
SignatureVerifier::Early& SignatureVerifier::Early::operator=(Early&&) noexcept = default;

Verdict SignatureVerifier::verify(const std::string& path, const FileDigests* written,
                                  const Early* early) const {
  ScopedFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0) {
    Verdict verdict;
    verdict.failures.push_back("package-not-readable: " + path + ": " + strerror(errno));
    return verdict;
  }
  return verify(fd.get(), written, early);
}

SignatureVerifier::Early SignatureVerifier::prepare(
    int folderFd, const std::vector<std::string>& rootFiles) const {
  Early early;
  std::string reason;
  if (!CoreSignature::ready(&reason)) return early;
  size_t held = 0;
  for (const std::string& file : SignatureFiles::inProcessingOrder(rootFiles)) {
    std::unique_ptr<Early::Document> document = prepareOne(folderFd, file, true);
    held += document->size;
    if (held > signatureVocabulary::kLargestDocument) break;
    early.documents_.push_back(std::move(document));
  }
  return early;
}

Verdict SignatureVerifier::verify(int folderFd, const FileDigests* written,
                                  const Early* early) const {
  Verdict verdict;
  std::string reason;
  if (!CoreSignature::ready(&reason)) {
    verdict.failures.push_back("internal: " + reason);
    return verdict;
  }
  PackageTree tree;
  if (!tree.read(folderFd, &reason)) {
    verdict.failures.push_back("package-not-readable: " + reason);
    return verdict;
  }
  std::vector<std::string> rootFiles;
  for (const std::string& path : tree.files()) {
    if (path.find('/') == std::string::npos) rootFiles.push_back(path);
  }
  // The written digests by package path. A file the unpacking did not
  // write (none of its inodes) has none and is read.
  CoreSignature::WrittenDigests byPath;
  if (written) {
    for (const auto& file : tree.inodes()) {
      const Sha256::Digest* digest = written->find(file.second.first, file.second.second);
      if (digest) byPath[file.first] = *digest;
    }
  }
  for (const std::string& file : SignatureFiles::inProcessingOrder(rootFiles)) {
    // What prepare() found counts for the file it read, still in its place.
    Early::Document* prepared = nullptr;
    if (early && written) {
      const auto inode = tree.inodes().find(file);
      for (const std::unique_ptr<Early::Document>& document : early->documents_) {
        if (document->file == file && inode != tree.inodes().end() &&
            document->device == inode->second.first &&
            document->inode == inode->second.second) {
          prepared = document.get();
        }
      }
    }
    std::unique_ptr<Early::Document> now;
    if (!prepared) {
      now = prepareOne(folderFd, file, false);
      prepared = now.get();
    }
    verdict.signatures.push_back(
        finishOne(*prepared, folderFd, tree.files(), written ? &byPath : nullptr));
  }
  return verdict;
}

std::unique_ptr<SignatureVerifier::Early::Document> SignatureVerifier::prepareOne(
    int folderFd, const std::string& file, bool withValues) const {
  std::unique_ptr<Early::Document> prepared(new Early::Document);
  prepared->file = file;
  prepared->author = SignatureFiles::kindOf(file) == SignatureFiles::kAuthor;

  std::string bytes;
  std::string failure;
  if (!readDocument(folderFd, file, &bytes, &failure, &prepared->device,
                    &prepared->inode)) {
    prepared->failures.push_back(failure);
    return prepared;
  }
  prepared->size = bytes.size();
  std::unique_ptr<SignatureDocument> document(
      new SignatureDocument(file, prepared->author));
  if (!document->parse(bytes, &prepared->failures)) return prepared;
  bytes.clear();
  bytes.shrink_to_fit();
  prepared->document = std::move(document);
  prepared->document->readCertificates();

  prepared->chain.reset(new CertificateChain);
  CertificateChain& chain = *prepared->chain;
  prepared->chainRead =
      chain.read(prepared->document->certificates(), &prepared->chainFailures);
  if (!prepared->chainRead) return prepared;
  prepared->chainVerified =
      chain.verify(anchors_, at_ ? at_ : time(nullptr), &prepared->chainFailures);
  if (withValues) {
    prepared->values = CoreSignature::prepare(prepared->document->signatureElement(),
                                              chain.signerKey());
    prepared->prepared = true;
  }
  return prepared;
}

SignatureVerdict SignatureVerifier::finishOne(
    Early::Document& prepared, int folderFd, const std::set<std::string>& files,
    const CoreSignature::WrittenDigests* written) const {
  SignatureVerdict verdict;
  verdict.file = prepared.file;
  verdict.author = prepared.author;
  std::vector<std::string>& failures = verdict.failures;
  failures = prepared.failures;
  if (!prepared.document) return verdict;
  SignatureDocument& document = *prepared.document;
  document.check(files, &failures);
  verdict.identifier = document.identifier();

  failures.insert(failures.end(), prepared.chainFailures.begin(),
                  prepared.chainFailures.end());
  if (prepared.chainRead) {
    const CertificateChain& chain = *prepared.chain;
    verdict.signerSubject = chain.signerSubject();
    verdict.signerFingerprint = chain.signerFingerprint();
    if (prepared.chainVerified) verdict.anchorSubject = chain.anchorSubject();
    if (document.readyForValues())
      CoreSignature::verify(document.signatureElement(), chain.signerKey(),
                            folderFd, files, written, &failures,
                            written && prepared.prepared ? &prepared.values : nullptr);
  }
  verdict.valid = failures.empty();
  return verdict;
}
