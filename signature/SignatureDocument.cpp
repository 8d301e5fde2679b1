// SPDX-License-Identifier: Apache-2.0
#include "signature/SignatureDocument.h"

#include <libxml/parser.h>
#include <libxml/valid.h>
#include <xmlsec/base64.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "config/DocumentGuards.h"
#include "signature/CoreSignature.h"
#include "signature/ReferenceUri.h"
#include "signature/SignatureFiles.h"
#include "signature/Vocabulary.h"

namespace sv = signatureVocabulary;

namespace {

const char* const kCanonicalizations[] = {sv::kC14n11, sv::kExclusiveC14n, nullptr};
const char* const kSignatureMethods[] = {sv::kRsaSha256, sv::kEcdsaSha256, nullptr};
const char* const kDigestMethods[] = {sv::kSha256, nullptr};

// Longest identifier property kept; a longer one is refused.
const size_t kLongestIdentifier = 2000;
// Longest piece of a document quoted in a failure.
const size_t kLongestQuote = 200;
// The largest certificate taken out of KeyInfo.
const size_t kLargestCertificate = 64 * 1024;

std::string quote(const std::string& text) {
  if (text.size() <= kLongestQuote) return text;
  return text.substr(0, kLongestQuote) + "...";
}

bool inNamespace(xmlNode* node, const char* ns) {
  return node && node->ns && node->ns->href &&
         strcmp(reinterpret_cast<const char*>(node->ns->href), ns) == 0;
}

bool isElement(xmlNode* node, const char* ns, const char* name) {
  return node && node->type == XML_ELEMENT_NODE && inNamespace(node, ns) &&
         strcmp(reinterpret_cast<const char*>(node->name), name) == 0;
}

std::vector<xmlNode*> childrenNamed(xmlNode* parent, const char* ns,
                                    const char* name) {
  std::vector<xmlNode*> found;
  if (!parent) return found;
  for (xmlNode* child = parent->children; child; child = child->next) {
    if (isElement(child, ns, name)) found.push_back(child);
  }
  return found;
}

xmlNode* childNamed(xmlNode* parent, const char* ns, const char* name) {
  std::vector<xmlNode*> found = childrenNamed(parent, ns, name);
  return found.empty() ? nullptr : found[0];
}

std::string attribute(xmlNode* node, const char* name) {
  return node ? xmltext::getRawAttribute(node, name) : std::string();
}

bool hasAttribute(xmlNode* node, const char* name) {
  return node && xmlHasProp(node, reinterpret_cast<const xmlChar*>(name));
}

std::string textOf(xmlNode* node) {
  xmlChar* content = xmlNodeGetContent(node);
  std::string text = content ? reinterpret_cast<const char*>(content) : "";
  xmlFree(content);
  return text;
}

// The first report libxml2 makes while a document is read.
void keepFirst(void* context, xmlErrorPtr error) {
  std::string* first = static_cast<std::string*>(context);
  if (!first->empty() || !error) return;
  if (error->line > 0) *first = "line " + std::to_string(error->line) + ": ";
  std::string message = error->message ? error->message : "";
  while (!message.empty() && message.back() == '\n') message.pop_back();
  *first += message;
}

}  // namespace

SignatureDocument::SignatureDocument(const std::string& file, bool author)
    : file_(file), author_(author) {}

xmlNode* SignatureDocument::signatureElement() const {
  return doc_ ? xmlDocGetRootElement(doc_.get()) : nullptr;
}

bool SignatureDocument::parse(const std::string& bytes,
                              std::vector<std::string>* failures) {
  if (bytes.size() > sv::kLargestDocument) {
    failures->push_back("document-too-large: more than " +
                        std::to_string(sv::kLargestDocument) + " bytes");
    return false;
  }
  if (documentGuards::refusesText(bytes, sv::kLargestDocument)) {
    failures->push_back("not-well-formed: a tag with too many attributes");
    return false;
  }
  std::string first;
  {
    xmltext::ErrorRoute route(keepFirst, &first);
    // Entities are not substituted, no DTD or external entity is loaded and
    // nothing is fetched from the network.
    doc_.reset(xmlReadMemory(bytes.data(), static_cast<int>(bytes.size()),
                             nullptr, nullptr,
                             XML_PARSE_NONET | XML_PARSE_NOERROR |
                                 XML_PARSE_NOWARNING));
  }
  if (!doc_) {
    failures->push_back("not-well-formed: " + (first.empty() ? "not XML" : first));
    return false;
  }
  // No real signature declares entities, and they would be expanded when
  // the properties are canonicalized.
  if (doc_->intSubset || doc_->extSubset) {
    failures->push_back("dtd-not-allowed: a document type declaration");
    doc_.reset();
    return false;
  }
  xmlNode* root = xmlDocGetRootElement(doc_.get());
  if (!isElement(root, sv::kDsigNamespace, "Signature")) {
    failures->push_back("not-a-signature: the root element is not ds:Signature");
    doc_.reset();
    return false;
  }
  // Every Id names one element, as same-document references find them;
  // of two alike, the first in the document keeps it.
  std::set<std::string> ids;
  std::vector<xmlNode*> pending(1, root);
  while (!pending.empty()) {
    xmlNode* element = pending.back();
    pending.pop_back();
    const size_t childrenAt = pending.size();
    for (xmlAttr* attr = element->properties; attr; attr = attr->next) {
      if (attr->ns || strcmp(reinterpret_cast<const char*>(attr->name), "Id") != 0)
        continue;
      const std::string id = attribute(element, "Id");
      if (!ids.insert(id).second) {
        failures->push_back("duplicate-id: " + quote(id));
        idsUnique_ = false;
      } else {
        xmlAddID(nullptr, doc_.get(), reinterpret_cast<const xmlChar*>(id.c_str()), attr);
      }
    }
    for (xmlNode* child = element->children; child; child = child->next) {
      if (child->type == XML_ELEMENT_NODE) pending.push_back(child);
    }
    std::reverse(pending.begin() + static_cast<std::ptrdiff_t>(childrenAt), pending.end());
  }
  return true;
}

