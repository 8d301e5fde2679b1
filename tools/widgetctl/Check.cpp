// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/Check.h"

#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <vector>
#include <nlohmann/json.hpp>

#include "engine/ToolsFacade.h"
#include "tools/widgetctl/CheckFolders.h"
#include "tools/widgetctl/Commands.h"
#include "tools/widgetctl/EngineLines.h"
#include "tools/widgetctl/Reply.h"
#include "tools/widgetctl/Signatures.h"

namespace widgetctl {

using nlohmann::json;

namespace {

// The private folder of a check, removed on every path. The work runs in a
// child process; the process the user started only waits for it and then
// removes the folder, whichever way the child ended. Nothing is done in a
// signal handler but passing the signal on: a handler that removed the
// folder itself would race the program's other threads, which go on
// writing into it while the handler runs.
char gSandbox[4096];
volatile sig_atomic_t gWorker = 0;

extern "C" void passSignalOn(int signal) {
  if (gWorker > 0) kill(gWorker, signal);
}

void removeSandbox() {
  if (!gSandbox[0]) return;
  std::vector<std::string> lines;
  EngineLines quiet(&lines);
  toolsfacade::removeTree(gSandbox);
}

// In the waiting process: never returns. The exit status is the worker's,
// or 128 + the signal that ended it, as a shell reports it.
[[noreturn]] void superviseWorker(pid_t worker, const sigset_t& before) {
  gWorker = worker;
  struct sigaction action = {};
  action.sa_handler = passSignalOn;
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
  // What came while the folder was being made is passed on now.
  sigprocmask(SIG_SETMASK, &before, nullptr);
  int status = 0;
  while (waitpid(worker, &status, 0) < 0 && errno == EINTR) {
  }
  removeSandbox();
  _exit(WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status));
}

bool makeSandbox(std::string* error) {
  const std::string folder = toolsfacade::environmentText("TMPDIR", P_tmpdir);
  CheckFolders::removeDead(folder);
  const std::string pattern = folder + "/" + CheckFolders::kPrefix + "XXXXXX";
  if (pattern.size() >= sizeof gSandbox) {
    *error = "the temporary directory's name is too long";
    return false;
  }
  strcpy(gSandbox, pattern.c_str());
  // From the folder's making until someone is there to remove it, the
  // signals that end a check wait.
  sigset_t ending, before;
  sigemptyset(&ending);
  for (int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&ending, signal);
  sigprocmask(SIG_BLOCK, &ending, &before);
  if (!mkdtemp(gSandbox)) {
    *error = std::string("cannot create a temporary directory: ") + strerror(errno);
    gSandbox[0] = '\0';
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return false;
  }
  // The marker's lock is shared by both processes: the folder counts as in
  // use while either lives.
  CheckFolders::markAlive(gSandbox);
  std::cout.flush();
  fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t worker = fork();
  if (worker < 0) {
    *error = std::string("cannot start the check: ") + strerror(errno);
    removeSandbox();
    gSandbox[0] = '\0';
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return false;
  }
  if (worker > 0) superviseWorker(worker, before);
  // The worker ends with the process the user started, should that be
  // killed outright; the folder then stays, marked dead, for the next
  // check to remove.
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  if (getppid() != parent) _exit(128 + SIGKILL);
  sigprocmask(SIG_SETMASK, &before, nullptr);
  return true;
}

// Empties the sandbox's widget root and registry after a trial, without
// following links and without moving the working directory.
void clearTrial(const std::string& sandbox) {
  toolsfacade::removeTree(sandbox + "/widgets/");
  toolsfacade::removeTree(sandbox + "/conf/");
}

// The verdict on the signatures of the package file at path, unpacked for
// it into folder, which is removed again; in the form of the record an
// installation keeps, with the trust anchors it was judged against.
json signatureSection(const std::string& path, const std::string& folder,
                      const std::string& policy) {
  // The unpacking's lines say nothing the trial does not say again.
  std::vector<std::string> lines;
  EngineLines quiet(&lines);
  json section;
  std::string reason;
  if (!toolsfacade::unpack(path, folder, &reason)) {
    section = {{"checked", false},
               {"error", "the package cannot be unpacked: " + reason}};
  } else {
    const toolsfacade::SignatureReport report = toolsfacade::checkSignatures(folder);
    toolsfacade::removeTree(folder);
    section = json::parse(report.record, nullptr, false);
    if (!section.is_object()) section = json::object();
    section["checked"] = true;
    section["trustAnchors"] = report.anchorsFolder;
    section["trustAnchorCount"] = report.anchors;
    section["trustAnchorProblems"] = report.anchorProblems;
  }
  section["policy"] = policy;
  return section;
}

void printSignatureSection(const json& section) {
  if (!section.value("checked", false)) {
    std::cout << "signatures: not checked: " << section.value("error", "") << '\n';
    return;
  }
  const size_t count = section.value("trustAnchorCount", size_t(0));
  std::cout << "signatures: checked against " << count << " trust anchor"
            << (count == 1 ? "" : "s") << " in "
            << section.value("trustAnchors", "") << '\n';
  for (const json& problem : section.value("trustAnchorProblems", json::array()))
    std::cout << "  trust anchors: " << problem.get<std::string>() << '\n';
  for (const std::string& line : signatureLines(section)) std::cout << "  " << line << '\n';
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
    path = folder + "/" + toolsfacade::nameFromURL(url) + ".wgt";
    bool downloaded;
    {
      EngineLines capture(&lines);
      downloaded = toolsfacade::download(argument, path);
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

  for (const LintFinding& f : toolsfacade::lint(path, url)) {
    result["findings"].push_back({{"level", f.level},
                                  {"tag", f.tag},
                                  {"detail", f.detail},
                                  {"explanation", f.explanation}});
  }

  // Its signatures, when it carries any or installations look at them.
  const std::string policy = toolsfacade::signaturePolicy();
  if (policy != "off" || !toolsfacade::signatureDocuments(path).empty()) {
    result["signatures"] =
        signatureSection(path, sandbox + "/signatures" + std::to_string(index), policy);
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
    status = toolsfacade::install(trialURL).status;
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
  reason += refusalDetail(status);
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
      if (result.contains("signatures")) printSignatureSection(result["signatures"]);
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
    // A signature that does not hold counts as an error.
    const json signatures = result.value("signatures", json::object());
    if (signatures.value("signed", false) && !signatures.value("valid", false))
      anyFinding = true;
    gDocument["packages"].push_back(result);
  }
  removeSandbox();
  gSandbox[0] = '\0';
  if (anyRefused) return finish(kNo);
  if (strict && anyFinding) return finish(kNo);
  return finish(kOk);
}

}  // namespace widgetctl
