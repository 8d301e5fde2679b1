// SPDX-License-Identifier: Apache-2.0
// widgetctl update as its users run it: widgets installed from a real HTTP
// server on 127.0.0.1 that serves their update descriptions as a cache would
// (ETag, 304) and counts the bodies it sends, and the packages they offer.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/ConfigXml.h"
#include "testing/HttpServer.h"
#include "testing/ManualPage.h"
#include "testing/OutputChecks.h"
#include "testing/TempDir.h"
#include "testing/ZipBuilder.h"
#include "tools/widgetctl/WidgetctlRun.h"

namespace {

class UpdateTest : public WidgetctlRun {
 protected:
  // The address of a package of the widget name at version, in a folder of
  // its own on the server; its config.xml points at name's description
  // unless described is false, and has extra among its children; its start
  // page is index.html unless extra names another (<content src="main.html">).
  std::string package(const std::string& name, const std::string& version,
                      const std::string& extra = "", bool described = true) {
    ZipBuilder zip;
    zip.addFile("config.xml",
                configXml("<name>" + name + " " + version + "</name>" +
                              (described ? "<update-description href=\"" +
                                               descriptionURL(name) + "\"/>"
                                         : "") +
                              extra,
                          "version=\"" + version + "\""));
    const bool main = extra.find("<content src=\"main.html\"/>") != std::string::npos;
    zip.addFile(main ? "main.html" : "index.html", "<p>" + name + " " + version + "</p>");
    const std::string folder = name + "-" + version + "-" + std::to_string(++made_);
    EXPECT_EQ(0, mkdir((packages + folder).c_str(), 0755));
    const std::string path = folder + "/" + name + ".wgt";
    server.serveFile("/" + path, writePackage(path, zip));
    return server.url("/" + path);
  }

  std::string descriptionURL(const std::string& name) const {
    return server.url("/u/" + name + ".xml");
  }

  // name's description offers version from src, with details in English
  // and French.
  void offer(const std::string& name, const std::string& version,
             const std::string& src) {
    HttpServer::Resource description;
    description.body =
        "<update-info xmlns=\"http://www.w3.org/ns/widgets\" version=\"" + version +
        "\" src=\"" + src + "\"><details>Faster\n    and smaller.</details>"
        "<details xml:lang=\"fr\">Plus vite.</details></update-info>";
    description.etag = "\"" + name + "-" + version + "\"";
    server.serveResource("/u/" + name + ".xml", description);
  }

