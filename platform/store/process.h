// The kr-store process as a whole: database, listening socket, the bus
// and signals around one Service. main.cc only parses its arguments and
// calls runStore().
//
//   StoreOptions o;
//   o.socketPath = kr::storeSocketPath();
//   o.dbPath = defaultDatabasePath();
//   return runStore(o);
//
// With `bus` the process joins the loader's bus at kBusAddress (descriptor
// 3 when the loader started it) and leaves when the loader asks, through
// the leave protocol; without it, it runs on a plain kr::Runner. Either
// way SIGTERM and SIGINT stop it cleanly.
#pragma once

#include <string>

#include "kr/util/unique_fd.h"

namespace kr::storesvc {

// The fixed bus address of the store service.
inline constexpr unsigned int kBusAddress = 6;

// Exit statuses of runStore() (and 2 for bad usage, from main).
inline constexpr int kExitOk = 0;
inline constexpr int kExitSocket = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitDatabase = 3;

struct StoreOptions {
  std::string socketPath;
  std::string dbPath;
  bool bus = true;
};

// $KR_RUNTIME_DIR/store/kr-store.db ("/ram/store/kr-store.db").
std::string defaultDatabasePath();

// Runs the service until it is stopped. Constructs the process's runner
// (a kr::Looper with `bus`), so none may exist yet.
int runStore(const StoreOptions& options);

// The listening SOCK_SEQPACKET socket at `path`, mode 0600 from birth. Its
// directory is created if missing; a socket file nobody answers on is
// removed, one where another service answers is an error. Empty, with a
// one-line *error, on failure.
UniqueFd openListener(const std::string& path, std::string* error);

}  // namespace kr::storesvc
