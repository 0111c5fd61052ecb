// kr::message <-> JSON text; the form is described in msgjson.h.
//
// JSON text is parsed with nlohmann's SAX interface into an ordered_json
// tree (no exceptions: the DOM builder runs with allow_exceptions = false
// and every value's type is checked through get_ptr before it is read),
// then converted member by member. Printing builds an ordered_json tree,
// members in ascending id order, and dumps it; every string put into it is
// valid UTF-8.
#include "tools/kr-msg/msgjson.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <set>
#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include "kr/message/vocabulary.h"

namespace kr::msgjson {
namespace {

using Json = nlohmann::ordered_json;

constexpr uint32_t kIdBits = 0x07FFFFFF;    // flags and field number
constexpr uint32_t kFlagBits = 0x07000000;  // bits 26..24
constexpr size_t kMaxLength = 0xFFFF;       // a length or count in the flat form

std::string format(const char* fmt, auto... args) {
  char buf[160];
  std::snprintf(buf, sizeof buf, fmt, args...);
  return buf;
}

// ---- Kinds and member names ---------------------------------------------------------

struct KindName {
  uint32_t bits;
  std::string_view name;
};
constexpr KindName kKinds[] = {
    {kind::kBool, "bool"},     {kind::kU32, "u32"},         {kind::kU64, "u64"}, {kind::kAddr6, "addr6"},
    {kind::kString, "string"}, {kind::kMessage, "message"}, {kind::kRaw, "raw"},
};

const KindName* kindOf(uint32_t id) {
  for (const KindName& k : kKinds)
    if (k.bits == (kind::of(id) & ~kind::kArray)) return &k;
  return nullptr;
}

std::string memberName(uint32_t id) {
  std::string s(kindOf(id)->name);
  if (kind::isArray(id)) s += "[]";
  s += ':';
  const char* name = (id & kFlagBits) == 0 ? fieldName(id) : nullptr;
  s += name ? std::string(name) : format("0x%x", id & kIdBits);
  return s;
}

// ---- Bytes as text -------------------------------------------------------------------------

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; }

// A character for an error text: itself when printable ASCII, else its code.
std::string describeChar(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return u >= 0x20 && u < 0x7F ? format("'%c'", c) : format("byte 0x%02x", u);
}

// Error texts stay on one line and in ASCII whatever the input held.
std::string printable(std::string_view s) {
  std::string out;
  for (char c : s) {
    const unsigned char u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u < 0x7F) out += c;
    else out += format("\\x%02x", u);
  }
  return out;
}

// Strict UTF-8 (RFC 3629): no overlong forms, no surrogates, nothing above
// U+10FFFF. Exactly what the JSON dumper accepts.
bool validUtf8(std::string_view s) {
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      ++i;
      continue;
    }
    size_t len;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF) len = 2, cp = c & 0x1F;
    else if (c >= 0xE0 && c <= 0xEF) len = 3, cp = c & 0x0F;
    else if (c >= 0xF0 && c <= 0xF4) len = 4, cp = c & 0x07;
    else return false;
    if (s.size() - i < len) return false;
    for (size_t j = 1; j < len; ++j) {
      const unsigned char t = static_cast<unsigned char>(s[i + j]);
      if ((t & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (t & 0x3F);
    }
    if (len == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) return false;
    if (len == 4 && (cp < 0x10000 || cp > 0x10FFFF)) return false;
    i += len;
  }
  return true;
}

// ---- Why flat bytes do not parse ----------------------------------------------------------

