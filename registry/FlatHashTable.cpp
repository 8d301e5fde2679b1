// SPDX-License-Identifier: Apache-2.0
#include "registry/FlatHashTable.h"

const uint32_t FlatHashTable::kNoSlots[1] = {0};

void FlatHashTable::reset(size_t entries) {
  // At most half full, so that a probe that misses meets a free slot soon.
  size_t size = 16;
  while (size < entries * 2) size <<= 1;
  storage_.assign(size, 0);
  storage_.shrink_to_fit();
  slots_ = storage_.data();
  mask_ = static_cast<uint32_t>(size - 1);
}
