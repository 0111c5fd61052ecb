#include "tools/kr-cli/cli.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>

#include "kr/bus/handler.h"
#include "kr/bus/looper.h"
#include "kr/message/dump.h"
#include "kr/message/protocol.h"
#include "kr/message/vocabulary.h"
#include "kr/util/runtime_dir.h"
#include "kr/util/unique_fd.h"
#include "platform/common/number.h"
#include "platform/loader/protocol.h"
#include "platform/log/control_client.h"
#include "tools/kr-msg/msgjson.h"

namespace kr::cli {

const char kUsageText[] =
    "usage: kr-cli [OPTIONS] COMMAND ...\n"
    "\n"
    "  call PATH CMD [JSON]      send command CMD (a number or a name like CMD_GET)\n"
    "  get PATH [ID]             CMD_GETOBJ of object ID, or CMD_GET\n"
    "  set PATH [ID] JSON        CMD_SETOBJ of object ID, or CMD_SET\n"
    "  getall PATH               every object (CMD_GETALL, page by page), as a JSON array\n"
    "  add PATH JSON             CMD_ADDOBJ; the answer carries the new STD_ID\n"
    "  remove PATH ID            CMD_REMOVEOBJ\n"
    "  move PATH ID [BEFORE_ID]  CMD_MOVEOBJ: before object BEFORE_ID (0: first), else last\n"
    "  listen PATH [FILTER]      subscribe and print each notify message until interrupted\n"
    "       [--credits N]        at most N objects unacknowledged (acknowledged as they come)\n"
    "       [--push]             the whole state first\n"
    "       [--count N]          leave after N notify messages\n"
    "  monitor                   print every frame the loader delivers, one line each\n"
    "  log [follow]              print kr-log's lines as they are written (no bus needed)\n"
    "       [--tail N]           the last N lines first (at most 1000)\n"
    "       [--topic T]...       only lines of topic T, a name or a number (any of several)\n"
    "       [--program P]...     only lines of program P (any of several)\n"
    "       [--count N]          leave after N lines\n"
    "  log mute T | unmute T     silence or allow topic T in every daemon\n"
    "  log status                kr-log's clients and muted topics\n"
    "\n"
    "PATH is a bus path, elements separated by '/', each decimal or 0x-hex: 40/10.\n"
    "JSON and FILTER are messages in the kr-msg JSON form: '{\"string:1\": \"Ada\"}'.\n"
    "\n"
    "OPTIONS:\n"
    "  --socket PATH       the loader's socket (default $KR_RUNTIME_DIR/korasock)\n"
    "  --timeout SECONDS   wait this long for each answer (default 5)\n"
    "  --dump              print the dump form instead of JSON\n"
    "  --compact           JSON on one line\n"
    "  --all-fields        keep the routing and request fields in what is printed\n"
    "Exit status: 0 ok, 1 failed (error answer, time-out, no loader or kr-log), 2 bad usage.\n";

namespace {

// Our handler inside this process; replies and notifications come to it.
constexpr unsigned int kClientHandler = 1;
// The continuation cookie of a get-all answer, and the subscription's ask
// for the whole state.
constexpr raw_id kGetAllCookie{0xFE0015};
constexpr bool_id kSubscribePush{0xFF0017};

// ---- The command line -------------------------------------------------------------

using Args = std::vector<std::string>;

bool failWith(std::string* error, std::string text) {
  *error = std::move(text);
  return false;
}

bool jsonArg(const std::string& text, message* m, std::string* error) {
  std::string why;
  message parsed;
  if (!msgjson::messageFromJson(text, parsed, why)) return failWith(error, "bad JSON message: " + why);
  *m = parsed;
  return true;
}

bool idArg(const std::string& text, const char* what, unsigned int* id, std::string* error) {
  return parseNumber(text, id) || failWith(error, std::string("bad ") + what + " '" + text + "'");
}

// One builder per command: the arguments after the command's name (PATH
// included) into o->request.
bool buildCall(const Args& a, Options* o, std::string* error) {
  unsigned int cmd;
  if (!parseCommand(a[1], &cmd)) return failWith(error, "unknown command '" + a[1] + "'");
  if (a.size() > 2 && !jsonArg(a[2], &o->request, error)) return false;
  o->request.insert(SYS_CMD, cmd);
  return true;
}

bool buildGet(const Args& a, Options* o, std::string* error) {
  unsigned int id;
  if (a.size() == 1) {
    o->request.insert(SYS_CMD, CMD_GET);
    return true;
  }
  if (!idArg(a[1], "ID", &id, error)) return false;
  o->request.insert(SYS_CMD, CMD_GETOBJ);
  o->request.insert(STD_ID, id);
  return true;
}

bool buildSet(const Args& a, Options* o, std::string* error) {
  unsigned int id;
  if (!jsonArg(a.back(), &o->request, error)) return false;
  if (a.size() == 2) {
    o->request.insert(SYS_CMD, CMD_SET);
    return true;
  }
  if (!idArg(a[1], "ID", &id, error)) return false;
  o->request.insert(SYS_CMD, CMD_SETOBJ);
  o->request.insert(STD_ID, id);
  return true;
}

bool buildGetAll(const Args&, Options* o, std::string*) {
  o->request.insert(SYS_CMD, CMD_GETALL);
  return true;
}

bool buildAdd(const Args& a, Options* o, std::string* error) {
  if (!jsonArg(a[1], &o->request, error)) return false;
  o->request.insert(SYS_CMD, CMD_ADDOBJ);
  return true;
}

bool buildRemove(const Args& a, Options* o, std::string* error) {
  unsigned int id;
  if (!idArg(a[1], "ID", &id, error)) return false;
  o->request.insert(SYS_CMD, CMD_REMOVEOBJ);
  o->request.insert(STD_ID, id);
  return true;
}

// Without BEFORE_ID the object goes to the end, as CMD_MOVEOBJ without
// STD_NEXTID does.
bool buildMove(const Args& a, Options* o, std::string* error) {
  unsigned int id, before;
  if (!idArg(a[1], "ID", &id, error)) return false;
  if (a.size() > 2) {
    if (!idArg(a[2], "BEFORE_ID", &before, error)) return false;
    o->request.insert(STD_NEXTID, before);
  }
  o->request.insert(SYS_CMD, CMD_MOVEOBJ);
  o->request.insert(STD_ID, id);
  return true;
}

bool buildListen(const Args& a, Options* o, std::string* error) {
  if (a.size() > 1 && !jsonArg(a[1], &o->request, error)) return false;
  o->request.insert(SYS_CMD, CMD_SUBSCRIBE);
  if (o->credits) o->request.insert(SYS_CREDITS, o->credits);
  if (o->push) o->request.insert(kSubscribePush, true);
  return true;
}

bool buildMonitor(const Args&, Options* o, std::string*) {
  o->path = {loader::kLoaderAddress};
  o->request.insert(SYS_CMD, loader::kMonitorCmd);
  return true;
}

struct Verb {
  const char* name;
  Command command;
  size_t minArgs, maxArgs;  // PATH included
  const char* synopsis;
  bool (*build)(const Args&, Options*, std::string*);
};

constexpr Verb kVerbs[] = {
    {"call", Command::kCall, 2, 3, "PATH CMD [JSON]", buildCall},
    {"get", Command::kGet, 1, 2, "PATH [ID]", buildGet},
    {"set", Command::kSet, 2, 3, "PATH [ID] JSON", buildSet},
    {"getall", Command::kGetAll, 1, 1, "PATH", buildGetAll},
    {"add", Command::kAdd, 2, 2, "PATH JSON", buildAdd},
    {"remove", Command::kRemove, 2, 2, "PATH ID", buildRemove},
    {"move", Command::kMove, 2, 3, "PATH ID [BEFORE_ID]", buildMove},
    {"listen", Command::kListen, 1, 2, "PATH [FILTER] [--credits N] [--push] [--count N]", buildListen},
    {"monitor", Command::kMonitor, 0, 0, "", buildMonitor},
};

const Verb* findVerb(std::string_view name) {
  for (const Verb& v : kVerbs) {
    if (name == v.name) return &v;
  }
  return nullptr;
}

// Seconds, as decimal text ("5", "0.5"), to ticks: at least one, at most a day.
bool parseSeconds(const std::string& text, unsigned int* ticks) {
  char* end = nullptr;
  errno = 0;
  const double s = std::strtod(text.c_str(), &end);
  if (text.empty() || *end || errno || !(s > 0) || s > 86400) return false;
  *ticks = static_cast<unsigned int>(s * 100 + 0.999);
  return true;
}

// A count option of listen: 1 and up. Credits stop short of the value
// that means "unlimited".
bool countArg(const std::string& option, const std::string& value, unsigned int* out, std::string* error) {
  unsigned int n = 0;
  const bool ok = parseNumber(value, &n) && n > 0 && (option != "--credits" || n < Handler::Subscriber::kUnlimited);
  if (!ok) return failWith(error, "bad " + option + " '" + value + "'");
  *out = n;
  return true;
}

// A filter of log follow: one word of the request line.
bool logWord(const std::string& option, const std::string& value, std::vector<std::string>* out, std::string* error) {
  if (!logsvc::isRequestWord(value)) return failWith(error, "bad " + option + " '" + value + "'");
  out->push_back(value);
  return true;
}

// Which command an option goes with: listen only, listen or log follow
// (--count), log follow only.
struct OptionUse {
  bool listen = false, count = false, log = false;
};

// The options; the other words go to `words`. False on a bad option.
bool parseOptions(const Args& args, Options* o, Args* words, std::string* error, bool* help, OptionUse* use) {
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& a = args[i];
    if (a.size() < 2 || a[0] != '-') {
      words->push_back(a);
      continue;
    }
    const bool takesValue = a == "--socket" || a == "--timeout" || a == "--credits" || a == "--count" ||
                            a == "--tail" || a == "--topic" || a == "--program";
    if (takesValue && i + 1 == args.size()) return failWith(error, a + " needs a value");
    const std::string value = takesValue ? args[++i] : "";
    bool ok = true;
    if (a == "--help" || a == "-h") *help = true;
    else if (a == "--socket") o->socketPath = value;
    else if (a == "--timeout") ok = parseSeconds(value, &o->timeoutTicks) || failWith(error, "bad --timeout '" + value + "'");
    else if (a == "--dump") o->dump = true;
    else if (a == "--compact") o->compact = true;
    else if (a == "--all-fields") o->allFields = true;
    else if (a == "--push") o->push = true;
    else if (a == "--credits") ok = countArg(a, value, &o->credits, error);
    else if (a == "--count") ok = countArg(a, value, &o->count, error);
    else if (a == "--tail")
      ok = (parseNumber(value, &o->logTail) && o->logTail <= 1000) || failWith(error, "bad --tail '" + value + "'");
    else if (a == "--topic") ok = logWord(a, value, &o->logTopics, error);
    else if (a == "--program") ok = logWord(a, value, &o->logPrograms, error);
    else return failWith(error, "unknown option " + a);
    if (!ok) return false;
    use->listen |= a == "--push" || a == "--credits";
    use->count |= a == "--count";
    use->log |= a == "--tail" || a == "--topic" || a == "--program";
  }
  return true;
}

// ---- Output ----------------------------------------------------------------------------

// The fields every bus message carries for its journey, which say nothing
// about the answer itself.
message visible(const message& m, bool allFields, bool keepPaths = false) {
  if (allFields) return m;
  message v = m;
  if (!keepPaths) {
    v.remove(SYS_TO);
    v.remove(SYS_FROM);
  }
  v.remove(SYS_TYPE);
  v.remove(SYS_REQID);
  v.remove(SYS_POLICY);
  v.remove(SYS_REPLYEXP);
  return v;
}

std::string dumpText(const message& m) {
  std::ostringstream os;
  m.dump2(os);
  return os.str();
}

std::string hexText(unsigned int v) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%x", v);
  return buf;
}