  // Installs the package at url; passes when widgetctl did.
  ::testing::AssertionResult install(const std::string& url) {
    const Result result = run({"install", url});
    if (result.status == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << result.out << result.err;
  }

  // The version widgetctl info gives for name, "" when it gives none.
  std::string version(const std::string& name) {
    const nlohmann::json doc = document(run({"--json", "info", name}));
    if (!doc.is_object() || !doc.contains("widget")) return std::string();
    return doc["widget"]["version"].get<std::string>();
  }

  std::string storage(const std::string& name) const {
    return root + "widget_" + name + "/";
  }

  HttpServer server;
  int made_ = 0;
};

TEST_F(UpdateTest, CheckSaysWhatIsOnOfferAndAnUnchangedDescriptionCostsA304) {
  ASSERT_TRUE(install(package("clock", "1.0")));
  ASSERT_TRUE(install(package("notes", "1.0", "", false)));
  offer("clock", "1.1", "1.1/clock.wgt");

  Result first = run({"update", "--check", "clock", "notes"});
  EXPECT_EQ(0, first.status) << first.err;
  EXPECT_EQ("clock 1.0 -> 1.1: Faster and smaller.\nnotes 1.0: no update description\n",
            first.out);
  Result french = run({"update", "--check", "--lang", "fr-CA,fr;q=0.8", "clock"});
  EXPECT_EQ(0, french.status) << french.err;
  EXPECT_EQ("clock 1.0 -> 1.1: Plus vite.\n", french.out);
  // The second check asked with the first answer's ETag and got a 304.
  EXPECT_EQ(2, server.requestCount("/u/clock.xml"));
  EXPECT_EQ(1, server.bodiesSent("/u/clock.xml"));
  EXPECT_NE(std::string::npos,
            server.lastRequest("/u/clock.xml").find("If-None-Match: \"clock-1.1\"\r\n"));

  // Every widget, in the engine's own words.
  Result all = run({"--json", "update", "--check"});
  EXPECT_EQ(0, all.status) << all.err;
  const nlohmann::json doc = document(all);
  ASSERT_TRUE(doc.is_object()) << all.out;
  EXPECT_EQ("update", doc["command"]);
  EXPECT_EQ(true, doc["ok"]);
  ASSERT_EQ(2u, doc["widgets"].size());
  EXPECT_EQ(nlohmann::json({{"name", "clock"},
                            {"installed", "1.0"},
                            {"updateDescription", descriptionURL("clock")},
                            {"checked", true},
                            {"notModified", true},
                            {"available", true},
                            {"version", "1.1"},
                            {"src", server.url("/u/1.1/clock.wgt")},
                            {"details", "Faster\n    and smaller."}}),
            doc["widgets"][0]);
  EXPECT_EQ(nlohmann::json({{"name", "notes"},
                            {"installed", "1.0"},
                            {"updateDescription", nullptr}}),
            doc["widgets"][1]);
  EXPECT_EQ(1, server.bodiesSent("/u/clock.xml"));

  // The same version on offer.
  offer("clock", "1.0", "1.0/clock.wgt");
  Result same = run({"update", "--check", "--all"});
  EXPECT_EQ(0, same.status) << same.err;
  EXPECT_EQ("clock 1.0: up to date\nnotes 1.0: no update description\n", same.out);

  // Nothing changed on either side.
  EXPECT_EQ("1.0", version("clock"));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock", "widget_notes"}));
}

TEST_F(UpdateTest, ACheckWithoutAnAnswerOrOfNoWidgetFails) {
  ASSERT_TRUE(install(package("clock", "1.0")));
  ASSERT_TRUE(install(package("notes", "1.0", "", false)));
  server.serve("/u/clock.xml", 404, "<html>Not Found</html>");

  Result gone = run({"update", "--check"});
  EXPECT_EQ(1, gone.status);
  EXPECT_EQ("notes 1.0: no update description\n", gone.out);
  EXPECT_EQ("widgetctl: could not check clock: HTTP status 404 from " +
                descriptionURL("clock"),
            lastLine(gone.err));

  Result json = run({"--json", "update", "--check", "clock"});
  EXPECT_EQ(1, json.status);
  const nlohmann::json doc = document(json);
  ASSERT_TRUE(doc.is_object()) << json.out;
  EXPECT_EQ(false, doc["widgets"][0]["checked"]);
  EXPECT_EQ(5, doc["widgets"][0]["refusal"]);
  EXPECT_EQ("could not check clock: HTTP status 404 from " + descriptionURL("clock"),
            doc["error"]);

  // A description that is no update-info, and one that moved.
  server.serve("/u/clock.xml", 200, "<html/>", {{"Content-Type", "application/xml"}});
  Result malformed = run({"update", "--check", "clock"});
  EXPECT_EQ(1, malformed.status);
  EXPECT_EQ("", malformed.out);
  EXPECT_EQ(0u, lastLine(malformed.err).find("widgetctl: could not check clock: "))
      << malformed.err;
  server.serveRedirect("/u/clock.xml", server.url("/u/elsewhere.xml"), "moved");
  Result moved = run({"update", "--check", "clock"});
  EXPECT_EQ(1, moved.status);
  EXPECT_EQ(0u, lastLine(moved.err).find("widgetctl: could not check clock: "))
      << moved.err;

  Result nobody = run({"update", "--check", "notes", "nobody"});
  EXPECT_EQ(1, nobody.status);
  EXPECT_EQ("notes 1.0: no update description\n", nobody.out);
  EXPECT_EQ(
      "widgetctl: no widget called nobody is installed (\"widgetctl list\" lists them)",
      lastLine(nobody.err));
}

TEST_F(UpdateTest, UpdateTakesThePackageTheDescriptionOffers) {
  const std::string first = package("clock", "1.0");
  ASSERT_TRUE(install(first));
  const std::string launch = "file://" + storage("clock") + "index.html";
  offer("clock", "1.1", "../" + package("clock", "1.1").substr(server.url("/").size()));

  Result updated = run({"update", "clock"});
  EXPECT_EQ(0, updated.status) << updated.out << updated.err;
  EXPECT_EQ("clock: updated 1.0 -> 1.1", lastLine(updated.out));
  EXPECT_EQ("1.1", version("clock"));
  EXPECT_EQ("<p>clock 1.1</p>", TempDir::readFile(storage("clock") + "index.html"));
  // The browser's addresses stay: the launch URL and where it came from.
  Result list = run({"list"});
  EXPECT_EQ("clock\t1.1\t" + launch + "\n", list.out);
  const nlohmann::json info = document(run({"--json", "info", "clock"}));
  EXPECT_EQ(first, info["widget"]["sourceURL"]);
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));

