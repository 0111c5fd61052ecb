#include "platform/store/process.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "kr/bus/looper.h"
#include "kr/util/runtime_dir.h"
#include "platform/common/listener.h"
#include "platform/store/db.h"
#include "platform/store/log.h"
#include "platform/store/service.h"

namespace kr::storesvc {

namespace {

// The loop can be left two ways: the loader's leave (the Looper stops
// itself) or a signal, which has to stop the Looper from outside.
class StoreLooper : public Looper {
 public:
  StoreLooper()
      : Looper(kConnectAny, kBusAddress, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0) {}
  void stop() { stopped = true; }
};

int serve(Runner& runner, StoreLooper* looper, Database& db, UniqueFd listener) {
  bool finished = false;
  const auto stop = [&](int sig) {
    LogLine() << "signal " << sig << ": stopping";
    finished = true;
    if (looper) looper->stop();
  };
  runner.addSighandler(SIGTERM, true, stop);
  runner.addSighandler(SIGINT, true, stop);
  {
    Service service(runner, db, std::move(listener));
    if (looper) {
      looper->setupLeave(1);  // the loader may stop us at any time
      looper->run();
    } else {
      while (!finished) runner.step(true);
    }
  }
  runner.removeSighandler(SIGTERM, true);
  runner.removeSighandler(SIGINT, true);
  return kExitOk;
}

// The database holds every daemon's configuration: its directory is the
// service's alone. A file that is not healthy stays exactly as it is, for
// someone to look at; the service does not start on it.
std::unique_ptr<Database> openDatabase(const std::string& path) {
  std::string error;
  bool wasReset = false;
  if (!platform::makeParentDirs(path, 0700, &error)) {
    LogLine() << error;
    return nullptr;
  }
  std::unique_ptr<Database> db = Database::open(path, &error, &wasReset);
  if (!db) {
    LogLine() << error << "; the file is left as it is";
    return nullptr;
  }
  if (wasReset) LogLine() << "reset carried out as scheduled: every store's objects erased";
  return db;
}

}  // namespace

std::string defaultDatabasePath() { return runtimePath("/store/kr-store.db"); }

UniqueFd openListener(const std::string& path, std::string* error) {
  return platform::openUnixListener(path, SOCK_SEQPACKET, "store service", gid_t(-1), error);
}

int runStore(const StoreOptions& options) {
  std::string error;
  // The socket first: a second service fails here, before it touches any file.
  UniqueFd listener = openListener(options.socketPath, &error);
  if (!listener) {
    LogLine() << error;
    return kExitSocket;
  }
  std::unique_ptr<Database> db = openDatabase(options.dbPath);
  if (!db) {
    unlink(options.socketPath.c_str());
    return kExitDatabase;
  }
  LogLine() << "listening on " << options.socketPath << ", database " << options.dbPath;
  int status;
  if (options.bus) {
    StoreLooper looper;  // blocks until the loader has answered
    status = serve(looper, &looper, *db, std::move(listener));
  } else {
    Runner runner;
    status = serve(runner, nullptr, *db, std::move(listener));
  }
  unlink(options.socketPath.c_str());
  LogLine() << "stopped";
  return status;
}

}  // namespace kr::storesvc
