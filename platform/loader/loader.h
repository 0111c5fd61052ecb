// The loader process as a whole: configuration, listening socket, router,
// supervisor and signals on one kr::Runner. main.cc only parses its
// arguments and calls runLoader().
//
//   LoaderOptions o;
//   o.socketPath = kr::loaderSocketPath();
//   return runLoader(o);
//
// SIGTERM and SIGINT stop the daemons through the leave protocol; then the
// loader removes its socket file and runLoader() returns 0.
#pragma once

#include <sys/types.h>

#include <string>

#include "kr/util/unique_fd.h"

namespace kr::loader {

struct LoaderOptions {
  std::string configPath;  // empty: no daemons, no grants
  std::string socketPath;
};

// Runs the loader until it is stopped by a signal. Returns the process's
// exit status: 0 after an orderly stop, 1 when the socket cannot be set up,
// 2 for a bad configuration file. Constructs the process's kr::Runner, so
// none may exist yet.
int runLoader(const LoaderOptions& options);

// The listening socket at `path`: its directory is created (mode 0755) if
// missing, a stale socket file is removed (a live one, where another loader
// answers, is an error), and the socket gets mode 0600, or 0660 with group
// `group` unless that is -1. Empty with a one-line *error on failure.
UniqueFd openListener(const std::string& path, gid_t group, std::string* error);

}  // namespace kr::loader
