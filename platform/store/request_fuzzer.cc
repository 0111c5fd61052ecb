// libFuzzer target for kr-store's request parser (request.cc), the code
// that reads what clients send.
//
// Input: one request packet, as recv() hands it over.
//
// An oracle decides, from the bytes alone and without the parser's
// reader, which error the packet deserves (the first that applies, in
// the order the wire is read). Checks:
//   - the parser reports exactly that error;
//   - a packet it accepts comes back byte for byte when its Request is
//     written out again, so no field was misread and no byte skipped;
//   - every view in an accepted Request lies inside the packet;
//   - an accepted Request is within the service's limits.
// A violated check prints what failed and aborts.
//
// The fuzz build links a target's one source with the kr objects only, so
// the parser is compiled in here rather than linked.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "platform/store/request.cc"  // NOLINT(bugprone-suspicious-include)

#include "fuzz/fuzz_check.h"

namespace {

using kr::storesvc::ParseError;
using kr::storesvc::Request;
namespace s = kr::storesvc;

uint32_t wordAt(const uint8_t* p, size_t i) {
  uint32_t w;
  std::memcpy(&w, p + 4 * i, 4);
  return w;
}

ParseError listError(const uint8_t* p, size_t n) {
  if (n < 12) return ParseError::kShort;
  const uint32_t buffer = wordAt(p, 2);
  if (buffer < 16 || buffer > 256 * 1024) return ParseError::kBadBufferSize;
  if (n == 12 || n - 12 > 1024) return ParseError::kBadName;
  return ParseError::kNone;
}

ParseError backupError(const uint8_t* p, size_t n) {
  if (n < 12) return ParseError::kShort;
  const uint32_t len = wordAt(p, 2);
  if (len > n - 12) return ParseError::kBadLength;
  const uint8_t* path = p + 12;
  if (len == 0 || len > 4095 || path[0] != '/' || std::memchr(path, 0, len)) return ParseError::kBadBackupPath;
  if (n - 12 - len > 1024) return ParseError::kLabelTooLong;
  return ParseError::kNone;
}

ParseError oracle(const uint8_t* p, size_t n) {
  if (n < 4) return ParseError::kShort;
  switch (wordAt(p, 0)) {
    case 0: return listError(p, n);
    case 1: return n < 16 ? ParseError::kShort : n > 16 ? ParseError::kBadLength : ParseError::kNone;
    case 2:
      if (n < 12) return ParseError::kShort;
      if (wordAt(p, 2) == 0xFFFFFFFF) return ParseError::kReservedId;
      return n - 12 > 65535 ? ParseError::kTooLarge : ParseError::kNone;
    case 3: return backupError(p, n);
    case 4: return n < 8 ? ParseError::kShort : n > 8 ? ParseError::kBadLength : ParseError::kNone;
    default: return ParseError::kUnknownKind;
  }
}

void put(std::vector<uint8_t>& out, uint32_t w) {
  const size_t at = out.size();
  out.resize(at + 4);
  std::memcpy(out.data() + at, &w, 4);
}

void put(std::vector<uint8_t>& out, const void* p, size_t n) {
  out.insert(out.end(), static_cast<const uint8_t*>(p), static_cast<const uint8_t*>(p) + n);
}

std::vector<uint8_t> encode(const Request& r) {
  std::vector<uint8_t> out;
  put(out, r.kind);
  switch (r.kind) {
    case s::kList: put(out, r.cookie), put(out, r.bufferSize), put(out, r.name.data(), r.name.size()); break;
    case s::kGet: put(out, r.sid), put(out, r.id), put(out, r.bufferSize); break;
    case s::kUpdate: put(out, r.sid), put(out, r.id), put(out, r.data.data(), r.data.size()); break;
    case s::kBackup:
      put(out, r.flag), put(out, uint32_t(r.name.size())), put(out, r.name.data(), r.name.size());
      put(out, r.label.data(), r.label.size());
      break;
    case s::kReset: put(out, r.flag); break;
    default: CHECK(!"kind out of range", r.kind);
  }
  return out;
}

bool inside(const void* view, size_t len, const uint8_t* p, size_t n) {
  const auto* v = static_cast<const uint8_t*>(view);
  return len == 0 || (v >= p && len <= n && size_t(v - p) <= n - len);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Request r;
  const ParseError got = s::parseRequest(data, size, &r);
  const ParseError want = oracle(data, size);
  CHECK(got == want, int(got) * 100 + int(want));
  CHECK(std::strlen(s::parseErrorText(got)) > 0, 0);
  if (got != ParseError::kNone) return 0;

  CHECK(inside(r.name.data(), r.name.size(), data, size), r.name.size());
  CHECK(inside(r.label.data(), r.label.size(), data, size), r.label.size());
  CHECK(inside(r.data.data(), r.data.size(), data, size), r.data.size());
  const std::vector<uint8_t> again = encode(r);
  CHECK(again.size() == size, again.size());
  CHECK(std::memcmp(again.data(), data, size) == 0, 0);
  if (r.kind == s::kList) CHECK(r.bufferSize >= s::kMinListBuffer && r.bufferSize <= s::kMaxClientBuffer, r.bufferSize);
  if (r.kind == s::kUpdate) CHECK(r.id != s::kNoId && r.data.size() <= s::kMaxObject, r.data.size());
  return 0;
}
