#include "platform/loader/loader.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "kr/loop/runner.h"
#include "platform/loader/config.h"
#include "platform/loader/log.h"
#include "platform/loader/router.h"
#include "platform/loader/supervisor.h"

namespace kr::loader {

namespace {

std::string failure(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

// mkdir -p of the directory that holds `path`.
bool makeParentDirs(const std::string& path, std::string* error) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) {
      *error = failure("cannot create", dir);
      return false;
    }
  }
  return true;
}

bool fillAddress(const std::string& path, sockaddr_un* addr, std::string* error) {
  *addr = {};
  addr->sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr->sun_path) {
    *error = "bad socket path '" + path + "'";
    return false;
  }
  std::memcpy(addr->sun_path, path.c_str(), path.size() + 1);
  return true;
}

// A socket file nobody answers on is left over from an earlier run.
bool removeStale(const std::string& path, const sockaddr_un& addr, std::string* error) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return true;
  if (!S_ISSOCK(st.st_mode)) {
    *error = path + " exists and is not a socket";
    return false;
  }
  UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (probe && connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
    *error = "another loader is listening on " + path;
    return false;
  }
  if (unlink(path.c_str()) != 0) {
    *error = failure("cannot remove", path);
    return false;
  }
  return true;
}

bool setAccess(const std::string& path, gid_t group, std::string* error) {
  const bool shared = group != gid_t(-1);
  if (shared && chown(path.c_str(), uid_t(-1), group) != 0) {
    *error = failure("cannot give the group to", path);
    return false;
  }
  if (chmod(path.c_str(), shared ? 0660 : 0600) != 0) {
    *error = failure("cannot chmod", path);
    return false;
  }
  return true;
}

}  // namespace

UniqueFd openListener(const std::string& path, gid_t group, std::string* error) {
  sockaddr_un addr;
  if (!fillAddress(path, &addr, error) || !makeParentDirs(path, error) || !removeStale(path, addr, error)) return {};
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) {
    *error = failure("cannot make a socket for", path);
    return {};
  }
  // Born 0600: no moment in which others could connect.
  const mode_t mask = umask(0177);
  const int bound = bind(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
  umask(mask);
  if (bound != 0) {
    *error = failure("cannot bind", path);
    return {};
  }
  if (!setAccess(path, group, error)) return {};
  if (::listen(fd.get(), 64) != 0) {
    *error = failure("cannot listen on", path);
    return {};
  }
  return fd;
}

int runLoader(const LoaderOptions& options) {
  Config config;
  std::string error;
  if (!options.configPath.empty() && !loadConfig(options.configPath, &config, &error)) {
    LogLine() << error;
    return 2;
  }
  kr::Runner runner;
  UniqueFd listener = openListener(options.socketPath, config.socketGroup, &error);
  if (!listener) {
    LogLine() << error;
    return 1;
  }
  Router router(config);
  router.listen(std::move(listener));
  Supervisor supervisor(router, config);
  bool finished = false;
  const auto stop = [&](int sig) {
    LogLine() << "signal " << sig << ": stopping";
    supervisor.stopAll([&] { finished = true; });
  };
  runner.addSighandler(SIGTERM, true, stop);
  runner.addSighandler(SIGINT, true, stop);
  LogLine() << "listening on " << options.socketPath;
  supervisor.startAll();
  while (!finished) runner.step(true);
  router.flushAll();
  runner.removeSighandler(SIGTERM, true);
  runner.removeSighandler(SIGINT, true);
  unlink(options.socketPath.c_str());
  LogLine() << "stopped";
  return 0;
}

}  // namespace kr::loader
