// SPDX-License-Identifier: Apache-2.0
// widgetctl as its users run it: the built program in a child process, with
// its widget root, registry and temporary directory inside a TempDir.

#include <fcntl.h>
#include <sys/file.h>
#include <pty.h>
#include <gtest/gtest.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include <signal.h>

#include <nlohmann/json.hpp>
#include <sqlite3.h>
#include <zip.h>

#include <widgetengine/WidgetEngineDelegate.h>

#include "testing/ChildProcess.h"
#include "testing/FileWatch.h"
#include "testing/HttpServer.h"
#include "testing/Listener.h"
#include "testing/ManualPage.h"
#include "testing/OutputChecks.h"
#include "testing/TempDir.h"
#include "testing/TestPki.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"
#include "tools/widgetctl/WidgetctlRun.h"

namespace {

const char kSample[] = WIDGETENGINE_SOURCE_DIR "/tools/sample-widget/";

class WidgetctlTest : public WidgetctlRun {
 protected:
  // Starts `widgetctl check package` in child; passes once the check has
  // made its folder in tmp and marked it as in use.
  ::testing::AssertionResult startCheckAndWaitForItsFolder(ChildProcess& child,
                                                           const std::string& package) {
    FileWatch watch(tmp);
    start(child, {"check", package});
    const bool marked = watch.waitFor([&] {
      for (const std::string& name : TempDir::listDirectory(tmp))
        if (TempDir::exists(tmp + "/" + name + "/.alive")) return true;
      return false;
    });
    if (marked) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "the check never made its folder";
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
};

const char* const kCommandNames[] = {"install", "list",  "info",   "map", "is-widget",
                                     "remove",  "check", "doctor", "sign", "help"};
const char* const kOptionNames[] = {"--lang",   "--json",      "--quiet",
                                    "--strict", "--repair",    "--reinstall",
                                    "--remove-orphans", "--key", "--cert",
                                    "--distributor", "--exclusive-c14n",
                                    "--version", "--help"};

TEST_F(WidgetctlTest, HelpDescribesTheToolEachCommandAndTheExitCodes) {
  Result help = run({"--help"});
  EXPECT_EQ(0, help.status);
  EXPECT_EQ(0u, help.out.find("Usage: widgetctl [OPTIONS] COMMAND"));
  EXPECT_EQ("", help.err);
  for (const char* command : kCommandNames) {
    SCOPED_TRACE(command);
    EXPECT_NE(std::string::npos, help.out.find(std::string("  ") + command + " "));
    for (const std::vector<std::string>& ask :
         {std::vector<std::string>{command, "--help"},
          std::vector<std::string>{"help", command}}) {
      Result one = run(ask);
      EXPECT_EQ(0, one.status);
      EXPECT_EQ(0u, one.out.find(std::string("Usage: widgetctl ") + command));
      EXPECT_EQ("", one.err);
    }
  }
  for (const char* option : kOptionNames)
    EXPECT_NE(std::string::npos, help.out.find(option)) << option;
  for (const char* code : {"0 success", "1 the engine answered no", "2 usage",
                           "3 the environment failed"})
    EXPECT_NE(std::string::npos, help.out.find(code)) << code;
  EXPECT_TRUE(TempDir::listDirectory(conf).empty());
}

TEST_F(WidgetctlTest, ManualPageNamesEveryCommandOptionAndExitCode) {
  const std::string page =
      TempDir::readFile(WIDGETENGINE_SOURCE_DIR "/tools/widgetctl/widgetctl.1");
  ASSERT_FALSE(page.empty());
  for (const char* command : kCommandNames) {
    EXPECT_TRUE(page.find(std::string("\\fB") + command) != std::string::npos ||
                page.find(std::string(".B ") + command) != std::string::npos)
        << command;
  }
  for (const char* option : kOptionNames)
    EXPECT_NE(std::string::npos, page.find(roffDashes(option))) << option;
  for (const char* code : {".B 0\n", ".B 1\n", ".B 2\n", ".B 3\n"})
    EXPECT_NE(std::string::npos, page.find(code)) << code;
  // Every variable the engine or the tool reads, and every fixed place.
  EXPECT_EQ(std::vector<std::string>(), missingEngineEntries(page));
  EXPECT_NE(std::string::npos, page.find(".B TMPDIR\n"));
  EXPECT_EQ("", manualWarnings(WIDGETENGINE_SOURCE_DIR "/tools/widgetctl/widgetctl.1"));
}

TEST_F(WidgetctlTest, BashCompletionOffersCommandsAndOptions) {
  const std::string script =
      "source /usr/share/bash-completion/bash_completion 2>/dev/null; "
      "source " WIDGETENGINE_SOURCE_DIR "/tools/widgetctl/widgetctl.bash-completion; "
      "COMP_WORDS=(widgetctl \"$1\"); COMP_CWORD=1; COMP_LINE=\"widgetctl $1\"; "
      "COMP_POINT=${#COMP_LINE}; _widgetctl; echo \"${COMPREPLY[*]}\"";
  for (const auto& asked : {std::make_pair(std::string("do"), std::string("doctor")),
                            std::make_pair(std::string("--re"),
                                           std::string("--repair --reinstall --remove-orphans")),
                            std::make_pair(std::string("i"), std::string("install info is-widget"))}) {
    ChildProcess bash;
    bash.start({"/bin/bash", "-c", script, "_", asked.first});
    bash.wait();
    const std::string out = bash.out();
    EXPECT_EQ(asked.second + "\n", out.substr(0, out.find('\n') + 1)) << asked.first;
  }
}

TEST_F(WidgetctlTest, UsageErrorsGiveOneLineAndStatus2) {
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"frobnicate"},
      {"install"},
      {"install", "a", "b"},
      {"list", "x"},
      {"info", "x", "--lang"},
      {"remove", "--force", "x"},
      {"check"},
      {"list", "--repair"},
      {"doctor", "--reinstall"},
      {"help", "nothing"}};
  for (const std::vector<std::string>& args : cases) {
    Result result = run(args);
    EXPECT_EQ(2, result.status) << (args.empty() ? "" : args[0]);
    EXPECT_EQ(1u, lines(result.err).size()) << result.err;
    EXPECT_EQ(0u, result.err.find("widgetctl: "));
    EXPECT_EQ("", result.out);
  }
}

TEST_F(WidgetctlTest, UsageErrorsWithJsonAnswerADocument) {
  struct Case {
    std::vector<std::string> args;
    nlohmann::json command;
    std::string error;
  };
  const std::vector<Case> cases = {
      {{"--json"}, nullptr, "no command given"},
      {{"--json", "--force", "list"}, nullptr, "unknown option --force"},
      {{"--force", "--json", "list"}, nullptr, "unknown option --force"},
      {{"--json", "frobnicate"}, nullptr, "unknown command frobnicate"},
      {{"--json", "install"}, "install", "install takes one argument"},
      {{"list", "--js", "--repair"}, "list",
       "--repair, --reinstall and --remove-orphans are for doctor"},
      {{"--json", "info", "x", "--lang"}, nullptr, "--lang needs a value"}};
  for (const Case& one : cases) {
    SCOPED_TRACE(one.error);
    Result result = run(one.args);
    EXPECT_EQ(2, result.status);
    nlohmann::json doc = document(result);
    ASSERT_TRUE(doc.is_object()) << result.out;
    EXPECT_EQ(one.command, doc["command"]);
    EXPECT_EQ(2, doc["exit"]);
    EXPECT_EQ(false, doc["ok"]);
    EXPECT_EQ(one.error, doc["error"]);
    EXPECT_EQ(nlohmann::json::array(), doc["engine"]);
    // The reason line stays where a person reads it.
    EXPECT_EQ(1u, lines(result.err).size()) << result.err;
    EXPECT_EQ(0u, result.err.find("widgetctl: " + one.error));
  }
  // After "--" nothing is an option, not even --json.
  Result plain = run({"frobnicate", "--", "--json"});
  EXPECT_EQ(2, plain.status);
  EXPECT_EQ("", plain.out);
}

