// SPDX-License-Identifier: Apache-2.0
#include "lint/PackageLinter.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/xmlerror.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "testing/ScopedEnv.h"
#include "install/WidgetInstaller.h"
#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

const char kPng[] = "\x89PNG\r\n\x1a\n\0\0\0\rIHDR";
const char kGif[] = "GIF89a\x01\0\x01\0\0\0\0";

std::string png() { return std::string(kPng, sizeof kPng - 1); }
std::string gif() { return std::string(kGif, sizeof kGif - 1); }

// A config.xml in the widgets namespace with body inside the widget element.
std::string config(const std::string& body,
                   const std::string& attributes = "") {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
         "id=\"http://example.org/clock\" version=\"1.0\"" +
         attributes + ">\n" + body + "</widget>\n";
}

const char kGoodBody[] =
    "  <name>Clock</name>\n"
    "  <icon src=\"icon.png\" width=\"16\" height=\"16\"/>\n"
    "  <content src=\"main.html\"/>\n"
    "  <feature name=\"http://example.org/extra\" required=\"false\"/>\n";

// The package every test starts from: it draws no finding at all.
void addGoodPackage(ZipBuilder& zip) {
  zip.addFile("config.xml", config(kGoodBody, " width=\"320\" height=\"240\""))
      .addFile("main.html", "<p>time</p>")
      .addFile("icon.png", png())
      .addFolder("locales/")
      .addFolder("locales/fr/")
      .addFile("locales/fr/main.html", "<p>heure</p>");
}

class PackageLinterTest : public ::testing::Test {
 protected:
  PackageLinterTest()
      : scratch_(dir.file("tmp")), tmpdir_("TMPDIR", dir.file("tmp")) {
    mkdir(scratch_.c_str(), 0700);
  }

  ~PackageLinterTest() override {
    // The linter writes nowhere: not in TMPDIR, not beside the package.
    EXPECT_TRUE(TempDir::listDirectory(scratch_).empty());
  }

  std::vector<LintFinding> lint(const ZipBuilder& zip,
                                const std::string& url =
                                    "http://example.org/clock.wgt") {
    const std::string path = dir.file("clock.wgt");
    EXPECT_TRUE(zip.write(path));
    return lintFile(path, url);
  }

  std::vector<LintFinding> lintFile(const std::string& path,
                                    const std::string& url =
                                        "http://example.org/clock.wgt") {
    const std::vector<std::string> before = TempDir::listDirectory(dir.path());
    PackageLinter linter(path, url, WIDGETENGINE_TEST_SCHEMA_PATH);
    std::vector<LintFinding> findings = linter.run();
    EXPECT_EQ(before, TempDir::listDirectory(dir.path()));
    for (const LintFinding& finding : findings) {
      EXPECT_FALSE(finding.explanation.empty()) << finding.tag;
      EXPECT_TRUE(finding.level == "error" || finding.level == "warning" ||
                  finding.level == "info")
          << finding.level;
    }
    return findings;
  }

  // Writes the good package plus one stored entry (its bytes lie in the
  // file as they are, ready to be patched) and checks that it draws no
  // finding of tag yet; the package's path.
  std::string storedPackage(const std::string& name, const std::string& data,
                            const std::string& tag) {
    ZipBuilder zip;
    addGoodPackage(zip);
    zip.addFile(name, data, ZipBuilder::kStored);
    const std::string path = dir.file("clock.wgt");
    EXPECT_TRUE(zip.write(path));
    for (const LintFinding& finding : lintFile(path))
      EXPECT_NE(tag, finding.tag) << finding.detail;
    return path;
  }

  TempDir dir;

 private:
  std::string scratch_;
  ScopedEnv tmpdir_;
};

std::vector<std::string> tagsOf(const std::vector<LintFinding>& findings) {
  std::vector<std::string> tags;
  for (const LintFinding& finding : findings) tags.push_back(finding.tag);
  return tags;
}

std::string describe(const std::vector<LintFinding>& findings) {
  std::string text;
  for (const LintFinding& f : findings)
    text += f.level + " " + f.tag + " " + f.detail.substr(0, 300) + "\n";
  return text;
}

