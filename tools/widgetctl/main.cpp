// SPDX-License-Identifier: Apache-2.0
// widgetctl is the command-line host of the widget engine. Integrators use it
// to install, list, describe, map, recognise and remove widgets exactly as a
// browser would; widget authors use "check" to lint a package and hear
// whether the engine would install it; "doctor" compares the registry with
// the disk and repairs what it can.
//
// Exit status: 0 success; 1 the engine answered no (a package refused, no
// such widget, not a widget); 2 usage; 3 the environment failed (registry
// unusable, directory not writable, schema missing).

#include <curl/curl.h>
#include <getopt.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <widgetengine/WidgetEngineDelegate.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "install/Downloader.h"
#include "install/WidgetInstaller.h"
#include "install/WidgetUnInstaller.h"
#include "registry/SqlLite3.h"
#include "tools/widgetctl/CheckFolders.h"
#include "tools/widgetctl/Doctor.h"
#include "tools/widgetctl/EngineLines.h"
#include "tools/widgetctl/PackageLinter.h"

using nlohmann::json;

namespace {

const char kProgram[] = "widgetctl";

enum Exit { kOk = 0, kNo = 1, kUsage = 2, kEnvironment = 3 };

const char kUsageText[] =
    "Usage: widgetctl [OPTIONS] COMMAND [ARGUMENTS]\n"
    "\n"
    "The command-line host of the widget engine.\n"
    "\n"
    "Commands:\n"
    "  install URL|PATH          install a widget package\n"
    "  list                      list the installed widgets\n"
    "  info NAME                 describe the installed widget NAME\n"
    "  map URL                   the localized copy of a widget file\n"
    "  is-widget URL             whether URL is an installed widget's start page\n"
    "  remove NAME               remove the installed widget NAME\n"
    "  check PACKAGE...          lint packages and say whether they would install\n"
    "  doctor                    compare the registry with the disk; --repair\n"
    "  help [COMMAND]            this text, or one command's\n"
    "\n"
    "Options:\n"
    "  --lang LIST       the reader's accept-language (info, map; default: from\n"
    "                    LANGUAGE or LANG)\n"
    "  --json            one JSON document on standard output; the engine's\n"
    "                    lines go to standard error\n"
    "  -q, --quiet       the engine's lines go to standard error\n"
    "  --strict          check: warnings count as failures\n"
    "  --repair          doctor: repair what it finds\n"
    "  --reinstall       doctor --repair: reinstall widgets whose files are gone\n"
    "  --remove-orphans  doctor --repair: remove directories no widget owns\n"
    "  -V, --version     the library version and its compiled-in paths\n"
    "  -h, --help        this text\n"
    "\n"
    "Environment:\n"
    "  WIDGET_PATH    root of the installed widgets (ends with \"/\")\n"
    "  YRA_DATA_PATH  directory of the registry widget.db (ends with \"/\")\n"
    "\n"
    "Exit status: 0 success; 1 the engine answered no (package refused, no\n"
    "such widget, not a widget); 2 usage; 3 the environment failed (registry\n"
    "unusable, directory not writable, schema missing).\n"
    "\n"
    "See widgetctl(1).\n";

struct Command {
  const char* name;
  int arguments;  // -1: one or more
  const char* help;
};

const Command kCommands[] = {
    {"install", 1,
     "Usage: widgetctl install URL|PATH\n"
     "\n"
     "Downloads the widget package at URL (http://, https:// or file://) or\n"
     "reads the package file PATH, unpacks it below WIDGET_PATH, records it\n"
     "in the registry and prints the launch URL of its start page. An address\n"
     "installed before prints the launch URL of that installation. The\n"
     "engine's progress lines come first; a refusal ends with one line that\n"
     "says why.\n"},
    {"list", 0,
     "Usage: widgetctl list\n"
     "\n"
     "Prints one line per installed widget: name, version and launch URL,\n"
     "separated by tabs (the engine's lines go to standard error).\n"},
    {"info", 1,
     "Usage: widgetctl info NAME [--lang LIST]\n"
     "\n"
     "Describes the installed widget NAME, its texts in the first language of\n"
     "LIST (an accept-language string such as \"fr-CA,fr,en\") that it has.\n"},
    {"map", 1,
     "Usage: widgetctl map URL [--lang LIST]\n"
     "\n"
     "Prints the address of the copy of a widget's file that suits LIST: the\n"
     "file under the widget's locales/ folder for the first language that has\n"
     "one, else URL itself.\n"},
    {"is-widget", 1,
     "Usage: widgetctl is-widget URL\n"
     "\n"
     "Prints \"yes\" when URL is exactly the launch URL of an installed widget,\n"
     "otherwise \"no\" (exit status 1).\n"},
    {"remove", 1,
     "Usage: widgetctl remove NAME\n"
     "\n"
     "Removes the installed widget NAME: its directory and its registry row.\n"},
    {"check", -1,
     "Usage: widgetctl check [--strict] PACKAGE...\n"
     "\n"
     "Lints each package (a path or a URL) like lintian: one line per finding,\n"
     "\"LEVEL: TAG DETAIL\" and its explanation, every finding it can reach.\n"
     "Then installs the package into a private temporary folder, exactly as\n"
     "the engine would, and ends with the verdict: would install, or would be\n"
     "refused and why. Exit status 1 when any package would be refused (with\n"
     "--strict, also when any has an error or warning). Nothing outside its\n"
     "temporary folder is touched, which is removed on every path.\n"},
    {"doctor", 0,
     "Usage: widgetctl doctor [--repair [--reinstall] [--remove-orphans]]\n"
     "\n"
     "Compares the registry with the disk and reports widgets whose directory\n"
     "is gone, directories under the widget root that no widget owns, and\n"
     "what an installation that died left. --repair makes the first kind\n"
     "removable again and removes them (--reinstall installs them again from\n"
     "their source address), removes what dead installations left, and with\n"
     "--remove-orphans the directories no widget owns. Widget directories\n"
     "replaced by a link, and widgets placed outside the widget root, are\n"
     "reported and never repaired. A healthy widget is never touched. Exit\n"
     "status 1 when problems remain.\n"},
    {"help", -2,
     "Usage: widgetctl help [COMMAND]\n"
     "\n"
     "Describes widgetctl, or one command.\n"},
};

const Command* findCommand(const std::string& name) {
  for (const Command& command : kCommands)
    if (name == command.name) return &command;
  return nullptr;
}

struct Options {
  bool json = false;
  bool quiet = false;
  bool strict = false;
  bool repair = false;
  bool reinstall = false;
  bool removeOrphans = false;
  bool help = false;
  bool version = false;
  bool hasLanguage = false;
  std::string language;
};

// Where the engine's lines go: above the answer on standard output (what an
// integrator reads as the engine's log), or to standard error where the
// answer is data for a script.
bool gEngineToStderr = false;
bool gJson = false;
json gDocument;

void passOn(const std::vector<std::string>& lines) {
  std::ostream& out = gEngineToStderr ? std::cerr : std::cout;
  for (const std::string& line : lines) out << line << '\n';
  out.flush();
  if (gJson) {
    for (const std::string& line : lines) gDocument["engine"].push_back(line);
  }
}

// One line that says what went wrong; in --json mode also in the document.
int finish(int status, const std::string& reason = std::string()) {
  if (!reason.empty()) {
    std::cout.flush();
    std::cerr << kProgram << ": " << reason << std::endl;
  }
  if (gJson) {
    gDocument["exit"] = status;
    gDocument["ok"] = status == kOk;
    if (!reason.empty()) gDocument["error"] = reason;
    if (!gDocument.contains("engine")) gDocument["engine"] = json::array();
    std::cout << gDocument.dump(2) << std::endl;
  }
  return status;
}

int usageError(const std::string& reason, const char* command) {
  std::cerr << kProgram << ": " << reason << " (see \"widgetctl help"
            << (command ? std::string(" ") + command : std::string()) << "\")"
            << std::endl;
  return kUsage;
}

// Owns a string that the engine allocated.
struct FreeDeleter {
  void operator()(char* text) const { free(text); }
};
typedef std::unique_ptr<char, FreeDeleter> EngineString;

// The registry, opened as the engine opens it; an unusable one is the
// environment's failure, not the widget's.
bool registryUsable(std::string* reason) {
  std::vector<std::string> lines;
  bool open;
  {
    EngineLines capture(&lines);
    SqlLite3 registry;
    open = registry.isOpen();
    if (open) {
      bool read = false;
      for (WidgetsData* w : registry.selectAllWidgets(&read)) delete w;
      open = read;
      if (!read) lines.push_back(registry.lastError());
    }
  }
  if (!open) {
    // Diagnostics of a failure, not progress: always on standard error.
    for (const std::string& line : lines) std::cerr << line << '\n';
    if (gJson) for (const std::string& line : lines) gDocument["engine"].push_back(line);
    *reason = "the registry " + SqlLite3::databasePath() +
              " cannot be used; check YRA_DATA_PATH (it must name a writable "
              "directory, ending with \"/\")";
  }
  return open;
}

// A plain path as the file:// address of its absolute form, escaped by
// libcurl's URL API.
std::string fileURL(const std::string& path, std::string* error) {
  std::unique_ptr<char, FreeDeleter> absolute(realpath(path.c_str(), nullptr));
  if (!absolute) {
    *error = "cannot read the package file " + path + ": " + strerror(errno);
    return std::string();
  }
  CURLU* url = curl_url();
  std::string result;
  if (url && curl_url_set(url, CURLUPART_SCHEME, "file", 0) == CURLUE_OK &&
      curl_url_set(url, CURLUPART_PATH, absolute.get(), CURLU_URLENCODE) ==
          CURLUE_OK) {
    char* text = nullptr;
    if (curl_url_get(url, CURLUPART_URL, &text, 0) == CURLUE_OK) result = text;
    curl_free(text);
  }
  curl_url_cleanup(url);
  if (result.empty()) *error = "cannot make a file:// address of " + path;
  return result;
}

bool isAddress(const std::string& text) {
  return text.find("://") != std::string::npos;
}

// What each refusal of the installer means, and what to do.
std::string installReason(int status, const std::string& url) {
  switch (status) {
    case 3:
      return "the registry or the widget root cannot be used; check "
             "YRA_DATA_PATH and WIDGET_PATH and their permissions";
    case 4:
      return "the registry lists this address twice; run \"widgetctl doctor\"";
    case 5:
      return "the package could not be downloaded from " + url +
             "; check the address";
    case 6:
      return "the package is not a valid widget archive; \"widgetctl check\" "
             "says why";
    case 7:
      return "the package has no config.xml at its top; \"widgetctl check\" "
             "says more";
    case 8:
      return "config.xml was refused; \"widgetctl check\" gives the line and "
             "the reason";
    case 9:
      return "the package has no start page (index.html, or the file named by "
             "<content src>)";
    case 10:
      return "the widget could not be recorded";
    case 11:
      return "the downloaded package could not be removed from the widget "
             "root's tmp/ folder; check its permissions";
    default:
      return "the installation failed (status " + std::to_string(status) + ")";
  }
}

int exitForStatus(int status) {
  return status == 3 || status == 4 || status == 11 ? kEnvironment : kNo;
}

// The last engine line that gives a reason of its own, for the refusals
// whose status alone does not say it (a name taken, a failed commit).
std::string engineReason(const std::vector<std::string>& lines) {
  for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
    if (it->find("is taken by the widget installed from") != std::string::npos ||
        it->compare(0, 7, "Cannot ") == 0 || it->find("Error") == 0) {
      return *it;
    }
  }
  return std::string();
}

