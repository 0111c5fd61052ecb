// Numbers as the platform's configuration files and command lines write
// them: a whole word, nothing around it, not even blanks.
//
//   uint32_t address;
//   if (!kr::platform::parseUnsigned("0x28", &address)) ...   // 40
//   kr::platform::parseUnsigned("c0", &bits, 16);              // 192
#pragma once

#include <charconv>
#include <string_view>
#include <system_error>

namespace kr::platform {

// text as an unsigned T. Base 0 takes decimal or 0x-hex, base 16 hex with
// or without 0x, base 10 decimal only. False when the word is not such a
// number or does not fit T; *out is then unchanged.
template <class T>
bool parseUnsigned(std::string_view text, T* out, int base = 0) {
  if (base != 10 && text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  if (base == 0) base = 10;
  if (text.empty()) return false;
  T v{};
  const char* end = text.data() + text.size();
  const auto [ptr, ec] = std::from_chars(text.data(), end, v, base);
  if (ec != std::errc() || ptr != end) return false;
  *out = v;
  return true;
}

}  // namespace kr::platform
