#include "kr/store/allocator.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <optional>
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

// ---- Single ids and the cursor ---------------------------------------------------

TEST(AllocatorTest, OneIdInterval) {
  Allocator a(5, 5);
  EXPECT_TRUE(a.isAllocated(4));  // outside the interval
  EXPECT_TRUE(a.isAllocated(6));
  EXPECT_FALSE(a.isAllocated(5));
  EXPECT_EQ(a.allocate(), 5u);
  EXPECT_DEATH(a.allocate(), fatalLine(5, 5, 0, "no free ids"));
  a.free(5);  // into an allocator without runs: the run becomes current
  EXPECT_EQ(a.allocate(), 5u);
}

TEST(AllocatorTest, FreedIdsWaitForTheCursor) {
  Allocator a(1, 10);
  EXPECT_EQ(a.allocate(), 1u);
  EXPECT_EQ(a.allocate(), 2u);
  EXPECT_EQ(a.allocate(), 3u);
  a.free(2);
  for (unsigned want = 4; want <= 10; ++want) EXPECT_EQ(a.allocate(), want);
  EXPECT_EQ(a.allocate(), 2u);  // the last run is used up: back to the lowest
  EXPECT_EQ(a.unusedCount(), 0u);

  Allocator b(1, 10);
  for (int i = 0; i < 8; ++i) b.allocate();
  b.freeRange(8, 1);  // joins the run [9..10]; the cursor stays at 9
  ASSERT_EQ(b.rangeCount(), 1u);
  EXPECT_EQ(b.allocate(), 9u);
  // [1..8] is the larger half and stays current; the cursor ran off its top,
  // so allocation restarts at its bottom rather than taking 10.
  EXPECT_EQ(b.allocate(), 1u);
  EXPECT_EQ(b.allocate(), 2u);
}

TEST(AllocatorTest, ExactClaimKeepsTheLargerHalfCurrent) {
  Allocator lowerLarger(1, 10);
  EXPECT_EQ(lowerLarger.allocate(7), 7u);
  EXPECT_EQ(lowerLarger.rangeCount(), 2u);
  EXPECT_EQ(lowerLarger.unusedCount(), 9u);
  EXPECT_EQ(lowerLarger.allocate(), 1u);

  Allocator upperLarger(1, 10);
  upperLarger.allocate(3);
  EXPECT_EQ(upperLarger.allocate(), 4u);

  Allocator equalHalves(1, 9);  // [1..4] and [6..9]: a tie stays below
  equalHalves.allocate(5);
  EXPECT_EQ(equalHalves.allocate(), 1u);
}

TEST(AllocatorTest, ExactBlockClaimAndAllocateMin) {
  Allocator a(1, 20);
  a.allocateRange(3, 1);    // bottom
  a.allocateRange(2, 19);   // top
  a.allocateRange(4, 8);    // middle: a split
  a.allocateRange(0, 500);  // nothing
  EXPECT_EQ(allocatedIds(a), (Ids{1, 2, 3, 8, 9, 10, 11, 19, 20}));
  EXPECT_EQ(a.unusedCount(), 11u);
  EXPECT_EQ(a.allocateMin(), 4u);
  a.free(2);
  EXPECT_EQ(a.allocateMin(), 2u);
  a.allocateRange(3, 5);
  a.allocateRange(7, 12);
  EXPECT_EQ(a.unusedCount(), 0u);
  EXPECT_DEATH(a.allocateMin(), fatalLine(1, 20, 0, "alloc for already allocated 0"));
}

// ---- Blocks --------------------------------------------------------------------------

