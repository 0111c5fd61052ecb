#include "platform/loader/config.h"

#include <fstream>
#include <set>
#include <sstream>

#include "platform/common/number.h"
#include "platform/loader/protocol.h"

namespace kr::loader {

namespace {

std::vector<std::string> splitWords(std::string_view line) {
  std::vector<std::string> words;
  size_t i = 0;
  while (i < line.size()) {
    while (i < line.size() && (line[i] == ' ' || line[i] == '\t' || line[i] == '\r')) ++i;
    const size_t start = i;
    while (i < line.size() && line[i] != ' ' && line[i] != '\t' && line[i] != '\r') ++i;
    if (i > start) words.emplace_back(line.substr(start, i - start));
  }
  return words;
}

bool parseNumber(std::string_view s, int base, uint32_t* out) { return platform::parseUnsigned(s, out, base); }

// One parser per keyword; each gets the words of its line after the keyword.
struct Parser {
  Config& config;
  std::set<uint32_t> addresses;
  std::string error;

  bool fail(std::string text) {
    error = std::move(text);
    return false;
  }

  bool daemon(const std::vector<std::string>& w) {
    if (w.size() < 3) return fail("daemon needs an address, a restart policy and a program");
    DaemonConfig d;
    if (!parseNumber(w[0], 0, &d.address) || !isFixedAddress(d.address))
      return fail("bad daemon address '" + w[0] + "' (2..65535)");
    if (!addresses.insert(d.address).second) return fail("address " + w[0] + " is configured twice");
    if (w[1] != "always" && w[1] != "never") return fail("bad restart policy '" + w[1] + "' (always|never)");
    d.restart = w[1] == "always";
    d.argv.assign(w.begin() + 2, w.end());
    config.daemons.push_back(std::move(d));
    return true;
  }

  bool grant(const std::vector<std::string>& w) {
    uint32_t uid = 0, bits = 0;
    if (w.size() != 2) return fail("grant needs a uid and policy bits");
    if (!parseNumber(w[0], 10, &uid)) return fail("bad uid '" + w[0] + "'");
    if (!parseNumber(w[1], 16, &bits)) return fail("bad policy bits '" + w[1] + "' (hex)");
    config.grants[uid] = bits;
    return true;
  }

  bool socketGroup(const std::vector<std::string>& w) {
    uint32_t gid = 0;
    if (w.size() != 1 || !parseNumber(w[0], 10, &gid) || gid == uint32_t(-1))
      return fail("socket-group needs a numeric gid");
    config.socketGroup = gid;
    return true;
  }

  bool stopTimeout(const std::vector<std::string>& w) {
    uint32_t s = 0;
    if (w.size() != 1 || !parseNumber(w[0], 10, &s) || s < 1 || s > 3600)
      return fail("stop-timeout needs seconds, 1..3600");
    config.stopTimeoutSeconds = s;
    return true;
  }

  bool line(const std::vector<std::string>& words) {
    using Method = bool (Parser::*)(const std::vector<std::string>&);
    static const std::pair<std::string_view, Method> kKeywords[] = {
        {"daemon", &Parser::daemon},
        {"grant", &Parser::grant},
        {"socket-group", &Parser::socketGroup},
        {"stop-timeout", &Parser::stopTimeout},
    };
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    for (const auto& [name, method] : kKeywords)
      if (words[0] == name) return (this->*method)(rest);
    return fail("unknown keyword '" + words[0] + "'");
  }
};

}  // namespace

bool parseConfig(std::string_view text, Config* out, std::string* error) {
  Config config;
  Parser p{config, {}, {}};
  unsigned number = 0;
  while (!text.empty()) {
    const size_t nl = text.find('\n');
    const std::string_view line = text.substr(0, nl);
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    ++number;
    const std::vector<std::string> words = splitWords(line);
    if (words.empty() || words[0][0] == '#') continue;
    if (!p.line(words)) {
      if (error) *error = "line " + std::to_string(number) + ": " + p.error;
      return false;
    }
  }
  *out = std::move(config);
  return true;
}

bool loadConfig(const std::string& path, Config* out, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error) *error = "cannot read " + path;
    return false;
  }
  std::ostringstream text;
  text << in.rdbuf();
  if (parseConfig(text.str(), out, error)) return true;
  if (error) *error = path + ": " + *error;
  return false;
}

uint32_t policyFor(const Config& config, uid_t peerUid, bool supervised, uid_t loaderUid) {
  if (supervised || peerUid == 0 || peerUid == loaderUid) return kPolicyAll;
  const auto it = config.grants.find(peerUid);
  return it != config.grants.end() ? it->second : kPolicyRead;
}

}  // namespace kr::loader
