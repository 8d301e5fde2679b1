// SPDX-License-Identifier: Apache-2.0
// FlatHashTable is the index under each table of the lookup cache: open
// addressing with linear probing over a power of two of slots, kept at most
// half full, each slot a 32-bit entry number. It holds no keys: the entries
// live in a vector of the caller's, the caller hashes a key (registry/KeyHash.h)
// and says, given an entry number, whether that entry has the key. Entries
// are added, never removed; reset() starts over for a new set.
//
//   FlatHashTable table;
//   table.reset(rows.size());
//   for (uint32_t i = 0; i < rows.size(); ++i)
//     table.insert(hashOf(rows[i]), i, [&](uint32_t e) { return rows[e] == rows[i]; });
//   uint32_t e = table.find(hashOf(key), [&](uint32_t e) { return rows[e] == key; });
//   if (e != FlatHashTable::kNone) ...
//
// Keys that are texts have findText() and insertText(), given the key's
// text and, for an entry, the keyhash::StoredKey it keeps: the check half
// of the hash rejects most other entries without touching their text.
#ifndef WIDGETENGINE_FLATHASHTABLE_H_
#define WIDGETENGINE_FLATHASHTABLE_H_

#include <cstddef>
#include <cstdint>
#include <vector>

#include "registry/KeyHash.h"

class FlatHashTable {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;

  FlatHashTable() = default;
  FlatHashTable(FlatHashTable&&) = default;
  FlatHashTable& operator=(FlatHashTable&&) = default;
  FlatHashTable(const FlatHashTable&) = delete;
  FlatHashTable& operator=(const FlatHashTable&) = delete;

  // Empties the table and sizes it for up to entries entries.
  void reset(size_t entries);

  // The entry with the key (has(entry) true), or kNone. An empty or never
  // reset table finds nothing.
  template <typename Has>
  uint32_t find(uint64_t hash, Has has) const {
    for (uint32_t slot = static_cast<uint32_t>(hash) & mask_;;
         slot = (slot + 1) & mask_) {
      const uint32_t held = slots_[slot];
      if (held == 0) return kNone;
      if (has(held - 1)) return held - 1;
    }
  }

  // Adds entry unless an entry with the same key (has(other) true) is there
  // already; gives back the entry that holds the key then: entry itself
  // when it was added, the earlier one otherwise. At most as many entries
  // as reset() was told of may be added.
  template <typename Has>
  uint32_t insert(uint64_t hash, uint32_t entry, Has has) {
    uint32_t slot = static_cast<uint32_t>(hash) & mask_;
    for (; storage_[slot] != 0; slot = (slot + 1) & mask_) {
      if (has(storage_[slot] - 1)) return storage_[slot] - 1;
    }
    storage_[slot] = entry + 1;
    return entry;
  }

  // find() and insert() for a text key: keyOf(entry) gives an entry's
  // keyhash::StoredKey, hash is the key's.
  template <typename KeyOf>
  uint32_t findText(uint64_t hash, const char* text, size_t length, KeyOf keyOf) const {
    return find(hash, SameText<KeyOf>{keyhash::check(hash), text, length, keyOf});
  }
  template <typename KeyOf>
  uint32_t insertText(uint64_t hash, uint32_t entry, const char* text, size_t length,
                      KeyOf keyOf) {
    return insert(hash, entry, SameText<KeyOf>{keyhash::check(hash), text, length, keyOf});
  }

  // Bytes of heap the slots hold.
  size_t memoryUsed() const { return storage_.capacity() * sizeof(uint32_t); }

 private:
  template <typename KeyOf>
  struct SameText {
    uint32_t check;
    const char* text;
    size_t length;
    const KeyOf& keyOf;
    bool operator()(uint32_t entry) const {
      const keyhash::StoredKey held = keyOf(entry);
      return held.check == check && keyhash::sameText(held.text, held.length, text, length);
    }
  };

  // Before reset() the table is one free slot that is no one's, so that a
  // lookup on the hot path needs no test for a table never filled.
  static const uint32_t kNoSlots[1];

  std::vector<uint32_t> storage_;  // entry numbers + 1; 0 is a free slot
  const uint32_t* slots_ = kNoSlots;  // storage_'s, once reset
  uint32_t mask_ = 0;
};

#endif  // WIDGETENGINE_FLATHASHTABLE_H_
