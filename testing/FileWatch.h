// SPDX-License-Identifier: Apache-2.0
// FileWatch waits for a change that another process makes to a folder tree:
// it watches the folder, and every folder made below it, with inotify and
// asks the test's condition again after each change, until the condition
// holds or the hang guard ends the wait.
//
//   FileWatch watch(root);           // before the process that makes it
//   ...start the process...
//   ASSERT_TRUE(watch.waitFor([&] { return TempDir::exists(root + "x"); }));
#ifndef WIDGETENGINE_TESTING_FILEWATCH_H_
#define WIDGETENGINE_TESTING_FILEWATCH_H_

#include <chrono>
#include <functional>
#include <map>
#include <string>

class FileWatch {
 public:
  explicit FileWatch(const std::string& directory);
  ~FileWatch();

  FileWatch(const FileWatch&) = delete;
  FileWatch& operator=(const FileWatch&) = delete;

  // True once condition holds; false when it still does not at the deadline.
  bool waitFor(const std::function<bool()>& condition,
               std::chrono::milliseconds deadline = std::chrono::seconds(120));

 private:
  void watchTree(const std::string& directory);

  int fd_;
  std::map<int, std::string> folders_;  // by watch descriptor
};

#endif  // WIDGETENGINE_TESTING_FILEWATCH_H_
