// SPDX-License-Identifier: Apache-2.0
#include "testing/ManualPage.h"

#include "testing/ChildProcess.h"

#include <string>
#include <vector>

std::string roffDashes(const std::string& text) {
  std::string roff;
  for (char c : text) {
    if (c == '-') roff += "\\-";
    else roff += c;
  }
  return roff;
}

std::vector<std::string> missingEngineEntries(const std::string& page) {
  std::vector<std::string> missing;
  for (const char* entry :
       {".SH ENVIRONMENT\n", ".B WIDGET_PATH\n", ".B YRA_DATA_PATH\n",
        ".B WIDGETENGINE_LOG\n", ".B WIDGETENGINE_BUSY_TIMEOUT_MS\n",
        ".B WIDGETENGINE_STALL_SECONDS\n", ".BR LANGUAGE ", ".SH FILES\n",
        ".I /Customer/.yra/conf/widget.db\n",
        ".I /Customer/.yra/Resources/Widget/Validation/WidgetConfig.rng\n",
        ".I /tmp/widgetEngine/widget_NAME/\n"})
    if (page.find(entry) == std::string::npos) missing.push_back(entry);
  return missing;
}

std::string manualWarnings(const std::string& path) {
  // From "/": man reads a relative include against the working directory.
  ChildProcess man;
  man.setDirectory("/");
  man.setEnv("MANWIDTH", "80");
  if (!man.start({"/usr/bin/man", "-l", path})) return "cannot run man";
  man.wait();
  return man.err();
}
