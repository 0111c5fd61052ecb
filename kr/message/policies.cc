#include "kr/message/policies.h"

#include "kr/message/vocabulary.h"

namespace kr {
namespace {
constexpr unsigned int kRead = 0x40;
constexpr unsigned int kWrite = 0x80;
constexpr unsigned int kAction = 0x200;
constexpr unsigned int kUnrestricted = 0x80000000;

bool grants(unsigned int granted, unsigned int required) { return (granted & required) == required; }
}  // namespace

policies::policies()
    : table_{
          {CMD_GETALL, kRead},     {CMD_STOP_GETALL, kRead}, {CMD_GETCOUNT, kRead},
          {CMD_ADDOBJ, kWrite},    {CMD_SETOBJ, kWrite},     {CMD_REMOVEOBJ, kWrite},
          {CMD_MOVEOBJ, kWrite},   {CMD_GETOBJ, kRead},      {CMD_SUBSCRIBE, kRead},
          {CMD_UNSUBSCRIBE, kRead}, {CMD_NOTIFYACK, kRead},  {CMD_NOTIFY, kUnrestricted},
          {CMD_GET, kRead},        {CMD_SET, kWrite},        {CMD_SETFORM, kWrite},
          {CMD_RESET, kWrite},     {CMD_POLL, kAction},      {CMD_START, kAction},
          {CMD_CANCEL, kAction},   {CMD_GETPOLICIES, kRead}, {CMD_NOOP, kRead},
      } {}

const policies::entry* policies::find_policy(unsigned int cmd) const {
  for (const entry& e : table_)
    if (e.first == cmd) return &e;
  return nullptr;
}

unsigned int policies::required_policies(unsigned int cmd) const {
  const entry* e = find_policy(cmd);
  return e ? e->second : kUnrestricted;
}

policies::entry& policies::policy(unsigned int cmd) {
  for (entry& e : table_)
    if (e.first == cmd) return e;
  return table_.emplace_back(cmd, 0);
}

bool policies::is_allowed(const message& m) const {
  const unsigned int granted = m.get(SYS_POLICY, 0xFFFFFFFFu);
  if (granted & kUnrestricted) return true;
  return grants(granted, required_policies(m.get(SYS_CMD, CMD_NOOP)));
}

message policies::get_policies(const message& request) const {
  const unsigned int granted = request.get(SYS_POLICY, 0xFFFFFFFFu);
  std::vector<flat_message> objs;
  objs.reserve(table_.size());
  for (const entry& e : table_) {
    message o;
    o.insert(STD_ID, e.first);
    o.insert(u32_id(1), e.second);
    o.insert(bool_id(2), grants(granted, e.second));
    flat_message f;
    o.flatten(f);
    objs.push_back(std::move(f));
  }
  message out;
  out.insert(STD_OBJS, std::move(objs));
  return out;
}

}  // namespace kr
