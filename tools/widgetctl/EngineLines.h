// SPDX-License-Identifier: Apache-2.0
// EngineLines collects what the engine writes to standard output while it is
// alive, so that widgetctl decides where the engine's lines go: above the
// answer, to standard error, or into a JSON document.
//
//   std::vector<std::string> lines;
//   { EngineLines capture(&lines); engine->receiveWidget(url, nullptr); }
#ifndef WIDGETCTL_ENGINELINES_H_
#define WIDGETCTL_ENGINELINES_H_

#include <cstdio>
#include <string>
#include <vector>

class EngineLines {
 public:
  // Appends the lines written until destruction to *lines.
  explicit EngineLines(std::vector<std::string>* lines);
  ~EngineLines();

  EngineLines(const EngineLines&) = delete;
  EngineLines& operator=(const EngineLines&) = delete;

 private:
  std::vector<std::string>* lines_;
  FILE* file_;
  int saved_;
};

#endif  // WIDGETCTL_ENGINELINES_H_
