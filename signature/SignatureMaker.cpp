// SPDX-License-Identifier: Apache-2.0
#include "signature/SignatureMaker.h"

#include <errno.h>
#include <fcntl.h>
#include <libxml/parser.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rand.h>
#include <openssl/x509.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "base/ScopedFd.h"
#include "config/XmlText.h"
#include "signature/CoreSignature.h"
#include "signature/PackageTree.h"
#include "signature/ReferenceUri.h"
#include "signature/SignatureFiles.h"
#include "signature/Vocabulary.h"

namespace sv = signatureVocabulary;

namespace {

std::string readText(const std::string& path, std::string* reason) {
  std::unique_ptr<FILE, decltype(&fclose)> file(fopen(path.c_str(), "rb"), fclose);
  if (!file) {
    *reason = path + ": " + strerror(errno);
    return std::string();
  }
  std::string text;
  char buffer[16384];
  size_t got;
  while ((got = fread(buffer, 1, sizeof(buffer), file.get())) > 0 &&
         text.size() < (1u << 20))
    text.append(buffer, got);
  if (text.empty()) *reason = path + ": empty or unreadable";
  return text;
}

std::string randomIdentifier() {
  unsigned char bytes[16];
  if (RAND_bytes(bytes, sizeof(bytes)) != 1) return std::string();
  std::string text;
  char pair[3];
  for (unsigned char byte : bytes) {
    snprintf(pair, sizeof(pair), "%02x", byte);
    text += pair;
  }
  return text;
}

// Text for an XML attribute or element.
std::string escaped(const std::string& text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      default: out += c;
    }
  }
  return out;
}

}  // namespace

SignatureMaker::~SignatureMaker() { clear(); }

void SignatureMaker::clear() {
  EVP_PKEY_free(key_);
  key_ = nullptr;
  for (X509* certificate : certificates_) X509_free(certificate);
  certificates_.clear();
}

bool SignatureMaker::loadSigner(const std::string& keyPath,
                                const std::string& certificatesPath,
                                std::string* reason) {
  const std::string key = readText(keyPath, reason);
  if (key.empty()) return false;
  const std::string certificates = readText(certificatesPath, reason);
  if (certificates.empty()) return false;
  return setSigner(key, certificates, reason);
}

bool SignatureMaker::setSigner(const std::string& keyPem,
                               const std::string& certificatesPem,
                               std::string* reason) {
  clear();
  std::unique_ptr<BIO, decltype(&BIO_free)> keyBio(
      BIO_new_mem_buf(keyPem.data(), static_cast<int>(keyPem.size())), BIO_free);
  key_ = keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, nullptr, nullptr)
                : nullptr;
  std::unique_ptr<BIO, decltype(&BIO_free)> certificateBio(
      BIO_new_mem_buf(certificatesPem.data(), static_cast<int>(certificatesPem.size())),
      BIO_free);
  while (certificateBio) {
    X509* certificate = PEM_read_bio_X509(certificateBio.get(), nullptr, nullptr, nullptr);
    if (!certificate) break;
    certificates_.push_back(certificate);
  }
  ERR_clear_error();
  if (!key_) {
    *reason = "the key is not a PEM private key";
  } else if (certificates_.empty()) {
    *reason = "no PEM certificate";
  } else if (X509_check_private_key(certificates_[0], key_) != 1) {
    *reason = "the key is not the first certificate's";
  } else if (EVP_PKEY_base_id(key_) != EVP_PKEY_RSA &&
             EVP_PKEY_base_id(key_) != EVP_PKEY_EC) {
    *reason = "the key is neither RSA nor EC";
  } else {
    return true;
  }
  ERR_clear_error();
  clear();
  return false;
}

