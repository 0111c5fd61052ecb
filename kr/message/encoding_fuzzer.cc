// libFuzzer target for the text encodings. Decoders get arbitrary text and a
// room taken from the first two input bytes, often smaller than needed, into
// a heap buffer of exactly that size so ASan reports any write past it.
// Encoders must round-trip arbitrary bytes exactly.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "kr/message/encoding.h"

namespace {

using Decoder = int (*)(const char*, unsigned, unsigned char*, unsigned);
using Encoder = int (*)(const unsigned char*, unsigned, char*, unsigned);

void check(bool ok) {
  if (!ok) __builtin_trap();
}

int decodeInto(Decoder dec, const char* text, unsigned len, unsigned room) {
  std::unique_ptr<unsigned char[]> buf(new unsigned char[room]);
  return dec(text, len, buf.get(), room);
}

void fuzzDecoder(Decoder dec, unsigned chars, unsigned bytes, unsigned seed, const char* text,
                 unsigned len) {
  const unsigned n = len / chars * bytes;
  const unsigned room = seed % (n + 8);  // mostly around n, both sides
  const int r = decodeInto(dec, text, len, room);
  check(r == -1 || (r >= 0 && unsigned(r) <= room && unsigned(r) <= n));
  if (room < n) check(r == -1);
  // With enough room the outcome must not depend on how much room there is.
  if (room >= n) check(r == decodeInto(dec, text, len, n));
}

void fuzzHex(const char* text, unsigned len) {
  std::string out = "untouched";
  const bool ok = kr::hex2bin(text, len, out);
  if (len % 2) return check(!ok && out == "untouched");
  check(out.size() <= len / 2);
  if (!ok) return check(out.size() < len / 2);
  std::string lower(text, len);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  check(out.size() == len / 2 &&
        kr::bin2hex(reinterpret_cast<const unsigned char*>(out.data()), int(out.size()), false) ==
            lower);
}

void roundTrip(Encoder enc, Decoder dec, unsigned chars, unsigned bytes,
               const unsigned char* data, unsigned len) {
  const unsigned need = (len + bytes - 1) / bytes * chars;
  std::unique_ptr<char[]> text(new char[need]);
  check(enc(data, len, text.get(), need) == int(need));
  if (need) check(enc(data, len, text.get(), need - 1) == -1);
  const unsigned room = need / chars * bytes;
  std::unique_ptr<unsigned char[]> back(new unsigned char[room]);
  check(dec(text.get(), need, back.get(), room) == int(len));
  check(len == 0 || std::memcmp(back.get(), data, len) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const unsigned seed = data[0] | unsigned(data[1]) << 8;
  const char* text = reinterpret_cast<const char*>(data + 2);
  const unsigned len = static_cast<unsigned>(size - 2);
  fuzzDecoder(kr::base64Decode, 4, 3, seed, text, len);
  fuzzDecoder(kr::base32Decode, 8, 5, seed, text, len);
  fuzzHex(text, len);
  roundTrip(kr::base64Encode, kr::base64Decode, 4, 3, data, unsigned(size));
  roundTrip(kr::base32Encode, kr::base32Decode, 8, 5, data, unsigned(size));
  return 0;
}
