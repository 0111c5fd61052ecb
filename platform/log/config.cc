#include "platform/log/config.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <iterator>
#include <vector>

#include "platform/common/number.h"

namespace kr::logsvc {

namespace {

using Words = std::vector<std::string_view>;

Words splitWords(std::string_view line) {
  Words words;
  for (size_t at = 0;;) {
    at = line.find_first_not_of(" \t\r", at);
    if (at == std::string_view::npos) return words;
    const size_t end = std::min(line.find_first_of(" \t\r", at), line.size());
    words.push_back(line.substr(at, end - at));
    at = end;
  }
}

// One keyword's handler: the words after the keyword into *c. Mute names
// are resolved once the whole file is read, so `mute` may come before the
// topic it names.
struct Pending {
  std::string_view topic;
  size_t line;
};
using Handler = bool (*)(const Words& w, Config* c, std::vector<Pending>* mutes, size_t line, std::string* why);

bool onTopic(const Words& w, Config* c, std::vector<Pending>*, size_t, std::string* why) {
  uint16_t n = 0;
  if (w.size() != 3) return *why = "topic needs a number and a name", false;
  if (!parseTopicNumber(w[1], &n)) return *why = "bad topic number '" + std::string(w[1]) + "' (1..65535)", false;
  return c->topics.add(n, std::string(w[2]), why);
}

bool onMute(const Words& w, Config*, std::vector<Pending>* mutes, size_t line, std::string* why) {
  if (w.size() != 2) return *why = "mute needs one topic", false;
  mutes->push_back({w[1], line});
  return true;
}

bool onFile(const Words& w, Config* c, std::vector<Pending>*, size_t, std::string* why) {
  if (w.size() != 2) return *why = "file needs one path", false;
  c->file = std::string(w[1]);
  return true;
}

bool onMaxSize(const Words& w, Config* c, std::vector<Pending>*, size_t, std::string* why) {
  if (w.size() != 2 || !parseCount(w[1], &c->maxSize)) return *why = "max-size needs a number of bytes", false;
  return true;
}

bool onKeep(const Words& w, Config* c, std::vector<Pending>*, size_t, std::string* why) {
  uint64_t n = 0;
  if (w.size() != 2 || !parseCount(w[1], &n) || n > kMaxKeep) return *why = "keep needs a number (0..1000)", false;
  c->keep = unsigned(n);
  return true;
}

struct Keyword {
  const char* name;
  Handler handle;
};
constexpr Keyword kKeywords[] = {
    {"topic", onTopic}, {"mute", onMute}, {"file", onFile}, {"max-size", onMaxSize}, {"keep", onKeep},
};

bool parseLine(std::string_view line, size_t number, Config* c, std::vector<Pending>* mutes, std::string* why) {
  const Words w = splitWords(line.substr(0, line.find('#')));
  if (w.empty()) return true;
  for (const Keyword& k : kKeywords) {
    if (w[0] == k.name) return k.handle(w, c, mutes, number, why);
  }
  *why = "unknown keyword '" + std::string(w[0]) + "'";
  return false;
}

}  // namespace

bool TopicTable::add(uint16_t number, const std::string& name, std::string* error) {
  if (names_.count(number)) return *error = "topic " + std::to_string(number) + " is named already", false;
  if (numbers_.count(name)) return *error = "topic name '" + name + "' is taken already", false;
  names_.emplace(number, name);
  numbers_.emplace(name, number);
  return true;
}

bool TopicTable::resolve(std::string_view text, uint16_t* out) const {
  const auto it = numbers_.find(text);
  if (it != numbers_.end()) return *out = it->second, true;
  return parseTopicNumber(text, out);
}

std::string TopicTable::name(uint16_t number) const {
  const std::string* n = find(number);
  return n ? *n : std::to_string(number);
}

const std::string* TopicTable::find(uint16_t number) const {
  const auto it = names_.find(number);
  return it == names_.end() ? nullptr : &it->second;
}

bool parseTopicNumber(std::string_view text, uint16_t* out) {
  uint16_t v = 0;
  if (!platform::parseUnsigned(text, &v) || v == 0) return false;
  *out = v;
  return true;
}

bool parseCount(std::string_view text, uint64_t* out) { return platform::parseUnsigned(text, out, 10); }

bool parseConfig(std::string_view text, const std::string& path, Config* config, std::string* error) {
  std::vector<Pending> mutes;
  std::string why;
  size_t number = 0;
  for (size_t at = 0; at < text.size();) {
    const size_t nl = std::min(text.find('\n', at), text.size());
    ++number;
    if (!parseLine(text.substr(at, nl - at), number, config, &mutes, &why)) {
      *error = path + " line " + std::to_string(number) + ": " + why;
      return false;
    }
    at = nl + 1;
  }
  for (const Pending& m : mutes) {
    uint16_t topic = 0;
    if (!config->topics.resolve(m.topic, &topic)) {
      *error = path + " line " + std::to_string(m.line) + ": unknown topic '" + std::string(m.topic) + "'";
      return false;
    }
    config->muted.insert(topic);
  }
  return true;
}

bool loadConfig(const std::string& path, Config* config, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read " + path + ": " + std::strerror(errno);
    return false;
  }
  const std::string text{std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
  return parseConfig(text, path, config, error);
}

}  // namespace kr::logsvc
