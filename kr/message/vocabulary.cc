#include "kr/message/vocabulary.h"

#include <iterator>

namespace kr {
namespace {

struct Name {
  unsigned int value;
  const char* name;
};

constexpr Name kFields[] = {
    {0xFF0001, "SYS_TO"},        {0xFF0002, "SYS_FROM"},       {0xFF0003, "SYS_TYPE"},
    {0xFF0004, "SYS_STATUS"},    {0xFF0005, "SYS_REPLYEXP"},   {0xFF0006, "SYS_REQID"},
    {0xFF0007, "SYS_CMD"},       {0xFF0008, "SYS_ERRNO"},      {0xFF0009, "SYS_ERRSTR"},
    {0xFF000A, "SYS_USER"},      {0xFF000B, "SYS_POLICY"},     {0xFF000D, "SYS_CTRL"},
    {0xFF000F, "SYS_CTRL_ARG"},  {0xFF0010, "SYS_USER_ID"},    {0xFF0011, "SYS_NOTIFYCMD"},
    {0xFF0012, "SYS_CREDITS"},   {0xFF0013, "SYS_RADDR6"},     {0xFF0016, "SYS_DREASON"},
    {0xFE0001, "STD_ID"},        {0xFE0002, "STD_OBJS"},       {0xFE0003, "STD_GETALLID"},
    {0xFE0004, "STD_GETALLNO"},  {0xFE0005, "STD_NEXTID"},     {0xFE0006, "STD_UNDOID"},
    {0xFE0007, "STD_DYNAMIC"},   {0xFE0008, "STD_INACTIVE"},   {0xFE0009, "STD_DESCR"},
    {0xFE000A, "STD_DISABLED"},  {0xFE000B, "STD_FINISHED"},   {0xFE000C, "STD_FILTER"},
    {0xFE000D, "STD_PRESET"},    {0xFE000E, "STD_PAGENO"},     {0xFE000F, "STD_PAGE"},
    {0xFE0010, "STD_NAME"},      {0xFE0011, "STD_INTERVAL"},   {0xFE0012, "STD_VERSION"},
    {0xFE0013, "STD_DEAD"},      {0xFE0015, "STD_GETALL_COOKIE"}, {0xFE0016, "STD_QUERY"},
    {0xFE0017, "STD_QUERY_OP"},  {0xFE0018, "STD_MAXOBJS"},    {0xFE0019, "STD_OBJ_COUNT"},
    {0xFE001A, "STD_CLASS"},     {0xFE001B, "STD_SNMP_QUERY"}, {0xFEFF1F, "STD_ADDR_AFI"},
    {0xFEFF20, "STD_ADDR_4"},    {0xFEFF21, "STD_ADDR_6"},     {0xFEFF22, "STD_ADDR_IFACE"},
    {0xFEFF23, "STD_ADDR_VRF"},  {0xFEFF24, "STD_ADDR_RTAB"},  {0xFEFF25, "STD_ADDR_PLEN"},
    {0xFEFF26, "STD_ADDR_DNAME"}, {0xFEFF27, "STD_ADDR_RD"},
};

constexpr Name kCommands[] = {
    {0xFE0000, "CMD_NOOP"},        {0xFE0001, "CMD_GETPOLICIES"}, {0xFE0002, "CMD_GETOBJ"},
    {0xFE0003, "CMD_SETOBJ"},      {0xFE0004, "CMD_GETALL"},      {0xFE0005, "CMD_ADDOBJ"},
    {0xFE0006, "CMD_REMOVEOBJ"},   {0xFE0007, "CMD_MOVEOBJ"},     {0xFE0008, "CMD_SETFORM"},
    {0xFE000B, "CMD_NOTIFY"},      {0xFE000D, "CMD_GET"},         {0xFE000E, "CMD_SET"},
    {0xFE000F, "CMD_START"},       {0xFE0010, "CMD_POLL"},        {0xFE0011, "CMD_CANCEL"},
    {0xFE0012, "CMD_SUBSCRIBE"},   {0xFE0013, "CMD_UNSUBSCRIBE"}, {0xFE0014, "CMD_DISCONNECTED"},
    {0xFE0015, "CMD_GETCOUNT"},    {0xFE0016, "CMD_RESET"},       {0xFE0017, "CMD_NOTIFYACK"},
    {0xFE0018, "CMD_STOP_GETALL"},
};

constexpr Name kErrors[] = {
    {0, "ERROR_OK"},                   {0xFE0001, "ERROR_UNKNOWN"},   {0xFE0002, "ERROR_BRKPATH"},
    {0xFE0003, "ERROR_NOTIMP"},        {0xFE0004, "ERROR_UNKNOWNID"}, {0xFE0005, "ERROR_MISSING"},
    {0xFE0006, "ERROR_FAILED"},        {0xFE0007, "ERROR_EXISTS"},    {0xFE0009, "ERROR_NOTALLOWED"},
    {0xFE000A, "ERROR_TOOBIG"},        {0xFE000B, "ERROR_UNKNOWNNEXTID"}, {0xFE000C, "ERROR_BUSY"},
    {0xFE000D, "ERROR_TIMEOUT"},       {0xFE000E, "ERROR_TOOMUCH"},
};

constexpr Name kHandlers[] = {
    {HANDLER_LOADER, "loader"}, {HANDLER_TLS, "tls"},         {HANDLER_NAMES, "names"},
    {HANDLER_UNDO, "undo"},     {HANDLER_RDOMAIN, "rdomain"}, {HANDLER_TIME, "time"},
};

constexpr Name kConstants[] = {
    {TYPE_REQUEST, "TYPE_REQUEST"},       {TYPE_REPLY, "TYPE_REPLY"},   {STATUS_OK, "STATUS_OK"},
    {STATUS_ERROR, "STATUS_ERROR"},       {DREASON_DISCONNECTED, "DREASON_DISCONNECTED"},
    {DREASON_CRASHED, "DREASON_CRASHED"},
};

template <size_t N>
bool reverse(const Name (&table)[N], std::string_view name, unsigned int* value) {
  for (const Name& n : table)
    if (name == n.name) {
      *value = n.value;
      return true;
    }
  return false;
}

template <size_t N>
const char* lookup(const Name (&table)[N], unsigned int value) {
  for (const Name& n : table)
    if (n.value == value) return n.name;
  return nullptr;
}

}  // namespace

const char* fieldName(unsigned int id) { return lookup(kFields, id & 0x00FFFFFF); }
const char* commandName(unsigned int cmd) { return lookup(kCommands, cmd); }
const char* errorName(unsigned int code) { return lookup(kErrors, code); }
const char* handlerName(unsigned int handler) { return lookup(kHandlers, handler); }

bool fieldNumber(std::string_view name, unsigned int* number) { return reverse(kFields, name, number); }

bool constantValue(std::string_view name, unsigned int* value) {
  return reverse(kCommands, name, value) || reverse(kErrors, name, value) || reverse(kConstants, name, value);
}

}  // namespace kr
