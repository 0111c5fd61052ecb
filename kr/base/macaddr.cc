#include "kr/base/macaddr.h"

#include <cstring>
#include <ostream>

namespace kr {
namespace {

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

MacAddr::MacAddr(const uint8_t b[6]) { std::memcpy(bytes, b, 6); }

bool MacAddr::empty() const { return *this == MacAddr(); }

std::string MacAddr::str() const {
  static constexpr char kHex[] = "0123456789abcdef";
  std::string out(17, ':');
  for (int i = 0; i < 6; ++i) {
    out[3 * i] = kHex[bytes[i] >> 4];
    out[3 * i + 1] = kHex[bytes[i] & 0xf];
  }
  return out;
}

bool MacAddr::fromStr(std::string_view text) {
  // Exactly "xx?xx?xx?xx?xx?xx" with one separator used throughout, so a
  // mix such as "00:11-22:..." is treated as the typo it probably is.
  if (text.size() != 17) return false;
  char sep = text[2];
  if (sep != ':' && sep != '-') return false;
  uint8_t parsed[6];
  for (int i = 0; i < 6; ++i) {
    if (i > 0 && text[3 * i - 1] != sep) return false;
    int hi = hexDigit(text[3 * i]), lo = hexDigit(text[3 * i + 1]);
    if (hi < 0 || lo < 0) return false;
    parsed[i] = uint8_t(hi << 4 | lo);
  }
  std::memcpy(bytes, parsed, 6);
  return true;
}

std::ostream& operator<<(std::ostream& os, const MacAddr& m) { return os << m.str(); }

}  // namespace kr
