// htable: the open-addressing table that holds a message's bool and u32
// fields without a per-field allocation.
//
// The probing rules are part of the message's observable behaviour: flatten,
// ids() and the dumps walk the slots in index order, so the order of fields on
// the wire depends on capacity and history. Keep them exactly as they are:
//   - the hash of a key is the key itself, the start slot key % capacity;
//   - linear probing upward, wrapping to slot 0, for at most one full circle;
//   - insert-or-find tests for a rehash before anything else, on every call,
//     even when the key is already present;
//   - an erased slot becomes a tombstone that a later insert may reuse;
//   - capacity starts at 11 and doubles; tables never shrink.
// Keys 0xFFFFFFFF (empty) and 0xFFFFFFFE (tombstone) cannot be stored; every
// field id of the bool and u32 kinds is far below them.
//
// The first 11 slots live inside the table object, so a fresh message costs
// one allocation however many small fields it gets before its first rehash.
#pragma once

#include <cstdint>
#include <vector>

namespace kr::internal {

inline constexpr uint32_t kEmptyKey = 0xFFFFFFFF;
inline constexpr uint32_t kErasedKey = 0xFFFFFFFE;

template <class V>
class htable {
 public:
  struct slot {
    uint32_t key;
    V value;
  };
  static_assert(sizeof(slot) == 8);
  static constexpr uint32_t kInitialCapacity = 11;

  constexpr htable() noexcept : slots_(inline_), capacity_(kInitialCapacity), count_(0) {
    for (slot& s : inline_) s = slot{kEmptyKey, V()};
  }
  // Copies slot for slot: capacity, count and tombstones included.
  htable(const htable& o) : capacity_(o.capacity_), count_(o.count_) {
    slots_ = capacity_ == kInitialCapacity ? inline_ : new slot[capacity_];
    for (uint32_t i = 0; i < capacity_; ++i) slots_[i] = o.slots_[i];
  }
  htable& operator=(const htable&) = delete;
  // Becomes a slot-for-slot copy of `o`.
  void assign(const htable& o) {
    if (slots_ != inline_) delete[] slots_;
    capacity_ = o.capacity_;
    count_ = o.count_;
    slots_ = capacity_ == kInitialCapacity ? inline_ : new slot[capacity_];
    for (uint32_t i = 0; i < capacity_; ++i) slots_[i] = o.slots_[i];
  }
  ~htable() {
    if (slots_ != inline_) delete[] slots_;
  }

  uint32_t capacity() const { return capacity_; }
  uint32_t count() const { return count_; }
  const slot& at(uint32_t i) const { return slots_[i]; }

  // The value stored under `key`, or null.
  const V* find(uint32_t key) const {
    if (key >= kErasedKey) return nullptr;
    uint32_t i = key % capacity_;
    for (uint32_t n = 0; n < capacity_; ++n) {
      const slot& s = slots_[i];
      if (s.key == key) return &s.value;
      if (s.key == kEmptyKey) return nullptr;
      if (++i == capacity_) i = 0;
    }
    return nullptr;
  }

  // Insert-or-find: the value under `key`, created as V() when absent.
  V& get_ref(uint32_t key) {
    if (count_ + 1 > capacity_ / 2 + capacity_ / 16) rehash();
    uint32_t i = key % capacity_;
    slot* tombstone = nullptr;
    slot* free_slot = nullptr;
    for (uint32_t n = 0; n < capacity_; ++n) {
      slot& s = slots_[i];
      if (s.key == key) return s.value;
      if (s.key == kEmptyKey) {
        free_slot = &s;
        break;
      }
      if (s.key == kErasedKey && !tombstone) tombstone = &s;
      if (++i == capacity_) i = 0;
    }
    // The load limit keeps live keys under two thirds of the slots, so a
    // circle without an empty slot has met at least one tombstone.
    slot* dst = tombstone ? tombstone : free_slot;
    dst->key = key;
    dst->value = V();
    ++count_;
    return dst->value;
  }

  bool erase(uint32_t key) {
    if (key >= kErasedKey) return false;
    uint32_t i = key % capacity_;
    for (uint32_t n = 0; n < capacity_; ++n) {
      slot& s = slots_[i];
      if (s.key == key) {
        s.key = kErasedKey;
        --count_;
        return true;
      }
      if (s.key == kEmptyKey) return false;
      if (++i == capacity_) i = 0;
    }
    return false;
  }

  // Erases every live key with (key & mask) == value, in slot order.
  void erase_matching(uint32_t value, uint32_t mask) {
    for (uint32_t i = 0; i < capacity_; ++i) {
      slot& s = slots_[i];
      if (live(s.key) && (s.key & mask) == value) {
        s.key = kErasedKey;
        --count_;
      }
    }
  }

  // Iteration in slot order over live keys; next() returns capacity() at
  // the end.
  uint32_t first() const { return next_from(0); }
  uint32_t next(uint32_t i) const { return next_from(i + 1); }

  template <class F>
  void for_each(F&& f) const {
    for (uint32_t i = 0; i < capacity_; ++i)
      if (live(slots_[i].key)) f(slots_[i].key, slots_[i].value);
  }

  static bool live(uint32_t key) { return key < kErasedKey; }

 private:
  uint32_t next_from(uint32_t i) const {
    while (i < capacity_ && !live(slots_[i].key)) ++i;
    return i;
  }

  void rehash() {
    slot* old = slots_;
    uint32_t old_capacity = capacity_;
    capacity_ = old_capacity * 2;
    slots_ = new slot[capacity_];
    for (uint32_t i = 0; i < capacity_; ++i) slots_[i] = slot{kEmptyKey, V()};
    count_ = 0;
    for (uint32_t i = 0; i < old_capacity; ++i)
      if (live(old[i].key)) get_ref(old[i].key) = old[i].value;
    if (old != inline_) delete[] old;
  }

  slot* slots_;
  uint32_t capacity_;
  uint32_t count_;
  slot inline_[kInitialCapacity];
};

}  // namespace kr::internal
