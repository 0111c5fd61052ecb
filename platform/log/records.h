// kr::logsvc records: cutting what a log client sends into registrations
// and lines (the wire is kr/log/log_protocol.h), and the table of sources
// a connection has registered.
//
// The stream arrives in reads of any size, so a record may be split across
// reads; parseRecords() takes what is there, hands every whole record to a
// sink and says how many bytes it used. The caller keeps the rest (less
// than one record) and puts it in front of the next read.
//
//   SourceTable sources;                       // one per connection
//   ParseResult r = parseRecords(data, n, sources, sink);
//   if (r.status >= RecordStatus::kShortLength) drop(malformedReason(r));
//   else keep(data + r.consumed, n - r.consumed);
//
// This is the one place where a client's bytes are read; it is fuzzed
// (records_fuzzer.cc). Nothing here allocates per line.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace kr::logsvc {

// One registered source of a connection.
struct Source {
  uint16_t id = 0;
  std::vector<uint16_t> topics;  // in the client's order; may be empty
  // Kept by the service, not by the parser: whether the client was told
  // to be silent, and the topics as a log line shows them.
  bool muted = false;
  std::string label;
};

// A connection's sources by id, in ascending order. Clients number their
// sources 1, 2, 3 ... so the table is small and dense; its memory grows
// only with what the client itself sent.
class SourceTable {
 public:
  // Null when `id` is not registered. Valid until the next put().
  Source* find(uint16_t id);
  // The source with `id`, created when new (*fresh then true), its topics
  // replaced by topicCount fields at `topics` (host order, unaligned).
  Source& put(uint16_t id, const unsigned char* topics, size_t topicCount, bool* fresh);

  size_t size() const { return sources_.size(); }
  std::vector<Source>::iterator begin() { return sources_.begin(); }
  std::vector<Source>::iterator end() { return sources_.end(); }

 private:
  std::vector<Source> sources_;
  size_t last_ = 0;  // the last one found: lines come in runs from one source
};

// How parsing stopped. The first two are not errors.
enum class RecordStatus : uint8_t {
  kDone,               // the input ended exactly after a record (or was empty)
  kPartial,            // the input ends inside a record: more is to come
  kShortLength,        // a length field below 4
  kShortRegistration,  // a registration shorter than 8 bytes
  kOddRegistration,    // a registration of odd length (half a topic)
  kZeroSource,         // a registration of source id 0
  kUnknownSource,      // a line of a source not registered on this connection
};

struct ParseResult {
  size_t consumed = 0;  // bytes of whole records handed to the sink
  RecordStatus status = RecordStatus::kDone;
  // For an error: the offending length (kShortLength, kShortRegistration,
  // kOddRegistration) or source id (kUnknownSource).
  uint16_t detail = 0;
};

// What the parser hands over, in stream order. `text` points into the
// caller's input and is valid only during the call.
class RecordSink {
 public:
  virtual ~RecordSink() = default;
  // s's topics were just set; `fresh` when the id is new on the connection.
  virtual void registered(Source& s, bool fresh) = 0;
  virtual void line(Source& s, const char* text, size_t n) = 0;
};

// Reads whole records from [data, data + n) until the input ends or a
// record is malformed; registrations go into `sources` before the sink
// hears of them. Stops at the first malformed record: nothing after it is
// looked at, and `consumed` is where it starts.
ParseResult parseRecords(const unsigned char* data, size_t n, SourceTable& sources, RecordSink& sink);

// A malformed result in words, for the log: "registration of odd length 9".
std::string malformedReason(const ParseResult& r);

}  // namespace kr::logsvc