  // Now the description offers what is installed.
  Result again = run({"--json", "update", "clock"});
  EXPECT_EQ(0, again.status) << again.err;
  const nlohmann::json doc = document(again);
  ASSERT_TRUE(doc.is_object()) << again.out;
  ASSERT_EQ(1u, doc["widgets"].size());
  EXPECT_EQ("up to date", doc["widgets"][0]["result"]);
  EXPECT_EQ("1.1", doc["widgets"][0]["from"]);
  EXPECT_EQ(true, doc["widgets"][0]["check"]["notModified"]);
  Result plain = run({"update", "clock"});
  EXPECT_EQ("clock 1.1: up to date", lastLine(plain.out));
}

TEST_F(UpdateTest, FromTakesAGivenPackageWithoutADescription) {
  ASSERT_TRUE(install(package("notes", "1.0", "", false)));
  Result fromURL = run({"update", "notes", "--from", package("notes", "2.0", "", false)});
  EXPECT_EQ(0, fromURL.status) << fromURL.out << fromURL.err;
  EXPECT_EQ("notes: updated 1.0 -> 2.0", lastLine(fromURL.out));
  EXPECT_EQ("2.0", version("notes"));

  // A plain path, as install takes one.
  package("notes", "3.0", "", false);
  const std::string path = packages + "notes-3.0-" + std::to_string(made_) + "/notes.wgt";
  Result fromPath = run({"--json", "update", "--from", path, "notes"});
  EXPECT_EQ(0, fromPath.status) << fromPath.err;
  const nlohmann::json doc = document(fromPath);
  ASSERT_TRUE(doc.is_object()) << fromPath.out;
  EXPECT_EQ(nlohmann::json({{"name", "notes"},
                            {"result", "updated"},
                            {"from", "2.0"},
                            {"to", "3.0"},
                            {"src", "file://" + path},
                            {"refusal", nullptr},
                            {"reason", nullptr},
                            {"check", nullptr}}),
            doc["widgets"][0]);
  EXPECT_EQ("<p>notes 3.0</p>", TempDir::readFile(storage("notes") + "index.html"));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_notes"}));

  // A widget named without a description has nothing to update from.
  Result none = run({"update", "notes"});
  EXPECT_EQ(1, none.status);
  EXPECT_EQ(std::string::npos, none.out.find("notes:"));
  EXPECT_EQ("widgetctl: could not update notes: its config.xml names no update "
            "description (\"widgetctl update notes --from URL\" takes a package)",
            lastLine(none.err));
}

TEST_F(UpdateTest, AllUpdatesTheWidgetsOnOfferAndLeavesTheOthers) {
  ASSERT_TRUE(install(package("clock", "1.0")));
  ASSERT_TRUE(install(package("watch", "1.0")));
  ASSERT_TRUE(install(package("notes", "1.0", "", false)));
  offer("clock", "1.1", package("clock", "1.1"));
  offer("watch", "1.0", package("watch", "1.0"));
  const std::string watchFiles = TempDir::readFile(storage("watch") + "index.html");

  Result all = run({"update", "--all", "--jitter", "0"});
  EXPECT_EQ(0, all.status) << all.out << all.err;
  EXPECT_TRUE(hasLinesInOrder(all.out, {"clock: updated 1.0 -> 1.1",
                                        "watch 1.0: up to date",
                                        "notes 1.0: no update description"}))
      << all.out;
  EXPECT_EQ("1.1", version("clock"));
  EXPECT_EQ("1.0", version("watch"));
  EXPECT_EQ("1.0", version("notes"));
  EXPECT_EQ(watchFiles, TempDir::readFile(storage("watch") + "index.html"));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock", "widget_notes", "widget_watch"}));

  Result json = run({"--json", "update", "--all"});
  EXPECT_EQ(0, json.status) << json.err;
  const nlohmann::json doc = document(json);
  ASSERT_TRUE(doc.is_object()) << json.out;
  ASSERT_EQ(3u, doc["widgets"].size());
  for (const nlohmann::json& widget : doc["widgets"]) {
    EXPECT_EQ(widget["name"] == "notes" ? "no update description" : "up to date",
              widget["result"])
        << widget;
  }
}

