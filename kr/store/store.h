// kr::Store and kr::StoreCord: a process's persistent objects, kept by the
// platform's store service.
//
// A process never writes its configuration files itself: it hands each
// object, as the flat bytes of a kr::message, to the store service (kr-store),
// which owns the files. A kr::Store is one named table of the service: a map
// from a 32-bit object id to a message. It learns the ids the table holds
// once, when it is constructed, and from then on keeps track of them itself,
// so get(), set() and remove() know without asking whether an id exists.
//
//   kr::Store store("/rw/store/addresses");   // the table "addresses"
//   store.set(7, entry);                      // written before set() returns
//   kr::message again = store.get(7);
//   store.remove(7);
//
// All stores of a process share one kr::StoreCord: one local sequenced-
// packet socket to the service (storeSocketPath()), opened on demand and
// closed again 10 s after a request (every request arms one idle timer and
// none is ever cancelled, so even a busy process redials now and then; few
// sockets stay open across many idle daemons), with one reply buffer. A
// read brings
// the asked object together with the objects that follow it in id order, as
// many as the buffer holds, and the next reads of those are answered from
// that buffer without I/O: reading a whole table at start-up costs few round
// trips.
//
// The wire (every word an unsigned 32-bit integer in host byte order; the
// service runs on the same machine). One request is one packet, and so is
// its reply:
//
//   kind 0, list ids:  0, cookie, buffer size, name bytes
//                      -> store id, fresh flag, buffer size to provide, ids...
//   kind 1, get entry: 1, store id, object id, buffer size
//                      -> entries {store id, object id, length, flat bytes}...
//   kind 2, update:    2, store id, object id, flat bytes (none: delete)
//                      -> status
//   kind 3, backup:    3, flag, length of the first string, first, second
//                      -> status, 0 = success
//   kind 4, reset:     4, flag -> status, 0 = success
//
// Failures: the service answers synchronously and requests block until it
// does; I/O errors go to perror() with the system call's name ("socket",
// "connect", "write", "writev", "read") and make the call fail softly; a
// failed read or write also drops the socket, so the next request dials
// again. A store whose service was unreachable at construction holds no
// ids. Construction lists the table's ids page by page and asks again for
// a page that failed: it returns once the service has answered them all.
//
// Threading: the event-loop thread only. The idle close needs the process's
// runner (kr::getRunner()); without one the socket stays open.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "kr/message/message.h"
#include "kr/store/allocator.h"
#include "kr/store/store_protocol.h"

struct iovec;

namespace kr {

class StoreCord {
 public:
  // Object ids are u32; an entry header is three words.
  static constexpr unsigned int kEntryHeader = kStoreEntryHeader;
  static constexpr unsigned int kInitialBuffer = 1024;
  static constexpr unsigned int kIdleTicks = 1000;  // 10 s
  static constexpr unsigned int kNoStore = 0xFFFFFFFF;

  StoreCord() = default;
  // Closes the socket and takes its idle timers out of the process's runner.
  ~StoreCord();
  StoreCord(const StoreCord&) = delete;
  StoreCord& operator=(const StoreCord&) = delete;

  // Opens the socket if it is closed (never as descriptor 3, which belongs
  // to the bus), then arms an idle close. False, with perror(), when the
  // service cannot be reached.
  bool connect();
  // Adds a one-shot timer of `ticks` that closes the connection. Timers are
  // never cancelled: each request adds one, and whichever fires closes
  // what is open then.
  void expire(unsigned int ticks);
  // Frees the buffer and the cache and closes the socket.
  void onTimeout();

  // One page of the id listing of store `name`: claims the ids in `ids`,
  // sets *fresh, moves *cookie on (0xFFFFFFFF: the listing is complete).
  // Returns the store id, or kNoStore.
  unsigned int getIDs(const std::string& name, bool* fresh, unsigned int* cookie, Allocator* ids);
  // The entry {store id, object id, length, bytes} of object `id` of store
  // `sid`, in the reply buffer (valid until the next request), or null.
  // Answered from the last reply when it holds the entry; an entry too
  // large for the buffer is asked for again with room for it.
  const unsigned char* getEntry(unsigned int sid, unsigned int id);
  // Writes (len > 0) or deletes (len == 0) one object.
  bool sendUpdate(unsigned int sid, unsigned int id, const unsigned char* data, unsigned int len);
  // Service-wide requests; true when the service answers status 0.
  bool resetConfig(bool flag);
  bool createBackup(const std::string& first, bool flag, const std::string& second);

  // ---- Introspection, for tests -------------------------------------------------
  bool isOpen() const { return fd >= 0; }
  int descriptor() const { return fd; }
  size_t bufferCapacity() const { return buffer.capacity(); }
  size_t cachedEntries() const { return cache.size(); }

 private:
  // One request packet, gathered from `iov`. False (with perror(what))
  // when it could not be sent.
  bool send(const iovec* iov, int count, const char* what);
  // Reads one reply packet; the byte count, or -1 (with perror("read")).
  long receive(void* into, size_t room);
  // Sends a request whose reply is one status word.
  bool statusRequest(const iovec* iov, int count, const char* what, unsigned int* status);
  // perror(what), then drops the connection: it will not work again.
  void fail(const char* what);
  // The cached entry of `id` when it belongs to store `sid`, or null.
  const unsigned char* cached(unsigned int sid, unsigned int id) const;
  // Records the whole entries among the first `got` bytes of `buffer` in
  // `cache`. Returns 0, or the first entry's total size when even that one
  // was cut off.
  size_t parseEntries(size_t got);

  int fd = -1;
  std::vector<unsigned char> buffer;
  // Object id -> offset of its entry in `buffer`; valid for the reply in it.
  std::map<unsigned int, unsigned int> cache;
};

// The process's connection to the store service.
StoreCord& storeCord();

class Store {
 public:
  static constexpr unsigned int kOrderRecord = 0xFFFFFFFE;  // used by object maps
  static constexpr unsigned int kNoId = 0xFFFFFFFF;         // never stored

  // Derives the name from `path` ("/kora/store/" or "/rw/store/" removed
  // from its front, else the whole path) and loads the table's ids, page
  // by page.
  explicit Store(const std::string& path);
  Store(const Store&) = delete;
  Store& operator=(const Store&) = delete;

  // The object, or an empty message (also, with a line on standard output,
  // when the service has lost an object it listed).
  message get(unsigned int id);
  // Writes or replaces an object. A flat form of 65536 bytes or more is not
  // stored, silently; neither is the id 0xFFFFFFFF, which the next listing
  // could not take back.
  void set(unsigned int id, const message& m);
  // Deletes one object; true when a delete was sent and answered.
  bool remove(unsigned int id);
  // Deletes every object of the table.
  void removeAll();

  // 0xFFFFFFFF is outside the ids a store can hold (the allocator would
  // call it allocated).
  bool has(unsigned int id) const { return id != kNoId && ids.isAllocated(id); }
  const std::string& name() const { return name_; }
  unsigned int storeId() const { return sid; }
  // True until the first set(): the service had nothing for this table.
  bool isFresh() const { return fresh; }
  // The ids the table holds, ascending.
  const Allocator& objectIds() const { return ids; }

  // The name a path stands for.
  static std::string nameOf(const std::string& path);

 private:
  std::string name_;
  unsigned int sid = StoreCord::kNoStore;
  bool fresh = true;
  Allocator ids{0, 0xFFFFFFFE};
};

// Service-wide: through the process's StoreCord.
bool resetConfig(bool flag);
bool createBackup(const std::string& first, bool flag, const std::string& second);

}  // namespace kr
