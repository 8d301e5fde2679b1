// SPDX-License-Identifier: Apache-2.0
// ProgressLine shows an installation's progress on one line of the terminal
// (standard error) while it lives: bytes downloaded, then entries unpacked,
// redrawn in place and wiped at the end. It shows nothing when standard
// error is not a terminal.
#ifndef WIDGETCTL_PROGRESSLINE_H_
#define WIDGETCTL_PROGRESSLINE_H_

#include <chrono>
#include <cstdint>
#include <string>

class ProgressLine {
 public:
  // Shows progress when enabled and standard error is a terminal.
  explicit ProgressLine(bool enabled);
  ~ProgressLine();

  ProgressLine(const ProgressLine&) = delete;
  ProgressLine& operator=(const ProgressLine&) = delete;

  // The text for one report, as the terminal shows it.
  static std::string describe(int stage, uint64_t done, uint64_t total);

 private:
  static void report(int stage, uint64_t done, uint64_t total, void* self);
  void show(const std::string& text);

  bool active_;
  std::string shown_;
  int stage_ = 0;
  std::chrono::steady_clock::time_point drawn_;
};

#endif  // WIDGETCTL_PROGRESSLINE_H_
