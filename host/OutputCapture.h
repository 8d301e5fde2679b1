// SPDX-License-Identifier: Apache-2.0
// OutputCapture collects what the process writes to a file descriptor (the
// engine's lines on standard output) while it lives, so that the browser can
// show a refusal's reason in the page; the lines are passed on afterwards.
#ifndef WIDGETENGINE_HOST_OUTPUTCAPTURE_H_
#define WIDGETENGINE_HOST_OUTPUTCAPTURE_H_

#include <cstdio>
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
  int fd_;
  int saved_ = -1;
  FILE* file_ = nullptr;
  bool finished_ = false;
  std::string text_;
};

#endif  // WIDGETENGINE_HOST_OUTPUTCAPTURE_H_
