#include "platform/log/process.h"

#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <iostream>

#include "kr/loop/runner.h"
#include "kr/util/runtime_dir.h"
#include "platform/common/listener.h"
#include "platform/log/config.h"
#include "platform/log/control.h"
#include "platform/log/control_client.h"
#include "platform/log/log.h"
#include "platform/log/logfile.h"
#include "platform/log/service.h"

namespace kr::logsvc {

const char kUsageText[] =
    "usage: kr-log [--config PATH] [--file PATH] [--max-size BYTES] [--keep N] [--stdout]\n"
    "              [--socket PATH] [--control PATH]\n"
    "       kr-log --follow [--tail N] [--topic T]... [--program P]... [--control PATH]\n"
    "       kr-log --mute T | --unmute T | --status [--control PATH]\n"
    "\n"
    "  --config PATH     topic names, muted topics and the file settings (docs/log.md)\n"
    "  --file PATH       the log file (default $KR_RUNTIME_DIR/log/kr.log)\n"
    "  --max-size BYTES  rotate before the file would grow past this (default 1048576; 0: never)\n"
    "  --keep N          rotated files to keep, kr.log.1 ... kr.log.N (default 3; 0: just empty it)\n"
    "  --stdout          also write every line to standard output\n"
    "  --socket PATH     where clients log (default $KR_RUNTIME_DIR/logsocket)\n"
    "  --control PATH    the control socket (default $KR_RUNTIME_DIR/logctl)\n"
    "  --follow          print the log as it is written: the last N lines first with --tail;\n"
    "                    only lines of topic T (any of several) and program P (any of several)\n"
    "  --mute T, --unmute T   silence or allow topic T (a name or a number) everywhere\n"
    "  --status          the connected clients and the muted topics\n"
    "Exit status: 0 ok; 1 a socket could not be set up, or no kr-log answers;\n"
    "2 bad usage or configuration; 3 the log file cannot be opened.\n";

namespace {

using Args = std::vector<std::string>;

bool failWith(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

bool countArg(const std::string& option, const std::string& value, uint64_t limit, uint64_t* out,
              std::string* error) {
  return (parseCount(value, out) && *out <= limit) || failWith(error, "bad " + option + " '" + value + "'");
}

bool wordArg(const std::string& option, const std::string& value, std::string* error) {
  return isRequestWord(value) || failWith(error, "bad " + option + " '" + value + "' (one word)");
}

bool setMode(LogOptions* o, Mode m, std::string* error) {
  if (o->mode != Mode::kService && o->mode != m) return failWith(error, "--follow, --mute, --unmute and --status exclude each other");
  o->mode = m;
  return true;
}

// One option with its value (empty for a flag) into *o.
bool applyOption(const std::string& a, const std::string& v, LogOptions* o, std::string* error) {
  uint64_t n = 0;
  if (a == "--config") o->configPath = v;
  else if (a == "--file") o->file = v;
  else if (a == "--max-size") return countArg(a, v, UINT64_MAX, &n, error) && (o->maxSize = n, true);
  else if (a == "--keep") return countArg(a, v, kMaxKeep, &n, error) && (o->keep = unsigned(n), true);
  else if (a == "--stdout") o->toStdout = true;
  else if (a == "--socket") o->socketPath = v;
  else if (a == "--control") o->controlPath = v;
  else if (a == "--follow") return setMode(o, Mode::kFollow, error);
  else if (a == "--status") return setMode(o, Mode::kStatus, error);
  else if (a == "--mute" || a == "--unmute")
    return wordArg(a, v, error) && setMode(o, a == "--mute" ? Mode::kMute : Mode::kUnmute, error) && (o->topic = v, true);
  else if (a == "--tail") return countArg(a, v, Control::kRingLines, &n, error) && (o->tail = size_t(n), true);
  else if (a == "--topic") return wordArg(a, v, error) && (o->topics.push_back(v), true);
  else if (a == "--program") return wordArg(a, v, error) && (o->programs.push_back(v), true);
  else return failWith(error, "unknown option " + a);
  return true;
}

bool takesValue(const std::string& a) {
  for (const char* o : {"--config", "--file", "--max-size", "--keep", "--socket", "--control", "--mute", "--unmute",
                        "--tail", "--topic", "--program"}) {
    if (a == o) return true;
  }
  return false;
}

// Options that only make sense in one mode.
bool checkModes(const LogOptions& o, const std::vector<std::string>& seen, std::string* error) {
  const bool service = o.mode == Mode::kService;
  for (const std::string& a : seen) {
    const bool serviceOnly = a == "--config" || a == "--file" || a == "--max-size" || a == "--keep" ||
                             a == "--stdout" || a == "--socket";
    const bool followOnly = a == "--tail" || a == "--topic" || a == "--program";
    if (serviceOnly && !service) return failWith(error, a + " goes with the service, not a client mode");
    if (followOnly && o.mode != Mode::kFollow) return failWith(error, a + " goes with --follow");
  }
  return true;
}

// The configuration file, then the command line over it.
bool settle(const LogOptions& o, Config* config) {
  std::string error;
  if (!o.configPath.empty() && !loadConfig(o.configPath, config, &error)) {
    LogLine() << error;
    return false;
  }
  if (o.file) config->file = *o.file;
  if (o.maxSize) config->maxSize = *o.maxSize;
  if (o.keep) config->keep = *o.keep;
  if (config->file.empty()) config->file = runtimePath("/log/kr.log");
  return true;
}

UniqueFd listenOn(const std::string& path) {
  std::string error;
  UniqueFd fd = platform::openUnixListener(path, SOCK_STREAM, "kr-log", gid_t(-1), &error);
  if (!fd) LogLine() << error;
  return fd;
}

int serve(Runner& runner, const Config& config, LogFile& file, UniqueFd logs, UniqueFd control,
          const std::string& where) {
  int signal = 0;
  const auto stop = [&signal](int sig) { signal = sig; };
  runner.setSigaction(SIGPIPE, Runner::kIgnore);  // a vanished reader is a failed write, not our end
  runner.addSighandler(SIGTERM, true, stop);
  runner.addSighandler(SIGINT, true, stop);
  {
    Service service(runner, config, file, std::move(logs));
    Control ctl(runner, service, std::move(control));
    service.note("started: " + where);
    while (signal == 0) runner.step(true);
    service.note("stopping on signal " + std::to_string(signal));
  }
  runner.removeSighandler(SIGTERM, true);
  runner.removeSighandler(SIGINT, true);
  return kExitOk;
}

}  // namespace

bool parseArgs(const std::vector<std::string>& args, LogOptions* out, std::string* error, bool* help) {
  LogOptions o;
  Args seen;
  *help = false;
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a == "--help" || a == "-h") {
      *help = true;
      return true;
    }
    if (takesValue(a) && i + 1 == args.size()) return failWith(error, a + " needs a value");
    const std::string value = takesValue(a) ? args[++i] : "";
    if (!applyOption(a, value, &o, error)) return false;
    seen.push_back(a);
  }
  if (!checkModes(o, seen, error)) return false;
  *out = std::move(o);
  return true;
}

