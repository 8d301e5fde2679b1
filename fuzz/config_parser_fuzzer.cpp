// SPDX-License-Identifier: Apache-2.0
// Bytes as config.xml, parsed and checked against the schema as an
// installation does, into a fresh configuration record each time.
#include <cstddef>
#include <cstdint>

#include "config/WidgetConfig.h"
#include "config/WidgetConfigParser.h"
#include "fuzz/FuzzSandbox.h"
#include "install/WidgetInstaller.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static FuzzSandbox sandbox;
  static WidgetInstaller installer("http://fuzz.example/fuzz.wgt");
  static const std::string dir = installer.getStoragePath();
  mkdir(dir.c_str(), 0755);
  const std::string path = dir + "config.xml";
  FuzzSandbox::writeFile(path, data, size);
  WidgetConfig config(&installer);
  WidgetConfigParser parser(path, &config);
  parser.parse();
  return 0;
}