void SignatureDocument::checkAlgorithm(const std::string& uri,
                                       const char* const* allowed,
                                       std::vector<std::string>* failures) {
  for (const char* const* at = allowed; *at; ++at) {
    if (uri == *at) return;
  }
  readyForValues_ = false;
  const size_t hash = uri.rfind('#');
  const std::string name = hash == std::string::npos ? uri : uri.substr(hash + 1);
  if (name.find("sha1") != std::string::npos || name.find("md5") != std::string::npos ||
      name.compare(0, 3, "dsa") == 0) {
    failures->push_back("weak-algorithm: " + quote(name));
  } else {
    failures->push_back("unsupported-algorithm: " + quote(uri.empty() ? "(none)" : uri));
  }
}

void SignatureDocument::check(const std::set<std::string>& packageFiles,
                              std::vector<std::string>* failures) {
  // A check may be repeated, against the same files or others.
  readyForValues_ = idsUnique_;
  propertiesReferenced_ = false;
  identifier_.clear();
  xmlNode* root = signatureElement();
  if (!root) {
    readyForValues_ = false;
    return;
  }
  const char* expectedId = author_ ? sv::kAuthorSignatureId : sv::kDistributorSignatureId;
  const std::string signatureId = attribute(root, "Id");
  if (signatureId != expectedId)
    failures->push_back("wrong-signature-id: " +
                        (hasAttribute(root, "Id") ? quote(signatureId) : "(none)"));

  xmlNode* signedInfo = childNamed(root, sv::kDsigNamespace, "SignedInfo");
  if (!signedInfo) {
    failures->push_back("malformed-signature: no SignedInfo");
    readyForValues_ = false;
  } else {
    checkAlgorithm(attribute(childNamed(signedInfo, sv::kDsigNamespace,
                                        "CanonicalizationMethod"),
                             "Algorithm"),
                   kCanonicalizations, failures);
    checkAlgorithm(attribute(childNamed(signedInfo, sv::kDsigNamespace,
                                        "SignatureMethod"),
                             "Algorithm"),
                   kSignatureMethods, failures);
    checkReferences(signedInfo, packageFiles, failures);
  }
  checkProperties(signatureId, failures);
  readCertificates();
  failures->insert(failures->end(), certificateFailures_.begin(),
                   certificateFailures_.end());
}

void SignatureDocument::checkReferences(xmlNode* signedInfo,
                                        const std::set<std::string>& packageFiles,
                                        std::vector<std::string>* failures) {
  const std::string propertiesUri = std::string("#") + sv::kPropertiesId;
  std::set<std::string> referenced;
  for (xmlNode* reference : childrenNamed(signedInfo, sv::kDsigNamespace, "Reference")) {
    checkAlgorithm(attribute(childNamed(reference, sv::kDsigNamespace, "DigestMethod"),
                             "Algorithm"),
                   kDigestMethods, failures);
    xmlNode* transforms = childNamed(reference, sv::kDsigNamespace, "Transforms");
    if (!hasAttribute(reference, "URI")) {
      failures->push_back("bad-reference-uri: (none)");
      readyForValues_ = false;
      continue;
    }
    const std::string uri = attribute(reference, "URI");
    if (uri == propertiesUri) {
      if (propertiesReferenced_) {
        failures->push_back("duplicate-reference: " + uri);
        readyForValues_ = false;
      }
      propertiesReferenced_ = true;
      // The properties are signed canonicalized, and only so.
      std::vector<xmlNode*> list =
          childrenNamed(transforms, sv::kDsigNamespace, "Transform");
      if (list.size() != 1) {
        failures->push_back("transform-not-allowed: " + uri +
                            " needs exactly one canonicalization");
        readyForValues_ = false;
      } else {
        checkAlgorithm(attribute(list[0], "Algorithm"), kCanonicalizations, failures);
      }
      continue;
    }
    if (!uri.empty() && uri[0] == '#') {
      failures->push_back("unexpected-reference: " + quote(uri));
      readyForValues_ = false;
      continue;
    }
    std::string path;
    if (!ReferenceUri::toPath(uri, &path)) {
      failures->push_back("bad-reference-uri: " + quote(uri));
      readyForValues_ = false;
      continue;
    }
    // A file's bytes are signed as they are.
    if (transforms) {
      failures->push_back("transform-not-allowed: " + quote(path));
      readyForValues_ = false;
    }
    const SignatureFiles::Kind kind = SignatureFiles::kindOf(path);
    if (kind != SignatureFiles::kNone &&
        (author_ || kind != SignatureFiles::kAuthor)) {
      failures->push_back("reference-to-signature-file: " + quote(path));
    }
    if (!referenced.insert(path).second) {
      failures->push_back("duplicate-reference: " + quote(path));
    } else if (!packageFiles.count(path)) {
      failures->push_back("reference-to-missing-file: " + quote(path));
      readyForValues_ = false;
    }
  }
  for (const std::string& path : packageFiles) {
    const SignatureFiles::Kind kind = SignatureFiles::kindOf(path);
    const bool covered = kind == SignatureFiles::kNone ||
                         (!author_ && kind == SignatureFiles::kAuthor);
    if (covered && !referenced.count(path))
      failures->push_back("signature-file-not-referenced: " + path);
  }
}