int runInstall(const std::string& argument) {
  std::string url = argument;
  if (!isAddress(argument)) {
    std::string error;
    url = fileURL(argument, &error);
    if (url.empty()) return finish(kNo, error);
  }
  gDocument["url"] = url;
  std::vector<std::string> lines;
  int status;
  std::string launchURL;
  {
    EngineLines capture(&lines);
    WidgetInstaller installer(url);
    status = installer.run();
    launchURL = installer.getLaunchURL();
  }
  passOn(lines);
  gDocument["status"] = status;
  if (status == 0 || status == 2) {
    gDocument["launchURL"] = launchURL;
    gDocument["installedBefore"] = status == 2;
    if (!gJson) std::cout << launchURL << std::endl;
    return finish(kOk);
  }
  gDocument["launchURL"] = nullptr;
  std::string reason = "could not install " + url + ": " + installReason(status, url);
  const std::string engine = engineReason(lines);
  if (status == 10 && !engine.empty()) reason += ": " + engine;
  return finish(exitForStatus(status), reason);
}

json recordJson(const WidgetsData& w) {
  return json{{"name", w.getName()},
              {"title", w.getWidgetName()},
              {"shortTitle", w.getWidgetShorName()},
              {"description", w.getDescription()},
              {"version", w.getVersion()},
              {"width", w.getWidth()},
              {"height", w.getHeight()},
              {"author", w.getAuthor()},
              {"authorEmail", w.getAuthorEmail()},
              {"authorHref", w.getAuthorHref()},
              {"license", w.getLicense()},
              {"licenseHref", w.getLicenseHref()},
              {"icon", w.getIcon()},
              {"launchURL", w.getLaunchURL()},
              {"sourceURL", w.getSourceURL()},
              {"storagePath", w.getStoragePath()}};
}

