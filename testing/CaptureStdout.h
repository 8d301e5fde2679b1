// SPDX-License-Identifier: Apache-2.0
// CaptureStdout collects everything the process writes to its standard output
// (printf and std::cout alike) between construction and text(), so that tests
// can check the engine's output lines in their order.
#ifndef WIDGETENGINE_TESTING_CAPTURESTDOUT_H_
#define WIDGETENGINE_TESTING_CAPTURESTDOUT_H_

#include <string>

class CaptureStdout {
 public:
  // fd is the descriptor to capture: 1 for standard output, 2 for error.
  explicit CaptureStdout(int fd = 1);
  ~CaptureStdout();

  CaptureStdout(const CaptureStdout&) = delete;
  CaptureStdout& operator=(const CaptureStdout&) = delete;

  // Stops capturing (if still capturing) and returns what was written.
  std::string text();

 private:
  void stop();

  int fd_;
  int saved_;
  std::string path_;
  std::string text_;
  bool capturing_;
};

// Runs call with standard output captured and returns its result; what it
// printed goes to *output when output is not null.
template <typename Call>
auto captured(std::string* output, Call call) -> decltype(call()) {
  CaptureStdout capture;
  auto result = call();
  if (output) *output = capture.text();
  return result;
}

#endif  // WIDGETENGINE_TESTING_CAPTURESTDOUT_H_
