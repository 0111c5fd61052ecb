// The client side of kr-log's control socket (control.h), shared by
// `kr-log --follow/--status/--mute/--unmute` and `kr-cli log`: one request
// line out, the answer copied to a stream.
//
//   std::string error;
//   int status = runControlRequest(kr::logControlSocketPath(),
//                                  followRequest(10, {"example"}, {}), std::cout, 0, &error);
//   if (status != 0) std::cerr << "kr-log: " << error << "\n";
//
// Blocking; it returns when the service closes the connection (or, with
// maxLines, after that many lines). A follow runs until it is interrupted.
#pragma once

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

namespace kr::logsvc {

inline constexpr int kControlOk = 0;
inline constexpr int kControlFailed = 1;

// Sends `request` (one line, without its newline) to the control socket at
// `path` and copies the answer after its "ok" line to `out`, flushing
// after every line. maxLines > 0: returns after that many lines.
// kControlOk, or kControlFailed with a line in *error: no service there,
// the service's "error: ..." (without the prefix), or no answer at all.
int runControlRequest(const std::string& path, const std::string& request, std::ostream& out, size_t maxLines,
                      std::string* error);

// "follow tail=N topic=T ... program=P ..." (tail only when N > 0).
std::string followRequest(size_t tail, const std::vector<std::string>& topics,
                          const std::vector<std::string>& programs);

// Whether `word` can travel as one word of a request: not empty, no
// blanks, no line end.
bool isRequestWord(const std::string& word);

}  // namespace kr::logsvc