TEST_F(WidgetctlTest, VersionWithJsonIsADocumentLikeEveryOther) {
  Result result = runWith({"--json", "--version"}, {{"YRA_DATA_PATH", conf}});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ("", result.err);
  nlohmann::json doc = document(result);
  ASSERT_TRUE(doc.is_object()) << result.out;
  EXPECT_EQ("version", doc["command"]);
  EXPECT_EQ(true, doc["ok"]);
  EXPECT_EQ(0, doc["exit"]);
  EXPECT_EQ(nlohmann::json::array(), doc["engine"]);
  EXPECT_EQ("1.0", doc["version"]);
  EXPECT_EQ(conf + "widget.db", doc["registryNow"]);
  EXPECT_FALSE(doc.contains("error"));
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

  // The answer alone on standard output: a script can cut it.
  Result list = run({"list"});
  EXPECT_EQ(0, list.status);
  EXPECT_EQ("sample-clock\t1.0\t" + launchURL + "\n", list.out);
  EXPECT_EQ("Nothing to clean\n", list.err);

  Result french = run({"info", "sample-clock", "--lang", "fr-FR,fr"});
  EXPECT_EQ(0, french.status);
  EXPECT_EQ(0u, french.out.find("name:          sample-clock\n"));
  EXPECT_NE(std::string::npos, french.out.find("\ntitle:         Horloge exemple\n"));
  EXPECT_NE(std::string::npos, french.out.find("\nshort title:   Horloge\n"));
  EXPECT_NE(std::string::npos,
            french.out.find("\nicon:          file://" + storage + "icon.png\n"));
  EXPECT_EQ("storage path:  " + storage, lastLine(french.out));

  // The reader's language comes from the environment, as a browser's does.
  Result german = runWith({"info", "sample-clock"}, {{"LANG", "de_DE.UTF-8"}});
  EXPECT_EQ(0, german.status);
  EXPECT_NE(std::string::npos, german.out.find("\ntitle:         Beispieluhr\n"));

  Result mapped = run({"map", launchURL, "--lang", "de"});
  EXPECT_EQ(0, mapped.status);
  EXPECT_EQ("file://" + storage + "/locales/de/index.html\n", mapped.out);
  Result unmapped = run({"map", "file://" + storage + "style.css", "--lang", "de"});
  EXPECT_EQ("file://" + storage + "style.css\n", unmapped.out);

  Result yes = run({"is-widget", launchURL});
  EXPECT_EQ(0, yes.status);
  EXPECT_EQ("yes\n", yes.out);
  Result no = run({"is-widget", "file://" + storage + "style.css"});
  EXPECT_EQ(1, no.status);
  EXPECT_EQ("no\n", no.out);
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
  EXPECT_EQ("widgetctl: no widget called sample-clock is installed "
            "(\"widgetctl list\" lists them)\n",
            missing.err);
  Result noInfo = run({"info", "sample-clock"});
  EXPECT_EQ(1, noInfo.status);
  EXPECT_EQ("", noInfo.out);
  Result empty = run({"list"});
  EXPECT_EQ(0, empty.status);
  EXPECT_EQ("", empty.out);
}

TEST_F(WidgetctlTest, EveryCommandSpeaksJson) {
  const std::string url = "file://" + samplePackage("sample-clock.wgt");
  const std::string launchURL = "file://" + root + "widget_sample-clock/index.html";
  Result install = run({"--json", "install", url});
  EXPECT_EQ(0, install.status);
  nlohmann::json doc = document(install);
  ASSERT_TRUE(doc.is_object()) << install.out;
  EXPECT_EQ("install", doc["command"]);
  EXPECT_EQ(true, doc["ok"]);
  EXPECT_EQ(0, doc["exit"]);
  EXPECT_EQ(launchURL, doc["launchURL"]);
  EXPECT_EQ(false, doc["installedBefore"]);
  ASSERT_TRUE(doc["engine"].is_array());
  EXPECT_EQ("[Downloading...]", doc["engine"][0]);
  EXPECT_NE(std::string::npos, install.err.find("[Downloading...]"));

  doc = document(run({"--json", "list"}));
  ASSERT_EQ(1u, doc["widgets"].size());
  EXPECT_EQ("sample-clock", doc["widgets"][0]["name"]);
  EXPECT_EQ(320, doc["widgets"][0]["width"]);
  doc = document(run({"--json", "--lang", "fr", "info", "sample-clock"}));
  EXPECT_EQ("Horloge exemple", doc["widget"]["title"]);
  doc = document(run({"--json", "--lang", "de", "map", launchURL}));
  EXPECT_EQ("file://" + root + "widget_sample-clock//locales/de/index.html", doc["mapped"]);
  doc = document(run({"--json", "map", "file:///elsewhere"}));
  EXPECT_TRUE(doc["mapped"].is_null());
  EXPECT_EQ("file:///elsewhere", doc["answer"]);
  doc = document(run({"--json", "is-widget", launchURL}));
  EXPECT_EQ(true, doc["widget"]);
  Result notWidget = run({"--json", "is-widget", "file:///elsewhere"});
  EXPECT_EQ(1, notWidget.status);
  doc = document(notWidget);
  EXPECT_EQ(false, doc["widget"]);
  EXPECT_EQ(false, doc["ok"]);
  EXPECT_TRUE(doc["error"].is_string());
  doc = document(run({"--json", "check", url.substr(7)}));
  ASSERT_EQ(1u, doc["packages"].size());
  EXPECT_EQ("install", doc["packages"][0]["verdict"]);
  EXPECT_TRUE(doc["packages"][0]["findings"].is_array());
  doc = document(run({"--json", "doctor"}));
  EXPECT_EQ(true, doc["healthy"]);
  doc = document(run({"--json", "remove", "sample-clock"}));
  EXPECT_EQ(true, doc["removed"]);
  doc = document(run({"--json", "--version"}));
  EXPECT_EQ("1.0", doc["version"]);
  EXPECT_TRUE(doc["schema"].is_string());
}

TEST_F(WidgetctlTest, FailedInstallPassesTheEngineLinesAndGivesOneReason) {
  const std::string url = "file://" + dir.path() + "/missing.wgt";
  Result result = run({"install", url});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ(
      "[Downloading...]\n\nCould not download file\nError while downloading\n"
      "Download cleaned\nNothing to clean\n",
      result.out);
  EXPECT_EQ("widgetctl: could not install " + url +
                ": the package could not be downloaded from " + url +
                "; check the address (package not found: " + url + ")\n",
            result.err);
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetctlTest, RefusedDownloadNamesTheHttpStatus) {
  HttpServer server;
  server.serve("/w/gone.wgt", 404, "<html>Not Found</html>");
  const std::string url = server.url("/w/gone.wgt");
  Result result = run({"install", url});
  EXPECT_EQ(1, result.status);
  EXPECT_NE(std::string::npos, result.out.find("Zip archive is not valid")) << result.out;
  EXPECT_EQ("widgetctl: could not install " + url +
                ": the package is not a valid widget archive; \"widgetctl check\" "
                "says why (HTTP status 404 from " + url + ")\n",
            result.err);
}

TEST_F(WidgetctlTest, NameTakenByAnotherWidgetNamesThatWidget) {
  const std::string first = samplePackage("clock.wgt");
  ASSERT_EQ(0, run({"install", first}).status);
  ASSERT_EQ(0, mkdir((packages + "other").c_str(), 0755));
  const std::string second = samplePackage("other/clock.wgt");
  Result result = run({"install", second});
  EXPECT_EQ(1, result.status);
  EXPECT_EQ("widgetctl: could not install file://" + second +
                ": the widget could not be recorded: The widget name clock is "
                "taken by the widget installed from file://" + first +
                "; remove that widget first\n",
            result.err);
}