// "label:" padded to one column, then the value.
std::string field(const std::string& label, const std::string& value) {
  std::string line = label + ":";
  line.append(line.size() < 15 ? 15 - line.size() : 1, ' ');
  return line + value;
}

int runList(WebWidgetEngineDelegate* engine) {
  std::vector<std::string> lines;
  std::vector<std::unique_ptr<WidgetsData>> widgets;
  {
    EngineLines capture(&lines);
    for (WidgetsData* widget : engine->getAll(nullptr)) widgets.emplace_back(widget);
  }
  passOn(lines);
  gDocument["widgets"] = json::array();
  for (const auto& widget : widgets) {
    if (gJson) {
      gDocument["widgets"].push_back(recordJson(*widget));
    } else {
      std::cout << widget->getName() << '\t' << widget->getVersion() << '\t'
                << widget->getLaunchURL() << '\n';
    }
  }
  return finish(kOk);
}

int runInfo(WebWidgetEngineDelegate* engine, const std::string& name,
            const std::string& language) {
  std::vector<std::string> lines;
  std::unique_ptr<WidgetsData> widget;
  {
    EngineLines capture(&lines);
    widget.reset(engine->getInfo(name.c_str(), nullptr, language.c_str()));
  }
  passOn(lines);
  gDocument["name"] = name;
  if (!widget) {
    return finish(kNo, "no widget called " + name +
                           " is installed (\"widgetctl list\" lists them)");
  }
  if (gJson) {
    gDocument["widget"] = recordJson(*widget);
    return finish(kOk);
  }
  const json record = recordJson(*widget);
  const std::pair<const char*, const char*> shown[] = {
      {"name", "name"},
      {"title", "title"},
      {"short title", "shortTitle"},
      {"description", "description"},
      {"version", "version"},
      {"width", "width"},
      {"height", "height"},
      {"author", "author"},
      {"author email", "authorEmail"},
      {"author href", "authorHref"},
      {"license", "license"},
      {"license href", "licenseHref"},
      {"icon", "icon"},
      {"launch URL", "launchURL"},
      {"source URL", "sourceURL"},
      {"storage path", "storagePath"}};
  for (const auto& item : shown) {
    const json& value = record[item.second];
    std::cout << field(item.first, value.is_string() ? value.get<std::string>()
                                                     : value.dump())
              << '\n';
  }
  return finish(kOk);
}

