// SPDX-License-Identifier: Apache-2.0
// The widget packages that the benchmarks unpack and install, built once
// under the build tree: "typical" (about 200 files and 15 MB of text and
// images in nested folders, with locales/) and "large" (ten typical ones side
// by side, about 2,000 files and 150 MB). Both install as they are: their
// config.xml is a valid one and index.html is the start page.
#ifndef WIDGETENGINE_BENCH_BENCHPACKAGES_H_
#define WIDGETENGINE_BENCH_BENCHPACKAGES_H_

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "testing/ZipBuilder.h"

namespace benchpackages {

// Deterministic bytes, so that every run measures the same packages.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed * 2654435761u + 1) {}
  uint64_t next() {
    state_ ^= state_ << 13;
    state_ ^= state_ >> 7;
    state_ ^= state_ << 17;
    return state_;
  }
  size_t below(size_t n) { return static_cast<size_t>(next() % n); }

 private:
  uint64_t state_;
};

inline std::string randomBytes(Random& random, size_t size) {
  std::string bytes(size, '\0');
  for (size_t i = 0; i + 8 <= size; i += 8) {
    uint64_t value = random.next();
    memcpy(&bytes[i], &value, 8);
  }
  return bytes;
}

// Markup-like text that deflates about as well as real scripts and pages,
// and holds no character that XML would have to escape.
inline std::string text(Random& random, size_t size) {
  static const char* const kWords[] = {
      "function", "var", "return", "widget", "this", "document", "element",
      "style", "class", "div", "span", "width", "height", "color", "margin",
      "if", "else", "for", "new", "value", "name", "title", "locale", "icon",
      "click", "event", "handler", "update", "clock", "time", "date", "hour",
      "minute", "second", "display", "none", "block", "0px", "1em", "#fff"};
  const size_t count = sizeof(kWords) / sizeof(kWords[0]);
  std::string out;
  out.reserve(size + 16);
  while (out.size() < size) {
    out += kWords[random.below(count)];
    out += random.below(12) == 0 ? ";\n" : " ";
    if (random.below(50) == 0) out += std::to_string(random.next() % 100000);
  }
  out.resize(size);
  return out;
}

struct Shape {
  const char* name;
  int scale;  // the large package is ten typical ones side by side
};

const Shape kTypical = {"typical", 1};
const Shape kLarge = {"large", 10};

// A config.xml of about 2 KB: names in two languages, a long description
// and the start page.
inline std::string configXml(Random& random) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
         "id=\"http://example.org/bench\" version=\"1.0\" width=\"320\" "
         "height=\"240\">\n"
         "  <name>Bench widget</name>\n"
         "  <name xml:lang=\"fr\">Widget de mesure</name>\n"
         "  <description>" +
         text(random, 1700) +
         "</description>\n"
         "  <content src=\"index.html\"/>\n"
         "</widget>\n";
}

// About 200 files and 15 MB per unit of scale: scripts, styles, images in
// nested folders and a localized copy of pages and pictures per language.
inline bool build(const Shape& shape, const std::string& path) {
  Random random(shape.scale);
  ZipBuilder zip;
  zip.addFile("config.xml", configXml(random));
  zip.addFile("index.html", "<!DOCTYPE html>\n<html><body><script>" +
                                text(random, 12000) +
                                "</script></body></html>\n");
  const int scale = shape.scale;
  zip.addFolder("js/").addFolder("js/lib/").addFolder("js/app/");
  for (int i = 0; i < 20 * scale; ++i) {
    zip.addFile(std::string(i % 2 ? "js/lib/" : "js/app/") + "s" +
                    std::to_string(i) + ".js",
                text(random, 20000 + random.below(20000)));
  }
  zip.addFolder("css/");
  for (int i = 0; i < 10 * scale; ++i) {
    zip.addFile("css/c" + std::to_string(i) + ".css",
                text(random, 5000 + random.below(10000)));
  }
  zip.addFolder("images/");
  for (int set = 0; set < 4 * scale; ++set) {
    const std::string folder = "images/set" + std::to_string(set) + "/";
    zip.addFolder(folder);
    for (int i = 0; i < 10; ++i) {
      zip.addFile(folder + "p" + std::to_string(i) + ".png",
                  randomBytes(random, 50000 + random.below(400000)), 1);
    }
  }
  zip.addFolder("images/icons/");
  for (int i = 0; i < 20 * scale; ++i) {
    zip.addFile("images/icons/i" + std::to_string(i) + ".png",
                randomBytes(random, 10000 + random.below(20000)), 1);
  }
  zip.addFolder("locales/");
  for (const char* lang : {"en", "fr", "de", "es", "it", "ja", "pt-br", "zh"}) {
    const std::string folder = std::string("locales/") + lang + "/";
    zip.addFolder(folder);
    for (int i = 0; i < 12 * scale; ++i) {
      zip.addFile(folder + "page" + std::to_string(i) + ".html",
                  text(random, 8000 + random.below(16000)));
    }
    for (int i = 0; i < 2 * scale; ++i) {
      zip.addFile(folder + "banner" + std::to_string(i) + ".png",
                  randomBytes(random, 100000 + random.below(100000)), 1);
    }
  }
  return zip.write(path);
}

// The folder that holds the packages; its name changes whenever what build()
// makes changes, so that a package left by an older benchmark is never used.
inline std::string folder() {
  return std::string(WIDGETENGINE_BINARY_DIR) + "/bench-data/packages-2";
}

// The package of that shape, built first when it is not there yet.
inline std::string path(const Shape& shape) {
  const std::string dir = folder();
  const std::string file = dir + "/" + shape.name + ".wgt";
  struct stat info;
  if (stat(file.c_str(), &info) == 0) return file;
  mkdir((std::string(WIDGETENGINE_BINARY_DIR) + "/bench-data").c_str(), 0755);
  mkdir(dir.c_str(), 0755);
  fprintf(stderr, "building the %s package...\n", shape.name);
  const std::string part = file + ".part";
  if (!build(shape, part) || rename(part.c_str(), file.c_str()) != 0) {
    fprintf(stderr, "cannot build %s\n", file.c_str());
    exit(1);
  }
  return file;
}

}  // namespace benchpackages

#endif  // WIDGETENGINE_BENCH_BENCHPACKAGES_H_
