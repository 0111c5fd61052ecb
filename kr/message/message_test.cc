#include "kr/message/message.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include "kr/message/vocabulary.h"
#include "kr/testing/alloc_counter.h"

namespace kr {
namespace {

using AllocationCount = testing::CountAllocations;

constexpr u32_id kA(1);
constexpr u32_id kB(2);
constexpr bool_id kFlag1(10);
constexpr bool_id kFlag2(11);
constexpr string_id kName(3);
constexpr u64_id kBig(1);  // same number as kA, another kind

TEST(MessageIds, StampTheKindAndIgnoreTheCallersKindBits) {
  EXPECT_EQ(SYS_TO.id, 0x88FF0001u);
  EXPECT_EQ(SYS_CMD.id, 0x08FF0007u);
  EXPECT_EQ(u32_id(0x30000005).id, 0x08000005u);
  EXPECT_EQ(string_id(5).number(), 5u);
  EXPECT_EQ(be32_id(5).id, u32_id(5).id);
  static_assert(std::is_same_v<IdTraits<message_id>::type, flat_message>);
  static_assert(std::is_same_v<IdTraits<message_id>::set_type, message>);
  static_assert(std::is_same_v<IdTraits<raw_array_id>::type, std::vector<std::vector<unsigned char>>>);
  static_assert(std::is_same_v<IdTraits<u64_id>::type, unsigned long long>);
}

TEST(Message, EmptyMessageReadsDefaultsWithoutAllocating) {
  message m;
  AllocationCount allocs;
  EXPECT_EQ(m.count(), 0u);
  EXPECT_EQ(m.get(kA), 0u);
  EXPECT_EQ(m.get(kA, 7), 7u);
  EXPECT_FALSE(m.has(kName));
  EXPECT_EQ(m.size(SYS_TO), 0u);
  EXPECT_EQ(m.get_const<std::string>(kName.id, "x"), "x");
  unsigned int out = 42;
  EXPECT_FALSE(m.extract(kA, out));
  EXPECT_EQ(out, 42u);
  EXPECT_EQ(allocs(), 0u);
}

TEST(Message, ReadingFieldsDoesNotAllocate) {
  message m;
  m.insert(kA, 5);
  m.insert(kFlag1, true);
  m.insert(kName, std::string(40, 'n'));
  AllocationCount allocs;
  EXPECT_EQ(m.get(kA), 5u);
  EXPECT_TRUE(m.get(kFlag1));
  EXPECT_EQ(m.get_const<std::string>(kName.id, std::string()).size(), 40u);
  message copy = m;
  EXPECT_EQ(copy.get(kA), 5u);
  EXPECT_EQ(allocs(), 0u);
}

TEST(Message, SingleBoolIsInlineUntilASecondOne) {
  message m;
  m.insert(kFlag1, true);
  {
    AllocationCount allocs;
    m.insert(kFlag1, false);  // same inline slot, unshared: no allocation
    EXPECT_EQ(allocs(), 0u);
  }
  m.insert(kFlag2, true);
  EXPECT_EQ(m.count(), 2u);
  EXPECT_FALSE(m.get(kFlag1, true));
  EXPECT_TRUE(m.get(kFlag2));
  m.remove(kFlag1);
  EXPECT_EQ(m.count(), 1u);
  EXPECT_TRUE(m.get(kFlag2));

  message one;
  one.insert(kFlag1, true);
  one.remove(kFlag1);
  EXPECT_EQ(one.count(), 0u);
  one.insert(kFlag2, true);  // the freed inline slot is claimed again
  EXPECT_EQ(one.ids(), std::vector<unsigned int>{kFlag2.id});
}

TEST(Message, SameNumberUnderTwoKindsIsTwoFields) {
  message m;
  m.insert(kA, 1);
  m.insert(kBig, 0x1122334455667788ull);
  EXPECT_EQ(m.count(), 2u);
  EXPECT_EQ(m.get(kA), 1u);
  EXPECT_EQ(m.get(kBig), 0x1122334455667788ull);
  m.remove(kA);
  EXPECT_TRUE(m.has(kBig));
}

TEST(Message, Be32HoldsNetworkOrderAndSharesTheU32Field) {
  in_addr a;
  ASSERT_EQ(inet_pton(AF_INET, "10.0.0.1", &a), 1);
  message m;
  m.insert(STD_ADDR_4, a.s_addr);
  EXPECT_EQ(m.get(STD_ADDR_4), a.s_addr);
  EXPECT_EQ(m.get(u32_id(STD_ADDR_4.number())), 0x0100000Au);
  m.insert(u32_id(STD_ADDR_4.number()), 0x0200000Au);
  EXPECT_EQ(IPAddr(m.get(STD_ADDR_4)).str(), "10.0.0.2");
  unsigned int out = 0;
  EXPECT_TRUE(m.extract(STD_ADDR_4, out));
  EXPECT_EQ(out, m.get(STD_ADDR_4));

  constexpr be32_array_id kList(7);
  m.insert(kList, {a.s_addr, htonl(0xC0A80001)});
  EXPECT_EQ(m.get(u32_array_id(7)), (std::vector<unsigned int>{0x0100000A, 0x0100A8C0}));
  EXPECT_EQ(m.get(kList)[1], htonl(0xC0A80001));
}

TEST(Message, CopiesShareUntilTheFirstWrite) {
  message a;
  a.insert(kA, 1);
  message b = a;
  EXPECT_TRUE(b.sharesWith(a));
  b.insert(kA, 2);
  EXPECT_FALSE(b.sharesWith(a));
  EXPECT_EQ(a.get(kA), 1u);
  EXPECT_EQ(b.get(kA), 2u);

  message c;
  c = a;
  c = c;  // self-assignment keeps the field
  EXPECT_EQ(c.get(kA), 1u);
  message moved = std::move(c);
  EXPECT_EQ(moved.get(kA), 1u);
  EXPECT_EQ(c.count(), 0u);  // NOLINT: a moved-from message is empty
}

TEST(Message, RemovingAnAbsentFieldStillDetaches) {
  message a;
  a.insert(kA, 1);
  message b = a;
  b.remove(kB);
  EXPECT_FALSE(b.sharesWith(a));
  EXPECT_EQ(b.get(kA), 1u);
}

TEST(Message, AMutableReferenceMakesTheNextCopyPrivate) {
  message m1;
  unsigned int& r = m1[kA];
  r = 5;
  message m2 = m1;
  EXPECT_FALSE(m2.sharesWith(m1));
  message m3;
  m3 = m1;
  EXPECT_FALSE(m3.sharesWith(m1));
  r = 6;  // writes only m1
  EXPECT_EQ(m1.get(kA), 6u);
  EXPECT_EQ(m2.get(kA), 5u);
  EXPECT_EQ(m3.get(kA), 5u);
  // The private copy is an ordinary one again.
  message m4 = m2;
  EXPECT_TRUE(m4.sharesWith(m2));
}

TEST(Message, SelfAssignmentKeepsASoleOwnersReferencesValid) {
  message m;
  m.insert(string_id(1), "a");
  std::string& s = m[string_id(2)];
  const std::vector<unsigned int> order = m.ids();
  m = *&m;
  s = "still mine";  // a clone would have left this reference dangling
  EXPECT_EQ(m.get(string_id(2)), "still mine");
  EXPECT_EQ(m.ids(), order);
}

TEST(Message, RefCreatesAbsentFieldsWithZeroValues) {
  message m;
  EXPECT_EQ(m.ref<std::string>(kName.id), "");
  m.ref<std::string>(kName.id) += "abc";
  m[u32_array_id(4)].push_back(9);
  m[kFlag1] = true;
  EXPECT_EQ(m.get(kName), "abc");
  EXPECT_EQ(m.get(u32_array_id(4)), std::vector<unsigned int>{9});
  EXPECT_EQ(m.count(), 3u);
}

TEST(Message, CloneReversesTheListsButNotTheTables) {
  message m;
  m.insert(string_id(1), "a");
  m.insert(string_id(2), "b");
  m.insert(raw_id(3), std::vector<unsigned char>{1});
  m.insert(u32_array_id(4), {1});
  m.insert(string_array_id(5), {"x"});
  m.insert(kA, 1);
  m.insert(kB, 2);
  // New nodes go to the head of their list.
  const std::vector<unsigned int> before = {kA.id, kB.id, raw_id(3).id, string_id(2).id, string_id(1).id,
                                            string_array_id(5).id, u32_array_id(4).id};
  EXPECT_EQ(m.ids(), before);
  message c = m;
  c.clone();
  const std::vector<unsigned int> after = {kA.id, kB.id, string_id(1).id, string_id(2).id, raw_id(3).id,
                                           u32_array_id(4).id, string_array_id(5).id};
  EXPECT_EQ(c.ids(), after);
  EXPECT_EQ(m.ids(), before);
  EXPECT_TRUE(c == m);
}

TEST(Message, InsertReplacesScalarsAndWholeArrays) {
  message m;
  m.insert(kName, "first");
  m.insert(kName, "second");
  EXPECT_EQ(m.get(kName), "second");
  m.insert(SYS_TO, {1, 2, 3, 4, 5});
  m.insert_vector(SYS_TO, 7, 8, 9);
  EXPECT_EQ(m.get(SYS_TO), (std::vector<unsigned int>{7, 8, 9}));
  EXPECT_EQ(m.size(SYS_TO), 3u);
  EXPECT_EQ(m.size(kName), 1u);
  EXPECT_EQ(m.count(), 2u);
}

TEST(Message, NestedMessagesAreStoredFlat) {
  message inner;
  inner.insert(kA, 300);
  message outer;
  outer.insert(message_id(9), inner);
  const flat_message none;
  const flat_message& flat = outer.get_const<flat_message>(9, none);
  ASSERT_GE(flat.size(), 2u);
  EXPECT_EQ(flat[0], 0x4D);
  EXPECT_EQ(outer.get(message_id(9)).get(kA), 300u);
  outer.insert(message_array_id(9), {inner, message()});
  std::vector<message> list = outer.get(message_array_id(9));
  ASSERT_EQ(list.size(), 2u);
  EXPECT_EQ(list[0], inner);
  EXPECT_EQ(list[1].count(), 0u);
}

TEST(Message, RemoveDispatchesOnTheKindOfACompleteId) {
  message m;
  m.insert(kA, 1);
  m.insert(kFlag1, true);
  m.insert(kName, "n");
  m.insert(SYS_TO, {1});
  for (unsigned int id : {SYS_TO.id, kName.id, kFlag1.id, kA.id}) m.remove(id);
  EXPECT_EQ(m.count(), 0u);
}

TEST(Message, RemoveIdMaskReachesTablesOnlyUnderTheirKind) {
  auto build = [] {
    message m;
    m.insert(bool_id(5), true);
    m.insert(u32_id(5), 1);
    m.insert(string_id(5), "s");
    m.insert(u32_array_id(5), {1});
    m.insert(u32_id(6), 1);
    return m;
  };
  message all = build();
  all.removeIdMask(5, 0x00FFFFFF);  // no kind bits: every kind of number 5
  EXPECT_EQ(all.ids(), std::vector<unsigned int>{u32_id(6).id});

  message u32s = build();
  u32s.removeIdMask(0x08000005, 0x0FFFFFFF);  // the array bit is outside the mask
  EXPECT_EQ(u32s.count(), 3u);
  EXPECT_FALSE(u32s.has(u32_id(5)));
  EXPECT_FALSE(u32s.has(u32_array_id(5)));
  EXPECT_TRUE(u32s.has(bool_id(5)));

  message arrays = build();
  arrays.removeIdMask(0x88000005, 0x88FFFFFF);  // kind 0x88 never reaches the u32 table
  EXPECT_EQ(arrays.count(), 4u);
  EXPECT_FALSE(arrays.has(u32_array_id(5)));
}

TEST(Message, EqualityIgnoresOrderButNotExtraFieldsOrKinds) {
  message a, b;
  a.insert(kA, 1);
  a.insert(kName, "x");
  a.insert(kFlag1, false);
  b.insert(kFlag1, false);
  b.insert(kName, "x");
  b.insert(kA, 1);
  EXPECT_TRUE(a == b);
  b.insert(kB, 0);
  EXPECT_FALSE(a == b);
  EXPECT_FALSE(b == a);
  message c = a;
  c.insert(kFlag1, true);
  EXPECT_FALSE(a == c);
  message d;
  d.insert(u64_id(1), 1);
  d.insert(kName, "x");
  d.insert(kFlag1, false);
  EXPECT_FALSE(a == d);
}

}  // namespace
}  // namespace kr
