#include "platform/store/service.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "platform/store/log.h"

namespace kr::storesvc {

namespace {

void putWord(std::vector<unsigned char>* out, uint32_t w) {
  const size_t at = out->size();
  out->resize(at + kWord);
  std::memcpy(out->data() + at, &w, kWord);
}

void putEntry(std::vector<unsigned char>* out, uint32_t sid, uint32_t id, std::span<const unsigned char> data) {
  putWord(out, sid);
  putWord(out, id);
  putWord(out, uint32_t(data.size()));
  out->insert(out->end(), data.begin(), data.end());
}

// Replies up to the largest buffer a client may claim, plus one whole
// object, must fit one packet: the socket's send buffer bounds that.
constexpr int kSendBuffer = int(kMaxClientBuffer + kEntryHeader + kMaxObject);

// Back off for a second when out of descriptors rather than spin on a
// listener that stays readable.
constexpr unsigned int kAcceptPauseTicks = 100;

}  // namespace

const Service::Handler Service::kHandlers[kKindCount] = {
    &Service::list, &Service::get, &Service::update, &Service::backup, &Service::reset,
};

Service::Service(ThinRunner& runner, Database& db, UniqueFd listener)
    : runner_(runner), db_(db), listener_(std::move(listener)), in_(kMaxRequest) {
  runner_.addSocket(listener_.get(), POLLIN, kr::bind<&Service::onListener>(this));
}

Service::~Service() {
  runner_.removeSocket(listener_.get());
  for (const auto& [fd, client] : clients_) runner_.removeSocket(fd);
}

// ---- Connections ------------------------------------------------------------------

void Service::onListener(int, unsigned int) { acceptAll(); }

void Service::acceptAll() {
  for (;;) {
    UniqueFd fd(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!fd) {
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pauseAccepting();
      else if (errno == ECONNABORTED || errno == EINTR) continue;
      else if (errno != EAGAIN) LogLine() << "accept: " << std::strerror(errno);
      return;
    }
    if (clients_.size() >= kMaxClients) {
      LogLine() << "too many clients (" << kMaxClients << "): connection closed";
      continue;
    }
    Client c;
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) c.pid = cred.pid;
    setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
    const int key = fd.get();
    c.fd = std::move(fd);
    runner_.addSocket(key, POLLIN, kr::bind<&Service::onClient>(this));
    clients_.emplace(key, std::move(c));
  }
}

void Service::pauseAccepting() {
  LogLine() << "out of descriptors: not accepting for a second";
  runner_.removeSocket(listener_.get());
  acceptPause_ = Timer(kAcceptPauseTicks, [this] {
    runner_.addSocket(listener_.get(), POLLIN, kr::bind<&Service::onListener>(this));
  });
}

void Service::drop(int fd) {
  runner_.removeSocket(fd);
  clients_.erase(fd);
}

void Service::onClient(int fd, unsigned int revents) {
  const auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  const Client& c = it->second;
  // MSG_TRUNC: the packet's real length, even when it is longer than any
  // request and so did not fit.
  const ssize_t n = recv(fd, in_.data(), in_.size(), MSG_TRUNC | MSG_DONTWAIT);
  if (n < 0) {
    if (errno == EAGAIN || errno == EINTR) return;
    LogLine() << "client pid " << c.pid << ": " << std::strerror(errno) << ": dropped";
    drop(fd);
    return;
  }
  // A read of 0 is the end of the connection, or an empty packet from a
  // peer that is still there (which gets a malformed-request answer).
  if (n == 0 && (revents & (POLLHUP | POLLERR))) {
    drop(fd);
    return;
  }
  answer(size_t(n), c);
  if (!sendReply(c)) drop(fd);
}

// A reply that does not fit the socket means the client does not read its
// replies; the service never waits for one.
bool Service::sendReply(const Client& c) {
  if (send(c.fd.get(), out_.data(), out_.size(), MSG_NOSIGNAL | MSG_DONTWAIT) >= 0) return true;
  if (errno != EPIPE && errno != ECONNRESET)
    LogLine() << "client pid " << c.pid << ": cannot answer (" << std::strerror(errno) << "): dropped";
  return false;
}

// ---- Requests ---------------------------------------------------------------------

