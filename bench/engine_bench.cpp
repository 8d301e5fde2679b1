// SPDX-License-Identifier: Apache-2.0
// Speed of the engine as the browser calls it, each figure beside a twin
// measured in the same run:
//  - getInfo and getAll through the delegate against the plain statement
//    texts run with sqlite3_get_table on a connection opened and probed with
//    COUNT(*) per table, at 10 and 1000 installed widgets;
//  - isWidget and mapResource through the delegate against the registry
//    lookups beneath them;
//  - a whole receiveWidget of the typical package of the unpacking benchmark
//    (file:// and HTTP on 127.0.0.1) against `curl -s -o` followed by
//    `bsdtar -xf`, each run into a directory never used before; once as the
//    engine chooses (two threads unpack on a machine with two processors)
//    and once kept to one thread;
//  - widgetengine_update_widget of that package over an installed copy of
//    it (download, unpacking beside it, the switch, the removal of the old
//    files) against the fresh receiveWidget of the same round.
//  - the receiveWidget of that package with an author signature, under the
//    policy that requires one, against the plain one; and, to say how much
//    of that any check of the written bytes must cost, the unpacking of the
//    plain package with every written byte digested against the same
//    unpacking without.
// Every benchmark runs once per round and the rounds follow one another, so
// that a figure and its twin share the machine's load; the summary at the
// end gives the medians over the rounds and the ratios the targets are
// stated in. The engine prints progress lines; standard output goes to
// /dev/null inside every timed loop, on both sides.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <ftw.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>
#include <zip.h>

#include "bench/BenchPackages.h"
#include "bench/BenchReport.h"
#include "bench/BenchRuns.h"
#include "install/Extractor.h"
#include "registry/SqlLite3.h"
#include "signature/FileDigests.h"
#include "signature/SignatureMaker.h"
#include "testing/HttpServer.h"
#include "testing/LiteralRegistry.h"
#include "testing/TestPki.h"

extern char** environ;

namespace {

const char kLanguage[] = "fr-FR,de";  // three locales: fr-fr, fr, de
const std::vector<std::string> kLocales = {"fr-fr", "fr", "de"};
const char* const kLanguages[] = {"en", "fr", "de", "default"};
const char* const kItems[] = {"name", "shortname", "description", "license",
                              "licensehref"};
const int kFilesPerWidget = 100;

std::string benchRoot() {
  return std::string(WIDGETENGINE_BINARY_DIR) + "/bench-data/";
}

void removeTree(const std::string& path) {
  std::string command = "rm -rf '" + path + "'";
  if (system(command.c_str()) != 0) fprintf(stderr, "cannot remove %s\n", path.c_str());
}

// Sends fd 1 to /dev/null for its life.
class QuietStdout {
 public:
  QuietStdout() {
    std::cout.flush();
    fflush(stdout);
    saved_ = dup(1);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
  }
  ~QuietStdout() {
    std::cout.flush();
    fflush(stdout);
    dup2(saved_, 1);
    close(saved_);
  }

