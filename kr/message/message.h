// kr::message: the typed key/value record that every part of the platform
// builds, sends, stores and compares, and the typed field ids that address it.
//
// A message holds at most one value per field id, and the id says which kind
// of value that is. A message is one pointer to a shared, reference-counted
// representation: copies are O(1) and the first write to a shared one copies
// it (copy on write). Single-threaded: a message and all handles sharing its
// representation belong to one thread.
//
//   constexpr kr::u32_id kPort(1);
//   kr::message m;
//   m.insert(kPort, 8080);
//   m.insert(kr::string_id(2), "eth0");
//   unsigned port = m.get(kPort, 80);        // 8080; 80 when absent
//   std::vector<unsigned char> wire;
//   m.flatten(wire);                          // the flat form, 0x4D 0x32 ...
//   kr::message back(wire);                   // parses it again
//
// Field ids: bits 31..27 give the kind (bit 31 marks an array), bits 26..24
// are flags and bits 23..0 the field number. The typed wrappers below stamp
// the kind into the id, so u32_id(5) and u64_id(5) name two distinct fields.
//
// Accessors never fail: an absent field reads as the caller's default or a
// zero/empty value. Nothing here throws.
#pragma once

#include <bit>
#include <iosfwd>
#include <new>
#include <concepts>
#include <cstdint>
#include <string>
#include <type_traits>
#include <vector>

#include "kr/base/ipaddr.h"
#include "kr/message/internal/htable.h"

