// SPDX-License-Identifier: Apache-2.0
// SignatureFiles tells a package's signature documents from its other files.
// Only names at the root of the package count: author-signature.xml, and
// signatureN.xml (N a number without leading zeros) for distributors. The
// same names in a subfolder are ordinary files, to be signed like any other.
#ifndef WIDGETENGINE_SIGNATURE_SIGNATUREFILES_H_
#define WIDGETENGINE_SIGNATURE_SIGNATUREFILES_H_

#include <string>
#include <vector>

class SignatureFiles {
 public:
  enum Kind { kNone, kAuthor, kDistributor };

  static const char kAuthorName[];

  // What the file at path (relative to the package root) is.
  static Kind kindOf(const std::string& path);

  // The signature documents among paths, in the order they are processed:
  // the author's first, then the distributors' from the highest number down.
  static std::vector<std::string> inProcessingOrder(
      const std::vector<std::string>& paths);

  // The name of distributor signature number (as decimal digits).
  static std::string distributorName(const std::string& number);
  // The number after the highest distributor signature among paths, as
  // decimal digits; "1" when there is none.
  static std::string nextDistributorNumber(const std::vector<std::string>& paths);
};

#endif  // WIDGETENGINE_SIGNATURE_SIGNATUREFILES_H_
