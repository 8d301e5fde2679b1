// SPDX-License-Identifier: Apache-2.0
// What WidgetEngineExtensions.h gives a host, through real installations: the
// reason of each refusal on the calling thread, progress reports of a real
// HTTP download and unpacking, the host's own log sink, and the
// Accept-Language helper feeding the engine's locale lookups, and update
// checks against a real HTTP server.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cstdlib>
#include <iostream>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

#include "engine/ToolsFacade.h"
#include "testing/CaptureStdout.h"
#include "testing/ConfigXml.h"
#include "testing/HttpServer.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/TestPki.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

struct FreeString {
  void operator()(char* text) const { free(text); }
};
typedef std::unique_ptr<char, FreeString> EngineString;

std::string lastReason(int* code) {
  const char* reason = nullptr;
  *code = widgetengine_last_refusal(&reason);
  return reason ? reason : "(null)";
}

void addClock(ZipBuilder& zip) {
  zip.addFile("config.xml", configXml("<name>Clock</name>"));
  zip.addFile("index.html", "<p>clock</p>");
}

class ExtensionsTest : public WidgetSandbox {
 protected:
  void SetUp() override {
    CaptureStdout quiet;
    engine = WidgetEngineDelegate::createInstance();
  }
  void TearDown() override {
    widgetengine_set_progress_callback(nullptr, nullptr);
    widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_DEFAULT);
    widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_DEFAULT);
    widgetengine_set_trust_anchors(nullptr);
  }

  std::string served(const std::string& fileName, const ZipBuilder& zip) {
    server.serveFile("/w/" + fileName, writePackage(fileName, zip));
    return server.url("/w/" + fileName);
  }

  // Installs url; the output is left in *output.
  EngineString receive(const std::string& url, std::string* output = nullptr) {
    return captured(output, [&] {
      return EngineString(engine->receiveWidget(url.c_str(), nullptr));
    });
  }

  int remove(const std::string& name) {
    return captured(nullptr,
                    [&] { return engine->deleteWidget(name.c_str(), nullptr); });
  }

  HttpServer server;
  RefPtr<WebWidgetEngineDelegate> engine;
};

TEST_F(ExtensionsTest, NoRefusalBeforeAnyCallOrAfterASuccess) {
  int code = -1;
  EXPECT_EQ("", lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, code);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, widgetengine_last_refusal(nullptr));

  ZipBuilder zip;
  addClock(zip);
  const std::string url = served("clock.wgt", zip);
  ASSERT_FALSE(receive(url + "-missing"));  // a 404 first, refused
  EXPECT_NE(WIDGETENGINE_REFUSAL_NONE, widgetengine_last_refusal(nullptr));
  ASSERT_TRUE(receive(url));
  EXPECT_EQ("", lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, code);
  // Installed before: the same answer as a fresh installation, no refusal.
  ASSERT_TRUE(receive(url));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, widgetengine_last_refusal(nullptr));
}

TEST_F(ExtensionsTest, An404IsStoredAndRefusedAsBeforeButNamesItsStatus) {
  server.serve("/w/gone.wgt", 404, "<html>Not Found</html>");
  std::string output;
  EXPECT_FALSE(receive(server.url("/w/gone.wgt"), &output));
  // What a host that only reads the lines sees is unchanged: the page was
  // downloaded, then refused as no zip.
  EXPECT_NE(std::string::npos, output.find("Downloaded from " +
                                           server.url("/w/gone.wgt")))
      << output;
  EXPECT_NE(std::string::npos, output.find("Zip archive is not valid")) << output;
  EXPECT_NE(std::string::npos, output.find("Error while extracting")) << output;
  int code;
  EXPECT_EQ("HTTP status 404 from " + server.url("/w/gone.wgt"), lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_HTTP_STATUS, code);
  EXPECT_TRUE(nothingLeft());
}

TEST_F(ExtensionsTest, EveryServerErrorNamesItsStatus) {
  server.serve("/w/busy.wgt", 503, "try later");
  server.serveRedirect("/w/moved.wgt", "/w/elsewhere.wgt", "moved");
  int code;
  EXPECT_FALSE(receive(server.url("/w/busy.wgt")));
  EXPECT_EQ("HTTP status 503 from " + server.url("/w/busy.wgt"), lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_HTTP_STATUS, code);
  EXPECT_FALSE(receive(server.url("/w/moved.wgt")));
  EXPECT_EQ("HTTP status 302 from " + server.url("/w/moved.wgt"), lastReason(&code));
}

