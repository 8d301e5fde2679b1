// SPDX-License-Identifier: Apache-2.0
// Speed of widget-browser, the WebKitGTK host, as a reader sees it:
//  - a widget page with 200 sub-resources (stylesheets, scripts and images,
//    half of them with a copy under locales/fr/) loaded by a French reader
//    as a widget is shown, from the widget:// scheme with the engine's
//    mapping and the sandbox's policy; beside it, as twins, the same widget
//    with the mapping switched off (WIDGET_BROWSER_NO_MAPPING) and the same
//    files as a plain file:// page that WebKit reads by itself, the three
//    taking turns over the rounds;
//  - a widget page with 100 resources from a server on 127.0.0.1 that its
//    config.xml grants, loaded through the browser's network gate and, as
//    its twin, directly (WIDGET_BROWSER_NO_GATE), taking turns;
//  - the time from receiveWidget of the typical 15 MB package to the first
//    rendered frame of its start page.
// Each run is a browser process of its own. For page loads it loads the page
// once to start its web process and then WIDGET_BROWSER_REPEAT more times
// with WebKit's memory cache off, and reports each load's time from the
// request to the end of the load; the run's figure is their median. The
// browser needs a display: bench/run.sh starts Xvfb when there is none.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include <widgetengine/WidgetEngineDelegate.h>

#include "bench/BenchPackages.h"
#include "bench/BenchRuns.h"
#include "testing/HttpServer.h"
#include "testing/TempDir.h"
#include "testing/ZipBuilder.h"

namespace {

using benchruns::median;
using benchruns::printRatio;
using benchruns::seconds;

const std::string kBinaryDir = WIDGETENGINE_BINARY_DIR;
const std::string kBrowser = kBinaryDir + "/widget-browser";
const std::string kDataDir = kBinaryDir + "/bench-data";
const std::string kRunsDir = kDataDir + "/browser-runs";
const int kResources = 200;
const int kRemoteResources = 100;

// The smallest valid PNG (1x1), so that images cost their fetch and little
// decoding, like the stylesheets and scripts beside them.
const unsigned char kPixel[] = {
    0x89, 0x50, 0x4e, 0x47, 0x0d, 0x0a, 0x1a, 0x0a, 0x00, 0x00, 0x00, 0x0d,
    0x49, 0x48, 0x44, 0x52, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x01,
    0x08, 0x02, 0x00, 0x00, 0x00, 0x90, 0x77, 0x53, 0xde, 0x00, 0x00, 0x00,
    0x0c, 0x49, 0x44, 0x41, 0x54, 0x08, 0xd7, 0x63, 0xf8, 0xcf, 0xc0, 0x00,
    0x00, 0x03, 0x01, 0x01, 0x00, 0x18, 0xdd, 0x8d, 0xb0, 0x00, 0x00, 0x00,
    0x00, 0x49, 0x45, 0x4e, 0x44, 0xae, 0x42, 0x60, 0x82};

// index.html (no French copy, so both sides load the same document) with
// 70 stylesheets, 70 scripts and 60 images; even-numbered ones have a
// French copy. css/s0.css colours the heading, so that a run can tell which
// copy it got.
bool buildPagePackage(const std::string& path) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
              "id=\"http://example.org/many\" version=\"1.0\">\n"
              "  <name>Many resources</name>\n"
              "  <content src=\"index.html\"/>\n</widget>\n");
  std::string head, body;
  const std::string pixel(reinterpret_cast<const char*>(kPixel), sizeof kPixel);
  zip.addFolder("css/").addFolder("js/").addFolder("img/");
  zip.addFolder("locales/").addFolder("locales/fr/");
  zip.addFolder("locales/fr/css/").addFolder("locales/fr/js/");
  zip.addFolder("locales/fr/img/");
  for (int i = 0; i < kResources; ++i) {
    std::string name;
    std::string content, french;
    if (i < 70) {
      name = "css/s" + std::to_string(i) + ".css";
      head += "<link rel=\"stylesheet\" href=\"" + name + "\">\n";
      content = i == 0 ? "h1 { color: rgb(0, 0, 1); }\n"
                       : ".c" + std::to_string(i) + " { margin: 1px; }\n";
      french = i == 0 ? "h1 { color: rgb(0, 0, 2); }\n"
                      : ".c" + std::to_string(i) + " { margin: 2px; }\n";
    } else if (i < 140) {
      name = "js/s" + std::to_string(i) + ".js";
      body += "<script src=\"" + name + "\"></script>\n";
      content = "window.v" + std::to_string(i) + " = 1;\n";
      french = "window.v" + std::to_string(i) + " = 2;\n";
    } else {
      name = "img/p" + std::to_string(i) + ".png";
      body += "<img src=\"" + name + "\" alt=\"\">\n";
      content = french = pixel;
    }
    zip.addFile(name, content);
    if (i % 2 == 0) zip.addFile("locales/fr/" + name, french);
  }
  zip.addFile("index.html", "<!DOCTYPE html>\n<html><head><meta "
                            "charset=\"UTF-8\"><title>Many</title>\n" +
                                head + "</head><body><h1>Many</h1>\n" + body +
                                "</body></html>\n");
  return zip.write(path);
}

