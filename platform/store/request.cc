#include "platform/store/request.h"

#include <cstring>

namespace kr::storesvc {

namespace {

// Reads host-order words and byte runs from one packet. The first read
// that does not fit fails the reader for good, so a parse can read all its
// fields and check once.
class WordReader {
 public:
  WordReader(const unsigned char* p, size_t n) : pos_(p), end_(p + n) {}

  uint32_t word() {
    uint32_t w = 0;
    if (failed_ || kWord > size_t(end_ - pos_)) {
      failed_ = true;
      return 0;
    }
    std::memcpy(&w, pos_, kWord);
    pos_ += kWord;
    return w;
  }
  std::span<const unsigned char> bytes(size_t n) {
    if (failed_ || n > size_t(end_ - pos_)) {
      failed_ = true;
      return {};
    }
    const std::span<const unsigned char> out(pos_, n);
    pos_ += n;
    return out;
  }
  std::span<const unsigned char> rest() { return bytes(size_t(end_ - pos_)); }
  bool failed() const { return failed_; }
  bool atEnd() const { return pos_ == end_; }

 private:
  const unsigned char* pos_;
  const unsigned char* end_;
  bool failed_ = false;
};

std::string_view text(std::span<const unsigned char> s) {
  return {reinterpret_cast<const char*>(s.data()), s.size()};
}

// ---- One parser per kind; the kind word has been read ---------------------

ParseError parseList(WordReader& in, Request* r) {
  r->cookie = in.word();
  r->bufferSize = in.word();
  if (in.failed()) return ParseError::kShort;
  r->name = text(in.rest());
  if (r->bufferSize < kMinListBuffer || r->bufferSize > kMaxClientBuffer) return ParseError::kBadBufferSize;
  if (r->name.empty() || r->name.size() > kMaxName) return ParseError::kBadName;
  return ParseError::kNone;
}

ParseError parseGet(WordReader& in, Request* r) {
  r->sid = in.word();
  r->id = in.word();
  r->bufferSize = in.word();
  if (in.failed()) return ParseError::kShort;
  return in.atEnd() ? ParseError::kNone : ParseError::kBadLength;
}

ParseError parseUpdate(WordReader& in, Request* r) {
  r->sid = in.word();
  r->id = in.word();
  if (in.failed()) return ParseError::kShort;
  r->data = in.rest();
  if (r->id == kNoId) return ParseError::kReservedId;
  if (r->data.size() > kMaxObject) return ParseError::kTooLarge;
  return ParseError::kNone;
}

ParseError parseBackup(WordReader& in, Request* r) {
  r->flag = in.word();
  const uint32_t pathLength = in.word();
  if (in.failed()) return ParseError::kShort;
  r->name = text(in.bytes(pathLength));
  if (in.failed()) return ParseError::kBadLength;
  r->label = text(in.rest());
  const std::string_view& p = r->name;
  if (p.empty() || p.size() > kMaxBackupPath || p.front() != '/' || p.find('\0') != p.npos)
    return ParseError::kBadBackupPath;
  if (r->label.size() > kMaxLabel) return ParseError::kLabelTooLong;
  return ParseError::kNone;
}

ParseError parseReset(WordReader& in, Request* r) {
  r->flag = in.word();
  if (in.failed()) return ParseError::kShort;
  return in.atEnd() ? ParseError::kNone : ParseError::kBadLength;
}

struct KindInfo {
  const char* name;
  ParseError (*parse)(WordReader&, Request*);
};

constexpr KindInfo kKinds[kKindCount] = {
    {"list", parseList}, {"get", parseGet}, {"update", parseUpdate},
    {"backup", parseBackup}, {"reset", parseReset},
};

}  // namespace

ParseError parseRequest(const unsigned char* packet, size_t n, Request* out) {
  *out = Request();
  WordReader in(packet, n);
  const uint32_t kind = in.word();
  if (in.failed()) return ParseError::kShort;
  if (kind >= kKindCount) return ParseError::kUnknownKind;
  out->kind = Kind(kind);
  return kKinds[kind].parse(in, out);
}

const char* parseErrorText(ParseError e) {
  switch (e) {
    case ParseError::kNone: return "no error";
    case ParseError::kShort: return "packet shorter than its header";
    case ParseError::kUnknownKind: return "unknown kind";
    case ParseError::kBadLength: return "lengths do not add up";
    case ParseError::kBadBufferSize: return "buffer size out of range";
    case ParseError::kBadName: return "empty or over-long store name";
    case ParseError::kReservedId: return "object id 0xFFFFFFFF is reserved";
    case ParseError::kTooLarge: return "object larger than 65535 bytes";
    case ParseError::kBadBackupPath: return "backup file name must be an absolute path";
    case ParseError::kLabelTooLong: return "backup label too long";
  }
  return "?";
}

const char* kindName(uint32_t kind) { return kind < kKindCount ? kKinds[kind].name : "?"; }

}  // namespace kr::storesvc