int runMap(WebWidgetEngineDelegate* engine, const std::string& url,
           const std::string& language) {
  std::vector<std::string> lines;
  EngineString mapped;
  {
    EngineLines capture(&lines);
    mapped.reset(engine->mapResource(url.c_str(), language.c_str()));
  }
  passOn(lines);
  gDocument["url"] = url;
  gDocument["language"] = language;
  gDocument["mapped"] = mapped ? json(mapped.get()) : json(nullptr);
  gDocument["answer"] = mapped ? mapped.get() : url;
  if (!gJson) std::cout << (mapped ? mapped.get() : url) << std::endl;
  return finish(kOk);
}

int runIsWidget(WebWidgetEngineDelegate* engine, const std::string& url) {
  std::vector<std::string> lines;
  int answer;
  {
    EngineLines capture(&lines);
    answer = engine->isWidget(url.c_str());
  }
  passOn(lines);
  gDocument["url"] = url;
  gDocument["widget"] = answer == 1;
  if (!gJson) std::cout << (answer == 1 ? "yes" : "no") << std::endl;
  if (answer == 1) return finish(kOk);
  return finish(kNo, url + " is not the launch URL of an installed widget");
}

int runRemove(WebWidgetEngineDelegate* engine, const std::string& name) {
  std::vector<std::string> lines;
  int status;
  {
    EngineLines capture(&lines);
    status = engine->deleteWidget(name.c_str(), nullptr);
  }
  passOn(lines);
  gDocument["name"] = name;
  gDocument["status"] = status;
  gDocument["removed"] = status == 1;
  if (status == 1) {
    if (!gJson) std::cout << "removed " << name << std::endl;
    return finish(kOk);
  }
  if (status == 0) {
    return finish(kNo, "no widget called " + name +
                           " is installed (\"widgetctl list\" lists them)");
  }
  std::string why = engineReason(lines);
  for (const std::string& line : lines) {
    if (line.find("can't delete this directory") != std::string::npos) {
      why = "its directory cannot be deleted; if its files are gone, "
            "\"widgetctl doctor --repair\" removes it";
    }
  }
  return finish(kNo, "could not remove " + name + (why.empty() ? "" : ": " + why));
}

