// SPDX-License-Identifier: Apache-2.0
#include "install/WidgetInstaller.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "config/WidgetConfig.h"
#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"
#include "testing/CaptureStdout.h"
#include "testing/ConfigXml.h"
#include "testing/HttpServer.h"
#include "testing/Listener.h"
#include "testing/OutputChecks.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

// Fault injection for the one failure no package can cause: the package file
// that cannot be removed after unpacking. While armed, the next remove() of a
// path that starts with the armed prefix fails; every other call, and every
// call once the failure was used, goes to the C library.
namespace {
std::string gFailRemovalPrefix;
int gRemovalFailuresLeft = 0;
int gRemovalFailuresUsed = 0;
}  // namespace

extern "C" int remove(const char* path) noexcept {
  typedef int (*RemoveFunction)(const char*);
  static RemoveFunction next =
      reinterpret_cast<RemoveFunction>(dlsym(RTLD_NEXT, "remove"));
  if (gRemovalFailuresLeft > 0 && path &&
      std::string(path).compare(0, gFailRemovalPrefix.size(),
                                gFailRemovalPrefix) == 0) {
    --gRemovalFailuresLeft;
    ++gRemovalFailuresUsed;
    errno = EACCES;
    return -1;
  }
  return next(path);
}

namespace {

const char kPng[] = "\x89PNG\r\n\x1a\n\0\0\0\rIHDR";
const char kJpeg[] = "\xff\xd8\xff\xe0\0\x10JFIF\0\x01";
const char kGif[] = "GIF89a\x01\0\x01\0\0\0\0";
const char kIco[] = "\0\0\x01\0\x01\0\x10\x10\0\0\0\0";

std::string bytes(const char* data, size_t size) {
  return std::string(data, size - 1);
}

// The smallest widget: a configuration naming it Clock and a start page.
ZipBuilder& addClock(ZipBuilder& zip) {
  return zip.addFile("config.xml", configXml("<name>Clock</name>"))
      .addFile("index.html", "<html></html>");
}

class WidgetInstallerTest : public WidgetSandbox {
 protected:
  // Writes the package into the packages folder; its file:// URL.
  std::string package(const std::string& fileName, const ZipBuilder& zip) {
    return "file://" + writePackage(fileName, zip);
  }

  std::string simplePackage(const std::string& fileName) {
    ZipBuilder zip;
    addClock(zip);
    return package(fileName, zip);
  }


  // Installs url with a fresh installer; its status.
  int install(const std::string& url, std::string* launchURL = nullptr,
              std::string* output = nullptr) {
    return captured(output, [&] {
      WidgetInstaller installer(url);
      const int status = installer.run();
      if (launchURL) *launchURL = installer.getLaunchURL();
      return status;
    });
  }

  // Installs the package as fileName; its launch URL.
  std::string launchURLOf(const std::string& fileName, const ZipBuilder& zip) {
    std::string launchURL;
    EXPECT_EQ(0, install(package(fileName, zip), &launchURL)) << fileName;
    return launchURL;
  }

  // Installs url; the icons its configuration lists, in their order.
  std::vector<std::string> installedIcons(const std::string& url) {
    CaptureStdout quiet;
    WidgetInstaller installer(url);
    std::vector<std::string> icons;
    EXPECT_EQ(0, installer.run());
    if (installer.getConfig())
      for (const WidgetIconInfo& icon : installer.getConfig()->getIcons())
        icons.push_back(icon.getSrc());
    return icons;
  }