// Walks a flat message's fields by the same rules as message::unflatten in
// normal mode. False, with `why`, where unflatten would fail.
bool walkFlat(const unsigned char* p, size_t n, std::string* why) {
  if (n == 0) return true;
  if (n < 2 || p[0] != 0x4D || p[1] != 0x32) {
    *why = "it does not start with the magic bytes 4d 32";
    return false;
  }
  auto le16 = [p](size_t at) { return uint32_t(p[at]) | uint32_t(p[at + 1]) << 8; };
  size_t at = 2;
  while (n - at >= 4) {
    const size_t start = at;
    const uint32_t tag = le16(at) | le16(at + 2) << 16;
    at += 4;
    bool ok = true;
    auto take = [&](size_t k) {
      if (ok && k <= n - at) at += k;
      else ok = false;
    };
    auto count16 = [&]() -> size_t {
      if (!ok || n - at < 2) return ok = false, 0;
      at += 2;
      return le16(at - 2);
    };
    auto count8 = [&]() -> size_t {
      if (!ok || n - at < 1) return ok = false, 0;
      return p[at++];
    };
    const bool shortForm = tag & kind::kFlatBit;
    switch (tag & kind::kMask) {
      case kind::kBool: break;
      case kind::kU32: take(shortForm ? 1 : 4); break;
      case kind::kU64: take(8); break;
      case kind::kAddr6: take(16); break;
      case kind::kString:
      case kind::kMessage:
      case kind::kRaw: take(shortForm ? count8() : count16()); break;
      case kind::kArray | kind::kBool: take(count16()); break;
      case kind::kArray | kind::kU32: take(count16() * 4); break;
      case kind::kArray | kind::kU64: take(count16() * 8); break;
      case kind::kArray | kind::kAddr6: take(count16() * 16); break;
      case kind::kArray | kind::kString:
      case kind::kArray | kind::kMessage:
      case kind::kArray | kind::kRaw:
        for (size_t i = 0, c = count16(); ok && i < c; ++i) take(count16());
        break;
      default:
        *why = format("the field at byte %zu has a tag of unknown kind, %08x", start, tag);
        return false;
    }
    if (!ok) {
      *why = format("the field at byte %zu (tag %08x) runs past the end of the %zu bytes", start, tag, n);
      return false;
    }
  }
  if (at != n) {
    *why = format(n - at == 1 ? "%zu stray byte follows the last field" : "%zu stray bytes follow the last field",
                  n - at);
    return false;
  }
  return true;
}

// ---- Field values -------------------------------------------------------------------------------

using Bytes = std::vector<unsigned char>;
using Value = std::variant<bool, unsigned int, unsigned long long, IPAddr6, std::string, flat_message, Bytes,
                           std::vector<bool>, std::vector<unsigned int>, std::vector<unsigned long long>,
                           std::vector<IPAddr6>, std::vector<std::string>, std::vector<flat_message>,
                           std::vector<Bytes>>;
struct Field {
  uint32_t id;
  Value value;
};

// The typed id that stores a value of type T.
template <class T> struct IdFor;
template <> struct IdFor<bool> { using type = bool_id; };
template <> struct IdFor<unsigned int> { using type = u32_id; };
template <> struct IdFor<unsigned long long> { using type = u64_id; };
template <> struct IdFor<IPAddr6> { using type = addr6_id; };
template <> struct IdFor<std::string> { using type = string_id; };
template <> struct IdFor<flat_message> { using type = message_id; };
template <> struct IdFor<Bytes> { using type = raw_id; };
template <> struct IdFor<std::vector<bool>> { using type = bool_array_id; };
template <> struct IdFor<std::vector<unsigned int>> { using type = u32_array_id; };
template <> struct IdFor<std::vector<unsigned long long>> { using type = u64_array_id; };
template <> struct IdFor<std::vector<IPAddr6>> { using type = addr6_array_id; };
template <> struct IdFor<std::vector<std::string>> { using type = string_array_id; };
template <> struct IdFor<std::vector<flat_message>> { using type = message_array_id; };
template <> struct IdFor<std::vector<Bytes>> { using type = raw_array_id; };

void insertField(message& m, Field&& f) {
  std::visit([&](auto&& v) { m.insert(typename IdFor<std::decay_t<decltype(v)>>::type(f.id), std::move(v)); },
             std::move(f.value));
}

// A message holding `fields`; the order they come in does not matter.
message buildMessage(std::vector<Field>&& fields) {
  message m;
  for (Field& f : fields) insertField(m, std::move(f));
  return m;
}

Bytes flatOf(const message& m) {
  Bytes out;
  m.flatten(out);
  return out;
}

// ---- Message -> JSON --------------------------------------------------------------------------------

