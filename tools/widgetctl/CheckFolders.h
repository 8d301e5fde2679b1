// SPDX-License-Identifier: Apache-2.0
// The private folders of "widgetctl check" and "widgetctl sign" under the
// temporary directory: a running command holds an flock() on a marker file
// inside its folder for as long as it lives, so the folder of one that was
// killed (and could not remove it) is told apart by its free lock and
// removed by the next check or sign.
#ifndef WIDGETCTL_CHECKFOLDERS_H_
#define WIDGETCTL_CHECKFOLDERS_H_

#include <string>

class CheckFolders {
 public:
  // The prefix of every check folder's name, before mkdtemp's six letters.
  static const char kPrefix[];

  // Marks folder as the folder of this live process. False when the marker
  // cannot be made (the folder then stays until removed by hand).
  static bool markAlive(const std::string& folder);

  // Removes, under tmp, the check folders of this user whose check is dead.
  // Links and other users' folders are left alone; the number removed.
  static int removeDead(const std::string& tmp);
};

#endif  // WIDGETCTL_CHECKFOLDERS_H_