TEST_F(ExtensionsTest, RefusalsOfTheDownloadSayWhy) {
  int code;
  EXPECT_FALSE(receive("file://" + packages + "nothing.wgt"));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NOT_FOUND, widgetengine_last_refusal(nullptr));
  EXPECT_EQ("package not found: file://" + packages + "nothing.wgt",
            lastReason(&code));

  RefusingPort refusing;
  EXPECT_FALSE(receive(refusing.url("/w/clock.wgt")));
  const std::string reason = lastReason(&code);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_DOWNLOAD, code);
  EXPECT_EQ(0u, reason.find("cannot download " + refusing.url("/w/clock.wgt") + ": "))
      << reason;
}

TEST_F(ExtensionsTest, RefusedAddressesAndUntrustedPlacesSayWhy) {
  int code;
  EXPECT_FALSE(receive("gopher://127.0.0.1:9/_x/clock.wgt"));
  EXPECT_EQ("the address gopher://127.0.0.1:9/_x/clock.wgt uses a protocol "
            "other than http, https or file",
            lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_ADDRESS, code);

  EXPECT_FALSE(receive("file://" + packages + "100%25.wgt"));
  lastReason(&code);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_ADDRESS, code);

  // A widget root that others can write is not used at all.
  ASSERT_EQ(0, chmod(root.c_str(), 0777));
  ZipBuilder zip;
  addClock(zip);
  EXPECT_FALSE(receive("file://" + writePackage("clock.wgt", zip)));
  const std::string reason = lastReason(&code);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_UNTRUSTED, code);
  EXPECT_NE(std::string::npos, reason.find("writable by other users")) << reason;
  chmod(root.c_str(), 0700);
}

TEST_F(ExtensionsTest, RefusalsOfThePackageSayWhy) {
  struct Case {
    std::string file;
    std::string body;  // written as it is when not empty
    int code;
    std::string reason;
  };
  int code;

  const std::string text = packages + "text.wgt";
  FILE* file = fopen(text.c_str(), "w");
  ASSERT_NE(nullptr, file);
  fputs("plain text", file);
  fclose(file);
  EXPECT_FALSE(receive("file://" + text));
  EXPECT_EQ("the package is not a zip archive", lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NOT_A_ZIP, code);

  ZipBuilder empty;
  EXPECT_FALSE(receive("file://" + writePackage("empty.wgt", empty)));
  EXPECT_EQ("the package is an empty archive", lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_BAD_PACKAGE, code);

  ZipBuilder climbing;
  addClock(climbing);
  climbing.addFile("../evil.html", "x");
  EXPECT_FALSE(receive("file://" + writePackage("climbing.wgt", climbing)));
  EXPECT_EQ("incorrect file name in the package: ../evil.html", lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_BAD_ENTRY_NAME, code);

  ZipBuilder noConfig;
  noConfig.addFile("index.html", "x");
  EXPECT_FALSE(receive("file://" + writePackage("noconfig.wgt", noConfig)));
  EXPECT_EQ("the package has no config.xml", lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NO_CONFIG, code);

  ZipBuilder noStart;
  noStart.addFile("config.xml", configXml("<name>Clock</name>"));
  noStart.addFile("index.php", "x");
  EXPECT_FALSE(receive("file://" + writePackage("nostart.wgt", noStart)));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NO_START_FILE, widgetengine_last_refusal(nullptr));
  EXPECT_TRUE(nothingLeft());
}

TEST_F(ExtensionsTest, APackageThatDoesNotFitSaysSo) {
  if (geteuid() != 0) GTEST_SKIP() << "mounting a tmpfs needs root";
  const std::string small = dir.path() + "/small/";
  ASSERT_EQ(0, mkdir(small.c_str(), 0755));
  if (mount("tmpfs", small.c_str(), "tmpfs", 0, "size=256k,mode=0755") != 0)
    GTEST_SKIP() << "mount failed";
  ASSERT_EQ(0, mkdir((small + "tmp").c_str(), 0755));
  ZipBuilder zip;
  addClock(zip);
  zip.addZeros("big.bin", 4 * 1024 * 1024);
  const std::string package = "file://" + writePackage("clock.wgt", zip);
  {
    ScopedEnv root("WIDGET_PATH", small);
    EXPECT_FALSE(receive(package));
  }
  umount(small.c_str());
  int code;
  EXPECT_EQ("the package would leave less than 16 MiB free where widgets are "
            "stored",
            lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NO_SPACE, code);
}