  // The registry's record of the widget installed from url; null, with a
  // failure, unless there is exactly one.
  std::unique_ptr<WidgetsData> recordOf(const std::string& url) {
    SqlLite3 registry;
    EXPECT_TRUE(registry.isOpen());
    std::vector<std::unique_ptr<WidgetsData>> rows;
    for (WidgetsData* row : registry.selectWidgetsBySourceURL(url))
      rows.emplace_back(row);
    EXPECT_EQ(1u, rows.size()) << url;
    if (rows.size() != 1) return nullptr;
    return std::move(rows[0]);
  }
};

// What an install prints from its start until it unpacks the package it
// downloaded from url to packagePath.
std::string downloadedAndExtracting(const std::string& url,
                                    const std::string& packagePath) {
  return "[Downloading...]\n\nDownloaded from " + url + " to " + packagePath +
         "\n\n[Extracting...]\n\n";
}

// The package path the download line names.
std::string downloadedTo(const std::string& output) {
  std::smatch match;
  static const std::regex line("Downloaded from [^\n]* to ([^\n]*)\n");
  if (!std::regex_search(output, match, line)) return "";
  return match[1];
}

TEST_F(WidgetInstallerTest, InstallPrintsEveryStepInOrderAndKeepsTheWidget) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              configXml("<name>Clock</name><content src=\"index.html\"/>",
                        "id=\"urn:test:clock\" version=\"1.0\" height=\"240\""
                        " width=\"320\""))
      .addFile("index.html", "<html></html>");
  const std::string url = package("clock.wgt", zip);
  const std::string storage = root + "widget_clock/";

  CaptureStdout capture;
  std::string launchURL;
  int status;
  std::string runOutput;
  {
    WidgetInstaller installer(url);
    status = installer.run();
    launchURL = installer.getLaunchURL();
    runOutput = capture.text();
  }
  EXPECT_EQ(0, status);
  EXPECT_EQ("file://" + storage + "index.html", launchURL);

  const std::string packagePath = downloadedTo(runOutput);
  EXPECT_EQ(root + P_tmpdir "/file",
            packagePath.substr(0, packagePath.size() - 6));
  EXPECT_EQ(downloadedAndExtracting(url, packagePath) +
                "[V:Extractor] filename: " + storage +
                "config.xml\n"
                "[V:Extractor] filename: " +
                storage +
                "index.html\n"
                "\n"
                "[Remove downloaded file...]\n"
                "\n"
                "\n"
                "[Parsing config.xml...]\n"
                "\n"
                "Parsing id...\n"
                "Parsing version...\n"
                "Parsing height...\n"
                "Parsing width...\n"
                "Parsing name...\n"
                "Parsing content...\n"
                "\n"
                "Path: file://" +
                storage +
                "index.html\n"
                "\n"
                "Download cleaned\n",
            runOutput);
  EXPECT_FALSE(TempDir::exists(packagePath));
  EXPECT_EQ((std::vector<std::string>{"config.xml", "index.html"}),
            TempDir::listDirectory(storage));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets WHERE name='clock'"));
  EXPECT_EQ(2, count("SELECT COUNT(*) FROM widgetFiles"));
}

TEST_F(WidgetInstallerTest, DestroyingAfterSuccessPrintsCleaning) {
  const std::string url = simplePackage("clock.wgt");
  std::unique_ptr<WidgetInstaller> installer(new WidgetInstaller(url));
  {
    CaptureStdout quiet;
    ASSERT_EQ(0, installer->run());
  }
  CaptureStdout capture;
  installer.reset();
  EXPECT_EQ("\n[Cleaning...]\n\n", capture.text());
}

TEST_F(WidgetInstallerTest, DestroyingWithoutSuccessPrintsNothingToClean) {
  CaptureStdout capture;
  { WidgetInstaller installer("file:///nowhere/clock.wgt"); }
  EXPECT_EQ("Nothing to clean\n", capture.text());
}

TEST_F(WidgetInstallerTest, RecordHoldsConfigurationValuesAndLocalizedItems) {
  ZipBuilder zip;
  zip.addFile(
         "config.xml",
         configXml(
             "<name short=\"Clk\">Clock</name>"
             "<name xml:lang=\"fr\" short=\"Hrl\">Horloge</name>"
             "<description>Tells the time</description>"
             "<description xml:lang=\"de\">Zeigt die Zeit</description>"
             "<license href=\"http://example.org/l\">Free</license>"
             "<author href=\"http://example.org/\" email=\"a@example.org\">"
             "Ann</author>"
             "<icon src=\"logo.png\"/>",
             "version=\"2.5\" height=\"100\" width=\"200\""
             " viewmodes=\"fullscreen\""))
      .addFile("index.html", "<html></html>")
      .addFile("logo.png", bytes(kPng, sizeof(kPng)));
  const std::string url = package("clock.wgt", zip);
  ASSERT_EQ(0, install(url));

  std::unique_ptr<WidgetsData> row = recordOf(url);
  ASSERT_TRUE(row);
  const std::string storage = root + "widget_clock/";
  EXPECT_EQ(url, row->getSourceURL());
  EXPECT_EQ("clock", row->getName());
  EXPECT_EQ("file://" + storage + "index.html", row->getLaunchURL());
  EXPECT_EQ(storage, row->getStoragePath());
  EXPECT_EQ(200, row->getWidth());
  EXPECT_EQ(100, row->getHeight());
  EXPECT_EQ("2.5", row->getVersion());
  EXPECT_EQ("Clock", row->getWidgetName());
  EXPECT_EQ("Clk", row->getWidgetShorName());
  EXPECT_EQ("", row->getViewMode());
  EXPECT_EQ("file://" + storage + "logo.png", row->getIcon());
  EXPECT_EQ("Ann", row->getAuthor());
  EXPECT_EQ("a@example.org", row->getAuthorEmail());
  EXPECT_EQ("http://example.org/", row->getAuthorHref());

  EXPECT_EQ(2, count("SELECT COUNT(*) FROM localizedItem WHERE item='name'"));
  EXPECT_EQ(2,
            count("SELECT COUNT(*) FROM localizedItem WHERE item='shortname'"));
  EXPECT_EQ(
      2, count("SELECT COUNT(*) FROM localizedItem WHERE item='description'"));
  EXPECT_EQ(1,
            count("SELECT COUNT(*) FROM localizedItem WHERE item='license'"));
  EXPECT_EQ(
      1, count("SELECT COUNT(*) FROM localizedItem WHERE item='licensehref'"));
  EXPECT_EQ(1,
            count("SELECT COUNT(*) FROM localizedItem WHERE item='shortname' "
                  "AND lang='fr' AND value='Hrl'"));
  EXPECT_EQ(1,
            count("SELECT COUNT(*) FROM localizedItem WHERE item='description' "
                  "AND lang='default' AND value='Tells the time'"));
  EXPECT_EQ(3, count("SELECT COUNT(*) FROM widgetFiles"));
}

