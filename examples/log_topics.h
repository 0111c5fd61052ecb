// The example daemon's log topics. The numbers belong to the log service's
// topic table, where they get their names (platform/log/kr-log.conf):
//
//   40 example            everything the daemon says
//   41 example.requests   one line per greeting served
//   42 example.table      changes to the address table
//
// A line is filed under a list of topics, and muting any one of them at
// the service silences the line: `kr-cli log mute example.requests` stops
// the per-request lines and leaves the rest.
#pragma once

namespace example {

inline constexpr unsigned int kTopicExample = 40;
inline constexpr unsigned int kTopicRequests = 41;
inline constexpr unsigned int kTopicTable = 42;

}  // namespace example
