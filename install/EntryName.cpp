// SPDX-License-Identifier: Apache-2.0
#include "install/EntryName.h"

namespace {

// Names may use printable ASCII only, minus the characters that some file
// systems or shells treat specially. Bytes are taken as signed so that every
// byte from 0x80 up (all of UTF-8 beyond ASCII) is refused as well.
bool isValidFileName(const std::string& name) {
  for (char c : name) {
    const signed char b = static_cast<signed char>(c);
    if (b < 32) return false;
    switch (b) {
      case '!': case '"': case '*': case ':': case '<': case '>': case '?':
      case '\\': case '^': case '`': case '{': case '|': case '}': case 127:
        return false;
      default:
        break;
    }
  }
  return true;
}

// A ".." component would climb out of the target directory.
bool climbsOut(const std::string& name) {
  size_t start = 0;
  for (;;) {
    size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    if (end - start == 2 && name.compare(start, 2, "..") == 0) return true;
    if (end == name.size()) return false;
    start = end + 1;
  }
}

}  // namespace

bool EntryName::isAccepted(const std::string& name) {
  return isValidFileName(name) && !climbsOut(name);
}

bool EntryName::isFolder(const std::string& name) {
  return !name.empty() && name.back() == '/';
}

std::string EntryName::of(const zip_stat_t& stat) {
  if ((stat.valid & ZIP_STAT_NAME) == 0 || stat.name == nullptr) return "";
  return stat.name;
}