TEST_F(WidgetctlTest, PlainPathsBecomeEscapedFileAddresses) {
  const std::string folder = packages + "my dir%1/";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  const std::string path = samplePackage("my dir%1/clock.wgt");
  Result result = run({"install", path});
  EXPECT_EQ(0, result.status) << result.err;
  EXPECT_NE(std::string::npos,
            result.out.find("Downloaded from file://" + packages + "my%20dir%251/clock.wgt"))
      << result.out;
  EXPECT_TRUE(TempDir::isDirectory(root + "widget_clock"));

  // A file name that needs escapes would give the widget a name whose
  // launch URL the browser reads as another directory: refused.
  const std::string spaced = samplePackage("my clock.wgt");
  Result refused = run({"install", spaced});
  EXPECT_EQ(1, refused.status);
  EXPECT_NE(std::string::npos,
            refused.out.find("the widget name taken from the address holds a "
                             "character that a file:// address cannot carry"))
      << refused.out;
  EXPECT_EQ(std::vector<std::string>({"tmp", "widget_clock"}),
            TempDir::listDirectory(root));
}

TEST_F(WidgetctlTest, UnusableRegistryIsTheEnvironmentsFailure) {
  for (const char* command : {"list", "info", "remove", "is-widget"}) {
    std::vector<std::string> args = {command};
    if (std::string(command) == "is-widget") {
      args.push_back("file://" + root + "widget_clock/index.html");
    } else if (std::string(command) != "list") {
      args.push_back("clock");
    }
    Result result = runWith(args, {{"YRA_DATA_PATH", dir.path() + "/no/such/dir/"}});
    EXPECT_EQ(3, result.status) << command << result.err;
    EXPECT_NE(std::string::npos, result.err.find("widgetctl: the registry ")) << result.err;
    EXPECT_EQ("", result.out) << command;
  }
  Result install = runWith({"install", samplePackage("clock.wgt")},
                           {{"YRA_DATA_PATH", dir.path() + "/no/such/dir/"}});
  EXPECT_EQ(3, install.status);
}

TEST_F(WidgetctlTest, DirectoryVariablesWithoutTheirSlashAreWarnedAbout) {
  Result result = runWith({"list"}, {{"YRA_DATA_PATH", conf.substr(0, conf.size() - 1)}});
  EXPECT_NE(std::string::npos,
            result.err.find("widgetctl: warning: YRA_DATA_PATH=" +
                            conf.substr(0, conf.size() - 1) +
                            " does not end with \"/\""))
      << result.err;
}

TEST_F(WidgetctlTest, CheckLintsEveryPackageAndEndsWithTheVerdict) {
  const std::string good = samplePackage("sample-clock.wgt");
  ZipBuilder warned;
  warned.addFile("config.xml",
                 "<widget xmlns=\"http://www.w3.org/ns/widgets\" width=\"wide\">"
                 "<name>x</name><icon src=\"missing.png\"/></widget>")
      .addFile("index.html", "<p/>");
  const std::string warning = writePackage("warned.wgt", warned);
  ZipBuilder refused;
  refused.addFile("config.xml", "<widget><name>x</name></widget>")
      .addFile("index.html", "<p/>");
  const std::string bad = writePackage("bad.wgt", refused);
  TempDir::removeTree(root);

  Result one = run({"check", good});
  EXPECT_EQ(0, one.status) << one.out << one.err;
  EXPECT_EQ(good + ": would install", lastLine(one.out));

  Result all = run({"check", good, warning, bad});
  EXPECT_EQ(1, all.status);
  EXPECT_NE(std::string::npos,
            all.out.find("warning: dimension-not-a-number"))
      << all.out;
  EXPECT_NE(std::string::npos, all.out.find("warning: declared-icon-missing"));
  EXPECT_NE(std::string::npos, all.out.find("error: schema-invalid config.xml:1:"));
  EXPECT_NE(std::string::npos, all.out.find(warning + ": would install\n"));
  EXPECT_EQ(bad + ": would be refused: config.xml was refused; \"widgetctl check\" "
                  "gives the line and the reason",
            lastLine(all.out));

  EXPECT_EQ(0, run({"check", warning}).status);
  EXPECT_EQ(1, run({"check", "--strict", warning}).status);
  EXPECT_EQ(0, run({"check", "--strict", good}).status);

  // Nothing of the real places, nothing left in the temporary folder.
  EXPECT_FALSE(TempDir::exists(root));
  EXPECT_TRUE(TempDir::listDirectory(conf).empty());
  EXPECT_TRUE(TempDir::listDirectory(tmp).empty());
}

TEST_F(WidgetctlTest, CheckDownloadsAnAddressOnceUnderItsName) {
  HttpServer server;
  server.serveFile("/w/sample-clock.wgt", samplePackage("sample-clock.wgt"));
  server.serve("/w/error.wgt", 404, "<html>Not found</html>");
  Result result = run({"check", server.url("/w/sample-clock.wgt"), server.url("/w/error.wgt")});
  EXPECT_EQ(1, result.status);
  EXPECT_NE(std::string::npos,
            result.out.find(server.url("/w/sample-clock.wgt") + ": would install\n"));
  EXPECT_NE(std::string::npos, result.out.find("error: not-a-zip-archive"));
  EXPECT_EQ(1, server.requestCount("/w/sample-clock.wgt"));
  EXPECT_TRUE(TempDir::listDirectory(tmp).empty());
}

TEST_F(WidgetctlTest, InterruptedCheckRemovesItsTemporaryFolder) {
  // A package large enough that the check is still running when Ctrl-C
  // comes.
  ZipBuilder big;
  big.addFile("config.xml", "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>b</name></widget>")
      .addFile("index.html", "<p/>");
  for (int i = 0; i < 3000; ++i) big.addFile("f/" + std::to_string(i) + ".txt", std::string(3000, 'a'));
  const std::string package = writePackage("big.wgt", big);
  const int kChecks = 4;
  int interrupted = 0, finished = 0;
  for (int i = 0; i < kChecks; ++i) {
    // Ctrl-C once the check has made and marked its folder.
    ChildProcess check;
    ASSERT_TRUE(startCheckAndWaitForItsFolder(check, package));
    check.kill(SIGINT);
    check.wait();
    if (check.shellStatus() == 128 + SIGINT)
      ++interrupted;
    else if (check.exitedWith(0))
      ++finished;  // it ended before the signal came
    const std::vector<std::string> left = TempDir::listDirectory(tmp);
    EXPECT_TRUE(left.empty()) << i << ": " << ::testing::PrintToString(left);
  }
  std::printf("%d of %d checks interrupted, %d finished first\n", interrupted, kChecks,
              finished);
  EXPECT_EQ(kChecks, interrupted + finished) << "a check ended otherwise";
  EXPECT_GT(interrupted, 0) << "every one of the checks ended before the signal";
}

TEST_F(WidgetctlTest, RemoveOfAWidgetWhoseDirectoryCannotGoSaysHowToRepairIt) {
  const std::string gone = samplePackage("gone.wgt");
  const std::string filed = samplePackage("filed.wgt");
  ASSERT_EQ(0, run({"install", gone}).status);
  ASSERT_EQ(0, run({"install", filed}).status);
  const std::string expected =
      "its directory cannot be deleted; if its files are gone, "
      "\"widgetctl doctor --repair\" removes it\n";

  // Its files gone, and in the place of its directory a file.
  TempDir::removeTree(root + "widget_gone");
  TempDir::removeTree(root + "widget_filed");
  TempDir::writeFile(root + "widget_filed", "not a directory");
  for (const char* name : {"gone", "filed"}) {
    Result refused = run({"remove", name});
    EXPECT_EQ(1, refused.status) << name;
    EXPECT_EQ("widgetctl: could not remove " + std::string(name) + ": " + expected,
              lastLine(refused.err) + "\n")
        << refused.err;
    EXPECT_NE(std::string::npos,
              refused.out.find("Error : can't delete this directory : " + root +
                               "widget_" + name + "/"))
        << refused.out;
  }

  // A widget that is not there has no directory that could not go.
  Result missing = run({"remove", "never-installed"});
  EXPECT_EQ(1, missing.status);
  EXPECT_EQ(std::string::npos, missing.err.find("cannot be deleted")) << missing.err;
}

