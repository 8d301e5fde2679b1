// Speed of the engine as the browser calls it, each figure beside a twin
// measured in the same run:
//  - getInfo and getAll through the delegate against the plain statement
//    texts run with sqlite3_get_table on a connection opened and probed with
//    COUNT(*) per table, at 10 and 1000 installed widgets;
//  - isWidget and mapResource through the delegate against the registry
//    lookups beneath them;
//  - a whole receiveWidget of a typical package (file:// and HTTP on
//    127.0.0.1) against `curl -s -o` followed by `bsdtar -xf`.
// The engine prints progress lines; standard output goes to /dev/null inside
// every timed loop, on both sides.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zip.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <widgetengine/WidgetEngineDelegate.h>

#include "registry/SqlLite3.h"

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
// connection per job probed table by table.

struct LiteralConnection {
  sqlite3* db = nullptr;
  bool opened = false;
  std::vector<std::string> columnNames;
  std::vector<std::string> values;

  explicit LiteralConnection(const std::string& dir) {
    if (sqlite3_open((dir + "widget.db").c_str(), &db) != 0) return;
    opened = probe("widgets") && probe("widgetFiles") && probe("localizedItem");
  }
  ~LiteralConnection() { sqlite3_close(db); }

  bool probe(const std::string& table) {
    char* error = nullptr;
    const int rc = sqlite3_exec(db, ("SELECT COUNT(*) FROM " + table).c_str(),
                                nullptr, nullptr, &error);
    sqlite3_free(error);
    return rc == 0;
  }

  int query(const std::string& sql) {
    char** table = nullptr;
    int rows = 0, columns = 0;
    char* error = nullptr;
    const int rc =
        sqlite3_get_table(db, sql.c_str(), &table, &rows, &columns, &error);
    columnNames.clear();
    values.clear();
    if (rc == 0) {
      for (int k = 0; k < columns; ++k) columnNames.push_back(table[k]);
      for (int k = columns; k < (rows + 1) * columns; ++k) {
        values.push_back(table[k] ? table[k] : "");
      }
    }
    sqlite3_free_table(table);
    sqlite3_free(error);
    return rc;
  }

  std::vector<WidgetsData*> selectWidgets(const std::string& sql) {
    std::vector<WidgetsData*> result;
    query(sql);
    if (columnNames.empty()) return result;
    for (size_t i = 0; i + 14 < values.size(); i += columnNames.size()) {
      result.push_back(new WidgetsData(
          atoi(values[i].c_str()), values[i + 1], values[i + 2], values[i + 3],
          values[i + 4], atoi(values[i + 5].c_str()),
          atoi(values[i + 6].c_str()), values[i + 7], values[i + 8],
          values[i + 9], values[i + 10], values[i + 11], values[i + 12],
          values[i + 13], values[i + 14]));
    }
    return result;
  }

  int getLocalizedItem(int id, const std::string& item,
                       const std::vector<std::string>& locales,
                       std::string& value) {
    const std::string prefix = "SELECT value FROM localizedItem WHERE widgetId=" +
                               std::to_string(id) + " AND item='";
    for (const std::string& locale : locales) {
      query(prefix + item + "' AND lang='" + locale + "'");
      if (!values.empty()) {
        value = values.back();
        return 1;
      }
    }
    return 0;
  }

  void loadLocalizedItems(WidgetsData* widget, std::vector<std::string> locales) {
    locales.push_back("default");
    std::string text;
    if (getLocalizedItem(widget->getId(), "name", locales, text)) widget->setWidgetName(text);
    if (getLocalizedItem(widget->getId(), "shortname", locales, text)) widget->setWidgetShorName(text);
    if (getLocalizedItem(widget->getId(), "description", locales, text)) widget->setDescription(text);
    if (getLocalizedItem(widget->getId(), "license", locales, text)) widget->setLicense(text);
    if (getLocalizedItem(widget->getId(), "licensehref", locales, text)) widget->setLicenseHref(text);
  }
};

void BM_GetInfo(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    WidgetsData* info = p.engine->getInfo(p.probeName.c_str(), nullptr, kLanguage);
    if (!info) {
      state.SkipWithError("getInfo found nothing");
      break;
    }
    benchmark::DoNotOptimize(info);
    delete info;
  }
}

void BM_GetInfoLiteral(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    LiteralConnection db(p.dataDir);
    std::vector<WidgetsData*> records = db.selectWidgets(
        "SELECT * FROM Widgets WHERE name = '" + p.probeName + "'");
    const size_t count = records.size();
    for (WidgetsData* record : records) {
      db.loadLocalizedItems(record, kLocales);
      delete record;
    }
    if (count != 1) {
      state.SkipWithError("literal getInfo found nothing");
      break;
    }
    std::cout << "Nothing to clean" << std::endl;
  }
}

