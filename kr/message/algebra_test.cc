#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "kr/message/message.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

constexpr u32_id kA(1);
constexpr u32_id kB(2);

message u32s(std::initializer_list<std::pair<unsigned, unsigned>> fields) {
  message m;
  for (auto [n, v] : fields) m.insert(u32_id(n), v);
  return m;
}

TEST(Merge, OverlaysFieldsAndKeepsTheRest) {
  message m = u32s({{1, 1}, {2, 2}});
  m.merge(u32s({{2, 3}}));
  EXPECT_EQ(m, u32s({{1, 1}, {2, 3}}));

  message arrays;
  arrays.insert(SYS_TO, {1, 2, 3, 4, 5});
  message shorter;
  shorter.insert_vector(SYS_TO, 7, 8, 9);
  arrays.merge(shorter);
  EXPECT_EQ(arrays.get(SYS_TO), (std::vector<unsigned int>{7, 8, 9}));

  message nested;
  nested.insert(message_id(1), u32s({{1, 1}, {2, 2}}));
  message other;
  other.insert(message_id(1), u32s({{3, 3}}));
  nested.merge(other);
  EXPECT_EQ(nested.get(message_id(1)), u32s({{3, 3}}));  // replaced, not merged
}

TEST(Merge, IntoAnEmptyMessageShares) {
  message src = u32s({{1, 1}});
  message dst;
  dst.merge(src);
  EXPECT_TRUE(dst.sharesWith(src));
  dst.insert(kB, 2);
  EXPECT_FALSE(dst.sharesWith(src));
  EXPECT_FALSE(src.has(kB));
  message same = src;
  same.merge(src);  // shared: nothing to do
  EXPECT_TRUE(same.sharesWith(src));
}

TEST(Merge, BoolsMoveIntoATableWhenTheOtherSideHasOne) {
  message m;
  m.insert(bool_id(1), true);
  message o;
  o.insert(bool_id(2), false);
  o.insert(bool_id(3), true);
  m.merge(o);
  EXPECT_EQ(m.count(), 3u);
  EXPECT_TRUE(m.get(bool_id(1)));
  EXPECT_FALSE(m.get(bool_id(2), true));
  message single;
  single.insert(bool_id(1), false);
  m.merge(single);
  EXPECT_FALSE(m.get(bool_id(1), true));
}

TEST(Algebra, CommonIdsIncludesAndExclude) {
  message a = u32s({{1, 1}, {2, 2}, {3, 3}});
  a.insert(string_id(4), "s");
  message b = u32s({{2, 2}, {3, 4}});
  b.insert(string_id(4), "s");
  std::vector<unsigned int> common = a.common_ids(b);
  std::sort(common.begin(), common.end());
  EXPECT_EQ(common, (std::vector<unsigned int>{u32_id(2).id, string_id(4).id}));
  EXPECT_FALSE(a.includes(b));
  EXPECT_TRUE(a.includes(u32s({{1, 1}, {3, 3}})));
  EXPECT_TRUE(a.includes(message()));
  message c = a;
  c.exclude(b);
  EXPECT_EQ(c, u32s({{1, 1}, {3, 3}}));
  message d = u32s({{1, 2}});
  d.exclude(u32s({{1, 1}}));
  EXPECT_EQ(d.get(kA), 2u);  // same id, other value: stays
}

TEST(Algebra, NestedMessagesCompareParsed) {
  message x, y;
  x.insert(string_id(1), "a");
  x.insert(string_id(2), "b");
  y.insert(string_id(2), "b");
  y.insert(string_id(1), "a");
  message px, py;
  px.insert(message_id(9), x);
  py.insert(message_id(9), y);
  EXPECT_NE(px.get_const<flat_message>(9, flat_message{}), py.get_const<flat_message>(9, flat_message{}));
  EXPECT_EQ(px, py);
  px.insert(message_array_id(9), {x, y});
  py.insert(message_array_id(9), {y, x});
  EXPECT_EQ(px, py);
  py.insert(message_array_id(9), {y});
  EXPECT_NE(px, py);
}

TEST(UndoableMerge, RecordsOldValuesAndAddedFields) {
  constexpr u32_id kX(10), kY(11);
  message obj;
  obj.insert(kY, 1);
  obj.insert(kA, 5);
  message change;
  change.insert(kX, 7);
  change.insert(kY, 2);
  message undo;
  merge(obj, change, undo);
  EXPECT_EQ(obj.get(kX), 7u);
  EXPECT_EQ(obj.get(kY), 2u);
  EXPECT_EQ(undo.get(kY), 1u);
  EXPECT_FALSE(undo.has(kA));  // untouched by the change
  EXPECT_EQ(undo.get(REMOVED_IDS), std::vector<unsigned int>{kX.id});
  EXPECT_EQ(undo.count(), 2u);
}

