// SPDX-License-Identifier: Apache-2.0
// FolderWalker opens, creating when missing, the folders below one base
// directory without ever following a symbolic link, so that a link planted
// inside the tree cannot lead a write elsewhere. The chain of the last folder
// stays open: archives list the files of one folder together, so most entries
// need no lookup at all.
#ifndef WIDGETENGINE_FOLDERWALKER_H_
#define WIDGETENGINE_FOLDERWALKER_H_

#include <cstddef>
#include <string>
#include <vector>

class FolderWalker {
 public:
  // Opens dir (a path that may end with "/") as the base of an extraction,
  // O_PATH. A link in its place is not followed, nor one on the way that
  // another user made. -1 with errno set when it cannot be opened.
  static int openBase(const std::string& dir);

  // baseFd may be -1, with baseError telling why the base could not be
  // opened; every folder below it then fails with that error.
  FolderWalker(int baseFd, int baseError)
      : baseFd_(baseFd), baseError_(baseError) {}
  ~FolderWalker();
  FolderWalker(const FolderWalker&) = delete;
  FolderWalker& operator=(const FolderWalker&) = delete;

  // Returns a descriptor of folder `relative` ("" is the base itself), valid
  // until the next call, or -1 with *error set. *created receives what
  // creating the folder came to: 0 when its last component was made or
  // already there, else an errno.
  int open(const std::string& relative, int* error, int* created);

 private:
  static constexpr size_t kMaxChain = 32;

  void truncate(size_t keep);
  void closeDeep();

  int baseFd_;
  int baseError_;
  int deepFd_ = -1;
  std::vector<std::string> names_;
  std::vector<int> fds_;
};

#endif  // WIDGETENGINE_FOLDERWALKER_H_