// --- check ---------------------------------------------------------------

// The private folder of a check, removed on every path: at the end of the
// command, and from the signal handler when the user interrupts it. The
// handler may only use async-signal-safe calls, so it runs rm from a child
// with an argument vector made beforehand.
char gSandbox[4096];
char* gRemoveArgv[4] = {const_cast<char*>("rm"), const_cast<char*>("-rf"),
                        gSandbox, nullptr};

void removeSandbox() {
  if (!gSandbox[0]) return;
  const pid_t child = fork();
  if (child == 0) {
    execv("/bin/rm", gRemoveArgv);
    _exit(127);
  }
  if (child > 0) {
    int status;
    waitpid(child, &status, 0);
  }
}

extern "C" void onSignal(int signal) {
  removeSandbox();
  _exit(128 + signal);
}

bool makeSandbox(std::string* error) {
  const char* tmp = getenv("TMPDIR");
  const std::string folder = tmp && *tmp ? tmp : P_tmpdir;
  CheckFolders::removeDead(folder);
  const std::string pattern = folder + "/" + CheckFolders::kPrefix + "XXXXXX";
  if (pattern.size() >= sizeof gSandbox) {
    *error = "the temporary directory's name is too long";
    return false;
  }
  strcpy(gSandbox, pattern.c_str());
  if (!mkdtemp(gSandbox)) {
    *error = std::string("cannot create a temporary directory: ") + strerror(errno);
    gSandbox[0] = '\0';
    return false;
  }
  CheckFolders::markAlive(gSandbox);
  struct sigaction action = {};
  action.sa_handler = onSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  sigaction(SIGHUP, &action, nullptr);
  return true;
}

// Empties the sandbox's widget root and registry after a trial, without
// following links and without moving the working directory.
void clearTrial(const std::string& sandbox) {
  WidgetUnInstaller::removeWidgetDirectory(sandbox + "/widgets/");
  WidgetUnInstaller::removeWidgetDirectory(sandbox + "/conf/");
}

