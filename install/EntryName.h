// SPDX-License-Identifier: Apache-2.0
// EntryName holds what the extractor asks of the name of an archive entry:
// whether it is one it accepts, whether it names a folder, and the name
// itself as libzip reports it.
#ifndef WIDGETENGINE_ENTRYNAME_H_
#define WIDGETENGINE_ENTRYNAME_H_

#include <zip.h>

#include <string>

class EntryName {
 public:
  // Printable ASCII without the characters some file systems or shells treat
  // specially, and no ".." component.
  static bool isAccepted(const std::string& name);
  // The name ends with "/".
  static bool isFolder(const std::string& name);
  // The entry's name, or "" when libzip has none for it.
  static std::string of(const zip_stat_t& stat);
};

#endif  // WIDGETENGINE_ENTRYNAME_H_
