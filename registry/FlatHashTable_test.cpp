// SPDX-License-Identifier: Apache-2.0
// The table under the lookup cache's indexes: every entry added is found
// again, an entry whose key is there already gives way to the earlier one,
// keys whose hashes collide, whole or in their slot, are told apart by the
// caller's comparison, and a table never sized finds nothing.
#include "registry/FlatHashTable.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "registry/KeyHash.h"

namespace {

// Keys with a hash given by the test, so that collisions are chosen.
struct Keys {
  std::vector<std::string> texts;
  std::vector<uint64_t> hashes;
  FlatHashTable table;

  uint32_t add(const std::string& text, uint64_t hash) {
    texts.push_back(text);
    hashes.push_back(hash);
    const uint32_t entry = static_cast<uint32_t>(texts.size() - 1);
    return table.insert(hash, entry, [&](uint32_t e) { return texts[e] == text; });
  }
  uint32_t find(const std::string& text, uint64_t hash) const {
    return table.find(hash, [&](uint32_t e) { return texts[e] == text; });
  }
};

TEST(FlatHashTableTest, FindsEveryEntryAddedAndNothingElse) {
  Keys keys;
  const int count = 1000;
  keys.table.reset(count);
  for (int i = 0; i < count; ++i) {
    const std::string text = "file:///w/" + std::to_string(i) + "/index.html";
    ASSERT_EQ(static_cast<uint32_t>(i),
              keys.add(text, keyhash::text(text.data(), text.size())));
  }
  for (int i = 0; i < count; ++i) {
    const std::string text = "file:///w/" + std::to_string(i) + "/index.html";
    EXPECT_EQ(static_cast<uint32_t>(i), keys.find(text, keyhash::text(text.data(), text.size())));
    const std::string other = text + "x";
    EXPECT_EQ(FlatHashTable::kNone,
              keys.find(other, keyhash::text(other.data(), other.size())));
  }
}

TEST(FlatHashTableTest, AKeyAddedAgainGivesBackTheEarlierEntry) {
  Keys keys;
  keys.table.reset(4);
  EXPECT_EQ(0u, keys.add("a", 7));
  EXPECT_EQ(1u, keys.add("b", 7));
  EXPECT_EQ(0u, keys.add("a", 7));
  EXPECT_EQ(1u, keys.add("b", 7));
  EXPECT_EQ(0u, keys.find("a", 7));
  EXPECT_EQ(1u, keys.find("b", 7));
}

TEST(FlatHashTableTest, CollidingHashesAreToldApartAcrossTheTablesEnd) {
  // Sixteen slots: every key lands on the last one and the probe wraps
  // round to the first.
  Keys keys;
  keys.table.reset(8);
  const uint64_t lastSlot = 15;
  for (int i = 0; i < 8; ++i) {
    ASSERT_EQ(static_cast<uint32_t>(i), keys.add("k" + std::to_string(i), lastSlot));
  }
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(static_cast<uint32_t>(i), keys.find("k" + std::to_string(i), lastSlot));
  }
  EXPECT_EQ(FlatHashTable::kNone, keys.find("k8", lastSlot));
  // The same slot reached from a hash whose upper half differs.
  EXPECT_EQ(3u, keys.find("k3", (uint64_t{0xabcdef} << 32) | lastSlot));
}

TEST(FlatHashTableTest, ATableNeverSizedFindsNothing) {
  FlatHashTable table;
  EXPECT_EQ(FlatHashTable::kNone, table.find(0, [](uint32_t) { return true; }));
  EXPECT_EQ(0u, table.memoryUsed());
}

TEST(FlatHashTableTest, ResetEmptiesTheTableAndKeepsItAtMostHalfFull) {
  Keys keys;
  keys.table.reset(100);
  EXPECT_EQ(0u, keys.add("a", 1));
  EXPECT_EQ(256 * sizeof(uint32_t), keys.table.memoryUsed());
  keys.table.reset(3);
  EXPECT_EQ(FlatHashTable::kNone, keys.find("a", 1));
  EXPECT_EQ(16 * sizeof(uint32_t), keys.table.memoryUsed());
}

TEST(KeyHashTest, DirectoriesOfOneLengthDifferingInTheirLastBytesHashApart) {
  const std::string a = "/Customer/.yra/widgets/clock-widget-0001/";
  const std::string b = "/Customer/.yra/widgets/clock-widget-0002/";
  EXPECT_NE(keyhash::directory(a.data(), a.size()), keyhash::directory(b.data(), b.size()));
  EXPECT_TRUE(keyhash::sameText(a.data(), a.size(), a.data(), a.size()));
  EXPECT_FALSE(keyhash::sameText(a.data(), a.size(), b.data(), b.size()));
  EXPECT_FALSE(keyhash::sameText(a.data(), a.size(), a.data(), a.size() - 1));
}

}  // namespace