TEST(UndoableMerge, SystemAndFixedStandardFieldsNeverStay) {
  message obj;
  obj.insert(STD_ID, 4);
  obj.insert(kA, 1);
  message change;
  change.insert_vector(SYS_TO, 1);
  change.insert(STD_ID, 4);
  change.insert(STD_DESCR, "d");
  change.insert(STD_DISABLED, true);
  change.insert(STD_NAME, "n");
  message undo;
  merge(obj, change, undo);
  EXPECT_FALSE(obj.has(SYS_TO));
  EXPECT_FALSE(obj.has(STD_ID));  // deleted although the object had it
  EXPECT_EQ(obj.get(STD_DESCR), "d");
  EXPECT_TRUE(obj.get(STD_DISABLED));
  EXPECT_EQ(obj.get(STD_NAME), "n");
  std::vector<unsigned int> added = undo.get(REMOVED_IDS);
  EXPECT_EQ(added, (std::vector<unsigned int>{STD_DISABLED.id, STD_DESCR.id, STD_NAME.id}));
}

TEST(UndoableMerge, RemovalListDeletesAndUndoRestores) {
  message obj = u32s({{1, 1}, {2, 2}});
  message change;
  change.insert(REMOVED_IDS, {kA.id, u32_id(3).id});
  message undo;
  merge(obj, change, undo);
  EXPECT_EQ(obj, u32s({{2, 2}}));
  EXPECT_EQ(undo.get(kA), 1u);
  message undo2;
  merge(obj, undo, undo2);
  EXPECT_EQ(obj, u32s({{1, 1}, {2, 2}}));
}

// Random messages over a small pool of numbers, so that objects and changes
// overlap often, in every kind.
class Gen {
 public:
  explicit Gen(unsigned seed) : rng_(seed) {}

  message object(bool allowRemovals) {
    message m;
    const int n = pick(0, 8);
    for (int i = 0; i < n; ++i) addField(m);
    if (allowRemovals && pick(0, 3) == 0) {
      std::vector<unsigned int> ids;
      for (int i = pick(1, 3); i > 0; --i) ids.push_back(randomId());
      m.insert(REMOVED_IDS, ids);
    }
    return m;
  }

 private:
  int pick(int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng_); }
  unsigned int number() { return static_cast<unsigned int>(pick(1, 6)); }
  unsigned int randomId() {
    static constexpr unsigned int kKinds[] = {0x00000000, 0x08000000, 0x10000000, 0x20000000, 0x30000000,
                                              0x28000000, 0x88000000, 0xA0000000, 0x80000000};
    if (pick(0, 9) == 0) return STD_DESCR.id;
    return kKinds[pick(0, 8)] | number();
  }
  void addField(message& m) {
    const unsigned int n = number();
    const unsigned int v = static_cast<unsigned int>(pick(0, 2));
    switch (pick(0, 12)) {
      // The standard fields a user may edit, under their own kinds.
      case 10: m.insert(STD_DESCR, std::string(v, 'd')); break;
      case 11: m.insert(STD_NAME, std::string(v, 'n')); break;
      case 12: m.insert(STD_DISABLED, v != 0); break;
      case 0: m.insert(bool_id(n), v != 0); break;
      case 1: m.insert(u32_id(n), v); break;
      case 2: m.insert(u64_id(n), v); break;
      case 3: m.insert(string_id(n), std::string(v, 'x')); break;
      case 4: m.insert(raw_id(n), std::vector<unsigned char>(v, 1)); break;
      case 5: m.insert(message_id(n), u32s({{v, v}})); break;
      case 6: m.insert(u32_array_id(n), std::vector<unsigned int>(v, v)); break;
      case 7: m.insert(string_array_id(n), std::vector<std::string>(v, "s")); break;
      case 8: m.insert(bool_array_id(n), std::vector<bool>(v, true)); break;
      default: m.insert(addr6_id(n), IPAddr6(IPAddr(v))); break;
    }
  }
  std::mt19937 rng_;
};

TEST(UndoableMerge, UndoRestoresTheOldObjectForRandomChanges) {
  Gen gen(12345);
  for (int i = 0; i < 20000; ++i) {
    const message old = gen.object(false);
    const message change = gen.object(true);
    message obj = old;
    message undo;
    merge(obj, change, undo);
    EXPECT_TRUE(obj.includes(message())) << i;
    message restored = obj;
    message redo;
    merge(restored, undo, redo);
    ASSERT_EQ(restored, old) << "iteration " << i;
    // Undoing the undo brings the change back.
    message again = restored;
    message ignored;
    merge(again, redo, ignored);
    ASSERT_EQ(again, obj) << "iteration " << i;
  }
}

}  // namespace
}  // namespace kr