// What a frame is, in a word or two: its command, "reply", and the error.
std::string frameLabel(const message& f) {
  std::string label = "-";
  if (f.has(SYS_CMD)) {
    const char* name = commandName(f.get(SYS_CMD));
    label = name ? name : hexText(f.get(SYS_CMD));
  } else if (isReply(f)) {
    label = "reply";
  }
  unsigned int code = 0;
  if (isError(f, &code, nullptr)) {
    const char* name = errorName(code);
    label += std::string(" ") + (name ? name : hexText(code));
  }
  return label;
}

std::string secondsText(unsigned int ticks) {
  char buf[32];
  std::snprintf(buf, sizeof buf, "%g", ticks / 100.0);
  return buf;
}

void writeOut(const std::string& text) {
  std::fwrite(text.data(), 1, text.size(), stdout);
  std::fflush(stdout);  // a script reads each document as it comes
}

void note(const std::string& text) { std::fprintf(stderr, "kr-cli: %s\n", text.c_str()); }

// ---- The client ----------------------------------------------------------------------------

// The bus socket, connected, or an empty handle after a line on standard
// error. Checked here, before any kr::Looper exists, because the Looper
// treats a missing loader as fatal and aborts.
UniqueFd connectToLoader(const std::string& path) {
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  if (path.size() >= sizeof addr.sun_path) {
    note("socket path too long: " + path);
    return {};
  }
  std::memcpy(addr.sun_path, path.c_str(), path.size());
  UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd && connect(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) return fd;
  note("cannot connect to the loader at " + path + ": " + std::strerror(errno) + " (is kr-loader running?)");
  return {};
}