TEST_F(WidgetInstallerTest, SecondRunAfterSuccessIsRefused) {
  const std::string url = simplePackage("clock.wgt");
  WidgetInstaller installer(url);
  {
    CaptureStdout quiet;
    ASSERT_EQ(0, installer.run());
  }
  const std::string launchURL = installer.getLaunchURL();
  CaptureStdout capture;
  EXPECT_EQ(1, installer.run());
  EXPECT_EQ("WidgetInstaller cannot be run twice\n", capture.text());
  EXPECT_EQ(launchURL, installer.getLaunchURL());
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(WidgetInstallerTest, SecondRunAfterFailureRunsTheWholeSequenceAgain) {
  const std::string path = packages + "clock.wgt";
  WidgetInstaller installer("file://" + path);
  {
    CaptureStdout quiet;
    ASSERT_EQ(5, installer.run());
  }
  EXPECT_EQ("about:blank", installer.getLaunchURL());
  ASSERT_EQ("file://" + path, simplePackage("clock.wgt"));
  CaptureStdout capture;
  EXPECT_EQ(0, installer.run());
  const std::string output = capture.text();
  EXPECT_NE(std::string::npos, output.find("[Downloading...]\n"));
  EXPECT_NE(std::string::npos,
            output.find("Path: file://" + root + "widget_clock/index.html\n"));
  EXPECT_EQ("file://" + root + "widget_clock/index.html",
            installer.getLaunchURL());
}

TEST_F(WidgetInstallerTest,
       RegisteredURLAnswersWithStoredLaunchURLWithoutDownloading) {
  HttpServer server;
  simplePackage("clock.wgt");
  server.serveFile("/w/clock.wgt", packages + "clock.wgt");
  const std::string url = server.url("/w/clock.wgt");
  std::string first;
  ASSERT_EQ(0, install(url, &first));
  ASSERT_EQ(1, server.requestCount());
  // A file the installation did not make: a new download and unpacking would
  // wipe the directory and lose it.
  const std::string marker = root + "widget_clock/marker.txt";
  TempDir::writeFile(marker, "mine");

  std::string launchURL, output;
  EXPECT_EQ(2, install(url, &launchURL, &output));
  EXPECT_EQ(first, launchURL);
  EXPECT_EQ("Widget already installed. Launch it with this url : " + first +
                "\nNothing to clean\n",
            output);
  EXPECT_EQ(1, server.requestCount());
  EXPECT_EQ("mine", TempDir::readFile(marker));
  EXPECT_TRUE(TempDir::listDirectory(root + "tmp").empty());
}

TEST_F(WidgetInstallerTest, UnopenableRegistryEndsSilentlyWithStatus3) {
  ScopedEnv missing("YRA_DATA_PATH", dir.path() + "/no/such/dir/");
  const std::string url = simplePackage("clock.wgt");
  std::unique_ptr<WidgetInstaller> installer;
  {
    CaptureStdout quiet;
    installer.reset(new WidgetInstaller(url));
  }
  CaptureStdout capture;
  EXPECT_EQ(3, installer->run());
  EXPECT_EQ("", capture.text());
  EXPECT_EQ("about:blank", installer->getLaunchURL());
  {
    CaptureStdout quiet;
    installer.reset();
  }
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetInstallerTest, DuplicateSourceURLRowsEndWithStatus4) {
  const std::string url = simplePackage("clock.wgt");
  // A registry made without the UNIQUE constraints, as an older or damaged
  // file may be: the tables exist, so it is used as it is.
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open((conf + "widget.db").c_str(), &db));
  const std::string schema =
      "CREATE TABLE Widgets(id INTEGER NOT NULL,sourceURL VARCHAR(255),"
      "name VARCHAR(255),launchURL VARCHAR(255),storagePath VARCHAR(255),"
      "width INTEGER,height INTEGER,version VARCHAR(255),widgetName "
      "VARCHAR(255),"
      "widgetShorName VARCHAR(255),viewMode VARCHAR(255),icon VARCHAR(255),"
      "author VARCHAR(255),authorEmail VARCHAR(255),authorHref VARCHAR(255),"
      "PRIMARY KEY (id));"
      "CREATE TABLE widgetFiles (id INTEGER PRIMARY KEY AUTOINCREMENT NOT NULL,"
      "widgetID INTEGER NOT NULL,path VARCHAR(255) NOT NULL);"
      "CREATE TABLE localizedItem (id INTEGER PRIMARY KEY AUTOINCREMENT NOT "
      "NULL,"
      "widgetID INTEGER NOT NULL,item TEXT NOT NULL,lang TEXT NOT NULL,"
      "value TEXT NOT NULL);"
      "INSERT INTO Widgets VALUES(NULL,'" +
      url +
      "','a','la','pa',1,1,'','','','','','','','');"
      "INSERT INTO Widgets VALUES(NULL,'" +
      url + "','b','lb','pb',1,1,'','','','','','','','');";
  ASSERT_EQ(SQLITE_OK,
            sqlite3_exec(db, schema.c_str(), nullptr, nullptr, nullptr));
  sqlite3_close(db);

  std::string launchURL, output;
  EXPECT_EQ(4, install(url, &launchURL, &output));
  EXPECT_EQ("about:blank", launchURL);
  EXPECT_EQ(
      "It's not possible to see this log. Database integrity problem\n"
      "'sourceURL' Field in 'Widgets' Table must be unique\n"
      "Nothing to clean\n",
      output);
  EXPECT_EQ(2, count("SELECT COUNT(*) FROM Widgets"));
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetInstallerTest, FailedDownloadEndsWithStatus5AndLeavesNothing) {
  const std::string url = "file://" + packages + "missing.wgt";
  std::string launchURL, output;
  EXPECT_EQ(5, install(url, &launchURL, &output));
  EXPECT_EQ("about:blank", launchURL);
  EXPECT_EQ(
      "[Downloading...]\n"
      "\n"
      "Could not download file\n"
      "Error while downloading\n"
      "Download cleaned\n"
      "Nothing to clean\n",
      output);
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(WidgetInstallerTest, PackageThatIsNotAZipEndsWithStatus6) {
  TempDir::writeFile(packages + "clock.wgt", "this is not an archive");
  const std::string url = "file://" + packages + "clock.wgt";
  std::string launchURL, output;
  EXPECT_EQ(6, install(url, &launchURL, &output));
  EXPECT_EQ("about:blank", launchURL);
  const std::string packagePath = downloadedTo(output);
  EXPECT_EQ(downloadedAndExtracting(url, packagePath) +
                "Zip archive is not valid (error 19)\n"
                "Error while extracting\n"
                "Extraction cleaned\n"
                "Download cleaned\n"
                "Nothing to clean\n",
            output);
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetInstallerTest, PackageWithoutConfigEndsWithStatus7) {
  ZipBuilder zip;
  zip.addFile("index.html", "<html></html>");
  const std::string url = package("clock.wgt", zip);
  std::string launchURL, output;
  EXPECT_EQ(7, install(url, &launchURL, &output));
  EXPECT_EQ("about:blank", launchURL);
  EXPECT_TRUE(endsWithLines(
      output, {"[Remove downloaded file...]", "", "", "[Parsing config.xml...]",
               "", "Could not find config.xml", "Extraction cleaned",
               "Download cleaned", "Nothing to clean"}));
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetInstallerTest, InvalidConfigEndsWithStatus8) {
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget><name>Clock</name></widget>")
      .addFile("index.html", "<html></html>");
  const std::string url = package("clock.wgt", zip);
  std::string launchURL, output;
  {
    CaptureStdout errors(2);
    EXPECT_EQ(8, install(url, &launchURL, &output));
  }
  EXPECT_EQ("about:blank", launchURL);
  EXPECT_TRUE(endsWithLines(
      output,
      {"[Parsing config.xml...]", "",
       "Widget configuration document is invalid", "Error while parsing",
       "Extraction cleaned", "Download cleaned", "Nothing to clean"}));
  EXPECT_TRUE(nothingLeft());
}

TEST_F(WidgetInstallerTest, OnlyAnUnknownPageEndsWithStatus9AndNoDirectory) {
  ZipBuilder zip;
  zip.addFile("config.xml", configXml("<name>Clock</name>"))
      .addFile("index.php", "<?php ?>");
  const std::string url = package("clock.wgt", zip);
  std::string launchURL, output;
  EXPECT_EQ(9, install(url, &launchURL, &output));
  EXPECT_EQ("about:blank", launchURL);
  EXPECT_TRUE(endsWithLines(
      output, {"Parsing name...", "No start file found", "Extraction cleaned",
               "Download cleaned", "Nothing to clean"}));
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(WidgetInstallerTest, NameTakenUnderAnotherRootEndsWithStatus10BeforeAnything) {
  // Another widget already holds the name "clock" (installed elsewhere): the
  // registration could only fail, so nothing is fetched or unpacked.
  {
    CaptureStdout quiet;
    SqlLite3 registry;
    ASSERT_TRUE(registry.isOpen());
  }
  sqlite3* db = nullptr;
  ASSERT_EQ(SQLITE_OK, sqlite3_open((conf + "widget.db").c_str(), &db));
  ASSERT_EQ(
      SQLITE_OK,
      sqlite3_exec(db,
                   "INSERT INTO Widgets VALUES(NULL,'http://other/clock.zip',"
                   "'clock','file:///elsewhere/index.html','/elsewhere/',"
                   "1,1,'','','','','','','','')",
                   nullptr, nullptr, nullptr));
  sqlite3_close(db);
  const std::string url = simplePackage("clock.wgt");
  std::string launchURL, output;
  EXPECT_EQ(10, install(url, &launchURL, &output));
  EXPECT_EQ("about:blank", launchURL);
  EXPECT_EQ(
      "The widget name clock is taken by the widget installed from "
      "http://other/clock.zip; remove that widget first\nNothing to clean\n",
      output);
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets"));
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM widgetFiles"));
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM localizedItem"));
}

TEST_F(WidgetInstallerTest,
       SameNameFromAnotherAddressEndsWithStatus10AndLeavesTheFirstWidgetAlone) {
  const std::string first = simplePackage("clock.wgt");
  std::string firstLaunch;
  ASSERT_EQ(0, install(first, &firstLaunch));
  const std::string index = root + "widget_clock/index.html";
  ASSERT_TRUE(TempDir::exists(index));

  ZipBuilder other;
  other.addFile("config.xml", configXml("<name>Other</name>"))
      .addFile("index.html", "<html>other</html>");
  ASSERT_EQ(0, mkdir((packages + "elsewhere").c_str(), 0755));
  const std::string second = package("elsewhere/clock.wgt", other);
  std::string launchURL, output;
  EXPECT_EQ(10, install(second, &launchURL, &output));
  EXPECT_EQ("about:blank", launchURL);
  EXPECT_EQ("The widget name clock is taken by the widget installed from " +
                first + "; remove that widget first\nNothing to clean\n",
            output);
  EXPECT_EQ("<html></html>", TempDir::readFile(index));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets"));
  EXPECT_TRUE(TempDir::listDirectory(root + "tmp").empty());
}

TEST_F(WidgetInstallerTest, NameWithAQuoteIsRefusedAtRegistrationWithStatus10) {
  const std::string url = simplePackage("it's.wgt");
  std::string launchURL, output;
  EXPECT_EQ(10, install(url, &launchURL, &output));
  EXPECT_EQ("about:blank", launchURL);
  EXPECT_NE(std::string::npos,
            output.find("Cannot insert data to database :(\n"));
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(WidgetInstallerTest, PackageThatCannotBeRemovedEndsWithStatus11) {
  const std::string url = simplePackage("clock.wgt");
  gFailRemovalPrefix = root + P_tmpdir "/file";
  gRemovalFailuresLeft = 1;
  gRemovalFailuresUsed = 0;
  std::string launchURL, output;
  const int status = install(url, &launchURL, &output);
  gRemovalFailuresLeft = 0;
  EXPECT_EQ(1, gRemovalFailuresUsed);
  EXPECT_EQ(11, status);
  // Left as it was before the run, unlike every other failure.
  EXPECT_EQ("", launchURL);
  EXPECT_TRUE(endsWithLines(
      output, {"[Remove downloaded file...]", "", "Error while removing",
               "Download cleaned", "Extraction cleaned", "Nothing to clean"}));
  // The downloader removed the package on its way out.
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(WidgetInstallerTest, LastUnderscoreOfTheNameBecomesADash) {
  const std::string url = simplePackage("my_big_clock.wgt");
  std::string launchURL;
  ASSERT_EQ(0, install(url, &launchURL));
  EXPECT_EQ("file://" + root + "widget_my_big-clock/index.html", launchURL);
  EXPECT_TRUE(TempDir::isDirectory(root + "widget_my_big-clock"));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets WHERE name='my_big-clock'"));
}

TEST_F(WidgetInstallerTest, UnderscoreInTheMiddleOfTheNameBecomesADash) {
  const std::string url = simplePackage("my_clock.wgt");
  ASSERT_EQ(0, install(url));
  EXPECT_TRUE(TempDir::isDirectory(root + "widget_my-clock"));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets WHERE name='my-clock'"));
}

TEST_F(WidgetInstallerTest, LeadingUnderscoreOfTheNameIsKept) {
  const std::string url = simplePackage("_clock.wgt");
  ASSERT_EQ(0, install(url));
  EXPECT_TRUE(TempDir::isDirectory(root + "widget__clock"));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets WHERE name='_clock'"));
}

TEST_F(WidgetInstallerTest, NameAndDirectoryComeFromTheLastPathSegment) {
  CaptureStdout quiet;
  struct Case {
    const char* url;
    const char* name;
  };
  const Case cases[] = {
      {"http://host/w/clock.wgt", "clock"},
      {"http://host/w/clock", "clock"},
      {"http://host.example.org/w/clock", "clock"},
      {"http://host/w/clock.wgt?v=1.2", "clock.wgt?v=1"},
      {"http://host/w/clock.wgt#a", "clock"},
      {"http://host/w/clock?v=1", "clock?v=1"},
      {"clock.wgt", "clock"},
      {"_clock.wgt", "_clock"},
      {"http://host/w/a_b_c.wgt", "a_b-c"},
      {"", ""},
  };
  for (const Case& c : cases) {
    WidgetInstaller installer(c.url);
    EXPECT_EQ(c.name, installer.getName()) << c.url;
    EXPECT_EQ(root + "widget_" + c.name + "/", installer.getStoragePath())
        << c.url;
  }
}

TEST_F(WidgetInstallerTest, RootWithoutFinalSlashGluesTheDirectoryName) {
  ScopedEnv glued("WIDGET_PATH", dir.path() + "/data");
  CaptureStdout quiet;
  WidgetInstaller installer("http://host/w/clock.wgt");
  EXPECT_EQ(dir.path() + "/datawidget_clock/", installer.getStoragePath());
  EXPECT_TRUE(TempDir::isDirectory(dir.path() + "/data"));
}

TEST_F(WidgetInstallerTest, WidgetRootIsCreatedOneLevelDeep) {
  ScopedEnv fresh("WIDGET_PATH", dir.path() + "/fresh/");
  EXPECT_EQ(dir.path() + "/fresh/", WidgetInstaller::getWidgetBasePath());
  EXPECT_TRUE(TempDir::isDirectory(dir.path() + "/fresh"));
  ScopedEnv deep("WIDGET_PATH", dir.path() + "/a/b/");
  EXPECT_EQ(dir.path() + "/a/b/", WidgetInstaller::getWidgetBasePath());
  EXPECT_FALSE(TempDir::exists(dir.path() + "/a"));
}

TEST_F(WidgetInstallerTest, WidgetRootIsNeverMadeThroughAnotherUsersLink) {
  if (geteuid() != 0) GTEST_SKIP() << "giving a link away needs root";
  TempDir elsewhere;
  const std::string link = dir.path() + "/theirs";
  ASSERT_EQ(0, symlink(elsewhere.path().c_str(), link.c_str()));
  ASSERT_EQ(0, lchown(link.c_str(), 65534, 65534));
  ScopedEnv linked("WIDGET_PATH", link + "/widgets/");
  EXPECT_EQ(link + "/widgets/", WidgetInstaller::getWidgetBasePath());
  EXPECT_TRUE(TempDir::listDirectory(elsewhere.path()).empty());
  // A link at the root's own name is left as it is, not made through.
  ScopedEnv atTheName("WIDGET_PATH", link + "/");
  EXPECT_EQ(link + "/", WidgetInstaller::getWidgetBasePath());
  EXPECT_TRUE(TempDir::listDirectory(elsewhere.path()).empty());
}

TEST_F(WidgetInstallerTest, WithoutContentElementIndexHtmWinsOverIndexHtml) {
  ZipBuilder zip;
  addClock(zip).addFile("index.htm", "<html></html>");
  EXPECT_EQ("file://" + root + "widget_clock/index.htm",
            launchURLOf("clock.wgt", zip));
}

TEST_F(WidgetInstallerTest, DefaultStartNamesAreTriedInTheirOrder) {
  struct Case {
    std::vector<std::string> pages;
    const char* chosen;
  };
  const Case cases[] = {
      {{"index.xht", "index.xhtml", "index.svg"}, "index.svg"},
      {{"index.xht", "index.xhtml"}, "index.xhtml"},
      {{"index.xht", "INDEX.HTML"}, "index.xht"},
  };
  int n = 0;
  for (const Case& c : cases) {
    ZipBuilder zip;
    zip.addFile("config.xml", configXml("<name>Clock</name>"));
    for (const std::string& page : c.pages) zip.addFile(page, "<x/>");
    const std::string name = "page" + std::to_string(++n);
    EXPECT_EQ("file://" + root + "widget_" + name + "/" + c.chosen,
              launchURLOf(name + ".wgt", zip));
  }
}

TEST_F(WidgetInstallerTest,
       ContentElementNamingAMissingFileFallsBackToDefaults) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              configXml("<name>Clock</name><content src=\"main.html\"/>"))
      .addFile("index.html", "<html></html>");
  EXPECT_EQ("file://" + root + "widget_clock/index.html",
            launchURLOf("clock.wgt", zip));
}

TEST_F(WidgetInstallerTest, ContentElementIsTakenAsItStands) {
  ZipBuilder zip;
  zip.addFile(
         "config.xml",
         configXml("<name>Clock</name>"
                   "<content src=\"pages/start.php\" type=\"text/html\"/>"))
      .addFile("index.html", "<html></html>")
      .addFile("pages/start.php", "<?php ?>");
  EXPECT_EQ("file://" + root + "widget_clock/pages/start.php",
            launchURLOf("clock.wgt", zip));
}

TEST_F(WidgetInstallerTest,
       PngIconHoldingJpegIsNotADefaultIconButSvgIsOnExistence) {
  ZipBuilder zip;
  addClock(zip)
      .addFile("icon.png", bytes(kJpeg, sizeof(kJpeg)))
      .addFile("icon.svg", "not even XML");
  const std::string url = package("clock.wgt", zip);
  EXPECT_EQ(std::vector<std::string>{"icon.svg"}, installedIcons(url));
  std::unique_ptr<WidgetsData> row = recordOf(url);
  ASSERT_TRUE(row);
  EXPECT_EQ("file://" + root + "widget_clock/icon.svg", row->getIcon());
}

TEST_F(WidgetInstallerTest, PngIconHoldingJpegAloneLeavesTheIconEmpty) {
  ZipBuilder zip;
  addClock(zip).addFile("icon.png", bytes(kJpeg, sizeof(kJpeg)));
  const std::string url = package("clock.wgt", zip);
  ASSERT_EQ(0, install(url));
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets WHERE icon<>''"));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(WidgetInstallerTest, DeclaredIconsComeFirstThenEveryDefaultIconInOrder) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              configXml("<name>Clock</name><icon src=\"icon.gif\"/>"
                        "<icon src=\"art/logo.png\" width=\"64\"/>"))
      .addFile("index.html", "<html></html>")
      .addFile("art/logo.png", bytes(kPng, sizeof(kPng)))
      .addFile("icon.jpg", bytes(kJpeg, sizeof(kJpeg)))
      .addFile("icon.gif", bytes(kGif, sizeof(kGif)))
      .addFile("icon.png", bytes(kPng, sizeof(kPng)))
      .addFile("icon.ico", bytes(kIco, sizeof(kIco)))
      .addFile("icon.svg", "<svg/>");
  const std::string url = package("clock.wgt", zip);
  EXPECT_EQ((std::vector<std::string>{"icon.gif", "art/logo.png", "icon.svg",
                                      "icon.ico", "icon.png", "icon.jpg"}),
            installedIcons(url));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM Widgets WHERE icon='file://" + root +
                     "widget_clock/icon.gif'"));
}

