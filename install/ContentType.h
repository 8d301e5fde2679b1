// SPDX-License-Identifier: Apache-2.0
// ContentType tells the media type of a widget file, by the extension of its
// name (exact, case-sensitive table) or by the first bytes of its content
// (four raster image formats). Both answer "unknown" when they cannot tell.
#ifndef WIDGETENGINE_CONTENTTYPE_H_
#define WIDGETENGINE_CONTENTTYPE_H_

#include <cstdio>
#include <string>

#include "base/ToolsExport.h"

class ContentType {
 public:
  WIDGETENGINE_TOOLS_EXPORT static const char* const kUnknown;

  WIDGETENGINE_TOOLS_EXPORT static std::string fromExtension(const std::string& fileName);
  // Rewinds file and reads its first eight bytes.
  WIDGETENGINE_TOOLS_EXPORT static std::string fromContent(FILE* file);
};

#endif  // WIDGETENGINE_CONTENTTYPE_H_
