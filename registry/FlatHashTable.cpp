// SPDX-License-Identifier: Apache-2.0
#include "registry/FlatHashTable.h"

void FlatHashTable::reset(size_t entries) {
  // At most half full, so that a probe that misses meets a free slot soon.
  size_t size = 16;
  while (size < entries * 2) size <<= 1;
  slots_.assign(size, 0);
  slots_.shrink_to_fit();
  mask_ = static_cast<uint32_t>(size - 1);
}
