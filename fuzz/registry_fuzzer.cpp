// SPDX-License-Identifier: Apache-2.0
// Bytes as widget.db: the registry is opened over them and every lookup is
// run, as a browser would after another program damaged the file.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz/FuzzSandbox.h"
#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzSandbox sandbox;
  const std::string file = sandbox.conf() + "widget.db";
  remove((file + "-journal").c_str());
  FuzzSandbox::writeFile(file, data, size);
  SqlLite3 registry;
  for (WidgetsData* w : registry.selectAllWidgets()) {
    std::string name;
    registry.getNameByLaunchURL(w->getLaunchURL(), name);
    std::string url = "file://" + w->getStoragePath() + "index.html";
    registry.findLocalizedResource(url, {"fr-ca", "fr", "de"});
    registry.loadLocalizedItems(w, {"fr", "de"});
    std::string value;
    registry.getLocalizedItem(w->getId(), "name", {"fr"}, value);
    registry.isStoragePathTaken(w->getStoragePath());
    for (WidgetsData* same : registry.selectWidgetsByName(w->getName())) delete same;
    for (WidgetsData* same : registry.selectWidgetsBySourceURL(w->getSourceURL()))
      delete same;
    delete w;
  }
  std::string name;
  registry.getNameByLaunchURL("file:///tmp/widgetEngine/widget_clock/index.html", name);
  std::string url = "file:///tmp/widgetEngine/widget_clock/index.html";
  registry.findLocalizedResource(url, {"fr"});
  return 0;
}
