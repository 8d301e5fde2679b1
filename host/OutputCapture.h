// SPDX-License-Identifier: Apache-2.0
// OutputCapture collects the engine's lines while it lives, through the log
// sink of WidgetEngineExtensions.h, so that the browser can show a refusal's
// reason in the page; the lines are passed on to a file descriptor (the
// engine's usual standard output) afterwards.
#ifndef WIDGETENGINE_HOST_OUTPUTCAPTURE_H_
#define WIDGETENGINE_HOST_OUTPUTCAPTURE_H_

#include <string>

class OutputCapture {
 public:
  explicit OutputCapture(int fd);
  ~OutputCapture();

  OutputCapture(const OutputCapture&) = delete;
  OutputCapture& operator=(const OutputCapture&) = delete;

  // Ends the capture, writes the captured text to the descriptor it was
  // meant for and returns it.
  std::string finish();

 private:
  static void collect(int level, const char* line, void* self);

  int fd_;
  bool finished_ = false;
  std::string text_;
};

#endif  // WIDGETENGINE_HOST_OUTPUTCAPTURE_H_
