// SPDX-License-Identifier: Apache-2.0
#include "host/OutputCapture.h"

#include <unistd.h>
#include <widgetengine/WidgetEngineExtensions.h>

OutputCapture::OutputCapture(int fd) : fd_(fd) {
  widgetengine_set_log_sink(collect, this);
}

OutputCapture::~OutputCapture() { finish(); }

void OutputCapture::collect(int, const char* line, void* self) {
  std::string& text = static_cast<OutputCapture*>(self)->text_;
  text += line;
  text += '\n';
}

std::string OutputCapture::finish() {
  if (finished_) return text_;
  finished_ = true;
  widgetengine_set_log_sink(nullptr, nullptr);
  // The lines belong to whoever reads this process's output too.
  size_t done = 0;
  while (done < text_.size()) {
    ssize_t wrote = write(fd_, text_.data() + done, text_.size() - done);
    if (wrote <= 0) break;
    done += static_cast<size_t>(wrote);
  }
  return text_;
}
