// The protocol's vocabulary: system (SYS_) and standard (STD_) field ids,
// message types, statuses, commands, error codes and disconnect reasons,
// and the tables that name them for dumps.
//
// Field numbers 0xFF0000..0xFFFFFF are system fields, 0xFE0000..0xFEFFFF
// standard fields; numbers below 0xFE0000 belong to the handlers. Error codes
// use the same ranges (0xFD0000.. are handler-local).
//
//   m.insert(kr::SYS_CMD, kr::CMD_GETALL);
//   m.insert_vector(kr::SYS_TO, 14);
#pragma once

#include <cstdint>
#include <string_view>

#include "kr/message/message.h"

namespace kr {

// ---- System fields ----------------------------------------------------------
inline constexpr u32_array_id SYS_TO{0xFF0001};    // destination path
inline constexpr u32_array_id SYS_FROM{0xFF0002};  // source path
inline constexpr u32_id SYS_TYPE{0xFF0003};        // TYPE_*; absent means request
inline constexpr u32_id SYS_STATUS{0xFF0004};      // STATUS_*; absent means OK
inline constexpr bool_id SYS_REPLYEXP{0xFF0005};   // the sender expects a reply
inline constexpr u32_id SYS_REQID{0xFF0006};       // request id, echoed in the reply
inline constexpr u32_id SYS_CMD{0xFF0007};         // CMD_*
inline constexpr u32_id SYS_ERRNO{0xFF0008};       // ERROR_*
inline constexpr string_id SYS_ERRSTR{0xFF0009};   // error text
inline constexpr string_id SYS_USER{0xFF000A};     // user on whose behalf a request is made
inline constexpr u32_id SYS_POLICY{0xFF000B};      // permission bits granted to the sender
inline constexpr u32_id SYS_CTRL{0xFF000D};        // control-message code
inline constexpr u32_id SYS_CTRL_ARG{0xFF000F};    // argument of a control message
inline constexpr u32_id SYS_USER_ID{0xFF0010};
inline constexpr u32_id SYS_NOTIFYCMD{0xFF0011};   // command carried by a notification
inline constexpr u32_id SYS_CREDITS{0xFF0012};
inline constexpr addr6_id SYS_RADDR6{0xFF0013};    // remote address
inline constexpr u32_id SYS_DREASON{0xFF0016};     // DREASON_*
// The removal list: complete field ids that the receiver of a change is to
// delete (used by kr::merge and its undo records).
inline constexpr u32_array_id REMOVED_IDS{0xFF0014};

// ---- Standard fields --------------------------------------------------------
inline constexpr u32_id STD_ID{0xFE0001};
inline constexpr message_array_id STD_OBJS{0xFE0002};
inline constexpr u32_id STD_GETALLID{0xFE0003};
inline constexpr u32_id STD_GETALLNO{0xFE0004};
inline constexpr u32_id STD_NEXTID{0xFE0005};
inline constexpr u32_id STD_UNDOID{0xFE0006};
inline constexpr bool_id STD_DYNAMIC{0xFE0007};
inline constexpr bool_id STD_INACTIVE{0xFE0008};
inline constexpr string_id STD_DESCR{0xFE0009};
inline constexpr bool_id STD_DISABLED{0xFE000A};
inline constexpr bool_id STD_FINISHED{0xFE000B};
inline constexpr message_id STD_FILTER{0xFE000C};
inline constexpr bool_id STD_PRESET{0xFE000D};
inline constexpr u32_id STD_PAGENO{0xFE000E};
inline constexpr u32_id STD_PAGE{0xFE000F};
inline constexpr string_id STD_NAME{0xFE0010};
inline constexpr u32_id STD_INTERVAL{0xFE0011};
inline constexpr u32_id STD_VERSION{0xFE0012};
inline constexpr u32_id STD_DEAD{0xFE0013};
inline constexpr message_id STD_GETALL_COOKIE{0xFE0015};
inline constexpr message_id STD_QUERY{0xFE0016};
inline constexpr u32_id STD_QUERY_OP{0xFE0017};
inline constexpr u32_id STD_MAXOBJS{0xFE0018};
inline constexpr u32_id STD_OBJ_COUNT{0xFE0019};
inline constexpr u32_id STD_CLASS{0xFE001A};
inline constexpr message_id STD_SNMP_QUERY{0xFE001B};
inline constexpr u32_id STD_ADDR_AFI{0xFEFF1F};
inline constexpr be32_id STD_ADDR_4{0xFEFF20};
inline constexpr addr6_id STD_ADDR_6{0xFEFF21};
inline constexpr u32_id STD_ADDR_IFACE{0xFEFF22};
inline constexpr u32_id STD_ADDR_VRF{0xFEFF23};
inline constexpr u32_id STD_ADDR_RTAB{0xFEFF24};
inline constexpr u32_id STD_ADDR_PLEN{0xFEFF25};
inline constexpr string_id STD_ADDR_DNAME{0xFEFF26};
inline constexpr u64_id STD_ADDR_RD{0xFEFF27};

// ---- Constants --------------------------------------------------------------
inline constexpr unsigned int TYPE_REQUEST = 1;
inline constexpr unsigned int TYPE_REPLY = 2;
inline constexpr unsigned int STATUS_OK = 1;
inline constexpr unsigned int STATUS_ERROR = 2;
inline constexpr unsigned int DREASON_DISCONNECTED = 0;
inline constexpr unsigned int DREASON_CRASHED = 1;

// ---- Commands (values of SYS_CMD) ---------------------------------------------
// 0xFE0009, 0xFE000A and 0xFE000C have no name on purpose.
inline constexpr unsigned int CMD_NOOP = 0xFE0000;
inline constexpr unsigned int CMD_GETPOLICIES = 0xFE0001;
inline constexpr unsigned int CMD_GETOBJ = 0xFE0002;
inline constexpr unsigned int CMD_SETOBJ = 0xFE0003;
inline constexpr unsigned int CMD_GETALL = 0xFE0004;
inline constexpr unsigned int CMD_ADDOBJ = 0xFE0005;
inline constexpr unsigned int CMD_REMOVEOBJ = 0xFE0006;
inline constexpr unsigned int CMD_MOVEOBJ = 0xFE0007;
inline constexpr unsigned int CMD_SETFORM = 0xFE0008;
inline constexpr unsigned int CMD_NOTIFY = 0xFE000B;
inline constexpr unsigned int CMD_GET = 0xFE000D;
inline constexpr unsigned int CMD_SET = 0xFE000E;
inline constexpr unsigned int CMD_START = 0xFE000F;
inline constexpr unsigned int CMD_POLL = 0xFE0010;
inline constexpr unsigned int CMD_CANCEL = 0xFE0011;
inline constexpr unsigned int CMD_SUBSCRIBE = 0xFE0012;
inline constexpr unsigned int CMD_UNSUBSCRIBE = 0xFE0013;
inline constexpr unsigned int CMD_DISCONNECTED = 0xFE0014;
inline constexpr unsigned int CMD_GETCOUNT = 0xFE0015;
inline constexpr unsigned int CMD_RESET = 0xFE0016;
inline constexpr unsigned int CMD_NOTIFYACK = 0xFE0017;
inline constexpr unsigned int CMD_STOP_GETALL = 0xFE0018;

// ---- Error codes (values of SYS_ERRNO) -----------------------------------------
// 0xFE0008 has a description ("???") but no name.
inline constexpr unsigned int ERROR_OK = 0;
inline constexpr unsigned int ERROR_UNKNOWN = 0xFE0001;
inline constexpr unsigned int ERROR_BRKPATH = 0xFE0002;
inline constexpr unsigned int ERROR_NOTIMP = 0xFE0003;
inline constexpr unsigned int ERROR_UNKNOWNID = 0xFE0004;
inline constexpr unsigned int ERROR_MISSING = 0xFE0005;
inline constexpr unsigned int ERROR_FAILED = 0xFE0006;
inline constexpr unsigned int ERROR_EXISTS = 0xFE0007;
inline constexpr unsigned int ERROR_NOTALLOWED = 0xFE0009;
inline constexpr unsigned int ERROR_TOOBIG = 0xFE000A;
inline constexpr unsigned int ERROR_UNKNOWNNEXTID = 0xFE000B;
inline constexpr unsigned int ERROR_BUSY = 0xFE000C;
inline constexpr unsigned int ERROR_TIMEOUT = 0xFE000D;
inline constexpr unsigned int ERROR_TOOMUCH = 0xFE000E;

// ---- Well-known handlers ----------------------------------------------------------
// Handler numbers of the platform's own services, the first element of a
// path to them. Field and error groups with these numbers print with the
// service's short name ("loader::3").
inline constexpr unsigned int HANDLER_LOADER = 1;
inline constexpr unsigned int HANDLER_TLS = 12;
inline constexpr unsigned int HANDLER_NAMES = 14;
inline constexpr unsigned int HANDLER_UNDO = 17;
inline constexpr unsigned int HANDLER_RDOMAIN = 20;
inline constexpr unsigned int HANDLER_TIME = 24;

// ---- Names ----------------------------------------------------------------------
// Each returns the vocabulary's name, or null when the value has none. They
// never allocate; the texts are static.

// A named system or standard field by its number (the low 24 bits of `id`;
// kind bits are ignored): 0x88FF0001 -> "SYS_TO".
const char* fieldName(unsigned int id);
// 0xFE0004 -> "CMD_GETALL".
const char* commandName(unsigned int cmd);
// 0xFE000D -> "ERROR_TIMEOUT"; 0 -> "ERROR_OK".
const char* errorName(unsigned int code);
// A well-known handler's short name: 1 -> "loader", 14 -> "names".
const char* handlerName(unsigned int handler);

// The reverse lookups, for tools that read names: false when unknown.
// "SYS_TO" -> 0xFF0001 (the field number, without kind bits).
bool fieldNumber(std::string_view name, unsigned int* number);
// Any named constant value: "CMD_GETALL", "ERROR_TIMEOUT", "TYPE_REPLY",
// "STATUS_ERROR", "DREASON_CRASHED".
bool constantValue(std::string_view name, unsigned int* value);

}  // namespace kr
