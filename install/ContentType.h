// SPDX-License-Identifier: Apache-2.0
// ContentType tells the media type of a widget file, by the extension of its
// name (exact, case-sensitive table) or by the first bytes of its content
// (four raster image formats). Both answer "unknown" when they cannot tell.
#ifndef WIDGETENGINE_CONTENTTYPE_H_
#define WIDGETENGINE_CONTENTTYPE_H_

#include <cstdio>
#include <string>

class ContentType {
 public:
  static const char* const kUnknown;

  static std::string fromExtension(const std::string& fileName);
  // Rewinds file and reads its first eight bytes.
  static std::string fromContent(FILE* file);
};

#endif  // WIDGETENGINE_CONTENTTYPE_H_
