// kr::Allocator: hands out unsigned 32-bit ids from one closed interval
// [start, end] and takes them back. Every object map and object store
// numbers its objects with one; one process-wide allocator numbers the
// process's short-lived notification handlers (kr::followHandlerIdRange).
//
// Only the free ids are kept, as disjoint runs ordered by their last id, so a
// fresh allocator over millions of ids is a single node and memory grows with
// fragmentation, not with the number of ids. Single ids are handed out
// next-fit: a cursor walks up through the current run, so an id that was just
// freed is not handed out again at once (a late reply addressed to its old
// owner must not reach a new one). When the cursor runs off the top of the
// run, allocation restarts at the run's bottom; when the run is used up it
// moves to the next higher run, wrapping to the lowest. Blocks are handed out
// first-fit.
//
//   kr::Allocator ids(1, 1000);
//   unsigned a = ids.allocate();                    // 1, then 2, 3, ...
//   ids.allocate(500);                              // claims exactly 500
//   auto [ok, first] = ids.allocateInRange(100, 199, 4);  // 4 ids in a row
//   ids.free(a);
//   for (unsigned id : ids) use(id);                // allocated ids, ascending
//
// Misuse is a programming error and ends the process: claiming a taken id,
// freeing a free one, freeing outside the interval or asking allocate() for
// an id when none is left writes one line to standard error, the dbg()
// prefix followed by the case's text, and aborts. The block searches
// (allocateRange(count), allocateRangeMin, allocateInRange) never abort;
// they answer (false, 0xFFFFFFFF) instead.
//
// The count of free ids (unusedCount()) is deliberately not lowered by
// allocateRange(count) and allocateRangeMin(): it then overstates what is
// free, and only the checks of allocate() and allocateMin() and dbg() read
// it. The count is a u32, so over the full interval [0, 0xFFFFFFFF] it
// starts at 0 and allocate() reports "no free ids" there; callers that want
// single ids use at most [0, 0xFFFFFFFE].
//
// Threading: none; an allocator belongs to one thread (the map or store that
// owns it lives on the event-loop thread). Ownership: the allocator owns its
// run nodes; it can be moved but not copied.
#pragma once

#include <cstddef>
#include <iterator>
#include <set>
#include <string>
#include <utility>

namespace kr {

class Allocator {
 public:
  // One run of free ids, [first, last]; always first <= last.
  struct FreeRange {
    unsigned first;
    unsigned last;  // inclusive
  };

 private:
  // Runs are disjoint, so ordering them by `last` orders them by `first`
  // too, and a lower-bound search on `last` finds the run holding an id.
  struct ByLast {
    using is_transparent = void;
    bool operator()(const FreeRange& a, const FreeRange& b) const { return a.last < b.last; }
    bool operator()(const FreeRange& a, unsigned b) const { return a.last < b; }
    bool operator()(unsigned a, const FreeRange& b) const { return a < b.last; }
  };
  using RangeSet = std::set<FreeRange, ByLast>;
  using RangeIt = RangeSet::iterator;

 public:
  // Walks the allocated ids in ascending order by jumping over the free runs.
  // Invalidated by any change to the allocator.
  class iterator {
   public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = unsigned;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = unsigned;

    iterator() = default;
    unsigned operator*() const { return id; }
    iterator& operator++();
    iterator operator++(int) {
      iterator old = *this;
      ++*this;
      return old;
    }
    bool operator==(const iterator& o) const { return id == o.id && range == o.range; }

   private:
    friend class Allocator;
    iterator(const Allocator* a, unsigned id, RangeSet::const_iterator range);
    // Jumps over `range` while the id stands on its first id.
    void skipFree();

    const Allocator* alloc = nullptr;
    unsigned id = 0;
    // The next free run above `id`; alloc->ranges.end() when there is none.
    RangeSet::const_iterator range;
  };

  // All of [start, end] free. start > end is fatal: "start beyond end".
  Allocator(unsigned start, unsigned end);
  Allocator(Allocator&& other) noexcept;
  Allocator& operator=(Allocator&& other) noexcept;
  Allocator(const Allocator&) = delete;
  Allocator& operator=(const Allocator&) = delete;
  ~Allocator() = default;

  // ---- Single ids --------------------------------------------------------------
  // The next id, next-fit (see above). Fatal when the count of free ids is 0
  // ("no free ids") or when it is not 0 but no run is left ("ERROR:
  // current=NULL unused=N", then the runs are dumped), which only the block
  // allocations that leave the count alone can bring about.
  unsigned allocate();
  // Claims exactly `id` (allocateRange(1, id)) and returns it.
  unsigned allocate(unsigned id);
  // Claims the lowest free id. With a count of free ids of 0 this is
  // allocate(0) and fatal unless 0 is free; with a count but no run left
  // the process traps.
  unsigned allocateMin();
  // Returns `id` to the free ids (freeRange(1, id)).
  void free(unsigned id);

