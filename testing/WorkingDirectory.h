// SPDX-License-Identifier: Apache-2.0
// WorkingDirectory puts the process back in the directory it was in when the
// object was made. Removing a tree moves the process to the tree's parent,
// which a test's TempDir then removes; fixtures that remove trees keep one,
// so that no later test starts in a directory that is gone.
#ifndef WIDGETENGINE_TESTING_WORKINGDIRECTORY_H_
#define WIDGETENGINE_TESTING_WORKINGDIRECTORY_H_

class WorkingDirectory {
 public:
  WorkingDirectory();
  ~WorkingDirectory();

  WorkingDirectory(const WorkingDirectory&) = delete;
  WorkingDirectory& operator=(const WorkingDirectory&) = delete;

 private:
  int fd_;
};

#endif  // WIDGETENGINE_TESTING_WORKINGDIRECTORY_H_
