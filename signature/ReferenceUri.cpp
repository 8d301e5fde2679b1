// SPDX-License-Identifier: Apache-2.0
#include "signature/ReferenceUri.h"

#include <libxml/uri.h>
#include <libxml/xmlmemory.h>

#include <cctype>
#include <memory>

namespace {

struct XmlFree {
  void operator()(void* p) const { xmlFree(p); }
};

bool isHex(char c) { return std::isxdigit(static_cast<unsigned char>(c)) != 0; }

// The longest package path named, the system's longest path. fromPath may
// escape every byte of one, so a URI may be three times as long: a bound
// on the URI alone would refuse, after signing, the name the maker wrote.
const size_t kLongestPath = 4096;

}  // namespace

bool ReferenceUri::toPath(const std::string& uri, std::string* path) {
  if (uri.empty() || uri.size() > 3 * kLongestPath) return false;
  for (size_t i = 0; i < uri.size(); ++i) {
    const char c = uri[i];
    // "?" and "#" end a path; ":" before the first "/" starts a scheme, and
    // a file whose name holds one is still named, escaped.
    if (c == '?' || c == '#' || c == ':' || c == '\\') return false;
    if (static_cast<unsigned char>(c) <= ' ') return false;
    if (c == '%' && (i + 2 >= uri.size() || !isHex(uri[i + 1]) || !isHex(uri[i + 2])))
      return false;
  }
  std::unique_ptr<char, XmlFree> decoded(
      xmlURIUnescapeString(uri.c_str(), static_cast<int>(uri.size()), nullptr));
  if (!decoded) return false;
  // Escaped NUL bytes end the C string early; the length tells.
  std::string result(decoded.get());
  size_t escapes = 0;
  for (char c : uri) escapes += c == '%';
  if (result.size() != uri.size() - 2 * escapes) return false;
  if (result.size() > kLongestPath) return false;

  size_t start = 0;
  while (true) {
    const size_t end = result.find('/', start);
    const std::string segment =
        result.substr(start, end == std::string::npos ? std::string::npos : end - start);
    if (segment.empty() || segment == "." || segment == "..") return false;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  *path = result;
  return true;
}

std::string ReferenceUri::fromPath(const std::string& path) {
  std::unique_ptr<xmlChar, XmlFree> escaped(
      xmlURIEscapeStr(reinterpret_cast<const xmlChar*>(path.c_str()),
                      reinterpret_cast<const xmlChar*>("/")));
  if (!escaped) return std::string();
  return reinterpret_cast<const char*>(escaped.get());
}