TEST_F(ExtensionsTest, AnInvalidConfigXmlGivesItsLine) {
  int code;
  ZipBuilder broken;
  broken.addFile("config.xml", configXml("\n<name>A & B</name>\n"));
  broken.addFile("index.html", "x");
  EXPECT_FALSE(receive("file://" + writePackage("broken.wgt", broken)));
  std::string reason = lastReason(&code);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_INVALID_CONFIG, code);
  EXPECT_EQ(0u, reason.find("invalid config.xml at line 3: ")) << reason;

  // Good XML that the schema refuses: a root outside the widgets namespace.
  ZipBuilder invalid;
  invalid.addFile("config.xml",
                  "<?xml version=\"1.0\"?>\n\n<widget id=\"urn:x\">\n"
                  "<name>Clock</name>\n</widget>\n");
  invalid.addFile("index.html", "x");
  EXPECT_FALSE(receive("file://" + writePackage("invalid.wgt", invalid)));
  reason = lastReason(&code);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_INVALID_CONFIG, code);
  EXPECT_EQ(0u, reason.find("invalid config.xml at line 3: ")) << reason;
}

TEST_F(ExtensionsTest, ANameTakenNamesTheWidgetThatHasIt) {
  ZipBuilder zip;
  addClock(zip);
  const std::string first = "file://" + writePackage("clock.wgt", zip);
  ASSERT_TRUE(receive(first));
  ASSERT_EQ(0, mkdir((packages + "b").c_str(), 0755));
  const std::string second = "file://" + writePackage("b/clock.wgt", zip);
  EXPECT_FALSE(receive(second));
  int code;
  EXPECT_EQ("the name clock is taken by the widget installed from " + first,
            lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NAME_TAKEN, code);
}

TEST_F(ExtensionsTest, RemovalsSayWhy) {
  int code;
  EXPECT_EQ(0, remove("clock"));
  EXPECT_EQ("no widget named clock is installed", lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NOT_INSTALLED, code);

  ZipBuilder zip;
  addClock(zip);
  ASSERT_TRUE(receive("file://" + writePackage("clock.wgt", zip)));
  EXPECT_EQ(1, remove("clock"));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, widgetengine_last_refusal(nullptr));

  EXPECT_EQ(-1, captured(nullptr, [&] { return engine->deleteWidget(nullptr, nullptr); }));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_BAD_ARGUMENT, widgetengine_last_refusal(nullptr));
}

TEST_F(ExtensionsTest, EachThreadHasItsOwnReason) {
  server.serve("/w/gone.wgt", 404, "gone");
  EXPECT_FALSE(receive(server.url("/w/gone.wgt")));
  int other = -1;
  std::thread([&] { other = widgetengine_last_refusal(nullptr); }).join();
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, other);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_HTTP_STATUS, widgetengine_last_refusal(nullptr));
}

struct Report {
  int stage;
  uint64_t done;
  uint64_t total;
};

void record(int stage, uint64_t done, uint64_t total, void* reports) {
  static_cast<std::vector<Report>*>(reports)->push_back({stage, done, total});
}