// One package: its findings, then the engine's verdict from a trial
// installation in the sandbox. Returns whether it would install.
bool checkOne(const std::string& argument, size_t index, json& result) {
  const std::string sandbox = gSandbox;
  std::vector<std::string> lines;
  result["package"] = argument;
  result["findings"] = json::array();
  std::string path;  // the package's bytes, on disk
  std::string url;   // the address it would be installed from
  std::string error;
  if (argument.compare(0, 7, "file://") == 0) {
    url = argument;
    path = argument.substr(7);
  } else if (isAddress(argument)) {
    // Downloaded once, into the sandbox, under the name the address gives,
    // so that the trial installs a widget of the same name.
    url = argument;
    const std::string folder = sandbox + "/package" + std::to_string(index);
    mkdir(folder.c_str(), 0700);
    path = folder + "/" + WidgetInstaller::nameFromURL(url) + ".wgt";
    bool downloaded;
    {
      EngineLines capture(&lines);
      // The downloader removes its file when it goes; the package is moved
      // out of its way first.
      Downloader downloader(argument, path + ".part");
      downloaded = downloader.download() == 0 &&
                   rename((path + ".part").c_str(), path.c_str()) == 0;
    }
    if (!downloaded) {
      result["engine"] = lines;
      result["verdict"] = "refused";
      result["reason"] = "the package could not be downloaded from " + argument;
      return false;
    }
  } else {
    path = argument;
    url = fileURL(path, &error);
    if (url.empty()) {
      result["verdict"] = "refused";
      result["reason"] = error;
      return false;
    }
  }

  PackageLinter linter(path, url);
  for (const LintFinding& f : linter.run()) {
    result["findings"].push_back({{"level", f.level},
                                  {"tag", f.tag},
                                  {"detail", f.detail},
                                  {"explanation", f.explanation}});
  }

  // The trial: the package installed into the sandbox's own root and
  // registry, exactly as the engine installs it.
  const std::string root = sandbox + "/widgets/";
  const std::string conf = sandbox + "/conf/";
  mkdir(root.c_str(), 0700);
  mkdir((root + "tmp").c_str(), 0700);
  mkdir(conf.c_str(), 0700);
  setenv("WIDGET_PATH", root.c_str(), 1);
  setenv("YRA_DATA_PATH", conf.c_str(), 1);
  const std::string trialURL =
      isAddress(argument) && argument.compare(0, 7, "file://") != 0
          ? fileURL(path, &error)
          : url;
  int status;
  {
    EngineLines capture(&lines);
    WidgetInstaller installer(trialURL);
    status = installer.run();
  }
  clearTrial(sandbox);
  result["engine"] = lines;
  result["status"] = status;
  if (status == 0) {
    result["verdict"] = "install";
    return true;
  }
  result["verdict"] = "refused";
  std::string reason = installReason(status, url);
  const std::string engine = engineReason(lines);
  if (status == 10 && !engine.empty()) reason += ": " + engine;
  result["reason"] = reason;
  return false;
}

int runCheck(const std::vector<std::string>& packages, bool strict) {
  std::string error;
  if (!makeSandbox(&error)) return finish(kEnvironment, error);
  bool anyRefused = false;
  bool anyFinding = false;
  gDocument["packages"] = json::array();
  for (size_t i = 0; i < packages.size(); ++i) {
    const std::string& package = packages[i];
    json result;
    const bool installs = checkOne(package, i, result);
    anyRefused = anyRefused || !installs;
    if (!gJson) {
      // The trial's own lines only say more when the package is refused.
      if (!installs) {
        for (const json& line : result.value("engine", json::array()))
          std::cerr << line.get<std::string>() << '\n';
      }
      for (const json& f : result["findings"]) {
        std::cout << f["level"].get<std::string>() << ": " << f["tag"].get<std::string>()
                  << (f["detail"].get<std::string>().empty() ? "" : " ")
                  << f["detail"].get<std::string>() << '\n'
                  << "  " << f["explanation"].get<std::string>() << '\n';
      }
      if (installs) {
        std::cout << package << ": would install" << std::endl;
      } else {
        std::cout << package << ": would be refused: "
                  << result["reason"].get<std::string>() << std::endl;
      }
    }
    for (const json& f : result["findings"]) {
      if (f["level"] == "error" || f["level"] == "warning") anyFinding = true;
    }
    gDocument["packages"].push_back(result);
  }
  removeSandbox();
  gSandbox[0] = '\0';
  if (anyRefused) return finish(kNo);
  if (strict && anyFinding) return finish(kNo);
  return finish(kOk);
}

// --- doctor ----------------------------------------------------------------

