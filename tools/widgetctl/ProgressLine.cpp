// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/ProgressLine.h"

#include <unistd.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <chrono>
#include <cstdio>

namespace {

std::string megabytes(uint64_t bytes) {
  char text[32];
  snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

}  // namespace

ProgressLine::ProgressLine(bool enabled)
    : active_(enabled && isatty(STDERR_FILENO) == 1) {
  if (active_) widgetengine_set_progress_callback(report, this);
}

ProgressLine::~ProgressLine() {
  if (!active_) return;
  widgetengine_set_progress_callback(nullptr, nullptr);
  // The line is wiped: what stays on the terminal is the command's answer.
  if (!shown_.empty()) {
    fputs("\r\033[K", stderr);
    fflush(stderr);
  }
}

std::string ProgressLine::describe(int stage, uint64_t done, uint64_t total) {
  if (stage == WIDGETENGINE_PROGRESS_DOWNLOAD) {
    if (total == 0) return "downloading: " + megabytes(done);
    return "downloading: " + megabytes(done) + " of " + megabytes(total) + " (" +
           std::to_string(done * 100 / total) + "%)";
  }
  return "unpacking: " + std::to_string(done) + " of " + std::to_string(total) +
         " entries";
}

void ProgressLine::report(int stage, uint64_t done, uint64_t total, void* self) {
  ProgressLine* line = static_cast<ProgressLine*>(self);
  // libcurl reports many times a second: the line is redrawn at most ten
  // times a second, and always for a new stage and for the last report.
  const auto now = std::chrono::steady_clock::now();
  if (stage == line->stage_ && done != total &&
      now - line->drawn_ < std::chrono::milliseconds(100)) {
    return;
  }
  line->stage_ = stage;
  line->drawn_ = now;
  line->show(describe(stage, done, total));
}

void ProgressLine::show(const std::string& text) {
  if (text == shown_) return;
  shown_ = text;
  fprintf(stderr, "\r\033[K%s", text.c_str());
  fflush(stderr);
}