TEST_F(WidgetctlTest, DoctorFindsAndRepairsEachKindOfDamage) {
  const std::string keeper = samplePackage("keeper.wgt");
  const std::string lost = samplePackage("lost.wgt");
  ASSERT_EQ(0, run({"install", keeper}).status);
  ASSERT_EQ(0, run({"install", lost}).status);
  Result healthy = run({"doctor"});
  EXPECT_EQ(0, healthy.status);
  EXPECT_EQ("registry and disk agree\n", healthy.out);

  // A widget's files gone, a stray directory, a dead installation's leftovers.
  TempDir::removeTree(root + "widget_lost");
  ASSERT_EQ(0, mkdir((root + "widget_stray").c_str(), 0755));
  TempDir::writeFile(root + "tmp/fileAb3dE9", "PK");
  TempDir::writeFile(root + ".widget_dead.lock",
                     "package " + root + "tmp/fileAb3dE9\nstorage " + root + "widget_dead/\n");
  Result found = run({"doctor"});
  EXPECT_EQ(1, found.status);
  EXPECT_NE(std::string::npos, found.out.find("missing-directory: lost " + root + "widget_lost/"));
  EXPECT_NE(std::string::npos, found.out.find("orphan-directory: " + root + "widget_stray/"));
  EXPECT_NE(std::string::npos, found.out.find("leftover-installation: " + root + "tmp/fileAb3dE9"));
  EXPECT_EQ(1, run({"remove", "lost"}).status);  // not removable as it is

  Result repaired = run({"doctor", "--repair"});
  EXPECT_EQ(1, repaired.status);  // the stray directory stays unless asked
  EXPECT_TRUE(TempDir::isDirectory(root + "widget_stray"));
  EXPECT_FALSE(TempDir::exists(root + "tmp/fileAb3dE9"));
  Result orphans = run({"doctor", "--repair", "--remove-orphans"});
  EXPECT_EQ(0, orphans.status) << orphans.out;
  EXPECT_FALSE(TempDir::exists(root + "widget_stray"));
  EXPECT_EQ("keeper\t1.0\tfile://" + root + "widget_keeper/index.html\n", run({"list"}).out);
  EXPECT_EQ(0, run({"doctor"}).status);

  // The whole widget root wiped (a reboot of /tmp): reinstalled from the
  // source addresses.
  TempDir::removeTree(root);
  Result wiped = run({"doctor", "--repair", "--reinstall"});
  EXPECT_EQ(0, wiped.status) << wiped.out << wiped.err;
  EXPECT_TRUE(TempDir::exists(root + "widget_keeper/index.html"));
  EXPECT_EQ(0, run({"doctor"}).status);
}

TEST_F(WidgetctlTest, DoctorRemovesCountersLeftForRegistriesThatAreGone) {
  // A process killed while it had a registry's change counter attached
  // leaves the counter behind.
  TempDir other;
  const std::string registry = other.file("widget.db");
  TempDir::writeFile(registry, "");
  struct stat status;
  ASSERT_EQ(0, stat(registry.c_str(), &status));
  ChildProcess killed;
  killed.start([&] {
    // An engine attaches the registry's counter at its first lookup.
    setenv("YRA_DATA_PATH", (other.path() + "/").c_str(), 1);
    RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
    engine->isWidget("file:///nothing");
    kill(getpid(), SIGKILL);
    return 1;
  });
  const pid_t child = killed.pid();
  killed.wait();
  ASSERT_TRUE(killed.crashed());
  // The counter is the segment the killed process made.
  int id = -1;
  struct shmid_ds segment;
  struct shm_info usage;
  const int highest = shmctl(0, SHM_INFO, reinterpret_cast<struct shmid_ds*>(&usage));
  for (int index = 0; index <= highest && id < 0; ++index) {
    const int found = shmctl(index, SHM_STAT, &segment);
    if (found >= 0 && segment.shm_cpid == child) id = found;
  }
  ASSERT_GE(id, 0);
  ASSERT_EQ(0, shmctl(id, IPC_STAT, &segment));
  ASSERT_EQ(child, segment.shm_cpid);

  // While the registry is there, the counter stays; once it is gone, doctor
  // removes it.
  EXPECT_EQ(0, run({"doctor"}).status);
  EXPECT_EQ(0, shmctl(id, IPC_STAT, &segment));
  ASSERT_EQ(0, unlink(registry.c_str()));
  Result doctor = run({"doctor"});
  EXPECT_EQ(0, doctor.status) << doctor.out << doctor.err;
  EXPECT_EQ("registry and disk agree\n", doctor.out);
  EXPECT_NE(0, shmctl(id, IPC_STAT, &segment));
}

TEST_F(WidgetctlTest, DoctorRepairsAKilledInstallationOnceWithCleanPaths) {
  // Large enough that the installation is still unpacking when it is killed.
  ZipBuilder big;
  big.addFile("config.xml", "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>b</name></widget>")
      .addFile("index.html", "<p/>");
  for (int i = 0; i < 3000; ++i) big.addFile("f/" + std::to_string(i) + ".txt", std::string(3000, 'a'));
  const std::string package = writePackage("big.wgt", big);
  // Killed once it has begun to unpack into the widget's directory.
  bool halfway = false;
  for (int attempt = 0; attempt < 3 && !halfway; ++attempt) {
    FileWatch watch(root);
    ChildProcess install;
    start(install, {"install", package});
    ASSERT_TRUE(watch.waitFor(
        [&] { return !TempDir::listDirectory(root + "widget_big/f").empty(); }))
        << "the installation never began to unpack";
    install.kill(SIGKILL);
    install.wait();
    halfway = install.shellStatus() == 128 + SIGKILL &&
              TempDir::isDirectory(root + "widget_big");
    if (install.exitedWith(0)) {
      ASSERT_EQ(0, run({"remove", "big"}).status);
    }
  }
  ASSERT_TRUE(halfway) << "no installation was killed while unpacking";

  Result found = run({"doctor"});
  EXPECT_EQ(1, found.status);
  // The root named through a link: the journal names it by its real path.
  const std::string link = dir.path() + "/root-link";
  ASSERT_EQ(0, symlink(root.c_str(), link.c_str()));
  Result repaired = runWith({"doctor", "--repair"}, {{"WIDGET_PATH", link + "/"}});
  EXPECT_EQ(0, repaired.status) << repaired.out;
  EXPECT_EQ(std::string::npos, repaired.out.find("orphan-directory")) << repaired.out;
  EXPECT_EQ(std::string::npos, repaired.out.find("//")) << repaired.out;
  const std::string line = "leftover-installation: " + root + "widget_big/ (repaired)\n";
  const size_t at = repaired.out.find(line);
  EXPECT_NE(std::string::npos, at) << repaired.out;
  EXPECT_EQ(std::string::npos, repaired.out.find(line, at + 1)) << repaired.out;
  EXPECT_NE(std::string::npos, repaired.out.find("everything found was repaired\n"));
  EXPECT_FALSE(TempDir::exists(root + "widget_big"));
  EXPECT_TRUE(TempDir::listDirectory(root + "tmp").empty());
  Result after = run({"doctor"});
  EXPECT_EQ(0, after.status) << after.out;
}