int runDoctor(const Options& options) {
  Doctor::Options doctorOptions;
  doctorOptions.repair = options.repair;
  doctorOptions.reinstall = options.reinstall;
  doctorOptions.removeOrphans = options.removeOrphans;
  Doctor doctor(doctorOptions);
  std::vector<DoctorProblem> problems;
  std::vector<std::string> lines;
  const bool ran = doctor.run(problems, lines);
  passOn(lines);
  if (!ran) return finish(kEnvironment, doctor.error());
  gDocument["problems"] = json::array();
  bool remaining = false;
  for (const DoctorProblem& p : problems) {
    remaining = remaining || !p.repaired;
    gDocument["problems"].push_back({{"kind", p.kind},
                                     {"name", p.name},
                                     {"path", p.path},
                                     {"detail", p.detail},
                                     {"repaired", p.repaired}});
    if (!gJson) {
      std::cout << p.kind << ": " << (p.name.empty() ? "" : p.name + " ")
                << p.path << (p.repaired ? " (repaired)" : "") << '\n'
                << "  " << p.detail << '\n';
    }
  }
  gDocument["healthy"] = problems.empty();
  if (!gJson) {
    std::cout << (problems.empty() ? "registry and disk agree"
                  : remaining      ? "problems found"
                                   : "everything found was repaired")
              << std::endl;
  }
  return finish(remaining ? kNo : kOk);
}

// --- the rest --------------------------------------------------------------

// The compiled-in places, and where the environment moves them.
int printVersion() {
  const std::string schema = PackageLinter::defaultSchemaPath();
  const std::string registry = std::string(WIDGETCTL_DATABASE_DIR) + "widget.db";
  const char* widgetPath = getenv("WIDGET_PATH");
  const char* dataPath = getenv("YRA_DATA_PATH");
  if (gJson) {
    gDocument = json{{"command", "version"},
                     {"version", WIDGETCTL_VERSION},
                     {"schema", schema},
                     {"registry", registry},
                     {"widgetRoot", WIDGETCTL_WIDGET_ROOT},
                     {"registryNow", SqlLite3::databasePath()},
                     {"widgetRootNow", widgetPath ? widgetPath : WIDGETCTL_WIDGET_ROOT}};
    std::cout << gDocument.dump(2) << std::endl;
    return kOk;
  }
  std::cout << "widgetctl " << WIDGETCTL_VERSION << " (libwidgetengine "
            << WIDGETCTL_VERSION << ")\n"
            << field("schema", schema) << '\n'
            << field("registry", registry)
            << (dataPath ? "  (now " + SqlLite3::databasePath() + ", from YRA_DATA_PATH)" : "")
            << '\n'
            << field("widget root", WIDGETCTL_WIDGET_ROOT)
            << (widgetPath ? std::string("  (now ") + widgetPath + ", from WIDGET_PATH)" : "")
            << '\n';
  return kOk;
}

// A variable naming a directory must end with "/": the engine glues file
// names to it (conf + "widget.db" would give confwidget.db).
void warnAboutSlashes() {
  for (const char* name : {"WIDGET_PATH", "YRA_DATA_PATH"}) {
    const char* value = getenv(name);
    if (value && *value && value[strlen(value) - 1] != '/') {
      std::cerr << kProgram << ": warning: " << name << "=" << value
                << " does not end with \"/\"; the engine will use "
                << value << (std::string(name) == "WIDGET_PATH" ? "widget_NAME"
                                                               : "widget.db")
                << ", beside the directory you meant" << std::endl;
    }
  }
}

