// SPDX-License-Identifier: Apache-2.0
// The engine as a browser drives it: every call goes through the delegate that
// createInstance() returns, packages come from a real HTTP server on
// 127.0.0.1 or from file:// URLs, and the engine's output is checked line by
// line in its order.

#include <gtest/gtest.h>
#include <unistd.h>
#include <widgetengine/WidgetEngineDelegate.h>

#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "testing/CaptureStdout.h"
#include "testing/ConfigXml.h"
#include "testing/HttpServer.h"
#include "testing/OutputChecks.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

// Every package here declares a version, so that installs trace its parsing.
const char kVersion[] = "version=\"1.0\"";

const char kLocalizedBody[] =
    "<name short=\"Clock\">Clock</name>"
    "<name xml:lang=\"fr\" short=\"Horloge\">Horloge</name>"
    "<name xml:lang=\"de\" short=\"Uhr\">Uhr</name>"
    "<description>Tells the time</description>"
    "<description xml:lang=\"fr\">Donne l heure</description>"
    "<description xml:lang=\"de\">Zeigt die Zeit</description>"
    "<license href=\"http://example.org/l\">Free</license>"
    "<license xml:lang=\"de\" href=\"http://example.org/de\">Frei</license>"
    "<content src=\"index.html\"/>";

void addLocalizedWidget(ZipBuilder& zip) {
  zip.addFile("config.xml", configXml(kLocalizedBody, kVersion))
      .addFile("index.html", "<p>time</p>")
      .addFile("style.css", "p {}")
      .addFile("locales/fr/index.html", "<p>heure</p>")
      .addFile("locales/de/index.html", "<p>Zeit</p>");
}

// Every regular file below path, relative name to contents.
void snapshot(const std::string& path, const std::string& prefix,
              std::map<std::string, std::string>& files) {
  for (const std::string& name : TempDir::listDirectory(path)) {
    const std::string full = path + "/" + name;
    if (TempDir::isDirectory(full))
      snapshot(full, prefix + name + "/", files);
    else
      files[prefix + name] = TempDir::readFile(full);
  }
}

struct FreeString {
  void operator()(char* text) const { free(text); }
};
typedef std::unique_ptr<char, FreeString> EngineString;

std::string text(const EngineString& value) {
  return value ? value.get() : "(null)";
}

class EndToEndTest : public WidgetSandbox {
 protected:
  void SetUp() override {
    CaptureStdout quiet;
    engine = WidgetEngineDelegate::createInstance();
  }

  // Serves the package over HTTP; its URL.
  std::string served(const std::string& fileName, const ZipBuilder& zip) {
    server.serveFile("/w/" + fileName, writePackage(fileName, zip));
    return server.url("/w/" + fileName);
  }

  // Serves the localized clock widget over HTTP; its URL.
  std::string servedLocalized(const std::string& fileName) {
    ZipBuilder zip;
    addLocalizedWidget(zip);
    return served(fileName, zip);
  }

  EngineString receive(const std::string& url, std::string* output = nullptr) {
    return captured(output, [&] {
      return EngineString(engine->receiveWidget(url.c_str(), nullptr));
    });
  }

  std::vector<std::unique_ptr<WidgetsData>> all(std::string* output = nullptr) {
    return captured(output, [&] {
      std::vector<std::unique_ptr<WidgetsData>> widgets;
      for (WidgetsData* widget : engine->getAll(nullptr))
        widgets.emplace_back(widget);
      return widgets;
    });
  }

  std::unique_ptr<WidgetsData> info(const std::string& name,
                                    const std::string& language,
                                    std::string* output = nullptr) {
    return captured(output, [&] {
      return std::unique_ptr<WidgetsData>(
          engine->getInfo(name.c_str(), nullptr, language.c_str()));
    });
  }

  EngineString map(const std::string& url, const std::string& language,
                   std::string* output = nullptr) {
    return captured(output, [&] {
      return EngineString(engine->mapResource(url.c_str(), language.c_str()));
    });
  }

  int remove(const std::string& name, std::string* output = nullptr) {
    return captured(
        output, [&] { return engine->deleteWidget(name.c_str(), nullptr); });
  }