// The Looper, joined through the socket we connected ourselves (handed over
// as descriptor 3, the way the loader hands a daemon its connection). A
// loader that goes away ends the process with a line instead of the
// Looper's abort.
class BusLooper : public Looper {
 public:
  BusLooper() : Looper(looper_detached) {
    // Connected here rather than through the base constructor, so that the
    // handshake reads through our readMessage().
    connectLoader(kConnectInherited, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  }

  bool readMessage(message& out, int ticks, bool block) override {
    if (block && !frameBuffered()) {
      pollfd p{busSocket(), POLLIN, 0};
      const int n = poll(&p, 1, ticks < 0 ? -1 : ticks * 10);
      if (n == 0) return false;
      char c;
      if (n > 0 && recv(p.fd, &c, 1, MSG_PEEK | MSG_DONTWAIT) == 0) lost();
    }
    return Looper::readMessage(out, ticks, block);
  }

 private:
  bool frameBuffered() const {
    const long n = rxEnd - rxStart;
    return n >= long(kFrameHeaderBytes) && n >= long(kFrameHeaderBytes + getFrameLength(rxStart));
  }
  [[noreturn]] static void lost() {
    std::fflush(stdout);
    note("the loader closed the connection");
    _exit(kExitFailed);
  }
};

// Leaves in order (control 2, nothing to keep), so that the others see a
// departure in our disconnect notice, not a crash. Written straight to the
// socket and failure ignored: the loader may be gone already (when it is
// what stopped us), and the Looper would treat a failed write as fatal.
void leaveBus(int sock) {
  message leaving;
  leaving.insert_vector(SYS_TO, loader::kLoaderAddress);
  leaving.insert(SYS_CTRL, CTRL_LEAVING);
  leaving.insert(SYS_CTRL_ARG, 1);
  std::vector<unsigned char> body;
  leaving.flatten(body);
  std::vector<unsigned char> frame(kFrameHeaderBytes);
  putFrameLength(frame.data(), static_cast<uint32_t>(body.size()));
  frame.insert(frame.end(), body.begin(), body.end());
  send(sock, frame.data(), frame.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}

// One run of a command: the handler that sends, receives and prints.
class Session : public Handler {
 public:
  Session(Looper& looper, const Options& o) : looper_(looper), o_(o) { looper_.addHandler(kClientHandler, this); }
  ~Session() override {
    if (!signals_) return;
    looper_.removeSighandler(SIGINT, true);
    looper_.removeSighandler(SIGTERM, true);
  }

  int run() {
    start();
    while (!done_ && looper_.step(true)) {
    }
    return status_;
  }

  void handle(message& m) override {
    const unsigned int cmd = isReply(m) ? 0 : m.get(SYS_CMD, CMD_NOOP);
    if (o_.command == Command::kListen && cmd == CMD_NOTIFY) return notified(m);
    if (o_.command == Command::kMonitor && cmd == loader::kMonitorEvent) return writeOut(renderEvent(m, o_));
    Handler::handle(m);
  }

  // The target's process has left the bus: nothing more will come from it.
  void cmdDisconnected(const message& m) override {
    Handler::cmdDisconnected(m);
    const Path gone = m.get(SYS_FROM);
    if (done_ || gone.empty() || gone.front() != o_.path.front()) return;
    if (stopping_) return finish(kExitOk);
    const bool left = m.get(SYS_DREASON, DREASON_CRASHED) == DREASON_DISCONNECTED;
    fail(std::to_string(gone.front()) + (left ? " left the bus" : " is gone (crashed)"));
  }

 private:
  void start() {
    switch (o_.command) {
      case Command::kGetAll:
        return getAllFrom(kNoId, {});
      case Command::kListen:
        catchSignals();
        return ask(o_.request, [this](const message&) {
          if (!stopping_) note("listening to " + pathText(o_.path));
        });
      case Command::kMonitor:
        catchSignals();
        return ask(o_.request, [](const message&) { note("monitoring the bus"); });
      default:
        return ask(o_.request, [this](const message& r) {
          writeOut(render(r, o_));
          finish(kExitOk);
        });
    }
  }

  // Sends m to the target as a request; `then` gets a successful answer,
  // while an error answer or no answer in time ends the run.
  void ask(message m, ReplyCallback then) {
    m.insert(SYS_TO, o_.path);
    const auto answered = [this, then](const message& r) {
      unsigned int code = 0;
      if (!isError(r, &code, nullptr)) return then(r);
      // Our own time-out is not a reply; a peer's ERROR_TIMEOUT is.
      if (!isReply(r) && code == ERROR_TIMEOUT) {
        return fail("timeout: no answer from " + pathText(o_.path) + " within " + secondsText(o_.timeoutTicks) + " s");
      }
      fail(pathText(o_.path) + ": " + getError(r));
    };
    if (postMessage(m, answered, o_.timeoutTicks) == kNoId) fail("the request is too long to send");
  }

  void finish(int status) {
    if (done_) return;
    done_ = true;
    status_ = status;
  }
  void fail(const std::string& what) {
    if (done_) return;
    note(what);
    finish(kExitFailed);
  }

  // getall: page after page, each starting where the last one stopped.
  void getAllFrom(unsigned int from, const std::vector<unsigned char>& cookie) {
    message q = o_.request;
    if (from != kNoId) q.insert(STD_GETALLID, from);
    if (!cookie.empty()) q.insert(kGetAllCookie, cookie);
    ask(q, [this, from, cookie](const message& r) { gotPage(r, from, cookie); });
  }

  void gotPage(const message& r, unsigned int from, const std::vector<unsigned char>& cookie) {
    const std::vector<message> page = r.get(STD_OBJS);
    objects_.insert(objects_.end(), page.begin(), page.end());
    const unsigned int next = r.get(STD_GETALLID, kNoId);
    const std::vector<unsigned char> nextCookie = r.get(kGetAllCookie);
    if (next == kNoId && nextCookie.empty()) {
      writeOut(renderList(objects_, o_));
      return finish(kExitOk);
    }
    // An object too large for any page comes back as an empty page that
    // points at itself; asking again would never end.
    if (page.empty() && next == from && nextCookie == cookie) {
      return fail(pathText(o_.path) + ": getall is stuck at object " + std::to_string(next) +
                  " (too large for a page?)");
    }
    getAllFrom(next, nextCookie);
  }

  // listen: print, give the credits back, count.
  void notified(const message& m) {
    if (stopping_ || done_) return;
    writeOut(render(m, o_));
    if (o_.credits) {
      message ack;
      ack.insert(SYS_TO, o_.path);
      ack.insert(SYS_CMD, CMD_NOTIFYACK);
      ack.insert(SYS_CREDITS, m.has(STD_OBJS) ? m.size(STD_OBJS) : 1u);
      sendMessage(ack);
    }
    if (o_.count && ++received_ >= o_.count) stopListening();
  }

  // Unsubscribes and leaves with status 0 however that goes; a second
  // interrupt does not wait for it.
  void stopListening() {
    if (stopping_) return finish(kExitOk);
    stopping_ = true;
    message m = o_.request;
    m.insert(SYS_TO, o_.path);
    m.insert(SYS_CMD, CMD_UNSUBSCRIBE);
    if (postMessage(m, [this](const message&) { finish(kExitOk); }, o_.timeoutTicks) == kNoId) finish(kExitOk);
  }

  void catchSignals() {
    signals_ = true;
    for (int sig : {SIGINT, SIGTERM}) {
      looper_.addSighandler(sig, true, [this](int) {
        if (o_.command == Command::kListen) return stopListening();
        finish(kExitOk);
      });
    }
  }

  Looper& looper_;
  const Options& o_;
  bool done_ = false;
  int status_ = kExitOk;
  bool signals_ = false;
  bool stopping_ = false;  // listen: unsubscribing
  unsigned int received_ = 0;
  std::vector<message> objects_;  // getall: the pages so far
};

}  // namespace

// ---- Parsing ---------------------------------------------------------------------------

bool parseNumber(std::string_view text, unsigned int* out) {
  return platform::parseUnsigned(text, out);
}

bool parsePath(std::string_view text, Path* out) {
  Path path;
  for (;;) {
    const size_t slash = text.find('/');
    unsigned int element;
    if (!parseNumber(text.substr(0, slash), &element)) return false;
    path.push_back(element);
    if (slash == std::string_view::npos) break;
    text.remove_prefix(slash + 1);
  }
  *out = std::move(path);
  return true;
}

bool parseCommand(std::string_view text, unsigned int* out) {
  if (parseNumber(text, out)) return true;
  return text.starts_with("CMD_") && constantValue(text, out);
}

std::string pathText(const Path& path) {
  std::string out;
  for (unsigned int element : path) out += (out.empty() ? "" : "/") + std::to_string(element);
  return out;
}

// log [follow] | log mute T | log unmute T | log status: the request line
// for kr-log's control socket.
bool parseLog(const Args& rest, const OptionUse& use, Options* o, std::string* error) {
  const std::string sub = rest.empty() ? "follow" : rest[0];
  const bool follow = sub == "follow";
  const bool takesTopic = sub == "mute" || sub == "unmute";
  if (!follow && !takesTopic && sub != "status") return failWith(error, "unknown log command '" + sub + "'");
  const bool shapeOk = follow ? rest.size() <= 1
                              : rest.size() == (takesTopic ? 2u : 1u) && (!takesTopic || logsvc::isRequestWord(rest[1]));
  if (!shapeOk)
    return failWith(error, "usage: kr-cli log [follow] [--tail N] [--topic T]... [--program P]... [--count N] | "
                           "log mute T | log unmute T | log status");
  if (!follow && (use.log || use.count))
    return failWith(error, "--tail, --topic, --program and --count go with log follow");
  if (use.listen) return failWith(error, "--credits and --push go with listen");
  o->command = Command::kLog;
  o->logRequest = follow ? logsvc::followRequest(o->logTail, o->logTopics, o->logPrograms)
                         : takesTopic ? sub + " " + rest[1] : sub;
  return true;
}

bool parseArgs(const std::vector<std::string>& args, Options* out, std::string* error, bool* help) {
  Options o;
  Args words;
  OptionUse use;
  *help = false;
  if (!parseOptions(args, &o, &words, error, help, &use)) return false;
  if (*help) return true;
  if (words.empty()) return failWith(error, "no command");
  if (words.front() == "log") {
    if (!parseLog(Args(words.begin() + 1, words.end()), use, &o, error)) return false;
    *out = std::move(o);
    return true;
  }
  const Verb* verb = findVerb(words.front());
  if (!verb) return failWith(error, "unknown command '" + words.front() + "'");
  const Args rest(words.begin() + 1, words.end());
  if (rest.size() < verb->minArgs || rest.size() > verb->maxArgs) {
    return failWith(error, std::string("usage: kr-cli ") + verb->name + " " + verb->synopsis);
  }
  if ((use.listen || use.count) && verb->command != Command::kListen)
    return failWith(error, "--credits, --push and --count go with listen");
  if (use.log) return failWith(error, "--tail, --topic and --program go with log follow");
  if (o.dump && o.compact) return failWith(error, "--dump and --compact exclude each other");
  if (!rest.empty() && !parsePath(rest[0], &o.path)) return failWith(error, "bad PATH '" + rest[0] + "'");
  o.command = verb->command;
  if (!verb->build(rest, &o, error)) return false;
  *out = std::move(o);
  return true;
}

// ---- Output ------------------------------------------------------------------------------

std::string render(const message& m, const Options& o) {
  const message v = visible(m, o.allFields);
  return o.dump ? dumpText(v) : msgjson::messageToJson(v, o.compact ? -1 : 2) + "\n";
}

std::string renderList(const std::vector<message>& ms, const Options& o) {
  std::string out;
  if (o.dump) {
    for (const message& m : ms) out += dumpText(visible(m, o.allFields));
    return out;
  }
  for (const message& m : ms) {
    std::string one = msgjson::messageToJson(visible(m, o.allFields), o.compact ? -1 : 2);
    if (!o.compact) {  // one level deeper inside the array
      for (size_t at = one.find('\n'); at != std::string::npos; at = one.find('\n', at + 1)) one.insert(at + 1, "  ");
      one = "\n  " + one;
    }
    out += (out.empty() ? "[" : ",") + one;
  }
  if (out.empty()) return "[]\n";
  return out + (o.compact ? "]\n" : "\n]\n");
}

// The monitor keeps SYS_TO and SYS_FROM: where a frame goes is what it is
// watched for.
std::string renderEvent(const message& event, const Options& o) {
  std::string line = std::to_string(event.get(loader::kMonitorSender)) + " -> " +
                     std::to_string(event.get(loader::kMonitorReceiver)) + "  ";
  if (!event.has(loader::kMonitorFrame)) {
    return line + "(a frame of " + std::to_string(event.get(loader::kMonitorFrameLength)) + " bytes)\n";
  }
  const message whole = event.get(loader::kMonitorFrame);
  const message frame = visible(whole, o.allFields, true);
  line += frameLabel(whole) + "  ";
  return o.dump ? line + "\n" + dumpText(frame) : line + msgjson::messageToJson(frame, -1) + "\n";
}

// ---- Running -----------------------------------------------------------------------------

// kr-log's control socket: one request, the answer printed.
int runLog(const Options& o) {
  std::string error;
  if (logsvc::runControlRequest(logControlSocketPath(), o.logRequest, std::cout, o.count, &error) == logsvc::kControlOk)
    return kExitOk;
  note(error);
  return kExitFailed;
}

int runClient(const Options& o) {
  if (o.command == Command::kLog) return runLog(o);
  UniqueFd fd = connectToLoader(o.socketPath.empty() ? loaderSocketPath() : o.socketPath);
  if (!fd) return kExitFailed;
  constexpr int kBusDescriptor = 3;
  if (fd.get() != kBusDescriptor) {
    if (dup2(fd.get(), kBusDescriptor) < 0) {
      note(std::string("dup2: ") + std::strerror(errno));
      return kExitFailed;
    }
    fd.reset();
  } else {
    fd.release();  // the Looper owns it from here
  }
  BusLooper looper;
  int status;
  {
    Session session(looper, o);
    status = session.run();
  }
  leaveBus(looper.busSocket());
  return status;
}

int main(int argc, char** argv) {
  const std::vector<std::string> args(argv + 1, argv + argc);
  Options o;
  std::string error;
  bool help = false;
  if (!parseArgs(args, &o, &error, &help)) {
    std::fprintf(stderr, "kr-cli: %s\n%s", error.c_str(), kUsageText);
    return kExitUsage;
  }
  if (help) {
    std::fputs(kUsageText, stdout);
    return kExitOk;
  }
  return runClient(o);
}

}  // namespace kr::cli
