#include "platform/log/records.h"

#include <algorithm>

#include "kr/log/log_protocol.h"

namespace kr::logsvc {

namespace {

// A bounded view of the input: every take checks what is left by
// subtraction, so no length a client writes can move it past the end.
class Reader {
 public:
  Reader(const unsigned char* data, size_t n) : pos_(data), end_(data + n) {}
  size_t left() const { return size_t(end_ - pos_); }
  const unsigned char* pos() const { return pos_; }
  // The field at `index` fields from here, if it is inside the input.
  bool peekField(size_t index, uint16_t* out) const {
    if (kLogField * (index + 1) > left()) return false;
    *out = logField(pos_ + kLogField * index);
    return true;
  }
  void skip(size_t n) { pos_ += std::min(n, left()); }

 private:
  const unsigned char* pos_;
  const unsigned char* end_;
};

ParseResult stop(const Reader& r, const unsigned char* start, RecordStatus s, uint16_t detail = 0) {
  return {size_t(r.pos() - start), s, detail};
}

}  // namespace

Source* SourceTable::find(uint16_t id) {
  if (last_ < sources_.size() && sources_[last_].id == id) return &sources_[last_];
  const auto it = std::lower_bound(sources_.begin(), sources_.end(), id,
                                   [](const Source& s, uint16_t v) { return s.id < v; });
  if (it == sources_.end() || it->id != id) return nullptr;
  last_ = size_t(it - sources_.begin());
  return &*it;
}

Source& SourceTable::put(uint16_t id, const unsigned char* topics, size_t topicCount, bool* fresh) {
  Source* s = find(id);
  *fresh = s == nullptr;
  if (!s) {
    const auto it = std::lower_bound(sources_.begin(), sources_.end(), id,
                                     [](const Source& e, uint16_t v) { return e.id < v; });
    s = &*sources_.insert(it, Source{id, {}, false, {}});
  }
  s->topics.resize(topicCount);
  for (size_t i = 0; i < topicCount; ++i) s->topics[i] = logField(topics + kLogField * i);
  return *s;
}

// Each pass looks at one record: first its length, which is all it takes
// to know whether the record is complete, then its kind.
ParseResult parseRecords(const unsigned char* data, size_t n, SourceTable& sources, RecordSink& sink) {
  Reader r(data, n);
  for (;;) {
    uint16_t length = 0, second = 0;
    if (r.left() == 0) return stop(r, data, RecordStatus::kDone);
    if (!r.peekField(0, &length)) return stop(r, data, RecordStatus::kPartial);
    if (length < kLogLineHeader) return stop(r, data, RecordStatus::kShortLength, length);
    if (!r.peekField(1, &second)) return stop(r, data, RecordStatus::kPartial);
    const bool registration = second == 0;
    if (registration && length < kLogRegistrationHeader)
      return stop(r, data, RecordStatus::kShortRegistration, length);
    if (registration && length % kLogField != 0) return stop(r, data, RecordStatus::kOddRegistration, length);
    if (length > r.left()) return stop(r, data, RecordStatus::kPartial);
    if (registration) {
      uint16_t id = 0;
      r.peekField(3, &id);  // inside: length >= 8 bytes are there
      if (id == 0) return stop(r, data, RecordStatus::kZeroSource);
      bool fresh = false;
      Source& s = sources.put(id, r.pos() + kLogRegistrationHeader,
                              (length - kLogRegistrationHeader) / kLogField, &fresh);
      sink.registered(s, fresh);
    } else {
      Source* s = sources.find(second);
      if (!s) return stop(r, data, RecordStatus::kUnknownSource, second);
      sink.line(*s, reinterpret_cast<const char*>(r.pos() + kLogLineHeader), length - kLogLineHeader);
    }
    r.skip(length);
  }
}

std::string malformedReason(const ParseResult& r) {
  const std::string d = std::to_string(r.detail);
  switch (r.status) {
    case RecordStatus::kShortLength: return "record length " + d + " is below 4";
    case RecordStatus::kShortRegistration: return "registration of " + d + " bytes is shorter than 8";
    case RecordStatus::kOddRegistration: return "registration of odd length " + d;
    case RecordStatus::kZeroSource: return "registration of source id 0";
    case RecordStatus::kUnknownSource: return "line of source " + d + ", which was not registered";
    case RecordStatus::kDone:
    case RecordStatus::kPartial: break;
  }
  return "not malformed";
}

}  // namespace kr::logsvc
