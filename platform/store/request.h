// kr-store's parser of request packets: the only code that reads bytes a
// client sent. It takes one whole packet and either fills a Request or
// names what is wrong with it; nothing else in the service looks at raw
// bytes.
//
//   Request r;
//   ParseError e = parseRequest(packet, n, &r);
//   if (e != ParseError::kNone) log(parseErrorText(e));
//
// Every read goes through a bounded reader that compares a length with
// what is left (never adds to a pointer first) and stays failed after the
// first short read. Apart from the framing it checks every limit of
// protocol.h, so a Request that comes out is within them; whether a store
// id exists is the database's business. Fuzzed: request_fuzzer.cc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/store/protocol.h"

namespace kr::storesvc {

// One parsed request. Which fields mean something depends on the kind;
// the others stay zero or empty. The views point into the packet and are
// valid as long as it is.
struct Request {
  Kind kind = kList;
  uint32_t sid = 0;         // get, update
  uint32_t id = 0;          // get, update
  uint32_t cookie = 0;      // list: the last id of the previous page, or kNoId
  uint32_t bufferSize = 0;  // list, get: the client's receive buffer
  uint32_t flag = 0;        // backup, reset
  std::string_view name;    // list: the store name; backup: the file to write
  std::string_view label;   // backup: the second string
  std::span<const unsigned char> data;  // update: the object, empty = delete
};

enum class ParseError {
  kNone,
  kShort,           // fewer bytes than the kind's fixed words
  kUnknownKind,     // first word is not a kind
  kBadLength,       // a length runs past the packet, or bytes are left over
  kBadBufferSize,   // list: buffer size outside kMinListBuffer..kMaxClientBuffer
  kBadName,         // list: empty or longer than kMaxName
  kReservedId,      // update: object id kNoId
  kTooLarge,        // update: object over kMaxObject bytes
  kBadBackupPath,   // backup: empty, relative, too long or holds a NUL byte
  kLabelTooLong,    // backup: label over kMaxLabel bytes
};

// Parses one packet of `n` bytes.
ParseError parseRequest(const unsigned char* packet, size_t n, Request* out);

// A short English phrase for log lines ("lengths do not add up").
const char* parseErrorText(ParseError e);
// "list", "get", ...; "?" outside the kinds.
const char* kindName(uint32_t kind);

}  // namespace kr::storesvc
