// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/EngineLines.h"

#include <unistd.h>

#include <iostream>

// The engine writes with both std::cout and printf, so standard output's
// descriptor itself is pointed at an anonymous temporary file for the while;
// a pipe could fill up and block the engine on a long installation.
EngineLines::EngineLines(std::vector<std::string>* lines)
    : lines_(lines), file_(tmpfile()), saved_(-1) {
  std::cout.flush();
  fflush(stdout);
  if (!file_) return;
  saved_ = dup(1);
  if (saved_ < 0 || dup2(fileno(file_), 1) < 0) {
    if (saved_ >= 0) close(saved_);
    saved_ = -1;
  }
}

EngineLines::~EngineLines() {
  std::cout.flush();
  fflush(stdout);
  if (saved_ >= 0) {
    dup2(saved_, 1);
    close(saved_);
  }
  if (!file_) return;
  rewind(file_);
  std::string line;
  int c;
  while ((c = fgetc(file_)) != EOF) {
    if (c == '\n') {
      lines_->push_back(line);
      line.clear();
    } else {
      line.push_back(static_cast<char>(c));
    }
  }
  if (!line.empty()) lines_->push_back(line);
  fclose(file_);
}
