// SPDX-License-Identifier: Apache-2.0
// The hashes and the comparison under the lookup cache's tables. Keys are
// paths and URLs of some tens of bytes, looked up on every resource load:
// everything here is inline and reads a word at a time, since at that size
// a call to memcmp() or a byte loop costs more than the work itself.
#ifndef WIDGETENGINE_KEYHASH_H_
#define WIDGETENGINE_KEYHASH_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace keyhash {

inline uint64_t mix(uint64_t h) {
  h ^= h >> 32;
  h *= 0xd6e8feb86659fd93ULL;
  h ^= h >> 32;
  return h;
}

// A word-at-a-time hash of n bytes.
inline uint64_t text(const char* p, size_t n) {
  uint64_t h = n * 0x9e3779b97f4a7c15ULL;
  while (n >= 8) {
    uint64_t v;
    memcpy(&v, p, 8);
    h = mix(h ^ v) + 0x9e3779b97f4a7c15ULL;
    p += 8;
    n -= 8;
  }
  if (n > 0) {
    // The last bytes: a byte-wise copy of a variable length would be a call
    // to memcpy().
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v |= static_cast<uint64_t>(static_cast<unsigned char>(p[i])) << (8 * i);
    h = mix(h ^ v ^ (static_cast<uint64_t>(n) << 59));
  }
  return mix(h);
}

// Directories differ in their last bytes (the widget's name) and share the
// rest (the widget root): their hash takes the length and the last 16 bytes
// only, which a lookup computes for every directory length that could begin
// its path. Equal hashes are told apart by comparing the text.
inline uint64_t directory(const char* p, size_t n) {
  if (n < 16) return text(p, n);
  uint64_t a, b;
  memcpy(&a, p + n - 16, 8);
  memcpy(&b, p + n - 8, 8);
  return mix(mix((n * 0x9e3779b97f4a7c15ULL) ^ a) + b);
}

// The half of a hash that a table does not use for the slot: kept beside an
// entry, it rejects most mismatches without touching the text.
inline uint32_t check(uint64_t hash) { return static_cast<uint32_t>(hash >> 32); }

// A key as a table's entry keeps it: its check and its text.
struct StoredKey {
  uint32_t check;
  const char* text;
  size_t length;
};

inline bool sameText(const char* a, size_t aLength, const char* b, size_t bLength) {
  if (aLength != bLength) return false;
  size_t n = aLength;
  while (n >= 8) {
    uint64_t x, y;
    memcpy(&x, a, 8);
    memcpy(&y, b, 8);
    if (x != y) return false;
    a += 8;
    b += 8;
    n -= 8;
  }
  while (n > 0) {
    if (*a++ != *b++) return false;
    --n;
  }
  return true;
}

}  // namespace keyhash

#endif  // WIDGETENGINE_KEYHASH_H_