const LintFinding* find(const std::vector<LintFinding>& findings,
                        const std::string& tag) {
  for (const LintFinding& finding : findings)
    if (finding.tag == tag) return &finding;
  return nullptr;
}

size_t count(const std::vector<LintFinding>& findings, const std::string& tag) {
  const std::vector<std::string> tags = tagsOf(findings);
  return std::count(tags.begin(), tags.end(), tag);
}

// Overwrites the first occurrence of from in the file with to (same size).
void patchFile(const std::string& path, const std::string& from,
               const std::string& to, size_t occurrence = 0) {
  std::string bytes = TempDir::readFile(path);
  size_t at = bytes.find(from);
  for (size_t i = 0; i < occurrence && at != std::string::npos; ++i)
    at = bytes.find(from, at + 1);
  ASSERT_NE(at, std::string::npos);
  ASSERT_EQ(from.size(), to.size());
  bytes.replace(at, from.size(), to);
  TempDir::writeFile(path, bytes);
}

TEST_F(PackageLinterTest, AGoodPackageDrawsNoFinding) {
  ZipBuilder zip;
  addGoodPackage(zip);
  const std::vector<LintFinding> findings = lint(zip);
  EXPECT_TRUE(findings.empty()) << describe(findings);
}

TEST_F(PackageLinterTest, EveryTagHasALevelAndASentence) {
  for (const LintTag& tag : PackageLinter::tags()) {
    EXPECT_TRUE(strcmp(tag.level, "error") == 0 ||
                strcmp(tag.level, "warning") == 0 ||
                strcmp(tag.level, "info") == 0)
        << tag.tag;
    const std::string sentence = tag.explanation;
    EXPECT_EQ('.', sentence.back()) << tag.tag;
  }
}

TEST_F(PackageLinterTest, TheDocumentationNamesEveryTagAtItsLevel) {
  const std::string doc =
      TempDir::readFile(std::string(WIDGETENGINE_SOURCE_DIR) + "/docs/check.md");
  for (const LintTag& tag : PackageLinter::tags()) {
    const std::string row =
        std::string("| `") + tag.tag + "` | " + tag.level + " |";
    EXPECT_NE(std::string::npos, doc.find(row)) << row;
  }
}

TEST_F(PackageLinterTest, EntryCrcMismatch) {
  const std::string path =
      storedPackage("script.js", "var clockHands = 12;", "entry-crc-mismatch");
  patchFile(path, "clockHands", "clockHandz");
  const std::vector<LintFinding> findings = lintFile(path);
  const LintFinding* finding = find(findings, "entry-crc-mismatch");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ("error", finding->level);
  EXPECT_EQ("script.js", finding->detail);
}

TEST_F(PackageLinterTest, EveryDamagedEntryIsReported) {
  ZipBuilder zip;
  addGoodPackage(zip);
  zip.addFile("a.js", "var firstValue = 1;", ZipBuilder::kStored)
      .addFile("b.js", "var otherValue = 2;", ZipBuilder::kStored);
  const std::string path = dir.file("clock.wgt");
  ASSERT_TRUE(zip.write(path));
  patchFile(path, "firstValue", "firstVa1ue");
  patchFile(path, "otherValue", "otherVa1ue");
  EXPECT_EQ(2u, count(lintFile(path), "entry-crc-mismatch"));
}

