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

class TrustedPath {
 public:
  // The file open at fd, found at path, is trusted. Otherwise false, and
  // *reason says why in words that name path.
  static bool opened(int fd, const std::string& path, std::string* reason);

  // The directory at path is trusted. A link on the way to it is followed
  // only when the calling user or root made it (see walk()); then the
  // directory it leads to is what counts. A directory that does not exist is
  // trusted too, so that the caller fails on it as it always has; anything
  // else that cannot be opened as a directory is not.
  static bool directory(const std::string& path, std::string* reason);

  // Opens the directory at path (O_PATH) the way walk() does and checks it
  // as opened() does. The descriptor is the caller's to close; -1, with
  // *reason and errno set, when the directory cannot be opened (ENOENT:
  // something on the way is missing) or is not trusted (EPERM).
  static int openDirectory(const std::string& path, std::string* reason);

  // Opens the directory at path (O_PATH) one name at a time, without letting
  // the kernel follow any link: a link that another user made (in a folder
  // anyone can add names to, /tmp say) is refused, as it would lead the
  // caller to a place of their choosing; one made by the caller or root is
  // followed. The directory itself is not checked. -1 with *reason and errno
  // set (EPERM for a refused link) when it cannot be had.
  static int walk(const std::string& path, std::string* reason);

  // walk() to the folder that holds the last name of path (trailing "/"
  // aside), which *last receives, so that the caller acts on that name
  // with mkdirat(), openat() and the like, links there being theirs to
  // follow or not. -1 with *reason and errno set as walk() has them (EINVAL
  // when path has no last name).
  static int walkToParent(const std::string& path, std::string* last,
                          std::string* reason);

  // The path the directory open at fd has now, with a "/" at the end;
  // empty when it cannot be told.
  static std::string realPathOf(int fd);

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