namespace kr {

class message;
class Dumper;

// A message in its flat byte form; this is how a nested message is stored.
// A distinct type (not a plain byte vector) so that it cannot be mistaken for
// a raw field.
struct flat_message : std::vector<unsigned char> {
  using std::vector<unsigned char>::vector;
  flat_message() = default;
  explicit flat_message(std::vector<unsigned char> v) : std::vector<unsigned char>(std::move(v)) {}
};

// Kind bits of a field id.
namespace kind {
inline constexpr uint32_t kMask = 0xF8000000;
inline constexpr uint32_t kArray = 0x80000000;
inline constexpr uint32_t kBool = 0x00000000;
inline constexpr uint32_t kU32 = 0x08000000;
inline constexpr uint32_t kU64 = 0x10000000;
inline constexpr uint32_t kAddr6 = 0x18000000;
inline constexpr uint32_t kString = 0x20000000;
inline constexpr uint32_t kMessage = 0x28000000;
inline constexpr uint32_t kRaw = 0x30000000;
// Bit 24 carries a bool's value or selects a short form inside the flat form
// and is never part of a stored id; bit 25 marks a field that the
// pass-through parse keeps as flat bytes.
inline constexpr uint32_t kFlatBit = 0x01000000;
inline constexpr uint32_t kPassBit = 0x02000000;

constexpr uint32_t of(uint32_t id) { return id & kMask; }
constexpr bool isArray(uint32_t id) { return (id & kArray) != 0; }
}  // namespace kind

// The stored id for field number (or id) `n` under `kind_bits`: the kind bits
// of `n` are never trusted, and bit 24 is cleared as the flat form requires.
constexpr uint32_t stampId(uint32_t n, uint32_t kind_bits) {
  return (n & 0x07FFFFFF & ~kind::kFlatBit) | kind_bits;
}

// A typed field id. `id` is the complete stored id with its kind bits;
// number() is the field number. be32 ids share the u32 kind and differ only
// in the byte order the caller holds the value in.
template <uint32_t Kind, bool NetworkOrder = false>
struct basic_id {
  uint32_t id;
  constexpr explicit basic_id(uint32_t n) noexcept : id(stampId(n, Kind)) {}
  constexpr uint32_t number() const { return id & 0x00FFFFFF; }
  friend constexpr bool operator==(basic_id, basic_id) = default;
};

using bool_id = basic_id<kind::kBool>;
using u32_id = basic_id<kind::kU32>;
// A u32 field whose value the caller holds in network byte order (an IPv4
// address as inet_pton writes it). It is the same field as the u32_id of the
// same number; on the wire its four bytes appear in network order.
using be32_id = basic_id<kind::kU32, true>;
using u64_id = basic_id<kind::kU64>;
using addr6_id = basic_id<kind::kAddr6>;
using string_id = basic_id<kind::kString>;
using message_id = basic_id<kind::kMessage>;
using raw_id = basic_id<kind::kRaw>;
using bool_array_id = basic_id<kind::kArray | kind::kBool>;
using u32_array_id = basic_id<kind::kArray | kind::kU32>;
using be32_array_id = basic_id<kind::kArray | kind::kU32, true>;
using u64_array_id = basic_id<kind::kArray | kind::kU64>;
using addr6_array_id = basic_id<kind::kArray | kind::kAddr6>;
using string_array_id = basic_id<kind::kArray | kind::kString>;
using message_array_id = basic_id<kind::kArray | kind::kMessage>;
using raw_array_id = basic_id<kind::kArray | kind::kRaw>;

// IdTraits<W>: `type` is what the message stores for W, `set_type` what
// insert() takes and get() returns. They differ for nested messages (stored
// flat, handed out parsed).
template <class W>
struct IdTraits;

namespace internal {
template <bool Checked>
class FlatWriter;
class FlatReader;
enum class Store { Bool, U32, Scalar, Array };
template <class T, class S, Store Where>
struct TraitsBase {
  using type = T;
  using set_type = S;
  static constexpr Store store = Where;
};
}  // namespace internal

// clang-format off
template <> struct IdTraits<bool_id> : internal::TraitsBase<bool, bool, internal::Store::Bool> {};
template <> struct IdTraits<u32_id> : internal::TraitsBase<unsigned int, unsigned int, internal::Store::U32> {};
template <> struct IdTraits<be32_id> : internal::TraitsBase<unsigned int, unsigned int, internal::Store::U32> {};
template <> struct IdTraits<u64_id> : internal::TraitsBase<unsigned long long, unsigned long long, internal::Store::Scalar> {};
template <> struct IdTraits<addr6_id> : internal::TraitsBase<IPAddr6, IPAddr6, internal::Store::Scalar> {};
template <> struct IdTraits<string_id> : internal::TraitsBase<std::string, std::string, internal::Store::Scalar> {};
template <> struct IdTraits<message_id> : internal::TraitsBase<flat_message, message, internal::Store::Scalar> {};
template <> struct IdTraits<raw_id> : internal::TraitsBase<std::vector<unsigned char>, std::vector<unsigned char>, internal::Store::Scalar> {};
template <> struct IdTraits<bool_array_id> : internal::TraitsBase<std::vector<bool>, std::vector<bool>, internal::Store::Array> {};
template <> struct IdTraits<u32_array_id> : internal::TraitsBase<std::vector<unsigned int>, std::vector<unsigned int>, internal::Store::Array> {};
template <> struct IdTraits<be32_array_id> : internal::TraitsBase<std::vector<unsigned int>, std::vector<unsigned int>, internal::Store::Array> {};
template <> struct IdTraits<u64_array_id> : internal::TraitsBase<std::vector<unsigned long long>, std::vector<unsigned long long>, internal::Store::Array> {};
template <> struct IdTraits<addr6_array_id> : internal::TraitsBase<std::vector<IPAddr6>, std::vector<IPAddr6>, internal::Store::Array> {};
template <> struct IdTraits<string_array_id> : internal::TraitsBase<std::vector<std::string>, std::vector<std::string>, internal::Store::Array> {};
template <> struct IdTraits<message_array_id> : internal::TraitsBase<std::vector<flat_message>, std::vector<message>, internal::Store::Array> {};
template <> struct IdTraits<raw_array_id> : internal::TraitsBase<std::vector<std::vector<unsigned char>>, std::vector<std::vector<unsigned char>>, internal::Store::Array> {};
// clang-format on

template <class W>
concept field_id = requires { typename IdTraits<W>::type; };

namespace internal {

// The kind bits under which a stored type lives; ref<T> and get_const<T>
// stamp raw ids with it, so a wrong kind can never alias another type.
template <class T> inline constexpr uint32_t kKindOf = ~0u;
template <> inline constexpr uint32_t kKindOf<bool> = kind::kBool;
template <> inline constexpr uint32_t kKindOf<unsigned int> = kind::kU32;
template <> inline constexpr uint32_t kKindOf<unsigned long long> = kind::kU64;
template <> inline constexpr uint32_t kKindOf<IPAddr6> = kind::kAddr6;
template <> inline constexpr uint32_t kKindOf<std::string> = kind::kString;
template <> inline constexpr uint32_t kKindOf<flat_message> = kind::kMessage;
template <> inline constexpr uint32_t kKindOf<std::vector<unsigned char>> = kind::kRaw;
template <class T> inline constexpr uint32_t kKindOf<std::vector<T>> = kind::kArray | kKindOf<T>;
template <> inline constexpr uint32_t kKindOf<std::vector<bool>> = kind::kArray | kind::kBool;

// A node of the scalar or the array list. The value type follows from the
// kind bits of `id`.
struct Node {
  uint32_t id;
  Node* next;
};
template <class T>
struct ValueNode final : Node {
  T value;
};

// The shared representation behind a message handle.
struct Rep {
  static constexpr uint32_t kNoBool = 0xFFFFFFFF;