TEST_F(PackageLinterTest, DeclaredIconMissing) {
  ZipBuilder good;
  addGoodPackage(good);
  EXPECT_EQ(nullptr, find(lint(good), "declared-icon-missing"));
  ZipBuilder zip;
  zip.addFile("config.xml", config("<icon src=\"images/logo.png\"/>\n"
                                   "<content src=\"main.html\"/>\n"))
      .addFile("main.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  const LintFinding* finding = find(findings, "declared-icon-missing");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ("warning", finding->level);
  EXPECT_EQ("images/logo.png (config.xml:3)", finding->detail);
}

TEST_F(PackageLinterTest, IconContentMismatch) {
  ZipBuilder zip;
  zip.addFile("config.xml", config("<icon src=\"icon.png\"/>\n"
                                   "<icon src=\"ok.gif\"/>\n"))
      .addFile("index.html", "<p/>")
      .addFile("icon.png", gif())
      .addFile("ok.gif", gif());
  const std::vector<LintFinding> findings = lint(zip);
  ASSERT_EQ(1u, count(findings, "icon-content-mismatch")) << describe(findings);
  EXPECT_EQ("icon.png: named image/png, holds image/gif (config.xml:3)",
            find(findings, "icon-content-mismatch")->detail);
}

TEST_F(PackageLinterTest, ContentSrcMissing) {
  ZipBuilder good;
  addGoodPackage(good);
  EXPECT_EQ(nullptr, find(lint(good), "content-src-missing"));
  ZipBuilder zip;
  zip.addFile("config.xml", config("<content src=\"main.html\"/>\n"))
      .addFile("index.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  const LintFinding* finding = find(findings, "content-src-missing");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ("main.html (config.xml:3)", finding->detail);
  // index.html stands in, so the package still has a start page.
  EXPECT_EQ(nullptr, find(findings, "start-file-missing"));
}

TEST_F(PackageLinterTest, StartFileMissing) {
  ZipBuilder zip;
  zip.addFile("config.xml", config("<content src=\"main.html\"/>\n"))
      .addFile("start.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  EXPECT_NE(nullptr, find(findings, "content-src-missing"));
  EXPECT_NE(nullptr, find(findings, "start-file-missing")) << describe(findings);
}

TEST_F(PackageLinterTest, ContentTypeUnknown) {
  ZipBuilder zip;
  zip.addFile("config.xml", config("<content src=\"main.page\"/>\n"))
      .addFile("main.page", "<p/>")
      .addFile("index.html", "<p/>");
  EXPECT_NE(nullptr, find(lint(zip), "content-type-unknown"));
  ZipBuilder typed;
  typed.addFile("config.xml",
                config("<content src=\"main.page\" type=\"text/html\"/>\n"))
      .addFile("main.page", "<p/>");
  EXPECT_EQ(nullptr, find(lint(typed), "content-type-unknown"));
}

TEST_F(PackageLinterTest, DimensionNotANumber) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              config("<icon src=\"icon.png\" width=\"big\"/>\n",
                     " width=\"wide\" height=\" 240 \""))
      .addFile("index.html", "<p/>")
      .addFile("icon.png", png());
  const std::vector<LintFinding> findings = lint(zip);
  ASSERT_EQ(2u, count(findings, "dimension-not-a-number")) << describe(findings);
  EXPECT_EQ("width=\"wide\" (config.xml:2)", findings[0].detail);
  EXPECT_EQ("width=\"big\" (config.xml:3)", findings[1].detail);
}

TEST_F(PackageLinterTest, ConfigInSubfolder) {
  ZipBuilder zip;
  zip.addFolder("clock/")
      .addFile("clock/config.xml", config(kGoodBody))
      .addFile("clock/main.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  const LintFinding* finding = find(findings, "config-in-subfolder");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ("error", finding->level);
  EXPECT_EQ("clock/config.xml", finding->detail);
  EXPECT_EQ(nullptr, find(findings, "config-missing"));

  ZipBuilder none;
  none.addFile("index.html", "<p/>");
  const std::vector<LintFinding> missing = lint(none);
  EXPECT_NE(nullptr, find(missing, "config-missing"));
  EXPECT_EQ(nullptr, find(missing, "config-in-subfolder"));
}

TEST_F(PackageLinterTest, NameNeedsEscaping) {
  ZipBuilder zip;
  addGoodPackage(zip);
  const std::vector<LintFinding> findings =
      lint(zip, "http://example.org/my%20clock/my clock.wgt");
  const LintFinding* finding = find(findings, "name-needs-escaping");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ("my clock", finding->detail);
  EXPECT_EQ(nullptr, find(lint(zip, "file:///home/a/my_clock.wgt"),
                          "name-needs-escaping"));
}

TEST_F(PackageLinterTest, NotAZipArchive) {
  const std::string path = dir.file("clock.wgt");
  TempDir::writeFile(path,
                     "<!DOCTYPE html>\n<html><body>404 Not Found</body></html>");
  const std::vector<LintFinding> findings = lintFile(path);
  ASSERT_EQ(1u, findings.size()) << describe(findings);
  EXPECT_EQ("not-a-zip-archive", findings[0].tag);
  EXPECT_EQ("the file is an HTML document", findings[0].detail);

  TempDir::writeFile(path, "");
  EXPECT_EQ("not-a-zip-archive", lintFile(path).at(0).tag);
  ZipBuilder good;
  addGoodPackage(good);
  EXPECT_EQ(nullptr, find(lint(good), "not-a-zip-archive"));
}

TEST_F(PackageLinterTest, RequiredFeatureUnknown) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              config("<feature name=\"http://example.org/camera\"/>\n"
                     "<feature name=\"http://example.org/gps\" "
                     "required=\"true\"/>\n"
                     "<feature name=\"http://example.org/nfc\" "
                     "required=\"false\"/>\n"))
      .addFile("index.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  ASSERT_EQ(2u, count(findings, "required-feature-unknown"))
      << describe(findings);
  EXPECT_EQ("http://example.org/camera (config.xml:3)", findings[0].detail);
}

TEST_F(PackageLinterTest, LocalizedCopyWithoutDefault) {
  ZipBuilder zip;
  addGoodPackage(zip);
  zip.addFolder("locales/de/").addFile("locales/de/help.html", "<p>Hilfe</p>");
  const std::vector<LintFinding> findings = lint(zip);
  ASSERT_EQ(1u, count(findings, "localized-copy-without-default"))
      << describe(findings);
  EXPECT_EQ("locales/de/help.html",
            find(findings, "localized-copy-without-default")->detail);
}

TEST_F(PackageLinterTest, SchemaInvalidGivesLibxmlLineAndMessage) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<?xml version=\"1.0\"?>\n<widget>\n  <name>Clock</name>\n"
              "</widget>\n")
      .addFile("index.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  const LintFinding* finding = find(findings, "schema-invalid");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ("error", finding->level);
  EXPECT_EQ(0u, finding->detail.find("config.xml:2: ")) << finding->detail;
  EXPECT_NE(std::string::npos, finding->detail.find("widget"))
      << finding->detail;
}

