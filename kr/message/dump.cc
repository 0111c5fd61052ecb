// The dump layout, shared by the stream and the Dumper forms through a
// small sink, and the Dumper's hand-made number formats.
#include "kr/message/dump.h"

#include <iomanip>
#include <ostream>

#include "kr/message/internal/flat_io.h"
#include "kr/message/internal/node_visit.h"
#include "kr/message/vocabulary.h"

namespace kr {
namespace {

constexpr char kDigits[] = "0123456789abcdef";

// ---- Number formatting by hand (no allocation, no locale) ------------------

// Writes `v` in decimal, right-aligned in `out` (room for 10 digits and a
// sign); returns the first character.
char* decimal(char* end, unsigned int v) {
  char* p = end;
  do {
    *--p = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v);
  return p;
}

char* hexDigits(char* end, unsigned long long v, int width) {
  char* p = end;
  for (int i = 0; i < width || (width == 0 && (v || p == end)); ++i) {
    *--p = kDigits[v & 15];
    v >>= 4;
  }
  return p;
}

void appendText(char*& p, const char* s) {
  while (*s) *p++ = *s++;
}

void appendRange(char*& p, const char* from, const char* to) {
  while (from < to) *p++ = *from++;
}

// ---- Sinks -------------------------------------------------------------------

struct StreamSink {
  std::ostream& os;
  void text(std::string_view s) { os << s; }
  void number(unsigned int n) { os << n; }
  void number64(unsigned long long n) { os << n; }
  void rawByte(unsigned char b) { os << std::hex << static_cast<unsigned int>(b) << std::dec; }
  void addr6(const IPAddr6& a) { os << a; }
  void id(unsigned int id) { os << message::idstr(id); }
  void endLine() { os << std::endl; }
};

struct DumperSink {
  Dumper& d;
  void text(std::string_view s) { d << s; }
  void number(unsigned int n) { d << n; }
  void number64(unsigned long long n) { d << n; }
  void rawByte(unsigned char b) { d << b; }
  void addr6(const IPAddr6& a) { d << a; }
  void id(unsigned int id) { d << message::idstr(id); }
  void endLine() { d.write("\n", 1); }
};

const char* arrayKindName(uint32_t id) {
  switch (id & kind::kMask & ~kind::kArray) {
    case kind::kBool: return " bool[";
    case kind::kU32: return " u32[";
    case kind::kU64: return " u64[";
    case kind::kAddr6: return " addr6[";
    case kind::kString: return " string[";
    case kind::kRaw: return " raw[";
    default: return " message[";
  }
}

// The lines of one dump, whatever holds the fields.
template <class S>
class Printer {
 public:
  Printer(S& sink, const char* prefix, unsigned int level) : s_(sink), prefix_(prefix), level_(level) {}

  void header() {
    start();
    s_.text("--- kr::message --------");
    s_.endLine();
  }
  void boolField(uint32_t id, bool v) {
    field(" bool [", id, "]=");
    s_.text(v ? "true" : "false");
    s_.endLine();
  }
  void u32Field(uint32_t id, unsigned int v) {
    field(" u32 [", id, "]=");
    s_.text(u32ValueText(id, v));
    s_.endLine();
  }
  void u64Field(uint32_t id, unsigned long long v) {
    field(" u64 [", id, "]=");
    s_.number64(v);
    s_.endLine();
  }
  void addr6Field(uint32_t id, const IPAddr6& a) {
    field(" addr6 [", id, "]=");
    s_.addr6(a);
    s_.endLine();
  }
  void stringField(uint32_t id, std::string_view v) {
    field(" string [", id, "]=");
    s_.text(v);
    s_.endLine();
  }
  // The length and the first six bytes, last of them first.
  void rawField(uint32_t id, const unsigned char* p, size_t n) {
    field(" raw [", id, "]=#");
    s_.number(static_cast<unsigned int>(n));
    s_.text(" ");
    for (size_t i = n < 6 ? n : 6; i > 0; --i) {
      s_.rawByte(p[i - 1]);
      s_.text(" ");
    }
    s_.endLine();
  }
  void messageField(uint32_t id, const unsigned char* p, size_t n) {
    field(" message [", id, "]...");
    s_.endLine();
    nested(p, n);
  }