  htable<bool>* bools = nullptr;  // only while single_bool_id == kNoBool
  htable<unsigned int> u32s;      // u32 and be32 fields
  Node* fields = nullptr;         // u64, addr6, string, message, raw
  Node* arrays = nullptr;
  uint32_t single_bool_id = kNoBool;
  bool single_bool = false;
  std::vector<unsigned char>* passthrough = nullptr;
  uint32_t refs = 1;
  unsigned char unshareable = 0;
  // Room behind the Rep in its own allocation, made when the fields are
  // known in advance (a parse or a clone): their nodes and bool table are
  // carved from it, so such a message costs one allocation, not one per
  // field. Carved memory is given back only with the Rep.
  unsigned char* arena_pos = nullptr;
  unsigned char* arena_end = nullptr;

  constexpr Rep() = default;
  Rep(const Rep&) = delete;
  Rep& operator=(const Rep&) = delete;

  // A new Rep with `arena` bytes of room behind it; freed by destroy().
  static Rep* create(size_t arena);
  static void destroy(Rep* r);

  void* carve(size_t n) {
    n = (n + 7) & ~size_t(7);
    if (n > size_t(arena_end - arena_pos)) return nullptr;
    void* p = arena_pos;
    arena_pos += n;
    return p;
  }
  bool owns(const void* p) const { return p >= static_cast<const void*>(this + 1) && p < arena_end; }

  template <class T>
  ValueNode<T>* newNode(uint32_t id) {
    void* mem = carve(sizeof(ValueNode<T>));
    ValueNode<T>* n = mem ? new (mem) ValueNode<T>() : new ValueNode<T>();
    n->id = id;
    return n;
  }
};
static_assert(sizeof(Rep) % 8 == 0, "the arena behind a Rep must stay 8-byte aligned");

// The empty representation shared by every empty message; never counted,
// freed or written.
extern constinit Rep nilRep;

// be32 values: the stored u32 is the number that the network-order bytes
// make when read little-endian, so the wire (little-endian) shows them in
// network order on any host.
constexpr unsigned int be32ToStored(unsigned int v) {
  if constexpr (std::endian::native == std::endian::little) return v;
  else return __builtin_bswap32(v);
}
constexpr unsigned int storedToBe32(unsigned int v) { return be32ToStored(v); }

}  // namespace internal

// How unflatten treats its input.
enum flatten_type : unsigned {
  kFlatNormal = 0,       // the magic is required
  kFlatPassThrough = 1,  // as normal; fields marked with bit 25 stay flat bytes
  kFlatHeaderless = 2,   // no magic: fields start at offset 0
};

class message {
 public:
  template <class W>
  using set_t = typename IdTraits<W>::set_type;
  template <class W>
  using type_t = typename IdTraits<W>::type;

  message() noexcept : rep_(&internal::nilRep) {}
  message(const message& o);
  message(message&& o) noexcept : rep_(o.rep_) { o.rep_ = &internal::nilRep; }
  message& operator=(const message& o);
  message& operator=(message&& o) noexcept;
  ~message() { release(rep_); }

  // Parse flat bytes (normal mode) into a fresh message. Whether the parse
  // succeeded is not reported: malformed bytes leave the fields parsed
  // before the error. Use unflatten() to learn the outcome.
  message(const unsigned char* data, unsigned int len);
  explicit message(const std::vector<unsigned char>& data);
  message(const flat_message& data);  // NOLINT: a flat message is a message
  message& operator=(const flat_message& data);

  // ---- Typed access --------------------------------------------------------

