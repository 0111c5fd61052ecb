// libFuzzer target for the flat-form parser, message::unflatten.
//
// Input: the first byte picks the unflatten mode (byte % 3: normal,
// pass-through, headerless); the rest is parsed into a fresh message.
//
// Beside the library's own parser this file holds a small independent reader
// of the flat form (walk() below) that splits it into fields. It serves as an
// oracle: for normal and headerless input it must agree with unflatten on
// success, and on success the last value of every field id it saw must be
// exactly what the parsed message flattens back to.
//
// Checks on every input, parsed or not: in normal and headerless modes the
// independent reader accepts exactly what the parser accepts, and normal and
// headerless parses of the same fields agree. Checks on every input that
// parses:
//   - the flat form of the message is well formed, names each id once, and
//     holds the same fields and values as the input (byte for byte, after
//     normalising short/long forms);
//   - flatten is repeatable on the same handle (identical bytes) and fits
//     max_length(); flatten into a caller buffer of the exact length gives
//     the same bytes, and into a short buffer reports the full length, warns
//     and writes no more than the room;
//   - SYS_TO, then SYS_FROM, lead the flat form when present;
//   - the flat form parses again (normal mode) to an equal message whose own
//     flat form has the same length and the same fields, maybe in another
//     order (copies and re-parses reverse the list order);
//   - copies and assignments are equal, and writes to a copy (shared or
//     not) never reach the original;
//   - equality is not blind: changing or removing any one field of a copy
//     makes it unequal;
//   - removing every id leaves an empty message;
//   - pass-through parses keep no bit-25 field among the fields; for a
//     well-formed input without bit-25 u64/addr6 fields they succeed, parse
//     the other fields exactly and keep the bit-25 fields' bytes, in order,
//     in passthrough().
//
// A violated check prints what failed and the input in hex, then aborts.
// Built with -fsanitize=fuzzer it is a libFuzzer target; with
// fuzz/replay_main.cc it replays a corpus in an ordinary test.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kr/message/message.h"
#include "kr/message/vocabulary.h"