void countXmlError(void* calls, xmlErrorPtr) { ++*static_cast<int*>(calls); }

TEST_F(PackageLinterTest, LibxmlReportsReachTheCallerAgainAfterwards) {
  int calls = 0;
  xmlSetStructuredErrorFunc(&calls, countXmlError);
  ZipBuilder zip;
  zip.addFile("config.xml", "<widget").addFile("index.html", "<p/>");
  EXPECT_NE(nullptr, find(lint(zip), "config-not-well-formed"));
  EXPECT_EQ(0, calls);
  xmlDocPtr doc = xmlReadMemory("<a", 2, "x.xml", nullptr, 0);
  xmlFreeDoc(doc);
  EXPECT_LT(0, calls);
  xmlSetStructuredErrorFunc(nullptr, nullptr);
}

TEST_F(PackageLinterTest, MissingSchemaIsReported) {
  ZipBuilder zip;
  addGoodPackage(zip);
  const std::string path = dir.file("clock.wgt");
  ASSERT_TRUE(zip.write(path));
  PackageLinter linter(path, "http://example.org/clock.wgt",
                       dir.file("no-such-schema.rng"));
  const std::vector<LintFinding> findings = linter.run();
  EXPECT_NE(nullptr, find(findings, "schema-unavailable")) << describe(findings);
}

