// SPDX-License-Identifier: Apache-2.0
// Bytes as a package, installed through the engine's public interface from a
// file:// address, then described, listed, looked up, mapped and removed:
// afterwards the registry and the disk must agree, and both be empty.
#include <widgetengine/WidgetEngineDelegate.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz/FuzzSandbox.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzSandbox sandbox;
  static RefPtr<WebWidgetEngineDelegate> engine =
      WidgetEngineDelegate::createInstance();
  const std::string package = sandbox.path() + "/fuzz.wgt";
  FuzzSandbox::writeFile(package, data, size);

  char* launch = engine->receiveWidget(("file://" + package).c_str(), nullptr);
  const bool installed = launch != nullptr;
  if (installed) {
    // Registered with its directory.
    if (engine->isWidget(launch) != 1) abort();
    std::string dir = sandbox.root() + "widget_fuzz";
    struct stat status;
    if (stat(dir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode)) abort();
    delete engine->getInfo("fuzz", nullptr, "fr-FR,de;q=0.5");
    size_t listed = 0;
    for (WidgetsData* widget : engine->getAll(nullptr)) {
      ++listed;
      delete widget;
    }
    if (listed != 1) abort();
    free(engine->mapResource(launch, "fr-FR,fr,de"));
    if (engine->deleteWidget("fuzz", nullptr) != 1) abort();
    if (engine->isWidget(launch) != 0) abort();
  }
  free(launch);
  // A refused package leaves nothing; a removed widget neither.
  if (!engine->getAll(nullptr).empty()) abort();
  for (const std::string& name : FuzzSandbox::list(sandbox.root())) {
    if (name != "tmp") abort();
  }
  if (!FuzzSandbox::list(sandbox.root() + "tmp").empty()) abort();
  return 0;
}