const char* u32Name(uint32_t id, unsigned int v) {
  if (kind::of(id) != kind::kU32 || (id & kFlagBits) != 0) return nullptr;
  const uint32_t field = id & 0x00FFFFFF;
  if (field == SYS_CMD.number()) return commandName(v);
  if (field == SYS_ERRNO.number()) return errorName(v);
  if (field == SYS_TYPE.number()) return v == TYPE_REQUEST ? "TYPE_REQUEST" : v == TYPE_REPLY ? "TYPE_REPLY" : nullptr;
  if (field == SYS_STATUS.number()) return v == STATUS_OK ? "STATUS_OK" : v == STATUS_ERROR ? "STATUS_ERROR" : nullptr;
  if (field == SYS_DREASON.number())
    return v == DREASON_DISCONNECTED ? "DREASON_DISCONNECTED" : v == DREASON_CRASHED ? "DREASON_CRASHED" : nullptr;
  return nullptr;
}

Json bytesJson(const unsigned char* p, size_t n) { return toHex(p, n); }

Json stringJson(const std::string& s) {
  if (validUtf8(s)) return s;
  Json o = Json::object();
  o["hex"] = toHex(reinterpret_cast<const unsigned char*>(s.data()), s.size());
  return o;
}

Json objectJson(const message& m, unsigned depth);

// A nested message whose object would sit at JSON depth `depth`. Printed as
// an object only when its bytes parse and everything it can hold stays
// within kMaxDepth.
Json nestedJson(const flat_message& f, unsigned depth) {
  message inner;
  if (depth + 2 <= kMaxDepth && inner.unflatten(f.data(), static_cast<unsigned int>(f.size()), kFlatNormal))
    return objectJson(inner, depth);
  return "flat:" + toHex(f.data(), f.size());
}

template <class T>
const T& stored(const message& m, uint32_t id) {
  static const T kNone{};
  return m.get_const<T>(id, kNone);
}

template <class T, class F>
Json arrayJson(const message& m, uint32_t id, F element) {
  Json a = Json::array();
  for (const auto& e : stored<std::vector<T>>(m, id)) a.push_back(element(e));
  return a;
}

// The value of field `id` of a message whose object sits at depth `depth`.
Json valueJson(const message& m, uint32_t id, unsigned depth) {
  auto hex = [](const Bytes& b) { return bytesJson(b.data(), b.size()); };
  switch (kind::of(id)) {
    case kind::kBool: return stored<bool>(m, id);
    case kind::kU32: {
      const unsigned int v = stored<unsigned int>(m, id);
      if (const char* name = u32Name(id, v)) return name;
      return v;
    }
    case kind::kU64: return stored<unsigned long long>(m, id);
    case kind::kAddr6: return stored<IPAddr6>(m, id).str();
    case kind::kString: return stringJson(stored<std::string>(m, id));
    case kind::kMessage: return nestedJson(stored<flat_message>(m, id), depth + 1);
    case kind::kRaw: return hex(stored<Bytes>(m, id));
    case kind::kArray | kind::kBool: return arrayJson<bool>(m, id, [](bool b) { return Json(b); });
    case kind::kArray | kind::kU32: return arrayJson<unsigned int>(m, id, [](unsigned int v) { return Json(v); });
    case kind::kArray | kind::kU64:
      return arrayJson<unsigned long long>(m, id, [](unsigned long long v) { return Json(v); });
    case kind::kArray | kind::kAddr6: return arrayJson<IPAddr6>(m, id, [](const IPAddr6& a) { return Json(a.str()); });
    case kind::kArray | kind::kString: return arrayJson<std::string>(m, id, stringJson);
    case kind::kArray | kind::kMessage:
      return arrayJson<flat_message>(m, id, [depth](const flat_message& f) { return nestedJson(f, depth + 2); });
    case kind::kArray | kind::kRaw: return arrayJson<Bytes>(m, id, hex);
    default: return nullptr;  // no message holds another kind
  }
}

// The members in ascending order of the complete id (unsigned compare).
Json objectJson(const message& m, unsigned depth) {
  std::vector<uint32_t> ids = m.ids();
  std::sort(ids.begin(), ids.end());
  Json o = Json::object();
  for (uint32_t id : ids)
    if (kindOf(id)) o[memberName(id)] = valueJson(m, id, depth);
  return o;
}

