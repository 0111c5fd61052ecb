#include "platform/common/listener.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace kr::platform {
namespace {

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
bool removeStale(const std::string& path, const sockaddr_un& addr, int type, const char* who,
                 std::string* error) {
  struct stat st {};
  if (lstat(path.c_str(), &st) != 0) return true;
  if (!S_ISSOCK(st.st_mode)) {
    *error = path + " exists and is not a socket";
    return false;
  }
  UniqueFd probe(socket(AF_UNIX, type | SOCK_CLOEXEC, 0));
  if (probe && connect(probe.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0) {
    *error = std::string("another ") + who + " is listening on " + path;
    return false;
  }
  if (unlink(path.c_str()) != 0) {
    *error = failure("cannot remove", path);
    return false;
  }
  return true;
}

bool setAccess(const std::string& path, gid_t group, std::string* error) {
  if (group == gid_t(-1)) return true;  // stays 0600
  if (chown(path.c_str(), uid_t(-1), group) != 0) {
    *error = failure("cannot give the group to", path);
    return false;
  }
  if (chmod(path.c_str(), 0660) != 0) {
    *error = failure("cannot chmod", path);
    return false;
  }
  return true;
}

}  // namespace

std::string failure(const std::string& what, const std::string& path) {
  return what + " " + path + ": " + std::strerror(errno);
}

bool makeParentDirs(const std::string& path, mode_t innerMode, std::string* error) {
  const size_t last = path.rfind('/');
  for (size_t slash = path.find('/', 1); slash != std::string::npos && slash <= last;
       slash = path.find('/', slash + 1)) {
    const std::string dir = path.substr(0, slash);
    if (mkdir(dir.c_str(), slash == last ? innerMode : 0755) != 0 && errno != EEXIST) {
      *error = failure("cannot create", dir);
      return false;
    }
  }
  return true;
}

UniqueFd openUnixListener(const std::string& path, int type, const char* who, gid_t group, std::string* error) {
  sockaddr_un addr;
  if (!fillAddress(path, &addr, error) || !makeParentDirs(path, 0755, error) ||
      !removeStale(path, addr, type, who, error)) {
    return {};
  }
  UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!fd) {
    *error = failure("cannot make a socket for", path);
    return {};
  }
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

}  // namespace kr::platform