  // ---- Blocks: note that the count comes first --------------------------------------
  // `count` ids in a row from the bottom of the current run if it holds
  // them, else from the lowest run that does. (true, first id) or (false,
  // 0xFFFFFFFF). Does not lower unusedCount().
  std::pair<bool, unsigned> allocateRange(unsigned count);
  // The same, first-fit from the lowest run, ignoring the current run.
  std::pair<bool, unsigned> allocateRangeMin(unsigned count);
  // Claims exactly [first, first + count - 1]; a count of 0 does nothing.
  // Fatal unless every id of the block is free: "alloc for already
  // allocated " first (no run at or above it, then the runs are dumped),
  // "alloc for already allocated2 " first (first is taken), "alloc for
  // already allocated3 " last id (the block runs into taken ids).
  void allocateRange(unsigned count, unsigned first);
  // Claims the lowest `count` free ids in a row inside [lo, hi]. (true, the
  // first of them) or (false, 0xFFFFFFFF), also for a count of 0.
  std::pair<bool, unsigned> allocateInRange(unsigned lo, unsigned hi, unsigned count);
  // Returns [first, first + count - 1] to the free ids, joining it with the
  // runs it touches; a count of 0 does nothing, wherever `first` is. Fatal:
  // "free out of bounds id " first ".." last, for a block not inside the
  // interval, and "free already free id " last, for a block that reaches
  // into the next free run above it. No other double free is detected (a
  // free run lying wholly inside the block, or a block that touches the
  // run below while overlapping the one above): the caller must not.
  void freeRange(unsigned count, unsigned first);

  // ---- Queries ---------------------------------------------------------------------------
  // True when `id` is in no free run; ids outside the interval count as
  // allocated.
  bool isAllocated(unsigned id) const;
  // The allocated ids, ascending. Without any free run, every id of the
  // interval (an empty walk for the full 32-bit interval: its end position
  // wraps to the start).
  iterator begin() const;
  iterator end() const;
  // The first id of the highest free run minus 1: the highest allocated id
  // when the top of the interval is free. The interval's end when no run is
  // free.
  unsigned back() const;
  // The count of free ids, as kept (see the top of this file).
  unsigned unusedCount() const { return unused; }
  // The number of free runs: what the allocator's memory is proportional to.
  size_t rangeCount() const { return ranges.size(); }

  // One line "free range FIRST-LAST" per free run, to standard output.
  void dump() const;
  // "Allocator ADDRESS(START-END:UNUSED): ", the prefix of every fatal line.
  std::string dbg() const;

 private:
  std::pair<bool, unsigned> allocateRangeImpl(unsigned count, bool useCurrent);
  // Takes [first, first + count - 1] out of run r, which holds it: from the
  // bottom, the top, or the middle (a split). Leaves `unused` to the caller.
  void carve(RangeIt r, unsigned first, unsigned count);
  // Removes run r, moving `current` off it (upwards, wrapping to the lowest).
  void deleteRange(RangeIt r);
  // Merges lower into upper when they touch; otherwise nothing.
  void join(RangeIt lower, RangeIt upper);
  // A run may be edited in place: the callers keep the runs disjoint, so
  // the set's order by `last` holds.
  static FreeRange& edit(RangeIt r) { return const_cast<FreeRange&>(*r); }
  [[noreturn]] void fatal(const std::string& text, bool dumpRanges = false) const;

  RangeSet ranges;
  unsigned start;
  unsigned endId;  // the interval's end (`end()` is the iteration's end)
  unsigned unused;
  // The run single ids come from; ranges.end() exactly when no run is left.
  RangeIt current;
  unsigned nextId;  // the next-fit cursor inside `current`
};

// The process-wide allocator of notification handler ids, or null until
// followHandlerIdRange() creates it. Owned by the library; valid until the
// next followHandlerIdRange(). Event-loop thread only.
Allocator* handlerIdAllocator();

// Replaces the process-wide handler-id allocator (deleting the old one) by a
// fresh Allocator(lo, hi), then claims in it the id of every handler
// registered with the process's Looper (kr::getLooper()), so that ids handed
// out later do not collide with them. Ids outside [lo, hi] and
// Handler::kNoId (0xFFFFFFFF) are skipped; without a Looper the allocator
// stays fresh. A notification handler that finds no allocator calls
// followHandlerIdRange(0xfd1000, 0xfd1800) and then takes its id with
// allocate(), returning it with free() when it goes.
void followHandlerIdRange(unsigned lo, unsigned hi);

}  // namespace kr