std::string dump(const Json& j, int indent) {
  // Every string in `j` is valid UTF-8; `replace` only makes sure the dump
  // cannot throw.
  return j.dump(indent < 0 ? -1 : indent, ' ', false, Json::error_handler_t::replace);
}

// ---- JSON text -> tree ------------------------------------------------------------------------

// The DOM builder, plus: a depth limit, repeated member names refused (the
// DOM would keep only the last), and the error texts.
class SaxParser : public nlohmann::detail::json_sax_dom_parser<Json> {
  using Base = nlohmann::detail::json_sax_dom_parser<Json>;

 public:
  SaxParser(Json& root, std::string_view text) : Base(root, false), text_(text) {}

  const std::string& error() const { return error_; }

  bool null() { return value() && Base::null(); }
  bool boolean(bool v) { return value() && Base::boolean(v); }
  bool number_integer(number_integer_t v) { return value() && Base::number_integer(v); }
  bool number_unsigned(number_unsigned_t v) { return value() && Base::number_unsigned(v); }
  bool number_float(number_float_t v, const string_t& s) { return value() && Base::number_float(v, s); }
  bool string(string_t& v) { return value() && Base::string(v); }
  bool binary(binary_t& v) { return value() && Base::binary(v); }
  bool start_object(std::size_t n) { return value() && enter(true) && Base::start_object(n); }
  bool start_array(std::size_t n) { return value() && enter(false) && Base::start_array(n); }
  bool end_object() {
    frames_.pop_back();
    return Base::end_object();
  }
  bool end_array() {
    frames_.pop_back();
    return Base::end_array();
  }
  bool key(string_t& k) {
    Frame& f = frames_.back();
    f.key = k;
    if (!f.keys.insert(k).second) {
      error_ = "at " + path() + ": the member appears twice";
      return false;
    }
    return Base::key(k);
  }
  bool parse_error(std::size_t position, const std::string& /*token*/, const nlohmann::detail::exception& ex) {
    // what(): "[json.exception.parse_error.101] parse error at line 1,
    // column 2: syntax error while ..."; keep the part after the position.
    std::string what = ex.what();
    const size_t head = what.find("parse error");
    const size_t colon = head == std::string::npos ? head : what.find(": ", head);
    if (colon != std::string::npos) what.erase(0, colon + 2);
    error_ = "JSON error at " + positionText(position) + ": " + printable(what);
    return false;
  }

 private:
  struct Frame {
    bool object;
    size_t index = 0;         // arrays: elements so far
    std::string key;          // objects: the current member
    std::set<std::string> keys;
  };

  // Counts array elements, for the path of an error.
  bool value() {
    if (!frames_.empty() && !frames_.back().object) ++frames_.back().index;
    return true;
  }
  bool enter(bool object) {
    if (frames_.size() >= kMaxDepth) {
      error_ = format("JSON nested deeper than %u levels", kMaxDepth);
      return false;
    }
    frames_.push_back(Frame{object, 0, {}, {}});
    return true;
  }
  std::string path() const {
    std::string p;
    for (const Frame& f : frames_) {
      if (!p.empty()) p += " / ";
      if (f.object) p += printable(Json(f.key).dump(-1, ' ', false, Json::error_handler_t::replace));
      else p += format("[%zu]", f.index - 1);
    }
    return p.empty() ? "the top" : p;
  }
  // `position` counts the bytes read, the offending one included.
  std::string positionText(size_t position) const {
    const size_t at = std::min(position ? position - 1 : 0, text_.size());
    size_t line = 1, column = 1;
    for (size_t i = 0; i < at; ++i) {
      if (text_[i] == '\n') ++line, column = 1;
      else ++column;
    }
    return format("line %zu, column %zu (byte %zu)", line, column, position);
  }

  std::string_view text_;
  std::vector<Frame> frames_;
  std::string error_;
};

// ---- Tree -> fields ----------------------------------------------------------------------------------

class Reader {
 public:
  const std::string& error() const { return error_; }