// A widget granted server's origin whose page loads 40 stylesheets, 30
// scripts and 30 images from it; the first stylesheet colours the heading.
bool buildRemotePackage(const std::string& path, HttpServer& server) {
  const std::string origin = server.url("");
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
              "id=\"http://example.org/remote\" version=\"1.0\">\n"
              "  <name>Remote resources</name>\n"
              "  <content src=\"index.html\"/>\n"
              "  <access origin=\"" + origin + "\"/>\n</widget>\n");
  const std::string pixel(reinterpret_cast<const char*>(kPixel), sizeof kPixel);
  std::string head, body;
  for (int i = 0; i < kRemoteResources; ++i) {
    const std::string n = std::to_string(i);
    if (i < 40) {
      server.serve("/s" + n + ".css", 200,
                   i == 0 ? "h1 { color: rgb(0, 0, 3); }\n"
                          : ".c" + n + " { margin: 1px; }\n",
                   {{"Content-Type", "text/css"}});
      head += "<link rel=\"stylesheet\" href=\"" + origin + "/s" + n +
              ".css\">\n";
    } else if (i < 70) {
      server.serve("/s" + n + ".js", 200, "window.v" + n + " = 1;\n",
                   {{"Content-Type", "text/javascript"}});
      body += "<script src=\"" + origin + "/s" + n + ".js\"></script>\n";
    } else {
      server.serve("/p" + n + ".png", 200, pixel,
                   {{"Content-Type", "image/png"}});
      body += "<img src=\"" + origin + "/p" + n + ".png\" alt=\"\">\n";
    }
  }
  zip.addFile("index.html", "<!DOCTYPE html>\n<html><head><meta "
                            "charset=\"UTF-8\"><title>Remote</title>\n" +
                                head + "</head><body><h1>Remote</h1>\n" + body +
                                "</body></html>\n");
  return zip.write(path);
}

struct BrowserRun {
  bool ok = false;
  std::string out;
};

// Runs widget-browser with these arguments and extra environment entries;
// its standard output.
BrowserRun runBrowser(const std::vector<std::string>& args,
                      const std::vector<std::string>& extraEnv) {
  BrowserRun run;
  std::vector<std::string> argStore = {kBrowser};
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argStore) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  std::vector<std::string> envStore(extraEnv);
  for (char** e = environ; *e; ++e) envStore.push_back(*e);
  std::vector<char*> envp;
  for (std::string& e : envStore) envp.push_back(&e[0]);
  envp.push_back(nullptr);
  const std::string outPath = kDataDir + "/browser-output.log";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0644);
  pid_t child;
  int status = posix_spawn(&child, kBrowser.c_str(), &actions, nullptr,
                           argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  if (status != 0) return run;
  waitpid(child, &status, 0);
  run.ok = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  run.out = TempDir::readFile(outPath);
  return run;
}