 private:
  int saved_;
};

// One registry of n widgets, each with kFilesPerWidget files (a localized
// copy under locales/fr/ for a tenth of them) and every text in en, fr, de
// and default, plus the delegate that answers over it.
struct Population {
  std::string dataDir;
  std::string widgetRoot;
  RefPtr<WebWidgetEngineDelegate> engine;
  std::string probeName;
  std::string probeLaunchURL;
  std::string probeResourceURL;
};

std::string widgetName(int i) { return "widget" + std::to_string(i); }

Population& population(int n) {
  static std::map<int, std::unique_ptr<Population>> all;
  std::unique_ptr<Population>& slot = all[n];
  if (!slot) {
    slot.reset(new Population);
    Population& p = *slot;
    p.dataDir = benchRoot() + "registry-" + std::to_string(n) + "/";
    p.widgetRoot = "/bench/widgets/";
    removeTree(p.dataDir);
    mkdir(benchRoot().c_str(), 0755);
    mkdir(p.dataDir.c_str(), 0755);
    setenv("YRA_DATA_PATH", p.dataDir.c_str(), 1);
    {
      SqlLite3 db;
      if (!db.isOpen()) {
        fprintf(stderr, "registry does not open at %s\n", p.dataDir.c_str());
        abort();
      }
      db.beginJob();
      for (int i = 0; i < n; ++i) {
        const std::string name = widgetName(i);
        const std::string dir = p.widgetRoot + "widget_" + name + "/";
        WidgetsData widget(0, "http://127.0.0.1/" + name + ".wgt", name,
                           "file://" + dir + "index.html", dir, 320, 240,
                           "1.0", name, name, "windowed", "icon.png",
                           "Author", "a@example.org", "http://example.org/");
        std::vector<std::string> files = {"index.html", "config.xml",
                                          "locales/fr/index.html"};
        for (int f = 0; static_cast<int>(files.size()) < kFilesPerWidget; ++f) {
          files.push_back("page" + std::to_string(f) + ".html");
          if (f % 10 == 0) {
            files.push_back("locales/fr/page" + std::to_string(f) + ".html");
          }
        }
        files.resize(kFilesPerWidget);
        widget.setFiles(files);
        const int id = db.insertWidget(&widget);
        for (const char* item : kItems) {
          std::map<std::string, std::string> texts;
          for (const char* lang : kLanguages) {
            texts[lang] = std::string(item) + " of " + name + " in " + lang;
          }
          db.insertLocalizedItems(id, item, texts);
        }
      }
      db.endJob();
    }
    const int probe = n / 2;
    p.probeName = widgetName(probe);
    p.probeLaunchURL =
        "file://" + p.widgetRoot + "widget_" + p.probeName + "/index.html";
    p.probeResourceURL =
        "file://" + p.widgetRoot + "widget_" + p.probeName + "/page0.html";
    p.engine = WidgetEngineDelegate::createInstance();
  }
  setenv("YRA_DATA_PATH", slot->dataDir.c_str(), 1);
  return *slot;
}

// --- The literal twin: statement texts pasted, sqlite3_get_table, a fresh
// connection per job probed table by table (testing/LiteralRegistry).

// The query benchmarks time the call alone: the records it hands over are
// deleted out of the timing, on both sides, since releasing them is the
// caller's work and costs the same whichever way they were made.
using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void BM_GetInfo(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    WidgetsData* info = p.engine->getInfo(p.probeName.c_str(), nullptr, kLanguage);
    state.SetIterationTime(since(start));
    if (!info) {
      state.SkipWithError("getInfo found nothing");
      break;
    }
    delete info;
  }
}

void BM_GetInfoLiteral(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    std::vector<WidgetsData*> records;
    {
      LiteralRegistry db(p.dataDir + "widget.db", true);
      records = db.selectWidgets("SELECT * FROM Widgets WHERE name = '" +
                                 p.probeName + "'");
      if (records.size() == 1) db.loadLocalizedItems(records[0], kLocales);
    }
    std::cout << "Nothing to clean" << std::endl;
    state.SetIterationTime(since(start));
    const size_t count = records.size();
    for (WidgetsData* record : records) delete record;
    if (count != 1) {
      state.SkipWithError("literal getInfo found nothing");
      break;
    }
  }
}

// Times list() alone, once per iteration; the records it hands over are
// deleted out of the timing, as the caller's own work.
template <typename List>
void timeListing(benchmark::State& state, const char* shortMessage, List list) {
  const size_t expected = static_cast<size_t>(state.range(0));
  QuietStdout quiet;
  for (auto _ : state) {
    const Clock::time_point start = Clock::now();
    std::vector<WidgetsData*> all = list();
    state.SetIterationTime(since(start));
    const size_t count = all.size();
    for (WidgetsData* record : all) delete record;
    if (count != expected) {
      state.SkipWithError(shortMessage);
      break;
    }
  }
}

void BM_GetAll(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  timeListing(state, "getAll is short", [&] { return p.engine->getAll(nullptr); });
}

void BM_GetAllLiteral(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  timeListing(state, "literal getAll is short", [&] {
    std::vector<WidgetsData*> all;
    {
      LiteralRegistry db(p.dataDir + "widget.db", true);
      all = db.selectWidgets("SELECT * FROM Widgets");
    }
    std::cout << "Nothing to clean" << std::endl;
    return all;
  });
}

void BM_DelegateIsWidget(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    if (p.engine->isWidget(p.probeLaunchURL.c_str()) != 1) {
      state.SkipWithError("not a widget");
      break;
    }
  }
}