std::string defaultLanguage() {
  for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"}) {
    const char* value = getenv(name);
    if (!value || !*value || !strcmp(value, "C") || !strcmp(value, "POSIX")) continue;
    // fr_FR.UTF-8:de -> fr-FR,de
    std::string list;
    std::string text = value;
    size_t start = 0;
    while (start <= text.size()) {
      size_t end = text.find(':', start);
      if (end == std::string::npos) end = text.size();
      std::string tag = text.substr(start, end - start);
      tag = tag.substr(0, tag.find_first_of(".@"));
      for (char& c : tag) if (c == '_') c = '-';
      if (!tag.empty() && tag != "C" && tag != "POSIX")
        list += (list.empty() ? "" : ",") + tag;
      start = end + 1;
    }
    if (!list.empty()) return list;
  }
  return std::string();
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  static const struct option kLong[] = {
      {"json", no_argument, nullptr, 'j'},
      {"quiet", no_argument, nullptr, 'q'},
      {"lang", required_argument, nullptr, 'l'},
      {"strict", no_argument, nullptr, 's'},
      {"repair", no_argument, nullptr, 'r'},
      {"reinstall", no_argument, nullptr, 'R'},
      {"remove-orphans", no_argument, nullptr, 'o'},
      {"version", no_argument, nullptr, 'V'},
      {"help", no_argument, nullptr, 'h'},
      {nullptr, 0, nullptr, 0}};
  opterr = 0;
  int c;
  while ((c = getopt_long(argc, argv, "qVh", kLong, nullptr)) != -1) {
    switch (c) {
      case 'j': options.json = true; break;
      case 'q': options.quiet = true; break;
      case 'l': options.language = optarg; options.hasLanguage = true; break;
      case 's': options.strict = true; break;
      case 'r': options.repair = true; break;
      case 'R': options.reinstall = true; break;
      case 'o': options.removeOrphans = true; break;
      case 'V': options.version = true; break;
      case 'h': options.help = true; break;
      default: {
        const std::string option =
            optopt ? std::string("-") + static_cast<char>(optopt) : argv[optind - 1];
        return usageError(c == ':' || (optopt == 'l')
                              ? option + " needs a value"
                              : "unknown option " + option,
                          nullptr);
      }
    }
  }
  std::vector<std::string> words(argv + optind, argv + argc);
  gJson = options.json;
  gEngineToStderr = options.json || options.quiet;

  if (options.version) return printVersion();
  if (words.empty()) {
    if (options.help) {
      std::cout << kUsageText;
      return kOk;
    }
    return usageError("no command given", nullptr);
  }
  const std::string name = words[0];
  words.erase(words.begin());
  const Command* command = findCommand(name);
  if (!command) return usageError("unknown command " + name, nullptr);
  if (name == "help") {
    if (words.empty() && options.help) {
      std::cout << command->help;
      return kOk;
    }
    if (words.empty()) {
      std::cout << kUsageText;
      return kOk;
    }
    const Command* about = findCommand(words[0]);
    if (!about || words.size() > 1)
      return usageError("no command called " + words[0], nullptr);
    std::cout << about->help;
    return kOk;
  }
  if (options.help) {
    std::cout << command->help;
    return kOk;
  }
  if (command->arguments >= 0 && words.size() != static_cast<size_t>(command->arguments)) {
    return usageError(command->arguments == 0
                          ? name + " takes no argument"
                          : name + " takes one argument",
                      command->name);
  }
  if (command->arguments == -1 && words.empty())
    return usageError(name + " needs at least one package", command->name);
  if (options.hasLanguage && name != "info" && name != "map")
    return usageError("--lang is for info and map", command->name);
  if ((options.repair || options.reinstall || options.removeOrphans) && name != "doctor")
    return usageError("--repair, --reinstall and --remove-orphans are for doctor",
                      command->name);
  if ((options.reinstall || options.removeOrphans) && !options.repair)
    return usageError("--reinstall and --remove-orphans go with --repair", command->name);
  if (options.strict && name != "check")
    return usageError("--strict is for check", command->name);

  // The answers of these are data for scripts: the engine's lines stay
  // apart, on standard error.
  if (name == "list" || name == "info" || name == "map" || name == "is-widget")
    gEngineToStderr = true;
  warnAboutSlashes();
  gDocument = json::object();
  gDocument["command"] = name;
  gDocument["engine"] = json::array();
  const std::string language =
      options.hasLanguage ? options.language : defaultLanguage();

  if (name == "check") return runCheck(words, options.strict);
  if (name == "install") return runInstall(words[0]);
  if (name == "doctor") return runDoctor(options);

  if (name == "list" || name == "info" || name == "remove") {
    std::string reason;
    if (!registryUsable(&reason)) return finish(kEnvironment, reason);
  }
  std::vector<std::string> lines;
  RefPtr<WebWidgetEngineDelegate> engine;
  {
    EngineLines capture(&lines);
    engine = WidgetEngineDelegate::createInstance();
  }
  passOn(lines);
  if (!engine) return finish(kEnvironment, "the engine could not be created");
  if (name == "list") return runList(engine.get());
  if (name == "info") return runInfo(engine.get(), words[0], language);
  if (name == "map") return runMap(engine.get(), words[0], language);
  if (name == "is-widget") return runIsWidget(engine.get(), words[0]);
  return runRemove(engine.get(), words[0]);
}
