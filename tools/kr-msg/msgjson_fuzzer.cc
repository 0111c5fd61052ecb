// libFuzzer target for the JSON reader of kr-msg (msgjson.cc).
//
// Input: any bytes, taken as JSON text. Checks on every input:
//   - messageFromJson and flatFromJson agree on success, and a failure comes
//     with a one-line, printable-ASCII error;
//   - whatever converts prints back (pretty and compact) to text that
//     converts to an equal message with the same ids, and prints again
//     identically;
//   - the flat bytes written for the text are the flat form of the message
//     and print as the message's text.
// A violated check prints what failed and the input, then aborts.
//
// The fuzz build links a target's one source with the kr objects only, so
// the converter is compiled in here rather than linked.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

#include "tools/kr-msg/msgjson.cc"  // NOLINT(bugprone-suspicious-include)

namespace {

const uint8_t* gInput = nullptr;
size_t gInputSize = 0;

[[noreturn]] void fail(const char* what, const std::string& detail = "") {
  std::fprintf(stderr, "msgjson_fuzzer: invariant violated: %s\n%s\ninput (%zu bytes): %.*s\n", what,
               detail.c_str(), gInputSize, static_cast<int>(gInputSize), reinterpret_cast<const char*>(gInput));
  std::fflush(stderr);
  std::abort();
}

#define CHECK(cond, ...) \
  do {                   \
    if (!(cond)) fail(#cond __VA_OPT__(, ) __VA_ARGS__); \
  } while (0)

bool oneLineAscii(const std::string& e) {
  return !e.empty() && std::all_of(e.begin(), e.end(), [](char c) { return c >= 0x20 && c < 0x7F; });
}

std::vector<unsigned> sortedIds(const kr::message& m) {
  std::vector<unsigned> ids = m.ids();
  std::sort(ids.begin(), ids.end());
  return ids;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace kr::msgjson;
  gInput = data;
  gInputSize = size;
  const std::string_view text(reinterpret_cast<const char*>(data), size);

  kr::message m;
  std::vector<unsigned char> flat;
  std::string error, flatError;
  const bool ok = messageFromJson(text, m, error);
  const bool flatOk = flatFromJson(text, flat, flatError);
  CHECK(ok == flatOk, error + " | " + flatError);
  if (!ok) {
    CHECK(oneLineAscii(error), error);
    CHECK(error == flatError, error + " | " + flatError);
    return 0;
  }

  // Message -> text -> message.
  for (int indent : {2, -1}) {
    const std::string printed = messageToJson(m, indent);
    kr::message back;
    CHECK(messageFromJson(printed, back, error), error + "\n" + printed);
    CHECK(back == m, printed);
    CHECK(sortedIds(back) == sortedIds(m), printed);
    CHECK(messageToJson(back, indent) == printed, printed + "\n" + messageToJson(back, indent));
  }

  // Text -> flat bytes: the message's flat form, printing as its text.
  std::vector<unsigned char> expected;
  m.flatten(expected);
  CHECK(flat == expected, toHex(flat.data(), flat.size()) + "\n" + toHex(expected.data(), expected.size()));
  CHECK(kr::message(flat) == m, toHex(flat.data(), flat.size()));
  std::string flatText;
  CHECK(flatToJson(flat.data(), flat.size(), flatText, error), error);
  CHECK(flatText == messageToJson(m), flatText + "\n" + messageToJson(m));
  return 0;
}
