// Where log lines meet the event trace (the recorder behind
// kr::rtracePath(), "/ram/rtrace"). Every line handed to Logger::log() goes
// here first, muted or not, as event kind kTraceLogLine with its text and
// its source's topics.
//
// The recorder is not part of the library yet. Until it is, the call does
// nothing and costs nothing; this is the one place to connect it.
#pragma once

#include <cstdint>
#include <vector>

namespace kr {

inline constexpr unsigned int kTraceLogLine = 2;

inline void traceLogLine(const std::vector<uint16_t>& /*topics*/, const char* /*text*/,
                         unsigned int /*len*/) {}

}  // namespace kr
