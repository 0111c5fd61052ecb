#include "platform/log/control_client.h"

#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

#include "kr/util/unique_fd.h"

namespace kr::logsvc {

namespace {

UniqueFd connectTo(const std::string& path, std::string* error) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof addr.sun_path) {
    *error = "bad control socket path '" + path + "'";
    return {};
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd && connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
  *error = "cannot connect to kr-log at " + path + ": " + std::strerror(errno) + " (is kr-log running?)";
  return {};
}

bool sendAll(int fd, const std::string& bytes) {
  for (size_t done = 0; done < bytes.size();) {
    const ssize_t n = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    done += size_t(n);
  }
  return true;
}

// Takes the answer apart line by line: the first decides, the others are
// copied.
class AnswerReader {
 public:
  AnswerReader(std::ostream& out, size_t maxLines) : out_(out), maxLines_(maxLines) {}

  // False once nothing more is wanted: an error, or maxLines reached.
  bool take(std::string_view line, std::string* error) {
    if (!answered_) {
      answered_ = true;
      if (line == "ok") return true;
      failed_ = true;
      *error = line.starts_with("error: ") ? std::string(line.substr(7)) : "unexpected answer '" + std::string(line) + "'";
      return false;
    }
    out_ << line << '\n';
    out_.flush();
    return maxLines_ == 0 || ++lines_ < maxLines_;
  }
  bool answered() const { return answered_; }
  bool failed() const { return failed_; }

 private:
  std::ostream& out_;
  size_t maxLines_;
  size_t lines_ = 0;
  bool answered_ = false;
  bool failed_ = false;
};

}  // namespace

int runControlRequest(const std::string& path, const std::string& request, std::ostream& out, size_t maxLines,
                      std::string* error) {
  UniqueFd fd = connectTo(path, error);
  if (!fd) return kControlFailed;
  if (!sendAll(fd.get(), request + "\n")) {
    *error = "cannot send to kr-log: " + std::string(std::strerror(errno));
    return kControlFailed;
  }
  AnswerReader reader(out, maxLines);
  std::string buf;
  char chunk[64 * 1024];
  for (;;) {
    const ssize_t n = recv(fd.get(), chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    buf.append(chunk, size_t(n));
    size_t at = 0;
    for (size_t nl; (nl = buf.find('\n', at)) != std::string::npos; at = nl + 1) {
      if (!reader.take(std::string_view(buf).substr(at, nl - at), error))
        return reader.failed() ? kControlFailed : kControlOk;
    }
    buf.erase(0, at);
  }
  if (!buf.empty() && !reader.take(buf, error) && reader.failed()) return kControlFailed;
  if (reader.answered()) return kControlOk;
  *error = "kr-log closed the connection without an answer";
  return kControlFailed;
}

std::string followRequest(size_t tail, const std::vector<std::string>& topics,
                          const std::vector<std::string>& programs) {
  std::string line = "follow";
  if (tail) line += " tail=" + std::to_string(tail);
  for (const std::string& t : topics) line += " topic=" + t;
  for (const std::string& p : programs) line += " program=" + p;
  return line;
}

bool isRequestWord(const std::string& word) {
  return !word.empty() && word.find_first_of(" \t\r\n") == std::string::npos;
}

}  // namespace kr::logsvc