void SignatureDocument::checkProperties(const std::string& signatureId,
                                        std::vector<std::string>* failures) {
  if (!propertiesReferenced_)
    failures->push_back(std::string("properties-not-referenced: #") + sv::kPropertiesId);
  xmlNode* root = signatureElement();
  xmlAttr* idAttr = xmlGetID(doc_.get(), reinterpret_cast<const xmlChar*>(sv::kPropertiesId));
  xmlNode* object = idAttr ? idAttr->parent : nullptr;
  if (object && (!isElement(object, sv::kDsigNamespace, "Object") || object->parent != root))
    object = nullptr;

  // Each property's element, found in a SignatureProperty of the object.
  std::map<std::string, xmlNode*> found;
  const char* const names[] = {"Profile", "Role", "Identifier"};
  for (xmlNode* properties : childrenNamed(object, sv::kDsigNamespace, "SignatureProperties")) {
    for (xmlNode* property : childrenNamed(properties, sv::kDsigNamespace, "SignatureProperty")) {
      const std::string target = attribute(property, "Target");
      if (target != "#" + signatureId)
        failures->push_back("wrong-property-target: " +
                            (hasAttribute(property, "Target") ? quote(target) : "(none)"));
      for (const char* name : names) {
        for (xmlNode* element : childrenNamed(property, sv::kPropertiesNamespace, name)) {
          if (found.count(name)) {
            failures->push_back(std::string("duplicate-property: ") + name);
          } else {
            found[name] = element;
          }
        }
      }
    }
  }
  for (const char* name : names) {
    if (!found.count(name)) failures->push_back(std::string("missing-property: ") + name);
  }
  if (found.count("Profile")) {
    const std::string uri = attribute(found["Profile"], "URI");
    if (uri != sv::kProfileUri) failures->push_back("wrong-profile: " + quote(uri));
  }
  if (found.count("Role")) {
    const std::string uri = attribute(found["Role"], "URI");
    if (uri != (author_ ? sv::kAuthorRoleUri : sv::kDistributorRoleUri)) {
      const size_t hash = uri.rfind('#');
      failures->push_back("wrong-role: " +
                          quote(hash == std::string::npos ? uri : uri.substr(hash + 1)) +
                          " in " + (author_ ? "an author" : "a distributor") +
                          " signature");
    }
  }
  if (found.count("Identifier")) {
    identifier_ = textOf(found["Identifier"]);
    if (identifier_.empty()) {
      failures->push_back("missing-property: Identifier is empty");
    } else if (identifier_.size() > kLongestIdentifier) {
      failures->push_back("bad-identifier: longer than " +
                          std::to_string(kLongestIdentifier) + " bytes");
      identifier_.clear();
    }
  }
}

void SignatureDocument::readCertificates() {
  if (certificatesRead_) return;
  certificatesRead_ = true;
  std::vector<std::string>* failures = &certificateFailures_;
  xmlNode* keyInfo = childNamed(signatureElement(), sv::kDsigNamespace, "KeyInfo");
  std::string complaint;
  CoreSignature::Quiet quiet(&complaint);
  for (xmlNode* data : childrenNamed(keyInfo, sv::kDsigNamespace, "X509Data")) {
    for (xmlNode* element : childrenNamed(data, sv::kDsigNamespace, "X509Certificate")) {
      std::string text = textOf(element);
      if (text.size() > kLargestCertificate * 2) {
        failures->push_back("bad-certificate: larger than any certificate");
        continue;
      }
      std::string der(text.size() + 1, '\0');
      xmlSecSize size = 0;
      if (xmlSecBase64Decode_ex(reinterpret_cast<const xmlChar*>(text.c_str()),
                                reinterpret_cast<xmlSecByte*>(&der[0]),
                                static_cast<xmlSecSize>(der.size()), &size) < 0 ||
          size == 0) {
        failures->push_back("bad-certificate: not base64");
        continue;
      }
      der.resize(static_cast<size_t>(size));
      certificates_.push_back(der);
    }
  }
}
