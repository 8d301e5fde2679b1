// SPDX-License-Identifier: Apache-2.0
// ReferenceUri turns the URI of a signature's reference into the path of a
// package file and back. A file is named by its path relative to the
// package root, percent-encoded ("js%2Ftest.js" and "js/test.js" are the
// same file). Anything that could name something outside the package is
// not a file reference: a scheme, an absolute path, a query or fragment,
// an empty, "." or ".." segment, a NUL byte or a malformed escape.
#ifndef WIDGETENGINE_SIGNATURE_REFERENCEURI_H_
#define WIDGETENGINE_SIGNATURE_REFERENCEURI_H_

#include <string>

class ReferenceUri {
 public:
  // The package path uri names; false when it names none.
  static bool toPath(const std::string& uri, std::string* path);
  // The URI a signature names the file at path by.
  static std::string fromPath(const std::string& path);
};

#endif  // WIDGETENGINE_SIGNATURE_REFERENCEURI_H_
