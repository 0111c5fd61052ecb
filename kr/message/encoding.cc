#include "kr/message/encoding.h"

#include <climits>
#include <cstdint>
#include <cstring>

namespace kr {
namespace {

constexpr unsigned char kNotInAlphabet = 255;

// One RFC 4648 encoding: `chars` characters of `bits` bits carry `bytes`
// bytes. The pad character sits at alphabet[1 << bits].
struct Layout {
  const char* alphabet;
  unsigned chars, bytes, bits;
};
constexpr Layout kBase64{base64EncodeTable, 4, 3, 6};
constexpr Layout kBase32{base32EncodeTable, 8, 5, 5};

unsigned char base64Storage[256];
unsigned char base32Storage[256];

void buildTable(const char* alphabet, unsigned char* table) {
  // strchr, not a plain scan: it also finds the terminator for byte 0. That
  // mapping (and "=" being found at all) is long-standing behaviour.
  for (int c = 0; c < 256; ++c) {
    const char* p = std::strchr(alphabet, c);
    table[c] = p ? static_cast<unsigned char>(p - alphabet) : kNotInAlphabet;
  }
}

// Whole-group count times group size, in 64 bits so that large lengths can
// be rejected instead of wrapping.
uint64_t groupsTimes(unsigned len, unsigned per, unsigned size, bool roundUp) {
  uint64_t groups = (uint64_t(len) + (roundUp ? per - 1 : 0)) / per;
  return groups * size;
}

void encodeGroup(const Layout& l, const unsigned char* in, unsigned take, char* out) {
  uint64_t v = 0;
  for (unsigned k = 0; k < l.bytes; ++k) v = v << 8 | (k < take ? in[k] : 0);
  const unsigned used = (take * 8 + l.bits - 1) / l.bits;  // characters with data bits
  const uint64_t mask = (1u << l.bits) - 1;
  for (unsigned c = 0; c < l.chars; ++c) {
    const unsigned shift = l.bits * (l.chars - 1 - c);
    out[c] = c < used ? l.alphabet[(v >> shift) & mask] : l.alphabet[1u << l.bits];
  }
}

int encode(const Layout& l, const unsigned char* in, unsigned len, char* out, unsigned room) {
  const uint64_t need = groupsTimes(len, l.bytes, l.chars, true);
  if (need > room || need > INT_MAX) return -1;
  // need <= INT_MAX keeps len far from UINT_MAX, so `i` cannot wrap.
  for (unsigned i = 0; i < len; i += l.bytes, out += l.chars) {
    encodeGroup(l, in + i, len - i < l.bytes ? len - i : l.bytes, out);
  }
  return static_cast<int>(need);
}

// Decodes one group starting at in[0]; false if any character is outside the
// alphabet. Pad and NUL values (64/65, 32/33) are wider than `bits` and spill
// into the neighbouring bits; the spill only reaches bytes that the trailing
// padding later excludes, and the per-byte cast keeps it out of other bytes.
bool decodeGroup(const Layout& l, const unsigned char* table, const char* in,
                 unsigned char* out) {
  uint64_t v = 0;
  for (unsigned c = 0; c < l.chars; ++c) {
    const unsigned char d = table[static_cast<unsigned char>(in[c])];
    if (d == kNotInAlphabet) return false;
    v = v << l.bits | d;
  }
  for (unsigned b = 0; b < l.bytes; ++b) {
    out[b] = static_cast<unsigned char>(v >> (8 * (l.bytes - 1 - b)));
  }
  return true;
}

// The full-group length n, or -1. Every group written consumes l.chars input
// characters, so at most len / l.chars groups, i.e. n <= room bytes, are
// written however many characters are skipped.
int decode(const Layout& l, const unsigned char* table, const char* in, unsigned len,
           unsigned char* out, unsigned room) {
  const uint64_t n = groupsTimes(len, l.chars, l.bytes, false);
  if (n > room || n > INT_MAX) return -1;
  if (n == 0) return 0;
  unsigned i = 0;
  for (;;) {
    while (i < len && table[static_cast<unsigned char>(in[i])] == kNotInAlphabet) ++i;
    if (i == len) return static_cast<int>(n);
    if (len - i < l.chars) return -1;  // input ends inside a group
    if (!decodeGroup(l, table, in + i, out)) return -1;
    i += l.chars;
    out += l.bytes;
  }
}

// Bytes to drop for the padding at the very end; len is at least one group.
int base64Padding(const char* in, unsigned len) {
  if (in[len - 2] == '=') return 2;
  return in[len - 1] == '=' ? 1 : 0;
}

int base32Padding(const char* in, unsigned len) {
  if (in[len - 6] == '=') return 4;
  if (in[len - 4] == '=') return 3;
  if (in[len - 3] == '=') return 2;
  return in[len - 1] == '=' ? 1 : 0;
}

const unsigned char* tableFor64() {
  if (!base64DecodeTable) base64InitDecodeTable();
  return base64DecodeTable;
}

const unsigned char* tableFor32() {
  if (!base32DecodeTable) base32InitDecodeTable();
  return base32DecodeTable;
}

const unsigned char* bytesOf(const std::string& s) {
  return reinterpret_cast<const unsigned char*>(s.data());
}

template <int (*Encode)(const unsigned char*, unsigned, char*, unsigned)>
std::string encodeString(const std::string& in, unsigned per, unsigned size) {
  if (in.size() > UINT_MAX) return {};
  std::string out(groupsTimes(unsigned(in.size()), per, size, true), '\0');
  const int r = Encode(bytesOf(in), unsigned(in.size()), out.data(), unsigned(out.size()));
  out.resize(r < 0 ? 0 : r);
  return out;
}

// Decodes into a fresh string so that `in` may alias `out` and a failure
// leaves `out` as it was.
template <int (*Decode)(const char*, unsigned, unsigned char*, unsigned)>
bool decodeString(const std::string& in, std::string& out, unsigned per, unsigned size) {
  if (in.size() > UINT_MAX) return false;
  std::string bytes(groupsTimes(unsigned(in.size()), per, size, false), '\0');
  const int r = Decode(in.data(), unsigned(in.size()),
                       reinterpret_cast<unsigned char*>(bytes.data()), unsigned(bytes.size()));
  if (r < 0) return false;
  bytes.resize(r);
  out = std::move(bytes);
  return true;
}

}  // namespace

const unsigned char* base64DecodeTable = nullptr;
const unsigned char* base32DecodeTable = nullptr;

void base64InitDecodeTable() {
  buildTable(base64EncodeTable, base64Storage);
  base64DecodeTable = base64Storage;
}

void base32InitDecodeTable() {
  buildTable(base32EncodeTable, base32Storage);
  base32DecodeTable = base32Storage;
}

int base64Encode(const unsigned char* in, unsigned int len, char* out, unsigned int room) {
  return encode(kBase64, in, len, out, room);
}

int base32Encode(const unsigned char* in, unsigned int len, char* out, unsigned int room) {
  return encode(kBase32, in, len, out, room);
}

int base64Decode(const char* in, unsigned int len, unsigned char* out, unsigned int room) {
  const int n = decode(kBase64, tableFor64(), in, len, out, room);
  return n > 0 ? n - base64Padding(in, len) : n;
}

int base32Decode(const char* in, unsigned int len, unsigned char* out, unsigned int room) {
  const int n = decode(kBase32, tableFor32(), in, len, out, room);
  return n > 0 ? n - base32Padding(in, len) : n;
}

std::string base64Encode(const std::string& in) {
  return encodeString<base64Encode>(in, kBase64.bytes, kBase64.chars);
}

std::string base32Encode(const std::string& in) {
  return encodeString<base32Encode>(in, kBase32.bytes, kBase32.chars);
}

bool base64Decode(const std::string& in, std::string& out) {
  return decodeString<base64Decode>(in, out, kBase64.chars, kBase64.bytes);
}

bool base32Decode(const std::string& in, std::string& out) {
  return decodeString<base32Decode>(in, out, kBase32.chars, kBase32.bytes);
}

std::string bin2hex(const unsigned char* in, int len, bool upper) {
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  std::string out;
  if (len <= 0) return out;
  out.resize(size_t(len) * 2);
  for (int i = 0; i < len; ++i) {
    out[2 * size_t(i)] = digits[in[i] >> 4];
    out[2 * size_t(i) + 1] = digits[in[i] & 0xF];
  }
  return out;
}

unsigned int hex2bin(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return 256;
}

bool hex2bin(const char* text, unsigned int len, std::string& out) {
  if (len % 2 != 0) return false;
  out.clear();
  out.reserve(len / 2);
  for (unsigned i = 0; i < len; i += 2) {
    const unsigned hi = hex2bin(text[i]), lo = hex2bin(text[i + 1]);
    if ((hi | lo) >= 256) return false;
    out.push_back(static_cast<char>(hi << 4 | lo));
  }
  return true;
}

}  // namespace kr
