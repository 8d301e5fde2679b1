// SPDX-License-Identifier: Apache-2.0
// TempDir is a fresh directory under $TMPDIR (or /tmp) for one test, removed
// with everything below it when the object goes away. Removal never follows
// symbolic links.
#ifndef WIDGETENGINE_TESTING_TEMPDIR_H_
#define WIDGETENGINE_TESTING_TEMPDIR_H_

#include <string>
#include <vector>

class TempDir {
 public:
  TempDir();
  ~TempDir();

  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // The directory, without a trailing "/".
  const std::string& path() const { return path_; }
  // path() + "/" + name.
  std::string file(const std::string& name) const;

  // Helpers for building fixtures inside the directory.
  static void writeFile(const std::string& path, const std::string& contents);
  static std::string readFile(const std::string& path);
  static bool exists(const std::string& path);
  static void removeTree(const std::string& path);
  // A directory (not a link to one) stands at path.
  static bool isDirectory(const std::string& path);
  // The names in a directory, without "." and "..", sorted; empty when the
  // directory cannot be read.
  static std::vector<std::string> listDirectory(const std::string& path);

 private:
  std::string path_;
};

#endif  // WIDGETENGINE_TESTING_TEMPDIR_H_
