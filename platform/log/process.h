// The kr-log process as a whole: its command line, the service with its
// sockets, file and signals, and the client modes that talk to a running
// service. main.cc only calls logMain().
//
//   kr-log [--config PATH] [--file PATH] [--max-size N] [--keep N] [--stdout]
//          [--socket PATH] [--control PATH]               run the service
//   kr-log --follow [--tail N] [--topic T]... [--program P]...
//   kr-log --mute T | --unmute T | --status               ask a running one
//
// The service does not join the loader's bus: the loader starts it like any
// daemon (descriptor 3 is left alone) and, as it never says hello, stops it
// with SIGTERM. SIGTERM and SIGINT end it cleanly, with the file flushed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kr::logsvc {

// Exit statuses.
inline constexpr int kExitOk = 0;
inline constexpr int kExitSocket = 1;  // service: a socket could not be set up; client: no answer
inline constexpr int kExitUsage = 2;   // bad usage or a bad configuration file
inline constexpr int kExitFile = 3;    // the log file could not be opened

enum class Mode { kService, kFollow, kMute, kUnmute, kStatus };

struct LogOptions {
  Mode mode = Mode::kService;
  // The service. Set options override the configuration file.
  std::string configPath;  // empty: no file, the defaults
  std::optional<std::string> file;
  std::optional<uint64_t> maxSize;
  std::optional<unsigned int> keep;
  bool toStdout = false;
  std::string socketPath;   // empty: kr::logSocketPath()
  std::string controlPath;  // empty: kr::logControlSocketPath()
  // The client modes.
  std::string topic;  // --mute, --unmute
  size_t tail = 0;
  std::vector<std::string> topics, programs;
};

extern const char kUsageText[];

// The arguments after the program name. False with one line in *error on
// bad usage; --help is reported through *help.
bool parseArgs(const std::vector<std::string>& args, LogOptions* out, std::string* error, bool* help);

// Runs the service until SIGTERM or SIGINT. Constructs the process's
// runner, so none may exist yet.
int runService(const LogOptions& options);
// A client mode: the request, its answer on standard output.
int runClient(const LogOptions& options);

// All of it, for main().
int logMain(int argc, char** argv);

}  // namespace kr::logsvc