  // The value, or `dflt` when the field is absent.
  template <field_id W>
  set_t<W> get(W id, const set_t<W>& dflt) const {
    if constexpr (IdTraits<W>::store == internal::Store::Bool) {
      const bool* p = findBool(id.id);
      return p ? *p : dflt;
    } else {
      const type_t<W>* p = findStored<type_t<W>>(id.id);
      return p ? load<W>(*p) : dflt;
    }
  }
  // The value, or a zero/empty value.
  template <field_id W>
  set_t<W> get(W id) const {
    return get(id, set_t<W>());
  }
  // The stored value without a copy, or `dflt` itself (so a temporary
  // default must not be kept past the full expression). Valid until the
  // next write to this message. `id` is stamped with T's kind.
  template <class T>
  const T& get_const(unsigned int id, const T& dflt) const {
    const T* p = findStored<T>(stampId(id, internal::kKindOf<T>));
    return p ? *p : dflt;
  }

  template <field_id W>
  bool has(W id) const {
    if constexpr (IdTraits<W>::store == internal::Store::Bool) return findBool(id.id) != nullptr;
    else return findStored<type_t<W>>(id.id) != nullptr;
  }
  // For a scalar kind 1 or 0; for an array the number of elements.
  template <field_id W>
  unsigned int size(W id) const {
    if constexpr (IdTraits<W>::store == internal::Store::Array) {
      const type_t<W>* p = findStored<type_t<W>>(id.id);
      return p ? static_cast<unsigned int>(p->size()) : 0;
    } else {
      return has(id) ? 1 : 0;
    }
  }
  // Writes `out` only when the field is present.
  template <field_id W>
  bool extract(W id, type_t<W>& out) const {
    if constexpr (IdTraits<W>::store == internal::Store::Bool) {
      const bool* p = findBool(id.id);
      if (p) out = *p;
      return p != nullptr;
    } else {
      const type_t<W>* p = findStored<type_t<W>>(id.id);
      if (!p) return false;
      if constexpr (std::is_same_v<W, be32_id> || std::is_same_v<W, be32_array_id>) out = load<W>(*p);
      else out = *p;
      return true;
    }
  }

  // A mutable reference to the stored value, creating the field with a
  // zero/empty value when absent. Detaches first and marks the
  // representation unshareable, so the reference can never write into a
  // representation that another handle sees: a later copy of this message
  // takes a private copy at once. Valid until the next structural change.
  template <class T>
  T& ref(unsigned int id) {
    detach();
    rep_->unshareable = 1;
    return refStored<T>(stampId(id, internal::kKindOf<T>));
  }
  template <field_id W>
  type_t<W>& operator[](W id) {
    return ref<type_t<W>>(id.id);
  }
  // A be32 value is stored byte-reversed from what the caller holds; a plain
  // reference cannot translate, so there is no operator[] for it.
  unsigned int& operator[](be32_id) = delete;
  std::vector<unsigned int>& operator[](be32_array_id) = delete;

  // Stores the value, replacing any old one (for an array the whole vector).
  template <field_id W>
  void insert(W id, set_t<W> value) {
    detach();
    if constexpr (IdTraits<W>::store == internal::Store::Bool) refBool(id.id) = value;
    else if constexpr (std::is_same_v<W, be32_id>) rep_->u32s.get_ref(id.id) = internal::be32ToStored(value);
    else if constexpr (std::is_same_v<W, be32_array_id>) {
      for (unsigned int& v : value) v = internal::be32ToStored(v);
      refStored<type_t<W>>(id.id) = std::move(value);
    } else if constexpr (std::is_same_v<W, message_id>) refStored<flat_message>(id.id) = toFlat(value);
    else if constexpr (std::is_same_v<W, message_array_id>) refStored<type_t<W>>(id.id) = toFlat(value);
    else refStored<type_t<W>>(id.id) = std::move(value);
  }
  // Stores a nested message that is already flat, without re-encoding it.
  void insert(message_id id, flat_message value) {
    detach();
    refStored<flat_message>(id.id) = std::move(value);
  }
  void insert(message_array_id id, std::vector<flat_message> value) {
    detach();
    refStored<std::vector<flat_message>>(id.id) = std::move(value);
  }
  // A u32 array of one, two or three elements.
  void insert_vector(u32_array_id id, unsigned int a) { insert(id, {a}); }
  void insert_vector(u32_array_id id, unsigned int a, unsigned int b) { insert(id, {a, b}); }
  void insert_vector(u32_array_id id, unsigned int a, unsigned int b, unsigned int c) {
    insert(id, {a, b, c});
  }