std::string SignatureMaker::makeTemplate(const std::set<std::string>& files,
                                         Role role) const {
  const bool author = role == kAuthor;
  const std::string id = author ? sv::kAuthorSignatureId : sv::kDistributorSignatureId;
  const std::string c14n = exclusive_ ? sv::kExclusiveC14n : sv::kC14n11;
  const bool ec = key_ && EVP_PKEY_base_id(key_) == EVP_PKEY_EC;
  const std::string digest =
      std::string("<DigestMethod Algorithm=\"") + sv::kSha256 +
      "\"/><DigestValue></DigestValue>";
  std::string text = std::string("<Signature xmlns=\"") + sv::kDsigNamespace +
                     "\" Id=\"" + id + "\">\n<SignedInfo>\n" +
                     "<CanonicalizationMethod Algorithm=\"" + c14n + "\"/>\n" +
                     "<SignatureMethod Algorithm=\"" +
                     (ec ? sv::kEcdsaSha256 : sv::kRsaSha256) + "\"/>\n";
  for (const std::string& path : files) {
    const SignatureFiles::Kind kind = SignatureFiles::kindOf(path);
    if (kind == SignatureFiles::kDistributor || (author && kind == SignatureFiles::kAuthor))
      continue;
    text += "<Reference URI=\"" + escaped(ReferenceUri::fromPath(path)) + "\">" +
            digest + "</Reference>\n";
  }
  text += std::string("<Reference URI=\"#") + sv::kPropertiesId +
          "\"><Transforms><Transform Algorithm=\"" + c14n +
          "\"/></Transforms>" + digest + "</Reference>\n</SignedInfo>\n" +
          "<SignatureValue></SignatureValue>\n" +
          "<KeyInfo><X509Data></X509Data></KeyInfo>\n" +
          "<Object Id=\"" + sv::kPropertiesId + "\"><SignatureProperties xmlns:dsp=\"" +
          sv::kPropertiesNamespace + "\">\n";
  const std::string target = "Target=\"#" + id + "\"";
  const std::string identifier =
      identifier_.empty() ? randomIdentifier() : identifier_;
  text += "<SignatureProperty Id=\"profile\" " + target + "><dsp:Profile URI=\"" +
          sv::kProfileUri + "\"/></SignatureProperty>\n" +
          "<SignatureProperty Id=\"role\" " + target + "><dsp:Role URI=\"" +
          (author ? sv::kAuthorRoleUri : sv::kDistributorRoleUri) +
          "\"/></SignatureProperty>\n" +
          "<SignatureProperty Id=\"identifier\" " + target + "><dsp:Identifier>" +
          escaped(identifier) + "</dsp:Identifier></SignatureProperty>\n" +
          "</SignatureProperties></Object>\n</Signature>\n";
  return text;
}

bool SignatureMaker::signTemplate(int folderFd, const std::string& text,
                                  std::string* document, std::string* reason) const {
  if (!key_) {
    *reason = "no signer";
    return false;
  }
  xmltext::DocPtr doc(xmlReadMemory(text.data(), static_cast<int>(text.size()),
                                    nullptr, nullptr,
                                    XML_PARSE_NONET | XML_PARSE_NOERROR |
                                        XML_PARSE_NOWARNING));
  xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
  if (!root) {
    *reason = "the template is not XML";
    return false;
  }
  // Same-document references find their elements by Id.
  std::vector<xmlNode*> pending(1, root);
  while (!pending.empty()) {
    xmlNode* element = pending.back();
    pending.pop_back();
    xmlAttr* id = xmlHasProp(element, reinterpret_cast<const xmlChar*>("Id"));
    if (id && !id->ns) {
      xmlChar* value = xmlNodeListGetString(doc.get(), id->children, 1);
      if (value && !xmlGetID(doc.get(), value)) xmlAddID(nullptr, doc.get(), value, id);
      xmlFree(value);
    }
    for (xmlNode* child = element->children; child; child = child->next) {
      if (child->type == XML_ELEMENT_NODE) pending.push_back(child);
    }
  }
  PackageTree tree;
  if (!tree.read(folderFd, reason) ||
      !CoreSignature::sign(root, key_, certificates_, folderFd, tree.files(), reason))
    return false;
  xmlChar* bytes = nullptr;
  int size = 0;
  xmlDocDumpMemoryEnc(doc.get(), &bytes, &size, "UTF-8");
  if (!bytes) {
    *reason = "out of memory";
    return false;
  }
  document->assign(reinterpret_cast<const char*>(bytes), static_cast<size_t>(size));
  xmlFree(bytes);
  return true;
}

bool SignatureMaker::sign(const std::string& path, Role role, std::string* written,
                          std::string* reason) {
  ScopedFd folder(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (folder.get() < 0) {
    *reason = path + ": " + strerror(errno);
    return false;
  }
  PackageTree tree;
  if (!tree.read(folder.get(), reason)) return false;
  std::vector<std::string> rootFiles;
  for (const std::string& file : tree.files()) {
    if (file.find('/') == std::string::npos) rootFiles.push_back(file);
  }
  const std::string name =
      role == kAuthor ? SignatureFiles::kAuthorName
                      : SignatureFiles::distributorName(
                            SignatureFiles::nextDistributorNumber(rootFiles));
  std::string document;
  if (!signTemplate(folder.get(), makeTemplate(tree.files(), role), &document, reason))
    return false;

  // Written beside under a fresh name, then put in place whole.
  const std::string temporary = "." + name + "." + randomIdentifier().substr(0, 12);
  ScopedFd out(openat(folder.get(), temporary.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
  if (out.get() < 0) {
    *reason = "cannot write " + name + ": " + strerror(errno);
    return false;
  }
  size_t done = 0;
  while (done < document.size()) {
    const ssize_t put = write(out.get(), document.data() + done, document.size() - done);
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) break;
    done += static_cast<size_t>(put);
  }
  const int error = errno;
  if (done != document.size() || out.reset() != 0 ||
      renameat(folder.get(), temporary.c_str(), folder.get(), name.c_str()) != 0) {
    *reason = "cannot write " + name + ": " + strerror(done != document.size() ? error : errno);
    unlinkat(folder.get(), temporary.c_str(), 0);
    return false;
  }
  *written = name;
  return true;
}
