// MedianReporter: Google Benchmark's console output as usual, plus one kept
// result per benchmark for the table of ratios each benchmark binary prints
// at the end. keep() sees every single run and, when runs are repeated,
// their median last (so the median is what stays); failed runs and the
// other aggregates are skipped.
#pragma once

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <string>
#include <vector>

class MedianReporter : public benchmark::ConsoleReporter {
 public:
  // Colour only on a terminal, so that piped output stays readable.
  MedianReporter() : ConsoleReporter(isatty(STDOUT_FILENO) ? OO_Defaults : OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& r : runs) {
      if (r.error_occurred) continue;
      if (r.run_type == Run::RT_Aggregate && r.aggregate_name != "median") continue;
      keep(r.run_name.function_name, r);
    }
    ConsoleReporter::ReportRuns(runs);
  }

 protected:
  virtual void keep(const std::string& name, const Run& r) = 0;

  // Nanoseconds per iteration, of the wall clock or of CPU time.
  static double realNs(const Run& r) {
    return r.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(r.time_unit) * 1e9;
  }
  static double cpuNs(const Run& r) {
    return r.GetAdjustedCPUTime() / benchmark::GetTimeUnitMultiplier(r.time_unit) * 1e9;
  }
  static double counter(const Run& r, const char* name, double missing) {
    auto it = r.counters.find(name);
    return it == r.counters.end() ? missing : double(it->second);
  }
};

// Google Benchmark's main with `Reporter` (a MedianReporter that prints its
// ratios at the end): 1 for an unknown option, else 0 once every benchmark
// has run.
template <class Reporter>
int runBenchmarks(int& argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();
  return 0;
}
