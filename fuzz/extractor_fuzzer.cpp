// SPDX-License-Identifier: Apache-2.0
// Bytes as a package, unpacked into a throw-away folder: whatever the bytes,
// nothing may appear beside that folder, and removing it leaves nothing.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/FuzzSandbox.h"
#include "install/Extractor.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzSandbox sandbox;
  const std::string package = sandbox.path() + "/package.wgt";
  const std::string target = sandbox.root() + "widget_fuzz/";
  FuzzSandbox::writeFile(package, data, size);
  {
    Extractor extractor(package, target);
    std::vector<std::string> files;
    extractor.extract(files);
    // Only the package, the widget root (with tmp/ and at most the target)
    // and the registry folder may be in the sandbox.
    for (const std::string& name : FuzzSandbox::list(sandbox.path())) {
      if (name != "package.wgt" && name != "widgets" && name != "conf") abort();
    }
    for (const std::string& name : FuzzSandbox::list(sandbox.root())) {
      if (name != "tmp" && name != "widget_fuzz") abort();
    }
    if (!FuzzSandbox::list(sandbox.root() + "tmp").empty()) abort();
  }
  // The extractor's destruction removed what it made.
  for (const std::string& name : FuzzSandbox::list(sandbox.root())) {
    if (name != "tmp") abort();
  }
  return 0;
}
