// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/Check.h"

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <nlohmann/json.hpp>

#include "base/Refusal.h"
#include "install/Downloader.h"
#include "install/WidgetInstaller.h"
#include "install/WidgetUnInstaller.h"
#include "tools/widgetctl/CheckFolders.h"
#include "tools/widgetctl/Commands.h"
#include "tools/widgetctl/EngineLines.h"
#include "tools/widgetctl/PackageLinter.h"
#include "tools/widgetctl/Reply.h"

namespace widgetctl {

using nlohmann::json;

namespace {

// The private folder of a check, removed on every path: at the end of the
// command, and from the signal handler when the user interrupts it. The
// handler may only use async-signal-safe calls, so it runs rm from a child
// with an argument vector made beforehand. The child comes from vfork():
// glibc's fork() runs its atfork handlers, which take malloc's locks, and a
// signal that arrived while the program held one of them would hang there.
char gSandbox[4096];
char* gRemoveArgv[4] = {const_cast<char*>("rm"), const_cast<char*>("-rf"),
                        gSandbox, nullptr};

void removeSandbox() {
  if (!gSandbox[0]) return;
  const pid_t child = vfork();
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
  refusal::begin();
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
  reason += refusalDetail(status, lines);
  result["reason"] = reason;
  return false;
}

}  // namespace

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

}  // namespace widgetctl
