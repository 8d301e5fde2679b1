// SPDX-License-Identifier: Apache-2.0
#include "testing/ManualPage.h"

#include <cstdio>

std::string roffDashes(const std::string& text) {
  std::string roff;
  for (char c : text) {
    if (c == '-') roff += "\\-";
    else roff += c;
  }
  return roff;
}

std::string manualWarnings(const std::string& path) {
  // From "/": man reads a relative include against the working directory.
  const std::string command =
      "cd / && MANWIDTH=80 man -l '" + path + "' 2>&1 >/dev/null";
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return "cannot run man";
  char buffer[512];
  std::string warnings;
  while (fgets(buffer, sizeof buffer, pipe)) warnings += buffer;
  pclose(pipe);
  return warnings;
}
