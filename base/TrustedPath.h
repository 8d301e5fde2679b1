// SPDX-License-Identifier: Apache-2.0
// TrustedPath decides whether the engine may act on a directory or file that
// another local user could have made or could change under it: the registry,
// its journals, the widget root and the installation lock files. Like ssh with
// its keys, the engine trusts only what belongs to the calling user (or to
// root, who can do anything to that user anyway) and what nobody else can
// write. Each check looks at the very file it opened (fstat on a descriptor,
// never a second lookup of the name), so nothing can be swapped in between.
#ifndef WIDGETENGINE_TRUSTEDPATH_H_
#define WIDGETENGINE_TRUSTEDPATH_H_

#include <initializer_list>
#include <string>

#include "base/ToolsExport.h"

class TrustedPath {
 public:
  // The file open at fd, found at path, is trusted. Otherwise false, and
  // *reason says why in words that name path.
  WIDGETENGINE_TOOLS_EXPORT static bool opened(int fd, const std::string& path, std::string* reason);

  // The directory at path (a link to one is followed: the directory is what
  // counts) is trusted. A directory that does not exist is trusted too, so
  // that the caller fails on it as it always has; anything else that cannot
  // be opened as a directory is not.
  WIDGETENGINE_TOOLS_EXPORT static bool directory(const std::string& path, std::string* reason);

  // What stands at path, when anything does, is trusted. A link there is
  // not followed and not trusted.
  static bool fileIfPresent(const std::string& path, std::string* reason);

  // The folder that holds the file at path (its text up to the last "/"),
  // the file when present, and each file path + suffix that is present (the
  // companions a database keeps beside it) are all trusted.
  static bool fileAndFolder(const std::string& path,
                            std::initializer_list<const char*> suffixes,
                            std::string* reason);
};

#endif  // WIDGETENGINE_TRUSTEDPATH_H_