TEST_F(WidgetInstallerTest, AddressesTheBrowserWouldResolveOutsideAreNeverAnswered) {
  // The package holds folders literally called "%2e%2e", so that files
  // behind the escaped names exist; a browser reads each "%2e%2e" as "..".
  ZipBuilder zip;
  zip.addFile("config.xml",
              configXml("<name>Clock</name>"
                        "<icon src=\"%2e%2e/%2e%2e/%2e%2e/etc/passwd.xyz\"/>"
                        "<icon src=\"%2e%2e/%2e%2e/pic.png\"/>"
                        "<content src=\"%2e%2e/%2e%2e/index.html\"/>"))
      .addFile("%2e%2e/%2e%2e/index.html", "<html>out</html>")
      .addFile("%2e%2e/%2e%2e/pic.png", bytes(kPng, sizeof(kPng)))
      .addFile("index.html", "<html></html>")
      .addFile("icon.png", bytes(kPng, sizeof(kPng)))
      .addFile("%2e%2e/x.html", "<p>x</p>")
      .addFile("locales/fr/%2e%2e/%2e%2e/%2e%2e/x.html", "<p>out</p>")
      .addFile("%2e%2e/%2e%2e/%2e%2e/x.html", "<p>x</p>")
      .addFile("locales/fr/%2e%2e/x.html", "<p>in</p>");
  const std::string url = package("clock.wgt", zip);
  std::string launchURL;
  ASSERT_EQ(0, install(url, &launchURL));
  EXPECT_EQ("file://" + root + "widget_clock/index.html", launchURL);
  std::unique_ptr<WidgetsData> row = recordOf(url);
  ASSERT_TRUE(row);
  EXPECT_EQ("file://" + root + "widget_clock/icon.png", row->getIcon());

  // A localized copy is answered only where the browser stays inside.
  SqlLite3 registry;
  std::string inside = "file://" + root + "widget_clock/%2e%2e/x.html";
  EXPECT_EQ(1, registry.findLocalizedResource(inside, {"fr"}));
  EXPECT_EQ(root + "widget_clock//locales/fr/%2e%2e/x.html", inside.substr(7));
  std::string outside = "file://" + root + "widget_clock/%2e%2e/%2e%2e/%2e%2e/x.html";
  EXPECT_EQ(0, registry.findLocalizedResource(outside, {"fr"}));
}

