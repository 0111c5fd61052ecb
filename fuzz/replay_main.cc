// Runs a fuzz target's LLVMFuzzerTestOneInput over files, without libFuzzer:
//
//   <target>_fuzzer_replay [--optional] PATH...
//
// Each PATH is a file or a directory whose regular files are replayed in
// name order. A missing PATH is an error unless --optional precedes it.
// Exits non-zero when nothing was replayed; a target that finds a violated
// invariant aborts by itself.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace fs = std::filesystem;

namespace {

bool replayFile(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  if (!in) {
    std::fprintf(stderr, "replay: cannot read %s\n", p.c_str());
    return false;
  }
  std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  std::fprintf(stderr, "replay: %s (%zu bytes)\n", p.c_str(), bytes.size());
  // A copy of exactly the input's size, so reads past the end are caught
  // under the address sanitizer as they would be under libFuzzer.
  std::unique_ptr<uint8_t[]> exact(new uint8_t[bytes.size()]);
  if (!bytes.empty()) std::memcpy(exact.get(), bytes.data(), bytes.size());
  LLVMFuzzerTestOneInput(exact.get(), bytes.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  size_t replayed = 0;
  bool optional = false;
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--optional") == 0) {
      optional = true;
      continue;
    }
    const fs::path path(argv[i]);
    const bool opt = std::exchange(optional, false);
    std::error_code ec;
    if (fs::is_regular_file(path, ec)) {
      if (!replayFile(path)) return 1;
      ++replayed;
    } else if (fs::is_directory(path, ec)) {
      std::vector<fs::path> files;
      for (const auto& e : fs::directory_iterator(path))
        if (e.is_regular_file()) files.push_back(e.path());
      std::sort(files.begin(), files.end());
      for (const auto& f : files) {
        if (!replayFile(f)) return 1;
        ++replayed;
      }
    } else if (!opt) {
      std::fprintf(stderr, "replay: no such file or directory: %s\n", path.c_str());
      return 1;
    }
  }
  std::fprintf(stderr, "replay: %zu inputs, no failure\n", replayed);
  return replayed == 0 ? 1 : 0;
}