void BM_RegistryIsWidget(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  SqlLite3 db;
  QuietStdout quiet;
  for (auto _ : state) {
    std::string name;
    if (db.getNameByLaunchURL(p.probeLaunchURL, name) != 1) {
      state.SkipWithError("not a widget");
      break;
    }
    benchmark::DoNotOptimize(name);
  }
}

void BM_DelegateMapResource(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    char* mapped = p.engine->mapResource(p.probeResourceURL.c_str(), kLanguage);
    if (!mapped) {
      state.SkipWithError("not mapped");
      break;
    }
    free(mapped);
  }
}

void BM_RegistryMapResource(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  SqlLite3 db;
  QuietStdout quiet;
  for (auto _ : state) {
    std::string url = p.probeResourceURL;
    if (db.findLocalizedResource(url, kLocales) != 1) {
      state.SkipWithError("not mapped");
      break;
    }
    benchmark::DoNotOptimize(url);
  }
}

// --- Installation of the typical package.

HttpServer* server = nullptr;

std::string packageURL(const std::string& scheme) {
  if (scheme == "http") return server->url("/typical.wgt");
  return "file://" + benchpackages::path(benchpackages::kTypical);
}

// Every run works in a directory of its own under runsDir (see
// benchruns::freshRunPath); the runs are removed when all is measured.
std::string runsDir() { return benchRoot() + "runs"; }

std::string freshRunPath(const char* kind) {
  std::string path =
      benchruns::freshRunPath(benchRoot(), runsDir(), kind) + "/";
  mkdir(path.c_str(), 0755);
  return path;
}

// The registry that the installations go to, and the delegate over it.
struct InstallPlace {
  std::string dataDir;
  RefPtr<WebWidgetEngineDelegate> engine;
};

InstallPlace& installPlace() {
  static std::unique_ptr<InstallPlace> place;
  if (!place) {
    place.reset(new InstallPlace);
    place->dataDir = benchRoot() + "install-registry/";
    removeTree(place->dataDir);
    mkdir(benchRoot().c_str(), 0755);
    mkdir(place->dataDir.c_str(), 0755);
    setenv("YRA_DATA_PATH", place->dataDir.c_str(), 1);
    place->engine = WidgetEngineDelegate::createInstance();
  }
  setenv("YRA_DATA_PATH", place->dataDir.c_str(), 1);
  return *place;
}

using benchruns::runProgram;

// Sets WIDGETENGINE_UNPACK_THREADS for the length of a benchmark.
class ScopedThreads {
 public:
  explicit ScopedThreads(const char* value) : set_(*value != '\0') {
    if (set_) setenv("WIDGETENGINE_UNPACK_THREADS", value, 1);
  }
  ~ScopedThreads() {
    if (set_) unsetenv("WIDGETENGINE_UNPACK_THREADS");
  }

 private:
  bool set_;
};

// A fresh widget root for one installation of the typical package, with the
// tmp/ folder the installer downloads to; WIDGET_PATH names it.
std::string freshWidgetRoot(const char* kind) {
  const std::string root = freshRunPath(kind);
  mkdir((root + "tmp").c_str(), 0755);
  setenv("WIDGET_PATH", root.c_str(), 1);
  return root;
}

// Unregisters the typical widget out of the timing, so that the next round
// installs it again: its tree is first moved aside, leaving an empty
// directory to remove, so that nothing is deleted while measuring.
void unregisterTypical(benchmark::State& state, InstallPlace& place,
                       const std::string& root) {
  rename((root + "widget_typical").c_str(), (root + "kept").c_str());
  mkdir((root + "widget_typical").c_str(), 0755);
  if (place.engine->deleteWidget("typical", nullptr) != 1) {
    state.SkipWithError("deleteWidget failed");
  }
}

