// kr-store [--socket PATH] [--db PATH] [--no-bus]
//
// The platform's store service: every daemon's persistent objects in one
// SQLite database, served over a local sequenced-packet socket. See
// docs/store.md.
#include <cstdio>
#include <cstring>

#include "kr/util/runtime_dir.h"
#include "platform/store/process.h"

namespace {

int usage(FILE* out, int status) {
  std::fprintf(out,
               "usage: kr-store [--socket PATH] [--db PATH] [--no-bus]\n"
               "  --socket PATH  where to listen (default: %s)\n"
               "  --db PATH      the database (default: %s)\n"
               "  --no-bus       do not join the loader's bus (tools, tests)\n",
               kr::storeSocketPath().c_str(), kr::storesvc::defaultDatabasePath().c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  kr::storesvc::StoreOptions options;
  options.socketPath = kr::storeSocketPath();
  options.dbPath = kr::storesvc::defaultDatabasePath();
  for (int i = 1; i < argc; ++i) {
    const bool hasValue = i + 1 < argc;
    if (std::strcmp(argv[i], "--help") == 0) return usage(stdout, 0);
    if (std::strcmp(argv[i], "--socket") == 0 && hasValue) {
      options.socketPath = argv[++i];
    } else if (std::strcmp(argv[i], "--db") == 0 && hasValue) {
      options.dbPath = argv[++i];
    } else if (std::strcmp(argv[i], "--no-bus") == 0) {
      options.bus = false;
    } else {
      return usage(stderr, kr::storesvc::kExitUsage);
    }
  }
  return kr::storesvc::runStore(options);
}
