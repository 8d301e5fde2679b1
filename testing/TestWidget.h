// SPDX-License-Identifier: Apache-2.0
// TestWidget gives a test a real WidgetInstaller whose storage directory is a
// fresh temporary directory, and a way to put files into that directory.
#ifndef WIDGETENGINE_TESTING_TESTWIDGET_H_
#define WIDGETENGINE_TESTING_TESTWIDGET_H_

#include <sys/stat.h>

#include <memory>
#include <string>

#include "install/WidgetInstaller.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"

class TestWidget {
 public:
  TestWidget()
      : widgetPath("WIDGET_PATH", dir.path() + "/"),
        dataPath("YRA_DATA_PATH", dir.path() + "/"),
        installer(new WidgetInstaller("http://h/x/clock.wgt")) {
    mkdir(storage().c_str(), 0755);
  }

  // The widget's directory, ending in "/".
  std::string storage() const { return dir.path() + "/widget_clock/"; }
  std::string path(const std::string& name) const { return storage() + name; }
  void write(const std::string& name, const std::string& contents) const {
    TempDir::writeFile(path(name), contents);
  }
  const TempDir& root() const { return dir; }
  WidgetInstaller* get() const { return installer.get(); }

 private:
  TempDir dir;
  ScopedEnv widgetPath;
  ScopedEnv dataPath;
  std::unique_ptr<WidgetInstaller> installer;
};

#endif  // WIDGETENGINE_TESTING_TESTWIDGET_H_