// One receiveWidget into a fresh widget root, unregistered afterwards.
// threads "1" keeps the unpacking on the calling thread, as on a machine with
// one processor; "" leaves the engine's own choice.
// The typical package with an author signature added, its entries
// otherwise the same bytes; it lies in a folder of its own so that it
// installs under the same name. Made once a run, as TestPki's keys are
// made anew for each process; empty when it cannot be.
std::string signedPackage() {
  const std::string folder = benchpackages::folder() + "/signed";
  const std::string path = folder + "/typical.wgt";
  static bool made = false;
  if (made) return path;
  mkdir(folder.c_str(), 0755);
  const std::string plain = benchpackages::path(benchpackages::kTypical);
  const std::string unpacked = folder + "/unpacked/";
  removeTree(unpacked);
  std::string document;
  {
    QuietStdout quiet;
    Extractor extractor(plain, unpacked);
    std::vector<std::string> files;
    SignatureMaker maker;
    std::string reason, written;
    if (extractor.extract(files) != 0 ||
        !maker.setSigner(TestPki::get().author.key,
                         TestPki::get().author.chain, &reason) ||
        !maker.sign(unpacked, SignatureMaker::kAuthor, &written, &reason)) {
      fprintf(stderr, "cannot sign the typical package: %s\n", reason.c_str());
      return "";
    }
    std::ifstream in(unpacked + written, std::ios::binary);
    document.assign(std::istreambuf_iterator<char>(in), {});
  }
  // The package's own entries are copied as they are; only the signature
  // is added.
  const std::string part = path + ".part";
  if (runProgram({"cp", plain, part}) != 0) return "";
  int error = 0;
  zip_t* archive = zip_open(part.c_str(), 0, &error);
  zip_source_t* source =
      archive ? zip_source_buffer(archive, document.data(), document.size(), 0)
              : nullptr;
  const bool added =
      source && zip_file_add(archive, "author-signature.xml", source,
                             ZIP_FL_ENC_UTF_8) >= 0;
  if (!added) zip_source_free(source);
  if (!archive || zip_close(archive) != 0 || !added ||
      rename(part.c_str(), path.c_str()) != 0) {
    if (archive && !added) zip_discard(archive);
    fprintf(stderr, "cannot write %s\n", path.c_str());
    return "";
  }
  made = true;
  return path;
}

// The folder of the anchor the signed package's signer chains to.
std::string benchAnchors() {
  const std::string folder = benchRoot() + "anchors";
  mkdir(folder.c_str(), 0700);
  const std::string file = folder + "/root.pem";
  std::ofstream(file) << TestPki::get().root;
  chmod(file.c_str(), 0600);
  return folder;
}

// Installs the typical package over and over, removing it in between; with
// signed, the signed one under the policy that refuses any other.
void BM_Install(benchmark::State& state, const std::string& scheme,
                const char* threads = "", bool isSigned = false) {
  ScopedThreads keep(threads);
  std::string url = packageURL(scheme);
  if (isSigned) {
    const std::string path = signedPackage();
    if (path.empty()) {
      state.SkipWithError("no signed package");
      return;
    }
    url = "file://" + path;
    widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REQUIRE);
    widgetengine_set_trust_anchors(benchAnchors().c_str());
  }
  InstallPlace& place = installPlace();
  const std::string root = freshWidgetRoot("install");
  const std::string expected = "file://" + root + "widget_typical/index.html";
  QuietStdout quiet;
  for (auto _ : state) {
    char* launch = place.engine->receiveWidget(url.c_str(), nullptr);
    const bool installed = launch && expected == launch;
    free(launch);
    if (!installed) {
      state.SkipWithError("receiveWidget failed");
      break;
    }
  }
  unregisterTypical(state, place, root);
  widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_DEFAULT);
  widgetengine_set_trust_anchors(nullptr);
}

// One update in place of the typical widget with the same package, over a
// copy installed into a fresh widget root out of the timing: the download,
// the unpacking beside it, the switch and the removal of the old files.
void BM_Update(benchmark::State& state, const std::string& scheme) {
  const std::string url = packageURL(scheme);
  InstallPlace& place = installPlace();
  const std::string root = freshWidgetRoot("update");
  QuietStdout quiet;
  char* launch = place.engine->receiveWidget(url.c_str(), nullptr);
  const bool installed = launch != nullptr;
  free(launch);
  for (auto _ : state) {
    if (!installed) {
      state.SkipWithError("receiveWidget failed");
      break;
    }
    if (widgetengine_update_widget("typical", url.c_str()) != 0) {
      state.SkipWithError("widgetengine_update_widget failed");
      break;
    }
  }
  unregisterTypical(state, place, root);
}