int runService(const LogOptions& o) {
  Config config;
  if (!settle(o, &config)) return kExitUsage;
  const std::string socketPath = o.socketPath.empty() ? logSocketPath() : o.socketPath;
  const std::string controlPath = o.controlPath.empty() ? logControlSocketPath() : o.controlPath;
  UniqueFd logs = listenOn(socketPath);
  if (!logs) return kExitSocket;
  // Every daemon connects at boot, hundreds at once: the listener's own
  // queue must not turn them away while the service is busy.
  ::listen(logs.get(), SOMAXCONN);
  UniqueFd control = listenOn(controlPath);
  const bool controlOurs = bool(control);
  LogFile file;
  std::string error;
  int status = control ? kExitOk : kExitSocket;
  if (control && !file.open({config.file, config.maxSize, config.keep, o.toStdout ? STDOUT_FILENO : -1}, &error)) {
    LogLine() << error;
    status = kExitFile;
  }
  if (status == kExitOk) {
    const std::string where = "clients on " + socketPath + ", control on " + controlPath + ", writing " + config.file;
    LogLine() << where;
    Runner runner;
    status = serve(runner, config, file, std::move(logs), std::move(control), where);
    file.flush();
    LogLine() << "stopped";
  }
  unlink(socketPath.c_str());
  if (controlOurs) unlink(controlPath.c_str());
  return status;
}

int runClient(const LogOptions& o) {
  std::string request;
  switch (o.mode) {
    case Mode::kFollow: request = followRequest(o.tail, o.topics, o.programs); break;
    case Mode::kMute: request = "mute " + o.topic; break;
    case Mode::kUnmute: request = "unmute " + o.topic; break;
    case Mode::kStatus: request = "status"; break;
    case Mode::kService: return kExitUsage;
  }
  std::string error;
  const std::string path = o.controlPath.empty() ? logControlSocketPath() : o.controlPath;
  const int status = runControlRequest(path, request, std::cout, 0, &error);
  if (status != kControlOk) std::fprintf(stderr, "kr-log: %s\n", error.c_str());
  return status == kControlOk ? kExitOk : kExitSocket;
}

int logMain(int argc, char** argv) {
  LogOptions o;
  std::string error;
  bool help = false;
  if (!parseArgs(Args(argv + 1, argv + argc), &o, &error, &help)) {
    std::fprintf(stderr, "kr-log: %s\n%s", error.c_str(), kUsageText);
    return kExitUsage;
  }
  if (help) {
    std::fputs(kUsageText, stdout);
    return kExitOk;
  }
  return o.mode == Mode::kService ? runService(o) : runClient(o);
}

}  // namespace kr::logsvc
