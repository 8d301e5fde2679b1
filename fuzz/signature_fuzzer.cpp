// SPDX-License-Identifier: Apache-2.0
// Bytes as a signature document of a small unpacked package (SamplePackage),
// checked against a test root made once per process. The first byte
// chooses what the rest is:
//   'u'  a reference URI, decoded to a package path (and back, when it is one)
//   't'  a template, filled in by the maker with a trusted signer's key, so
//        that the document's values hold and every later rule is reached
//   'd'  a distributor's signature1.xml beside a valid author signature
//   else the whole input as author-signature.xml
// Whatever the bytes, the check ends and writes nothing in the package, a
// verdict names only the signature files there, and a decoded path names
// nothing outside it. Each document is checked twice, reading the files and
// on their digests as an unpacking takes them, and both checks must find
// the same: each signature valid or not, and the same rules broken.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <vector>

#include "base/ScopedFd.h"
#include "fuzz/FuzzSandbox.h"
#include "fuzz/SamplePackage.h"
#include "signature/ReferenceUri.h"
#include "signature/SignatureMaker.h"
#include "signature/SignatureVerifier.h"
#include "testing/FolderDigests.h"
#include "testing/TestPki.h"

namespace {

void require(bool ok, const char* what, const std::string& reason = "") {
  if (!ok) {
    fprintf(stderr, "signature_fuzzer: %s %s\n", what, reason.c_str());
    abort();
  }
}

void writeText(const std::string& file, const std::string& text) {
  FuzzSandbox::writeFile(file, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

// What a verify call shares from one input to the next: the package folder,
// the anchors, a signer for templates and the author's valid document.
struct Fixture {
  Fixture() : package(sandbox.path() + "/package") {
    require(samplePackage::write(package), "cannot make", package);

    const TestPki& pki = TestPki::get();
    std::string reason;
    require(anchors.addPem(pki.root, &reason), "anchors", reason);
    // The EC signer: a template is signed on every 't' input, and an EC
    // signature costs far less than an RSA one.
    require(maker.setSigner(pki.distributor.key, pki.distributor.chain, &reason),
            "signer", reason);

    SignatureMaker author;
    require(author.setSigner(pki.author.key, pki.author.chain, &reason), "author", reason);
    std::string written;
    require(author.sign(package, SignatureMaker::kAuthor, &written, &reason), "sign",
            reason);
    FILE* in = fopen((package + "/" + written).c_str(), "rb");
    require(in != nullptr, "read", written);
    char buffer[4096];
    size_t got;
    while ((got = fread(buffer, 1, sizeof(buffer), in)) > 0) authorDocument.append(buffer, got);
    fclose(in);
    // The harness is only worth running if a real signature holds in it.
    const Verdict verdict = SignatureVerifier(anchors).verify(package);
    require(verdict.allValid(), "the author's own signature does not hold");
  }

  FuzzSandbox sandbox;
  const std::string package;
  TrustAnchors anchors;
  SignatureMaker maker;
  std::string authorDocument;
};

// Every name in the package folder, sorted.
std::set<std::string> contents(const std::string& folder) {
  std::vector<std::string> names = FuzzSandbox::list(folder);
  return std::set<std::string>(names.begin(), names.end());
}

void checkUri(const std::string& uri) {
  std::string path;
  if (!ReferenceUri::toPath(uri, &path)) return;
  require(!path.empty() && path[0] != '/', "absolute path from", uri);
  require(path.find('\0') == std::string::npos, "NUL in path from", uri);
  size_t start = 0;
  while (true) {
    const size_t end = path.find('/', start);
    const std::string segment = path.substr(start, end == std::string::npos ? end : end - start);
    require(!segment.empty() && segment != "." && segment != "..", "bad segment from", uri);
    if (end == std::string::npos) break;
    start = end + 1;
  }
  // What a path is written as names the same path again.
  std::string again;
  require(ReferenceUri::toPath(ReferenceUri::fromPath(path), &again) && again == path,
          "round trip of", uri);
}

// Each signature's file, validity and the names of the rules it broke.
std::string rulesOf(const Verdict& verdict) {
  std::string text;
  for (const SignatureVerdict& one : verdict.signatures) {
    text += one.file + (one.valid ? " valid:" : " invalid:");
    for (const std::string& failure : one.failures)
      text += " " + failure.substr(0, failure.find(':'));
    text += "\n";
  }
  return text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Fixture fixture;
  static const std::set<std::string> before = [] {
    std::set<std::string> names = contents(fixture.package);
    names.erase("author-signature.xml");
    return names;
  }();
  if (size == 0) return 0;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string rest = bytes.substr(1);
  const std::string author = fixture.package + "/author-signature.xml";
  const std::string distributor = fixture.package + "/signature1.xml";

  switch (bytes[0]) {
    case 'u':
      checkUri(rest);
      return 0;
    case 't': {
      remove(author.c_str());
      std::string document, reason;
      ScopedFd folder(open(fixture.package.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      require(folder.get() >= 0, "open package");
      if (!fixture.maker.signTemplate(folder.get(), rest, &document, &reason)) return 0;
      writeText(author, document);
      break;
    }
    case 'd':
      writeText(author, fixture.authorDocument);
      writeText(distributor, rest);
      break;
    default:
      writeText(author, bytes);
      break;
  }

  std::set<std::string> expected = before;
  expected.insert("author-signature.xml");
  if (bytes[0] == 'd') expected.insert("signature1.xml");
  const SignatureVerifier verifier(fixture.anchors);
  const Verdict verdict = verifier.verify(fixture.package);
  FileDigests written;
  std::string reason;
  require(folderdigests::take(fixture.package, &written, &reason), "digests", reason);
  const std::string onWritten = rulesOf(verifier.verify(fixture.package, &written));
  require(rulesOf(verdict) == onWritten, "the written digests judge otherwise:\n",
          rulesOf(verdict) + "against\n" + onWritten);
  {
    // The signature documents checked ahead, as while an unpacking writes
    // the other files.
    ScopedFd folder(open(fixture.package.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    require(folder.get() >= 0, "open package");
    const std::vector<std::string> rootFiles(expected.begin(), expected.end());
    const SignatureVerifier::Early early = verifier.prepare(folder.get(), rootFiles);
    const std::string ahead = rulesOf(verifier.verify(folder.get(), &written, &early));
    require(rulesOf(verdict) == ahead, "the documents checked ahead judge otherwise:\n",
            rulesOf(verdict) + "against\n" + ahead);
  }
  require(contents(fixture.package) == expected, "the check changed the package");
  require(verdict.failures.empty(), "the package itself was refused");
  require(verdict.signatures.size() == expected.size() - before.size(),
          "a verdict for a file that is no signature");
  for (const SignatureVerdict& one : verdict.signatures) {
    require(expected.count(one.file) == 1 && before.count(one.file) == 0,
            "a verdict for", one.file);
    require(one.valid == one.failures.empty(), "a valid verdict with failures");
  }
  // A distributor's document cannot make the author's fail.
  if (bytes[0] == 'd') require(verdict.signatures[0].valid, "the author's signature broke");
  remove(distributor.c_str());
  return 0;
}
