// SPDX-License-Identifier: Apache-2.0
// Speed of getting a package onto the disk: unpacking with Extractor (as it
// chooses, and kept to one thread) against bsdtar and unzip, and downloading with Downloader against the curl program,
// on the same packages and URLs in the same run.
//
// Runs are paired in turn (one of each contender, then the next round), one
// iteration per run, each into a directory never used before. The summary at
// the end gives each contender's median and the ratios that the targets are
// stated in.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "bench/BenchPackages.h"
#include "bench/BenchRuns.h"
#include "install/Downloader.h"
#include "install/Extractor.h"
#include "testing/HttpServer.h"
#include "testing/TempDir.h"
#include "testing/ZipBuilder.h"

extern char** environ;

namespace {

const std::string kDataDir = std::string(WIDGETENGINE_BINARY_DIR) + "/bench-data";
const std::string kRunsDir = kDataDir + "/runs";

const benchpackages::Shape kShapes[] = {benchpackages::kTypical,
                                        benchpackages::kLarge};

std::string packagePath(const char* name) {
  for (const benchpackages::Shape& shape : kShapes) {
    if (strcmp(shape.name, name) == 0) return benchpackages::path(shape);
  }
  abort();
}

std::string freshRunPath(const char* kind) {
  return benchruns::freshRunPath(kDataDir, kRunsDir, kind);
}

using benchruns::runProgram;

// The engine's own lines go to a log file while measuring.
struct StdoutToLog : benchruns::StdoutToLog {
  StdoutToLog() : benchruns::StdoutToLog(kDataDir + "/engine-output.log") {}
};

using benchruns::printRatio;
using benchruns::record;

// workers 0 leaves the extractor's own choice (two threads on a machine
// with two processors); 1 is a device with one.
void BM_Extract(benchmark::State& state, const char* package, int workers) {
  const std::string target = freshRunPath("extract") + "/widget_bench/";
  const std::string zip = packagePath(package);
  const std::string name = workers == 1 ? "BM_ExtractOneThread/" : "BM_Extract/";
  record(state, name + package, [&] {
    StdoutToLog log;
    Extractor extractor(zip, target);
    if (workers > 0) extractor.setWorkers(workers);
    std::vector<std::string> files;
    const bool ok = extractor.extract(files) == 0;
    extractor.setKeepFiles(true);
    return ok;
  });
}

void BM_Bsdtar(benchmark::State& state, const char* package) {
  const std::string target = freshRunPath("bsdtar");
  mkdir(target.c_str(), 0755);
  const std::string zip = packagePath(package);
  record(state, std::string("BM_Bsdtar/") + package, [&] {
    return runProgram({"bsdtar", "-xf", zip, "-C", target}) == 0;
  });
}

void BM_Unzip(benchmark::State& state, const char* package) {
  const std::string target = freshRunPath("unzip");
  const std::string zip = packagePath(package);
  record(state, std::string("BM_Unzip/") + package, [&] {
    return runProgram({"unzip", "-q", zip, "-d", target}) == 0;
  });
}

HttpServer* server = nullptr;

std::string sourceUrl(const char* scheme) {
  if (std::string(scheme) == "http") return server->url("/typical.wgt");
  return "file://" + packagePath("typical");
}

void BM_Download(benchmark::State& state, const char* scheme) {
  const std::string folder = freshRunPath("download");
  mkdir(folder.c_str(), 0755);
  const std::string url = sourceUrl(scheme);
  const std::string path = folder + "/fileAbCdEf";
  std::unique_ptr<Downloader> downloader;
  record(state, std::string("BM_Download/") + scheme, [&] {
    StdoutToLog log;
    downloader.reset(new Downloader(url, path));
    return downloader->download() == 0;
  });
  // The downloader removes its file when it goes, as the installer wants;
  // here the file is kept, like curl's, so that nothing is deleted while
  // measuring and no run pays for another's deletion.
  rename(path.c_str(), (path + ".kept").c_str());
  StdoutToLog log;
  downloader.reset();
}

void BM_CurlCli(benchmark::State& state, const char* scheme) {
  const std::string folder = freshRunPath("curl");
  mkdir(folder.c_str(), 0755);
  const std::string url = sourceUrl(scheme);
  record(state, std::string("BM_CurlCli/") + scheme, [&] {
    return runProgram({"curl", "-s", "-o", folder + "/fileAbCdEf", url}) == 0;
  });
}

int envInt(const char* name, int fallback) {
  const char* value = getenv(name);
  return value && *value ? atoi(value) : fallback;
}

}  // namespace

int main(int argc, char** argv) {
  mkdir(kDataDir.c_str(), 0755);
  TempDir::removeTree(kRunsDir);
  mkdir(kRunsDir.c_str(), 0755);
  for (const benchpackages::Shape& shape : kShapes) packagePath(shape.name);
  HttpServer httpServer;
  httpServer.serveFile("/typical.wgt", packagePath("typical"));
  server = &httpServer;

  // Registered round by round so that the contenders alternate.
  const int rounds = envInt("INSTALL_BENCH_ROUNDS", 9);
  for (int round = 0; round < rounds; ++round) {
    for (const benchpackages::Shape& shape : kShapes) {
      std::string suffix = std::string("/") + shape.name;
      benchmark::RegisterBenchmark(("BM_Extract" + suffix).c_str(), BM_Extract,
                                   shape.name, 0)
          ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("BM_ExtractOneThread" + suffix).c_str(),
                                   BM_Extract, shape.name, 1)
          ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("BM_Bsdtar" + suffix).c_str(), BM_Bsdtar,
                                   shape.name)
          ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("BM_Unzip" + suffix).c_str(), BM_Unzip,
                                   shape.name)
          ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    }
    for (const char* scheme : {"file", "http"}) {
      std::string suffix = std::string("/") + scheme;
      benchmark::RegisterBenchmark(("BM_Download" + suffix).c_str(),
                                   BM_Download, scheme)
          ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
      benchmark::RegisterBenchmark(("BM_CurlCli" + suffix).c_str(), BM_CurlCli,
                                   scheme)
          ->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  printf("\nMedians of %d paired rounds:\n", rounds);
  for (const benchpackages::Shape& shape : kShapes) {
    const std::string suffix = std::string("/") + shape.name;
    printRatio("BM_Extract" + suffix, "BM_Bsdtar" + suffix, 0.95);
    printRatio("BM_Extract" + suffix, "BM_Unzip" + suffix, 0.5);
    printRatio("BM_ExtractOneThread" + suffix, "BM_Bsdtar" + suffix, 0.95);
  }
  for (const char* scheme : {"file", "http"}) {
    const std::string suffix = std::string("/") + scheme;
    printRatio("BM_Download" + suffix, "BM_CurlCli" + suffix, 1.1);
  }
  TempDir::removeTree(kRunsDir);
  return 0;
}
