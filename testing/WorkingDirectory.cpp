// SPDX-License-Identifier: Apache-2.0
#include "testing/WorkingDirectory.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

WorkingDirectory::WorkingDirectory()
    : fd_(open(".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
  if (fd_ < 0) {
    perror("the working directory");
    abort();
  }
}

WorkingDirectory::~WorkingDirectory() {
  if (fchdir(fd_) != 0) {
    perror("back to the working directory");
    abort();
  }
  close(fd_);
}
