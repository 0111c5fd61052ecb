// For tests: counts heap allocations made through operator new while a
// CountAllocations object is alive. Linked only into test binaries, which
// get a replacement operator new from alloc_counter.cc.
#pragma once

#include <cstddef>

namespace kr::testing {

class CountAllocations {
 public:
  CountAllocations();
  ~CountAllocations();
  CountAllocations(const CountAllocations&) = delete;
  CountAllocations& operator=(const CountAllocations&) = delete;

  // Allocations since construction.
  size_t operator()() const;
};

}  // namespace kr::testing
