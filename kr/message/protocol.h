// Reading and writing the system fields of a bus message: type, request id,
// control code, error status, and clearing the system or standard fields.
//
//   kr::message reply = kr::errorMsg(kr::ERROR_NOTIMP, "");
//   kr::getError(reply);  // "std failure: not implemented (3)"
#pragma once

#include <string>

#include "kr/message/message.h"
#include "kr/message/vocabulary.h"

namespace kr {

// SYS_TYPE, TYPE_REQUEST when absent: a message without a type is a request.
unsigned int getType(const message& m);
bool isRequest(const message& m);
bool isReply(const message& m);
void setType(message& m, unsigned int type);

void setRequestID(message& m, unsigned int id);
// False when SYS_REQID is absent; else stores it through `out` (if not
// null) and returns true.
bool getRequestID(const message& m, unsigned int* out);

// SYS_REPLYEXP, false when absent.
bool isReplyExpected(const message& m);
// Whether SYS_CTRL is present; stores it through `code` when not null.
bool isCtrl(const message& m, unsigned int* code);

// Whether SYS_STATUS is STATUS_ERROR. Then stores SYS_ERRNO (ERROR_UNKNOWN
// when absent) and SYS_ERRSTR (empty when absent) through the non-null
// pointers.
bool isError(const message& m, unsigned int* code, std::string* text);
// "ok" for a message that is not an error, else getErrorDescr of its code
// and text.
std::string getError(const message& m);
// An error's text: "std failure: not implemented (3)", "sys failure: 5", or
// the caller's text followed by " (code)".
std::string getErrorDescr(unsigned int code, const std::string& text);

// A new error message: SYS_STATUS = STATUS_ERROR, SYS_ERRNO = code and, only
// for a non-empty text, SYS_ERRSTR = text.
message errorMsg(unsigned int code, const std::string& text);
message failedMsg(const std::string& text);

// Removes the routing, type, status, request, command, error code, user,
// policy, control and credit fields (each under its own kind only). Keeps
// SYS_ERRSTR, SYS_CTRL_ARG, SYS_USER_ID, SYS_NOTIFYCMD, SYS_RADDR6 and
// SYS_DREASON.
void cleanSys(message& m);
// Removes STD_ID, STD_OBJS, STD_GETALLID, STD_GETALLNO, STD_NEXTID,
// STD_UNDOID, STD_DYNAMIC, STD_INACTIVE, STD_DESCR and STD_DISABLED.
void cleanStd(message& m);

}  // namespace kr