TEST_F(ExtensionsTest, ProgressFollowsARealDownloadAndUnpacking) {
  ZipBuilder zip;
  addClock(zip);
  // Incompressible, so that the download takes more than one report.
  std::string noise(3 * 1024 * 1024, '\0');
  unsigned state = 7;
  for (char& c : noise) c = static_cast<char>((state = state * 1103515245 + 12345) >> 16);
  zip.addFile("noise.bin", noise, ZipBuilder::kStored);
  zip.addFolder("img/");
  const std::string path = writePackage("clock.wgt", zip);
  server.serveFile("/w/clock.wgt", path);
  struct stat info;
  ASSERT_EQ(0, stat(path.c_str(), &info));
  const uint64_t size = static_cast<uint64_t>(info.st_size);

  std::vector<Report> reports;
  widgetengine_set_progress_callback(record, &reports);
  ASSERT_TRUE(receive(server.url("/w/clock.wgt")));
  widgetengine_set_progress_callback(nullptr, nullptr);

  uint64_t lastBytes = 0;
  uint64_t lastEntries = 0;
  int downloads = 0;
  int unpacks = 0;
  for (const Report& r : reports) {
    if (r.stage == WIDGETENGINE_PROGRESS_DOWNLOAD) {
      EXPECT_EQ(0, unpacks) << "download reported after unpacking began";
      EXPECT_GE(r.done, lastBytes);
      EXPECT_TRUE(r.total == 0 || r.total == size) << r.total;
      lastBytes = r.done;
      ++downloads;
    } else {
      ASSERT_EQ(WIDGETENGINE_PROGRESS_UNPACK, r.stage);
      EXPECT_EQ(4u, r.total);
      EXPECT_GE(r.done, lastEntries);
      lastEntries = r.done;
      ++unpacks;
    }
  }
  EXPECT_EQ(size, lastBytes);
  EXPECT_GT(downloads, 1);
  EXPECT_EQ(4u, lastEntries);
  EXPECT_EQ(5, unpacks);  // before each of the four entries, and at the end

  // Removed: the next installation reports nothing.
  reports.clear();
  ASSERT_EQ(1, remove("clock"));
  ASSERT_TRUE(receive(server.url("/w/clock.wgt")));
  EXPECT_TRUE(reports.empty());
}

void collect(int level, const char* line, void* lines) {
  static_cast<std::vector<std::pair<int, std::string>>*>(lines)->emplace_back(level, line);
}

TEST_F(ExtensionsTest, AHostSinkReceivesEveryLineAndStandardOutputNone) {
  std::vector<std::pair<int, std::string>> lines;
  widgetengine_set_log_sink(collect, &lines);
  server.serve("/w/gone.wgt", 404, "gone");
  std::string output;
  EXPECT_FALSE(receive(server.url("/w/gone.wgt"), &output));
  widgetengine_set_log_sink(nullptr, nullptr);
  EXPECT_EQ("", output);

  // The same lines as standard output gets without the sink.
  std::string expected;
  EXPECT_FALSE(receive(server.url("/w/gone.wgt"), &expected));
  std::string joined;
  for (const auto& line : lines) joined += line.second + "\n";
  // Each download has a package file of its own name.
  const std::regex packageFile("/tmp/file[A-Za-z0-9]{6}");
  EXPECT_EQ(std::regex_replace(expected, packageFile, "/tmp/file"),
            std::regex_replace(joined, packageFile, "/tmp/file"));

  auto levelOf = [&](const std::string& text) {
    for (const auto& line : lines)
      if (line.second.compare(0, text.size(), text) == 0) return line.first;
    return 0;
  };
  EXPECT_EQ(WIDGETENGINE_LOG_INFO, levelOf("[Downloading...]"));
  EXPECT_EQ(WIDGETENGINE_LOG_INFO, levelOf("Downloaded from "));
  EXPECT_EQ(WIDGETENGINE_LOG_ERROR, levelOf("Zip archive is not valid"));
  EXPECT_EQ(WIDGETENGINE_LOG_ERROR, levelOf("Error while extracting"));
  EXPECT_EQ(WIDGETENGINE_LOG_INFO, levelOf("Nothing to clean"));
}

