// kr::loader::LogLine: one line of the loader's log on standard error.
//
//   LogLine() << "address " << a << " dropped: " << why;
//   // kr-loader: address 20 dropped: bad frame length 70000
#pragma once

#include "platform/common/log_line.h"

namespace kr::loader {

class LogLine : public platform::LogLine {
 public:
  LogLine() : platform::LogLine("kr-loader") {}
};

}  // namespace kr::loader