  // A widget installed before the bad input arrives; it must come through
  // untouched.
  void installKeeper() {
    keeperURL = servedLocalized("keeper.wgt");
    EngineString launchURL = receive(keeperURL);
    ASSERT_TRUE(launchURL);
    keeperLaunchURL = launchURL.get();
    snapshot(root + "widget_keeper", "", keeperFiles);
    ASSERT_EQ(5u, keeperFiles.size());
  }

  // The keeper's files are as installed and the widget root holds nothing
  // else but its empty tmp/ folder.
  void expectKeeperFilesUntouched() {
    std::map<std::string, std::string> now;
    snapshot(root + "widget_keeper", "", now);
    EXPECT_EQ(keeperFiles, now);
    EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_keeper"}));
  }

  // The keeper's files, and its record as the engine answers it.
  void expectKeeperUntouched() {
    expectKeeperFilesUntouched();
    EXPECT_EQ(1, engine->isWidget(keeperLaunchURL.c_str()));
    std::unique_ptr<WidgetsData> keeper = info("keeper", "");
    ASSERT_TRUE(keeper);
    EXPECT_EQ(keeperURL, keeper->getSourceURL());
    EXPECT_EQ(1u, all().size());
  }

  // An address the engine must refuse: these lines show among its output.
  struct Refusal {
    const char* label;
    std::string url;
    std::vector<std::string> lines;
  };

  // Each address is refused with its lines, nothing of it is left anywhere
  // and the keeper comes through untouched.
  void expectRefused(const std::vector<Refusal>& refusals) {
    for (const Refusal& refusal : refusals) {
      SCOPED_TRACE(refusal.label);
      std::string output;
      {
        CaptureStdout errors(2);
        EXPECT_FALSE(receive(refusal.url, &output));
      }
      EXPECT_TRUE(hasLinesInOrder(output, refusal.lines));
      expectKeeperUntouched();
      EXPECT_FALSE(TempDir::exists(root + "escape.txt"));
      EXPECT_FALSE(TempDir::exists(dir.path() + "/escape.txt"));
    }
  }

  HttpServer server;
  RefPtr<WebWidgetEngineDelegate> engine;
  std::string keeperURL;
  std::string keeperLaunchURL;
  std::map<std::string, std::string> keeperFiles;
};

TEST_F(EndToEndTest, CreateInstanceHoldsTheOnlyReference) {
  EXPECT_EQ(1u, engine->refCount());
}

TEST_F(EndToEndTest, InstallOverHttpPrintsTheWholeStoryAndReturnsTheLaunchURL) {
  const std::string url = servedLocalized("clock.wgt");
  const std::string storage = root + "widget_clock/";
  std::string output;
  EngineString launchURL = receive(url, &output);
  ASSERT_TRUE(launchURL);
  EXPECT_EQ("file://" + storage + "index.html", text(launchURL));
  EXPECT_TRUE(hasLinesInOrder(
      output, {"[Downloading...]",
               "",
               "[Extracting...]",
               "",
               "[V:Extractor] filename: " + storage + "config.xml",
               "[V:Extractor] filename: " + storage + "locales/de/index.html",
               "",
               "[Remove downloaded file...]",
               "",
               "",
               "[Parsing config.xml...]",
               "",
               "Parsing version...",
               "Parsing name...",
               "Parsing content...",
               "",
               "Path: file://" + storage + "index.html",
               "",
               "Download cleaned",
               "",
               "[Cleaning...]",
               ""}));
  EXPECT_EQ(0u, output.find("[Downloading...]\n\nDownloaded from " + url +
                            " to " + root + P_tmpdir "/file"));
  EXPECT_EQ(1, server.requestCount("/w/clock.wgt"));
  EXPECT_EQ(1, engine->isWidget(launchURL.get()));
  EXPECT_TRUE(rootHoldsOnly({"tmp", "widget_clock"}));
}

TEST_F(EndToEndTest, InstallFromFileURL) {
  ZipBuilder zip;
  addLocalizedWidget(zip);
  const std::string url = "file://" + writePackage("clock.wgt", zip);
  EngineString launchURL = receive(url);
  ASSERT_TRUE(launchURL);
  EXPECT_EQ("file://" + root + "widget_clock/index.html", text(launchURL));
  EXPECT_EQ((std::vector<std::string>{"config.xml", "index.html", "locales",
                                      "style.css"}),
            TempDir::listDirectory(root + "widget_clock"));
}

