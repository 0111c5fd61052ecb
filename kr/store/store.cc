#include "kr/store/store.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>

#include "kr/loop/runner.h"
#include "kr/store/store_protocol.h"
#include "kr/util/runtime_dir.h"

namespace kr {

namespace {

constexpr unsigned int kListingDone = kStoreListingDone;

// No object comes near this; the bound keeps a corrupt length or buffer
// size word from making us allocate gigabytes.
constexpr size_t kMaxEntry = 64u << 20;

// Objects whose flat form goes beyond this size are not persisted.
constexpr size_t kMaxObject = kStoreMaxObject + 1;

unsigned int wordAt(const unsigned char* p) {
  unsigned int w;
  std::memcpy(&w, p, sizeof w);
  return w;
}

}  // namespace

// ---- The connection ---------------------------------------------------------------

StoreCord::~StoreCord() {
  // Idle timers are never cancelled while we live, but they must not
  // outlive us: the runner would call into a dead object.
  if (Runner* r = getRunner()) {
    while (r->removeTimer(ThinRunner::Callback(kr::bind<&StoreCord::onTimeout>(this)))) {
    }
  }
  if (fd >= 0) ::close(fd);
}

bool StoreCord::connect() {
  if (fd < 0) {
    int s = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (s < 0) {
      perror("socket");
      return false;
    }
    if (s == 3) {
      // Descriptor 3 is where a daemon started by the loader finds its bus
      // connection; a store socket there would be mistaken for it.
      const int moved = fcntl(s, F_DUPFD_CLOEXEC, 4);
      ::close(s);
      if (moved < 0) {
        perror("socket");
        return false;
      }
      s = moved;
    }
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string path = storeSocketPath();
    if (path.size() >= sizeof addr.sun_path) {
      ::close(s);
      errno = ENAMETOOLONG;
      perror("connect");
      return false;
    }
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    if (::connect(s, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) < 0) {
      perror("connect");
      ::close(s);
      return false;
    }
    fd = s;
    buffer.reserve(kInitialBuffer);
  }
  expire(kIdleTicks);
  return true;
}

void StoreCord::expire(unsigned int ticks) {
  if (Runner* r = getRunner()) r->addTimer(ticks, kr::bind<&StoreCord::onTimeout>(this));
}

void StoreCord::onTimeout() {
  std::vector<unsigned char>().swap(buffer);
  cache.clear();
  if (fd >= 0) ::close(fd);
  fd = -1;
}

void StoreCord::fail(const char* what) {
  perror(what);
  // A seqpacket socket that failed once stays broken (the service went
  // away); drop it so the next request dials again instead of failing until
  // the idle timer fires.
  onTimeout();
}

bool StoreCord::send(const iovec* iov, int count, const char* what) {
  msghdr msg{};
  msg.msg_iov = const_cast<iovec*>(iov);
  msg.msg_iovlen = count;
  // MSG_NOSIGNAL: a service that died must cost a failed request, not the
  // process (SIGPIPE).
  ssize_t n;
  do n = ::sendmsg(fd, &msg, MSG_NOSIGNAL);
  while (n < 0 && errno == EINTR);
  if (n < 0) fail(what);
  return n >= 0;
}

long StoreCord::receive(void* into, size_t room) {
  ssize_t n;
  do n = ::read(fd, into, room);
  while (n < 0 && errno == EINTR);
  if (n < 0) fail("read");
  return n;
}

bool StoreCord::statusRequest(const iovec* iov, int count, const char* what, unsigned int* status) {
  if (!connect() || !send(iov, count, what)) return false;
  unsigned int word = 0xFFFFFFFF;
  if (receive(&word, sizeof word) < static_cast<long>(sizeof word)) return false;
  if (status) *status = word;
  return true;
}

// ---- Requests ----------------------------------------------------------------------

unsigned int StoreCord::getIDs(const std::string& name, bool* fresh, unsigned int* cookie, Allocator* ids) {
  if (!connect()) return kNoStore;
  buffer.resize(buffer.capacity());
  cache.clear();
  const unsigned int header[3] = {STORE_LIST_IDS, *cookie, static_cast<unsigned int>(buffer.size())};
  const iovec iov[2] = {{const_cast<unsigned int*>(header), sizeof header},
                        {const_cast<char*>(name.data()), name.size()}};
  if (!send(iov, 2, "writev")) return kNoStore;
  const size_t capacity = buffer.size();
  const long got = receive(buffer.data(), capacity);
  if (got < static_cast<long>(kEntryHeader)) return kNoStore;

  const size_t count = (got - kEntryHeader) / 4;
  const unsigned char* p = buffer.data() + kEntryHeader;
  for (size_t i = 0; i < count; ++i) ids->allocate(wordAt(p + 4 * i));
  // A page that filled the buffer may have had more to say: continue after
  // its last id. One that did not is the end of the listing.
  if (count > 0 && count == (capacity - kEntryHeader) / 4) {
    *cookie = wordAt(p + 4 * (count - 1));
  } else {
    *cookie = kListingDone;
  }

  const unsigned int sid = wordAt(buffer.data());
  *fresh = wordAt(buffer.data() + 4) != 0;
  const unsigned int wanted = wordAt(buffer.data() + 8);
  buffer.clear();
  if (buffer.capacity() < wanted) buffer.reserve(std::min<size_t>(wanted, kMaxEntry));
  return sid;
}

const unsigned char* StoreCord::cached(unsigned int sid, unsigned int id) const {
  auto it = cache.find(id);
  if (it == cache.end() || wordAt(buffer.data() + it->second) != sid) return nullptr;
  return buffer.data() + it->second;
}

size_t StoreCord::parseEntries(size_t got) {
  size_t off = 0;
  while (got - off >= kEntryHeader) {
    const size_t total = kEntryHeader + size_t{wordAt(buffer.data() + off + 8)};
    if (total > got - off) return cache.empty() ? total : 0;
    // The asked entry comes first; keep the first of any repeated id.
    cache.emplace(wordAt(buffer.data() + off + 4), static_cast<unsigned int>(off));
    off += total;
  }
  return 0;
}

const unsigned char* StoreCord::getEntry(unsigned int sid, unsigned int id) {
  // Read-ahead hit: no I/O, and deliberately no re-arming of the idle timer.
  if (const unsigned char* e = cached(sid, id)) return e;
  if (!connect()) return nullptr;
  buffer.resize(buffer.capacity());
  cache.clear();
  for (;;) {
    const unsigned int request[4] = {STORE_GET_ENTRY, sid, id, static_cast<unsigned int>(buffer.size())};
    const iovec iov = {const_cast<unsigned int*>(request), sizeof request};
    if (!send(&iov, 1, "write")) return nullptr;
    const long got = receive(buffer.data(), buffer.size());
    if (got < static_cast<long>(kEntryHeader) + 1) return nullptr;
    const size_t cutOff = parseEntries(got);
    if (cutOff == 0) return cached(sid, id);
    // Even the first entry did not fit: ask again with room for it. A
    // length that fitted already is a malformed reply, not a short buffer.
    if (cutOff <= buffer.size() || cutOff > kMaxEntry) return nullptr;
    buffer.resize(cutOff);
  }
}

bool StoreCord::sendUpdate(unsigned int sid, unsigned int id, const unsigned char* data, unsigned int len) {
  if (!connect()) return false;
  // Whatever the write does, the cached reply may now be stale.
  cache.clear();
  const unsigned int header[3] = {STORE_UPDATE, sid, id};
  const iovec iov[2] = {{const_cast<unsigned int*>(header), sizeof header},
                        {const_cast<unsigned char*>(data), len}};
  if (!send(iov, len ? 2 : 1, "writev")) return false;
  unsigned int status;
  if (receive(&status, sizeof status) < static_cast<long>(sizeof status)) return false;
  // Room to read this object back in one round trip.
  if (buffer.capacity() < size_t{len} + kEntryHeader) {
    buffer.clear();
    buffer.reserve(size_t{len} + kEntryHeader);
  }
  return true;
}

bool StoreCord::resetConfig(bool flag) {
  const unsigned int request[2] = {STORE_RESET, flag ? 1u : 0u};
  const iovec iov = {const_cast<unsigned int*>(request), sizeof request};
  unsigned int status = 1;
  return statusRequest(&iov, 1, "write", &status) && status == 0;
}

bool StoreCord::createBackup(const std::string& first, bool flag, const std::string& second) {
  const unsigned int header[3] = {STORE_BACKUP, flag ? 1u : 0u, static_cast<unsigned int>(first.size())};
  const iovec iov[3] = {{const_cast<unsigned int*>(header), sizeof header},
                        {const_cast<char*>(first.data()), first.size()},
                        {const_cast<char*>(second.data()), second.size()}};
  unsigned int status = 1;
  return statusRequest(iov, 3, "writev", &status) && status == 0;
}

StoreCord& storeCord() {
  static StoreCord cord;
  return cord;
}

bool resetConfig(bool flag) { return storeCord().resetConfig(flag); }

bool createBackup(const std::string& first, bool flag, const std::string& second) {
  return storeCord().createBackup(first, flag, second);
}

// ---- One store ---------------------------------------------------------------------

std::string Store::nameOf(const std::string& path) {
  for (std::string_view dir : {"/kora/store/", "/rw/store/"}) {
    if (path.starts_with(dir)) return path.substr(dir.size());
  }
  return path;
}

Store::Store(const std::string& path) : name_(nameOf(path)) {
  // A page that fails leaves the cookie alone, so the same page is asked
  // for again: a table is never half loaded.
  unsigned int cookie = kListingDone;
  do sid = storeCord().getIDs(name_, &fresh, &cookie, &ids);
  while (cookie < kListingDone);
}

message Store::get(unsigned int id) {
  if (!has(id)) return message();
  const unsigned char* e = storeCord().getEntry(sid, id);
  const unsigned int len = e ? wordAt(e + 8) : 0;
  if (len == 0) {
    std::cout << "ERROR: missing entry sid=" << sid << ", id=" << id << '\n';
    return message();
  }
  return message(e + StoreCord::kEntryHeader, len);
}

void Store::set(unsigned int id, const message& m) {
  fresh = false;
  if (id == kNoId) return;
  // One flat buffer for every set of the process; it keeps its capacity,
  // so storing costs no allocation once it has grown.
  static std::vector<unsigned char> flat;
  m.flatten(flat);
  // Larger objects are not persisted, and nobody is told: object maps rely
  // on set() never failing loudly.
  const bool stored =
      flat.size() < kMaxObject && storeCord().sendUpdate(sid, id, flat.data(), static_cast<unsigned int>(flat.size()));
  if (stored && !has(id)) ids.allocate(id);
  if (flat.capacity() > kMaxObject) std::vector<unsigned char>().swap(flat);
}

bool Store::remove(unsigned int id) {
  if (!has(id)) return false;
  if (!storeCord().sendUpdate(sid, id, nullptr, 0)) return false;
  ids.free(id);
  return true;
}

void Store::removeAll() {
  // Freeing ids invalidates the allocator's iterators, so take the list
  // first. An id whose delete fails stays, as it stays in the service.
  const std::vector<unsigned int> all(ids.begin(), ids.end());
  for (unsigned int id : all) {
    if (storeCord().sendUpdate(sid, id, nullptr, 0)) ids.free(id);
  }
}

}  // namespace kr
