// kr-loader-testdaemon ADDRESS [--refuse] [--log FILE]
//
// A daemon for the supervisor tests, speaking the bus with raw frames on
// descriptor 3 (the loader's socket pair):
//   - hello for ADDRESS; its generation is u32 1 of the persistent data in
//     the ready message (0 without any);
//   - a request answers {u32 1 = pid, u32 2 = generation};
//   - command kCmdStopMe makes it ask the loader to stop it (control 4);
//   - control 1: appends "ADDRESS left" to the log FILE, leaves with
//     persistent data {u32 1 = generation + 1} (control 2) and exits 0;
//     with --refuse it answers control 3 instead and stays.
// It exits 1 when the bus breaks.
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>

#include "platform/loader/test_client.h"

namespace {

using kr::loader::testing::Client;
constexpr unsigned kCmdStopMe = 0xFD0001;

struct Daemon {
  unsigned address = 0;
  bool refuse = false;
  std::string logFile;
  unsigned generation = 0;
  Client bus{3};

  bool join() {
    const kr::message ready = bus.join(address);
    if (ready.get(kr::SYS_CTRL) != kr::loader::kCtrlReady) return false;
    generation = ready.get(kr::loader::kReadyPermData).get(kr::u32_id(1));
    return true;
  }

  // Returns false when the daemon is to exit.
  bool leave() {
    if (refuse) return bus.send(kr::loader::testing::control(kr::loader::kCtrlRefuse));
    if (!logFile.empty()) std::ofstream(logFile, std::ios::app) << address << " left\n";
    kr::message data;
    data.insert(kr::u32_id(1), generation + 1);
    std::vector<unsigned char> flat;
    data.flatten(flat);
    kr::message leaving = kr::loader::testing::control(kr::loader::kCtrlLeaving);
    leaving.insert(kr::SYS_CTRL_ARG, 1);
    leaving.insert(kr::loader::kLeavePermData, flat);
    bus.send(leaving);
    return false;
  }

  bool handle(const kr::message& m) {
    unsigned code = 0;
    if (kr::isCtrl(m, &code)) return code == kr::loader::kCtrlLeave ? leave() : true;
    if (m.get(kr::SYS_CMD) == kCmdStopMe) return bus.send(kr::loader::testing::control(kr::loader::kCtrlStopMe));
    if (!kr::isRequest(m) || !kr::getRequestID(m, nullptr)) return true;
    kr::message reply;
    reply.insert(kr::u32_id(1), unsigned(getpid()));
    reply.insert(kr::u32_id(2), generation);
    reply.insert(kr::SYS_TO, m.get(kr::SYS_FROM));
    kr::setType(reply, kr::TYPE_REPLY);
    kr::setRequestID(reply, m.get(kr::SYS_REQID));
    return bus.send(reply);
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  Daemon d;
  d.address = unsigned(std::strtoul(argv[1], nullptr, 0));
  for (int i = 2; i < argc; ++i) {
    if (std::strcmp(argv[i], "--refuse") == 0) d.refuse = true;
    else if (std::strcmp(argv[i], "--log") == 0 && i + 1 < argc) d.logFile = argv[++i];
  }
  if (!d.join()) return 1;
  kr::message m;
  while (d.bus.recv(&m, -1)) {
    if (!d.handle(m)) return 0;
    m = kr::message();
  }
  return 1;
}
