// SipHash-2-4 and HalfSipHash-2-4: keyed hashes for hash tables and cookies
// whose inputs an attacker may choose. With a secret key, colliding inputs
// cannot be precomputed, unlike with a plain hash.
//
//   unsigned char key[16] = {...}, tag[8];
//   kr::siphash(data, len, key, tag, 8);    // 8-byte tag; 16 for the wide one
//
// Key, message words and output are little-endian whatever the host, so tags
// agree between machines. The caller owns `out` and sizes it for `outlen`.
// No alignment is required. Pure functions: thread-safe, nothing allocated.
#pragma once

namespace kr {

// 16-byte key. outlen 16 selects the 128-bit variant; any other value gives
// the 64-bit one and writes 8 bytes (outlen is not checked further).
void siphash(const void* in, unsigned int len, const void* key, void* out, unsigned int outlen);

// 8-byte key; cheaper on 32-bit cores, weaker. outlen 8 selects the 64-bit
// variant; any other value gives the 32-bit one and writes 4 bytes.
void halfsiphash(const void* in, unsigned int len, const void* key, void* out,
                 unsigned int outlen);

}  // namespace kr
