#include "kr/store/allocator.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <iostream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "kr/bus/handler.h"
#include "kr/bus/looper.h"

namespace kr {
namespace {

using Ids = std::vector<unsigned>;
constexpr std::pair<bool, unsigned> kNone{false, 0xFFFFFFFF};

std::pair<bool, unsigned> ok(unsigned first) { return {true, first}; }
Ids allocatedIds(const Allocator& a) { return Ids(a.begin(), a.end()); }

// The fatal line as a death-test pattern: the dbg() prefix, then `text`.
std::string fatalLine(unsigned start, unsigned end, unsigned unused, const std::string& text) {
  return "Allocator 0x[0-9a-f]+\\(" + std::to_string(start) + "-" + std::to_string(end) + ":" +
         std::to_string(unused) + "\\): " + text + "\n";
}

TEST(AllocatorTest, NextFitCursorAndSplits) {
  Allocator one(5, 5);
  EXPECT_TRUE(one.isAllocated(4));  // outside the interval
  EXPECT_TRUE(one.isAllocated(6));
  EXPECT_EQ(one.allocate(), 5u);
  EXPECT_DEATH(one.allocate(), fatalLine(5, 5, 0, "no free ids"));

  Allocator a(1, 10);
  for (unsigned want = 1; want <= 3; ++want) EXPECT_EQ(a.allocate(), want);
  a.free(2);  // not handed out again before the cursor comes round
  for (unsigned want = 4; want <= 10; ++want) EXPECT_EQ(a.allocate(), want);
  EXPECT_EQ(a.allocate(), 2u);

  Allocator b(1, 10);
  for (int i = 0; i < 8; ++i) b.allocate();
  b.freeRange(8, 1);  // joins the run [9..10]; the cursor stays at 9
  EXPECT_EQ(b.allocate(), 9u);
  EXPECT_EQ(b.allocate(), 1u);  // [1..8] stays current; off its top, restart at its bottom, not 10

  // A split keeps the larger half current; a tie stays below.
  Allocator lower(1, 10), upper(1, 10), tie(1, 9);
  lower.allocate(7);
  upper.allocate(3);
  tie.allocate(5);
  EXPECT_EQ(lower.allocate(), 1u);
  EXPECT_EQ(upper.allocate(), 4u);
  EXPECT_EQ(tie.allocate(), 1u);
}

TEST(AllocatorTest, BlocksFromTheCurrentRunOrFirstFit) {
  Allocator a(1, 20);
  a.allocate(5);   // [1..4], [6..20]: the upper run is current
  a.allocate(18);  // [6..17] stays current, [19..20]
  EXPECT_EQ(a.allocateRange(11), ok(6));  // [17..17] left of the current run
  EXPECT_EQ(a.allocateRangeMin(2), ok(1));
  EXPECT_EQ(a.allocateRange(2), ok(3));  // current too small: first-fit
  EXPECT_EQ(a.allocate(), 17u);          // current all along; now [19..20]
  EXPECT_EQ(a.allocateRange(3), kNone);
  EXPECT_EQ(a.allocateRange(2), ok(19));
  EXPECT_EQ(a.unusedCount(), 17u);  // block searches leave the count alone
  // The count still claims free ids, but no run is left to take one from.
  EXPECT_DEATH(a.allocate(), fatalLine(1, 20, 17, "ERROR: current=NULL unused=17"));
}

TEST(AllocatorTest, EmptyAndOutOfRangeRequestsChangeNothing) {
  Allocator a(1, 10);
  EXPECT_TRUE(a.begin() == a.end());
  EXPECT_EQ(a.back(), 0u);
  a.allocateRange(0, 500);
  a.freeRange(0, 0);  // a count of 0 does nothing, even out of bounds
  a.freeRange(0, 0xFFFFFFFF);
  EXPECT_EQ(a.allocateInRange(8, 7, 1), kNone);  // hi below lo
  EXPECT_EQ(a.allocateInRange(1, 10, 0), kNone);
  EXPECT_EQ(a.allocateInRange(11, 40, 1), kNone);
  EXPECT_EQ(a.unusedCount(), 10u);
  a.allocateRange(10, 1);  // no free run at all: every id
  EXPECT_EQ(allocatedIds(a), (Ids{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(a.back(), 10u);
}

TEST(AllocatorTest, Full32BitInterval) {
  Allocator a(0, 0xFFFFFFFF);
  EXPECT_EQ(a.unusedCount(), 0u);  // 2^32 free ids do not fit the u32 count
  EXPECT_EQ(a.allocateRange(4), ok(0));
  a.allocate(0xFFFFFFFF);
  EXPECT_EQ(allocatedIds(a), (Ids{0, 1, 2, 3, 0xFFFFFFFF}));
  a.free(0xFFFFFFFF);
  a.freeRange(4, 0);
  EXPECT_EQ(a.rangeCount(), 1u);
  EXPECT_TRUE(a.begin() == a.end());
  // Blocks that wrap past 0xFFFFFFFF.
  EXPECT_DEATH(a.freeRange(2, 0xFFFFFFFF), "free out of bounds id 4294967295\\.\\.0\n");
  EXPECT_DEATH(a.allocateRange(2, 0xFFFFFFFF), "alloc for already allocated3 0\n");
  EXPECT_DEATH(Allocator(0, 0xFFFFFFFF).allocate(), fatalLine(0, 0xFFFFFFFF, 0, "no free ids"));
}

TEST(AllocatorTest, MoveCarriesRunsAndCursor) {
  Allocator a(1, 10);
  a.allocate();
  a.allocate(5);
  Allocator b(std::move(a));
  EXPECT_EQ(b.allocate(), 6u);  // [6..10] is the larger half, current
  EXPECT_EQ(allocatedIds(b), (Ids{1, 5, 6}));
  Allocator empty(1, 1);
  empty.allocate();
  b = std::move(empty);  // no run: the cursor must not point into the old set
  b.free(1);
  EXPECT_EQ(b.allocate(), 1u);
}

TEST(AllocatorDeathTest, FatalTexts) {
  EXPECT_DEATH(Allocator(7, 6), fatalLine(7, 6, 0, "start beyond end"));
  Allocator full(1, 2);
  full.allocateRange(2, 1);
  EXPECT_DEATH(full.allocateMin(), fatalLine(1, 2, 0, "alloc for already allocated 0"));

  Allocator a(1, 10);
  a.allocate(4);
  a.allocate(5);
  a.allocate(10);  // free: [1..3], [6..9]
  // No run at or above: the runs are dumped after the line (one stream, to see the order).
  EXPECT_EXIT((std::cout.rdbuf(std::cerr.rdbuf()), a.allocate(10)), ::testing::KilledBySignal(SIGABRT),
              fatalLine(1, 10, 7, "alloc for already allocated 10") + "free range 1-3\nfree range 6-9\n");
  EXPECT_DEATH(a.allocate(5), fatalLine(1, 10, 7, "alloc for already allocated2 5"));
  EXPECT_DEATH(a.allocateRange(3, 2), fatalLine(1, 10, 7, "alloc for already allocated3 4"));
  EXPECT_DEATH(a.freeRange(3, 9), fatalLine(1, 10, 7, "free out of bounds id 9..11"));
  EXPECT_DEATH(a.free(0), fatalLine(1, 10, 7, "free out of bounds id 0..0"));
  EXPECT_DEATH(a.freeRange(0xFFFFFFFF, 2), fatalLine(1, 10, 7, "free out of bounds id 2..0"));
  EXPECT_DEATH(a.free(3), fatalLine(1, 10, 7, "free already free id 3"));
  EXPECT_DEATH(a.freeRange(2, 5), fatalLine(1, 10, 7, "free already free id 6"));
}

// The free ids one by one, and the count the allocator is expected to keep.
struct Model {
  unsigned lo, hi, unused;
  std::set<unsigned> free;

  Model(unsigned lo, unsigned hi) : lo(lo), hi(hi), unused(hi - lo + 1) {
    for (uint64_t id = lo; id <= hi; ++id) free.insert(unsigned(id));
  }
  // The first of the lowest `count` free ids in a row inside [a, b].
  std::pair<bool, unsigned> lowestRun(unsigned a, unsigned b, unsigned count) const {
    unsigned first = 0, n = 0;
    for (auto it = free.lower_bound(a); it != free.end() && *it <= b; ++it) {
      if (n == 0 || *it != first + n) first = *it, n = 0;
      if (++n == count) return {true, first};
    }
    return kNone;
  }
  // How many ids from `first` on are all free (or all taken), up to `want`.
  unsigned extent(unsigned first, unsigned want, bool ofFree) const {
    unsigned n = 1;
    while (n < want && uint64_t(first) + n <= hi && (free.count(first + n) != 0) == ofFree) ++n;
    return n;
  }
  void take(std::pair<bool, unsigned> block, unsigned count, bool counted) {
    for (unsigned i = 0; block.first && i < count; ++i) {
      ASSERT_EQ(free.erase(block.second + i), 1u) << "handed out a taken id " << block.second + i;
    }
    if (block.first && counted) unused -= count;
  }
};

void expectSame(const Allocator& a, const Model& m) {
  Ids taken;
  size_t runs = 0;
  unsigned back = m.hi;
  for (uint64_t id = m.lo; id <= m.hi; ++id) {
    if (!m.free.count(unsigned(id))) {
      taken.push_back(unsigned(id));
    } else if (id == m.lo || !m.free.count(unsigned(id - 1))) {
      ++runs;
      back = unsigned(id) - 1;
    }
  }
  EXPECT_EQ(allocatedIds(a), taken);
  EXPECT_EQ(a.rangeCount(), runs) << "runs not joined";
  EXPECT_EQ(a.unusedCount(), m.unused);
  EXPECT_EQ(a.back(), back);
}

class AllocatorModelTest : public ::testing::TestWithParam<std::pair<unsigned, unsigned>> {};

TEST_P(AllocatorModelTest, RandomOperationsAgreeWithASetOfFreeIds) {
  const auto [lo, hi] = GetParam();
  Allocator a(lo, hi);
  Model m(lo, hi);
  std::mt19937 rng(lo ^ 0x5eed);
  auto pick = [&](unsigned n) { return std::uniform_int_distribution<unsigned>(0, n - 1)(rng); };
  const unsigned size = hi - lo + 1;
  for (int op = 0; op < 200000; ++op) {
    const unsigned id = lo + pick(size);
    const unsigned count = 1 + pick(5);
    const bool idFree = m.free.count(id) != 0;
    // Phases of filling up and draining: allocators from nearly full to mostly free.
    const bool draining = (op / 4096) % 2 == 1;
    switch (pick(draining ? 40 : 9)) {
      case 0:  // next-fit: any free id will do
        if (!m.free.empty()) m.take({true, a.allocate()}, 1, true);
        break;
      case 1:  // the lowest free id
        if (m.free.empty()) break;
        ASSERT_EQ(a.allocateMin(), *m.free.begin());
        m.take({true, *m.free.begin()}, 1, true);
        break;
      case 2:  // an exact claim of free ids
        if (idFree) {
          const unsigned n = m.extent(id, count, true);
          n == 1 ? (void)a.allocate(id) : a.allocateRange(n, id);
          m.take({true, id}, n, true);
        }
        break;
      case 3: {
        const unsigned top = unsigned(std::min<uint64_t>(hi, uint64_t(id) + pick(size / 4)));
        const auto want = m.lowestRun(id, top, count);
        ASSERT_EQ(a.allocateInRange(id, top, count), want) << id << ".." << top << " x" << count;
        m.take(want, count, true);
        break;
      }
      case 4: {
        const auto want = m.lowestRun(lo, hi, count);
        ASSERT_EQ(a.allocateRangeMin(count), want);
        m.take(want, count, false);
        break;
      }
      case 5: {  // from the current run or first-fit: the bottom of some run
        const auto got = a.allocateRange(count);
        ASSERT_EQ(got.first, m.lowestRun(lo, hi, count).first);
        ASSERT_TRUE(!got.first || got.second == lo || !m.free.count(got.second - 1)) << got.second;
        m.take(got, count, false);
        break;
      }
      default:  // a free of taken ids
        if (!idFree) {
          const unsigned n = m.extent(id, count, false);
          n == 1 ? a.free(id) : a.freeRange(n, id);
          for (unsigned i = 0; i < n; ++i) m.free.insert(id + i);
          m.unused += n;
        }
        break;
    }
    ASSERT_FALSE(HasFailure()) << "operation " << op;
    ASSERT_EQ(a.isAllocated(id), m.free.count(id) == 0) << id;
    if (op % 512 == 0) {
      expectSame(a, m);
      ASSERT_FALSE(HasFailure()) << "after operation " << op;
    }
  }
  expectSame(a, m);
}

INSTANTIATE_TEST_SUITE_P(Intervals, AllocatorModelTest,
                         ::testing::Values(std::make_pair(0u, 255u), std::make_pair(1000u, 1299u),
                                           std::make_pair(0xFFFFFF00u, 0xFFFFFFFFu)));

TEST(FollowHandlerIdRangeTest, ClaimsTheIdsOfRegisteredHandlers) {
  {
    Looper looper(looper_detached);
    Handler inside, top, outside, unnamed;
    looper.addHandler(0xfd1001, &inside);
    looper.addHandler(0xfd1800, &top);
    looper.addHandler(30, &outside);
    looper.addHandler(Handler::kNoId, &unnamed);  // no id to protect

    followHandlerIdRange(0xfd1000, 0xfd1800);
    const Allocator* ids = handlerIdAllocator();
    ASSERT_NE(ids, nullptr);
    EXPECT_EQ(allocatedIds(*ids), (Ids{0xfd1001, 0xfd1800}));
    EXPECT_EQ(ids->unusedCount(), 0x801u - 2);
    followHandlerIdRange(0xFFFFFF00, 0xFFFFFFFF);
    EXPECT_FALSE(handlerIdAllocator()->isAllocated(Handler::kNoId));
    looper.removeHandler(Handler::kNoId);  // its destructor would not
  }
  // Without a Looper the new allocator is all free.
  followHandlerIdRange(0xfd1000, 0xfd1800);
  EXPECT_TRUE(handlerIdAllocator()->begin() == handlerIdAllocator()->end());
}

}  // namespace
}  // namespace kr
