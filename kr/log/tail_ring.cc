#include <algorithm>
#include <cstring>

#include "kr/log/internal/tail_ring.h"

namespace kr::log_internal {

void TailRing::put(const char* p, size_t n) {
  while (n > 0) {
    const size_t chunk = std::min(n, kSize - head_);
    std::memcpy(ring_ + head_, p, chunk);
    head_ = (head_ + chunk) % kSize;
    p += chunk;
    n -= chunk;
  }
}

void TailRing::append(const char* text, size_t len) {
  // Only the last kSize bytes (newline included) can survive anyway.
  if (len >= kSize) {
    text += len - (kSize - 1);
    len = kSize - 1;
  }
  put(text, len);
  put("\n", 1);
  used_ = std::min(kSize, used_ + len + 1);
}

size_t TailRing::copy(char* buf, size_t cap) const {
  const size_t n = std::min(cap, used_);
  // The newest n bytes end at head_; they may wrap around the ring's end.
  const size_t start = (head_ + kSize - n) % kSize;
  const size_t first = std::min(n, kSize - start);
  std::memcpy(buf, ring_ + start, first);
  std::memcpy(buf + first, ring_, n - first);
  return n;
}

}  // namespace kr::log_internal