  // The members of a JSON object at depth `depth`.
  bool object(const Json& j, std::vector<Field>& out, unsigned depth) {
    const Json::object_t* obj = j.get_ptr<const Json::object_t*>();
    if (!obj) return fail("expected an object");
    std::map<uint32_t, const std::string*> seen;
    for (const auto& [key, v] : *obj) {
      path_.push_back(printable(Json(key).dump(-1, ' ', false, Json::error_handler_t::replace)));
      Field f{0, false};
      if (!member(key, v, f, depth)) return false;
      auto [it, fresh] = seen.emplace(f.id, &key);
      if (!fresh) return fail("the same field as \"" + printable(*it->second) + "\"");
      out.push_back(std::move(f));
      path_.pop_back();
    }
    return true;
  }

 private:
  bool fail(const std::string& what) {
    std::string p;
    for (const std::string& s : path_) p += (p.empty() ? "" : " / ") + s;
    error_ = p.empty() ? what : "at " + p + ": " + what;
    return false;
  }

  bool member(const std::string& key, const Json& v, Field& f, unsigned depth) {
    const size_t colon = key.find(':');
    if (colon == std::string::npos) return fail("a member name is \"<kind>:<field>\", e.g. \"u32:SYS_CMD\"");
    std::string_view kindText = std::string_view(key).substr(0, colon);
    uint32_t kindBits = 0;
    if (kindText.size() > 2 && kindText.substr(kindText.size() - 2) == "[]") {
      kindBits = kind::kArray;
      kindText.remove_suffix(2);
    }
    const KindName* k = nullptr;
    for (const KindName& c : kKinds)
      if (c.name == kindText) k = &c;
    if (!k)
      return fail("unknown kind \"" + printable(key.substr(0, colon)) +
                  "\" (bool, u32, u64, addr6, string, message, raw, or one of them followed by [])");
    kindBits |= k->bits;
    uint32_t number = 0;
    if (!fieldNumberOf(std::string_view(key).substr(colon + 1), number)) return false;
    f.id = number | kindBits;
    return value(f.id, v, f.value, depth);
  }

  bool fieldNumberOf(std::string_view t, uint32_t& n) {
    uint64_t v = 0;
    auto digits = [&](std::string_view d, unsigned base) {
      if (d.empty()) return false;
      for (char c : d) {
        const int x = base == 16 ? hexValue(c) : (c >= '0' && c <= '9' ? c - '0' : -1);
        if (x < 0) return false;
        v = v * base + x;
        if (v > kIdBits) v = uint64_t(kIdBits) + 1;  // too big, whatever follows
      }
      return true;
    };
    if (t.size() >= 2 && t[0] == '0' && (t[1] == 'x' || t[1] == 'X')) {
      if (!digits(t.substr(2), 16)) return fail("bad hex field number \"" + printable(t) + "\"");
    } else if (!t.empty() && t[0] >= '0' && t[0] <= '9') {
      if (!digits(t, 10)) return fail("bad field number \"" + printable(t) + "\"");
    } else {
      unsigned int named;
      if (!fieldNumber(t, &named)) return fail("unknown field name \"" + printable(t) + "\"");
      v = named;
    }
    if (v > kIdBits) return fail("field number above 0x7ffffff (bits 31..27 are the kind)");
    if (v & kind::kFlatBit) return fail("bit 24 (0x1000000) is never part of a stored field id");
    n = static_cast<uint32_t>(v);
    return true;
  }

  // ---- One value of each kind.

