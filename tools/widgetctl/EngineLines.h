// SPDX-License-Identifier: Apache-2.0
// EngineLines collects the engine's lines while it is alive, through the log
// sink of WidgetEngineExtensions.h, so that widgetctl decides where they go:
// above the answer, to standard error, or into a JSON document.
//
//   std::vector<std::string> lines;
//   { EngineLines capture(&lines); engine->receiveWidget(url, nullptr); }
#ifndef WIDGETCTL_ENGINELINES_H_
#define WIDGETCTL_ENGINELINES_H_

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
  static void collect(int level, const char* line, void* lines);
};

#endif  // WIDGETCTL_ENGINELINES_H_
