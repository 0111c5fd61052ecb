// kr-msg: shows a flat message as a dump or as JSON, and turns JSON back
// into a flat message. The JSON form is described in msgjson.h and in the
// README's "kr-msg" section.
//
//   kr-msg msg.bin                     the dump (message::dump2)
//   kr-msg --hex <<< '4d32 0700ff09 07fe00'
//   kr-msg --json msg.bin              JSON, pretty (--compact: one line)
//   kr-msg --from-json msg.json > msg.bin
//   kr-msg --from-json --hex msg.json  the flat form as hex text
//
// Exit status: 0 ok, 1 bad input (unreadable, not a flat message, bad hex,
// bad JSON), 2 bad usage.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>
#include <string_view>
#include <vector>

#include "kr/message/dump.h"
#include "kr/message/message.h"
#include "tools/kr-msg/msgjson.h"

namespace {

constexpr int kOk = 0;
constexpr int kBadInput = 1;
constexpr int kUsage = 2;

constexpr char kUsageText[] =
    "usage: kr-msg [--hex] [FILE]                      print the dump of a flat message\n"
    "       kr-msg --json [--compact] [--hex] [FILE]   print it as JSON\n"
    "       kr-msg --from-json [--hex] [FILE]          read JSON, write the flat message\n"
    "       kr-msg --help\n"
    "\n"
    "FILE is read whole; without FILE, or with \"-\", standard input is read.\n"
    "  --hex        the flat message is hex text (white space ignored), not binary;\n"
    "               with --from-json, write it as hex text\n"
    "  --json       print JSON instead of the dump, indented by 2\n"
    "  --compact    with --json: JSON on one line\n"
    "  --from-json  read JSON (the form --json prints) and write the flat message\n"
    "Exit status: 0 ok, 1 bad input, 2 bad usage.\n";

int fail(const std::string& what) {
  std::fprintf(stderr, "kr-msg: %s\n", what.c_str());
  return kBadInput;
}

int usageError(const std::string& what) {
  std::fprintf(stderr, "kr-msg: %s\n%s", what.c_str(), kUsageText);
  return kUsage;
}

bool readAll(const std::string& path, std::string& out, std::string& error) {
  const bool stdinput = path.empty() || path == "-";
  std::FILE* f = stdinput ? stdin : std::fopen(path.c_str(), "rb");
  if (!f) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  char buf[65536];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
  const bool bad = std::ferror(f);
  if (!stdinput) std::fclose(f);
  if (bad) error = "cannot read " + (stdinput ? std::string("standard input") : path);
  return !bad;
}

bool writeAll(std::string_view bytes) {
  return std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size() && std::fflush(stdout) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  bool hex = false, json = false, compact = false, fromJson = false, options = true;
  std::string path;
  bool havePath = false;
  for (int i = 1; i < argc; ++i) {
    const std::string_view a = argv[i];
    if (options && (a == "--help" || a == "-h")) {
      std::fputs(kUsageText, stdout);
      return kOk;
    }
    if (options && a == "--") options = false;
    else if (options && a == "--hex") hex = true;
    else if (options && a == "--json") json = true;
    else if (options && a == "--compact") compact = true;
    else if (options && a == "--from-json") fromJson = true;
    else if (options && a.size() > 1 && a[0] == '-') return usageError("unknown option " + std::string(a));
    else if (havePath) return usageError("more than one FILE");
    else path = a, havePath = true;
  }
  if (json && fromJson) return usageError("--json and --from-json exclude each other");
  if (compact && !json) return usageError("--compact goes with --json");

  std::string input, error;
  if (!readAll(path, input, error)) return fail(error);

  if (fromJson) {
    std::vector<unsigned char> flat;
    if (!kr::msgjson::flatFromJson(input, flat, error)) return fail(error);
    const std::string out = hex ? kr::msgjson::toHex(flat.data(), flat.size()) + "\n"
                                : std::string(flat.begin(), flat.end());
    return writeAll(out) ? kOk : fail("cannot write the output");
  }

  std::vector<unsigned char> flat;
  if (hex) {
    if (!kr::msgjson::fromHex(input, true, flat, error)) return fail("bad hex input: " + error);
  } else {
    flat.assign(input.begin(), input.end());
  }
  if (json) {
    std::string text;
    if (!kr::msgjson::flatToJson(flat.data(), flat.size(), text, error, compact ? -1 : 2)) return fail(error);
    return writeAll(text + "\n") ? kOk : fail("cannot write the output");
  }
  kr::message m;
  if (flat.size() > 0xFFFFFFFFu || !m.unflatten(flat.data(), static_cast<unsigned int>(flat.size()), kr::kFlatNormal))
    return fail("not a flat message: " + kr::msgjson::flatProblem(flat.data(), flat.size()));
  m.dump2(std::cout);
  std::cout.flush();
  return std::cout ? kOk : fail("cannot write the output");
}
