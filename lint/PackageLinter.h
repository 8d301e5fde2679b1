// SPDX-License-Identifier: Apache-2.0
// PackageLinter looks at a widget package the way its author needs it looked
// at: every problem it can reach, each as a finding with a level, a stable tag,
// what it is about and one sentence of explanation. It only reports; whether
// the package installs is the engine's decision alone.
//
//   PackageLinter linter("clock.wgt", "http://example.org/clock.wgt");
//   for (const LintFinding& f : linter.run()) ...
#ifndef WIDGETENGINE_LINT_PACKAGELINTER_H_
#define WIDGETENGINE_LINT_PACKAGELINTER_H_

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "config/WidgetConfigParser.h"
#include "lint/LintFinding.h"

// One kind of finding: its tag, level and the sentence that goes with it.
struct LintTag {
  const char* tag;
  const char* level;
  const char* explanation;
};

class PackageLinter {
 public:
  // packagePath: a local package file; sourceURL: the address it would be
  // installed from. schemaPath: the RELAX NG schema config.xml is held to.
  PackageLinter(const std::string& packagePath, const std::string& sourceURL,
                const std::string& schemaPath = defaultSchemaPath());

  // Every finding it can reach, in a stable order: the archive entries in
  // archive order, then config.xml, then what the two say about each other.
  // It reads the package in memory and writes no file at all.
  std::vector<LintFinding> run();

  // Every tag the linter can give, in the order of the documentation.
  static const std::vector<LintTag>& tags();
  static std::string defaultSchemaPath();

  // Entries larger than this (as declared) are not read to check their
  // checksum; such an entry is reported instead.
  static constexpr uint64_t kLargestCheckedEntry = 256ull << 20;
  // A config.xml larger than this is not parsed (nor would the engine).
  static constexpr uint64_t kLargestConfig = WidgetConfigParser::kLargestDocument;

 private:
  struct Entry {
    std::string name;
    uint64_t size;
    std::string head;  // the first bytes, for telling content types
  };

  void add(const char* tag, const std::string& detail);
  bool readArchive();
  void lintConfig(const std::string& text);
  void lintAgainstArchive();
  bool hasFile(const std::string& name) const;

  std::string packagePath_;
  std::string sourceURL_;
  std::string schemaPath_;
  std::vector<LintFinding> findings_;
  std::vector<Entry> entries_;
  std::map<std::string, size_t> byName_;
  bool configFound_ = false;
  // What config.xml declares, as the checks against the archive need it.
  struct Declared {
    std::string tag;  // "content" | "icon"
    std::string src;
    bool typed;       // a content element with a type attribute
    int line;
  };
  std::vector<Declared> declared_;
  bool configWalked_ = false;
};

#endif  // WIDGETENGINE_LINT_PACKAGELINTER_H_