// Every kind of line the jobs write, with the level a host's sink receives
// for it. A line of a kind not listed here fails the test, so that a new
// line is given its level on purpose.
TEST_F(ExtensionsTest, EveryKindOfLineArrivesWithItsLevel) {
  const int kError = WIDGETENGINE_LOG_ERROR;
  const int kInfo = WIDGETENGINE_LOG_INFO;
  const int kTrace = WIDGETENGINE_LOG_VERBOSE;
  const std::vector<std::pair<std::string, int>> kinds = {
      {"", kInfo},
      {"[Downloading...]", kInfo},
      {"[Extracting...]", kInfo},
      {"[Remove downloaded file...]", kInfo},
      {"[Parsing config.xml...]", kInfo},
      {"[Cleaning...]", kInfo},
      {"[V:Extractor] filename: ", kTrace},
      {"[V:UserAgentLocales] Computed locales : ", kTrace},
      {"Downloaded from ", kInfo},
      {"Download cleaned", kInfo},
      {"Extraction cleaned", kInfo},
      {"Nothing to clean", kInfo},
      {"Parsing ", kInfo},
      {"Path: ", kInfo},
      {"Widget already installed. Launch it with this url : ", kInfo},
      {"Try to delete directory on fileSystem : ", kInfo},
      {"Delete OK !!!", kInfo},
      {"Delete from database ...", kInfo},
      {"Zip archive is not valid (error ", kError},
      {"Zip archive must not be encrypted", kError},
      {"Zip archive contains only folders", kError},
      {"Empty archive", kError},
      {"Incorrect file name: ", kError},
      {"Could not find config.xml", kError},
      {"Document not parsed successfully", kError},
      {"Widget configuration document is invalid", kError},
      {"No start file found", kError},
      {"The widget name ", kError},
      {"Cannot install ", kError},
      {"Error while downloading", kError},
      {"Error while extracting", kError},
      {"Error while parsing", kError},
      {"Could not download file", kError},
      {"Refusing to download ", kInfo},
      {"No widget with this name", kError},
      {"Damaged file in archive: ", kInfo},
  };
  std::vector<std::pair<int, std::string>> lines;
  widgetengine_set_log_sink(collect, &lines);

  ZipBuilder clock;
  addClock(clock);
  const std::string first = "file://" + writePackage("clock.wgt", clock);
  EXPECT_TRUE(receive(first));
  EXPECT_TRUE(receive(first));
  ASSERT_EQ(0, mkdir((packages + "b").c_str(), 0700));
  EXPECT_FALSE(receive("file://" + writePackage("b/clock.wgt", clock)));
  EXPECT_EQ(1, remove("clock"));
  EXPECT_EQ(0, remove("clock"));
  server.serve("/w/gone.wgt", 404, "gone");
  EXPECT_FALSE(receive(server.url("/w/gone.wgt")));
  EXPECT_FALSE(receive("file:///nowhere/a%b.wgt"));
  EXPECT_FALSE(receive("gopher://127.0.0.1/w.wgt"));
  EXPECT_FALSE(receive("file://otherhost/w.wgt"));
  ZipBuilder empty;
  EXPECT_FALSE(receive("file://" + writePackage("empty.wgt", empty)));
  ZipBuilder folders;
  folders.addFolder("images/");
  EXPECT_FALSE(receive("file://" + writePackage("folders.wgt", folders)));
  ZipBuilder secret;
  secret.addEncryptedFile("index.html", "x", "password");
  EXPECT_FALSE(receive("file://" + writePackage("secret.wgt", secret)));
  // Packages of one file each: a name that climbs out, no config.xml, one
  // that does not parse, one the schema refuses, no start file.
  const std::vector<std::pair<std::string, std::string>> oneFile = {
      {"../evil.html", "x"},
      {"index.html", "x"},
      {"config.xml", configXml("<name>A & B</name>")},
      {"config.xml", "<widget id=\"urn:x\"/>"},
      {"config.xml", configXml("<name>Clock</name>")},
  };
  for (size_t i = 0; i < oneFile.size(); ++i) {
    ZipBuilder zip;
    zip.addFile(oneFile[i].first, oneFile[i].second);
    const std::string name = "refused" + std::to_string(i) + ".wgt";
    EXPECT_FALSE(receive("file://" + writePackage(name, zip))) << name;
  }
  // An entry whose bytes no longer match its checksum.
  ZipBuilder damaged;
  damaged.addFile("config.xml", configXml("<name>Clock</name>"))
      .addFile("index.html", "<p>clock hands</p>", ZipBuilder::kStored);
  const std::string damagedPath = writePackage("damaged.wgt", damaged);
  std::string bytes = TempDir::readFile(damagedPath);
  const size_t hands = bytes.find("hands");
  ASSERT_NE(std::string::npos, hands);
  bytes[hands] = 'l';
  TempDir::writeFile(damagedPath, bytes);
  widgetengine_set_verify_entries(1);
  EXPECT_FALSE(receive("file://" + damagedPath));
  widgetengine_set_verify_entries(0);
  captured(nullptr, [&] { return engine->getInfo("nobody", nullptr, "en"); });
  widgetengine_set_log_sink(nullptr, nullptr);

  size_t checked = 0;
  std::vector<bool> seen(kinds.size());
  for (const auto& line : lines) {
    // The longest kind the line begins with is its kind.
    const std::pair<std::string, int>* kind = nullptr;
    for (const auto& candidate : kinds) {
      if (line.second.compare(0, candidate.first.size(), candidate.first) == 0 &&
          (!kind || candidate.first.size() > kind->first.size()) &&
          (!candidate.first.empty() || line.second.empty())) {
        kind = &candidate;
      }
    }
    if (!kind) {
      ADD_FAILURE() << "a line of no known kind: \"" << line.second << "\"";
      continue;
    }
    EXPECT_EQ(kind->second, line.first) << line.second;
    seen[static_cast<size_t>(kind - kinds.data())] = true;
    ++checked;
  }
  std::cout << checked << " lines of " << kinds.size() << " kinds checked"
            << std::endl;
  EXPECT_EQ(lines.size(), checked);
  for (size_t i = 0; i < kinds.size(); ++i)
    EXPECT_TRUE(seen[i]) << "no line of the kind \"" << kinds[i].first << "\"";
}

