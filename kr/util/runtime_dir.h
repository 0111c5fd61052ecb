// kr/util/runtime_dir.h: where the platform keeps its runtime files.
//
// Every well-known socket and marker file of the platform lives under one
// directory, "/ram" on the target. Setting the environment variable
// KR_RUNTIME_DIR moves all of them at once, so tests and several
// development instances on one host do not collide:
//
//   setenv("KR_RUNTIME_DIR", "/tmp/kr-test", 1);
//   kr::loaderSocketPath();        // "/tmp/kr-test/korasock"
//   kr::runMarkerPath("ifmgr");    // "/tmp/kr-test/run/ifmgr"
//
// Unset or empty, every path is exactly the fixed one ("/ram/korasock").
// Each call reads the environment afresh, so a test may change it between
// calls; callers that need a stable path should keep the returned string.
// Like getenv(), these must not race with setenv() in another thread.
// They allocate, so they are not for signal handlers: take what you need
// before (kr/loop/crash.h copies crashReportDir() at install time).
#pragma once

#include <string>
#include <string_view>

namespace kr {

// "/ram", or $KR_RUNTIME_DIR without trailing slashes. KR_RUNTIME_DIR="/"
// gives "", so that the paths below land directly under the root.
std::string runtimeDir();

// runtimeDir() + rest; `rest` starts with "/" (e.g. "/korasock").
std::string runtimePath(std::string_view rest);

// The loader's socket: "/ram/korasock".
std::string loaderSocketPath();
// The store service's socket: "/ram/storereg".
std::string storeSocketPath();
// The log service's socket: "/ram/logsocket".
std::string logSocketPath();
// The log service's control socket, where people follow the log and mute
// topics (kr-log, kr-cli log): "/ram/logctl".
std::string logControlSocketPath();
// The marker file a daemon called `name` keeps while it runs: "/ram/run/<name>".
std::string runMarkerPath(std::string_view name);
// The event trace: "/ram/rtrace".
std::string rtracePath();
// The directory of crash reports (kr/loop/crash.h): "/ram/crash".
std::string crashReportDir();

}  // namespace kr