TEST_F(WidgetInstallerTest, IconThatClimbsOutOfTheWidgetIsNeverItsIcon) {
  // Sources of an unknown type are listed without being opened, but the
  // icon address handed to the browser must stay inside the widget.
  TempDir::writeFile(root + "secret", "not the widget's");
  ZipBuilder zip;
  zip.addFile("config.xml",
              configXml("<name>Clock</name><icon src=\"../secret\"/>"
                        "<icon src=\"img/../../secret\"/>"))
      .addFile("index.html", "<html></html>");
  const std::string url = package("clock.wgt", zip);
  ASSERT_EQ(0, install(url));
  std::unique_ptr<WidgetsData> row = recordOf(url);
  ASSERT_TRUE(row);
  EXPECT_EQ("", row->getIcon());

  ZipBuilder withDefault;
  withDefault
      .addFile("config.xml",
               configXml("<name>Clock</name><icon src=\"../secret\"/>"))
      .addFile("index.html", "<html></html>")
      .addFile("icon.svg", "<svg/>");
  const std::string other = package("other.wgt", withDefault);
  ASSERT_EQ(0, install(other));
  row = recordOf(other);
  ASSERT_TRUE(row);
  EXPECT_EQ("file://" + root + "widget_other/icon.svg", row->getIcon());
}