  bool boolValue(const Json& v, bool& out) {
    const bool* b = v.get_ptr<const bool*>();
    if (!b) return fail("expected true or false");
    out = *b;
    return true;
  }
  bool u32Value(const Json& v, unsigned int& out) {
    if (const auto* u = v.get_ptr<const Json::number_unsigned_t*>(); u && *u <= 0xFFFFFFFFu) {
      out = static_cast<unsigned int>(*u);
      return true;
    }
    if (const std::string* s = v.get_ptr<const std::string*>()) {
      if (constantValue(*s, &out)) return true;
      return fail("unknown constant name \"" + printable(*s) + "\"");
    }
    return fail("expected a number 0..4294967295 or a constant name");
  }
  bool u64Value(const Json& v, unsigned long long& out) {
    const auto* u = v.get_ptr<const Json::number_unsigned_t*>();
    if (!u) return fail("expected a number 0..18446744073709551615");
    out = *u;
    return true;
  }
  bool addr6Value(const Json& v, IPAddr6& out) {
    const std::string* s = v.get_ptr<const std::string*>();
    if (!s) return fail("expected an IPv6 address string");
    if (!out.fromStr(*s)) return fail("bad IPv6 address \"" + printable(*s) + "\"");
    return true;
  }
  bool hexText(const std::string& s, Bytes& out) {
    std::string why;
    if (!fromHex(s, false, out, why)) return fail("bad hex: " + why);
    if (out.size() > kMaxLength) return fail(format("%zu bytes, more than 65535", out.size()));
    return true;
  }
  bool stringValue(const Json& v, std::string& out) {
    if (const std::string* s = v.get_ptr<const std::string*>()) {
      if (s->size() > kMaxLength) return fail(format("%zu bytes, more than 65535", s->size()));
      out = *s;
      return true;
    }
    const Json::object_t* o = v.get_ptr<const Json::object_t*>();
    const std::string* hex = o && o->size() == 1 && o->begin()->first == "hex"
                                 ? o->begin()->second.get_ptr<const std::string*>()
                                 : nullptr;
    if (!hex) return fail("expected a string or {\"hex\": \"<hex digits>\"}");
    Bytes b;
    if (!hexText(*hex, b)) return false;
    out.assign(b.begin(), b.end());
    return true;
  }
  bool rawValue(const Json& v, Bytes& out) {
    const std::string* s = v.get_ptr<const std::string*>();
    if (!s) return fail("expected a string of hex digits");
    return hexText(*s, out);
  }
  // A nested message whose object would sit at depth `depth`.
  bool messageValue(const Json& v, flat_message& out, unsigned depth) {
    if (const std::string* s = v.get_ptr<const std::string*>()) {
      if (s->compare(0, 5, "flat:") != 0) return fail("expected an object or a \"flat:<hex digits>\" string");
      Bytes b;
      if (!hexText(s->substr(5), b)) return false;
      out = flat_message(std::move(b));
      return true;
    }
    if (!v.is_object()) return fail("expected an object or a \"flat:<hex digits>\" string");
    std::vector<Field> fields;
    if (!object(v, fields, depth)) return false;
    out = flat_message(flatOf(buildMessage(std::move(fields))));
    if (out.size() > kMaxLength) return fail(format("the nested message takes %zu bytes, more than 65535", out.size()));
    return true;
  }

  template <class E, class F>
  bool arrayValue(const Json& v, Value& out, F one) {
    const Json::array_t* a = v.get_ptr<const Json::array_t*>();
    if (!a) return fail("expected an array");
    if (a->size() > kMaxLength) return fail(format("%zu elements, more than 65535", a->size()));
    std::vector<E> elements;
    elements.reserve(a->size());
    for (size_t i = 0; i < a->size(); ++i) {
      path_.push_back(format("[%zu]", i));
      E e{};
      if (!(this->*one)((*a)[i], e)) return false;
      elements.push_back(std::move(e));
      path_.pop_back();
    }
    out = std::move(elements);
    return true;
  }

  template <class T, class F>
  bool scalarValue(const Json& v, Value& out, F one) {
    T x{};
    if (!(this->*one)(v, x)) return false;
    out = std::move(x);
    return true;
  }