TEST_F(PackageLinterTest, EntryNamesThatLeaveTheFolderOrAreRefused) {
  ZipBuilder zip;
  addGoodPackage(zip);
  zip.addFile("../evil.html", "x")
      .addFile("a/../../evil", "x")
      .addFile("a..b/c..", "x")
      .addFile("caf\xe9.html", "x")
      .addFile("what?.html", "x");
  const std::vector<LintFinding> findings = lint(zip);
  EXPECT_EQ(2u, count(findings, "entry-name-leaves-folder"))
      << describe(findings);
  ASSERT_EQ(2u, count(findings, "entry-name-refused")) << describe(findings);
  EXPECT_EQ("caf\\xE9.html", find(findings, "entry-name-refused")->detail);
}

TEST_F(PackageLinterTest, TruncatedArchive) {
  ZipBuilder zip;
  addGoodPackage(zip);
  const std::string path = dir.file("clock.wgt");
  ASSERT_TRUE(zip.write(path));
  const std::string bytes = TempDir::readFile(path);
  TempDir::writeFile(path, bytes.substr(0, bytes.size() / 2));
  const std::vector<LintFinding> findings = lintFile(path);
  ASSERT_EQ(1u, findings.size()) << describe(findings);
  EXPECT_EQ("archive-unreadable", findings[0].tag);
}

TEST_F(PackageLinterTest, UnknownCompressionMethod) {
  const std::string path =
      storedPackage("odd.js", "var odd = 1;", "entry-unreadable");
  // Method 80 in both headers of odd.js (offset 8 of the local header, 10 of
  // the central one): no zip tool knows it.
  std::string bytes = TempDir::readFile(path);
  for (const auto& header : {std::make_pair(std::string("PK\x03\x04", 4), 30),
                             std::make_pair(std::string("PK\x01\x02", 4), 46)}) {
    for (size_t at = bytes.find(header.first); at != std::string::npos;
         at = bytes.find(header.first, at + 1)) {
      if (bytes.compare(at + header.second, 6, "odd.js") == 0)
        bytes[at + (header.second == 30 ? 8 : 10)] = 80;
    }
  }
  TempDir::writeFile(path, bytes);
  const std::vector<LintFinding> findings = lintFile(path);
  const LintFinding* finding = find(findings, "entry-unreadable");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ(0u, finding->detail.find("odd.js: ")) << finding->detail;
}

TEST_F(PackageLinterTest, ConfigTooLarge) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              config("<description>" + std::string(1100000, 'x') +
                     "</description>\n"))
      .addFile("index.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  ASSERT_EQ(1u, findings.size()) << describe(findings);
  EXPECT_EQ("config-too-large", findings[0].tag);
  ZipBuilder good;
  addGoodPackage(good);
  EXPECT_EQ(nullptr, find(lint(good), "config-too-large"));
}

TEST_F(PackageLinterTest, EmptyArchive) {
  ZipBuilder empty;
  EXPECT_NE(nullptr, find(lint(empty), "archive-empty"));
  ZipBuilder folders;
  folders.addFolder("a/").addFolder("a/b/");
  EXPECT_NE(nullptr, find(lint(folders), "archive-empty"));
  ZipBuilder good;
  addGoodPackage(good);
  EXPECT_EQ(nullptr, find(lint(good), "archive-empty"));
}

TEST_F(PackageLinterTest, InconsistentHeaders) {
  const std::string path =
      storedPackage("script.js", "var x = 1;", "archive-inconsistent");
  // The local header's name alone changes; the central directory keeps it.
  patchFile(path, "script.js", "scrypt.js");
  const std::vector<LintFinding> findings = lintFile(path);
  EXPECT_NE(nullptr, find(findings, "archive-inconsistent"))
      << describe(findings);
}

TEST_F(PackageLinterTest, EncryptedAndDuplicateEntries) {
  ZipBuilder zip;
  addGoodPackage(zip);
  zip.addEncryptedFile("secret.js", "var x;", "password")
      .addFile("main.htmx", "<p>again</p>");
  const std::string path = dir.file("clock.wgt");
  ASSERT_TRUE(zip.write(path));
  // libzip writes no two entries of one name; the second is renamed after,
  // in its local and its central header.
  patchFile(path, "main.htmx", "main.html");
  patchFile(path, "main.htmx", "main.html");
  const std::vector<LintFinding> findings = lintFile(path);
  EXPECT_EQ(1u, count(findings, "entry-encrypted")) << describe(findings);
  EXPECT_EQ(1u, count(findings, "duplicate-entry")) << describe(findings);
}