TEST_F(WidgetInstallerTest, PackageGoesUnderTheWidgetRootWhenItIsSet) {
  const std::string url = simplePackage("clock.wgt");
  std::string output;
  ASSERT_EQ(0, install(url, nullptr, &output));
  const std::string packagePath = downloadedTo(output);
  EXPECT_TRUE(std::regex_match(
      packagePath,
      std::regex(std::regex_replace(root, std::regex("[.^$|()\\[\\]{}*+?\\\\]"),
                                    "\\$&") +
                 P_tmpdir "/file[A-Za-z0-9]{6}")))
      << packagePath;
}

TEST_F(WidgetInstallerTest, PackageGoesToThePlainTemporaryNameWhenRootIsUnset) {
  const std::string url = simplePackage("plain-temporary-name-probe.wgt");
  ScopedEnv unset("WIDGET_PATH");
  std::string output;
  int status;
  std::string storage;
  {
    CaptureStdout capture;
    {
      WidgetInstaller installer(url);
      storage = installer.getStoragePath();
      status = installer.run();
    }
    output = capture.text();
  }
  const std::string packagePath = downloadedTo(output);
  // The widget went to the built-in root, shared with other tests: take it
  // away again.
  TempDir::removeTree(storage);
  EXPECT_EQ(0, status) << output;
  EXPECT_TRUE(
      std::regex_match(packagePath, std::regex(P_tmpdir "/file[A-Za-z0-9]{6}")))
      << packagePath;
  EXPECT_FALSE(TempDir::exists(packagePath));
}