  void arrayStart(uint32_t id, size_t n) {
    start();
    s_.text(arrayKindName(id));
    s_.number(static_cast<unsigned int>(n));
    s_.text("] [");
    s_.id(id);
    s_.text(kind::of(id) == (kind::kArray | kind::kMessage) ? "].." : "]=");
  }
  void element(bool v) { item(v ? "true" : "false"); }
  void element(unsigned int v) {
    s_.number(v);
    s_.text(", ");
  }
  void element(unsigned long long v) {
    s_.number64(v);
    s_.text(", ");
  }
  void element(const IPAddr6& a) {
    s_.addr6(a);
    s_.text(", ");
  }
  void element(std::string_view v) { item(v); }
  void rawElement(size_t n) {
    s_.text("#");
    s_.number(static_cast<unsigned int>(n));
    s_.text(", ");
  }
  void arrayEnd() { s_.endLine(); }
  // A message array's elements follow its line as nested dumps.
  void messageElement(const unsigned char* p, size_t n) { nested(p, n); }

 private:
  void start() {
    s_.text(prefix_);
    for (unsigned int i = 0; i < level_; ++i) s_.text("    ");
  }
  void field(const char* head, uint32_t id, const char* tail) {
    start();
    s_.text(head);
    s_.id(id);
    s_.text(tail);
  }
  void item(std::string_view v) {
    s_.text(v);
    s_.text(", ");
  }
  void nested(const unsigned char* p, size_t n);

