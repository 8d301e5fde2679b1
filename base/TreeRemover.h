// SPDX-License-Identifier: Apache-2.0
// TreeRemover empties a directory that the caller has open: everything below
// it goes, however deep, and nothing else. Every step is taken relative to
// the descriptor of the directory it is in, one name at a time and without
// following links, so a link met anywhere is unlinked (never what it points
// to) and a directory swapped for a link or another directory during the
// walk cannot lead the removal out of the tree. The walk never changes the
// working directory and keeps a bounded number of descriptors open.
#ifndef WIDGETENGINE_TREEREMOVER_H_
#define WIDGETENGINE_TREEREMOVER_H_

#include <functional>

class TreeRemover {
 public:
  // Told the errno of each directory below the top that is there but cannot
  // be opened (unreadable, say). A link or file that has taken a directory's
  // place is not such a failure: it is simply unlinked.
  using OpenFailure = std::function<void(int error)>;

  // How many directories below the top one walk holds open at once. A
  // deeper tree is walked all the same: a directory whose descriptor was
  // given back is opened again, name by name from the nearest one still
  // open, and only if it is still the directory that was left.
  static constexpr int kOpenLevels = 16;

  explicit TreeRemover(OpenFailure onOpenFailure = OpenFailure());

  // Removes everything inside the directory open at dirFd, which stays open
  // and the caller's. False, with nothing touched, when that directory cannot
  // be listed. Otherwise true, whatever could not be removed: the caller's
  // removal of the directory itself tells whether it is empty now.
  bool removeContents(int dirFd) const;

 private:
  OpenFailure onOpenFailure_;
};

#endif  // WIDGETENGINE_TREEREMOVER_H_
