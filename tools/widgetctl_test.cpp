// SPDX-License-Identifier: Apache-2.0
// widgetctl as its users run it: the built program in a child process, with
// its widget root, registry and temporary directory inside a TempDir.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "testing/OutputChecks.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

const char kWidgetctl[] = WIDGETENGINE_BINARY_DIR "/widgetctl";
const char kSample[] = WIDGETENGINE_SOURCE_DIR "/tools/sample-widget/";

struct Result {
  int status;
  std::string out;
  std::string err;
};

// The program's temporary directory is in the sandbox too.
class WidgetctlTest : public WidgetSandbox {
 protected:
  void SetUp() override { ASSERT_EQ(0, mkdir(tmp.c_str(), 0755)); }

  // Runs widgetctl with args, in the sandbox's environment; its exit status
  // and both outputs.
  Result run(const std::vector<std::string>& args) {
    const std::string outPath = dir.path() + "/out.txt";
    const std::string errPath = dir.path() + "/err.txt";
    fflush(stdout);
    fflush(stderr);
    pid_t child = fork();
    if (child == 0) {
      int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (out < 0 || err < 0) _exit(126);
      dup2(out, 1);
      dup2(err, 2);
      setenv("TMPDIR", tmp.c_str(), 1);
      std::vector<char*> argv;
      argv.push_back(const_cast<char*>(kWidgetctl));
      for (const std::string& arg : args)
        argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      execv(kWidgetctl, argv.data());
      _exit(127);
    }
    Result result;
    int status = 0;
    waitpid(child, &status, 0);
    result.status =
        WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    result.out = TempDir::readFile(outPath);
    result.err = TempDir::readFile(errPath);
    return result;
  }

  // The bundled sample widget, packed; the package's path.
  std::string samplePackage(const std::string& fileName) {
    const char* files[] = {"config.xml",
                           "index.html",
                           "style.css",
                           "clock.js",
                           "icon.png",
                           "icon.svg",
                           "locales/fr/index.html",
                           "locales/de/index.html"};
    ZipBuilder zip;
    for (const char* file : files)
      zip.addFile(file, TempDir::readFile(std::string(kSample) + file));
    return writePackage(fileName, zip);
  }

  const std::string tmp = dir.path() + "/tmp";
};

TEST_F(WidgetctlTest, HelpDescribesTheToolAndEachCommand) {
  Result help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.find("Usage: widgetctl COMMAND"));
  EXPECT_EQ("", help.err);
  for (const char* command :
       {"install", "list", "info", "map", "is-widget", "remove", "check"}) {
    SCOPED_TRACE(command);
    EXPECT_NE(std::string::npos,
              help.out.find(std::string("  ") + command + " "));
    Result one = run({command, "--help"});
    EXPECT_EQ(0, one.status);
    EXPECT_EQ(0u, one.out.find(std::string("Usage: widgetctl ") + command));
    EXPECT_EQ("", one.err);
  }
  // Asking for help touches nothing.
  EXPECT_TRUE(TempDir::listDirectory(conf).empty());
}

TEST_F(WidgetctlTest, UsageErrorsGiveOneLineAndStatus2) {
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"frobnicate"},
      {"install"},
      {"install", "a", "b"},
      {"list", "x"},
      {"info", "x", "--lang"},
      {"remove", "--force", "x"}};
  for (const std::vector<std::string>& args : cases) {
    Result result = run(args);
    EXPECT_EQ(2, result.status);
    EXPECT_EQ(1u, lines(result.err).size()) << result.err;
    EXPECT_EQ(0u, result.err.find("widgetctl: "));
    EXPECT_EQ("", result.out);
  }
}