TEST_F(UpdateTest, ARefusedUpdateLeavesTheOldWidgetAndSaysWhy) {
  ASSERT_TRUE(install(package("clock", "1.0")));
  ASSERT_TRUE(install(package("watch", "1.0")));
  const std::string before = TempDir::readFile(storage("clock") + "index.html");
  // Another start page cannot replace the widget in place.
  offer("clock", "1.1", package("clock", "1.1", "<content src=\"main.html\"/>"));
  offer("watch", "1.1", package("watch", "1.1"));

  Result refused = run({"update", "clock"});
  EXPECT_EQ(1, refused.status);
  EXPECT_EQ(std::string::npos, refused.out.find("updated"));
  const std::string reason = lastLine(refused.err);
  EXPECT_EQ(0u, reason.find("widgetctl: could not update clock to 1.1: ")) << reason;
  EXPECT_GT(reason.size(), std::string("widgetctl: could not update clock to 1.1: ").size());
  EXPECT_EQ("1.0", version("clock"));
  EXPECT_EQ(before, TempDir::readFile(storage("clock") + "index.html"));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock", "widget_watch"}));

  // With --all the others still go forward; the run fails.
  Result all = run({"--json", "update", "--all"});
  EXPECT_EQ(1, all.status);
  const nlohmann::json doc = document(all);
  ASSERT_TRUE(doc.is_object()) << all.out;
  EXPECT_EQ("refused", doc["widgets"][0]["result"]);
  EXPECT_EQ(23, doc["widgets"][0]["refusal"]);
  EXPECT_EQ("1.0", doc["widgets"][0]["from"]);
  EXPECT_EQ("updated", doc["widgets"][1]["result"]);
  EXPECT_EQ("1.1", doc["widgets"][1]["to"]);
  EXPECT_EQ(0u, doc["error"].get<std::string>().find("could not update clock to 1.1: "));
  EXPECT_EQ("1.0", version("clock"));
  EXPECT_EQ("1.1", version("watch"));
}

TEST_F(UpdateTest, UnknownNamesFail) {
  Result nobody = run({"update", "nobody"});
  EXPECT_EQ(1, nobody.status);
  EXPECT_EQ("", nobody.out);
  EXPECT_EQ(
      "widgetctl: no widget called nobody is installed (\"widgetctl list\" lists them)",
      lastLine(nobody.err));
  ASSERT_TRUE(install(package("clock", "1.0")));
  Result from = run({"update", "nobody", "--from", package("nobody", "1.0")});
  EXPECT_EQ(1, from.status);
  EXPECT_EQ(
      "widgetctl: no widget called nobody is installed (\"widgetctl list\" lists them)",
      lastLine(from.err));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
}

