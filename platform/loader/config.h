// The loader's configuration file, and the policy it grants each peer.
//
// A line-based text file; blank lines and lines whose first non-blank
// character is '#' are ignored; words are separated by blanks (there is no
// quoting, so an argument cannot contain a blank):
//
//   # address  restart  program                 arguments
//   daemon 14  always   /usr/sbin/namesd        --quiet
//   daemon 20  never    rdomaind
//   grant 1000 0xc0          # uid 1000 may read and write
//   socket-group 50          # the socket is 0660, group 50 (default 0600)
//   stop-timeout 5           # seconds a daemon has to leave (default 5)
//
// `daemon` lines are started in file order and stopped in reverse order.
// The address is 2..65535 (decimal or 0x-hex) and unique; the program is
// found on PATH unless it contains a '/'. `grant` gives a peer that is not
// trusted (see policyFor) the SYS_POLICY bits in hex.
//
//   Config c;
//   std::string err;
//   if (!loadConfig("/etc/kr-loader.conf", &c, &err)) die(err);  // "line 3: ..."
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace kr::loader {

struct DaemonConfig {
  uint32_t address = 0;
  bool restart = true;            // "always"; false for "never"
  std::vector<std::string> argv;  // the program, then its arguments
};

struct Config {
  std::vector<DaemonConfig> daemons;      // in start order
  std::map<uid_t, uint32_t> grants;     // uid -> SYS_POLICY bits
  gid_t socketGroup = gid_t(-1);        // -1: no group access
  unsigned stopTimeoutSeconds = 5;
};

// Parses the text of a configuration file into *out (replacing it). False
// with a one-line *error ("line 4: unknown keyword 'deamon'") on the first
// mistake.
bool parseConfig(std::string_view text, Config* out, std::string* error);
// Reads and parses the file at `path`.
bool loadConfig(const std::string& path, Config* out, std::string* error);

// The SYS_POLICY bits of a peer: everything for a trusted peer (a daemon
// the loader started, uid 0, or the loader's own uid), else its `grant`,
// else read only.
uint32_t policyFor(const Config& config, uid_t peerUid, bool supervised, uid_t loaderUid);

}  // namespace kr::loader
