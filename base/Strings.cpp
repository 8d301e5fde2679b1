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