TEST_F(ExtensionsTest, SilencedEngineWritesNothing) {
  ASSERT_EQ(0, widgetengine_set_log_destination(WIDGETENGINE_LOG_TO_QUIET));
  server.serve("/w/gone.wgt", 404, "gone");
  std::string output;
  std::string errors;
  {
    CaptureStdout standardError(2);
    EXPECT_FALSE(receive(server.url("/w/gone.wgt"), &output));
    errors = standardError.text();
  }
  EXPECT_EQ("", output);
  EXPECT_EQ("", errors);
  EXPECT_EQ(-1, widgetengine_set_log_destination(99));
}

TEST_F(ExtensionsTest, AcceptLanguageHeadersPickLocalizedFiles) {
  ZipBuilder zip;
  addClock(zip);
  zip.addFile("style.css", "default");
  zip.addFile("locales/de/style.css", "de");
  zip.addFile("locales/fr/style.css", "fr");
  EngineString launch(receive("file://" + writePackage("clock.wgt", zip)));
  ASSERT_TRUE(launch);
  std::string base(launch.get());
  base = base.substr(0, base.rfind('/') + 1);
  const std::string style = base + "style.css";

  auto mapped = [&](const char* header) {
    EngineString list(widgetengine_accept_language(header));
    EngineString answer(captured(nullptr, [&] {
      return engine->mapResource(style.c_str(), list.get());
    }));
    return answer ? std::string(answer.get()) : std::string("(null)");
  };
  // As a browser sends them; the engine's own parser would read none of
  // these as meant. (The engine answers localized copies with a doubled
  // slash before "locales".)
  base += "/";
  EXPECT_EQ(base + "locales/de/style.css", mapped("en-US,de;q=0.8"));
  EXPECT_EQ(base + "locales/de/style.css", mapped("en-US, de"));
  EXPECT_EQ(base + "locales/fr/style.css", mapped("de;q=0.9,fr;q=1.0"));
  EXPECT_EQ(base + "locales/fr/style.css", mapped("de;q=0, fr;q=0.5, *;q=0.1"));
  EXPECT_EQ("(null)", mapped("*"));
}

}  // namespace

