// The slot layout of the field tables decides the order of fields on the
// wire, so these tests pin probe order, the rehash point and tombstones.
#include "kr/message/internal/htable.h"

#include <gtest/gtest.h>

#include <vector>

namespace kr::internal {
namespace {

std::vector<uint32_t> keysInSlotOrder(const htable<unsigned int>& t) {
  std::vector<uint32_t> keys;
  for (uint32_t i = t.first(); i < t.capacity(); i = t.next(i)) keys.push_back(t.at(i).key);
  return keys;
}

TEST(HTable, ProbesLinearlyFromKeyModCapacityAndWraps) {
  htable<unsigned int> t;
  t.get_ref(10) = 1;  // slot 10
  t.get_ref(21) = 2;  // 21 % 11 == 10: wraps to slot 0
  t.get_ref(0) = 3;   // slot 0 taken: slot 1
  t.get_ref(1) = 4;   // slot 1 taken: slot 2
  EXPECT_EQ(t.at(10).key, 10u);
  EXPECT_EQ(t.at(0).key, 21u);
  EXPECT_EQ(t.at(1).key, 0u);
  EXPECT_EQ(t.at(2).key, 1u);
  EXPECT_EQ(keysInSlotOrder(t), (std::vector<uint32_t>{21, 0, 1, 10}));
  ASSERT_NE(t.find(1), nullptr);
  EXPECT_EQ(*t.find(1), 4u);
  EXPECT_EQ(t.find(12), nullptr);  // probes 1, 2, stops at empty slot 3
  EXPECT_EQ(t.next(10), t.capacity());
}

TEST(HTable, RehashesBeforeTheSixthKeyAndOnEveryInsertOrFind) {
  htable<unsigned int> t;
  for (uint32_t k = 0; k < 5; ++k) t.get_ref(k) = k;
  EXPECT_EQ(t.capacity(), 11u);
  // count + 1 > 11/2 + 11/16 even though key 3 is present: the table grows.
  t.get_ref(3);
  EXPECT_EQ(t.capacity(), 22u);
  EXPECT_EQ(t.count(), 5u);
  htable<unsigned int> u;
  for (uint32_t k = 0; k < 6; ++k) u.get_ref(k * 100) = k;
  EXPECT_EQ(u.capacity(), 22u);
  for (uint32_t k = 0; k < 12; ++k) u.get_ref(k * 100) = k;
  EXPECT_EQ(u.capacity(), 22u);  // 12 keys fit: 22/2 + 22/16 = 12
  u.get_ref(0);
  EXPECT_EQ(u.capacity(), 44u);
  for (uint32_t k = 0; k < 12; ++k) EXPECT_EQ(*u.find(k * 100), k);
}

TEST(HTable, RehashReinsertsInOldSlotOrder) {
  htable<unsigned int> t;
  // 22 and 44 collide in both capacities; 44 is in the lower old slot.
  t.get_ref(44) = 1;  // 44 % 11 = 0
  t.get_ref(22) = 2;  // slot 1
  t.get_ref(5) = 3;
  t.get_ref(6) = 4;
  t.get_ref(7) = 5;
  t.get_ref(8) = 6;  // rehash to 22: 44 -> slot 0, then 22 -> slot 1
  EXPECT_EQ(t.at(0).key, 44u);
  EXPECT_EQ(t.at(1).key, 22u);
}

TEST(HTable, ErasedSlotsAreSteppedOverAndReused) {
  htable<unsigned int> t;
  t.get_ref(0) = 1;
  t.get_ref(11) = 2;
  t.get_ref(22) = 3;
  EXPECT_TRUE(t.erase(11));
  EXPECT_FALSE(t.erase(11));
  EXPECT_EQ(t.count(), 2u);
  EXPECT_EQ(t.at(1).key, kErasedKey);
  ASSERT_NE(t.find(22), nullptr);  // behind the tombstone
  EXPECT_EQ(*t.find(22), 3u);
  t.get_ref(33) = 4;  // the first tombstone on its path, not slot 3
  EXPECT_EQ(t.at(1).key, 33u);
  EXPECT_EQ(t.at(3).key, kEmptyKey);
  EXPECT_EQ(t.count(), 3u);
  // Re-inserting a present key behind a tombstone finds it, not the tombstone.
  t.erase(0);
  EXPECT_EQ(t.get_ref(22), 3u);
  EXPECT_EQ(t.count(), 2u);
}

TEST(HTable, ChurnWithoutEmptySlotsStaysCorrect) {
  // Erase-and-insert churn can turn every slot into a tombstone; lookups
  // must still stop after one circle, and inserts must reuse tombstones.
  htable<unsigned int> t;
  for (uint32_t k = 0; k < 200; ++k) {
    t.get_ref(k) = k;
    if (k >= 4) t.erase(k - 4);
  }
  EXPECT_EQ(t.capacity(), 11u);
  EXPECT_EQ(t.count(), 4u);
  EXPECT_EQ(t.find(1000), nullptr);
  for (uint32_t k = 196; k < 200; ++k) EXPECT_EQ(*t.find(k), k);
}

TEST(HTable, CopyKeepsSlotsTombstonesAndCapacity) {
  htable<bool> t;
  for (uint32_t k = 0; k < 8; ++k) t.get_ref(k) = k % 2;
  t.erase(3);
  htable<bool> c(t);
  EXPECT_EQ(c.capacity(), t.capacity());
  EXPECT_EQ(c.count(), 7u);
  for (uint32_t i = 0; i < t.capacity(); ++i) EXPECT_EQ(c.at(i).key, t.at(i).key);
  c.get_ref(100) = true;
  EXPECT_EQ(t.find(100), nullptr);
}

TEST(HTable, EraseMatchingUsesMaskedComparison) {
  htable<unsigned int> t;
  for (uint32_t k : {0x08000001u, 0x08000101u, 0x08000002u}) t.get_ref(k) = 1;
  t.erase_matching(0x01, 0xFF);
  EXPECT_EQ(keysInSlotOrder(t), std::vector<uint32_t>{0x08000002u});
}

}  // namespace
}  // namespace kr::internal
