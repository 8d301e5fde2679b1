// SPDX-License-Identifier: Apache-2.0
// How the benchmark programs that state targets report them: the median of
// each benchmark's runs, and one line per target comparing two medians of
// the same run, met or MISSED.
#ifndef WIDGETENGINE_BENCH_BENCHREPORT_H_
#define WIDGETENGINE_BENCH_BENCHREPORT_H_

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

namespace benchreport {

class MedianReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
      std::string name = run.run_name.function_name;
      if (!run.run_name.args.empty()) name += "/" + run.run_name.args;
      seconds_[name].push_back(run.GetAdjustedRealTime() /
                               benchmark::GetTimeUnitMultiplier(run.time_unit));
    }
    ConsoleReporter::ReportRuns(runs);
  }

  double median(const std::string& name) const {
    auto it = seconds_.find(name);
    if (it == seconds_.end()) return 0;
    return medianOf(it->second);
  }

  // Each round's time of name, in the order of the rounds; empty when it
  // was not measured.
  std::vector<double> rounds(const std::string& name) const {
    auto it = seconds_.find(name);
    return it == seconds_.end() ? std::vector<double>() : it->second;
  }

  static double medianOf(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
  }

 private:
  std::map<std::string, std::vector<double>> seconds_;
};

inline std::string formatTime(double seconds) {
  char text[32];
  if (seconds >= 1e-3) {
    snprintf(text, sizeof text, "%.2f ms", seconds * 1e3);
  } else if (seconds >= 1e-6) {
    snprintf(text, sizeof text, "%.2f us", seconds * 1e6);
  } else {
    snprintf(text, sizeof text, "%.1f ns", seconds * 1e9);
  }
  return text;
}

// The two medians of ours and theirs, when both were measured; else a
// line that says so.
inline bool medians(const MedianReporter& r, const std::string& ours,
                    const std::string& theirs, double* a, double* b) {
  *a = r.median(ours);
  *b = r.median(theirs);
  if (*a > 0 && *b > 0) return true;
  printf("%-28s %-28s not measured\n", ours.c_str(), theirs.c_str());
  return false;
}

// ours / theirs, which must stay at most limit.
inline bool printAtMost(const MedianReporter& r, const std::string& ours,
                        const std::string& theirs, double limit) {
  double a, b;
  if (!medians(r, ours, theirs, &a, &b)) return false;
  const bool met = a / b <= limit;
  printf("%-28s %12s  %-28s %12s  ratio %8.3f  target <= %.2f  %s\n",
         ours.c_str(), formatTime(a).c_str(), theirs.c_str(),
         formatTime(b).c_str(), a / b, limit, met ? "met" : "MISSED");
  return met;
}

// theirs / ours, which must reach at least limit.
inline bool printAtLeast(const MedianReporter& r, const std::string& ours,
                         const std::string& theirs, double limit) {
  double a, b;
  if (!medians(r, ours, theirs, &a, &b)) return false;
  const bool met = b / a >= limit;
  printf("%-28s %12s  %-28s %12s  %8.1fx faster  target >= %.0fx  %s\n",
         ours.c_str(), formatTime(a).c_str(), theirs.c_str(),
         formatTime(b).c_str(), b / a, limit, met ? "met" : "MISSED");
  return met;
}

}  // namespace benchreport

#endif  // WIDGETENGINE_BENCH_BENCHREPORT_H_