TEST_F(PackageLinterTest, EveryFindingIsReachedNotOnlyTheFirst) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              config("<icon src=\"gone.png\"/>\n<icon src=\"icon.png\"/>\n"
                     "<content src=\"main.html\"/>\n"
                     "<feature name=\"http://example.org/camera\"/>\n",
                     " width=\"wide\""))
      .addFile("index.html", "<p>1234567890</p>", ZipBuilder::kStored)
      .addFile("icon.png", gif())
      .addFile("locales/fr/help.html", "<p/>");
  const std::string path = dir.file("my clock.wgt");
  ASSERT_TRUE(zip.write(path));
  patchFile(path, "1234567890", "1234567891");
  const std::vector<LintFinding> findings =
      lintFile(path, "file:///home/a/my clock.wgt");
  const std::vector<std::string> expected = {
      "entry-crc-mismatch",     "dimension-not-a-number",
      "required-feature-unknown", "declared-icon-missing",
      "icon-content-mismatch",  "content-src-missing",
      "localized-copy-without-default", "name-needs-escaping"};
  EXPECT_EQ(expected, tagsOf(findings)) << describe(findings);
}

// --- the linter and the engine agree on what is refused ------------------

class LinterAndEngine : public WidgetSandbox {
 protected:
  // The installer's status for the package, and whether the linter gave an
  // error for it.
  std::pair<int, bool> judge(const ZipBuilder& zip, const std::string& name) {
    const std::string path = writePackage(name, zip);
    PackageLinter linter(path, "file://" + path, WIDGETENGINE_TEST_SCHEMA_PATH);
    bool error = false;
    for (const LintFinding& finding : linter.run())
      error = error || finding.level == "error";
    WidgetInstaller installer("file://" + path);
    return {installer.run(), error};
  }
};

TEST_F(LinterAndEngine, AGoodPackageInstallsAndARefusedOneHasAnError) {
  ZipBuilder good;
  addGoodPackage(good);
  EXPECT_EQ(std::make_pair(0, false), judge(good, "good.wgt"));

  ZipBuilder folder;
  folder.addFolder("clock/").addFile("clock/config.xml", config(kGoodBody))
      .addFile("clock/main.html", "<p/>");
  ZipBuilder invalid;
  invalid.addFile("config.xml", "<widget><name>x</name></widget>")
      .addFile("index.html", "<p/>");
  ZipBuilder badName;
  addGoodPackage(badName);
  badName.addFile("caf\xc3\xa9.html", "x");
  ZipBuilder noStart;
  noStart.addFile("config.xml", config("<content src=\"main.html\"/>\n"))
      .addFile("start.html", "<p/>");
  ZipBuilder empty;
  int round = 0;
  for (const ZipBuilder* zip : {&folder, &invalid, &badName, &noStart, &empty}) {
    const std::pair<int, bool> verdict =
        judge(*zip, "refused" + std::to_string(++round) + ".wgt");
    EXPECT_NE(0, verdict.first) << "package " << round;
    EXPECT_TRUE(verdict.second) << "package " << round;
  }
  EXPECT_EQ(5, round);
}

// --- hostile packages: findings, never a crash, hang or stray file --------

TEST_F(PackageLinterTest, TenThousandEntries) {
  ZipBuilder zip;
  addGoodPackage(zip);
  for (int i = 0; i < 10000; ++i)
    zip.addFile("locales/xx/f" + std::to_string(i) + ".js", "1",
                ZipBuilder::kStored);
  const std::vector<LintFinding> findings = lint(zip);
  EXPECT_EQ(10000u, count(findings, "localized-copy-without-default"));
}

