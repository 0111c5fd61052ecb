// kr-log's configuration: the topic table (numbers to names), the topics
// muted from the start, and where the log goes. Read from a line-based
// text file (docs/log.md, platform/log/kr-log.conf):
//
//   topic 41 example.requests   # number (decimal or 0x-hex) and name
//   mute example.requests       # name or number
//   file /var/log/kr.log
//   max-size 1048576
//   keep 3
//
//   Config c;
//   std::string error;
//   if (!loadConfig(path, &c, &error)) { LogLine() << error; return 2; }
//
// Plain data; no threads involved.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace kr::logsvc {

// The names of topic numbers. Numbers are 1..65535; names are unique and
// have no blanks.
class TopicTable {
 public:
  // False, with a reason, when the number or the name is taken already.
  bool add(uint16_t number, const std::string& name, std::string* error);
  // A name from the table, or a number (named or not). False otherwise.
  bool resolve(std::string_view text, uint16_t* out) const;
  // The name of `number`, or the number in decimal.
  std::string name(uint16_t number) const;
  // The name of `number`, or null; valid while the table is not changed.
  const std::string* find(uint16_t number) const;

 private:
  std::map<uint16_t, std::string> names_;
  std::map<std::string, uint16_t, std::less<>> numbers_;
};

struct Config {
  TopicTable topics;
  std::set<uint16_t> muted;
  std::string file;                  // empty: the default, $KR_RUNTIME_DIR/log/kr.log
  uint64_t maxSize = 1024 * 1024;    // rotate before a line would take the file past it; 0: never
  unsigned int keep = 3;             // rotated files kept: kr.log.1 ... kr.log.<keep>
};

inline constexpr unsigned int kMaxKeep = 1000;

// A topic number as written: decimal or 0x-hex, 1..65535, nothing else.
bool parseTopicNumber(std::string_view text, uint16_t* out);
// A whole decimal number that fits `out`; nothing else.
bool parseCount(std::string_view text, uint64_t* out);

// Adds the file's settings to *config. False with one line,
// "<path> line N: <reason>" (or why the file cannot be read), on the first
// bad line; *config is then partly filled and should be dropped.
bool loadConfig(const std::string& path, Config* config, std::string* error);
// The same for text already in memory; `path` only names it in errors.
bool parseConfig(std::string_view text, const std::string& path, Config* config, std::string* error);

}  // namespace kr::logsvc