void BM_GetAll(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    std::vector<WidgetsData*> all = p.engine->getAll(nullptr);
    const size_t count = all.size();
    for (WidgetsData* record : all) delete record;
    if (count != static_cast<size_t>(state.range(0))) {
      state.SkipWithError("getAll is short");
      break;
    }
  }
}

void BM_GetAllLiteral(benchmark::State& state) {
  Population& p = population(static_cast<int>(state.range(0)));
  QuietStdout quiet;
  for (auto _ : state) {
    LiteralConnection db(p.dataDir);
    std::vector<WidgetsData*> all = db.selectWidgets("SELECT * FROM Widgets");
    const size_t count = all.size();
    for (WidgetsData* record : all) delete record;
    if (count != static_cast<size_t>(state.range(0))) {
      state.SkipWithError("literal getAll is short");
      break;
    }
    std::cout << "Nothing to clean" << std::endl;
  }
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

// --- Installation of a typical package.

// A package of about 200 files and 15 MB: config.xml, a start page, an icon,
// localized start pages, and pages and media of incompressible bytes.
std::string typicalPackage() {
  static std::string path;
  if (!path.empty()) return path;
  const std::string dir = benchRoot() + "packages/";
  mkdir(benchRoot().c_str(), 0755);
  mkdir(dir.c_str(), 0755);
  path = dir + "benchclock.wgt";
  unlink(path.c_str());
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (!archive) abort();
  std::vector<std::string> keep;  // zip_close reads the buffers
  keep.reserve(256);
  auto add = [&](const std::string& name, std::string contents) {
    keep.push_back(std::move(contents));
    zip_source_t* source =
        zip_source_buffer(archive, keep.back().data(), keep.back().size(), 0);
    zip_file_add(archive, name.c_str(), source, ZIP_FL_OVERWRITE);
  };
  add("config.xml",
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
      "id=\"http://example.org/benchclock\" version=\"1.0\" width=\"320\" "
      "height=\"240\">\n"
      "  <name>Bench clock</name>\n"
      "  <name xml:lang=\"fr\">Horloge</name>\n"
      "  <description>Typical widget</description>\n"
      "  <content src=\"index.html\"/>\n"
      "</widget>\n");
  add("index.html", "<!DOCTYPE html><html><body>clock</body></html>\n");
  for (const char* lang : {"en", "fr", "de"}) {
    add(std::string("locales/") + lang + "/index.html",
        std::string("<!DOCTYPE html><html lang=\"") + lang + "\"></html>\n");
  }
  std::mt19937 random(7);
  const size_t target = 15u << 20;
  size_t total = 0;
  for (int i = 0; total < target && i < 195; ++i) {
    const size_t size = target / 195;
    std::string bytes(size, '\0');
    for (char& c : bytes) c = static_cast<char>(random());
    total += size;
    add("media/file" + std::to_string(i) + ".bin", std::move(bytes));
  }
  if (zip_close(archive) != 0) abort();
  return path;
}

// A small HTTP/1.1 server on 127.0.0.1 that serves one directory.
class FileServer {
 public:
  explicit FileServer(const std::string& root) : root_(root) {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    listen(listener_, 16);
    socklen_t length = sizeof address;
    getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }
  ~FileServer() {
    stop_ = true;
    shutdown(listener_, SHUT_RDWR);
    close(listener_);
    thread_.join();
  }
  int port() const { return port_; }

 private:
  void serve() {
    while (!stop_) {
      const int client = accept(listener_, nullptr, nullptr);
      if (client < 0) continue;
      std::string request;
      char buffer[4096];
      while (request.find("\r\n\r\n") == std::string::npos) {
        const ssize_t n = read(client, buffer, sizeof buffer);
        if (n <= 0) break;
        request.append(buffer, static_cast<size_t>(n));
      }
      const size_t start = request.find(' ') + 1;
      const std::string target =
          request.substr(start, request.find(' ', start) - start);
      const int file = open((root_ + target).c_str(), O_RDONLY);
      struct stat status;
      if (file >= 0 && fstat(file, &status) == 0) {
        const std::string header =
            "HTTP/1.1 200 OK\r\nContent-Type: application/widget\r\n"
            "Content-Length: " + std::to_string(status.st_size) +
            "\r\nConnection: close\r\n\r\n";
        if (write(client, header.data(), header.size()) > 0) {
          off_t offset = 0;
          while (offset < status.st_size &&
                 sendfile(client, file, &offset, status.st_size - offset) > 0) {
          }
        }
      } else {
        const char notFound[] =
            "HTTP/1.1 404 Not Found\r\nContent-Length: 0\r\n"
            "Connection: close\r\n\r\n";
        if (write(client, notFound, sizeof notFound - 1) < 0) {
        }
      }
      if (file >= 0) close(file);
      close(client);
    }
  }

  std::string root_;
  int listener_;
  int port_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

FileServer& server() {
  static FileServer instance(benchRoot() + "packages");
  return instance;
}

std::string packageURL(const std::string& scheme) {
  const std::string package = typicalPackage();
  if (scheme == "file") return "file://" + package;
  return "http://127.0.0.1:" + std::to_string(server().port()) + "/benchclock.wgt";
}

struct InstallPlace {
  std::string dataDir;
  std::string widgetRoot;
  RefPtr<WebWidgetEngineDelegate> engine;
};

InstallPlace& installPlace() {
  static std::unique_ptr<InstallPlace> place;
  if (!place) {
    place.reset(new InstallPlace);
    place->dataDir = benchRoot() + "install-registry/";
    place->widgetRoot = benchRoot() + "install-widgets/";
    removeTree(place->dataDir);
    removeTree(place->widgetRoot);
    mkdir(place->dataDir.c_str(), 0755);
    mkdir(place->widgetRoot.c_str(), 0755);
    setenv("YRA_DATA_PATH", place->dataDir.c_str(), 1);
    setenv("WIDGET_PATH", place->widgetRoot.c_str(), 1);
    place->engine = WidgetEngineDelegate::createInstance();
  }
  setenv("YRA_DATA_PATH", place->dataDir.c_str(), 1);
  setenv("WIDGET_PATH", place->widgetRoot.c_str(), 1);
  return *place;
}

void BM_Install(benchmark::State& state, const std::string& scheme) {
  const std::string url = packageURL(scheme);
  InstallPlace& place = installPlace();
  QuietStdout quiet;
  for (auto _ : state) {
    char* launch = place.engine->receiveWidget(url.c_str(), nullptr);
    state.PauseTiming();
    if (!launch) {
      state.SkipWithError("receiveWidget failed");
      break;
    }
    free(launch);
    place.engine->deleteWidget("benchclock", nullptr);
    state.ResumeTiming();
  }
}

int runProgram(const std::vector<std::string>& arguments) {
  std::vector<char*> argv;
  for (const std::string& argument : arguments) {
    argv.push_back(const_cast<char*>(argument.c_str()));
  }
  argv.push_back(nullptr);
  pid_t pid;
  if (posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) {
    return -1;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void BM_CurlBsdtar(benchmark::State& state, const std::string& scheme) {
  const std::string url = packageURL(scheme);
  const std::string dir = benchRoot() + "curl-bsdtar/";
  const std::string package = benchRoot() + "curl-bsdtar.wgt";
  QuietStdout quiet;
  for (auto _ : state) {
    state.PauseTiming();
    removeTree(dir);
    mkdir(dir.c_str(), 0755);
    state.ResumeTiming();
    if (runProgram({"curl", "-s", "-o", package, url}) != 0 ||
        runProgram({"bsdtar", "-xf", package, "-C", dir}) != 0) {
      state.SkipWithError("curl or bsdtar failed");
      break;
    }
    unlink(package.c_str());
  }
  removeTree(dir);
}

}  // namespace

BENCHMARK(BM_GetInfo)->Arg(10)->Arg(1000);
BENCHMARK(BM_GetInfoLiteral)->Arg(10)->Arg(1000);
BENCHMARK(BM_GetAll)->Arg(10)->Arg(1000);
BENCHMARK(BM_GetAllLiteral)->Arg(10)->Arg(1000);
BENCHMARK(BM_DelegateIsWidget)->Arg(10)->Arg(1000);
BENCHMARK(BM_RegistryIsWidget)->Arg(10)->Arg(1000);
BENCHMARK(BM_DelegateMapResource)->Arg(10)->Arg(1000);
BENCHMARK(BM_RegistryMapResource)->Arg(10)->Arg(1000);

int main(int argc, char** argv) {
  for (const char* scheme : {"file", "http"}) {
    const std::string s = scheme;
    benchmark::RegisterBenchmark(("BM_Install/" + s).c_str(),
                                 [s](benchmark::State& st) { BM_Install(st, s); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    benchmark::RegisterBenchmark(("BM_CurlBsdtar/" + s).c_str(),
                                 [s](benchmark::State& st) { BM_CurlBsdtar(st, s); })
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