std::vector<double> figures(const std::string& out, const std::string& key) {
  std::vector<double> values;
  std::istringstream lines(out);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.compare(0, key.size(), key) == 0)
      values.push_back(atof(line.c_str() + key.size()));
  }
  return values;
}

std::string pageLaunchURL;
std::string plainPageURL;
std::string remoteLaunchURL;

// How a run shows the page.
enum class Side { kConfined, kNoMapping, kPlainFile, kThroughGate, kDirect };

const char* sideName(Side side) {
  switch (side) {
    case Side::kConfined: return "BM_PageLoad/confined";
    case Side::kNoMapping: return "BM_PageLoad/no_mapping";
    case Side::kPlainFile: return "BM_PageLoad/plain_file";
    case Side::kThroughGate: return "BM_RemotePage/through_gate";
    case Side::kDirect: return "BM_RemotePage/direct";
  }
  return "";
}

BrowserRun runPage(Side side, std::vector<std::string> env) {
  if (side == Side::kNoMapping) env.push_back("WIDGET_BROWSER_NO_MAPPING=1");
  if (side == Side::kDirect) env.push_back("WIDGET_BROWSER_NO_GATE=1");
  const bool remote = side == Side::kThroughGate || side == Side::kDirect;
  return runBrowser({"--lang", "fr", "--exit-after-load",
                     side == Side::kPlainFile ? plainPageURL
                     : remote                 ? remoteLaunchURL
                                              : pageLaunchURL},
                    env);
}

void BM_PageLoad(benchmark::State& state, Side side) {
  const std::string name = sideName(side);
  for (auto _ : state) {
    BrowserRun run = runPage(side, {"WIDGET_BROWSER_REPEAT=11"});
    const std::vector<double> loads = figures(run.out, "load-ms: ");
    if (!run.ok || loads.empty()) {
      state.SkipWithError("the browser failed");
      return;
    }
    const double secondsTaken = median(loads) / 1e3;
    state.SetIterationTime(secondsTaken);
    seconds()[name].push_back(secondsTaken);
  }
}

void BM_ReceiveToFirstFrame(benchmark::State& state) {
  static int counter = 0;
  const std::string package = benchpackages::path(benchpackages::kTypical);
  for (auto _ : state) {
    // A widget root of its own each time: the package is installed anew.
    const std::string root = kRunsDir + "/first-frame-" +
                             std::to_string(++counter) + "/";
    mkdir(root.c_str(), 0755);
    mkdir((root + "tmp").c_str(), 0755);
    BrowserRun run = runBrowser(
        {"--lang", "fr", "--exit-after-load", "file://" + package},
        {"WIDGET_BROWSER_TIMING=1", "WIDGET_PATH=" + root,
         "YRA_DATA_PATH=" + root});
    const std::vector<double> frame = figures(run.out, "first-frame-ms: ");
    const std::vector<double> receive = figures(run.out, "receive-ms: ");
    if (!run.ok || frame.empty() || receive.empty()) {
      state.SkipWithError("the browser failed");
      return;
    }
    state.SetIterationTime(frame[0] / 1e3);
    seconds()["BM_ReceiveToFirstFrame"].push_back(frame[0] / 1e3);
    seconds()["receiveWidget alone"].push_back(receive[0] / 1e3);
  }
}

int envInt(const char* name, int fallback) {
  const char* value = getenv(name);
  return value && *value ? atoi(value) : fallback;
}

}  // namespace

