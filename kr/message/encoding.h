// Text encodings of binary data: base64 and base32 (RFC 4648, padded) and
// hex, for keys, hashes and blobs that travel inside text fields and config.
//
//   char buf[8];
//   int n = kr::base64Encode((const unsigned char*)"foo", 3, buf, sizeof buf);  // 4: "Zm9v"
//   std::string bytes;
//   kr::base64Decode(std::string("Zm9vYg=="), bytes);                          // "foob"
//   kr::bin2hex((const unsigned char*)"\x0f\xa0", 2, false);                    // "0fa0"
//
// Buffer forms write into memory the caller owns and never append a
// terminating zero; they return the count, or -1 when `room` is too small or
// the input is malformed. String forms return or fill strings the caller then
// owns. Only the string forms allocate. Nothing throws (beyond std::bad_alloc
// from the string forms).
//
// Decoding is lenient in ways callers have come to rely on, so keep them:
//   - characters outside the alphabet between groups (white space, line
//     breaks) are skipped, but the result length is computed from the whole
//     input, skipped characters included: "Zm9v\n\n\n\nYmFy" writes the 6 bytes
//     "foobar" and returns 9; the last 3 bytes are not written (the string
//     forms leave zeros there);
//   - "=" and the byte 0 are part of the alphabet as far as validity goes
//     (values 64/65, base32 32/33), so "Zm\0v" decodes without error;
//   - input shorter than one group decodes to 0 bytes and succeeds.
//
// Thread safety: the reverse tables are built without locking on the first
// decode. The first call of each decoder must not race with another; call
// base64InitDecodeTable() / base32InitDecodeTable() before starting threads
// to make every later decode safe.
#pragma once

#include <string>

namespace kr {

// Alphabets, with the pad character at index 64 (base32: 32).
inline constexpr char base64EncodeTable[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
inline constexpr char base32EncodeTable[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZ234567=";

// Reverse tables, 256 entries indexed by byte value: the character's position
// in the alphabet string (strchr semantics, so byte 0 maps to the terminator's
// position, 65 or 33), or 255 when it is not in the alphabet. Null until the
// matching init function (or the first decode) has run.
extern const unsigned char* base64DecodeTable;
extern const unsigned char* base32DecodeTable;
void base64InitDecodeTable();
void base32InitDecodeTable();

// Inputs whose result would not fit an int (over about 1.5 GiB) fail with -1.

// Writes ceil(len/3)*4 characters; -1 (nothing written) when room is smaller.
int base64Encode(const unsigned char* in, unsigned int len, char* out, unsigned int room);
// Writes at most (len/4)*3 bytes; -1 when room is smaller than that, when a
// group holds a character outside the alphabet, or when the input ends inside
// a group. Returns (len/4)*3 minus the trailing padding (see above).
int base64Decode(const char* in, unsigned int len, unsigned char* out, unsigned int room);
// As base64 with 5-byte groups of 8 characters: ceil(len/5)*8 characters.
int base32Encode(const unsigned char* in, unsigned int len, char* out, unsigned int room);
// As base64Decode with 8-character groups of 5 bytes: at most (len/8)*5 bytes.
int base32Decode(const char* in, unsigned int len, unsigned char* out, unsigned int room);

std::string base64Encode(const std::string& in);
std::string base32Encode(const std::string& in);
// True and the bytes in `out`; false and `out` untouched on malformed input.
// `in` and `out` may be the same string.
bool base64Decode(const std::string& in, std::string& out);
bool base32Decode(const std::string& in, std::string& out);

// Two digits per byte, lower case unless `upper`. Empty for len <= 0.
std::string bin2hex(const unsigned char* in, int len, bool upper);
// The value 0..15 of a hex digit of either case, 256 for anything else (so a
// caller can OR two results and test for >= 256 once).
unsigned int hex2bin(char c);
// Parses len characters as pairs of hex digits into `out`. False for an odd
// length (out untouched); otherwise out is replaced, and false at the first
// bad pair leaves the bytes before that pair in out.
bool hex2bin(const char* text, unsigned int len, std::string& out);

}  // namespace kr