TEST_F(WidgetInstallerTest, EveryDownloadGetsAFreshPackageName) {
  std::vector<std::string> names;
  for (int i = 0; i < 3; ++i) {
    const std::string url = simplePackage("clock" + std::to_string(i) + ".wgt");
    std::string output;
    ASSERT_EQ(0, install(url, nullptr, &output));
    names.push_back(downloadedTo(output));
  }
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names.end(), std::adjacent_find(names.begin(), names.end()));
}

TEST_F(WidgetInstallerTest, NamesTheLaunchURLCannotCarryAreRefusedFirst) {
  HttpServer server;
  // Address endings whose name is empty, "." or "..", or holds what would
  // end or escape the launch URL's path.
  for (const char* ending :
       {"/w/", "/w/.wgt", "/w/..wgt", "/w/...wgt", "/w/clock?v=2",
        "/w/a#b", "/w/100%25", "/w/a%2e%2e", "/w/tab\tname.wgt",
        "/w/bell\x07.wgt", "/w/del\x7f.wgt"}) {
    const std::string url = server.url(ending);
    std::string launchURL;
    std::string output;
    EXPECT_EQ(5, install(url, &launchURL, &output)) << url;
    EXPECT_EQ("about:blank", launchURL);
    const std::string name = WidgetInstaller::nameFromURL(url);
    const std::string why =
        name.empty() || name == "." || name == ".."
            ? "the address gives the widget no usable name (\"" + name + "\")"
            : "the widget name taken from the address holds a character that "
              "a file:// address cannot carry as it is";
    EXPECT_EQ("Cannot install " + url + ": " + why +
                  "\nError while downloading\nNothing to clean\n",
              output);
  }
  EXPECT_EQ(0, server.requestCount());
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ(0, count("SELECT COUNT(*) FROM Widgets"));
}

TEST_F(WidgetInstallerTest, OtherNamesAreDerivedAsBefore) {
  for (const char* fileName :
       {"my_clock.wgt", "_clock.wgt", "cl\xc3\xa9.wgt", "a+b.wgt"}) {
    std::string launchURL;
    std::string output;
    EXPECT_EQ(0, install(simplePackage(fileName), &launchURL, &output))
        << fileName << output;
  }
}

TEST_F(WidgetInstallerTest, GopherAddressReachesNoListener) {
  Listener listener;
  const std::string url = "gopher://" + listener.hostPort() +
                          "/_SET%20key%20pwned%0D%0A/x.wgt";
  std::string launchURL;
  std::string output;
  EXPECT_EQ(5, install(url, &launchURL, &output));
  EXPECT_EQ("[Downloading...]\n\nRefusing to download " + url +
                ": the protocol gopher is not http, https or file\n"
                "Error while downloading\nDownload cleaned\nNothing to clean\n",
            output);
  EXPECT_EQ(0, listener.connections());
  EXPECT_TRUE(nothingLeft());
}

}  // namespace
