// Little-endian writer and bounded reader for the flat form. Byte order is
// fixed by the format, never by the host.
#pragma once

#include <cstdint>
#include <cstring>

namespace kr::internal {

inline void storeLE16(unsigned char* p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
}
inline void storeLE32(unsigned char* p, uint32_t v) {
  for (int i = 0; i < 4; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline void storeLE64(unsigned char* p, uint64_t v) {
  for (int i = 0; i < 8; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
}
inline uint32_t loadLE16(const unsigned char* p) { return p[0] | (uint32_t(p[1]) << 8); }
inline uint32_t loadLE32(const unsigned char* p) {
  return p[0] | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24);
}
inline uint64_t loadLE64(const unsigned char* p) { return loadLE32(p) | (uint64_t(loadLE32(p + 4)) << 32); }

// Writes into a buffer whose size was found by max_length(). When Checked,
// bytes beyond the room are counted but not written.
template <bool Checked>
class FlatWriter {
 public:
  FlatWriter(unsigned char* buf, uint32_t room) : p_(buf), end_(buf + room) {}

  void u8(uint32_t v) {
    unsigned char b = static_cast<unsigned char>(v);
    bytes(&b, 1);
  }
  void u16(uint32_t v) {
    if (fits(2)) storeLE16(p_, v);
    advance(2);
  }
  void u32(uint32_t v) {
    if (fits(4)) storeLE32(p_, v);
    advance(4);
  }
  void u64(uint64_t v) {
    if (fits(8)) storeLE64(p_, v);
    advance(8);
  }
  void bytes(const void* src, size_t n) {
    if (fits(n)) {
      if (n) std::memcpy(p_, src, n);
    } else if (p_ < end_) {
      std::memcpy(p_, src, end_ - p_);
    }
    advance(n);
  }
  // Bytes the flat form takes, written or not.
  uint64_t total() const { return total_; }

 private:
  bool fits(size_t n) const { return !Checked || n <= size_t(end_ - p_); }
  void advance(size_t n) {
    total_ += n;
    if (!Checked) p_ += n;
    else p_ = n <= size_t(end_ - p_) ? p_ + n : end_;
  }

  unsigned char* p_;
  unsigned char* end_;
  uint64_t total_ = 0;
};

// A reader of untrusted bytes: every read is checked against the end first
// (by subtraction, so it cannot overflow), and after the first failure the
// reader stays failed and every read yields zero.
class FlatReader {
 public:
  FlatReader(const unsigned char* data, size_t len) : p_(data), end_(data + len) {}

  bool ok() const { return ok_; }
  size_t left() const { return end_ - p_; }
  const unsigned char* pos() const { return p_; }

  // The next n bytes, or null (and failed) when fewer are left.
  const unsigned char* take(size_t n) {
    if (!ok_ || n > size_t(end_ - p_)) {
      ok_ = false;
      return nullptr;
    }
    const unsigned char* at = p_;
    p_ += n;
    return at;
  }
  uint32_t u8() {
    const unsigned char* b = take(1);
    return b ? *b : 0;
  }
  uint32_t u16() {
    const unsigned char* b = take(2);
    return b ? loadLE16(b) : 0;
  }
  uint32_t u32() {
    const unsigned char* b = take(4);
    return b ? loadLE32(b) : 0;
  }
  uint64_t u64() {
    const unsigned char* b = take(8);
    return b ? loadLE64(b) : 0;
  }
  void fail() { ok_ = false; }

 private:
  const unsigned char* p_;
  const unsigned char* end_;
  bool ok_ = true;
};

}  // namespace kr::internal