TEST_F(EndToEndTest, AlreadyInstalledURLReturnsANewCopyOfTheStoredLaunchURL) {
  const std::string url = servedLocalized("clock.wgt");
  EngineString first = receive(url);
  ASSERT_TRUE(first);
  std::string output;
  EngineString second = receive(url, &output);
  ASSERT_TRUE(second);
  EXPECT_NE(first.get(), second.get());
  EXPECT_EQ(text(first), text(second));
  EXPECT_EQ("Widget already installed. Launch it with this url : " +
                text(first) + "\nNothing to clean\n",
            output);
  EXPECT_EQ(1, server.requestCount("/w/clock.wgt"));
}

TEST_F(EndToEndTest, FailedInstallReturnsNull) {
  std::string output;
  EXPECT_FALSE(receive(server.url("/w/missing.wgt"), &output));
  // The 404 page is stored as the package and refused by the unpacking.
  EXPECT_TRUE(hasLinesInOrder(
      output, {"[Downloading...]", "[Extracting...]", "Error while extracting",
               "Extraction cleaned", "Download cleaned", "Nothing to clean"}));
  EXPECT_TRUE(nothingLeft());
}

TEST_F(EndToEndTest, DescribesListsMapsAndRemovesALocalizedWidget) {
  const std::string url = servedLocalized("clock.wgt");
  EngineString launchURL = receive(url);
  ASSERT_TRUE(launchURL);
  const std::string storage = root + "widget_clock/";

  std::string output;
  std::vector<std::unique_ptr<WidgetsData>> widgets = all(&output);
  ASSERT_EQ(1u, widgets.size());
  EXPECT_EQ("Nothing to clean\n", output);
  EXPECT_EQ("clock", widgets[0]->getName());
  EXPECT_EQ("Clock", widgets[0]->getWidgetName());
  EXPECT_EQ("", widgets[0]->getDescription());

  std::unique_ptr<WidgetsData> french = info("clock", "fr-CA,fr", &output);
  ASSERT_TRUE(french);
  EXPECT_EQ(
      "[V:UserAgentLocales] Computed locales : fr-ca,fr,fr\nNothing to clean\n",
      output);
  EXPECT_EQ("Horloge", french->getWidgetName());
  EXPECT_EQ("Horloge", french->getWidgetShorName());
  EXPECT_EQ("Donne l heure", french->getDescription());
  EXPECT_EQ("Free", french->getLicense());
  EXPECT_EQ("http://example.org/l", french->getLicenseHref());
  EXPECT_EQ(text(launchURL), french->getLaunchURL());
  EXPECT_EQ(url, french->getSourceURL());

  std::unique_ptr<WidgetsData> german = info("clock", "de");
  ASSERT_TRUE(german);
  EXPECT_EQ("Uhr", german->getWidgetName());
  EXPECT_EQ("Zeigt die Zeit", german->getDescription());
  EXPECT_EQ("Frei", german->getLicense());
  EXPECT_EQ("http://example.org/de", german->getLicenseHref());

  std::unique_ptr<WidgetsData> other = info("clock", "it");
  ASSERT_TRUE(other);
  EXPECT_EQ("Clock", other->getWidgetName());
  EXPECT_EQ("Tells the time", other->getDescription());

  EngineString toFrench = map(text(launchURL), "fr");
  EXPECT_EQ("file://" + storage + "/locales/fr/index.html", text(toFrench));
  EngineString toGerman = map(text(launchURL) + "?a=1", "it,de-AT");
  EXPECT_EQ("file://" + storage + "/locales/de/index.html?a=1", text(toGerman));
  EXPECT_FALSE(map("file://" + storage + "style.css", "fr"));
  EXPECT_FALSE(map("file://" + storage + "locales/fr/index.html", "fr"));

  EXPECT_EQ(1, remove("clock", &output));
  EXPECT_EQ("Try to delete directory on fileSystem : " + storage +
                "\nDelete OK !!!\nDelete from database ...\nDelete OK !!!\n"
                "Nothing to clean\n",
            output);
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ(0, engine->isWidget(launchURL.get()));
  EXPECT_TRUE(all().empty());
  EXPECT_FALSE(info("clock", "fr", &output));
  EXPECT_EQ("No widget with this name\nNothing to clean\n", output);
  EXPECT_EQ(0, remove("clock"));
}

