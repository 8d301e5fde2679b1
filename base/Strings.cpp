// SPDX-License-Identifier: Apache-2.0
#include "base/Strings.h"

std::string joinStrings(const std::vector<std::string>& items) {
  std::string joined;
  for (size_t i = 0; i < items.size(); ++i) {
    if (i > 0) joined += ',';
    joined += items[i];
  }
  return joined;
}

uint64_t fnv1a64(const std::string& text) {
  uint64_t hash = UINT64_C(14695981039346656037);
  for (const unsigned char c : text) {
    hash ^= c;
    hash *= UINT64_C(1099511628211);
  }
  return hash;
}
