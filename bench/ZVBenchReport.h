// A console reporter that also keeps each run's figures, so that a program
// can print its ratios against the baselines measured in the same run.
#pragma once

#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace zvbench {

struct Figure {
  double realSeconds = 0;  ///< per iteration
  double cpuSeconds = 0;   ///< per iteration
  std::map<std::string, double> counters;
};

class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
      Figure& f = figures_[plainName(run.benchmark_name())];
      const double n = static_cast<double>(run.iterations);
      f.realSeconds = run.real_accumulated_time / n;
      f.cpuSeconds = run.cpu_accumulated_time / n;
      for (const auto& [name, counter] : run.counters) f.counters[name] = counter.value;
    }
  }

  /// The figures of the run named `name` (as Google Benchmark prints it,
  /// without its warm-up setting), or null.
  const Figure* find(const std::string& name) const {
    auto it = figures_.find(name);
    return it == figures_.end() ? nullptr : &it->second;
  }
  double counter(const std::string& name, const std::string& counter) const {
    const Figure* f = find(name);
    if (!f) return 0;
    auto it = f->counters.find(counter);
    return it == f->counters.end() ? 0 : it->second;
  }

 private:
  static std::string plainName(std::string name) {
    const std::string tag = "/min_warmup_time:";
    if (const size_t at = name.find(tag); at != std::string::npos) {
      const size_t end = name.find('/', at + 1);
      name.erase(at, end == std::string::npos ? std::string::npos : end - at);
    }
    return name;
  }
  std::map<std::string, Figure> figures_;
};

}  // namespace zvbench
