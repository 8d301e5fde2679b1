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
// than any signature before reading it. False with the failed rule.
bool readDocument(int folderFd, const std::string& file, std::string* bytes,
                  std::string* failure) {
  ScopedFd fd(PackageTree::openFile(folderFd, file));
  struct stat st;
  if (fd.get() < 0 || fstat(fd.get(), &st) != 0) {
    *failure = std::string("not-readable: ") + strerror(errno);
    return false;
  }
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

Verdict SignatureVerifier::verify(const std::string& path,
                                  const FileDigests* written) const {
  ScopedFd fd(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (fd.get() < 0) {
    Verdict verdict;
    verdict.failures.push_back("package-not-readable: " + path + ": " + strerror(errno));
    return verdict;
  }
  return verify(fd.get(), written);
}

Verdict SignatureVerifier::verify(int folderFd, const FileDigests* written) const {
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
    verdict.signatures.push_back(
        verifyOne(folderFd, file, tree.files(), written ? &byPath : nullptr));
  }
  return verdict;
}

SignatureVerdict SignatureVerifier::verifyOne(
    int folderFd, const std::string& file, const std::set<std::string>& files,
    const CoreSignature::WrittenDigests* written) const {
  SignatureVerdict verdict;
  verdict.file = file;
  verdict.author = SignatureFiles::kindOf(file) == SignatureFiles::kAuthor;
  std::vector<std::string>& failures = verdict.failures;

  std::string bytes;
  std::string failure;
  if (!readDocument(folderFd, file, &bytes, &failure)) {
    failures.push_back(failure);
    return verdict;
  }
  SignatureDocument document(file, verdict.author);
  if (!document.parse(bytes, &failures)) return verdict;
  bytes.clear();
  bytes.shrink_to_fit();
  document.check(files, &failures);
  verdict.identifier = document.identifier();

  CertificateChain chain;
  if (chain.read(document.certificates(), &failures)) {
    verdict.signerSubject = chain.signerSubject();
    verdict.signerFingerprint = chain.signerFingerprint();
    if (chain.verify(anchors_, at_ ? at_ : time(nullptr), &failures))
      verdict.anchorSubject = chain.anchorSubject();
    if (document.readyForValues())
      CoreSignature::verify(document.signatureElement(), chain.signerKey(),
                            folderFd, files, written, &failures);
  }
  verdict.valid = failures.empty();
  return verdict;
}
