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
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
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
// when null), in this process's child; its standard output and error.
struct Outputs {
  std::string out;
  std::string err;
};

Outputs runDriver(const char* log, const std::string& url) {
  ChildProcess driver;
  if (log)
    driver.setEnv("WIDGETENGINE_LOG", log);
  else
    driver.unsetEnv("WIDGETENGINE_LOG");
  driver.start({kDriver, "install", url});
  driver.wait();
  // The package is missing: the engine answers no.
  EXPECT_TRUE(driver.exitedWith(1)) << "status " << driver.shellStatus();
  return {driver.out(), driver.err()};
}

class LogControlTest : public WidgetSandbox {
 protected:
  std::string missing() const { return "file://" + packages + "missing.wgt"; }
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
    const Outputs run = runDriver(log, missing());
    EXPECT_EQ(std::string(kRefusalLines) + "null\n", run.out);
    EXPECT_EQ("", run.err);
  }
}

TEST_F(LogControlTest, AnUnknownValueIsNamedOnceAndTheLinesStayOnStandardOutput) {
  const Outputs misspelt = runDriver("sterr", missing());
  EXPECT_EQ(std::string(kRefusalLines) + "null\n", misspelt.out);
  EXPECT_EQ("widgetengine: WIDGETENGINE_LOG=sterr is not one of stdout, stderr, "
            "syslog, quiet; using stdout\n",
            misspelt.err);

  // Shown cut, and without the bytes that would move a terminal's cursor.
  const std::string hostile = "\x1b[2J" + std::string(100, 'x');
  const Outputs run = runDriver(hostile.c_str(), missing());
  EXPECT_EQ(std::string(kRefusalLines) + "null\n", run.out);
  EXPECT_EQ("widgetengine: WIDGETENGINE_LOG=?[2J" + std::string(60, 'x') +
                "... is not one of stdout, stderr, syslog, quiet; using stdout\n",
            run.err);
}

TEST_F(LogControlTest, StderrTakesTheLinesAway) {
  const Outputs run = runDriver("stderr", missing());
  EXPECT_EQ("null\n", run.out);
  EXPECT_EQ(kRefusalLines, run.err);
}

TEST_F(LogControlTest, QuietSilencesTheEngine) {
  const Outputs run = runDriver("quiet", missing());
  EXPECT_EQ("null\n", run.out);
  EXPECT_EQ("", run.err);
}

// Installs url with the engine's lines sent to syslog, in a child with a
// private /dev whose /dev/log is a socket of this test's alone. The driver's
// outputs in *run, and the datagrams the socket received, one a line, in the
// file received; false, with a reason in *skip, when no mount namespace can
// be had.
bool syslogDatagrams(const std::string& url, const std::string& received,
                     Outputs* run, std::string* skip) {
  ChildProcess child;
  child.start([&] {
    if (unshare(CLONE_NEWNS) != 0) return 77;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return 77;
    if (mount("tmpfs", "/dev", "tmpfs", 0, "mode=0755") != 0) return 77;
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, "/dev/log");
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
      return 78;
    const Outputs driver = runDriver("syslog", url);
    std::fputs(driver.out.c_str(), stdout);
    std::fputs(driver.err.c_str(), stderr);
    FILE* file = fopen(received.c_str(), "w");
    if (!file) return 79;
    char buffer[8192];
    ssize_t got;
    while ((got = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT)) >= 0) {
      fwrite(buffer, 1, static_cast<size_t>(got), file);
      fputc('\n', file);
    }
    fclose(file);
    return 0;
  });
  child.wait();
  if (child.exitedWith(77)) {
    *skip = "no mount namespace here (needs root)";
    return false;
  }
  *run = {child.out(), child.err()};
  return child.exitedWith(0);
}

TEST_F(LogControlTest, SyslogSendsEachLineWithItsPriority) {
  const std::string received = dir.path() + "/received";
  std::string skip;
  Outputs run;
  const bool ran = syslogDatagrams(missing(), received, &run, &skip);
  if (!skip.empty()) GTEST_SKIP() << skip;
  ASSERT_TRUE(ran) << run.out << run.err;
  EXPECT_EQ("null\n", run.out);
  EXPECT_EQ("", run.err);

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
