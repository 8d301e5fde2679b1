// SPDX-License-Identifier: Apache-2.0
// SignatureDocument reads one signature document of a package and checks
// what a widget signature must be beyond a valid XML signature: the
// algorithms, a reference to every file of the package exactly once, and
// the profile, role and identifier properties, themselves signed. It takes
// the signer's certificates out of KeyInfo for CertificateChain; the values
// are left to CoreSignature.
#ifndef WIDGETENGINE_SIGNATURE_SIGNATUREDOCUMENT_H_
#define WIDGETENGINE_SIGNATURE_SIGNATUREDOCUMENT_H_

#include <libxml/tree.h>

#include <set>
#include <string>
#include <vector>

#include "config/XmlText.h"

class SignatureDocument {
 public:
  // file: the document's path in the package; author: whether it is the
  // author's signature rather than a distributor's.
  SignatureDocument(const std::string& file, bool author);

  // Parses the document's bytes, refusing one larger than any signature, a
  // document type declaration (and with it every entity) and anything that
  // is not a signature. False with the failed rule on *failures.
  bool parse(const std::string& bytes, std::vector<std::string>* failures);

  // Checks the parsed document against the package's files. Each failed
  // rule goes on *failures.
  void check(const std::set<std::string>& packageFiles,
             std::vector<std::string>* failures);

  // Takes the certificates out of KeyInfo, which needs none of the
  // package's files, so that the signer's chain can be checked before
  // they are all written; check() does it when nothing has, and reports
  // what was wrong with them in its place among its failures.
  void readCertificates();

  // After check(): whether the references and algorithms are such that the
  // values can be checked (every file reference names a package file, and
  // every algorithm is one the engine runs).
  bool readyForValues() const { return readyForValues_; }

  xmlNode* signatureElement() const;
  // After readCertificates() or check(): the certificates of KeyInfo, DER,
  // as they appear.
  const std::vector<std::string>& certificates() const { return certificates_; }
  const std::string& identifier() const { return identifier_; }

 private:
  void checkAlgorithm(const std::string& uri, const char* const* allowed,
                      std::vector<std::string>* failures);
  void checkReferences(xmlNode* signedInfo, const std::set<std::string>& packageFiles,
                       std::vector<std::string>* failures);
  void checkProperties(const std::string& signatureId,
                       std::vector<std::string>* failures);

  std::string file_;
  bool author_;
  xmltext::DocPtr doc_;
  bool idsUnique_ = true;
  bool propertiesReferenced_ = false;
  bool readyForValues_ = false;
  bool certificatesRead_ = false;
  std::vector<std::string> certificates_;
  std::vector<std::string> certificateFailures_;
  std::string identifier_;
};

#endif  // WIDGETENGINE_SIGNATURE_SIGNATUREDOCUMENT_H_