TEST_F(WidgetctlTest, DamagedPackageIsRefusedWithItsReasonAndCheckSaysSo) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>d</name></widget>")
      .addFile("index.html", "<p/>")
      .addFile("script.js", "var clockHands = 12;", ZipBuilder::kStored);
  const std::string package = writePackage("damaged.wgt", zip);
  std::string bytes = TempDir::readFile(package);
  const size_t at = bytes.find("clockHands");
  ASSERT_NE(std::string::npos, at);
  bytes[at + 9] = 'z';
  TempDir::writeFile(package, bytes);

  Result install = run({"install", package});
  EXPECT_EQ(1, install.status);
  EXPECT_NE(std::string::npos, install.out.find("Damaged file in archive: script.js\n"))
      << install.out;
  EXPECT_NE(std::string::npos,
            install.err.find(": the package is not a valid widget archive; "
                             "\"widgetctl check\" says why (damaged entry in "
                             "the package: script.js)\n"))
      << install.err;
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ("", run({"list"}).out);

  Result check = run({"check", package});
  EXPECT_EQ(1, check.status);
  EXPECT_NE(std::string::npos, check.out.find("error: entry-crc-mismatch script.js"));
  EXPECT_EQ(package + ": would be refused: the package is not a valid widget "
                      "archive; \"widgetctl check\" says why (damaged entry in "
                      "the package: script.js)",
            lastLine(check.out));
}

// AddressSanitizer's runtime and shadow memory add some 25 MiB to any
// program's peak, and so does qemu-user's translator under emulation; a
// mapped package would still add its 100 MiB on top.
#if defined(__SANITIZE_ADDRESS__) || defined(WIDGETENGINE_TEST_EMULATED)
constexpr long kInstallPeakKiB = 80 * 1024;
#else
constexpr long kInstallPeakKiB = 40 * 1024;
#endif

TEST_F(WidgetctlTest, InstallOfAHundredMegabytePackageStaysUnderFortyMegabytes) {
  // 100 MiB of incompressible files, stored and deflated, built and written
  // in a scope of its own so that the test holds none of it when it runs.
  std::string package;
  {
    ZipBuilder zip;
    zip.addFile("config.xml",
                "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>h</name></widget>")
        .addFile("index.html", "<p/>");
    std::string noise(10 << 20, '\0');
    unsigned state = 99;
    for (int i = 0; i < 10; ++i) {
      for (char& c : noise) {
        state = state * 1103515245u + 12345u;
        c = static_cast<char>(state >> 16);
      }
      zip.addFile("data/" + std::to_string(i) + ".bin", noise,
                  i % 2 ? ZipBuilder::kStored : 1);
    }
    package = writePackage("huge.wgt", zip);
  }
  struct stat info;
  ASSERT_EQ(0, stat(package.c_str(), &info));
  ASSERT_GT(info.st_size, 100 << 20);
  peakFile = dir.path() + "/peak.txt";
  Result install = run({"install", package});
  peakFile.clear();
  ASSERT_EQ(0, install.status) << install.err;
  const long peakKiB = std::stol(TempDir::readFile(dir.path() + "/peak.txt"));
  RecordProperty("peak_kib", std::to_string(peakKiB));
  std::printf("peak resident memory of the install: %ld KiB\n", peakKiB);
  EXPECT_LT(peakKiB, kInstallPeakKiB);
  EXPECT_EQ(0, run({"remove", "huge"}).status);
}

TEST_F(WidgetctlTest, VersionNamesTheCompiledInPlaces) {
  Result result = run({"--version"});
  EXPECT_EQ(0, result.status);
  EXPECT_EQ(0u, result.out.find("widgetctl 1.0 (libwidgetengine 1.0)\nschema:        "));
  EXPECT_NE(std::string::npos, result.out.find("\nregistry:      "));
  EXPECT_NE(std::string::npos, result.out.find("\nwidget root:   "));
}

TEST_F(WidgetctlTest, CheckOfAMissingPackageSaysWhy) {
  Result result = run({"check", dir.path() + "/nothing.wgt"});
  EXPECT_EQ(1, result.status);
  EXPECT_NE(std::string::npos,
            result.out.find(dir.path() + "/nothing.wgt: would be refused: cannot read "
                            "the package file"))
      << result.out;
  EXPECT_TRUE(TempDir::listDirectory(tmp).empty());
}

TEST_F(WidgetctlTest, InstallSpeaksNoOtherProtocolThanTheWebAndFiles) {
  Listener listener;
  for (const char* scheme : {"gopher", "dict", "telnet", "ftp", "smtp", "ldap"}) {
    const std::string url = std::string(scheme) + "://" + listener.hostPort() +
                            "/_SET%20key%20pwned%0D%0A/x.wgt";
    Result result = run({"install", url});
    EXPECT_EQ(1, result.status) << url;
    EXPECT_NE(std::string::npos,
              result.out.find("Refusing to download " + url + ": the protocol " +
                              scheme + " is not http, https or file\n"))
        << result.out;
    Result checked = run({"check", url});
    EXPECT_EQ(1, checked.status) << url;
  }
  std::string received;
  EXPECT_EQ(0, listener.connections(&received)) << received;
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetctlTest, CheckRemovesTheFoldersOfKilledChecks) {
  ZipBuilder big;
  big.addFile("config.xml", "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>b</name></widget>")
      .addFile("index.html", "<p/>");
  for (int i = 0; i < 3000; ++i) big.addFile("f/" + std::to_string(i) + ".txt", std::string(3000, 'a'));
  const std::string package = writePackage("big.wgt", big);
  // Killed outright once its folder is marked as in use.
  ChildProcess check;
  ASSERT_TRUE(startCheckAndWaitForItsFolder(check, package));
  check.kill(SIGKILL);
  check.wait();
  ASSERT_TRUE(check.crashed()) << "the check ended before the signal";
  ASSERT_EQ(1u, TempDir::listDirectory(tmp).size());

  // Beside it: the folder of a check still running (its marker locked), one
  // without a marker yet, and another user's.
  const std::string live = tmp + "/widgetctl-check-LiVe00";
  const std::string young = tmp + "/widgetctl-check-YoUnG0";
  ASSERT_EQ(0, mkdir(live.c_str(), 0700));
  ASSERT_EQ(0, mkdir(young.c_str(), 0700));
  TempDir::writeFile(live + "/.alive", "");
  const int held = open((live + "/.alive").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_EQ(0, flock(held, LOCK_EX));
  std::string theirs;
  if (geteuid() == 0) {
    theirs = tmp + "/widgetctl-check-ThEiRs";
    ASSERT_EQ(0, mkdir(theirs.c_str(), 0700));
    TempDir::writeFile(theirs + "/.alive", "");
    ASSERT_EQ(0, chown(theirs.c_str(), 65534, 65534));
  }

  EXPECT_EQ(0, run({"check", samplePackage("clock.wgt")}).status);
  std::vector<std::string> expected = {"widgetctl-check-LiVe00",
                                       "widgetctl-check-YoUnG0"};
  if (!theirs.empty()) expected.insert(expected.begin() + 1, "widgetctl-check-ThEiRs");
  EXPECT_EQ(expected, TempDir::listDirectory(tmp));
  close(held);
}

TEST_F(WidgetctlTest, DoctorReportsLinksAndRowsOutsideTheRootAndTouchesNeither) {
  ASSERT_EQ(0, run({"install", samplePackage("linked.wgt")}).status);
  ASSERT_EQ(0, run({"install", samplePackage("moved.wgt")}).status);
  // One widget's directory swapped for a link to a directory elsewhere; the
  // other's row pointing outside the root.
  const std::string elsewhere = dir.path() + "/elsewhere/";
  ASSERT_EQ(0, mkdir(elsewhere.c_str(), 0755));
  TempDir::writeFile(elsewhere + "precious", "keep");
  TempDir::removeTree(root + "widget_linked");
  ASSERT_EQ(0, symlink(elsewhere.c_str(), (root + "widget_linked").c_str()));
  TempDir::removeTree(root + "widget_moved");
  const std::string outside = dir.path() + "/out/widget_moved/";
  {
    sqlite3* db = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open((conf + "widget.db").c_str(), &db));
    const std::string sql = "UPDATE Widgets SET storagePath='" + outside +
                            "' WHERE name='moved'";
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr));
    sqlite3_close(db);
  }
  for (const char* repair : {"", "--repair"}) {
    std::vector<std::string> args = {"doctor"};
    if (*repair) args.push_back(repair);
    Result result = run(args);
    EXPECT_EQ(1, result.status);
    EXPECT_NE(std::string::npos,
              result.out.find("linked-directory: linked " + root + "widget_linked/\n"))
        << result.out;
    EXPECT_NE(std::string::npos,
              result.out.find("outside-root: moved " + outside + "\n"))
        << result.out;
  }
  EXPECT_EQ("keep", TempDir::readFile(elsewhere + "precious"));
  EXPECT_FALSE(TempDir::exists(dir.path() + "/out"));
  // Removing the linked widget takes the link, not what it points to.
  EXPECT_EQ(0, run({"remove", "linked"}).status);
  EXPECT_EQ("keep", TempDir::readFile(elsewhere + "precious"));
  EXPECT_FALSE(TempDir::exists(root + "widget_linked"));
}