  // Deletes the field if present (a shared representation is detached even
  // when there is nothing to delete).
  template <field_id W>
  void remove(W id) {
    remove(id.id);
  }
  // Deletes by complete id: the array list when bit 31 is set, the bool
  // store for kind 0, the u32 table for the u32 kind, else the scalar list.
  void remove(unsigned int id);
  void remove_array(unsigned int id);
  void remove_field(unsigned int id);
  void remove_u32(unsigned int id);
  void remove_bool(unsigned int id);

  // Presence and size by complete id, one per store.
  bool has_array(unsigned int id) const { return findNode(rep_->arrays, id) != nullptr; }
  unsigned int size_field(unsigned int id) const { return findNode(rep_->fields, id) ? 1 : 0; }
  unsigned int size_u32(unsigned int id) const { return rep_->u32s.find(id) ? 1 : 0; }
  unsigned int size_bool(unsigned int id) const { return findBool(id) ? 1 : 0; }

  // ---- Whole message ---------------------------------------------------------

  // The number of fields.
  unsigned int count() const;
  bool empty() const { return count() == 0; }
  // Every stored id: the bools (inline one, or the table in slot order), the
  // u32 table in slot order, the scalar list, then the array list.
  std::vector<unsigned int> ids() const;
  // Makes this handle own a private copy. The copy lists its scalar and
  // array fields in the reverse order of the source, which changes the
  // field order of the next flatten.
  void clone();
  // Deletes every field whose id satisfies (id & mask) == (value & mask).
  // The bool and u32 stores are only searched when the masked value can
  // name their kind: bools when it is below the u32 kind, u32s when its kind
  // bits equal mask & 0x08000000. A mask without kind bits therefore matches
  // across kinds in the lists but not always in the tables.
  void removeIdMask(unsigned int value, unsigned int mask);

  // ---- Algebra ------------------------------------------------------------------
  // Fields match when their complete ids (kind included) are identical and
  // their values are equal; nested messages compare parsed, so their field
  // order does not matter.

  // Overlays `other`: its fields replace or join ours; fields only we have
  // stay. Arrays and nested messages are replaced whole, never combined. On
  // an empty message this shares other's representation.
  void merge(const message& other);
  // The ids present in both messages with equal values, in the order of
  // `other`'s fields (bools, u32s, then its two lists); unsorted.
  std::vector<unsigned int> common_ids(const message& other) const;
  // Whether every field of `other` is here with an equal value.
  bool includes(const message& other) const;
  // Deletes every field that `other` holds with an equal value; a field with
  // the same id but another value stays.
  void exclude(const message& other);
  // Same fields with equal values, in any order.
  bool operator==(const message& other) const;

 private:
  // Calls f(id) for each field of `other` that this message holds with an
  // equal value, in the order of other's fields.
  template <class F>
  void forEachCommon(const message& other, F&& f) const;

 public:

  // ---- Flat form -------------------------------------------------------------

  // Writes the flat form into `buf`: *len is the room on entry and the
  // length of the flat form on return. SYS_TO and SYS_FROM, when present,
  // come first (a router reads them without parsing the rest) and stay
  // first in this message's array list. A room below the flat length prints
  // "WARNING: too small buffer for flatten"; only what fits is written.
  void flatten(unsigned char* buf, unsigned int* len) const;
  // Sizes `out` to the flat form and fills it.
  void flatten(std::vector<unsigned char>& out) const;
  // An upper bound of the flat length, computed without writing.
  unsigned int max_length() const;
  // Parses flat bytes into this message, adding to (and replacing) its
  // fields. False on malformed input; the fields parsed before the error
  // stay. Zero bytes succeed in every mode and change nothing.
  bool unflatten(const unsigned char* data, unsigned int len, flatten_type mode = kFlatNormal);

