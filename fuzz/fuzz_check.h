// CHECK(cond, detail) for the fuzz targets: an invariant of the code under
// test, checked on every input. A violation prints the condition and a
// number that helps to find the case, then aborts, which libFuzzer reports
// as a crash with the input that caused it.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstdlib>

namespace kr::fuzz {

[[noreturn]] inline void invariantViolated(const char* file, const char* what, size_t detail) {
  std::fprintf(stderr, "%s: invariant violated: %s (%zu)\n", file, what, detail);
  std::fflush(stderr);
  std::abort();
}

}  // namespace kr::fuzz

#define CHECK(cond, detail)                                                        \
  do {                                                                             \
    if (!(cond)) ::kr::fuzz::invariantViolated(__FILE__, #cond, size_t(detail)); \
  } while (0)
