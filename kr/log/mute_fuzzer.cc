// libFuzzer target for the log client's reading of mute orders
// (Logger::applyMuteOrders), the one place it reads the service's bytes.
//
// Input: the first byte picks how many sources the client has (0 to 7);
// the rest is one read from the socket (at most 256 bytes, as the client
// reads).
//
// An oracle walks the same bytes on its own and decides the outcome and
// every source's mute flag. Checks:
//   - the result is the oracle's (whole orders, bad length, short tail);
//   - the orders before a bad record are applied, in order, and nothing
//     after it;
//   - ids out of range change nothing.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz/fuzz_check.h"
#include "kr/log/log_protocol.h"
#include "kr/log/logger.h"

namespace {

using kr::Logger;

Logger::MuteRead oracle(const uint8_t* p, size_t n, std::vector<bool>& muted) {
  size_t pos = 0;
  while (pos < n) {
    if (n - pos < 6) return Logger::MuteRead::kTooShort;
    if (kr::logField(p + pos) != 6) return Logger::MuteRead::kBadLength;
    const unsigned id = kr::logField(p + pos + 2);
    if (id >= 1 && id <= muted.size()) muted[id - 1] = kr::logField(p + pos + 4) != 0;
    pos += 6;
  }
  return Logger::MuteRead::kOk;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t sources = data[0] % 8;
  const uint8_t* read = data + 1;
  size_t n = size - 1;
  if (n > kr::kLogClientRead) n = kr::kLogClientRead;

  // Logger() ignores SIGPIPE, and without a runner nothing else happens.
  static Logger logger;
  for (size_t i = logger.sourceCount(); i < sources; ++i) {
    logger.registerSource({static_cast<uint16_t>(i + 1)});
  }
  std::vector<bool> expected(logger.sourceCount());
  for (size_t i = 0; i < expected.size(); ++i) expected[i] = logger.source(static_cast<unsigned>(i + 1))->muted;

  // The Logger keeps every source an earlier input made, so the oracle
  // starts from all of them.
  const Logger::MuteRead want = oracle(read, n, expected);
  const Logger::MuteRead got = logger.applyMuteOrders(read, n);
  CHECK(got == want, n);
  for (size_t i = 0; i < expected.size(); ++i) {
    CHECK(logger.source(static_cast<unsigned>(i + 1))->muted == expected[i], i);
  }
  CHECK(logger.source(0) == nullptr, 0);
  CHECK(logger.source(static_cast<unsigned>(logger.sourceCount() + 1)) == nullptr, logger.sourceCount());
  return 0;
}
