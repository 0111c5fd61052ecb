// Little-endian writer and bounded reader for the flat form. Byte order is
// fixed by the format, never by the host.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "kr/message/message.h"

namespace kr::internal {

// On a little-endian host these are plain copies; elsewhere the bytes are
// placed one by one. Either way the wire is little-endian.
template <class T>
inline void storeLE(unsigned char* p, T v) {
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(p, &v, sizeof v);
  } else {
    for (size_t i = 0; i < sizeof v; ++i) p[i] = static_cast<unsigned char>(v >> (8 * i));
  }
}
template <class T>
inline T loadLE(const unsigned char* p) {
  T v;
  if constexpr (std::endian::native == std::endian::little) {
    std::memcpy(&v, p, sizeof v);
  } else {
    v = 0;
    for (size_t i = 0; i < sizeof v; ++i) v |= T(p[i]) << (8 * i);
  }
  return v;
}
inline void storeLE16(unsigned char* p, uint32_t v) { storeLE(p, static_cast<uint16_t>(v)); }
inline void storeLE32(unsigned char* p, uint32_t v) { storeLE(p, v); }
inline void storeLE64(unsigned char* p, uint64_t v) { storeLE(p, v); }
inline uint32_t loadLE16(const unsigned char* p) { return loadLE<uint16_t>(p); }
inline uint32_t loadLE32(const unsigned char* p) { return loadLE<uint32_t>(p); }
inline uint64_t loadLE64(const unsigned char* p) { return loadLE<uint64_t>(p); }

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

// One field of a flat form: its id, and its value or where the value lies.
struct FlatField {
  uint32_t id = 0;
  uint32_t kind = 0;
  uint64_t number = 0;                  // bool, u32, u64
  const unsigned char* data = nullptr;  // addr6, string, message, raw; array elements
  uint32_t size = 0;                    // byte length, or an array's element count
};

// Reads the next field; false at the end or at the first malformed field.
inline bool nextFlatField(FlatReader& r, FlatField& f) {
  if (r.left() < 4) return false;
  const uint32_t tag = r.u32();
  const bool shortForm = tag & kind::kFlatBit;
  f.id = tag & ~kind::kFlatBit;
  f.kind = tag & kind::kMask;
  switch (f.kind) {
    case kind::kBool: f.number = shortForm; return true;
    case kind::kU32: f.number = shortForm ? r.u8() : r.u32(); break;
    case kind::kU64: f.number = r.u64(); break;
    case kind::kAddr6: f.data = r.take(16); break;
    case kind::kString:
    case kind::kMessage:
    case kind::kRaw:
      f.size = shortForm ? r.u8() : r.u16();
      f.data = r.take(f.size);
      break;
    case kind::kArray | kind::kBool:
    case kind::kArray | kind::kU32:
    case kind::kArray | kind::kU64:
    case kind::kArray | kind::kAddr6: {
      static constexpr uint32_t kSizes[] = {1, 4, 8, 16};
      f.size = r.u16();
      f.data = r.take(size_t(f.size) * kSizes[(f.kind >> 27) & 3]);
      break;
    }
    case kind::kArray | kind::kString:
    case kind::kArray | kind::kMessage:
    case kind::kArray | kind::kRaw:
      f.size = r.u16();
      f.data = r.pos();
      for (uint32_t i = 0; i < f.size && r.ok(); ++i) r.take(r.u16());
      break;
    default: return false;
  }
  return r.ok();
}

}  // namespace kr::internal
