// kr::policies: the permission table of a handler, a list of (command,
// required bits) pairs searched in order.
//
// The loader stamps each message with SYS_POLICY, the bits granted to its
// sender. 0x40 is the read right, 0x80 the write right, 0x200 the right to
// start and stop actions; bit 31 means unrestricted (and is also the
// requirement that no restricted sender can meet). A message without
// SYS_POLICY is unrestricted.
//
//   kr::policies p;                      // the default table
//   p.add_policy(kMyCmd, 0x80);          // a handler's own command
//   if (!p.is_allowed(request)) reply(kr::errorMsg(kr::ERROR_NOTALLOWED, ""));
#pragma once

#include <utility>
#include <vector>

#include "kr/message/message.h"

namespace kr {

class policies {
 public:
  using entry = std::pair<unsigned int, unsigned int>;  // (command, required bits)

  // The default table of the standard commands.
  policies();

  // The entry of `cmd`, or null. Valid until the table changes.
  const entry* find_policy(unsigned int cmd) const;
  // The bits `cmd` requires; 0x80000000 (unreachable) when it is not listed.
  unsigned int required_policies(unsigned int cmd) const;
  // The entry of `cmd`, appended as (cmd, 0) when absent.
  entry& policy(unsigned int cmd);
  void set_policy(unsigned int cmd, unsigned int bits) { policy(cmd).second = bits; }
  void add_policy(unsigned int cmd, unsigned int bits) { policy(cmd).second |= bits; }

  // Whether the sender's SYS_POLICY grants every bit SYS_CMD (default
  // CMD_NOOP) requires. A policy with bit 31, or none at all, allows all.
  bool is_allowed(const message& m) const;
  // The answer to CMD_GETPOLICIES: STD_OBJS holds one message per entry, in
  // order, with STD_ID = command, u32 1 = required bits and bool 2 = whether
  // `request`'s SYS_POLICY holds them all.
  message get_policies(const message& request) const;

  const std::vector<entry>& entries() const { return table_; }

 private:
  std::vector<entry> table_;
};

}  // namespace kr
