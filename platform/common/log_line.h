// kr::platform::LogLine: one line of a platform program's log on standard
// error, behind the program's name.
//
//   LogLine("kr-store") << "client pid " << pid << ": unknown store " << sid;
//   // kr-store: client pid 812: unknown store 17
//
// The line is assembled in memory and written with a single write() when
// the temporary goes, so that the lines of the loader and of the daemons
// it started (which share its standard error) never interleave mid-line.
// Each program names itself once, in a LogLine of its own namespace.
#pragma once

#include <unistd.h>

#include <sstream>
#include <string>

namespace kr::platform {

class LogLine {
 public:
  explicit LogLine(const char* program) { os_ << program << ": "; }
  LogLine(const LogLine&) = delete;
  LogLine& operator=(const LogLine&) = delete;
  ~LogLine() {
    os_ << '\n';
    const std::string s = os_.str();
    if (::write(STDERR_FILENO, s.data(), s.size()) < 0) {
      // Nowhere left to report it.
    }
  }

  template <class T>
  LogLine& operator<<(const T& v) {
    os_ << v;
    return *this;
  }

 private:
  std::ostringstream os_;
};

}  // namespace kr::platform
