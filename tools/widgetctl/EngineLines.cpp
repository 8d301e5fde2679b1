// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/EngineLines.h"

#include <widgetengine/WidgetEngineExtensions.h>

EngineLines::EngineLines(std::vector<std::string>* lines) {
  widgetengine_set_log_sink(collect, lines);
}

// Setting the sink back also hands on a last line left without its end.
EngineLines::~EngineLines() { widgetengine_set_log_sink(nullptr, nullptr); }

void EngineLines::collect(int, const char* line, void* lines) {
  static_cast<std::vector<std::string>*>(lines)->push_back(line);
}
