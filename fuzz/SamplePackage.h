// SPDX-License-Identifier: Apache-2.0
// SamplePackage writes the small unpacked package that the signature target
// checks documents against, and that make_seeds signs for its seeds: the
// seeds' digests hold only if both write the same bytes. Header-only, as
// FuzzSandbox is.
#ifndef WIDGETENGINE_FUZZ_SAMPLEPACKAGE_H_
#define WIDGETENGINE_FUZZ_SAMPLEPACKAGE_H_

#include <sys/stat.h>

#include <fstream>
#include <string>

namespace samplePackage {

// Makes the folder at path (its parent must be there); false when it cannot.
inline bool write(const std::string& path) {
  if (mkdir(path.c_str(), 0700) != 0 || mkdir((path + "/js").c_str(), 0700) != 0)
    return false;
  const std::pair<const char*, const char*> files[] = {
      {"config.xml", "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>F</name></widget>\n"},
      {"index.html", "<!DOCTYPE html><p>fuzz</p>\n"},
      {"js/app.js", "tick();\n"},
  };
  for (const auto& file : files) {
    std::ofstream out(path + "/" + file.first, std::ios::binary);
    out << file.second;
    if (!out.flush()) return false;
  }
  return true;
}

}  // namespace samplePackage

#endif  // WIDGETENGINE_FUZZ_SAMPLEPACKAGE_H_