TEST_F(WidgetctlTest, WholeStoryOfTheSampleWidget) {
  const std::string url = "file://" + samplePackage("sample-clock.wgt");
  const std::string storage = root + "widget_sample-clock/";
  const std::string launchURL = "file://" + storage + "index.html";

  Result install = run({"install", url});
  EXPECT_EQ(0, install.status) << install.out << install.err;
  EXPECT_EQ("", install.err);
  EXPECT_EQ(0u, install.out.find("[Downloading...]\n"));
  EXPECT_NE(std::string::npos, install.out.find("\n[Cleaning...]\n"));
  EXPECT_EQ(launchURL, lastLine(install.out));

  Result list = run({"list"});
  EXPECT_EQ(0, list.status);
  EXPECT_EQ("sample-clock\t1.0\t" + launchURL, lastLine(list.out));

  Result french = run({"info", "sample-clock", "--lang", "fr-FR,fr"});
  EXPECT_EQ(0, french.status);
  EXPECT_NE(std::string::npos,
            french.out.find("\ntitle:         Horloge exemple\n"));
  EXPECT_NE(std::string::npos, french.out.find("\nshort title:   Horloge\n"));
  EXPECT_NE(
      std::string::npos,
      french.out.find(
          "\nlicense href:  http://example.org/widgets/licence-fr.html\n"));
  EXPECT_NE(std::string::npos,
            french.out.find("\nauthor:        Example Widget Workshop\n"));
  EXPECT_NE(std::string::npos, french.out.find("\nicon:          file://" +
                                               storage + "icon.png\n"));
  EXPECT_EQ("storage path:  " + storage, lastLine(french.out));

  Result german = run({"info", "--lang=de", "sample-clock"});
  EXPECT_EQ(0, german.status);
  EXPECT_NE(std::string::npos,
            german.out.find("\ntitle:         Beispieluhr\n"));

  Result mapped = run({"map", launchURL, "--lang", "de"});
  EXPECT_EQ(0, mapped.status);
  EXPECT_EQ("file://" + storage + "/locales/de/index.html",
            lastLine(mapped.out));
  Result unmapped =
      run({"map", "file://" + storage + "style.css", "--lang", "de"});
  EXPECT_EQ(0, unmapped.status);
  EXPECT_EQ("file://" + storage + "style.css", lastLine(unmapped.out));

  Result yes = run({"is-widget", launchURL});
  EXPECT_EQ(0, yes.status);
  EXPECT_EQ("yes", lastLine(yes.out));
  Result no = run({"is-widget", "file://" + storage + "style.css"});
  EXPECT_EQ(1, no.status);
  EXPECT_EQ("no", lastLine(no.out));
  EXPECT_EQ(1u, lines(no.err).size());

  Result again = run({"install", url});
  EXPECT_EQ(0, again.status);
  EXPECT_EQ("Widget already installed. Launch it with this url : " + launchURL +
                "\nNothing to clean\n" + launchURL + "\n",
            again.out);

  Result removed = run({"remove", "sample-clock"});
  EXPECT_EQ(0, removed.status);
  EXPECT_EQ("removed sample-clock", lastLine(removed.out));
  EXPECT_FALSE(TempDir::exists(storage));

  Result missing = run({"remove", "sample-clock"});
  EXPECT_EQ(1, missing.status);
  EXPECT_EQ("widgetctl: no widget called sample-clock\n", missing.err);
  Result noInfo = run({"info", "sample-clock"});
  EXPECT_EQ(1, noInfo.status);
  EXPECT_EQ("No widget with this name\nNothing to clean\n", noInfo.out);
  EXPECT_EQ(1u, lines(noInfo.err).size());
  Result empty = run({"list"});
  EXPECT_EQ(0, empty.status);
  EXPECT_EQ("Nothing to clean\n", empty.out);
}

TEST_F(WidgetctlTest, FailedInstallPassesTheEngineLinesAndGivesOneReason) {
  const std::string url = "file://" + dir.path() + "/missing.wgt";
  Result result = run({"install", url});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(
      "[Downloading...]\n\nCould not download file\nError while downloading\n"
      "Download cleaned\nNothing to clean\n",
      result.out);
  EXPECT_EQ("widgetctl: could not install " + url + "\n", result.err);
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetctlTest, CheckShowsWhatAnInstallWouldRecordAndTouchesNothing) {
  const std::string package = samplePackage("sample-clock.wgt");
  // The widget root given to check does not even exist: it must stay so.
  TempDir::removeTree(root);
  Result result = run({"check", package});
  EXPECT_EQ(0, result.status) << result.out << result.err;
  EXPECT_EQ("", result.err);
  const std::string& out = result.out;
  EXPECT_NE(std::string::npos, out.find("[Parsing config.xml...]\n"));
  EXPECT_NE(std::string::npos, out.find("\nname:          sample-clock\n"));
  EXPECT_NE(std::string::npos, out.find("\ntitle:         Sample Clock\n"));
  EXPECT_NE(std::string::npos, out.find("\nversion:       1.0\n"));
  EXPECT_NE(std::string::npos, out.find("\nwidth:         320\n"));
  EXPECT_NE(std::string::npos,
            out.find("\nlaunch URL:    file://<widget "
                     "root>/widget_sample-clock/index.html\n"));
  EXPECT_NE(std::string::npos, out.find("\nstart file:    index.html\n"));
  EXPECT_NE(
      std::string::npos,
      out.find("\nicon:          icon.png (16x16)\nicon:          icon.svg\n"));
  EXPECT_NE(std::string::npos,
            out.find("\nfile:          locales/de/index.html\n"));
  EXPECT_NE(std::string::npos, out.find("\nname [fr]:     Horloge exemple\n"));
  EXPECT_EQ("result:        the package would install", lastLine(out));

  EXPECT_FALSE(TempDir::exists(root));
  EXPECT_TRUE(TempDir::listDirectory(conf).empty());
  EXPECT_TRUE(TempDir::listDirectory(tmp).empty());
}

TEST_F(WidgetctlTest, CheckOfADefectivePackageSaysWhyAndTouchesNothing) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget><name>x</name></widget>")
      .addFile("index.html", "<p/>");
  const std::string package = writePackage("bad.wgt", zip);
  Result result = run({"check", package});
  EXPECT_EQ(1, result.status);
  EXPECT_NE(
      std::string::npos,
      result.out.find(
          "Widget configuration document is invalid\nError while parsing\n"));
  const std::vector<std::string> errors = lines(result.err);
  ASSERT_FALSE(errors.empty());
  EXPECT_EQ("widgetctl: " + package +
                " would not install: config.xml was rejected (status 8)",
            errors.back());
  EXPECT_TRUE(TempDir::listDirectory(conf).empty());
  EXPECT_TRUE(TempDir::listDirectory(tmp).empty());
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetctlTest, CheckOfAMissingPackageFails) {
  Result result = run({"check", dir.path() + "/nothing.wgt"});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("widgetctl: cannot read the package file " + dir.path() +
                "/nothing.wgt\n",
            result.err);
  EXPECT_EQ("", result.out);
  EXPECT_TRUE(TempDir::listDirectory(tmp).empty());
}

}  // namespace
