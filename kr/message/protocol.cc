#include "kr/message/protocol.h"

#include <cstdio>

namespace kr {
namespace {

// Descriptions of the standard error codes, by their low 16 bits.
constexpr const char* kErrorDescriptions[] = {
    "no error",    "unknown error",  "broken path",     "not implemented", "unknown id",
    "missing fields", "failed",      "already exists",  "???",             "not allowed",
    "message too big", "unknown next id", "busy",       "timeout",         "too much",
};

const char* errorGroup(unsigned int code) {
  switch (code & 0xFF0000) {
    case 0xFF0000: return "sys";
    case 0xFE0000: return "std";
    case 0xFD0000: return "local";
    case 0: return "global";
    default: return "undefined";
  }
}

// An unnamed system flag that cleanSys() removes along with the named fields.
constexpr bool_id kSysFlag17{0xFF0017};

}  // namespace

unsigned int getType(const message& m) { return m.get(SYS_TYPE, TYPE_REQUEST); }
bool isRequest(const message& m) { return getType(m) == TYPE_REQUEST; }
bool isReply(const message& m) { return getType(m) == TYPE_REPLY; }

void setType(message& m, unsigned int type) {
  m.remove(SYS_TYPE);
  m.insert(SYS_TYPE, type);
}

void setRequestID(message& m, unsigned int id) {
  m.remove(SYS_REQID);
  m.insert(SYS_REQID, id);
}

bool getRequestID(const message& m, unsigned int* out) {
  unsigned int id;
  if (!m.extract(SYS_REQID, id)) return false;
  if (out) *out = id;
  return true;
}

bool isReplyExpected(const message& m) { return m.get(SYS_REPLYEXP, false); }

bool isCtrl(const message& m, unsigned int* code) {
  unsigned int c;
  if (!m.extract(SYS_CTRL, c)) return false;
  if (code) *code = c;
  return true;
}

bool isError(const message& m, unsigned int* code, std::string* text) {
  if (m.get(SYS_STATUS, STATUS_OK) != STATUS_ERROR) return false;
  if (code) *code = m.get(SYS_ERRNO, ERROR_UNKNOWN);
  if (text) *text = m.get_const<std::string>(SYS_ERRSTR.id, std::string());
  return true;
}

std::string getError(const message& m) {
  unsigned int code;
  std::string text;
  if (!isError(m, &code, &text)) return "ok";
  return getErrorDescr(code, text);
}

std::string getErrorDescr(unsigned int code, const std::string& text) {
  const unsigned int low = code & 0xFFFF;
  char num[16];
  std::string out;
  if (!text.empty()) {
    std::snprintf(num, sizeof num, " (%d)", static_cast<int>(low));
    return text + num;
  }
  out = std::string(errorGroup(code)) + " failure:";
  if ((code & 0xFF0000) == 0xFE0000 && low <= 14) {
    std::snprintf(num, sizeof num, " (%d)", static_cast<int>(low));
    return out + " " + kErrorDescriptions[low] + num;
  }
  std::snprintf(num, sizeof num, " %d", static_cast<int>(low));
  return out + num;
}

message errorMsg(unsigned int code, const std::string& text) {
  message m;
  m.insert(SYS_STATUS, STATUS_ERROR);
  m.insert(SYS_ERRNO, code);
  if (!text.empty()) m.insert(SYS_ERRSTR, text);
  return m;
}

message failedMsg(const std::string& text) { return errorMsg(ERROR_FAILED, text); }

void cleanSys(message& m) {
  m.remove(SYS_TO);
  m.remove(SYS_FROM);
  m.remove(SYS_TYPE);
  m.remove(SYS_STATUS);
  m.remove(SYS_REPLYEXP);
  m.remove(SYS_REQID);
  m.remove(SYS_CMD);
  m.remove(SYS_ERRNO);
  m.remove(SYS_USER);
  m.remove(SYS_POLICY);
  m.remove(SYS_CTRL);
  m.remove(kSysFlag17);
  m.remove(SYS_CREDITS);
}

void cleanStd(message& m) {
  m.remove(STD_ID);
  m.remove(STD_OBJS);
  m.remove(STD_GETALLID);
  m.remove(STD_GETALLNO);
  m.remove(STD_NEXTID);
  m.remove(STD_UNDOID);
  m.remove(STD_DYNAMIC);
  m.remove(STD_INACTIVE);
  m.remove(STD_DESCR);
  m.remove(STD_DISABLED);
}

}  // namespace kr