TEST_F(UpdateTest, UsageErrorsGiveOneLineAndStatus2) {
  const std::vector<std::vector<std::string>> cases = {
      {"update"},
      {"update", "--all", "clock"},
      {"update", "--from"},
      {"update", "--from", "x.wgt"},
      {"update", "clock", "watch", "--from", "x.wgt"},
      {"update", "--all", "--from", "x.wgt"},
      {"update", "--check", "clock", "--from", "x.wgt"},
      {"update", "clock", "--jitter", "5"},
      {"update", "--check", "clock", "--jitter", "5"},
      {"update", "--all", "--jitter", "86401"},
      {"update", "--all", "--jitter", "-1"},
      {"update", "--all", "--jitter", "soon"},
      {"list", "--all"},
      {"install", "x.wgt", "--from", "y.wgt"},
      {"doctor", "--check"}};
  for (const std::vector<std::string>& args : cases) {
    Result result = run(args);
    EXPECT_EQ(2, result.status) << testing::PrintToString(args);
    EXPECT_EQ(1u, lines(result.err).size()) << result.err;
    EXPECT_EQ(0u, result.err.find("widgetctl: "));
    EXPECT_EQ("", result.out);
  }
  // --j stays --json.
  Result json = run({"--j", "update"});
  EXPECT_EQ(2, json.status);
  EXPECT_EQ("update needs widget names or --all", document(json)["error"]);
}

TEST_F(UpdateTest, HelpManualAndCompletionKnowUpdate) {
  Result help = run({"--help"});
  EXPECT_NE(std::string::npos, help.out.find("\n  update "));
  for (const char* option : {"--check", "--all", "--from", "--jitter"})
    EXPECT_NE(std::string::npos, help.out.find(std::string("  ") + option + " ")) << option;
  for (const std::vector<std::string>& ask :
       {std::vector<std::string>{"update", "--help"},
        std::vector<std::string>{"help", "update"}}) {
    Result one = run(ask);
    EXPECT_EQ(0, one.status);
    EXPECT_EQ(0u, one.out.find("Usage: widgetctl update"));
    EXPECT_EQ("", one.err);
  }

  const std::string page =
      TempDir::readFile(WIDGETENGINE_SOURCE_DIR "/tools/widgetctl/widgetctl.1");
  EXPECT_NE(std::string::npos, page.find("\\fBupdate\\fR"));
  for (const char* option : {"--check", "--all", "--from", "--jitter"})
    EXPECT_NE(std::string::npos, page.find("\\fB" + roffDashes(option) + "\\fR")) << option;
  EXPECT_NE(std::string::npos, page.find(".B WIDGETENGINE_UPDATE_JITTER\n"));
  EXPECT_EQ("", manualWarnings(WIDGETENGINE_SOURCE_DIR "/tools/widgetctl/widgetctl.1"));

  const std::string script =
      "source /usr/share/bash-completion/bash_completion 2>/dev/null; "
      "source " WIDGETENGINE_SOURCE_DIR "/tools/widgetctl/widgetctl.bash-completion; "
      "COMP_WORDS=(widgetctl \"$1\"); COMP_CWORD=1; COMP_LINE=\"widgetctl $1\"; "
      "COMP_POINT=${#COMP_LINE}; _widgetctl; echo \"${COMPREPLY[*]}\"";
  for (const auto& asked : {std::make_pair(std::string("up"), std::string("update")),
                            std::make_pair(std::string("--ch"), std::string("--check")),
                            std::make_pair(std::string("--ji"), std::string("--jitter"))}) {
    ChildProcess bash;
    bash.start({"/bin/bash", "-c", script, "_", asked.first});
    bash.wait();
    const std::string out = bash.out();
    EXPECT_EQ(asked.second + "\n", out.substr(0, out.find('\n') + 1)) << asked.first;
  }
}

TEST_F(UpdateTest, UpdateShowsProgressOnATerminalOnly) {
  ASSERT_TRUE(install(package("clock", "1.0")));
  const std::string url = package("clock", "1.1");
  const std::string shown = runOnTerminal(tmp, {"update", "clock", "--from", url});
  EXPECT_NE(std::string::npos, shown.find("\r\033[Kdownloading: ")) << shown;
  EXPECT_NE(std::string::npos, shown.find("\r\033[Kunpacking: 2 of 2 entries")) << shown;
  EXPECT_NE(std::string::npos, shown.find("clock: updated 1.0 -> 1.1")) << shown;

  const std::string quiet =
      runOnTerminal(tmp, {"--quiet", "update", "clock", "--from", package("clock", "1.2")});
  EXPECT_EQ(std::string::npos, quiet.find("downloading: ")) << quiet;
  EXPECT_NE(std::string::npos, quiet.find("clock: updated 1.1 -> 1.2")) << quiet;
}

}  // namespace
