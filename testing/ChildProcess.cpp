// SPDX-License-Identifier: Apache-2.0
#include "testing/ChildProcess.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <future>
#include <iostream>

#include "testing/TempDir.h"

extern char** environ;

ChildProcess::ChildProcess() = default;

ChildProcess::~ChildProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    wait();
  }
  if (out_ >= 0) close(out_);
  if (err_ >= 0) close(err_);
}

// The outputs are files in memory: unlike a pipe, a child that writes much
// never blocks on a parent that only reads once it has ended.
bool ChildProcess::prepare() {
  if (pid_ > 0) {
    ADD_FAILURE() << "a child is still running";
    return false;
  }
  if (out_ >= 0) close(out_);
  if (err_ >= 0) close(err_);
  out_ = memfd_create("child-out", MFD_CLOEXEC);
  err_ = merged_ ? -1 : memfd_create("child-err", MFD_CLOEXEC);
  if (out_ < 0 || (!merged_ && err_ < 0)) {
    ADD_FAILURE() << "cannot make the child's output files";
    return false;
  }
  status_ = -1;
  hung_ = false;
  // What this process has buffered would be written twice otherwise.
  std::cout.flush();
  fflush(stdout);
  fflush(stderr);
  return true;
}

bool ChildProcess::start(const std::vector<std::string>& argv) {
  if (argv.empty() || !prepare()) return false;
  // Everything the child needs is made before the fork: between fork and
  // exec a child of a threaded process may only make async-signal-safe calls.
  std::vector<std::string> envStore;
  for (char** e = environ; *e; ++e) {
    const std::string entry = *e;
    if (env_.count(entry.substr(0, entry.find('='))) == 0) envStore.push_back(entry);
  }
  for (const auto& variable : env_)
    if (variable.second) envStore.push_back(variable.first + "=" + *variable.second);
  std::vector<char*> envp;
  for (std::string& entry : envStore) envp.push_back(&entry[0]);
  envp.push_back(nullptr);
  std::vector<std::string> argStore = argv;
  std::vector<char*> args;
  for (std::string& arg : argStore) args.push_back(&arg[0]);
  args.push_back(nullptr);

  pid_ = fork();
  if (pid_ == 0) {
    dup2(out_, 1);
    dup2(merged_ ? out_ : err_, 2);
    if (!directory_.empty() && chdir(directory_.c_str()) != 0) _exit(126);
    execve(args[0], args.data(), envp.data());
    _exit(127);
  }
  if (pid_ < 0) ADD_FAILURE() << "cannot start " << argv[0];
  return pid_ > 0;
}

bool ChildProcess::start(const std::function<int()>& body) {
  if (!prepare()) return false;
  pid_ = fork();
  if (pid_ == 0) {
    dup2(out_, 1);
    dup2(merged_ ? out_ : err_, 2);
    if (!directory_.empty() && chdir(directory_.c_str()) != 0) _exit(126);
    for (const auto& variable : env_) {
      if (variable.second)
        setenv(variable.first.c_str(), variable.second->c_str(), 1);
      else
        unsetenv(variable.first.c_str());
    }
    const int code = body();
    std::cout.flush();
    fflush(stdout);
    fflush(stderr);
    _exit(code);
  }
  if (pid_ < 0) ADD_FAILURE() << "cannot fork";
  return pid_ > 0;
}

void ChildProcess::kill(int signal) {
  if (pid_ > 0) ::kill(pid_, signal);
}

int ChildProcess::wait(std::chrono::milliseconds deadline) {
  if (pid_ <= 0) return status_;
  // The end is awaited where it happens, in waitpid, on a thread of its own;
  // the deadline is only the hang guard.
  const pid_t pid = pid_;
  std::future<int> ended = std::async(std::launch::async, [pid] {
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
      if (errno != EINTR) return -1;
    }
    return status;
  });
  if (ended.wait_for(deadline) == std::future_status::timeout) {
    hung_ = true;
    ::kill(pid, SIGKILL);
  }
  status_ = ended.get();
  pid_ = -1;
  return status_;
}

bool ChildProcess::exitedWith(int code) const {
  return !hung_ && status_ >= 0 && WIFEXITED(status_) && WEXITSTATUS(status_) == code;
}

bool ChildProcess::crashed() const {
  return !hung_ && status_ >= 0 && WIFSIGNALED(status_);
}

int ChildProcess::shellStatus() const {
  if (status_ < 0) return -1;
  return WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
}

// Read through a descriptor of its own, from the start, whatever the child's
// writes did to the shared offset.
std::string ChildProcess::contents(int fd) {
  return fd < 0 ? "" : TempDir::readFile("/proc/self/fd/" + std::to_string(fd));
}

std::string ChildProcess::out() const { return contents(out_); }

std::string ChildProcess::err() const { return merged_ ? "" : contents(err_); }
