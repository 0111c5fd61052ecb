// kr-cli: the command-line client of the bus. It joins the bus at a dynamic
// address, sends one request (or subscribes, or watches the bus) and prints
// what comes back as JSON in the kr-msg convention (tools/kr-msg/msgjson.h).
//
//   kr-cli get 40/10                        CMD_GET to handler 10 of process 40
//   kr-cli call 40/10 0x100 '{"string:1": "Ada"}'
//   kr-cli listen 40/10 --compact --count 1
//   kr-cli monitor
//   kr-cli log --topic example --tail 10   follow kr-log's lines (no bus)
//
// The work is split so that the parsing can be tested in process: parseArgs()
// turns the command line into Options (the request ready to send), and
// runClient() talks to the loader. main() is both, plus the exit status:
// 0 done, 1 a failure (error reply, time-out, no loader, the peer gone),
// 2 bad usage.
//
// runClient() constructs the process's kr::Looper, so it runs at most once
// per process; the rest is plain functions. Not thread-safe (the loop is
// single-threaded).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "kr/message/message.h"

namespace kr::cli {

using Path = std::vector<unsigned int>;

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

enum class Command { kCall, kGet, kSet, kGetAll, kAdd, kRemove, kMove, kListen, kMonitor, kLog };

struct Options {
  std::string socketPath;           // empty: kr::loaderSocketPath()
  unsigned int timeoutTicks = 500;  // per request, in 10 ms ticks
  bool dump = false;                // the dump form instead of JSON
  bool compact = false;             // JSON on one line
  bool allFields = false;           // keep the routing and request fields
  Command command = Command::kCall;
  Path path;                        // the target; [1], the loader, for monitor
  // What to send to `path`: SYS_CMD and the fields. For listen, the
  // subscription request (its fields without the system ones are the filter).
  message request;
  // listen: credits (0: unlimited, no acknowledgements), the whole state
  // first, and how many notify messages to print before leaving (0: until
  // interrupted).
  unsigned int credits = 0;
  bool push = false;
  unsigned int count = 0;
  // log: the request line for kr-log's control socket (docs/log.md), built
  // from the words after "log" and, for follow, the filters below; count
  // then ends the follow after that many lines. No bus is joined.
  std::string logRequest;
  unsigned int logTail = 0;
  std::vector<std::string> logTopics, logPrograms;
};

// A u32 written in decimal or as 0x-hex ("40", "0x28"); nothing else, not
// even blanks. False when it is not one or does not fit.
bool parseNumber(std::string_view text, unsigned int* out);
// A bus path: elements separated by '/', each a number ("40/10"). False for
// an empty path or element.
bool parsePath(std::string_view text, Path* out);
// A command: a number, or a command's vocabulary name ("CMD_GET").
bool parseCommand(std::string_view text, unsigned int* out);
// "40/10".
std::string pathText(const Path& path);

// The whole command line after the program name. False, with a one-line
// `error`, on bad usage; --help is reported through `help`.
bool parseArgs(const std::vector<std::string>& args, Options* out, std::string* error, bool* help);
extern const char kUsageText[];

// What is printed of a message: without SYS_TO, SYS_FROM, SYS_TYPE,
// SYS_REQID, SYS_POLICY and SYS_REPLYEXP unless o.allFields, as JSON (one
// line with o.compact) or as the dump with o.dump; ends with a newline.
std::string render(const message& m, const Options& o);
// A JSON array of messages, each shown as render() shows it (the dumps one
// after the other with o.dump).
std::string renderList(const std::vector<message>& ms, const Options& o);
// One line for a monitor event: "30 -> 31  CMD_GET  {frame as compact JSON}".
std::string renderEvent(const message& event, const Options& o);

// Connects to the loader and carries out o (or, for log, to kr-log's
// control socket); the exit status. Output goes to
// standard output, failures to standard error as "kr-cli: ..." lines.
int runClient(const Options& o);

// parseArgs() and runClient(), for main().
int main(int argc, char** argv);

}  // namespace kr::cli
