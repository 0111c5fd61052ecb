// kr-loader [--config FILE] [--socket PATH]
//
// The platform's loader: the bus between the daemons, and their
// supervisor. See docs/loader.md.
#include <cstdio>
#include <cstring>
#include <string>

#include "kr/util/runtime_dir.h"
#include "platform/loader/loader.h"

namespace {

int usage(FILE* out, int status) {
  std::fprintf(out,
               "usage: kr-loader [--config FILE] [--socket PATH]\n"
               "  --config FILE  daemons to start and policy grants (default: none)\n"
               "  --socket PATH  where to listen (default: %s)\n",
               kr::loaderSocketPath().c_str());
  return status;
}

}  // namespace

int main(int argc, char** argv) {
  kr::loader::LoaderOptions options;
  options.socketPath = kr::loaderSocketPath();
  for (int i = 1; i < argc; ++i) {
    const bool hasValue = i + 1 < argc;
    if (std::strcmp(argv[i], "--help") == 0) return usage(stdout, 0);
    if (std::strcmp(argv[i], "--config") == 0 && hasValue) {
      options.configPath = argv[++i];
    } else if (std::strcmp(argv[i], "--socket") == 0 && hasValue) {
      options.socketPath = argv[++i];
    } else {
      return usage(stderr, 2);
    }
  }
  return kr::loader::runLoader(options);
}
