// SPDX-License-Identifier: Apache-2.0
// WidgetUnInstaller is the job that removes one installed widget by name: it
// finds the widget's row, deletes its storage directory, then deletes the
// row. It opens a registry connection of its own for its life.
#ifndef WIDGETENGINE_WIDGETUNINSTALLER_H_
#define WIDGETENGINE_WIDGETUNINSTALLER_H_

#include <memory>
#include <string>

#include "base/Outcome.h"

class SqlLite3;

class WidgetUnInstaller {
 public:
  explicit WidgetUnInstaller(const std::string& name);
  ~WidgetUnInstaller();

  WidgetUnInstaller(const WidgetUnInstaller&) = delete;
  WidgetUnInstaller& operator=(const WidgetUnInstaller&) = delete;

  // 1 removed, 0 no widget has that name, -1 failure. The outcome is also
  // the calling thread's last refusal (base/Refusal.h).
  int run();
  // Why the last run failed, from the step that failed; ok after a removal.
  const Outcome& outcome() const { return outcome_; }
  void clean();

  // Removes the directory tree at path without following any symbolic link
  // (a link is removed itself, at the top too) and without changing the
  // working directory. False, after a line that says why, when the top
  // directory (or the link in its place) is still there afterwards.
  static bool removeWidgetDirectory(const std::string& path);

  // Whether path is a directory "widget_<name>/" (not at the file system's
  // top), the only kind of directory a widget called name can own.
  static bool isOwnDirectory(const std::string& path, const std::string& name);

  // Whether the entry path names (a directory, or a link, which is never
  // followed) sits directly in the widget root: the real path of its parent
  // folder is the real path of root, whatever the spelling of either.
  static bool isInRoot(const std::string& path, const std::string& root);

 private:
  // run() without settling the outcome.
  Outcome attempt();
  // A refusal that the failing step gives no reason of its own for.
  Outcome notRemoved() const;

  bool alreadyRun;
  Outcome outcome_;
  std::string name;
  std::unique_ptr<SqlLite3> database;
};

#endif  // WIDGETENGINE_WIDGETUNINSTALLER_H_
