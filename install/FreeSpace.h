// SPDX-License-Identifier: Apache-2.0
// FreeSpace tells how much room an extraction has, so that a package that
// cannot fit is refused before a byte of it is written.
#ifndef WIDGETENGINE_FREESPACE_H_
#define WIDGETENGINE_FREESPACE_H_

#include <cstdint>
#include <string>

class FreeSpace {
 public:
  // Bytes that the file system holding dir can still give to this user. The
  // directory itself may not exist yet, so its nearest existing ancestor is
  // asked. Returns false when nothing could be asked.
  static bool available(const std::string& dir, uint64_t* bytes);
};

#endif  // WIDGETENGINE_FREESPACE_H_
