// SPDX-License-Identifier: Apache-2.0
// ScopedTmpfs mounts a small tmpfs on a folder for the life of the object, so
// that a test can fill a file system, and takes it away (detached) at the end.
// Mounting needs root: otherwise, or where the mount is refused, whyNot()
// says why, for the line of a skipped test.
//
//   ScopedTmpfs full(root, "size=1m,mode=0755");
//   if (!full.mounted()) GTEST_SKIP() << full.whyNot();
#ifndef WIDGETENGINE_TESTING_SCOPEDTMPFS_H_
#define WIDGETENGINE_TESTING_SCOPEDTMPFS_H_

#include <string>

class ScopedTmpfs {
 public:
  // options as mount(8) takes them. A tmpfs is world-writable unless its
  // mode says otherwise, and the engine trusts no such folder.
  ScopedTmpfs(const std::string& path, const std::string& options);
  ~ScopedTmpfs();

  ScopedTmpfs(const ScopedTmpfs&) = delete;
  ScopedTmpfs& operator=(const ScopedTmpfs&) = delete;

  bool mounted() const { return whyNot_.empty(); }
  const std::string& whyNot() const { return whyNot_; }
  // Takes the file system away now; the folder shows what it held before.
  void unmount();

 private:
  std::string path_;
  std::string whyNot_;
};

#endif  // WIDGETENGINE_TESTING_SCOPEDTMPFS_H_