// A host that requires signatures gets null for an unsigned package with
// the signature refusal, and the record of a signed one by name.
TEST_F(ExtensionsTest, ASignaturePolicyRefusesThroughTheHostInterface) {
  const std::string anchors = dir.file("anchors");
  ASSERT_EQ(0, mkdir(anchors.c_str(), 0700));
  TempDir::writeFile(anchors + "/root.pem", TestPki::get().root);
  ASSERT_EQ(0, chmod((anchors + "/root.pem").c_str(), 0600));
  widgetengine_set_trust_anchors(anchors.c_str());
  ASSERT_EQ(0, widgetengine_set_signature_policy(WIDGETENGINE_SIGNATURES_REQUIRE));

  ZipBuilder plain;
  addClock(plain);
  EXPECT_EQ(nullptr, receive(served("clock.wgt", plain)));
  int code = 0;
  EXPECT_EQ("not-signed: the package carries no author-signature.xml",
            lastReason(&code));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_SIGNATURE, code);
  EXPECT_TRUE(nothingLeft());
  EXPECT_EQ(nullptr, EngineString(widgetengine_signature_info("clock")));

  // Signed as widgetctl sign signs, through the tools' facade.
  const std::string unpacked = dir.file("signed");
  ASSERT_EQ(0, mkdir(unpacked.c_str(), 0700));
  ASSERT_EQ(0, mkdir((unpacked + "/js").c_str(), 0700));
  TempDir::writeFile(unpacked + "/config.xml",
                     "<widget xmlns=\"http://www.w3.org/ns/widgets\"/>\n");
  TempDir::writeFile(unpacked + "/index.html", "<!DOCTYPE html><p>clock</p>\n");
  TempDir::writeFile(unpacked + "/js/app.js", "tick();\n");
  std::string written, reason;
  ASSERT_TRUE(toolsfacade::signFolder(unpacked, TestPki::get().author.key,
                                      TestPki::get().author.chain, false, false,
                                      &written, &reason))
      << reason;
  EXPECT_EQ("author-signature.xml", written);
  ZipBuilder zip;
  for (const char* name :
       {"config.xml", "index.html", "js/app.js", "author-signature.xml"})
    zip.addFile(name, TempDir::readFile(unpacked + "/" + name));
  EXPECT_NE(nullptr, receive(served("signed.wgt", zip)));
  EngineString info(widgetengine_signature_info("signed"));
  ASSERT_NE(nullptr, info);
  EXPECT_NE(std::string::npos,
            std::string(info.get()).find("\"subject\":\"" +
                                         TestPki::get().author.subject + "\""))
      << info.get();
}

namespace {

nlohmann::json parsed(const EngineString& text) {
  return text ? nlohmann::json::parse(text.get()) : nlohmann::json();
}

}  // namespace

TEST_F(ExtensionsTest, UpdateCheckAnswersInJson) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              configXml("<name>Clock</name><update-description href=\"" +
                            server.url("/u/clock.xml") + "\"/>",
                        "version=\"1.0\""));
  zip.addFile("index.html", "<p>clock</p>");
  ASSERT_TRUE(receive(served("clock.wgt", zip)));
  ZipBuilder plain;
  addClock(plain);
  ASSERT_TRUE(receive(served("plain.wgt", plain)));
  HttpServer::Resource description;
  description.body =
      "<update-info xmlns=\"http://www.w3.org/ns/widgets\" version=\"1.1\" "
      "src=\"clock-1.1.wgt\"><details>Faster.</details>"
      "<details xml:lang=\"fr\">Plus vite.</details></update-info>";
  description.etag = "\"1.1\"";
  server.serveResource("/u/clock.xml", description);

  std::string output;
  const nlohmann::json clock = captured(&output, [] {
    return parsed(EngineString(widgetengine_check_update("clock", "fr-CA")));
  });
  EXPECT_EQ(nlohmann::json({{"name", "clock"},
                            {"installed", "1.0"},
                            {"updateDescription", server.url("/u/clock.xml")},
                            {"checked", true},
                            {"notModified", false},
                            {"available", true},
                            {"version", "1.1"},
                            {"src", server.url("/u/clock-1.1.wgt")},
                            {"details", "Plus vite."}}),
            clock);

  const nlohmann::json all = captured(&output, [] {
    return parsed(EngineString(widgetengine_check_updates(nullptr)));
  });
  ASSERT_TRUE(all.is_array());
  ASSERT_EQ(2u, all.size());
  EXPECT_EQ("clock", all[0]["name"]);
  EXPECT_EQ(true, all[0]["notModified"]);
  EXPECT_EQ("Faster.", all[0]["details"]);
  EXPECT_EQ(nlohmann::json({{"name", "plain"},
                            {"installed", ""},
                            {"updateDescription", nullptr}}),
            all[1]);
  EXPECT_EQ(1, server.bodiesSent("/u/clock.xml"));

  server.serve("/u/clock.xml", 404, "gone");
  const nlohmann::json refused = captured(&output, [] {
    return parsed(EngineString(widgetengine_check_update("clock", nullptr)));
  });
  EXPECT_EQ(false, refused["checked"]);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_HTTP_STATUS, refused["refusal"]);
  EXPECT_EQ("HTTP status 404 from " + server.url("/u/clock.xml"), refused["reason"]);
  EXPECT_NE(std::string::npos,
            output.find("Update check of clock failed: HTTP status 404"));

  EXPECT_EQ(nullptr, EngineString(widgetengine_check_update("none", nullptr)));
  EXPECT_EQ(nullptr, EngineString(widgetengine_check_update(nullptr, "en")));
}