TEST_F(WidgetctlTest, InstallShowsProgressOnATerminalOnly) {
  ZipBuilder zip;
  zip.addFile("config.xml", TempDir::readFile(std::string(kSample) + "config.xml"));
  zip.addFile("index.html", "<p>clock</p>");
  std::string noise(2 * 1024 * 1024, '\0');
  unsigned state = 11;
  for (char& c : noise) c = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
  zip.addFile("noise.bin", noise, ZipBuilder::kStored);
  HttpServer server;
  server.serveFile("/w/clock.wgt", writePackage("clock.wgt", zip));
  const std::string url = server.url("/w/clock.wgt");

  const std::string shown = runOnTerminal(tmp, {"install", url});
  EXPECT_NE(std::string::npos, shown.find("\r\033[Kdownloading: ")) << shown;
  EXPECT_NE(std::string::npos, shown.find(" MB (100%)")) << shown;
  EXPECT_NE(std::string::npos, shown.find("\r\033[Kunpacking: 3 of 3 entries"))
      << shown;
  // The line is wiped before the engine's lines and the answer come.
  const size_t wiped = shown.rfind("\r\033[K");
  EXPECT_EQ(wiped + 4, shown.find("[Downloading...]", wiped)) << shown.substr(wiped);
  EXPECT_NE(std::string::npos, shown.find("widget_clock/index.html")) << shown;

  ASSERT_EQ(0, run({"remove", "clock"}).status);
  Result piped = run({"install", url});
  EXPECT_EQ(0, piped.status);
  EXPECT_EQ("", piped.err);
  EXPECT_EQ(std::string::npos, piped.out.find("downloading: "));

  ASSERT_EQ(0, run({"remove", "clock"}).status);
  const std::string quiet = runOnTerminal(tmp, {"--quiet", "install", url});
  EXPECT_EQ(std::string::npos, quiet.find("downloading: ")) << quiet;
  EXPECT_EQ(std::string::npos, quiet.find("unpacking: ")) << quiet;
  EXPECT_NE(std::string::npos, quiet.find("widget_clock/index.html")) << quiet;
}

TEST_F(WidgetctlTest, LangTakesABrowsersAcceptLanguageHeader) {
  ASSERT_EQ(0, run({"install", samplePackage("sample-clock.wgt")}).status);
  Result french = run({"info", "sample-clock", "--lang", "de-CH;q=0.2, fr;q=0.9, *;q=0.1"});
  EXPECT_EQ(0, french.status) << french.err;
  EXPECT_NE(std::string::npos, french.out.find("\ntitle:         Horloge exemple\n"))
      << french.out;
  Result german = run({"info", "sample-clock", "--lang", "fr;q=0.5,de"});
  EXPECT_NE(std::string::npos, german.out.find("\ntitle:         Beispieluhr\n"))
      << german.out;
}

}  // namespace

// Signed widgets: widgetctl signs them with keys and certificates of the
// tests' own authority, and check, info and doctor judge them against a
// folder of trust anchors that holds its root.
class WidgetctlSignatureTest : public WidgetctlTest {
 protected:
  void SetUp() override {
    WidgetctlTest::SetUp();
    ASSERT_EQ(0, mkdir(anchors.c_str(), 0755));
    TempDir::writeFile(anchors + "/root.pem", pki.root);
    TempDir::writeFile(keys + "root.pem", pki.root);
    for (const auto& signer : {std::make_pair("author", &pki.author),
                               std::make_pair("distributor", &pki.distributor),
                               std::make_pair("stranger", &pki.stranger)}) {
      TempDir::writeFile(keys + signer.first + ".key", signer.second->key);
      TempDir::writeFile(keys + signer.first + ".pem", signer.second->chain);
    }
  }

  // widgetctl with the tests' trust anchors and the signature policy given
  // ("" leaves it unset).
  Result runSigned(const std::vector<std::string>& args, const std::string& policy = "") {
    return runWith(args, {{"WIDGETENGINE_TRUST_ANCHORS", anchors},
                          {"WIDGETENGINE_SIGNATURES", policy}});
  }

  Result sign(const std::string& target, const std::string& signer = "author",
              const std::vector<std::string>& more = {}) {
    std::vector<std::string> args = {"sign", "--key", keys + signer + ".key",
                                     "--cert", keys + signer + ".pem"};
    args.insert(args.end(), more.begin(), more.end());
    args.push_back(target);
    return run(args);
  }

  // The bundled sample widget, unpacked into a folder of the test; the
  // folder's path.
  std::string sampleFolder(const std::string& name) {
    const std::string folder = dir.file(name);
    for (const char* sub : {"", "/locales", "/locales/fr", "/locales/de"})
      EXPECT_EQ(0, mkdir((folder + sub).c_str(), 0755));
    for (const char* file : kSampleFiles)
      TempDir::writeFile(folder + "/" + file, TempDir::readFile(std::string(kSample) + file));
    return folder;
  }

  // The files of folder (its sample files and signature documents) packed
  // under fileName, the document named last.
  std::string pack(const std::string& folder, const std::string& fileName,
                   const std::vector<std::string>& documents = {"author-signature.xml"}) {
    ZipBuilder zip;
    for (const char* file : kSampleFiles)
      zip.addFile(file, TempDir::readFile(folder + "/" + file));
    for (const std::string& document : documents)
      zip.addFile(document, TempDir::readFile(folder + "/" + document));
    return writePackage(fileName, zip);
  }

  // A sample package signed by its author (through a folder, by widgetctl).
  std::string signedPackage(const std::string& fileName) {
    const std::string folder = sampleFolder(fileName + ".d");
    EXPECT_EQ(0, sign(folder).status);
    return pack(folder, fileName);
  }

  // xmlsec1 verifies the document in folder against the tests' root; its
  // exit status, with its output in *output.
  int xmlsec1Verifies(const std::string& folder, const std::string& document,
                      std::string* output) {
    ChildProcess xmlsec1;
    xmlsec1.mergeOutput();
    xmlsec1.setDirectory(folder);
    xmlsec1.start({"/usr/bin/xmlsec1", "--verify", "--trusted-pem", keys + "root.pem",
                   "--id-attr:Id", "http://www.w3.org/2000/09/xmldsig#:Object", document});
    xmlsec1.wait();
    *output = xmlsec1.out();
    return xmlsec1.shellStatus();
  }

  // The names of the package's entries, in their order.
  static std::vector<std::string> entries(const std::string& package) {
    std::vector<std::string> names;
    int error = 0;
    zip_t* archive = zip_open(package.c_str(), ZIP_RDONLY, &error);
    if (!archive) return names;
    for (zip_int64_t i = 0; i < zip_get_num_entries(archive, 0); ++i)
      names.push_back(zip_get_name(archive, static_cast<zip_uint64_t>(i), 0));
    zip_discard(archive);
    return names;
  }

  static constexpr const char* kSampleFiles[] = {
      "config.xml", "index.html", "style.css", "clock.js", "icon.png", "icon.svg",
      "locales/fr/index.html", "locales/de/index.html"};

  const TestPki& pki = TestPki::get();
  const std::string anchors = dir.path() + "/anchors";
  const std::string keys = packages;
};

