// SPDX-License-Identifier: Apache-2.0
#include "base/EngineOutput.h"

#include <cstdarg>
#include <cstdio>
#include <iostream>

std::ostream& engineOut() { return std::cout; }

int enginePrintf(const char* format, ...) {
  va_list args;
  va_start(args, format);
  int written = std::vprintf(format, args);
  va_end(args);
  return written;
}

void enginePerror(const char* prefix) { std::perror(prefix); }
