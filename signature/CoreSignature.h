// SPDX-License-Identifier: Apache-2.0
// CoreSignature computes and checks an XML signature's values with
// libxmlsec: the digest of every reference and the signature value over
// SignedInfo. Only the algorithms a widget signature may use are enabled,
// and a reference reaches only files below the package folder it is given,
// read a block at a time, through no link.
//
// When the digests of the package's files as they were written are known,
// the file references are compared with those instead of being read again;
// the properties' reference and the signature value over SignedInfo are
// still libxmlsec's to compute.
//
// libxmlsec is readied once per process, on first use, and never shut down
// (its tables are process-wide and a host may be using them still). Any
// number of threads may check signatures at the same time: each check has
// contexts of its own, and the package folder a reference reads from is the
// calling thread's.
#ifndef WIDGETENGINE_SIGNATURE_CORESIGNATURE_H_
#define WIDGETENGINE_SIGNATURE_CORESIGNATURE_H_

#include <libxml/tree.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "signature/Sha256.h"

typedef struct x509_st X509;
typedef struct evp_pkey_st EVP_PKEY;

class CoreSignature {
 public:
  // Readies libxmlsec; false with *reason when it cannot be.
  static bool ready(std::string* reason);

  // While one lives, the first complaint libxmlsec makes on this thread is
  // kept in *complaint and none is printed.
  class Quiet {
   public:
    explicit Quiet(std::string* complaint);
    ~Quiet();
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;

   private:
    std::string* previous_;
  };

  // The digest of each package path's bytes as they were written.
  typedef std::map<std::string, Sha256::Digest> WrittenDigests;

  // What of a signature's values can be checked without the package's
  // files, when those are compared with the digests they were written
  // with: the methods and the key, the references within the document
  // (the properties) up to the first that fails, and the value over
  // SignedInfo. Each step keeps what libxmlsec said during it, so that the
  // check that uses it tells what the check in one go would have.
  struct Early {
    struct Step {
      bool done = false;     // false when it could not be carried out
      bool matches = false;  // a reference: its digest is right
      std::string complaint;
    };
    std::string internal;   // why nothing could be checked: "internal: ..."
    bool shaped = false;    // the elements are those of an XML signature
    Step methods;
    std::vector<Step> sameDocument;
    Step value;             // matches: the value is right
  };
  static Early prepare(xmlNode* signature, EVP_PKEY* key);

  // Checks the signature element with key; a reference reads the file of
  // files (package paths) it names below folderFd, unless written (when
  // not null) holds its digest. With written, early (when not null) is
  // what prepare() found for the same element and key. Each failed rule
  // goes on *failures; true when none did.
  static bool verify(xmlNode* signature, EVP_PKEY* key, int folderFd,
                     const std::set<std::string>& files,
                     const WrittenDigests* written,
                     std::vector<std::string>* failures,
                     const Early* early = nullptr);

  // Fills in the digests and the signature value of the signature element,
  // a template, with key; certificates (the signer's first) go into its
  // X509Data. References read files as verify() has them. False with
  // *reason when it cannot.
  static bool sign(xmlNode* signature, EVP_PKEY* key,
                   const std::vector<X509*>& certificates, int folderFd,
                   const std::set<std::string>& files, std::string* reason);
};

#endif  // WIDGETENGINE_SIGNATURE_CORESIGNATURE_H_
