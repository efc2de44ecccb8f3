// A console reporter that also keeps each run's figures, so that a program
// can print its ratios against the baselines measured in the same run.
#pragma once

#include <algorithm>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fmt/format.h>

namespace zvbench {

struct Figure {
  double realSeconds = 0;  ///< per iteration
  double cpuSeconds = 0;   ///< per iteration
  std::map<std::string, double> counters;
};

/// With repetitions, the median of the repetitions is kept, and the "min"
/// and "max" statistics when a benchmark computes them.
class CollectingReporter : public benchmark::ConsoleReporter {
 public:
  CollectingReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      std::string name = plainName(run.run_name.str());
      if (run.run_type == Run::RT_Aggregate &&
          (run.aggregate_name == "min" || run.aggregate_name == "max")) {
        // The spread over the repetitions: counter "x" as "x.min" and "x.max".
        Figure& f = figures_[name];
        for (const auto& [counter, value] : run.counters)
          f.counters[counter + "." + run.aggregate_name] = value.value;
        continue;
      }
      if (run.run_type == Run::RT_Aggregate) {
        if (run.aggregate_name != "median") continue;
      } else if (figures_.count(name) && medians_.count(name)) {
        continue;
      }
      if (run.run_type == Run::RT_Aggregate) medians_.insert(name);
      Figure& f = figures_[name];
      const double n = static_cast<double>(run.iterations);
      f.realSeconds = run.real_accumulated_time / n;
      f.cpuSeconds = run.cpu_accumulated_time / n;
      for (const auto& [counter, value] : run.counters) f.counters[counter] = value.value;
    }
  }

  /// The figures of the run named `name` (as Google Benchmark prints it,
  /// without its run settings such as warm-up and repetitions), or null.
  const Figure* find(const std::string& name) const {
    auto it = figures_.find(name);
    return it == figures_.end() ? nullptr : &it->second;
  }
  /// A minimum and maximum over repetitions, for a benchmark's spread.
  static void addSpread(benchmark::internal::Benchmark* bench) {
    bench->ComputeStatistics("min", [](const std::vector<double>& v) {
      return v.empty() ? 0.0 : *std::min_element(v.begin(), v.end());
    });
    bench->ComputeStatistics("max", [](const std::vector<double>& v) {
      return v.empty() ? 0.0 : *std::max_element(v.begin(), v.end());
    });
  }
  double counter(const std::string& name, const std::string& counter) const {
    const Figure* f = find(name);
    if (!f) return 0;
    auto it = f->counters.find(counter);
    return it == f->counters.end() ? 0 : it->second;
  }

 private:
  // Drops the run settings from a name: "x/repeats:3/real_time" -> "x/real_time".
  static std::string plainName(const std::string& name) {
    std::string out;
    size_t start = 0;
    while (start <= name.size()) {
      size_t end = name.find('/', start);
      if (end == std::string::npos) end = name.size();
      const std::string part = name.substr(start, end - start);
      const bool setting = part.rfind("min_warmup_time:", 0) == 0 ||
                           part.rfind("repeats:", 0) == 0 || part.rfind("min_time:", 0) == 0;
      if (!setting) out += (out.empty() ? "" : "/") + part;
      start = end + 1;
    }
    return out;
  }
  std::map<std::string, Figure> figures_;
  std::set<std::string> medians_;
};

/// A figure for a result line: whole numbers from 1000 up, else four
/// significant digits.
inline std::string number(double value) {
  return value >= 1000 || value <= -1000 ? fmt::format("{:.0f}", value)
                                         : fmt::format("{:.4g}", value);
}

}  // namespace zvbench
