// SPDX-License-Identifier: Apache-2.0
#include "testing/CaptureStdout.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "testing/TempDir.h"

CaptureStdout::CaptureStdout(int fd) : fd_(fd), capturing_(true) {
  const char* base = getenv("TMPDIR");
  std::string pattern = std::string(base && *base ? base : "/tmp") +
                        "/widgetengine-out-XXXXXX";
  int file = mkstemp(&pattern[0]);
  if (file < 0) throw std::runtime_error("mkstemp failed");
  path_ = pattern;
  std::cout.flush();
  std::cerr.flush();
  fflush(stdout);
  fflush(stderr);
  saved_ = dup(fd_);
  dup2(file, fd_);
  close(file);
}

CaptureStdout::~CaptureStdout() { stop(); }

void CaptureStdout::stop() {
  if (!capturing_) return;
  capturing_ = false;
  std::cout.flush();
  std::cerr.flush();
  fflush(stdout);
  fflush(stderr);
  dup2(saved_, fd_);
  close(saved_);
  text_ = TempDir::readFile(path_);
  unlink(path_.c_str());
}

std::string CaptureStdout::text() {
  stop();
  return text_;
}