// The unpacking of the typical package alone, as an installation does it,
// into a directory never used before and kept; digested, every byte written
// is digested as under a signature policy, and nothing else is done. The
// difference is the least any check of a signature on the written bytes
// adds to an installation.
void BM_Unpack(benchmark::State& state, bool digested) {
  const std::string package = benchpackages::path(benchpackages::kTypical);
  const std::string target =
      freshRunPath(digested ? "unpack-digested" : "unpack") + "widget_typical/";
  FileDigests digests;
  QuietStdout quiet;
  for (auto _ : state) {
    Extractor extractor(package, target);
    extractor.setKeepFiles(true);
    if (digested) extractor.setDigests(&digests);
    std::vector<std::string> files;
    if (extractor.extract(files) != 0) {
      state.SkipWithError("extract failed");
      break;
    }
  }
}

// The same package fetched by the curl program and unpacked by bsdtar.
void BM_CurlBsdtar(benchmark::State& state, const std::string& scheme) {
  const std::string url = packageURL(scheme);
  const std::string root = freshRunPath("curl-bsdtar");
  const std::string package = root + "typical.wgt";
  const std::string dir = root + "widget_typical";
  mkdir(dir.c_str(), 0755);
  QuietStdout quiet;
  for (auto _ : state) {
    if (runProgram({"curl", "-s", "-o", package, url}) != 0 ||
        runProgram({"bsdtar", "-xf", package, "-C", dir}) != 0) {
      state.SkipWithError("curl or bsdtar failed");
      break;
    }
  }
}

// --- Summary.

// Keeps the real time per iteration of every run, in seconds, by benchmark
// name without the decorations that the registration adds.
using benchreport::MedianReporter;
using benchreport::printAtLeast;
using benchreport::printAtMost;
using benchreport::formatTime;

int envInt(const char* name, int fallback) {
  const char* value = getenv(name);
  return value && *value ? atoi(value) : fallback;
}

// No target of its own: what digesting every written byte adds to the
// unpacking, and what that alone would make of BM_Install/file, the least a
// signed installation can cost on this machine. Both are medians of the
// rounds' own figures, each round's unpackings set against its installation:
// the machine's speed drifts over a run, which a ratio of medians over all
// the rounds would mix in.
void printDigestFloor(const MedianReporter& reporter) {
  const std::vector<double> plain = reporter.rounds("BM_Unpack/typical");
  const std::vector<double> digested = reporter.rounds("BM_UnpackDigested/typical");
  const std::vector<double> install = reporter.rounds("BM_Install/file");
  if (plain.empty() || plain.size() != digested.size() ||
      plain.size() != install.size()) {
    printf("%-28s %-28s not measured\n", "BM_UnpackDigested/typical",
           "BM_Unpack/typical");
    return;
  }
  // Over a few rounds the 4 to 8 ms the digests add are lost in how much
  // two unpackings a moment apart differ on this kind of machine (10 ms
  // either way is common).
  constexpr size_t kFewestRounds = 21;
  if (plain.size() < kFewestRounds) {
    printf("%-28s %-28s needs ENGINE_BENCH_ROUNDS=%zu or more\n",
           "BM_UnpackDigested/typical", "BM_Unpack/typical", kFewestRounds);
    return;
  }
  std::vector<double> added, least;
  for (size_t round = 0; round < plain.size(); ++round) {
    added.push_back(digested[round] - plain[round]);
    least.push_back((install[round] + added.back()) / install[round]);
  }
  const double more = MedianReporter::medianOf(added);
  printf("%-28s %12s  %-28s %12s  adds %s%s a round: BM_Install/file at least "
         "%.3f signed\n",
         "BM_UnpackDigested/typical",
         formatTime(reporter.median("BM_UnpackDigested/typical")).c_str(),
         "BM_Unpack/typical", formatTime(reporter.median("BM_Unpack/typical")).c_str(),
         more < 0 ? "-" : "", formatTime(more < 0 ? -more : more).c_str(),
         MedianReporter::medianOf(least));
}

}  // namespace