  // The value of field `id` held by an object at depth `depth`.
  bool value(uint32_t id, const Json& v, Value& out, unsigned depth) {
    switch (kind::of(id)) {
      case kind::kBool: return scalarValue<bool>(v, out, &Reader::boolValue);
      case kind::kU32: return scalarValue<unsigned int>(v, out, &Reader::u32Value);
      case kind::kU64: return scalarValue<unsigned long long>(v, out, &Reader::u64Value);
      case kind::kAddr6: return scalarValue<IPAddr6>(v, out, &Reader::addr6Value);
      case kind::kString: return scalarValue<std::string>(v, out, &Reader::stringValue);
      case kind::kRaw: return scalarValue<Bytes>(v, out, &Reader::rawValue);
      case kind::kMessage: {
        flat_message f;
        if (!messageValue(v, f, depth + 1)) return false;
        out = std::move(f);
        return true;
      }
      case kind::kArray | kind::kBool: return arrayValue<bool>(v, out, &Reader::boolValue);
      case kind::kArray | kind::kU32: return arrayValue<unsigned int>(v, out, &Reader::u32Value);
      case kind::kArray | kind::kU64: return arrayValue<unsigned long long>(v, out, &Reader::u64Value);
      case kind::kArray | kind::kAddr6: return arrayValue<IPAddr6>(v, out, &Reader::addr6Value);
      case kind::kArray | kind::kString: return arrayValue<std::string>(v, out, &Reader::stringValue);
      case kind::kArray | kind::kRaw: return arrayValue<Bytes>(v, out, &Reader::rawValue);
      case kind::kArray | kind::kMessage: {
        nestedDepth_ = depth + 2;
        return arrayValue<flat_message>(v, out, &Reader::nestedElement);
      }
      default: return fail("unknown kind");  // not reached: the kind comes from kKinds
    }
  }
  bool nestedElement(const Json& v, flat_message& out) {
    const unsigned depth = nestedDepth_;
    const bool ok = messageValue(v, out, depth);
    nestedDepth_ = depth;  // restore after nested arrays changed it
    return ok;
  }

  std::vector<std::string> path_;
  std::string error_;
  unsigned nestedDepth_ = 0;
};

// JSON text to the top object's fields.
bool parseFields(std::string_view text, std::vector<Field>& fields, std::string& error) {
  Json root;
  SaxParser sax(root, text);
  if (!Json::sax_parse(text.begin(), text.end(), &sax, nlohmann::detail::input_format_t::json, true, false)) {
    error = sax.error().empty() ? "JSON error" : sax.error();
    return false;
  }
  if (!root.is_object()) {
    error = "the JSON text is not an object";
    return false;
  }
  Reader reader;
  if (!reader.object(root, fields, 1)) {
    error = reader.error();
    return false;
  }
  return true;
}

}  // namespace

std::string messageToJson(const message& m, int indent) { return dump(objectJson(m, 1), indent); }

bool flatToJson(const unsigned char* data, size_t len, std::string& out, std::string& error, int indent) {
  message m;
  if (len > 0xFFFFFFFFu || !m.unflatten(data, static_cast<unsigned int>(len), kFlatNormal)) {
    error = "not a flat message: " + flatProblem(data, len);
    return false;
  }
  out = dump(objectJson(m, 1), indent);
  return true;
}

bool messageFromJson(std::string_view text, message& out, std::string& error) {
  std::vector<Field> fields;
  if (!parseFields(text, fields, error)) return false;
  out = buildMessage(std::move(fields));
  return true;
}

bool flatFromJson(std::string_view text, std::vector<unsigned char>& out, std::string& error) {
  std::vector<Field> fields;
  if (!parseFields(text, fields, error)) return false;
  out = flatOf(buildMessage(std::move(fields)));
  return true;
}

std::string toHex(const unsigned char* data, size_t len) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string s(2 * len, '0');
  for (size_t i = 0; i < len; ++i) {
    s[2 * i] = kDigits[data[i] >> 4];
    s[2 * i + 1] = kDigits[data[i] & 15];
  }
  return s;
}

bool fromHex(std::string_view text, bool skipSpace, std::vector<unsigned char>& out, std::string& error) {
  out.clear();
  out.reserve(text.size() / 2);
  int high = -1;
  for (size_t i = 0; i < text.size(); ++i) {
    if (skipSpace && isSpace(text[i])) continue;
    const int v = hexValue(text[i]);
    if (v < 0) {
      error = "bad hex digit " + describeChar(text[i]) + format(" at offset %zu", i);
      return false;
    }
    if (high < 0) {
      high = v;
    } else {
      out.push_back(static_cast<unsigned char>(high << 4 | v));
      high = -1;
    }
  }
  if (high >= 0) {
    error = "odd number of hex digits";
    return false;
  }
  return true;
}

std::string flatProblem(const unsigned char* data, size_t len) {
  std::string why;
  if (walkFlat(data, len, &why)) {
    message m;
    return len <= 0xFFFFFFFFu && m.unflatten(data, static_cast<unsigned int>(len), kFlatNormal) ? ""
                                                                                              : "malformed flat message";
  }
  return why;
}

}  // namespace kr::msgjson