  S& s_;
  const char* prefix_;
  unsigned int level_;
};

// ---- Walking a message held in memory --------------------------------------

template <class S, class T>
void printArray(Printer<S>& out, uint32_t id, const std::vector<T>& v) {
  out.arrayStart(id, v.size());
  if constexpr (std::is_same_v<T, flat_message>) {
    out.arrayEnd();
    for (const flat_message& e : v) out.messageElement(e.data(), e.size());
    return;
  } else {
    for (const auto& e : v) {
      if constexpr (std::is_same_v<T, std::vector<unsigned char>>) out.rawElement(e.size());
      else if constexpr (std::is_same_v<T, bool>) out.element(static_cast<bool>(e));
      else out.element(e);
    }
    out.arrayEnd();
  }
}

template <class S, class T>
void printScalar(Printer<S>& out, uint32_t id, const T& v) {
  if constexpr (std::is_same_v<T, unsigned long long>) out.u64Field(id, v);
  else if constexpr (std::is_same_v<T, IPAddr6>) out.addr6Field(id, v);
  else if constexpr (std::is_same_v<T, std::string>) out.stringField(id, v);
  else if constexpr (std::is_same_v<T, flat_message>) out.messageField(id, v.data(), v.size());
  else if constexpr (std::is_same_v<T, std::vector<unsigned char>>) out.rawField(id, v.data(), v.size());
  else printArray(out, id, v);
}

// ---- Walking a flat message without parsing it ------------------------------

template <class S>
void printFlatArray(Printer<S>& out, const internal::FlatField& f) {
  out.arrayStart(f.id, f.size);
  const unsigned char* p = f.data;
  const bool isMessage = f.kind == (kind::kArray | kind::kMessage);
  if (isMessage) out.arrayEnd();
  for (uint32_t i = 0; i < f.size; ++i) {
    switch (f.kind & ~kind::kArray) {
      case kind::kBool: out.element(*p++ != 0); break;
      case kind::kU32: out.element(static_cast<unsigned int>(internal::loadLE32(p))), p += 4; break;
      case kind::kU64: out.element(static_cast<unsigned long long>(internal::loadLE64(p))), p += 8; break;
      case kind::kAddr6: {
        IPAddr6 a;
        std::memcpy(a.bytes, p, 16);
        out.element(a);
        p += 16;
        break;
      }
      default: {
        const uint32_t n = internal::loadLE16(p);
        p += 2;
        if (isMessage) out.messageElement(p, n);
        else if ((f.kind & ~kind::kArray) == kind::kRaw) out.rawElement(n);
        else out.element(std::string_view(reinterpret_cast<const char*>(p), n));
        p += n;
      }
    }
  }
  if (!isMessage) out.arrayEnd();
}

template <class S>
void printFlatField(Printer<S>& out, const internal::FlatField& f) {
  switch (f.kind) {
    case kind::kBool: out.boolField(f.id, f.number != 0); break;
    case kind::kU32: out.u32Field(f.id, static_cast<unsigned int>(f.number)); break;
    case kind::kU64: out.u64Field(f.id, f.number); break;
    case kind::kAddr6: {
      IPAddr6 a;
      std::memcpy(a.bytes, f.data, 16);
      out.addr6Field(f.id, a);
      break;
    }
    case kind::kString: out.stringField(f.id, std::string_view(reinterpret_cast<const char*>(f.data), f.size)); break;
    case kind::kMessage: out.messageField(f.id, f.data, f.size); break;
    case kind::kRaw: out.rawField(f.id, f.data, f.size); break;
    default: printFlatArray(out, f);
  }
}

// Calls f(field) for each well-formed field of a flat message whose kind
// passes `want`, until the first malformed one.
template <class Want, class F>
void forEachFlatField(const unsigned char* p, size_t n, Want want, F f) {
  if (n < 2 || p[0] != 0x4D || p[1] != 0x32) return;
  internal::FlatReader r(p + 2, n - 2);
  internal::FlatField field;
  while (internal::nextFlatField(r, field))
    if (want(field.kind)) f(field);
}

// Prints a flat message in the order a parse would give its fields where
// that costs nothing: the two lists reversed (a parse pushes at the head),
// the bool and u32 tables in wire order.
template <class S>
void printFlat(Printer<S>& out, const unsigned char* p, size_t n) {
  out.header();
  auto print = [&](const internal::FlatField& f) { printFlatField(out, f); };
  forEachFlatField(p, n, [](uint32_t k) { return k == kind::kBool; }, print);
  forEachFlatField(p, n, [](uint32_t k) { return k == kind::kU32; }, print);
  for (bool arrays : {false, true}) {
    auto inList = [arrays](uint32_t k) { return k != kind::kBool && k != kind::kU32 && kind::isArray(k) == arrays; };
    size_t count = 0;
    forEachFlatField(p, n, inList, [&](const internal::FlatField&) { ++count; });
    for (size_t want = count; want > 0; --want) {
      size_t i = 0;
      forEachFlatField(p, n, inList, [&](const internal::FlatField& f) {
        if (++i == want) print(f);
      });
    }
  }
}

template <class S>
void Printer<S>::nested(const unsigned char* p, size_t n) {
  if constexpr (std::is_same_v<S, StreamSink>) {
    message(p, static_cast<unsigned int>(n)).dump2(s_.os, prefix_, level_ + 1);
  } else {
    Printer<S> inner(s_, prefix_, level_ + 1);
    printFlat(inner, p, n);  // parsing would allocate
  }
}

}  // namespace

// ---- message ------------------------------------------------------------------

template <class P>
void message::dumpTo(P& out) const {
  const Rep* r = rep_;
  out.header();
  if (r->single_bool_id != Rep::kNoBool) out.boolField(r->single_bool_id, r->single_bool);
  else if (r->bools) r->bools->for_each([&](uint32_t id, bool v) { out.boolField(id, v); });
  r->u32s.for_each([&](uint32_t id, unsigned int v) { out.u32Field(id, v); });
  for (const Node* n = r->fields; n; n = n->next)
    internal::visitNode(n, [&](const auto& v) { printScalar(out, n->id, v); });
  for (const Node* n = r->arrays; n; n = n->next)
    internal::visitNode(n, [&](const auto& v) { printScalar(out, n->id, v); });
}

void message::dump2(std::ostream& os, const char* prefix, unsigned int level) const {
  os << std::dec;
  StreamSink sink{os};
  Printer<StreamSink> out(sink, prefix, level);
  dumpTo(out);
}

void message::dump2(Dumper& d, const char* prefix, unsigned int level) const {
  DumperSink sink{d};
  Printer<DumperSink> out(sink, prefix, level);
  dumpTo(out);
}

// ---- Names and values -----------------------------------------------------------

namespace {

// Unnamed ids print as their group and low 16 bits.
template <class Out>
void printId(Out& out, unsigned int id) {
  if (const char* name = fieldName(id)) {
    out << name;
    return;
  }
  const unsigned int group = id & 0xFF0000;
  switch (group) {
    case 0xFF0000: out << "sys::"; break;
    case 0xFE0000: out << "std::"; break;
    case 0xFD0000: out << "local::"; break;
    case 0: break;
    default:
      if (const char* handler = handlerName(group >> 16)) out << handler << "::";
      else out << group << "::";
  }
  out << (id & 0xFFFF);
}

}  // namespace

std::ostream& operator<<(std::ostream& os, const message::idstr& id) {
  printId(os, id.id);
  return os;
}

Dumper& operator<<(Dumper& d, const message::idstr& id) {
  printId(d, id.id);
  return d;
}

const char* u32ValueText(unsigned int id, unsigned int value) {
  static char text[80];
  const unsigned int field = id & 0x00FFFFFF;
  const char* name = nullptr;
  const bool namedField = field == SYS_TYPE.number() || field == SYS_STATUS.number() || field == SYS_DREASON.number();
  if (field == SYS_TYPE.number()) name = value == TYPE_REQUEST ? "TYPE_REQUEST" : value == TYPE_REPLY ? "TYPE_REPLY" : nullptr;
  else if (field == SYS_STATUS.number()) name = value == STATUS_OK ? "STATUS_OK" : value == STATUS_ERROR ? "STATUS_ERROR" : nullptr;
  else if (field == SYS_DREASON.number())
    name = value == DREASON_DISCONNECTED ? "DREASON_DISCONNECTED" : value == DREASON_CRASHED ? "DREASON_CRASHED" : nullptr;
  if (namedField && !name) {
    name = value == 0 ? "DREASON_DISCONNECTED" : commandName(value);
    if (!name) name = errorName(value);
  } else if (field == SYS_CMD.number()) {
    name = commandName(value);
    if (!name) name = errorName(value);  // 0 reads "ERROR_OK"
  } else if (field == SYS_ERRNO.number()) {
    name = errorName(value);
  }
  if (name) return name;
  // "%d 0x%x a.b.c.d", by hand.
  char* p = text;
  char num[24];
  char* end = num + sizeof num;
  const int asSigned = static_cast<int>(value);
  if (asSigned < 0) *p++ = '-';
  appendRange(p, decimal(end, asSigned < 0 ? 0u - value : value), end);
  appendText(p, " 0x");
  appendRange(p, hexDigits(end, value, 0), end);
  *p++ = ' ';
  for (int shift = 24; shift >= 0; shift -= 8) {
    appendRange(p, decimal(end, (value >> shift) & 0xFF), end);
    if (shift) *p++ = '.';
  }
  *p = '\0';
  return text;
}

// ---- Dumper ---------------------------------------------------------------------

void Dumper::write(const char* s, unsigned int n) {
  const unsigned int room = capacity_ - position_;
  if (n > room) n = room;
  std::memcpy(buffer_ + position_, s, n);
  position_ += n;
}

Dumper& Dumper::operator<<(const char* s) { return *this << std::string_view(s); }

Dumper& Dumper::operator<<(std::string_view s) {
  write(s.data(), static_cast<unsigned int>(s.size()));
  return *this;
}

Dumper& Dumper::operator<<(unsigned int v) {
  char buf[10] = {'0', 'x'};
  hexDigits(buf + 10, v, 8);
  write(buf, 10);
  return *this;
}

Dumper& Dumper::operator<<(unsigned long long v) {
  char buf[18] = {'0', 'x'};
  hexDigits(buf + 18, v, 16);
  write(buf, 18);
  return *this;
}

Dumper& Dumper::operator<<(unsigned char v) {
  char buf[2];
  hexDigits(buf + 2, v, 2);
  write(buf, 2);
  return *this;
}

Dumper& Dumper::operator<<(const IPAddr6& a) {
  char buf[39];
  char* p = buf;
  for (int g = 0; g < 8; ++g) {
    if (g) *p++ = ':';
    hexDigits(p + 4, (unsigned(a.bytes[2 * g]) << 8) | a.bytes[2 * g + 1], 4);
    p += 4;
  }
  write(buf, sizeof buf);
  return *this;
}

// ---- hexdump ----------------------------------------------------------------------

void hexdump::output(std::ostream& os) const {
  const std::ios_base::fmtflags flags = os.flags();
  const char fill = os.fill();
  os << std::hex << std::setfill('0');
  for (const unsigned char* p = begin; p < end; ++p) {
    const size_t i = p - begin;
    if (i != 0) {
      if (i % 256 == 0) os.flush();
      if (line && i % line == 0) os << std::endl;
      else if (group && i % group == 0) os << separator;
    }
    os << std::setw(2) << static_cast<unsigned int>(*p);
  }
  os.flags(flags);
  os.fill(fill);
}

std::ostream& operator<<(std::ostream& os, const hexdump& h) {
  h.output(os);
  return os;
}

}  // namespace kr
