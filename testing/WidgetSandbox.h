// SPDX-License-Identifier: Apache-2.0
// WidgetSandbox is the fixture of tests that install widgets for real. Each
// test gets, inside its own TempDir, a widget root holding the tmp/ folder
// that receives downloads, a registry directory and a folder for the
// packages it builds; WIDGET_PATH and YRA_DATA_PATH point at the first two
// for the life of the test (child processes inherit them), and the test ends
// in the working directory it started in.
#ifndef WIDGETENGINE_TESTING_WIDGETSANDBOX_H_
#define WIDGETENGINE_TESTING_WIDGETSANDBOX_H_

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/WorkingDirectory.h"
#include "testing/ZipBuilder.h"

class WidgetSandbox : public ::testing::Test {
 protected:
  WidgetSandbox();

  // Writes the package into the packages folder; its path.
  std::string writePackage(const std::string& fileName,
                           const ZipBuilder& zip) const;

  // Passes when the widget root holds exactly these entries (sorted, "tmp"
  // among them) and its tmp/ folder is empty.
  ::testing::AssertionResult rootHoldsOnly(
      const std::vector<std::string>& entries) const;

  // Passes when the widget root holds nothing but its empty tmp/ folder.
  ::testing::AssertionResult nothingLeft() const;

  // The number a counting statement reads from the sandbox's registry, on a
  // read-only connection of its own that waits for another's lock; -1 when
  // it cannot be read.
  int count(const std::string& sql) const;

  TempDir dir;
  const std::string root;      // ends with "/"
  const std::string conf;      // ends with "/"
  const std::string packages;  // ends with "/"

 private:
  WorkingDirectory start_;  // made first, so restored last
  ScopedEnv widgetPath_;
  ScopedEnv dataPath_;
};

#endif  // WIDGETENGINE_TESTING_WIDGETSANDBOX_H_