int main(int argc, char** argv) {
  removeTree(runsDir());
  mkdir(benchRoot().c_str(), 0755);
  mkdir(runsDir().c_str(), 0755);
  HttpServer httpServer;
  httpServer.serveFile("/typical.wgt",
                       benchpackages::path(benchpackages::kTypical));
  server = &httpServer;

  using Function = void (*)(benchmark::State&);
  struct Entry {
    const char* name;
    Function function;
    bool manualTime;
  };
  const Entry queries[] = {
      {"BM_GetInfo", BM_GetInfo, true},
      {"BM_GetInfoLiteral", BM_GetInfoLiteral, true},
      {"BM_GetAll", BM_GetAll, true},
      {"BM_GetAllLiteral", BM_GetAllLiteral, true},
      {"BM_DelegateIsWidget", BM_DelegateIsWidget, false},
      {"BM_RegistryIsWidget", BM_RegistryIsWidget, false},
      {"BM_DelegateMapResource", BM_DelegateMapResource, false},
      {"BM_RegistryMapResource", BM_RegistryMapResource, false},
  };
  const int rounds = envInt("ENGINE_BENCH_ROUNDS", 7);
  for (int round = 0; round < rounds; ++round) {
    for (const Entry& query : queries) {
      benchmark::internal::Benchmark* b =
          benchmark::RegisterBenchmark(query.name, query.function)
              ->Arg(10)
              ->Arg(1000)
              ->MinTime(0.2);
      if (query.manualTime) b->UseManualTime();
    }
    // A twin that always ran second would carry alone whatever going second
    // does to a round (the file system has just taken another 200 files),
    // so the signed and the digested twins take turns at going first.
    const bool turned = round % 2 == 1;
    const auto once = [](const std::string& name,
                         std::function<void(benchmark::State&)> function) {
      benchmark::RegisterBenchmark(name.c_str(), std::move(function))
          ->Iterations(1)
          ->Unit(benchmark::kMillisecond)
          ->UseRealTime();
    };
    for (const char* scheme : {"file", "http"}) {
      const std::string s = scheme;
      const auto plain = [&] {
        once("BM_Install/" + s, [s](benchmark::State& st) { BM_Install(st, s); });
      };
      const auto signedToo = [&] {
        if (s == "file") {
          once("BM_InstallSigned/file",
               [](benchmark::State& st) { BM_Install(st, "file", "", true); });
        }
      };
      if (turned) signedToo();
      plain();
      if (!turned) signedToo();
      once("BM_InstallOneThread/" + s,
           [s](benchmark::State& st) { BM_Install(st, s, "1"); });
      if (s == "file") {
        for (const bool digested : {turned, !turned}) {
          once(digested ? "BM_UnpackDigested/typical" : "BM_Unpack/typical",
               [digested](benchmark::State& st) { BM_Unpack(st, digested); });
        }
      }
      once("BM_Update/" + s, [s](benchmark::State& st) { BM_Update(st, s); });
      once("BM_CurlBsdtar/" + s, [s](benchmark::State& st) { BM_CurlBsdtar(st, s); });
    }
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  printf("\nMedians of %d rounds (real time):\n", rounds);
  int missed = 0;
  for (const char* scheme : {"file", "http"}) {
    const std::string s = scheme;
    missed += !printAtMost(reporter, "BM_Install/" + s, "BM_CurlBsdtar/" + s, 0.7);
    // For a device with one processor, where the install stays on one thread.
    missed += !printAtMost(reporter, "BM_InstallOneThread/" + s,
                           "BM_CurlBsdtar/" + s, 1.1);
    // An update does an installation's work and removes the old files.
    missed += !printAtMost(reporter, "BM_Update/" + s, "BM_Install/" + s, 2.0);
  }
  // Checking the author signature of the typical package, under the policy
  // that requires one, against the same installation without.
  missed += !printAtMost(reporter, "BM_InstallSigned/file", "BM_Install/file", 1.15);
  printDigestFloor(reporter);
  for (const char* op : {"GetInfo", "GetAll"}) {
    const std::string ours = std::string("BM_") + op;
    missed += !printAtLeast(reporter, ours + "/1000", ours + "Literal/1000", 20);
  }
  for (const char* n : {"10", "1000"}) {
    const std::string suffix = std::string("/") + n;
    missed += !printAtMost(reporter, "BM_DelegateIsWidget" + suffix,
                           "BM_RegistryIsWidget" + suffix, 1.5);
    missed += !printAtMost(reporter, "BM_DelegateMapResource" + suffix,
                           "BM_RegistryMapResource" + suffix, 1.5);
  }
  printf("%s\n", missed ? "some targets MISSED" : "every target met");
  removeTree(runsDir());
  return 0;
}
