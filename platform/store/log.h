// kr::storesvc::LogLine: one line of kr-store's log on standard error.
//
//   LogLine() << "client pid " << pid << ": unknown store " << sid;
//   // kr-store: client pid 812: unknown store 17
#pragma once

#include "platform/common/log_line.h"

namespace kr::storesvc {

class LogLine : public platform::LogLine {
 public:
  LogLine() : platform::LogLine("kr-store") {}
};

}  // namespace kr::storesvc
