// kr::logsvc::LogLine: one line of kr-log's own diagnostics on standard
// error (the loader's log when the loader started it).
//
//   LogLine() << "dropped client " << name << "[" << pid << "]: " << reason;
//   // kr-log: dropped client dhcpd[812]: record length 2 is below 4
//
// What matters to people reading the system log also goes into the log
// file, through Service::note().
#pragma once

#include "platform/common/log_line.h"

namespace kr::logsvc {

class LogLine : public platform::LogLine {
 public:
  LogLine() : platform::LogLine("kr-log") {}
};

}  // namespace kr::logsvc
