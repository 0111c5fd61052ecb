// The store service's wire, shared by the client (kr::StoreCord,
// kr/store/store.h) and the service (kr-store, docs/store.md).
//
// A local SOCK_SEQPACKET socket: one request is one packet, and so is its
// reply. Every word is an unsigned 32-bit integer in host byte order (client
// and service run on the same machine); the first word of a request is its
// kind:
//
//   0 list ids:  0, cookie, buffer size, name bytes
//                -> store id, fresh flag, buffer size to provide, ids...
//   1 get entry: 1, store id, object id, buffer size
//                -> entries {store id, object id, length, flat bytes}...
//   2 update:    2, store id, object id, flat bytes (none: delete) -> status
//   3 backup:    3, flag, length of the first string, first, second -> status
//   4 reset:     4, flag -> status
//
// Statuses are one word, 0 for success. A listing or a get that fails is
// answered with a status word alone, shorter than any real answer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kr {

enum StoreRequest : uint32_t {
  STORE_LIST_IDS = 0,
  STORE_GET_ENTRY = 1,
  STORE_UPDATE = 2,
  STORE_BACKUP = 3,
  STORE_RESET = 4,
};

inline constexpr size_t kStoreWord = 4;
// A kind-1 entry starts with store id, object id, length.
inline constexpr size_t kStoreEntryHeader = 3 * kStoreWord;
// A listing answer starts with store id, fresh flag, buffer size.
inline constexpr size_t kStoreListHeader = 3 * kStoreWord;
// The listing cookie that starts a listing, and that ends it when handed
// back; so no object may carry this id.
inline constexpr uint32_t kStoreListingDone = 0xFFFFFFFF;
// A flat message, and so an object, stays below 65536 bytes.
inline constexpr uint32_t kStoreMaxObject = 65535;

}  // namespace kr
