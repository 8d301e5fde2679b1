// SPDX-License-Identifier: Apache-2.0
#include "host/OutputCapture.h"

#include <unistd.h>

#include <iostream>

namespace {

void flushAll() {
  std::cout.flush();
  std::cerr.flush();
  fflush(stdout);
  fflush(stderr);
}

}  // namespace

// A file rather than a pipe: the engine may write more than a pipe holds
// before the call returns, and nobody would be reading the other end.
// tmpfile() creates an unnamed file, so no other process can open it.
OutputCapture::OutputCapture(int fd) : fd_(fd) {
  flushAll();
  file_ = tmpfile();
  if (file_ == nullptr) return;
  saved_ = dup(fd_);
  if (saved_ < 0 || dup2(fileno(file_), fd_) < 0) {
    if (saved_ >= 0) close(saved_);
    saved_ = -1;
  }
}

OutputCapture::~OutputCapture() { finish(); }

std::string OutputCapture::finish() {
  if (finished_) return text_;
  finished_ = true;
  flushAll();
  if (saved_ >= 0) {
    dup2(saved_, fd_);
    close(saved_);
  }
  if (file_ != nullptr) {
    if (saved_ >= 0) {
      rewind(file_);
      char buffer[4096];
      size_t got;
      while ((got = fread(buffer, 1, sizeof buffer, file_)) > 0)
        text_.append(buffer, got);
    }
    fclose(file_);
  }
  // The lines belong to whoever reads this process's output too.
  size_t done = 0;
  while (done < text_.size()) {
    ssize_t wrote = write(fd_, text_.data() + done, text_.size() - done);
    if (wrote <= 0) break;
    done += static_cast<size_t>(wrote);
  }
  return text_;
}