TEST_F(WidgetctlSignatureTest, SignedFolderVerifiesWithXmlsec1) {
  const std::string folder = sampleFolder("clock");
  Result author = sign(folder);
  EXPECT_EQ(0, author.status) << author.err;
  EXPECT_EQ("signed " + folder + ": wrote author-signature.xml\n", author.out);
  EXPECT_EQ("", author.err);
  std::string output;
  EXPECT_EQ(0, xmlsec1Verifies(folder, "author-signature.xml", &output)) << output;

  Result distributor = sign(folder, "distributor", {"--distributor", "--exclusive-c14n"});
  EXPECT_EQ(0, distributor.status) << distributor.err;
  EXPECT_EQ("signed " + folder + ": wrote signature1.xml\n", distributor.out);
  EXPECT_EQ(0, xmlsec1Verifies(folder, "signature1.xml", &output)) << output;
  EXPECT_NE(std::string::npos,
            TempDir::readFile(folder + "/signature1.xml").find("xml-exc-c14n#"));
  Result again = sign(folder, "distributor", {"--distributor"});
  EXPECT_EQ("signed " + folder + ": wrote signature2.xml\n", again.out);

  // The author signing again breaks what the distributors signed: said.
  Result anew = sign(folder);
  EXPECT_EQ(0, anew.status) << anew.err;
  EXPECT_EQ("widgetctl: warning: signature2.xml signs the author signature this "
            "replaces; sign as that distributor again\n"
            "widgetctl: warning: signature1.xml signs the author signature this "
            "replaces; sign as that distributor again\n",
            anew.err);
}

TEST_F(WidgetctlSignatureTest, SignedPackageIsReplacedInPlaceAndInstallsUnderRequire) {
  const std::string package = samplePackage("clock.wgt");
  ASSERT_EQ(0, chmod(package.c_str(), 0640));
  Result signedIt = sign(package);
  EXPECT_EQ(0, signedIt.status) << signedIt.err;
  EXPECT_EQ("signed " + package + ": wrote author-signature.xml\n", signedIt.out);
  // config.xml first, the other entries in their order, the new document last.
  std::vector<std::string> expected(std::begin(kSampleFiles), std::end(kSampleFiles));
  expected.push_back("author-signature.xml");
  EXPECT_EQ(expected, entries(package));
  struct stat status;
  ASSERT_EQ(0, stat(package.c_str(), &status));
  EXPECT_EQ(0640u, status.st_mode & 0777);
  // Nothing left beside it, nor in the temporary directory.
  EXPECT_EQ(std::vector<std::string>({"author.key", "author.pem", "clock.wgt",
                                      "distributor.key", "distributor.pem", "root.pem",
                                      "stranger.key", "stranger.pem"}),
            TempDir::listDirectory(packages));
  EXPECT_TRUE(TempDir::listDirectory(tmp).empty());

  Result distributor = sign(package, "distributor", {"--distributor"});
  EXPECT_EQ(0, distributor.status) << distributor.err;
  expected.push_back("signature1.xml");
  EXPECT_EQ(expected, entries(package));

  Result install = runSigned({"install", package}, "require");
  EXPECT_EQ(0, install.status) << install.out << install.err;
  // The installed widget is the package unpacked: xmlsec1 agrees.
  std::string output;
  EXPECT_EQ(0, xmlsec1Verifies(root + "widget_clock", "author-signature.xml", &output))
      << output;
  EXPECT_EQ(0, xmlsec1Verifies(root + "widget_clock", "signature1.xml", &output)) << output;
}

TEST_F(WidgetctlSignatureTest, SignReadsAndWritesPathsFromWhereItRuns) {
  samplePackage("clock.wgt");
  ChildProcess child;
  child.setDirectory(packages);
  start(child, {"sign", "--key", "author.key", "--cert", "author.pem", "clock.wgt"});
  child.wait();
  EXPECT_EQ(0, child.shellStatus()) << child.err();
  EXPECT_EQ("signed clock.wgt: wrote author-signature.xml\n", child.out());
  EXPECT_EQ("author-signature.xml", entries(packages + "clock.wgt").back());
  EXPECT_EQ(0, runSigned({"install", packages + "clock.wgt"}, "require").status);
}

TEST_F(WidgetctlSignatureTest, SignRefusesWhatItCannotSignAndLeavesItAsItWas) {
  const std::string package = samplePackage("clock.wgt");
  const std::string before = TempDir::readFile(package);
  Result noKey = run({"sign", "--cert", keys + "author.pem", package});
  EXPECT_EQ(2, noKey.status);
  EXPECT_EQ("widgetctl: sign needs --key and --cert (see \"widgetctl help sign\")\n",
            noKey.err);
  Result keyElsewhere = run({"check", "--key", keys + "author.key", package});
  EXPECT_EQ(2, keyElsewhere.status);

  Result missing = run({"sign", "--key", keys + "none.key", "--cert",
                        keys + "author.pem", package});
  EXPECT_EQ(1, missing.status);
  EXPECT_EQ(0u, missing.err.find("widgetctl: cannot read the key " + keys + "none.key: "))
      << missing.err;
  // A key that is not the certificate's.
  Result mismatch = run({"sign", "--key", keys + "stranger.key", "--cert",
                         keys + "author.pem", package});
  EXPECT_EQ(1, mismatch.status);
  EXPECT_EQ(1u, lines(mismatch.err).size());
  EXPECT_EQ(0u, mismatch.err.find("widgetctl: could not sign " + package + ": "));

  const std::string notAZip = packages + "notes.wgt";
  TempDir::writeFile(notAZip, "<html>not found</html>");
  Result refused = sign(notAZip);
  EXPECT_EQ(1, refused.status);
  EXPECT_EQ(0u, refused.err.find("widgetctl: could not sign " + notAZip + ": "));
  EXPECT_EQ("<html>not found</html>", TempDir::readFile(notAZip));

  // A folder that is not a widget (a slip of the path) is not signed.
  const std::string notAWidget = dir.file("keys-only");
  ASSERT_EQ(0, mkdir(notAWidget.c_str(), 0755));
  TempDir::writeFile(notAWidget + "/secret.key", "private");
  Result stray = sign(notAWidget);
  EXPECT_EQ(1, stray.status);
  EXPECT_EQ("widgetctl: could not sign " + notAWidget + ": " + notAWidget +
                " is not an unpacked widget (no config.xml)\n",
            stray.err);
  EXPECT_EQ(std::vector<std::string>({"secret.key"}), TempDir::listDirectory(notAWidget));

  Result json = run({"--json", "sign", "--key", keys + "stranger.key", "--cert",
                     keys + "author.pem", package});
  const nlohmann::json answer = document(json);
  EXPECT_EQ("sign", answer["command"]);
  EXPECT_EQ(1, answer["exit"]);
  EXPECT_TRUE(answer["written"].is_null());

  EXPECT_EQ(before, TempDir::readFile(package));
  EXPECT_EQ(std::vector<std::string>({"author.key", "author.pem", "clock.wgt",
                                      "distributor.key", "distributor.pem", "notes.wgt",
                                      "root.pem", "stranger.key", "stranger.pem"}),
            TempDir::listDirectory(packages));
  EXPECT_TRUE(TempDir::listDirectory(tmp).empty());
}