TEST_F(EndToEndTest, MapResourceOfAnotherSchemeLeavesTheLocaleCacheAlone) {
  EngineString launchURL = receive(servedLocalized("clock.wgt"));
  ASSERT_TRUE(launchURL);
  std::string output;
  EXPECT_FALSE(map(server.url("/w/index.html"), "fr", &output));
  EXPECT_EQ("", output);
  EXPECT_FALSE(map("http://example.org/?u=" + text(launchURL), "fr", &output));
  EXPECT_EQ("", output);
  // The locale list for "fr" is computed only now, at the first file:// URL.
  EngineString mapped = map(text(launchURL), "fr", &output);
  EXPECT_TRUE(mapped);
  EXPECT_EQ("[V:UserAgentLocales] Computed locales : fr\n", output);
}

TEST_F(EndToEndTest, SameLanguageStringBuildsTheLocaleListOnce) {
  installKeeper();
  std::string first, second, third;
  ASSERT_TRUE(info("keeper", "en", &first));
  ASSERT_TRUE(info("keeper", "en", &second));
  ASSERT_TRUE(info("keeper", "EN", &third));
  EXPECT_EQ("[V:UserAgentLocales] Computed locales : en\nNothing to clean\n",
            first);
  EXPECT_EQ("Nothing to clean\n", second);
  EXPECT_EQ("[V:UserAgentLocales] Computed locales : en\nNothing to clean\n",
            third);
}

TEST_F(EndToEndTest, IsWidgetComparesTheWholeLaunchURL) {
  installKeeper();
  EXPECT_EQ(1, engine->isWidget(keeperLaunchURL.c_str()));
  EXPECT_EQ(0, engine->isWidget(
                   ("file://" + root + "widget_keeper/style.css").c_str()));
  EXPECT_EQ(0, engine->isWidget((keeperLaunchURL + "?x=1").c_str()));
  EXPECT_EQ(0,
            engine->isWidget(
                keeperLaunchURL.substr(0, keeperLaunchURL.size() - 1).c_str()));
  EXPECT_EQ(0, engine->isWidget(""));
}

TEST_F(EndToEndTest, UnopenableRegistryAnswersNothing) {
  ScopedEnv missing("YRA_DATA_PATH", dir.path() + "/no/such/dir/");
  RefPtr<WebWidgetEngineDelegate> broken;
  {
    CaptureStdout quiet;
    broken = WidgetEngineDelegate::createInstance();
  }
  CaptureStdout quiet;
  EXPECT_EQ(0, broken->isWidget("file:///x/index.html"));
  EXPECT_EQ(nullptr, broken->mapResource("file:///x/index.html", "fr"));
  EXPECT_EQ(nullptr, broken->getInfo("clock", nullptr, "fr"));
  EXPECT_TRUE(broken->getAll(nullptr).empty());
  EXPECT_EQ(-1, broken->deleteWidget("clock", nullptr));
  EXPECT_EQ(nullptr, broken->receiveWidget("file:///x/clock.wgt", nullptr));
}

// --- bad input -----------------------------------------------------------

TEST_F(EndToEndTest, BadURLsAreRefusedAndLeaveNothingBehind) {
  installKeeper();
  const std::string longPath = "/" + std::string(4000, 'a') + ".wgt";
  ZipBuilder zip;
  addLocalizedWidget(zip);
  const std::string quoted = "file://" + writePackage("it's.wgt", zip);
  const std::vector<std::string> notDownloaded = {
      "Could not download file", "Error while downloading", "Download cleaned",
      "Nothing to clean"};
  expectRefused({
      {"empty",
       "",
       {"Cannot install : the address gives the widget no usable name (\"\")",
        "Error while downloading", "Nothing to clean"}},
      {"not a URL", "not a url at all", notDownloaded},
      {"unknown scheme",
       "nosuchscheme://127.0.0.1/w/clock.wgt",
       {"[Downloading...]",
        "Refusing to download nosuchscheme://127.0.0.1/w/clock.wgt: the "
        "protocol nosuchscheme is not http, https or file",
        "Error while downloading", "Download cleaned", "Nothing to clean"}},
      {"gopher",
       "gopher://127.0.0.1:1/_SET%20key%20pwned%0D%0A/x.wgt",
       {"[Downloading...]",
        "Refusing to download gopher://127.0.0.1:1/_SET%20key%20pwned%0D%0A/"
        "x.wgt: the protocol gopher is not http, https or file",
        "Error while downloading", "Download cleaned", "Nothing to clean"}},
      {"quote",
       quoted,
       {"Path: file://" + root + "widget_it's/index.html",
        "Cannot insert data to database :(", "Extraction cleaned",
        "Download cleaned", "Nothing to clean"}},
      {"4000 characters, file", "file://" + packages + longPath.substr(1),
       notDownloaded},
      {"injection", "file://" + packages + "x' OR '1'='1.wgt", notDownloaded},
  });
}

