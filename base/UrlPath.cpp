// SPDX-License-Identifier: Apache-2.0
#include "base/UrlPath.h"

namespace {

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

// Written out rather than decoded with libcurl: mapResource calls this on
// every localized answer, and curl_easy_unescape() allocates a copy each
// time; one pass that only counts segments needs no memory at all.
bool UrlPath::staysInside(const char* path, size_t length) {
  long depth = 0;
  // The segment being read, as far as it matters: how many bytes it has
  // and whether all of them are dots.
  size_t segmentLength = 0;
  bool onlyDots = true;
  auto endSegment = [&]() {
    if (segmentLength == 2 && onlyDots) {
      --depth;
    } else if (segmentLength > 0 && !(segmentLength == 1 && onlyDots)) {
      ++depth;
    }
    segmentLength = 0;
    onlyDots = true;
    return depth >= 0;
  };
  for (size_t i = 0; i < length; ++i) {
    char c = path[i];
    if (c == '?' || c == '#') break;
    if (c == '%' && i + 2 < length &&
        hexValue(path[i + 1]) >= 0 && hexValue(path[i + 2]) >= 0) {
      c = static_cast<char>(hexValue(path[i + 1]) * 16 + hexValue(path[i + 2]));
      i += 2;
    }
    if (c == '/' || c == '\\') {
      if (!endSegment()) return false;
      continue;
    }
    ++segmentLength;
    onlyDots = onlyDots && c == '.';
  }
  return endSegment();
}
