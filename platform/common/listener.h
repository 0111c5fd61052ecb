// The listening socket of a platform service (kr-loader, kr-store), and
// the small file-system steps around it.
//
//   std::string error;
//   kr::UniqueFd l = kr::platform::openUnixListener(path, SOCK_STREAM, "loader", gid_t(-1), &error);
//   if (!l) { LogLine() << error; return 1; }
//
// Errors come back as one line of text for the program's log, naming the
// path and the system's reason.
#pragma once

#include <sys/types.h>

#include <string>

#include "kr/util/unique_fd.h"

namespace kr::platform {

// A non-blocking, close-on-exec AF_UNIX socket of `type` listening at
// `path`. The directories above it are made (0755); a socket file left by
// an earlier run is removed, but one that still answers means another
// `who` is running, and nothing is touched. The socket is born 0600, so
// there is no moment in which others could connect; with a `group` other
// than gid_t(-1) it then becomes 0660 with that group. Null on failure.
UniqueFd openUnixListener(const std::string& path, int type, const char* who, gid_t group, std::string* error);

// mkdir -p of the directory that holds `path`; the innermost directory,
// when it has to be made, gets `innerMode`.
bool makeParentDirs(const std::string& path, mode_t innerMode, std::string* error);

// "<what> <path>: <strerror(errno)>".
std::string failure(const std::string& what, const std::string& path);

}  // namespace kr::platform