TEST_F(EndToEndTest, VeryLongHttpURLIsRefusedAndLeavesNothingBehind) {
  installKeeper();
  std::string output;
  EXPECT_FALSE(
      receive(server.url("/" + std::string(4000, 'a') + ".wgt"), &output));
  EXPECT_TRUE(output.find("Error while downloading\n") != std::string::npos ||
              output.find("Error while extracting\n") != std::string::npos)
      << output;
  expectKeeperUntouched();
}

TEST_F(EndToEndTest, BadNamesFindNothingAndRemoveNothing) {
  installKeeper();
  const std::vector<std::string> names = {"",
                                          "keeper'",
                                          "it's",
                                          "a/b",
                                          "..",
                                          "../widget_keeper",
                                          "widget_keeper",
                                          "x' OR '1'='1",
                                          "keeper' OR '1'='1",
                                          "keeper\" OR \"1\"=\"1",
                                          "keeper'--",
                                          "%"};
  for (const std::string& name : names) {
    SCOPED_TRACE(name);
    std::string output;
    EXPECT_EQ(0, remove(name, &output));
    EXPECT_EQ("Nothing to clean\n", output);
    EXPECT_FALSE(info(name, "", &output));
    EXPECT_EQ("No widget with this name\nNothing to clean\n", output);
    expectKeeperUntouched();
  }
}

TEST_F(EndToEndTest, MapAndIsWidgetWithHostileURLsAnswerNothing) {
  installKeeper();
  const std::string storage = root + "widget_keeper/";
  const std::vector<std::string> urls = {
      "file://",
      "file://" + storage + "index.html' OR '1'='1",
      "file://" + storage + "../widget_keeper/index.html",
      "file://" + storage + "locales/../index.html",
      "file://' OR 1=1 --",
      "file://" + std::string(4000, '/'),
  };
  for (const std::string& url : urls) {
    SCOPED_TRACE(url.substr(0, 80));
    EXPECT_FALSE(map(url, "fr"));
    EXPECT_EQ(0, engine->isWidget(url.c_str()));
  }
  expectKeeperUntouched();
}

