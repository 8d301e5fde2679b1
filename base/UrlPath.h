// SPDX-License-Identifier: Apache-2.0
// UrlPath reads a path that the engine puts after "file://<widget directory>"
// the way a browser will read the address: percent escapes decoded,
// backslashes taken as separators, "." and ".." segments resolved, repeated
// slashes collapsed, the path ending at "?" or "#". The engine answers an
// address (launch URL, icon, localized copy) only when, so read, it stays
// inside the widget's directory.
#ifndef WIDGETENGINE_URLPATH_H_
#define WIDGETENGINE_URLPATH_H_

#include <cstddef>
#include <string>

class UrlPath {
 public:
  // True when the relative path, read as a browser reads a URL's path,
  // never climbs above the directory it is relative to.
  static bool staysInside(const char* path, size_t length);
  static bool staysInside(const std::string& path) {
    return staysInside(path.data(), path.size());
  }
};

#endif  // WIDGETENGINE_URLPATH_H_
