// kr::loader::LogLine: one line of the loader's log on standard error.
//
//   LogLine() << "address " << a << " dropped: " << why;
//   // kr-loader: address 20 dropped: bad frame length 70000
//
// The line is assembled in memory and written with a single write() when
// the temporary goes, so lines of the loader and of the daemons it started
// (which share its standard error) never interleave mid-line.
#pragma once

#include <unistd.h>

#include <sstream>
#include <string>

namespace kr::loader {

class LogLine {
 public:
  LogLine() { os_ << "kr-loader: "; }
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

}  // namespace kr::loader
