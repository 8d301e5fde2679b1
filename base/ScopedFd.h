// SPDX-License-Identifier: Apache-2.0
// ScopedFd owns one file descriptor and closes it when it goes, or when it
// is given another; reset() reports close's own result for callers that
// must know whether buffered data reached the file.
#ifndef WIDGETENGINE_SCOPEDFD_H_
#define WIDGETENGINE_SCOPEDFD_H_

#include <unistd.h>

class ScopedFd {
 public:
  explicit ScopedFd(int fd = -1) : fd_(fd) {}
  ~ScopedFd() { reset(); }
  ScopedFd(const ScopedFd&) = delete;
  ScopedFd& operator=(const ScopedFd&) = delete;
  int get() const { return fd_; }
  // Closes now and reports close's own result (0, or -1 with errno).
  int reset(int fd = -1) {
    int result = 0;
    if (fd_ >= 0) result = close(fd_);
    fd_ = fd;
    return result;
  }

 private:
  int fd_;
};

#endif  // WIDGETENGINE_SCOPEDFD_H_
