// SPDX-License-Identifier: Apache-2.0
// Cost of `widgetctl check` against an install of the same package: check is
// an install into a throw-away sandbox followed by the linter, so the ratio of
// the two says what linting adds. The linter alone is measured as well.
//
// Runs are paired in turn (install, check, lint, then the next round), one
// iteration per run, each into a directory never used before; nothing is
// deleted while measuring. The summary gives the medians and the ratios.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "bench/BenchPackages.h"
#include "bench/BenchRuns.h"
#include "install/WidgetInstaller.h"
#include "testing/TempDir.h"
#include "lint/PackageLinter.h"

namespace {

const std::string kDataDir = std::string(WIDGETENGINE_BINARY_DIR) + "/bench-data";
const std::string kRunsDir = kDataDir + "/check-runs";
const std::string kSchema =
    std::string(WIDGETENGINE_SOURCE_DIR) + "/config/WidgetConfig.rng";

// The engine's trace lines go to a log file while measuring.
struct StdoutToLog : benchruns::StdoutToLog {
  StdoutToLog() : benchruns::StdoutToLog(kDataDir + "/check-output.log") {}
};

using benchruns::record;

// A fresh widget root and registry directory, as check makes its sandbox.
void makeSandbox(const std::string& dir) {
  mkdir(dir.c_str(), 0700);
  mkdir((dir + "/widgets").c_str(), 0700);
  mkdir((dir + "/widgets/tmp").c_str(), 0700);
  mkdir((dir + "/conf").c_str(), 0700);
  setenv("WIDGET_PATH", (dir + "/widgets/").c_str(), 1);
  setenv("YRA_DATA_PATH", (dir + "/conf/").c_str(), 1);
}

// The typical package draws warnings (its localized pages have no copy at
// the top level) but no error.
bool noError(const std::vector<LintFinding>& findings) {
  for (const LintFinding& finding : findings)
    if (finding.level == "error") return false;
  return true;
}

bool install(const std::string& url) {
  StdoutToLog log;
  WidgetInstaller installer(url);
  return installer.run() == 0;
}

void BM_Install(benchmark::State& state) {
  const std::string package = benchpackages::path(benchpackages::kTypical);
  const std::string dir = benchruns::freshRunPath(kDataDir, kRunsDir, "install");
  record(state, "BM_Install", [&] {
    makeSandbox(dir);
    return install("file://" + package);
  });
}

void BM_Check(benchmark::State& state) {
  const std::string package = benchpackages::path(benchpackages::kTypical);
  const std::string dir = benchruns::freshRunPath(kDataDir, kRunsDir, "check");
  record(state, "BM_Check", [&] {
    makeSandbox(dir);
    const bool installed = install("file://" + package);
    PackageLinter linter(package, "file://" + package, kSchema);
    return installed && noError(linter.run());
  });
}

void BM_Lint(benchmark::State& state) {
  const std::string package = benchpackages::path(benchpackages::kTypical);
  benchruns::freshRunPath(kDataDir, kRunsDir, "lint");
  record(state, "BM_Lint", [&] {
    PackageLinter linter(package, "file://" + package, kSchema);
    return noError(linter.run());
  });
}

}  // namespace

int main(int argc, char** argv) {
  mkdir(kDataDir.c_str(), 0755);
  TempDir::removeTree(kRunsDir);
  mkdir(kRunsDir.c_str(), 0755);
  benchpackages::path(benchpackages::kTypical);

  const char* value = getenv("CHECK_BENCH_ROUNDS");
  const int rounds = value && *value ? atoi(value) : 9;
  for (int round = 0; round < rounds; ++round) {
    benchmark::RegisterBenchmark("BM_Install/typical", BM_Install)
        ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_Check/typical", BM_Check)
        ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_Lint/typical", BM_Lint)
        ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  printf("\nMedians of %d paired rounds (typical package):\n", rounds);
  benchruns::printRatio("BM_Check", "BM_Install", 1.5, 12);
  benchruns::printRatio("BM_Lint", "BM_Install", 0.5, 12);
  TempDir::removeTree(kRunsDir);
  return 0;
}
