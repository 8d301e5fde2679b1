// SPDX-License-Identifier: Apache-2.0
// ChildProcess runs a program, or a function of the test, in a child process
// with its standard output and error captured in memory, and waits for its
// end with a hang guard: a child still running at the deadline is killed,
// reaped and reported as hung, so that a hang fails the test instead of
// stopping the suite.
//
//   ChildProcess driver;
//   driver.setEnv("WIDGETENGINE_LOG", "stderr");
//   driver.start({kDriver, "install", url});
//   driver.wait();
//   EXPECT_TRUE(driver.exitedWith(0)) << driver.err();
#ifndef WIDGETENGINE_TESTING_CHILDPROCESS_H_
#define WIDGETENGINE_TESTING_CHILDPROCESS_H_

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

class ChildProcess {
 public:
  // A child that takes longer is taken as hung: a test's whole time limit
  // (ctest's) is only a little longer.
  static constexpr std::chrono::seconds kHangGuard{90};

  ChildProcess();
  // A child still running is killed and reaped.
  ~ChildProcess();

  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Before start: sets or removes a variable of the child's environment.
  void setEnv(const std::string& name, const std::string& value) { env_[name] = value; }
  void unsetEnv(const std::string& name) { env_[name] = std::nullopt; }
  // Before start: standard error goes where standard output goes, the two
  // interleaved as written.
  void mergeOutput() { merged_ = true; }
  // Before start: the child's working directory (by default this process's).
  void setDirectory(const std::string& path) { directory_ = path; }

  // Starts argv[0] (a path) with argv as its arguments. False, with a test
  // failure, when no child could be made; a program that cannot be executed
  // exits with 127.
  bool start(const std::vector<std::string>& argv);
  // Runs body in a forked copy of this process; what it returns is the
  // child's exit status.
  bool start(const std::function<int()>& body);

  pid_t pid() const { return pid_; }
  bool running() const { return pid_ > 0; }
  // Sends signal to a running child.
  void kill(int signal);

  // Waits for the end, at most deadline; the wait status. A child still
  // running at the deadline is killed and hung() is true.
  int wait(std::chrono::milliseconds deadline = kHangGuard);

  bool hung() const { return hung_; }
  bool exitedWith(int code) const;
  // Ended by a signal that this object did not send for a hang.
  bool crashed() const;
  // The exit code, or 128 + the signal that ended it, as a shell gives it.
  int shellStatus() const;
  int status() const { return status_; }

  // What the child has written so far.
  std::string out() const;
  std::string err() const;

 private:
  bool prepare();
  static std::string contents(int fd);

  std::map<std::string, std::optional<std::string>> env_;
  bool merged_ = false;
  std::string directory_;
  int out_ = -1;
  int err_ = -1;
  pid_t pid_ = -1;
  int status_ = -1;
  bool hung_ = false;
};

#endif  // WIDGETENGINE_TESTING_CHILDPROCESS_H_
