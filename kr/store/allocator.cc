#include "kr/store/allocator.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <string>

#include "kr/bus/handler.h"
#include "kr/bus/looper.h"

namespace kr {

namespace {

constexpr std::pair<bool, unsigned> kFailed{false, 0xFFFFFFFF};

// Whether a run holds at least / exactly `count` ids. Written as differences
// so that a run over all 2^32 ids, whose size does not fit a u32, compares
// right.
bool holdsAtLeast(const Allocator::FreeRange& r, unsigned count) {
  return count == 0 || r.last - r.first >= count - 1;
}
bool holdsExactly(const Allocator::FreeRange& r, unsigned count) {
  return count != 0 && r.last - r.first == count - 1;
}

}  // namespace

// ---- Lifetime --------------------------------------------------------------------

Allocator::Allocator(unsigned start, unsigned end)
    : start(start), endId(end), unused(end + 1 - start), current(ranges.end()), nextId(start) {
  if (start > end) fatal("start beyond end");
  current = ranges.insert({start, end}).first;
}

// The run nodes move with the set and iterators to them stay valid; only a
// `current` at the old set's end must be re-pointed at the new one's.
Allocator::Allocator(Allocator&& other) noexcept
    : start(0), endId(0), unused(0), current(ranges.end()), nextId(0) {
  *this = std::move(other);
}

Allocator& Allocator::operator=(Allocator&& other) noexcept {
  if (this == &other) return *this;
  const bool none = other.current == other.ranges.end();
  ranges = std::move(other.ranges);
  current = none ? ranges.end() : other.current;
  start = other.start;
  endId = other.endId;
  unused = other.unused;
  nextId = other.nextId;
  other.ranges.clear();
  other.current = other.ranges.end();
  other.unused = 0;
  return *this;
}

// ---- Single ids ------------------------------------------------------------------

unsigned Allocator::allocate() {
  if (unused == 0) fatal("no free ids");
  // Only the block allocations, which leave `unused` alone, get here.
  if (current == ranges.end()) fatal("ERROR: current=NULL unused=" + std::to_string(unused), true);
  const FreeRange& c = *current;
  if (nextId > c.first && nextId <= c.last) {
    // The exact claim of the cursor's id, without searching for its run.
    const unsigned id = nextId++;
    carve(current, id, 1);
    --unused;
    return id;
  }
  // The cursor left the run (or stands on its bottom): take the bottom.
  const unsigned id = c.first;
  if (c.first != c.last) {
    nextId = ++edit(current).first;
  } else {
    deleteRange(current);
  }
  --unused;
  return id;
}

unsigned Allocator::allocate(unsigned id) {
  allocateRange(1, id);
  return id;
}

unsigned Allocator::allocateMin() {
  if (unused == 0) return allocate(0);
  if (ranges.empty()) __builtin_trap();
  return allocate(ranges.begin()->first);
}

void Allocator::free(unsigned id) { freeRange(1, id); }

// ---- Blocks ----------------------------------------------------------------------

std::pair<bool, unsigned> Allocator::allocateRange(unsigned count) { return allocateRangeImpl(count, true); }

std::pair<bool, unsigned> Allocator::allocateRangeMin(unsigned count) { return allocateRangeImpl(count, false); }

std::pair<bool, unsigned> Allocator::allocateRangeImpl(unsigned count, bool useCurrent) {
  RangeIt r = current;
  if (!useCurrent || r == ranges.end() || !holdsAtLeast(*r, count)) {
    r = std::find_if(ranges.begin(), ranges.end(), [&](const FreeRange& f) { return holdsAtLeast(f, count); });
    if (r == ranges.end()) return kFailed;
  }
  const unsigned first = r->first;
  if (holdsExactly(*r, count)) {
    deleteRange(r);
  } else {
    edit(r).first += count;
  }
  // `unused` stays as it is: see the header.
  return {true, first};
}

void Allocator::allocateRange(unsigned count, unsigned first) {
  if (count == 0) return;
  const unsigned last = first + count - 1;
  RangeIt r = ranges.lower_bound(first);
  if (r == ranges.end()) fatal("alloc for already allocated " + std::to_string(first), true);
  if (r->first > first) fatal("alloc for already allocated2 " + std::to_string(first));
  // A block that wraps past 0xFFFFFFFF runs past every run.
  if (r->last < last || last < first) fatal("alloc for already allocated3 " + std::to_string(last));
  carve(r, first, count);
  unused -= count;
}

std::pair<bool, unsigned> Allocator::allocateInRange(unsigned lo, unsigned hi, unsigned count) {
  if (count == 0) return kFailed;
  for (RangeIt r = ranges.begin(); r != ranges.end() && r->first <= hi; ++r) {
    if (r->last < lo) continue;
    const unsigned a = std::max(r->first, lo);
    const unsigned b = std::min(r->last, hi);
    if (b < a || b - a < count - 1) continue;
    carve(r, a, count);
    unused -= count;
    return {true, a};
  }
  return kFailed;
}

void Allocator::carve(RangeIt r, unsigned first, unsigned count) {
  const unsigned last = first + count - 1;
  FreeRange& f = edit(r);
  if (f.first == first) {
    if (f.last == last) {
      deleteRange(r);
    } else {
      f.first = first + count;
    }
  } else if (f.last == last) {
    f.last -= count;
  } else {
    const unsigned top = f.last;
    f.last = first - 1;
    RangeIt upper = ranges.insert(std::next(r), {last + 1, top});
    // Single ids keep coming from the larger half.
    if (current == r && upper->last - upper->first > f.last - f.first) current = upper;
  }
}

void Allocator::freeRange(unsigned count, unsigned first) {
  if (count == 0) return;
  const unsigned last = first + count - 1;
  if (first < start || last > endId || last < first) {
    fatal("free out of bounds id " + std::to_string(first) + ".." + std::to_string(last));
  }
  const RangeIt s0 = ranges.lower_bound(first);
  // The successor: s0 itself unless the block reaches beyond it.
  const RangeIt s = s0 == ranges.end() || s0->last >= last ? s0 : ranges.lower_bound(last);
  const RangeIt p = s0 == ranges.begin() ? ranges.end() : std::prev(s0);  // the predecessor
  if (p != ranges.end() && p->last + 1 == first) {
    edit(p).last += count;
    if (s != ranges.end()) join(p, s);
    unused += count;
    return;
  }
  if (s != ranges.end()) {
    if (last >= s->first) fatal("free already free id " + std::to_string(last));
    if (last + 1 == s->first) {
      edit(s).first = first;
      if (p != ranges.end()) join(p, s);
      unused += count;
      return;
    }
  }
  // The new run sorts just below s0.
  const RangeIt r = ranges.insert(s0, {first, last});
  unused += count;
  if (current == ranges.end()) current = r;
}

// ---- Runs ------------------------------------------------------------------------

void Allocator::deleteRange(RangeIt r) {
  if (r == current) current = std::next(r);
  ranges.erase(r);
  if (current == ranges.end()) current = ranges.begin();  // end() again when none is left
}

void Allocator::join(RangeIt lower, RangeIt upper) {
  if (upper->first - lower->last != 1) return;
  edit(upper).first = lower->first;
  if (current == lower) current = upper;
  ranges.erase(lower);
}

// ---- Queries ---------------------------------------------------------------------

bool Allocator::isAllocated(unsigned id) const {
  auto r = ranges.lower_bound(id);
  return r == ranges.end() || r->first > id;
}

Allocator::iterator Allocator::begin() const {
  auto lowest = ranges.begin();
  if (lowest == ranges.end() || start < lowest->first) return iterator(this, start, lowest);
  return iterator(this, lowest->last + 1, std::next(lowest));
}

Allocator::iterator Allocator::end() const { return iterator(this, endId + 1, ranges.end()); }

unsigned Allocator::back() const { return ranges.empty() ? endId : ranges.rbegin()->first - 1; }

void Allocator::dump() const {
  for (const FreeRange& r : ranges) std::cout << "free range " << r.first << "-" << r.last << '\n';
}

std::string Allocator::dbg() const {
  char buf[96];
  std::snprintf(buf, sizeof buf, "Allocator %p(%u-%u:%u): ", static_cast<const void*>(this), start, endId, unused);
  return buf;
}

void Allocator::fatal(const std::string& text, bool dumpRanges) const {
  std::cerr << dbg() << text << '\n';
  if (dumpRanges) {
    dump();
    std::cout.flush();
  }
  std::abort();
}

// ---- iterator --------------------------------------------------------------------

Allocator::iterator::iterator(const Allocator* a, unsigned id, RangeSet::const_iterator range)
    : alloc(a), id(id), range(range) {
  skipFree();
}

Allocator::iterator& Allocator::iterator::operator++() {
  ++id;
  skipFree();
  return *this;
}

// Runs are never adjacent after a free, so this normally jumps once.
void Allocator::iterator::skipFree() {
  while (range != alloc->ranges.end() && id == range->first) {
    id = range->last + 1;
    ++range;
  }
}

// ---- The handler-id allocator ------------------------------------------------------

namespace {

// Deliberately never destroyed: a notification handler may return its id
// from a destructor that runs late in the process's exit.
Allocator* g_handlerIds = nullptr;

}  // namespace

Allocator* handlerIdAllocator() { return g_handlerIds; }

void followHandlerIdRange(unsigned lo, unsigned hi) {
  delete g_handlerIds;
  g_handlerIds = new Allocator(lo, hi);
  const Looper* looper = getLooper();
  if (!looper) return;
  for (unsigned int id : looper->handlerIds()) {
    if (id != Handler::kNoId && !g_handlerIds->isAllocated(id)) g_handlerIds->allocate(id);
  }
}

}  // namespace kr
