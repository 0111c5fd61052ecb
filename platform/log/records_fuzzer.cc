// libFuzzer target for kr-log's record parser (records.cc), the code that
// reads what log clients send.
//
// Input: the bytes of one client connection, as the socket delivers them.
//
// An oracle walks the stream by the wire's rules, without the parser's
// reader, and decides where parsing must stop and why. Checks:
//   - the parser stops at the same place with the same status and detail,
//     and never claims more bytes than it was given;
//   - every line's text lies inside the input;
//   - the records the sink heard, written out again, are the consumed
//     bytes byte for byte (no field misread, no byte skipped), but for a
//     registration's reserved field, which the parser leaves alone;
//   - the source table ends up holding each id's latest topics;
//   - the same stream cut into two reads, the leftover of the first carried
//     in front of the second as the service does, gives the same records
//     and the same end.
// A violated check prints what failed and aborts.
//
// The fuzz build links a target's one source with the kr objects only, so
// the parser is compiled in here rather than linked.
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

#include "platform/log/records.cc"  // NOLINT(bugprone-suspicious-include)

#include "fuzz/fuzz_check.h"

namespace {

using kr::logField;
using kr::putLogField;
using kr::logsvc::ParseResult;
using kr::logsvc::RecordStatus;
using kr::logsvc::Source;
using kr::logsvc::SourceTable;
using Bytes = std::vector<uint8_t>;

struct Heard {
  bool registration;
  uint16_t id;
  std::vector<uint16_t> topics;
  Bytes text;
  bool operator==(const Heard&) const = default;
};

class Recorder : public kr::logsvc::RecordSink {
 public:
  Recorder(const uint8_t* base, size_t n) : base_(base), n_(n) {}
  void registered(Source& s, bool) override { heard.push_back({true, s.id, s.topics, {}}); }
  void line(Source& s, const char* text, size_t n) override {
    const auto* t = reinterpret_cast<const uint8_t*>(text);
    CHECK(n == 0 || (t >= base_ && n <= n_ && size_t(t - base_) <= n_ - n), n);
    heard.push_back({false, s.id, {}, Bytes(t, t + n)});
  }
  std::vector<Heard> heard;

 private:
  const uint8_t* base_;
  size_t n_;
};

ParseResult oracle(const uint8_t* p, size_t n, std::map<uint16_t, std::vector<uint16_t>>* registered) {
  size_t at = 0;
  for (;;) {
    const size_t left = n - at;
    if (left == 0) return {at, RecordStatus::kDone, 0};
    if (left < 2) return {at, RecordStatus::kPartial, 0};
    const uint16_t len = logField(p + at);
    if (len < 4) return {at, RecordStatus::kShortLength, len};
    if (left < 4) return {at, RecordStatus::kPartial, 0};
    const uint16_t second = logField(p + at + 2);
    if (second == 0 && len < 8) return {at, RecordStatus::kShortRegistration, len};
    if (second == 0 && len % 2) return {at, RecordStatus::kOddRegistration, len};
    if (len > left) return {at, RecordStatus::kPartial, 0};
    if (second == 0) {
      const uint16_t id = logField(p + at + 6);
      if (id == 0) return {at, RecordStatus::kZeroSource, 0};
      auto& topics = (*registered)[id];
      topics.clear();
      for (size_t i = 8; i < len; i += 2) topics.push_back(logField(p + at + i));
    } else if (!registered->count(second)) {
      return {at, RecordStatus::kUnknownSource, second};
    }
    at += len;
  }
}

void put(Bytes& out, uint16_t v) {
  out.resize(out.size() + 2);
  putLogField(out.data() + out.size() - 2, v);
}

Bytes encode(const std::vector<Heard>& heard) {
  Bytes out;
  for (const Heard& h : heard) {
    if (h.registration) {
      put(out, uint16_t(8 + 2 * h.topics.size())), put(out, 0), put(out, 0), put(out, h.id);
      for (uint16_t t : h.topics) put(out, t);
    } else {
      put(out, uint16_t(4 + h.text.size())), put(out, h.id);
      out.insert(out.end(), h.text.begin(), h.text.end());
    }
  }
  return out;
}

// The consumed bytes as encode() writes them: a registration's reserved
// field is not the parser's business (it is kept for later use), so it
// reads back as 0.
Bytes withoutReserved(const uint8_t* data, size_t consumed) {
  Bytes out(data, data + consumed);
  for (size_t at = 0; at + 8 <= consumed; at += logField(data + at)) {
    if (logField(data + at + 2) == 0) putLogField(out.data() + at + 4, 0);
  }
  return out;
}

bool sameEnd(const ParseResult& a, const ParseResult& b) {
  return a.consumed == b.consumed && a.status == b.status && a.detail == b.detail;
}

// The stream in two reads, as the service gets it: what the first leaves
// over goes in front of the second.
ParseResult inTwoReads(const uint8_t* data, size_t size, size_t cut, std::vector<Heard>* heard) {
  SourceTable sources;
  Recorder first(data, cut);
  const ParseResult a = kr::logsvc::parseRecords(data, cut, sources, first);
  *heard = first.heard;
  if (a.status != RecordStatus::kDone && a.status != RecordStatus::kPartial) return a;
  Bytes rest(data + a.consumed, data + size);
  Recorder second(rest.data(), rest.size());
  ParseResult b = kr::logsvc::parseRecords(rest.data(), rest.size(), sources, second);
  heard->insert(heard->end(), second.heard.begin(), second.heard.end());
  b.consumed += a.consumed;
  return b;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  SourceTable sources;
  Recorder whole(data, size);
  const ParseResult got = kr::logsvc::parseRecords(data, size, sources, whole);
  std::map<uint16_t, std::vector<uint16_t>> registered;
  const ParseResult want = oracle(data, size, &registered);
  CHECK(got.consumed <= size, got.consumed);
  CHECK(sameEnd(got, want), got.consumed * 100 + size_t(got.status) * 10 + size_t(want.status));
  CHECK(!kr::logsvc::malformedReason(got).empty(), 0);

  const Bytes again = encode(whole.heard);
  CHECK(again.size() == got.consumed, again.size());
  CHECK(again == withoutReserved(data, got.consumed), 0);

  CHECK(sources.size() == registered.size(), sources.size());
  for (const auto& [id, topics] : registered) {
    const Source* s = sources.find(id);
    CHECK(s && s->topics == topics, id);
  }

  std::vector<Heard> split;
  const ParseResult twice = inTwoReads(data, size, size / 3, &split);
  CHECK(sameEnd(twice, got), twice.consumed);
  CHECK(split == whole.heard, split.size());
  return 0;
}