  // ---- Dumps (see kr/message/dump.h) ------------------------------------------
  // One line per field, each starting with `prefix` and four blanks per
  // `level`; nested messages one level deeper. The Dumper form allocates
  // nothing: it prints nested messages straight from their flat bytes, in
  // wire order for their bool and u32 fields.
  void dump2(std::ostream& os, const char* prefix = "", unsigned int level = 0) const;
  void dump2(Dumper& d, const char* prefix = "", unsigned int level = 0) const;
  // Wraps an id for printing by name.
  struct idstr {
    unsigned int id;
    explicit idstr(unsigned int i) : id(i) {}
  };

  // Fields that the last pass-through parse kept as flat bytes, or null.
  const std::vector<unsigned char>* passthrough() const { return rep_->passthrough; }

  // For tests and the benchmarks: whether two handles share one
  // representation.
  bool sharesWith(const message& o) const { return rep_ == o.rep_; }

 private:
  using Rep = internal::Rep;
  using Node = internal::Node;

  static void release(Rep* r);
  void detach() {
    if (rep_ == &internal::nilRep || rep_->refs >= 2) clone();
  }

  static const Node* findNode(const Node* head, uint32_t id) {
    for (; head; head = head->next)
      if (head->id == id) return head;
    return nullptr;
  }
  const bool* findBool(uint32_t id) const {
    if (rep_->single_bool_id != Rep::kNoBool)
      return rep_->single_bool_id == id ? &rep_->single_bool : nullptr;
    return rep_->bools ? rep_->bools->find(id) : nullptr;
  }
  template <class T>
  const T* findStored(uint32_t id) const {
    if constexpr (std::is_same_v<T, bool>) {
      return findBool(id);
    } else if constexpr (std::is_same_v<T, unsigned int>) {
      return rep_->u32s.find(id);
    } else {
      const Node* n = findNode(kind::isArray(id) ? rep_->arrays : rep_->fields, id);
      return n ? &static_cast<const internal::ValueNode<T>*>(n)->value : nullptr;
    }
  }

  bool& refBool(uint32_t id);
  void makeBoolTable();
  template <class T>
  T& refStored(uint32_t id) {
    if constexpr (std::is_same_v<T, bool>) {
      return refBool(id);
    } else if constexpr (std::is_same_v<T, unsigned int>) {
      return rep_->u32s.get_ref(id);
    } else {
      Node*& head = kind::isArray(id) ? rep_->arrays : rep_->fields;
      if (Node* n = const_cast<Node*>(findNode(head, id))) return static_cast<internal::ValueNode<T>*>(n)->value;
      auto* n = rep_->newNode<T>(id);
      n->next = head;
      head = n;
      return n->value;
    }
  }

  template <class W, class Stored>
  static set_t<W> load(const Stored& v) {
    if constexpr (std::is_same_v<W, be32_id>) return internal::storedToBe32(v);
    else if constexpr (std::is_same_v<W, be32_array_id>) {
      std::vector<unsigned int> out(v);
      for (unsigned int& x : out) x = internal::storedToBe32(x);
      return out;
    } else if constexpr (std::is_same_v<W, message_id>) return message(v);
    else if constexpr (std::is_same_v<W, message_array_id>) return std::vector<message>(v.begin(), v.end());
    else return v;
  }
  template <class Printer>
  void dumpTo(Printer& out) const;
  template <bool Checked>
  void writeFlat(internal::FlatWriter<Checked>& w) const;
  void moveRoutingFirst() const;
  bool parseField(internal::FlatReader& r, uint32_t tag);
  bool parseFields(const unsigned char* data, unsigned int len, flatten_type mode, unsigned char* pass,
                   size_t* passed);
  template <class E>
  bool storeArray(internal::FlatReader& r, uint32_t id);
  static flat_message toFlat(const message& m);
  static std::vector<flat_message> toFlat(const std::vector<message>& ms);

  Rep* rep_;
};

// Applies `change` to the configuration object `obj` and makes `undo`, the
// change that takes it back: kr::merge(obj, undo, ...) restores the old
// fields and deletes the added ones.
//  - System fields and standard fields other than STD_DESCR, STD_DISABLED
//    and STD_NAME that `change` carries are deleted from `obj`, even where
//    `obj` had them before: a change never leaves them in an object.
//  - The ids in change's removal list (REMOVED_IDS, 0x88FF0014) are deleted
//    from `obj`.
//  - `undo` holds the old values of the fields the change replaced or
//    removed, and lists the fields it added in its own removal list.
void merge(message& obj, const message& change, message& undo);

}  // namespace kr
