// kr::storesvc::Service: kr-store's server. It owns the listening socket
// and every client connection, registers them with the process's runner,
// and answers each request packet with one reply packet from the database.
//
//   Service service(runner, db, std::move(listener));
//   runner.run();                 // until the process is stopped
//
// A client is served one request per readiness event, so a busy client
// cannot starve the others. Requests are answered synchronously: an update
// is on disk before its reply is sent. A packet that does not parse, names
// an unknown store or cannot be carried out is answered with a non-zero
// status word and a log line, and the client stays connected; a client is
// only dropped when its socket fails or it stops reading its replies.
//
// Event-loop thread only. The runner and the database must outlive the
// service; its destructor unregisters and closes every descriptor.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <vector>

#include "kr/loop/thinrunner.h"
#include "kr/util/unique_fd.h"
#include "platform/store/db.h"
#include "platform/store/request.h"

namespace kr::storesvc {

class Service {
 public:
  // Connections beyond this are closed at once, with a log line.
  static constexpr size_t kMaxClients = 256;

  Service(ThinRunner& runner, Database& db, UniqueFd listener);
  ~Service();
  Service(const Service&) = delete;
  Service& operator=(const Service&) = delete;

  size_t clientCount() const { return clients_.size(); }

 private:
  struct Client {
    UniqueFd fd;
    pid_t pid = 0;  // from SO_PEERCRED, for log lines
  };
  using Handler = void (Service::*)(const Request&, const Client&);
  static const Handler kHandlers[kKindCount];

  void onListener(int fd, unsigned int revents);
  void acceptAll();
  void pauseAccepting();
  void onClient(int fd, unsigned int revents);
  void answer(size_t n, const Client& c);
  bool sendReply(const Client& c);
  void drop(int fd);

  // One per kind: each fills out_ with the whole reply.
  void list(const Request& r, const Client& c);
  void get(const Request& r, const Client& c);
  void update(const Request& r, const Client& c);
  void backup(const Request& r, const Client& c);
  void reset(const Request& r, const Client& c);

  // Helpers of the handlers: a status reply, and the checks they share.
  void status(Status s);
  bool storeKnown(const Request& r, const Client& c);
  void failed(const Client& c, const char* what);

  ThinRunner& runner_;
  Database& db_;
  UniqueFd listener_;
  std::map<int, Client> clients_;
  std::vector<unsigned char> in_;   // one request packet
  std::vector<unsigned char> out_;  // its reply
  std::vector<uint32_t> ids_;       // a listing page
  Timer acceptPause_;
};

}  // namespace kr::storesvc