TEST_F(WidgetctlSignatureTest, CheckGivesEverySignaturesVerdict) {
  const std::string good = signedPackage("good.wgt");
  Result valid = runSigned({"check", good});
  EXPECT_EQ(0, valid.status) << valid.out << valid.err;
  EXPECT_TRUE(hasLinesInOrder(
      valid.out, {"signatures: checked against 1 trust anchor in " + anchors,
                  "  author-signature.xml: valid (author)",
                  "    signed by:  " + pki.author.subject,
                  "    anchor:     " + pki.rootSubject, good + ": would install"}))
      << valid.out;
  EXPECT_EQ(std::string::npos, valid.out.find("failed:"));

  // A file changed after signing, and one added.
  const std::string folder = dir.file("good.wgt.d");
  TempDir::writeFile(folder + "/index.html", "<p>changed</p>");
  TempDir::writeFile(folder + "/extra.js", "1");
  ZipBuilder zip;
  for (const char* file : kSampleFiles) zip.addFile(file, TempDir::readFile(folder + "/" + file));
  zip.addFile("extra.js", "1");
  zip.addFile("author-signature.xml", TempDir::readFile(folder + "/author-signature.xml"));
  const std::string changed = writePackage("changed.wgt", zip);
  Result invalid = runSigned({"check", changed});
  EXPECT_EQ(0, invalid.status);  // the engine installs it while no policy asks
  EXPECT_TRUE(hasLinesInOrder(invalid.out,
                           {"  author-signature.xml: invalid (author)",
                            "    failed:     signature-file-not-referenced: extra.js",
                            "    failed:     digest-mismatch: index.html",
                            changed + ": would install"}))
      << invalid.out;
  EXPECT_EQ(1, runSigned({"check", "--strict", changed}).status);
  Result required = runSigned({"check", changed}, "require");
  EXPECT_EQ(1, required.status);
  EXPECT_EQ(changed + ": would be refused: its signatures do not hold, and "
                      "WIDGETENGINE_SIGNATURES=require refuses it; \"widgetctl check\" "
                      "gives each signature's verdict (signature-file-not-referenced: "
                      "extra.js)",
            lastLine(required.out));

  // Under no trust anchor at all, the signer is no one the device trusts.
  Result untrusted = runWith({"check", good}, {{"WIDGETENGINE_TRUST_ANCHORS", tmp}});
  EXPECT_NE(std::string::npos,
            untrusted.out.find("signatures: checked against 0 trust anchors in " + tmp))
      << untrusted.out;
  EXPECT_NE(std::string::npos, untrusted.out.find("failed:     untrusted-signer: "));

  Result json = runSigned({"--json", "check", good, changed});
  const nlohmann::json answer = document(json);
  ASSERT_TRUE(answer.is_object()) << json.out;
  const nlohmann::json& first = answer["packages"][0]["signatures"];
  EXPECT_EQ(true, first["checked"]);
  EXPECT_EQ("off", first["policy"]);
  EXPECT_EQ(anchors, first["trustAnchors"]);
  EXPECT_EQ(1, first["trustAnchorCount"]);
  EXPECT_EQ(true, first["signed"]);
  EXPECT_EQ(true, first["valid"]);
  EXPECT_EQ("author-signature.xml", first["author"]["file"]);
  EXPECT_EQ(pki.author.subject, first["author"]["subject"]);
  EXPECT_EQ(95u, first["author"]["fingerprint"].get<std::string>().size());
  EXPECT_EQ(pki.rootSubject, first["author"]["anchor"]);
  const nlohmann::json& second = answer["packages"][1]["signatures"];
  EXPECT_EQ(false, second["valid"]);
  EXPECT_EQ(nlohmann::json({"author-signature.xml: signature-file-not-referenced: extra.js",
                            "author-signature.xml: digest-mismatch: index.html"}),
            second["failures"]);
}

TEST_F(WidgetctlSignatureTest, CheckOfAnUnsignedPackageSaysNothingOfSignaturesUnlessAsked) {
  const std::string plain = samplePackage("plain.wgt");
  Result quiet = runSigned({"check", plain});
  EXPECT_EQ(plain + ": would install\n", quiet.out);
  Result json = runSigned({"--json", "check", plain});
  EXPECT_FALSE(document(json)["packages"][0].contains("signatures")) << json.out;

  Result report = runSigned({"check", plain}, "report");
  EXPECT_EQ("signatures: checked against 1 trust anchor in " + anchors +
                "\n  not signed: the package carries no signature document\n" + plain +
                ": would install\n",
            report.out);
  Result require = runSigned({"check", plain}, "require");
  EXPECT_EQ(1, require.status);
  EXPECT_NE(std::string::npos, lastLine(require.out).find("(not-signed: "));
  // A signature document below the root is an ordinary file.
  ZipBuilder zip;
  for (const char* file : kSampleFiles)
    zip.addFile(file, TempDir::readFile(std::string(kSample) + file));
  zip.addFile("docs/author-signature.xml", "<not-a-signature/>");
  const std::string sub = writePackage("sub.wgt", zip);
  EXPECT_EQ(sub + ": would install\n", runSigned({"check", sub}).out);
}

TEST_F(WidgetctlSignatureTest, InfoShowsWhatTheInstallationFoundOfTheSignatures) {
  const std::string package = signedPackage("clock.wgt");
  ASSERT_EQ(0, sign(package, "distributor", {"--distributor"}).status);
  ASSERT_EQ(0, runSigned({"install", package}, "report").status);
  Result info = runSigned({"info", "clock"});
  EXPECT_EQ(0, info.status) << info.err;
  EXPECT_TRUE(hasLinesInOrder(
      info.out, {"storage path:  " + root + "widget_clock/",
                 "signatures:    valid (checked when installed, policy report)",
                 "  author-signature.xml: valid (author)",
                 "    signed by:  " + pki.author.subject,
                 "  signature1.xml: valid (distributor)",
                 "    signed by:  " + pki.distributor.subject}))
      << info.out;
  const nlohmann::json answer = document(runSigned({"--json", "info", "clock"}));
  EXPECT_EQ(true, answer["signatures"]["valid"]);
  EXPECT_EQ("report", answer["signatures"]["policy"]);
  EXPECT_EQ(pki.author.subject, answer["signatures"]["author"]["subject"]);
  EXPECT_EQ(pki.distributor.subject, answer["signatures"]["distributors"][0]["subject"]);

  // Installed with the policy off: info is what it always was.
  ASSERT_EQ(0, run({"install", samplePackage("plain.wgt")}).status);
  Result plain = run({"info", "plain"});
  EXPECT_EQ("storage path:  " + root + "widget_plain/", lastLine(plain.out));
  EXPECT_FALSE(document(run({"--json", "info", "plain"})).contains("signatures"));
}

TEST_F(WidgetctlSignatureTest, DoctorFindsASignedWidgetWhoseFilesChangedAndLeavesIt) {
  ASSERT_EQ(0, runSigned({"install", signedPackage("clock.wgt")}, "report").status);
  ASSERT_EQ(0, runSigned({"install", samplePackage("plain.wgt")}, "report").status);
  Result healthy = runSigned({"doctor"});
  EXPECT_EQ(0, healthy.status) << healthy.out;
  EXPECT_EQ("registry and disk agree\n", healthy.out);

  const std::string folder = root + "widget_clock/";
  TempDir::writeFile(folder + "clock.js", "alert(1)");
  TempDir::writeFile(root + "widget_plain/clock.js", "alert(1)");  // never signed
  Result found = runSigned({"doctor", "--repair"});
  EXPECT_EQ(1, found.status);
  EXPECT_EQ("signature-mismatch: clock " + folder +
                "\n  the files of widget clock no longer match its signatures "
                "(author-signature.xml: digest-mismatch: clock.js); doctor does not "
                "repair this: \"widgetctl remove clock\" and install it again from file://" +
                packages + "clock.wgt\nproblems found\n",
            found.out);
  EXPECT_EQ("alert(1)", TempDir::readFile(folder + "clock.js"));

  // The trust anchors withdrawn say nothing about the files.
  TempDir::writeFile(folder + "clock.js",
                     TempDir::readFile(std::string(kSample) + "clock.js"));
  Result withdrawn = runWith({"doctor"}, {{"WIDGETENGINE_TRUST_ANCHORS", tmp}});
  EXPECT_EQ(0, withdrawn.status) << withdrawn.out;
  TempDir::removeTree(folder + "author-signature.xml");
  const nlohmann::json answer = document(runSigned({"--json", "doctor"}));
  EXPECT_EQ("signature-mismatch", answer["problems"][0]["kind"]);
  EXPECT_NE(std::string::npos, answer["problems"][0]["detail"].get<std::string>().find(
                                   "author-signature.xml: the signature document is gone"));
}
