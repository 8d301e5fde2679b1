// SPDX-License-Identifier: Apache-2.0
// PackageTree is the list of files of an unpacked package, read from the
// directory the package was unpacked into, and the one way to open them:
// a name at a time below that directory, never through a link. A package
// as the engine unpacks it holds only folders and plain files; a tree with
// anything else in it is not one the engine vouches for.
#ifndef WIDGETENGINE_SIGNATURE_PACKAGETREE_H_
#define WIDGETENGINE_SIGNATURE_PACKAGETREE_H_

#include <sys/types.h>

#include <map>
#include <set>
#include <string>
#include <utility>

class PackageTree {
 public:
  // Reads the tree below the directory open at folderFd (which the caller
  // keeps). False with *reason when it holds a link or anything else but
  // folders and plain files, is deeper or larger than any package, or
  // cannot be read.
  bool read(int folderFd, std::string* reason);

  // Every plain file, by its path relative to the root ("js/app.js").
  const std::set<std::string>& files() const { return files_; }
  // The device and inode of each of them, as the tree was read.
  const std::map<std::string, std::pair<dev_t, ino_t>>& inodes() const {
    return inodes_;
  }

  // Opens the file at path below folderFd for reading, one name at a time,
  // refusing links on the way and at the end and anything but a plain file.
  // -1 with errno set when it cannot.
  static int openFile(int folderFd, const std::string& path);

 private:
  bool readFolder(int fd, const std::string& prefix, int depth,
                  std::string* reason);

  std::set<std::string> files_;
  std::map<std::string, std::pair<dev_t, ino_t>> inodes_;
};

#endif  // WIDGETENGINE_SIGNATURE_PACKAGETREE_H_
