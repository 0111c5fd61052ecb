// The flat form: magic 0x4D 0x32, then little-endian tagged fields.
#include <iostream>

#include "kr/message/internal/flat_io.h"
#include "kr/message/internal/node_visit.h"
#include "kr/message/message.h"

namespace kr {
namespace {

using internal::FlatReader;
using internal::FlatWriter;
using internal::Node;

constexpr unsigned char kMagic0 = 0x4D;
constexpr unsigned char kMagic1 = 0x32;
constexpr uint32_t kSysTo = 0x88FF0001;
constexpr uint32_t kSysFrom = 0x88FF0002;

template <class T>
constexpr bool kIsBytes = std::is_same_v<T, std::string> || std::is_same_v<T, flat_message> ||
                          std::is_same_v<T, std::vector<unsigned char>>;

template <class T>
constexpr bool kIsArray = false;
template <class E>
constexpr bool kIsArray<std::vector<E>> = !std::is_same_v<E, unsigned char>;

// Flat size of one list value, tag included, as max_length() counts it.
template <class T>
uint64_t maxSize(const T& v) {
  if constexpr (std::is_same_v<T, unsigned long long>) return 12;
  else if constexpr (std::is_same_v<T, IPAddr6>) return 20;
  else if constexpr (kIsBytes<T>) return 6 + v.size();
  else {
    using E = typename T::value_type;
    if constexpr (kIsBytes<E>) {
      uint64_t n = 6;
      for (const E& e : v) n += 2 + e.size();
      return n;
    } else if constexpr (std::is_same_v<E, bool>) return 6 + v.size();
    else return 6 + v.size() * sizeof(E);
  }
}

// A string, message or raw value: short form when it fits one byte. Lengths
// are written as their low 16 bits without a check; longer values do not
// survive a round trip, and callers must not make them.
template <bool C>
void writeBytesField(FlatWriter<C>& w, uint32_t id, const unsigned char* data, size_t n) {
  if (n > 255) {
    w.u32(id);
    w.u16(static_cast<uint32_t>(n));
  } else {
    w.u32(id | kind::kFlatBit);
    w.u8(static_cast<uint32_t>(n));
  }
  w.bytes(data, n);
}

template <bool C, class T>
void writeScalar(FlatWriter<C>& w, uint32_t id, const T& v) {
  if constexpr (std::is_same_v<T, unsigned long long>) {
    w.u32(id);
    w.u64(v);
  } else if constexpr (std::is_same_v<T, IPAddr6>) {
    w.u32(id);
    w.bytes(v.bytes, 16);
  } else if constexpr (kIsBytes<T>) {
    writeBytesField(w, id, reinterpret_cast<const unsigned char*>(v.data()), v.size());
  }
}

template <bool C, class T>
void writeArray(FlatWriter<C>& w, uint32_t id, const T& v) {
  using E = typename T::value_type;
  w.u32(id);
  w.u16(static_cast<uint32_t>(v.size()));
  for (const auto& e : v) {
    if constexpr (std::is_same_v<E, bool>) w.u8(e ? 1 : 0);
    else if constexpr (std::is_same_v<E, unsigned int>) w.u32(e);
    else if constexpr (std::is_same_v<E, unsigned long long>) w.u64(e);
    else if constexpr (std::is_same_v<E, IPAddr6>) w.bytes(e.bytes, 16);
    else if constexpr (kIsBytes<E>) {
      w.u16(static_cast<uint32_t>(e.size()));
      w.bytes(e.data(), e.size());
    }
  }
}

// Unlinks the node with `id` and pushes it at the head of the list.
void moveToHead(Node*& head, uint32_t id) {
  for (Node** link = &head; *link; link = &(*link)->next) {
    Node* n = *link;
    if (n->id != id) continue;
    *link = n->next;
    n->next = head;
    head = n;
    return;
  }
}

}  // namespace

void message::moveRoutingFirst() const {
  moveToHead(rep_->arrays, kSysFrom);
  moveToHead(rep_->arrays, kSysTo);
}

template <bool C>
void message::writeFlat(FlatWriter<C>& w) const {
  const Rep* r = rep_;
  w.u8(kMagic0);
  w.u8(kMagic1);
  for (const Node* n = r->arrays; n; n = n->next)
    internal::visitNode(n, [&](const auto& v) {
      if constexpr (kIsArray<std::remove_cvref_t<decltype(v)>>) writeArray(w, n->id, v);
    });
  auto writeBool = [&](uint32_t id, bool v) { w.u32(v ? id | kind::kFlatBit : id & ~kind::kFlatBit); };
  if (r->single_bool_id != Rep::kNoBool) writeBool(r->single_bool_id, r->single_bool);
  else if (r->bools) r->bools->for_each(writeBool);
  r->u32s.for_each([&](uint32_t id, unsigned int v) {
    if (v > 255) {
      w.u32(id);
      w.u32(v);
    } else {
      w.u32(id | kind::kFlatBit);
      w.u8(v);
    }
  });
  for (const Node* n = r->fields; n; n = n->next)
    internal::visitNode(n, [&](const auto& v) { writeScalar(w, n->id, v); });
}

void message::flatten(unsigned char* buf, unsigned int* len) const {
  moveRoutingFirst();
  const unsigned int room = *len;
  uint64_t total;
  if (room >= max_length()) {
    FlatWriter<false> w(buf, room);
    writeFlat(w);
    total = w.total();
  } else {
    FlatWriter<true> w(buf, room);
    writeFlat(w);
    total = w.total();
  }
  *len = static_cast<unsigned int>(total);
  if (total > room) std::cerr << "WARNING: too small buffer for flatten" << std::endl;
}

void message::flatten(std::vector<unsigned char>& out) const {
  moveRoutingFirst();
  out.resize(max_length());
  FlatWriter<false> w(out.data(), static_cast<unsigned int>(out.size()));
  writeFlat(w);
  out.resize(w.total());
}

unsigned int message::max_length() const {
  const Rep* r = rep_;
  uint64_t n = 2 + 8ull * r->u32s.count();
  n += 4ull * (r->single_bool_id != Rep::kNoBool ? 1 : (r->bools ? r->bools->count() : 0));
  for (const Node* p = r->fields; p; p = p->next) internal::visitNode(p, [&](const auto& v) { n += maxSize(v); });
  for (const Node* p = r->arrays; p; p = p->next) internal::visitNode(p, [&](const auto& v) { n += maxSize(v); });
  return static_cast<unsigned int>(n);
}

namespace {

// A value of a string, message or raw field: a 1-byte length when the tag
// has bit 24, else a 2-byte one.
const unsigned char* readBytes(FlatReader& r, uint32_t tag, uint32_t* n) {
  *n = (tag & kind::kFlatBit) ? r.u8() : r.u16();
  return r.take(*n);
}

template <class E>
bool readArray(FlatReader& r, std::vector<E>& out) {
  uint32_t count = r.u16();
  if (!r.ok()) return false;
  if constexpr (kIsBytes<E>) {
    for (uint32_t i = 0; i < count; ++i) {
      uint32_t n = r.u16();
      const unsigned char* b = r.take(n);
      if (!b) return false;
      out.emplace_back(b, b + n);
    }
  } else {
    constexpr size_t kSize = std::is_same_v<E, bool> ? 1 : sizeof(E);
    const unsigned char* b = r.take(size_t(count) * kSize);
    if (!b) return false;
    out.resize(count);
    for (uint32_t i = 0; i < count; ++i, b += kSize) {
      if constexpr (std::is_same_v<E, bool>) out[i] = *b != 0;
      else if constexpr (std::is_same_v<E, unsigned int>) out[i] = internal::loadLE32(b);
      else if constexpr (std::is_same_v<E, unsigned long long>) out[i] = internal::loadLE64(b);
      else std::memcpy(out[i].bytes, b, 16);
    }
  }
  return true;
}

// Skips over one field's payload in pass-through mode and says how many
// bytes it took. u64, addr6 and addr6 arrays take nothing here: their
// payload is not skipped and is read as the next tag, so senders must not
// mark those kinds for pass-through.
bool skipPassthrough(FlatReader& r, uint32_t tag) {
  const bool shortForm = tag & kind::kFlatBit;
  auto elements = [&](size_t size) { r.take(size_t(r.u16()) * size); };
  switch (tag & kind::kMask) {
    case kind::kBool:
    case kind::kU64:
    case kind::kAddr6:
    case kind::kArray | kind::kAddr6:
      break;
    case kind::kU32: r.take(shortForm ? 1 : 4); break;
    case kind::kString:
    case kind::kMessage:
    case kind::kRaw: r.take(shortForm ? r.u8() : r.u16()); break;
    case kind::kArray | kind::kBool: elements(1); break;
    case kind::kArray | kind::kU32: elements(4); break;
    case kind::kArray | kind::kU64: elements(8); break;
    case kind::kArray | kind::kString:
    case kind::kArray | kind::kMessage:
    case kind::kArray | kind::kRaw:
      for (uint32_t i = 0, n = r.u16(); i < n && r.ok(); ++i) r.take(r.u16());
      break;
    default: return false;
  }
  return r.ok();
}

}  // namespace

// An array replaces the whole vector, and only once it has been read whole.
template <class E>
bool message::storeArray(FlatReader& r, uint32_t id) {
  std::vector<E> v;
  if (!readArray(r, v)) return false;
  refStored<std::vector<E>>(id) = std::move(v);
  return true;
}

bool message::parseField(FlatReader& r, uint32_t tag) {
  const uint32_t id = tag & ~kind::kFlatBit;
  uint32_t n;
  switch (tag & kind::kMask) {
    case kind::kBool: refBool(id) = (tag & kind::kFlatBit) != 0; return true;
    case kind::kU32: {
      uint32_t v = (tag & kind::kFlatBit) ? r.u8() : r.u32();
      if (!r.ok()) return false;
      rep_->u32s.get_ref(id) = v;
      return true;
    }
    case kind::kU64: {
      uint64_t v = r.u64();
      if (!r.ok()) return false;
      refStored<unsigned long long>(id) = v;
      return true;
    }
    case kind::kAddr6: {
      const unsigned char* b = r.take(16);
      if (!b) return false;
      std::memcpy(refStored<IPAddr6>(id).bytes, b, 16);
      return true;
    }
    case kind::kString:
      if (const unsigned char* b = readBytes(r, tag, &n)) {
        refStored<std::string>(id).assign(reinterpret_cast<const char*>(b), n);
        return true;
      }
      return false;
    case kind::kMessage:
      if (const unsigned char* b = readBytes(r, tag, &n)) {
        refStored<flat_message>(id).assign(b, b + n);
        return true;
      }
      return false;
    case kind::kRaw:
      if (const unsigned char* b = readBytes(r, tag, &n)) {
        refStored<std::vector<unsigned char>>(id).assign(b, b + n);
        return true;
      }
      return false;
    case kind::kArray | kind::kBool: return storeArray<bool>(r, id);
    case kind::kArray | kind::kU32: return storeArray<unsigned int>(r, id);
    case kind::kArray | kind::kU64: return storeArray<unsigned long long>(r, id);
    case kind::kArray | kind::kAddr6: return storeArray<IPAddr6>(r, id);
    case kind::kArray | kind::kString: return storeArray<std::string>(r, id);
    case kind::kArray | kind::kMessage: return storeArray<flat_message>(r, id);
    case kind::kArray | kind::kRaw: return storeArray<std::vector<unsigned char>>(r, id);
    default: return false;
  }
}

namespace {

// The arena a fresh message needs for the nodes of this flat form: a list
// node for every field outside the two tables, and a bool table when there
// are two bools or more. Malformed input is sized as far as it reads.
size_t arenaFor(const unsigned char* data, unsigned int len, flatten_type mode) {
  FlatReader r(data, len);
  if (mode != kFlatHeaderless) r.take(2);
  internal::FlatField f;
  size_t bytes = 0, bools = 0;
  while (internal::nextFlatField(r, f)) {
    if (f.kind == kind::kBool) ++bools;
    else if (f.kind != kind::kU32) bytes += internal::nodeSize(f.id);
  }
  return bytes + (bools > 1 ? (sizeof(internal::htable<bool>) + 7) & ~size_t(7) : 0);
}

}  // namespace

bool message::unflatten(const unsigned char* data, unsigned int len, flatten_type mode) {
  if (len != 0 && rep_ == &internal::nilRep) rep_ = Rep::create(arenaFor(data, len, mode));
  else detach();
  if (len == 0) return true;
  std::vector<unsigned char>* pass = nullptr;
  if (mode == kFlatPassThrough) {
    if (!rep_->passthrough) rep_->passthrough = new std::vector<unsigned char>();
    pass = rep_->passthrough;
    pass->resize(len);
  }
  size_t passed = 0;
  const bool ok = parseFields(data, len, mode, pass ? pass->data() : nullptr, &passed);
  if (pass) {
    pass->resize(passed);  // also after a failure: only whole fields stay
  } else if (ok && rep_->passthrough) {
    delete rep_->passthrough;
    rep_->passthrough = nullptr;
  }
  return ok;
}

// Parses every field, copying those marked for pass-through to `pass` (when
// not null) and counting their bytes in *passed.
bool message::parseFields(const unsigned char* data, unsigned int len, flatten_type mode, unsigned char* pass,
                          size_t* passed) {
  FlatReader r(data, len);
  if (mode != kFlatHeaderless) {
    const unsigned char* m = r.take(2);
    if (!m || m[0] != kMagic0 || m[1] != kMagic1) return false;
  }
  while (r.left() >= 4) {
    const unsigned char* start = r.pos();
    const uint32_t tag = r.u32();
    if (pass && (tag & kind::kPassBit)) {
      if (!skipPassthrough(r, tag)) return false;
      std::memcpy(pass + *passed, start, r.pos() - start);
      *passed += r.pos() - start;
      continue;
    }
    if (!parseField(r, tag)) return false;
    // Parsed fields are written as through a mutable reference.
    rep_->unshareable = 1;
  }
  return r.left() == 0;
}

}  // namespace kr
