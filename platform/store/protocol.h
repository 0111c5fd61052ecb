// The store protocol as kr-store speaks it: the wire shared with the client
// (kr/store/store_protocol.h) under the service's names, the reply status
// words and the limits the service enforces. docs/store.md tells the whole
// protocol.
//
// Transport: a local SOCK_SEQPACKET socket (storeSocketPath()). One request
// is one packet, one reply is one packet. Every word is an unsigned 32-bit
// integer in host byte order: client and service run on the same machine.
//
//   kind 0 list:   0, cookie, buffer size, name bytes
//                  -> sid, fresh, buffer size to provide, ids...
//   kind 1 get:    1, sid, id, buffer size
//                  -> entries {sid, id, length, bytes}..., or a status word
//   kind 2 update: 2, sid, id, bytes (none: delete)      -> status
//   kind 3 backup: 3, flag, length of file name, file name, label -> status
//   kind 4 reset:  4, flag                                -> status
//
// A request the service cannot take is answered with one non-zero status
// word; for kinds 0 and 1 that is shorter than any real answer, which is
// how the client tells them apart.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kr/store/store_protocol.h"

namespace kr::storesvc {

enum Kind : uint32_t {
  kList = STORE_LIST_IDS,
  kGet = STORE_GET_ENTRY,
  kUpdate = STORE_UPDATE,
  kBackup = STORE_BACKUP,
  kReset = STORE_RESET,
  kKindCount = STORE_RESET + 1,
};

// The one-word replies. The client only looks at "zero or not"; the
// values tell an operator (and the tests) what went wrong.
enum Status : uint32_t {
  kOk = 0,
  kMalformed = 1,     // the packet does not parse (see ParseError)
  kUnknownStore = 2,  // no store has this id
  kNotFound = 3,      // kind 1: the store holds no object with this id
  kFailed = 4,        // the database failed (disk full, I/O error)
  kExists = 5,        // kind 3: the backup file exists and the flag is clear
};

inline constexpr size_t kWord = kStoreWord;
inline constexpr size_t kEntryHeader = kStoreEntryHeader;
inline constexpr size_t kListHeader = kStoreListHeader;
inline constexpr uint32_t kMaxObject = kStoreMaxObject;
// Id 0xFFFFFFFF is the listing's "from the start" cookie, so no object may
// carry it (a page ending on it would end the listing early).
inline constexpr uint32_t kNoId = kStoreListingDone;
// The largest request: an update of the largest object.
inline constexpr size_t kMaxRequest = 3 * kWord + kMaxObject;
// Store names are the tails of paths ("/rw/store/<name>").
inline constexpr size_t kMaxName = 1024;
inline constexpr size_t kMaxLabel = 1024;
inline constexpr size_t kMaxBackupPath = 4095;  // PATH_MAX less the terminator

// The client's receive buffer starts at 1024 bytes and only grows to fit
// an answer (the largest entry, with the doubling a vector does), so a
// real client never claims more than about 128 KiB. A listing must fill
// the buffer it was told about or the client takes the page as the last,
// so a claim the service could not honour is refused instead of being
// quietly cut short; reads are simply capped.
inline constexpr uint32_t kMinListBuffer = kListHeader + kWord;  // room for one id
inline constexpr uint32_t kMaxClientBuffer = 256 * 1024;
// What a listing tells a client to provide at least.
inline constexpr uint32_t kInitialBuffer = 1024;

}  // namespace kr::storesvc