namespace {

const uint8_t* gInput = nullptr;
size_t gInputSize = 0;

[[noreturn]] void fail(const char* what) {
  std::fprintf(stderr, "flat_fuzzer: invariant violated: %s\ninput (%zu bytes):", what, gInputSize);
  for (size_t i = 0; i < gInputSize; ++i) std::fprintf(stderr, "%s%02x", i % 32 ? " " : "\n  ", gInput[i]);
  std::fprintf(stderr, "\n");
  std::fflush(stderr);
  std::abort();
}

#define KR_STR2(x) #x
#define KR_STR(x) KR_STR2(x)
#define CHECK(cond) \
  do {              \
    if (!(cond)) fail(#cond " (line " KR_STR(__LINE__) ")"); \
  } while (0)

constexpr uint32_t kKindMask = 0xF8000000;
constexpr uint32_t kFlat = 0x01000000;
constexpr uint32_t kPass = 0x02000000;
constexpr uint32_t kSysTo = 0x88FF0001;
constexpr uint32_t kSysFrom = 0x88FF0002;

uint32_t le16(const uint8_t* p) { return p[0] | (uint32_t(p[1]) << 8); }
uint32_t le32(const uint8_t* p) { return le16(p) | (le16(p + 2) << 16); }

// One field of a flat form: its id (the tag without bit 24), the bytes it
// occupies (tag included) and its value normalised so that short and long
// forms of the same value compare equal.
struct Field {
  uint32_t id;
  std::string_view chunk;
  std::string value;
};

// Splits fields written back to back (no magic) into `out`. False when the
// bytes are not a sequence of complete fields of known kinds.
bool walk(const uint8_t* p, size_t n, std::vector<Field>* out) {
  size_t at = 0;
  auto need = [&](size_t k) { return k <= n - at; };
  while (at < n) {
    const size_t start = at;
    if (!need(4)) return false;
    const uint32_t tag = le32(p + at);
    at += 4;
    const bool flat = tag & kFlat;
    std::string value;
    auto take = [&](size_t k) {
      if (!need(k)) return false;
      value.append(reinterpret_cast<const char*>(p + at), k);
      at += k;
      return true;
    };
    auto len16 = [&](uint32_t* len) {
      if (!need(2)) return false;
      *len = le16(p + at);
      at += 2;
      return true;
    };
    uint32_t len = 0;
    switch (tag & kKindMask) {
      case 0x00000000: value = flat ? "1" : "0"; break;  // bool
      case 0x08000000: {                                 // u32
        uint32_t v;
        if (flat) {
          if (!need(1)) return false;
          v = p[at++];
        } else {
          if (!need(4)) return false;
          v = le32(p + at);
          at += 4;
        }
        value.assign(reinterpret_cast<const char*>(&v), 4);
        break;
      }
      case 0x10000000:  // u64
        if (!take(8)) return false;
        break;
      case 0x18000000:  // addr6
        if (!take(16)) return false;
        break;
      case 0x20000000:  // string
      case 0x28000000:  // message
      case 0x30000000:  // raw
        if (flat) {
          if (!need(1)) return false;
          len = p[at++];
        } else if (!len16(&len)) {
          return false;
        }
        if (!take(len)) return false;
        break;
      case 0x80000000:  // arrays: the count and the elements, as they are
      case 0x88000000:
      case 0x90000000:
      case 0x98000000: {
        const size_t elem = (tag & kKindMask) == 0x80000000   ? 1
                            : (tag & kKindMask) == 0x88000000 ? 4
                            : (tag & kKindMask) == 0x90000000 ? 8
                                                              : 16;
        if (!need(2)) return false;
        const uint32_t count = le16(p + at);
        if (!take(2 + count * elem)) return false;
        if (elem == 1)  // a bool element is true when non-zero
          for (size_t i = 2; i < value.size(); ++i) value[i] = value[i] != 0;
        break;
      }
      case 0xA0000000:
      case 0xA8000000:
      case 0xB0000000: {
        uint32_t count;
        if (!len16(&count)) return false;
        value.assign(reinterpret_cast<const char*>(p + at - 2), 2);
        for (uint32_t i = 0; i < count; ++i) {
          if (!need(2)) return false;
          if (!take(2 + le16(p + at))) return false;
        }
        break;
      }
      default: return false;
    }
    if (out) out->push_back({tag & ~kFlat, {reinterpret_cast<const char*>(p + start), at - start}, std::move(value)});
  }
  return true;
}

// The value of every id, the last one winning; sorted by id.
std::vector<std::pair<uint32_t, std::string>> model(const std::vector<Field>& fields) {
  std::vector<std::pair<uint32_t, std::string>> m;
  for (auto it = fields.rbegin(); it != fields.rend(); ++it) {
    bool seen = false;
    for (const auto& e : m) seen = seen || e.first == it->id;
    if (!seen) m.emplace_back(it->id, it->value);
  }
  std::sort(m.begin(), m.end());
  return m;
}

std::vector<std::string_view> sortedChunks(const std::vector<Field>& fields) {
  std::vector<std::string_view> c;
  for (const Field& f : fields) c.push_back(f.chunk);
  std::sort(c.begin(), c.end());
  return c;
}

std::vector<unsigned char> flat(const kr::message& m) {
  std::vector<unsigned char> out;
  m.flatten(out);
  return out;
}

// Walks a flat form produced by flatten and checks what every flat form of
// `m` must satisfy. Returns its fields.
std::vector<Field> checkFlatForm(const kr::message& m, const std::vector<unsigned char>& f) {
  CHECK(f.size() >= 2 && f[0] == 0x4D && f[1] == 0x32);
  CHECK(f.size() <= m.max_length());
  std::vector<Field> fields;
  CHECK(walk(f.data() + 2, f.size() - 2, &fields));
  CHECK(fields.size() == m.count());
  std::vector<uint32_t> walked, stored = m.ids();
  for (const Field& x : fields) walked.push_back(x.id);
  std::sort(walked.begin(), walked.end());
  std::sort(stored.begin(), stored.end());
  CHECK(std::adjacent_find(walked.begin(), walked.end()) == walked.end());
  CHECK(walked == stored);
  // Routing fields first: SYS_TO, then SYS_FROM.
  size_t next = 0;
  if (m.has(kr::SYS_TO)) CHECK(fields.at(next++).id == kSysTo);
  if (m.has(kr::SYS_FROM)) CHECK(fields.at(next++).id == kSysFrom);
  return fields;
}

// flatten(buf, len) into a buffer of exactly `room` bytes.
void checkBufferFlatten(const kr::message& m, const std::vector<unsigned char>& f, unsigned room) {
  constexpr unsigned char kFill = 0xA5;
  std::unique_ptr<unsigned char[]> buf(new unsigned char[room]);
  std::memset(buf.get(), kFill, room);
  unsigned len = room;
  std::ostringstream warn;
  std::streambuf* saved = std::cerr.rdbuf(warn.rdbuf());
  m.flatten(buf.get(), &len);
  std::cerr.rdbuf(saved);
  CHECK(len == f.size());
  const bool warned = warn.str().find("WARNING: too small buffer for flatten") != std::string::npos;
  CHECK(warned == (room < f.size()));
  if (room >= f.size()) {
    CHECK(std::memcmp(buf.get(), f.data(), f.size()) == 0);
    return;
  }
  // Only what fits is written: the bytes written match the flat form, and
  // only the last value, the one that crosses the end (at most 8 bytes of
  // it fit), may be left unwritten.
  for (unsigned i = 0; i < room; ++i) {
    CHECK(buf[i] == f[i] || buf[i] == kFill);
    if (i + 8 < room) CHECK(buf[i] == f[i]);
  }
}

// Changes the value of field `id` of `m` (which holds it) to a different one.
void tweak(kr::message& m, uint32_t id) {
  switch (id & kKindMask) {
    case 0x00000000: {
      const bool v = m.get_const<bool>(id, false);
      m.ref<bool>(id) = !v;
      break;
    }
    case 0x08000000: m.ref<unsigned int>(id) ^= 1; break;
    case 0x10000000: m.ref<unsigned long long>(id) ^= 1; break;
    case 0x18000000: m.ref<kr::IPAddr6>(id).bytes[15] ^= 1; break;
    case 0x20000000: m.ref<std::string>(id).push_back('x'); break;
    case 0x28000000: {
      // Nested messages compare parsed: add a field that the parsed form
      // cannot already hold with this value.
      kr::flat_message& f = m.ref<kr::flat_message>(id);
      kr::message inner(f);
      const kr::u32_id probe(0x00ABCDEF);
      inner.insert(probe, inner.get(probe, 0) + 1);
      inner.flatten(f);
      break;
    }
    case 0x30000000: m.ref<std::vector<unsigned char>>(id).push_back(0); break;
    case 0x80000000: m.ref<std::vector<bool>>(id).push_back(false); break;
    case 0x88000000: m.ref<std::vector<unsigned int>>(id).push_back(0); break;
    case 0x90000000: m.ref<std::vector<unsigned long long>>(id).push_back(0); break;
    case 0x98000000: m.ref<std::vector<kr::IPAddr6>>(id).emplace_back(); break;
    case 0xA0000000: m.ref<std::vector<std::string>>(id).emplace_back(); break;
    case 0xA8000000: m.ref<std::vector<kr::flat_message>>(id).emplace_back(); break;
    case 0xB0000000: m.ref<std::vector<std::vector<unsigned char>>>(id).emplace_back(); break;
    default: fail("ids() returned an id of unknown kind");
  }
}

bool anyIdWith(const kr::message& m, uint32_t bits) {
  for (uint32_t id : m.ids())
    if (id & bits) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  gInput = data;
  gInputSize = size;
  const auto mode = static_cast<kr::flatten_type>(data[0] % 3);
  const uint8_t* body = data + 1;
  const unsigned len = static_cast<unsigned>(size - 1);

  kr::message m;
  const bool ok = m.unflatten(body, len, mode);

  // The independent reader agrees on normal and headerless input.
  std::vector<Field> input;
  const bool magic = len >= 2 && body[0] == 0x4D && body[1] == 0x32;
  if (mode == kr::kFlatHeaderless) {
    CHECK(ok == walk(body, len, &input));
  } else if (mode == kr::kFlatNormal) {
    CHECK(ok == (len == 0 || (magic && walk(body + 2, len - 2, &input))));
  }

  // Pass-through input that is a well-formed flat form: the bit-25 fields
  // go to passthrough() as they are, in order, and the others are parsed.
  // Not checked when a bit-25 field is a u64, addr6 or addr6 array: the
  // parser does not skip their payload (a documented limit) and reads it as
  // the next tag.
  bool passKnown = false;
  std::string passBytes;
  if (mode == kr::kFlatPassThrough && magic && walk(body + 2, len - 2, &input)) {
    passKnown = true;
    std::vector<Field> kept;
    for (Field& x : input) {
      if (!(x.id & kPass)) {
        kept.push_back(std::move(x));
        continue;
      }
      const uint32_t k = x.id & kKindMask;
      if (k == 0x10000000 || k == 0x18000000 || k == 0x98000000) passKnown = false;
      passBytes.append(x.chunk);
    }
    input = std::move(kept);
    if (passKnown) CHECK(ok);
  }

  // Normal and headerless parses of the same fields agree, failures
  // included (the fields before the error stay in both).
  if (mode != kr::kFlatPassThrough && (mode == kr::kFlatHeaderless || magic)) {
    std::vector<unsigned char> other;
    if (mode == kr::kFlatHeaderless) {
      other.resize(2 + size_t(len));
      other[0] = 0x4D;
      other[1] = 0x32;
      if (len) std::memcpy(other.data() + 2, body, len);
    } else {
      other.assign(body + 2, body + len);
    }
    kr::message o;
    const bool ook = o.unflatten(other.data(), static_cast<unsigned>(other.size()),
                                 mode == kr::kFlatHeaderless ? kr::kFlatNormal : kr::kFlatHeaderless);
    CHECK(ook == ok);
    CHECK(o == m);
  }

  if (!ok) return 0;

  if (mode == kr::kFlatPassThrough) {
    CHECK(!anyIdWith(m, kPass));
    if (len == 0) CHECK(m.passthrough() == nullptr || m.passthrough()->empty());
    else CHECK(m.passthrough() != nullptr && m.passthrough()->size() <= len);
  } else {
    CHECK(m.passthrough() == nullptr);
  }

  const std::vector<unsigned char> f1 = flat(m);
  const std::vector<Field> fields1 = checkFlatForm(m, f1);
  if (mode != kr::kFlatPassThrough || passKnown) CHECK(model(fields1) == model(input));
  if (passKnown) {
    const std::vector<unsigned char>& kept = *m.passthrough();
    CHECK(std::string_view(reinterpret_cast<const char*>(kept.data()), kept.size()) == passBytes);
  }
  CHECK(flat(m) == f1);  // repeatable on the same handle
  checkBufferFlatten(m, f1, static_cast<unsigned>(f1.size()));
  checkBufferFlatten(m, f1, static_cast<unsigned>(f1.size() - 1));
  checkBufferFlatten(m, f1, static_cast<unsigned>(f1.size() / 2));

  // The flat form parses again to an equal message. Its own flat form has
  // the same fields, but the order may differ (the lists come back reversed
  // and the u32 table may place its keys differently), so only the length
  // and the set of encoded fields must match.
  kr::message m2;
  CHECK(m2.unflatten(f1.data(), static_cast<unsigned>(f1.size()), kr::kFlatNormal));
  CHECK(m2 == m);
  CHECK(m == m2);
  CHECK(m2.count() == m.count());
  CHECK(m.common_ids(m2).size() == m.count());
  const std::vector<unsigned char> f2 = flat(m2);
  CHECK(f2.size() == f1.size());
  const std::vector<Field> fields2 = checkFlatForm(m2, f2);
  CHECK(sortedChunks(fields2) == sortedChunks(fields1));
  CHECK(kr::message(f1) == m);

  // Without bit-25 ids a pass-through parse of the flat form is a normal one.
  if (!anyIdWith(m, kPass)) {
    kr::message p;
    CHECK(p.unflatten(f1.data(), static_cast<unsigned>(f1.size()), kr::kFlatPassThrough));
    CHECK(p == m);
    CHECK(p.passthrough() != nullptr && p.passthrough()->empty());
  }

  // Copies are equal and independent of the original.
  kr::message copy(m);
  CHECK(copy == m);
  CHECK(m == copy);
  CHECK(copy.max_length() >= f1.size());
  const std::vector<unsigned char> fc = flat(copy);
  CHECK(fc.size() == f1.size());
  CHECK(sortedChunks(checkFlatForm(copy, fc)) == sortedChunks(fields1));
  kr::message assigned;
  assigned = m2;
  CHECK(assigned == m);

  const kr::u32_id probe(0x00ABCDEF);
  const unsigned probeValue = m.get(probe, 0) + 1000;
  copy.insert(probe, probeValue);
  kr::message shared(copy);  // copy is shareable now: this one shares
  shared.remove(kr::SYS_TO);
  shared.insert(kr::string_id(0x00ABCDEF), std::string(300, 'x'));
  CHECK(copy.get(probe) == probeValue);
  CHECK(copy.has(kr::SYS_TO) == m.has(kr::SYS_TO));
  CHECK(!copy.has(kr::string_id(0x00ABCDEF)) || m.has(kr::string_id(0x00ABCDEF)));
  CHECK(flat(m) == f1);
  CHECK(m == m2);
  CHECK(!(copy == m) && !(m == copy));

  // Equality is not blind: changing any one field's value (first 64 only,
  // to bound the cost) makes a copy unequal, and the original unchanged.
  size_t tweaked = 0;
  for (uint32_t id : m.ids()) {
    if (++tweaked > 64) break;
    kr::message c(m);
    tweak(c, id);
    CHECK(!(c == m) && !(m == c));
  }
  CHECK(flat(m) == f1);

  // Removing every id empties the message, one id at a time; each removal
  // makes it unequal to the original.
  unsigned left = m2.count();
  for (uint32_t id : m2.ids()) {
    m2.remove(id);
    CHECK(m2.count() == --left);
    CHECK(!(m2 == m) && !(m == m2));
  }
  CHECK(m2.empty());
  CHECK(flat(m2) == (std::vector<unsigned char>{0x4D, 0x32}));
  CHECK(flat(m) == f1);
  return 0;
}
