// Budget lines of the benchmark programs: a console reporter that also
// keeps every run's time per iteration by name, so that a program can
// compare its runs after they are done and print one "BUDGET" line per
// budget. scripts/bench.sh collects those lines.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace bench {

// Keeps the real or CPU time per iteration (ns) and the counters of each run.
class KeepingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.iterations == 0) continue;
      Kept& kept = m_runs[run.benchmark_name()];
      kept.real_ns = run.GetAdjustedRealTime();
      kept.cpu_ns = run.GetAdjustedCPUTime();
      for (const auto& counter : run.counters) kept.counters[counter.first] = counter.second.value;
    }
    ConsoleReporter::ReportRuns(runs);
  }

  struct Kept {
    double real_ns = 0;
    double cpu_ns = 0;
    std::map<std::string, double> counters;
  };

  // Null when the run did not take place (filtered out or skipped).
  const Kept* Find(const std::string& name) const {
    auto it = m_runs.find(name);
    return it == m_runs.end() ? nullptr : &it->second;
  }

  // A counter of a run, or -1 when the run or the counter is missing.
  double Counter(const std::string& name, const std::string& counter) const {
    const Kept* kept = Find(name);
    if (kept == nullptr) return -1;
    auto it = kept->counters.find(counter);
    return it == kept->counters.end() ? -1 : it->second;
  }

 private:
  std::map<std::string, Kept> m_runs;
};

// One line per budget: "BUDGET <id> pass|fail|n/a: <what>: <figure> (<limit>)".
inline void PrintBudget(const char* id, const char* what, bool measured, bool pass, const std::string& figure,
                        const std::string& limit) {
  printf("BUDGET %s %s: %s: %s (%s)\n", id, !measured ? "n/a" : pass ? "pass" : "fail", what,
         measured ? figure.c_str() : "not measured", limit.c_str());
}

inline std::string Format(const char* format, double a, double b = 0, double c = 0) {
  char text[160];
  snprintf(text, sizeof(text), format, a, b, c);
  return text;
}

}  // namespace bench