int main(int argc, char** argv) {
  struct stat info;
  if (stat(kBrowser.c_str(), &info) != 0) {
    fprintf(stderr, "%s was not built (no WebKitGTK 4.1): nothing to measure\n",
            kBrowser.c_str());
    return 0;
  }
  mkdir(kDataDir.c_str(), 0755);
  TempDir::removeTree(kRunsDir);
  mkdir(kRunsDir.c_str(), 0755);

  // The page widget is installed once, by the engine itself, in a root
  // that every browser run of the page benchmark shares.
  const std::string root = kRunsDir + "/page/";
  mkdir(root.c_str(), 0755);
  mkdir((root + "tmp").c_str(), 0755);
  setenv("WIDGET_PATH", root.c_str(), 1);
  setenv("YRA_DATA_PATH", root.c_str(), 1);
  const std::string package = kRunsDir + "/many.wgt";
  const std::string remotePackage = kRunsDir + "/remote.wgt";
  HttpServer server;
  if (!buildPagePackage(package) || !buildRemotePackage(remotePackage, server))
    return 1;
  {
    benchruns::StdoutToLog log(kDataDir + "/engine-output.log");
    RefPtr<WebWidgetEngineDelegate> engine =
        WidgetEngineDelegate::createInstance();
    auto install = [&engine](const std::string& from) {
      char* launch = engine->receiveWidget(("file://" + from).c_str(), nullptr);
      const std::string address = launch ? launch : "";
      free(launch);
      return address;
    };
    pageLaunchURL = install(package);
    remoteLaunchURL = install(remotePackage);
  }
  if (pageLaunchURL.empty() || remoteLaunchURL.empty()) {
    fprintf(stderr, "cannot install %s and %s\n", package.c_str(),
            remotePackage.c_str());
    return 1;
  }
  // The same files, outside the widget root: a plain page to WebKit.
  const std::string plain = kRunsDir + "/plain";
  if (system(("cp -r '" + root + "widget_many' '" + plain + "'").c_str()) != 0)
    return 1;
  plainPageURL = "file://" + plain + "/index.html";
  // Every side must load what it claims to: French copies from the widget
  // scheme with the mapping, the default files without and from file://.
  // The remote page gets its stylesheet from the server both ways.
  for (Side side : {Side::kConfined, Side::kNoMapping, Side::kPlainFile,
                    Side::kThroughGate, Side::kDirect}) {
    BrowserRun run = runPage(side, {"WIDGET_BROWSER_FACTS=1"});
    const char* expected =
        side == Side::kConfined                                ? "rgb(0, 0, 2)"
        : side == Side::kThroughGate || side == Side::kDirect ? "rgb(0, 0, 3)"
                                                               : "rgb(0, 0, 1)";
    const char* address =
        side == Side::kPlainFile ? "\"url\":\"file://" : "\"url\":\"widget://";
    if (!run.ok || run.out.find(expected) == std::string::npos ||
        run.out.find(address) == std::string::npos) {
      fprintf(stderr, "the page did not load as expected (%s):\n%s\n",
              sideName(side), run.out.c_str());
      return 1;
    }
  }

  const int rounds = envInt("BROWSER_BENCH_ROUNDS", 9);
  for (int round = 0; round < rounds; ++round) {
    for (Side side : {Side::kConfined, Side::kNoMapping, Side::kPlainFile,
                      Side::kThroughGate, Side::kDirect})
      benchmark::RegisterBenchmark(sideName(side), BM_PageLoad, side)
          ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
  }
  const int frameRounds = envInt("BROWSER_BENCH_FRAME_ROUNDS", 5);
  for (int round = 0; round < frameRounds; ++round) {
    benchmark::RegisterBenchmark("BM_ReceiveToFirstFrame",
                                 BM_ReceiveToFirstFrame)
        ->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();

  printf("\nMedians of %d paired rounds (a French reader, %d resources):\n",
         rounds, kResources);
  printRatio(sideName(Side::kConfined), sideName(Side::kNoMapping), 1.05);
  printRatio(sideName(Side::kConfined), sideName(Side::kPlainFile), 1.05);
  printf("Medians of %d paired rounds (%d resources from a granted server):\n",
         rounds, kRemoteResources);
  printRatio(sideName(Side::kThroughGate), sideName(Side::kDirect), 1.10);
  const double frame = median(seconds()["BM_ReceiveToFirstFrame"]);
  const double receive = median(seconds()["receiveWidget alone"]);
  if (frame > 0)
    printf("typical package (15 MB): receiveWidget %.0f ms, first rendered "
           "frame %.0f ms after receiveWidget began (median of %d)\n",
           receive * 1e3, frame * 1e3, frameRounds);
  TempDir::removeTree(kRunsDir);
  return 0;
}
