// SPDX-License-Identifier: Apache-2.0
// WIDGETENGINE_LOG, as a host that never heard of it meets it: engines in
// processes of their own (testing/driver) with the variable set, their
// standard output and error apart, and for syslog a real datagram socket at
// /dev/log in a mount namespace of the test's own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"

namespace {

const std::string kDriver = WIDGETENGINE_BINARY_DIR "/engine_driver";

std::string readFile(const std::string& path) {
  std::ifstream in(path);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Runs the driver to install url with WIDGETENGINE_LOG set to log (unset
// when null), in this process's child; its standard output and error go to
// out and err. Returns the wait status.
int runDriver(const char* log, const std::string& url, const std::string& out,
              const std::string& err) {
  const pid_t pid = fork();
  if (pid == 0) {
    const int outFd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int errFd = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (outFd < 0 || errFd < 0) _exit(126);
    dup2(outFd, 1);
    dup2(errFd, 2);
    if (log) {
      setenv("WIDGETENGINE_LOG", log, 1);
    } else {
      unsetenv("WIDGETENGINE_LOG");
    }
    execl(kDriver.c_str(), kDriver.c_str(), "install", url.c_str(),
          static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  return status;
}

class LogControlTest : public WidgetSandbox {
 protected:
  std::string missing() const { return "file://" + packages + "missing.wgt"; }
  std::string out() const { return dir.path() + "/out"; }
  std::string err() const { return dir.path() + "/err"; }
};

const char kRefusalLines[] =
    "[Downloading...]\n"
    "\n"
    "Could not download file\n"
    "Error while downloading\n"
    "Download cleaned\n"
    "Nothing to clean\n";

TEST_F(LogControlTest, UnsetOrStdoutIsStandardOutput) {
  for (const char* log : {static_cast<const char*>(nullptr), "stdout", ""}) {
    SCOPED_TRACE(log ? log : "(unset)");
    runDriver(log, missing(), out(), err());
    EXPECT_EQ(std::string(kRefusalLines) + "null\n", readFile(out()));
    EXPECT_EQ("", readFile(err()));
  }
}

TEST_F(LogControlTest, AnUnknownValueIsNamedOnceAndTheLinesStayOnStandardOutput) {
  runDriver("sterr", missing(), out(), err());
  EXPECT_EQ(std::string(kRefusalLines) + "null\n", readFile(out()));
  EXPECT_EQ("widgetengine: WIDGETENGINE_LOG=sterr is not one of stdout, stderr, "
            "syslog, quiet; using stdout\n",
            readFile(err()));

  // Shown cut, and without the bytes that would move a terminal's cursor.
  const std::string hostile = "\x1b[2J" + std::string(100, 'x');
  runDriver(hostile.c_str(), missing(), out(), err());
  EXPECT_EQ(std::string(kRefusalLines) + "null\n", readFile(out()));
  EXPECT_EQ("widgetengine: WIDGETENGINE_LOG=?[2J" + std::string(60, 'x') +
                "... is not one of stdout, stderr, syslog, quiet; using stdout\n",
            readFile(err()));
}

TEST_F(LogControlTest, StderrTakesTheLinesAway) {
  runDriver("stderr", missing(), out(), err());
  EXPECT_EQ("null\n", readFile(out()));
  EXPECT_EQ(kRefusalLines, readFile(err()));
}

TEST_F(LogControlTest, QuietSilencesTheEngine) {
  runDriver("quiet", missing(), out(), err());
  EXPECT_EQ("null\n", readFile(out()));
  EXPECT_EQ("", readFile(err()));
}

// The engine's messages as the syslog socket received them, one datagram a
// line; or a reason to skip when no mount namespace can be had.
bool syslogDatagrams(const std::string& url, const std::string& out,
                     const std::string& err, const std::string& received,
                     std::string* skip) {
  const pid_t pid = fork();
  if (pid == 0) {
    // A private /dev, so that /dev/log is a socket of this test's alone.
    if (unshare(CLONE_NEWNS) != 0) _exit(77);
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) _exit(77);
    if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) _exit(77);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      _exit(78);
    runDriver("syslog", url, out, err);
    FILE* file = fopen(received.c_str(), "w");
    if (!file) _exit(79);
    char buffer[8192];
    ssize_t got;
    while ((got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0) {
      fwrite(buffer, 1, static_cast<size_t>(got), file);
      fputc('\n', file);
    }
    fclose(file);
    _exit(0);
  }
  int status = -1;
  waitpid(pid, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == 77) {
    *skip = "no mount namespace here (needs root)";
    return false;
  }
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

TEST_F(LogControlTest, SyslogSendsEachLineWithItsPriority) {
  const std::string received = dir.path() + "/received";
  std::string skip;
  const bool ran = syslogDatagrams(missing(), out(), err(), received, &skip);
  if (!skip.empty()) GTEST_SKIP() << skip;
  ASSERT_TRUE(ran);
  EXPECT_EQ("null\n", readFile(out()));
  EXPECT_EQ("", readFile(err()));

  std::vector<std::string> datagrams;
  std::istringstream lines(readFile(received));
  std::string line;
  while (std::getline(lines, line)) datagrams.push_back(line);
  // "<priority>timestamp engine_driver: text" (the host's own openlog()
  // settings, none here), blank lines left out.
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"<14>", "[Downloading...]"},
      {"<11>", "Could not download file"},
      {"<11>", "Error while downloading"},
      {"<14>", "Download cleaned"},
      {"<14>", "Nothing to clean"},
  };
  ASSERT_EQ(expected.size(), datagrams.size()) << readFile(received);
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(0u, datagrams[i].find(expected[i].first)) << datagrams[i];
    EXPECT_NE(std::string::npos, datagrams[i].find(" engine_driver: ")) << datagrams[i];
    const std::string tail = ": " + expected[i].second;
    EXPECT_EQ(datagrams[i].size() - tail.size(), datagrams[i].rfind(tail)) << datagrams[i];
  }
}

}  // namespace