TEST_F(EndToEndTest, DefectivePackagesAreRefusedAndLeaveNothingBehind) {
  installKeeper();
  const std::string clock = configXml("<name>Clock</name>", kVersion);
  ZipBuilder empty, noConfig, invalid, malformed, noStart, encrypted, folders;
  noConfig.addFile("index.html", "<p/>");
  invalid.addFile("config.xml", "<widget><name>Clock</name></widget>")
      .addFile("index.html", "<p/>");
  malformed
      .addFile("config.xml", "<widget xmlns=\"http://www.w3.org/ns/widgets\">")
      .addFile("index.html", "<p/>");
  noStart.addFile("config.xml", clock).addFile("index.php", "<?php ?>");
  encrypted.addFile("config.xml", clock)
      .addEncryptedFile("index.html", "<p/>", "secret");
  folders.addFolder("a/").addFolder("a/b/");
  // A good widget but for one last entry whose name is refused.
  ZipBuilder dotDot, innerDotDot, badName;
  for (ZipBuilder* zip : {&dotDot, &innerDotDot, &badName})
    zip->addFile("config.xml", clock).addFile("index.html", "<p/>");
  dotDot.addFile("../escape.txt", "out");
  innerDotDot.addFile("locales/../../widget_keeper/index.html", "overwritten");
  badName.addFile("bad|name.txt", "x");
  server.serve("/w/text.wgt", 200, "just some text, no archive");
  server.serve("/w/gone.wgt", 404, "Not Found");

  expectRefused({
      {"not a zip",
       server.url("/w/text.wgt"),
       {"Zip archive is not valid (error 19)", "Error while extracting",
        "Extraction cleaned", "Download cleaned", "Nothing to clean"}},
      {"empty archive",
       served("empty.wgt", empty),
       {"Empty archive", "Error while extracting", "Extraction cleaned",
        "Download cleaned"}},
      {"no config.xml",
       served("noconfig.wgt", noConfig),
       {"Could not find config.xml", "Extraction cleaned", "Download cleaned",
        "Nothing to clean"}},
      {"invalid config",
       served("invalid.wgt", invalid),
       {"Widget configuration document is invalid", "Error while parsing",
        "Extraction cleaned", "Download cleaned", "Nothing to clean"}},
      {"malformed config",
       served("broken.wgt", malformed),
       {"Document not parsed successfully", "Error while parsing",
        "Extraction cleaned", "Download cleaned"}},
      {"no start file",
       served("nostart.wgt", noStart),
       {"No start file found", "Extraction cleaned", "Download cleaned",
        "Nothing to clean"}},
      {"dot-dot entry",
       served("dotdot.wgt", dotDot),
       {"Incorrect file name: ../escape.txt", "Error while extracting",
        "Extraction cleaned", "Download cleaned"}},
      {"inner dot-dot entry",
       served("inner-dotdot.wgt", innerDotDot),
       {"Incorrect file name: locales/../../widget_keeper/index.html",
        "Error while extracting"}},
      {"encrypted",
       served("encrypted.wgt", encrypted),
       {"Zip archive must not be encrypted", "Error while extracting",
        "Extraction cleaned", "Download cleaned"}},
      {"only folders",
       served("folders.wgt", folders),
       {"Zip archive contains only folders", "Error while extracting"}},
      {"bad name",
       served("badname.wgt", badName),
       {"Incorrect file name: bad|name.txt", "Error while extracting"}},
      {"404",
       server.url("/w/gone.wgt"),
       {"Error while extracting", "Nothing to clean"}},
  });
}

TEST_F(EndToEndTest, RegistryDirectoryThatDisappearsBetweenCalls) {
  installKeeper();
  TempDir::removeTree(conf);
  const std::string url = servedLocalized("clock.wgt");

  std::string output;
  EXPECT_FALSE(receive(url, &output));
  // The installer's own connection could not be opened: it stops before
  // downloading anything.
  EXPECT_EQ(std::string::npos, output.find("[Downloading...]"));
  EXPECT_NE(std::string::npos, output.find("Can't open database"));
  EXPECT_EQ("Nothing to clean", lastLine(output));
  EXPECT_EQ(0, server.requestCount("/w/clock.wgt"));

  EXPECT_EQ(-1, remove("keeper", &output));
  EXPECT_FALSE(info("keeper", "fr"));
  EXPECT_TRUE(all().empty());
  // The engine's own connection was opened before and still reads the file
  // it opened.
  EXPECT_EQ(1, engine->isWidget(keeperLaunchURL.c_str()));
  expectKeeperFilesUntouched();
}

TEST_F(EndToEndTest, RegistryFileThatDisappearsBetweenCalls) {
  installKeeper();
  ASSERT_EQ(0, unlink((conf + "widget.db").c_str()));
  std::string output;
  // New connections start an empty registry in its place.
  EXPECT_FALSE(info("keeper", "", &output));
  EXPECT_EQ("No widget with this name\nNothing to clean\n", output);
  EXPECT_EQ(0, remove("keeper", &output));
  EXPECT_TRUE(all().empty());
  expectKeeperFilesUntouched();
}

TEST_F(EndToEndTest, MegabyteURLsAndLanguagesAreAnsweredInOnePass) {
  installKeeper();
  CaptureStdout quiet;
  const std::string longURL = keeperLaunchURL + std::string(1 << 20, '/');
  const std::string dashes(1 << 20, '-');
  EXPECT_EQ(0, engine->isWidget(longURL.c_str()));
  EngineString mapped(engine->mapResource(longURL.c_str(), dashes.c_str()));
  EXPECT_FALSE(mapped);
  std::string languages;
  while (languages.size() < (1u << 20)) languages += "de-de,fr-fr,";
  EngineString french(engine->mapResource(keeperLaunchURL.c_str(), languages.c_str()));
  EXPECT_EQ(1, engine->isWidget(keeperLaunchURL.c_str()));
}

}  // namespace