TEST(AllocatorTest, BlocksFromTheCurrentRunOrFirstFit) {
  Allocator fresh(1, 10);
  EXPECT_EQ(fresh.allocateRange(3), ok(1));
  EXPECT_EQ(fresh.unusedCount(), 10u);  // deliberately left alone
  EXPECT_EQ(allocatedIds(fresh), (Ids{1, 2, 3}));

  Allocator a(1, 20);
  a.allocate(5);   // [1..4], [6..20]: the upper run is current
  a.allocate(18);  // [6..17] stays current, [19..20]
  EXPECT_EQ(a.allocateRange(11), ok(6));  // [17..17] left of the current run
  EXPECT_EQ(a.allocateRangeMin(2), ok(1));
  EXPECT_EQ(a.allocateRange(2), ok(3));  // current too small: first-fit
  EXPECT_EQ(a.allocate(), 17u);          // current all along; now [19..20]
  EXPECT_EQ(a.allocateRange(3), kNone);
  EXPECT_EQ(a.allocateRangeMin(3), kNone);
  EXPECT_EQ(a.allocateRange(2), ok(19));
  EXPECT_EQ(a.allocateRange(1), kNone);
  EXPECT_EQ(a.unusedCount(), 17u);
  // The count still claims free ids, but no run is left to take one from.
  EXPECT_DEATH(a.allocate(), fatalLine(1, 20, 17, "ERROR: current=NULL unused=17"));
}

TEST(AllocatorTest, AllocateInRange) {
  Allocator fresh(1, 10);
  EXPECT_EQ(fresh.allocateInRange(4, 6, 4), kNone);
  EXPECT_EQ(fresh.allocateInRange(4, 6, 3), ok(4));
  EXPECT_EQ(allocatedIds(fresh), (Ids{4, 5, 6}));
  EXPECT_EQ(fresh.unusedCount(), 7u);

  Allocator a(1, 20);
  a.allocate(3);
  a.allocate(12);                              // [1..2], [4..11], [13..20]
  EXPECT_EQ(a.allocateInRange(2, 15, 3), ok(4));   // [2..2] is too short
  EXPECT_EQ(a.allocateInRange(9, 11, 3), ok(9));   // top of [7..11]
  EXPECT_EQ(a.allocateInRange(15, 30, 2), ok(15));  // middle of [13..20]
  EXPECT_EQ(allocatedIds(a), (Ids{3, 4, 5, 6, 9, 10, 11, 12, 15, 16}));
  EXPECT_EQ(a.allocateInRange(17, 18, 3), kNone);
  EXPECT_EQ(a.allocateInRange(8, 7, 1), kNone);    // hi below lo
  EXPECT_EQ(a.allocateInRange(1, 20, 0), kNone);   // nothing to claim
  EXPECT_EQ(a.allocateInRange(21, 40, 1), kNone);  // beyond the interval
  EXPECT_EQ(a.unusedCount(), 10u);
}

// ---- Freeing and walking -------------------------------------------------------------------

TEST(AllocatorTest, FreeJoinsAdjacentRuns) {
  Allocator a(1, 10);
  a.allocateRange(10, 1);
  a.freeRange(0, 0);  // a count of 0 does nothing, even out of bounds
  a.freeRange(0, 0xFFFFFFFF);
  EXPECT_EQ(a.unusedCount(), 0u);
  a.free(2);
  a.free(4);
  EXPECT_EQ(a.rangeCount(), 2u);
  a.free(3);  // touches both runs: one run [2..4]
  EXPECT_EQ(a.rangeCount(), 1u);
  a.freeRange(2, 5);  // extends it upwards
  a.free(1);          // and downwards
  a.freeRange(2, 8);
  a.free(7);
  EXPECT_EQ(a.rangeCount(), 1u);
  EXPECT_EQ(allocatedIds(a), (Ids{10}));
  EXPECT_EQ(a.unusedCount(), 9u);
}