void Service::answer(size_t n, const Client& c) {
  out_.clear();
  if (n > in_.size()) {
    LogLine() << "client pid " << c.pid << ": malformed request: " << n << " bytes, longer than any request";
    return status(kMalformed);
  }
  Request r;
  const ParseError e = parseRequest(in_.data(), n, &r);
  if (e != ParseError::kNone) {
    uint32_t kind = 0xFFFFFFFF;
    if (n >= kWord) std::memcpy(&kind, in_.data(), kWord);
    LogLine() << "client pid " << c.pid << ": malformed request (kind " << kind << ", " << n
              << " bytes): " << parseErrorText(e);
    status(kMalformed);
    return;
  }
  // Through a local: GCC 12's bounds sanitizer misreports an index used
  // directly under ->* (it saw in_.size() as the index).
  const Handler handle = kHandlers[r.kind];
  (this->*handle)(r, c);
}

void Service::status(Status s) {
  out_.clear();
  putWord(&out_, s);
}

bool Service::storeKnown(const Request& r, const Client& c) {
  bool exists = false;
  if (!db_.hasStore(r.sid, &exists)) {
    failed(c, kindName(r.kind));
    return false;
  }
  if (exists) return true;
  LogLine() << "client pid " << c.pid << ": " << kindName(r.kind) << " of unknown store " << r.sid;
  status(kUnknownStore);
  return false;
}

void Service::failed(const Client& c, const char* what) {
  LogLine() << "client pid " << c.pid << ": " << what << " failed: " << db_.error();
  status(kFailed);
}

// Kind 0. The page holds as many ids as the client's buffer has room for;
// a page that fills it tells the client to ask again after its last id.
void Service::list(const Request& r, const Client& c) {
  Database::StoreInfo s;
  const size_t room = (r.bufferSize - kListHeader) / kWord;
  if (!db_.findOrCreate(r.name, &s) || !db_.listIds(s.sid, r.cookie, room, &ids_)) return failed(c, "list");
  putWord(&out_, s.sid);
  putWord(&out_, s.fresh ? 1 : 0);
  putWord(&out_, std::max(kInitialBuffer, uint32_t(s.largest + kEntryHeader)));
  for (uint32_t id : ids_) putWord(&out_, id);
}

// Kind 1. The asked entry goes out whole even when it is larger than the
// client's buffer: the client's read is cut short, it learns the entry's
// size from the header and asks again with a buffer that fits. Following
// entries go with it only while the whole reply fits the buffer.
void Service::get(const Request& r, const Client& c) {
  if (!storeKnown(r, c)) return;
  const size_t budget = std::min(r.bufferSize, kMaxClientBuffer);
  bool found = false;
  const bool ok = db_.readFrom(r.sid, r.id, [&](uint32_t id, std::span<const unsigned char> data) {
    if (!found) {
      found = id == r.id;
      if (found) putEntry(&out_, r.sid, id, data);
      return found;
    }
    if (out_.size() + kEntryHeader + data.size() > budget) return false;
    putEntry(&out_, r.sid, id, data);
    return true;
  });
  if (!ok) return failed(c, "get");
  if (!found) status(kNotFound);
}

// Kind 2: answered only once the change is on disk.
void Service::update(const Request& r, const Client& c) {
  if (!storeKnown(r, c)) return;
  const bool ok = r.data.empty() ? db_.erase(r.sid, r.id) : db_.put(r.sid, r.id, r.data);
  if (!ok) return failed(c, "update");
  status(kOk);
}

// Kind 3: flag set = replace an existing file; the second string is a
// label kept inside the copy.
void Service::backup(const Request& r, const Client& c) {
  const std::string path(r.name);
  switch (db_.backup(path, r.flag != 0, r.label)) {
    case Database::BackupResult::kOk:
      LogLine() << "backup written to " << path;
      return status(kOk);
    case Database::BackupResult::kExists:
      LogLine() << "client pid " << c.pid << ": backup not written: " << path << " exists";
      return status(kExists);
    case Database::BackupResult::kFailed:
      return failed(c, "backup");
  }
}

// Kind 4: flag set = erase every store's objects now; clear = at the next
// start of the service, before it serves anyone.
void Service::reset(const Request& r, const Client& c) {
  const bool now = r.flag != 0;
  if (!(now ? db_.resetNow() : db_.scheduleReset())) return failed(c, "reset");
  LogLine() << "client pid " << c.pid << ": "
            << (now ? "every store's objects erased" : "every store's objects will be erased at the next start");
  status(kOk);
}

}  // namespace kr::storesvc
