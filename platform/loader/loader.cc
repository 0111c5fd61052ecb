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
#include "platform/common/listener.h"
#include "platform/loader/log.h"
#include "platform/loader/router.h"
#include "platform/loader/supervisor.h"

namespace kr::loader {

UniqueFd openListener(const std::string& path, gid_t group, std::string* error) {
  return platform::openUnixListener(path, SOCK_STREAM, "loader", group, error);
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