TEST(AllocatorTest, IterationAndBackAtTheEdges) {
  Allocator a(1, 10);
  EXPECT_TRUE(a.begin() == a.end());
  EXPECT_EQ(a.back(), 0u);
  a.allocate(1);
  a.allocate(10);
  EXPECT_EQ(allocatedIds(a), (Ids{1, 10}));  // from start, and up to end
  EXPECT_EQ(a.back(), 1u);
  a.allocateRange(8, 2);  // no free run at all: every id
  EXPECT_EQ(allocatedIds(a), (Ids{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
  EXPECT_EQ(a.back(), 10u);
}

TEST(AllocatorTest, Full32BitInterval) {
  Allocator a(0, 0xFFFFFFFF);
  EXPECT_EQ(a.unusedCount(), 0u);  // 2^32 free ids do not fit the u32 count
  EXPECT_EQ(a.allocateRange(4), ok(0));
  a.allocate(0xFFFFFFFF);
  a.allocateRange(2, 0xFFFFFFFC);
  EXPECT_EQ(allocatedIds(a), (Ids{0, 1, 2, 3, 0xFFFFFFFC, 0xFFFFFFFD, 0xFFFFFFFF}));
  EXPECT_FALSE(a.isAllocated(0xFFFFFFFE));
  EXPECT_EQ(a.allocateInRange(0xFFFFFFF0, 0xFFFFFFFF, 2), ok(0xFFFFFFF0));
  a.free(0xFFFFFFFF);
  a.freeRange(2, 0xFFFFFFFC);
  a.freeRange(2, 0xFFFFFFF0);
  a.freeRange(4, 0);
  EXPECT_EQ(a.rangeCount(), 1u);
  EXPECT_TRUE(a.begin() == a.end());
  // Blocks that wrap past 0xFFFFFFFF.
  EXPECT_DEATH(a.freeRange(2, 0xFFFFFFFF), "free out of bounds id 4294967295\\.\\.0\n");
  EXPECT_DEATH(a.allocateRange(2, 0xFFFFFFFF), "alloc for already allocated3 0\n");
  Allocator fresh(0, 0xFFFFFFFF);
  EXPECT_DEATH(fresh.allocate(), fatalLine(0, 0xFFFFFFFF, 0, "no free ids"));
}

TEST(AllocatorTest, DumpAndDbg) {
  Allocator a(1, 10);
  a.allocate(3);
  a.allocate(7);
  ::testing::internal::CaptureStdout();
  a.dump();
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "free range 1-2\nfree range 4-6\nfree range 8-10\n");
  char want[64];
  std::snprintf(want, sizeof want, "Allocator %p(1-10:8): ", static_cast<const void*>(&a));
  EXPECT_EQ(a.dbg(), want);
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

// ---- Fatal texts -------------------------------------------------------------------------

TEST(AllocatorDeathTest, FatalTexts) {
  EXPECT_DEATH(Allocator(7, 6), fatalLine(7, 6, 0, "start beyond end"));
  Allocator a(1, 10);
  a.allocate(4);
  a.allocate(5);
  a.allocate(10);
  ASSERT_EQ(allocatedIds(a), (Ids{4, 5, 10}));  // free: [1..3], [6..9]
  EXPECT_DEATH(a.allocate(10), fatalLine(1, 10, 7, "alloc for already allocated 10"));
  EXPECT_DEATH(a.allocate(5), fatalLine(1, 10, 7, "alloc for already allocated2 5"));
  EXPECT_DEATH(a.allocateRange(3, 2), fatalLine(1, 10, 7, "alloc for already allocated3 4"));
  EXPECT_DEATH(a.freeRange(3, 9), fatalLine(1, 10, 7, "free out of bounds id 9..11"));
  EXPECT_DEATH(a.free(0), fatalLine(1, 10, 7, "free out of bounds id 0..0"));
  EXPECT_DEATH(a.freeRange(0xFFFFFFFF, 2), fatalLine(1, 10, 7, "free out of bounds id 2..0"));
  EXPECT_DEATH(a.free(3), fatalLine(1, 10, 7, "free already free id 3"));
  EXPECT_DEATH(a.freeRange(2, 5), fatalLine(1, 10, 7, "free already free id 6"));
}

TEST(AllocatorDeathTest, DumpFollowsTheNoRangeLine) {
  Allocator a(1, 5);
  a.allocate(2);
  a.allocate(5);  // [1..1], [3..4]
  EXPECT_EXIT(
      {
        std::cout.rdbuf(std::cerr.rdbuf());  // one stream, to see the order
        a.allocate(5);
      },
      ::testing::KilledBySignal(SIGABRT), "alloc for already allocated 5\nfree range 1-1\nfree range 3-4\n$");
}

// ---- Against a set of free ids ---------------------------------------------------------------

// The free ids one by one, and the count the allocator is expected to keep.
struct Model {
  unsigned lo, hi, unused;
  std::set<unsigned> free;

  Model(unsigned lo, unsigned hi) : lo(lo), hi(hi), unused(hi - lo + 1) {
    for (uint64_t id = lo; id <= hi; ++id) free.insert(unsigned(id));
  }
  // The first of the lowest `count` free ids in a row inside [a, b], as a
  // block allocation reports it.
  std::pair<bool, unsigned> lowestRun(unsigned a, unsigned b, unsigned count) const {
    unsigned first = 0, n = 0;
    for (auto it = free.lower_bound(a); it != free.end() && *it <= b; ++it) {
      if (n > 0 && *it == first + n) {
        ++n;
      } else {
        first = *it;
        n = 1;
      }
      if (n == count) return {true, first};
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
    // Phases of filling up and draining, so that the walk sees allocators
    // from nearly full to mostly free.
    const bool draining = (op / 4096) % 2 == 1;
    switch (pick(draining ? 40 : 9)) {
      case 0:  // next-fit: any free id will do
        if (!m.free.empty()) m.take({true, a.allocate()}, 1, true);
        break;
      case 1:
        if (m.free.empty()) break;
        ASSERT_EQ(a.allocateMin(), *m.free.begin());
        m.take({true, *m.free.begin()}, 1, true);
        break;
      case 2:  // an exact claim of free ids
        if (idFree) {
          const unsigned n = m.extent(id, count, true);
          if (n == 1) {
            a.allocate(id);
          } else {
            a.allocateRange(n, id);
          }
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
          if (n == 1) {
            a.free(id);
          } else {
            a.freeRange(n, id);
          }
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

// ---- The handler-id allocator ------------------------------------------------------------------

TEST(FollowHandlerIdRangeTest, ClaimsTheIdsOfRegisteredHandlers) {
  {
    Looper looper(looper_detached);
    Handler inside, top, outside;
    looper.addHandler(0xfd1001, &inside);
    looper.addHandler(0xfd1800, &top);
    looper.addHandler(30, &outside);

    followHandlerIdRange(0xfd1000, 0xfd1800);
    Allocator* ids = handlerIdAllocator();
    ASSERT_NE(ids, nullptr);
    EXPECT_EQ(ids->unusedCount(), 0x801u - 2);
    EXPECT_EQ(allocatedIds(*ids), (Ids{0xfd1001, 0xfd1800}));
    EXPECT_EQ(ids->allocate(), 0xfd1002u);
    EXPECT_EQ(ids->allocate(), 0xfd1003u);

    // A handler registered under kNoId is no id to protect.
    Handler unnamed;
    looper.addHandler(Handler::kNoId, &unnamed);
    followHandlerIdRange(0xFFFFFF00, 0xFFFFFFFF);
    EXPECT_EQ(handlerIdAllocator()->rangeCount(), 1u);
    EXPECT_FALSE(handlerIdAllocator()->isAllocated(Handler::kNoId));
    looper.removeHandler(Handler::kNoId);  // its destructor would not
  }
  // Without a Looper the new allocator is all free.
  followHandlerIdRange(0xfd1000, 0xfd1800);
  EXPECT_TRUE(handlerIdAllocator()->begin() == handlerIdAllocator()->end());
  EXPECT_EQ(handlerIdAllocator()->allocate(), 0xfd1000u);
}

}  // namespace
}  // namespace kr