TEST_F(PackageLinterTest, FourThousandByteNames) {
  ZipBuilder zip;
  addGoodPackage(zip);
  zip.addFile("../" + std::string(4000, 'a'), "x")
      .addFile(std::string(4000, '\xff'), "x");
  const std::vector<LintFinding> findings = lint(zip);
  ASSERT_NE(nullptr, find(findings, "entry-name-leaves-folder"));
  const std::string& detail = find(findings, "entry-name-leaves-folder")->detail;
  EXPECT_LT(detail.size(), 300u);
  EXPECT_NE(std::string::npos, detail.find("(4003 bytes)")) << detail;
  EXPECT_NE(nullptr, find(findings, "entry-name-refused"));
}

TEST_F(PackageLinterTest, GigabyteDeclaredEntryIsNotRead) {
  const std::string path = storedPackage(
      "big.bin", std::string(1000, 'z'), "entry-not-verified");
  // Both headers of big.bin claim a gigabyte: the uncompressed size is at
  // offset 22 of the local header and 24 of the central one.
  std::string bytes = TempDir::readFile(path);
  const std::string gigabyte("\x00\x00\x00\x40", 4);
  const std::string central("PK\x01\x02", 4);
  for (size_t at = bytes.find(central); at != std::string::npos;
       at = bytes.find(central, at + 1)) {
    if (bytes.compare(at + 46, 7, "big.bin") == 0)
      bytes.replace(at + 24, 4, gigabyte);
  }
  TempDir::writeFile(path, bytes);
  const std::vector<LintFinding> findings = lintFile(path);
  const LintFinding* finding = find(findings, "entry-not-verified");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ("big.bin (1073741824 bytes)", finding->detail);
}

TEST_F(PackageLinterTest, GigabyteOfZerosDeclaredHonestly) {
  ZipBuilder zip;
  addGoodPackage(zip);
  zip.addZeros("zeros.bin", 1ull << 30);
  const std::vector<LintFinding> findings = lint(zip);
  EXPECT_NE(nullptr, find(findings, "entry-not-verified")) << describe(findings);
}

TEST_F(PackageLinterTest, BrokenXml) {
  const std::string broken[] = {
      "<widget xmlns=\"http://www.w3.org/ns/widgets\">\n<name>Clock</nam>\n",
      "",
      "<?xml version=\"1.0\"?>\n<!DOCTYPE w [<!ENTITY a \"aaaaaaaaaa\">"
      "<!ENTITY b \"&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;\">"
      "<!ENTITY c \"&b;&b;&b;&b;&b;&b;&b;&b;&b;&b;\">"
      "<!ENTITY d \"&c;&c;&c;&c;&c;&c;&c;&c;&c;&c;\">]>\n"
      "<widget xmlns=\"http://www.w3.org/ns/widgets\">&d;&d;&d;</widget>\n",
      std::string(100000, '<'),
  };
  for (const std::string& text : broken) {
    ZipBuilder zip;
    zip.addFile("config.xml", text).addFile("index.html", "<p/>");
    const std::vector<LintFinding> findings = lint(zip);
    EXPECT_FALSE(findings.empty());
    for (const LintFinding& f : findings) EXPECT_EQ("error", f.level) << f.tag;
  }
  ZipBuilder zip;
  zip.addFile("config.xml", broken[0]).addFile("index.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  const LintFinding* finding = find(findings, "config-not-well-formed");
  ASSERT_NE(nullptr, finding) << describe(findings);
  EXPECT_EQ(0u, finding->detail.find("config.xml:2: ")) << finding->detail;
}

TEST_F(PackageLinterTest, NonUtf8BytesInConfig) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              config("<name>Cl\xff\xfeock</name>\n<icon src=\"\xe9.png\"/>\n"))
      .addFile("index.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  EXPECT_NE(nullptr, find(findings, "config-not-well-formed"))
      << describe(findings);
}

TEST_F(PackageLinterTest, HugeDocumentIsNotValidated) {
  std::string body;
  for (int i = 0; i < 30000; ++i) body += "<x:a xmlns:x=\"urn:x\"/>";
  ZipBuilder zip;
  zip.addFile("config.xml", config(body)).addFile("index.html", "<p/>");
  const std::vector<LintFinding> findings = lint(zip);
  EXPECT_NE(nullptr, find(findings, "schema-invalid")) << describe(findings);
}

}  // namespace
