// SPDX-License-Identifier: Apache-2.0
// The fixture of widgetctl's acceptance tests: the built program run in a
// child process as its users run it, with its widget root, registry and
// temporary directory inside the test's sandbox.
#ifndef WIDGETENGINE_TOOLS_WIDGETCTL_WIDGETCTLRUN_H_
#define WIDGETENGINE_TOOLS_WIDGETCTL_WIDGETCTLRUN_H_

#include <pty.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/WidgetSandbox.h"

inline constexpr char kWidgetctl[] = WIDGETENGINE_BINARY_DIR "/widgetctl";

// Runs widgetctl with args on a pseudo-terminal (standard output and error
// alike), as a user at a terminal does; what the terminal received.
inline std::string runOnTerminal(const std::string& tmp,
                                 const std::vector<std::string>& args) {
  int master = -1;
  const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
  if (child == 0) {
    setenv("TMPDIR", tmp.c_str(), 1);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(kWidgetctl));
    for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    execv(kWidgetctl, argv.data());
    _exit(127);
  }
  std::string text;
  if (child < 0) return text;
  char buffer[4096];
  ssize_t got;
  // EIO once the child closed its side of the terminal.
  while ((got = read(master, buffer, sizeof buffer)) > 0) text.append(buffer, got);
  close(master);
  waitpid(child, nullptr, 0);
  return text;
}

class WidgetctlRun : public WidgetSandbox {
 protected:
  struct Result {
    int status;
    std::string out;
    std::string err;
  };

  void SetUp() override { ASSERT_EQ(0, mkdir(tmp.c_str(), 0755)); }

  // Runs widgetctl with args, in the sandbox's environment; its exit status
  // and both outputs.
  Result run(const std::vector<std::string>& args) { return runWith(args, {}); }

  // The same, with more variables in the child's environment (name=value;
  // an empty value unsets the variable).
  Result runWith(const std::vector<std::string>& args,
                 const std::vector<std::pair<std::string, std::string>>& env) {
    ChildProcess child;
    start(child, args, env);
    child.wait();
    return {child.shellStatus(), child.out(), child.err()};
  }

  // Starts widgetctl with args in child, in the sandbox's environment.
  void start(ChildProcess& child, const std::vector<std::string>& args,
             const std::vector<std::pair<std::string, std::string>>& env = {}) {
    child.setEnv("TMPDIR", tmp);
    for (const char* name : {"LANGUAGE", "LC_ALL", "LC_MESSAGES", "LANG"})
      child.unsetEnv(name);
    for (const auto& variable : env) {
      if (variable.second.empty())
        child.unsetEnv(variable.first);
      else
        child.setEnv(variable.first, variable.second);
    }
    std::vector<std::string> argv;
    // time(1) reports the peak of widgetctl alone: a child forked from
    // this test would count the test's own pages in its peak too.
    if (!peakFile.empty()) argv = {"/usr/bin/time", "-f", "%M", "-o", peakFile};
    argv.push_back(kWidgetctl);
    argv.insert(argv.end(), args.begin(), args.end());
    child.start(argv);
  }

  nlohmann::json document(const Result& result) {
    return nlohmann::json::parse(result.out, nullptr, false);
  }

  // When set, runs go through time(1), which writes the peak resident
  // memory of widgetctl, in KiB, into this file.
  std::string peakFile;

  const std::string tmp = dir.path() + "/tmp";
};

#endif  // WIDGETENGINE_TOOLS_WIDGETCTL_WIDGETCTLRUN_H_
