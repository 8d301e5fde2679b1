// SPDX-License-Identifier: Apache-2.0
#include "engine/ToolsFacade.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "testing/CaptureStdout.h"
#include "testing/ScopedEnv.h"
#include "testing/TestPki.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

class ToolsFacadeTest : public WidgetSandbox {
 protected:
  std::string clock(const std::string& fileName) {
    ZipBuilder zip;
    zip.addFile("config.xml",
                "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>Clock</name></widget>");
    zip.addFile("index.html", "<p>clock</p>");
    return "file://" + writePackage(fileName, zip);
  }

  // The facade's install, its lines kept out of the test's output.
  toolsfacade::Installation install(const std::string& url) {
    CaptureStdout quiet;
    return toolsfacade::install(url);
  }

  int remove(const std::string& name) {
    CaptureStdout quiet;
    RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
    return engine->deleteWidget(name.c_str(), nullptr);
  }
};

TEST_F(ToolsFacadeTest, InstallGivesTheInstallersStatusAndLaunchURL) {
  const std::string url = clock("clock.wgt");
  toolsfacade::Installation first = install(url);
  EXPECT_EQ(0, first.status);
  EXPECT_EQ("file://" + root + "widget_clock/index.html", first.launchURL);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NONE, toolsfacade::lastRefusal().code);
  toolsfacade::Installation again = install(url);
  EXPECT_EQ(2, again.status);
  EXPECT_EQ(first.launchURL, again.launchURL);
}

TEST_F(ToolsFacadeTest, ATakenNameIsStatedInTheEnginesOwnWords) {
  const std::string first = clock("clock.wgt");
  ASSERT_EQ(0, install(first).status);
  ASSERT_EQ(0, mkdir((packages + "b").c_str(), 0755));
  const std::string second = clock("b/clock.wgt");
  EXPECT_EQ(10, install(second).status);
  const toolsfacade::Refusal refusal = toolsfacade::lastRefusal();
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NAME_TAKEN, refusal.code);
  EXPECT_EQ("the name clock is taken by the widget installed from " + first,
            refusal.reason);
  EXPECT_EQ("The widget name clock is taken by the widget installed from " +
                first + "; remove that widget first",
            refusal.statement);
  EXPECT_FALSE(refusal.directoryKept);

  // The next call starts a record of its own.
  EXPECT_EQ(2, install(first).status);
  EXPECT_EQ("", toolsfacade::lastRefusal().statement);
}

TEST_F(ToolsFacadeTest, ARemovalSaysWhenTheDirectoryStays) {
  ASSERT_EQ(0, install(clock("clock.wgt")).status);
  TempDir::removeTree(root + "widget_clock");
  TempDir::writeFile(root + "widget_clock", "not a directory");
  EXPECT_EQ(-1, remove("clock"));
  toolsfacade::Refusal refusal = toolsfacade::lastRefusal();
  EXPECT_EQ(WIDGETENGINE_REFUSAL_REMOVE_FAILED, refusal.code);
  EXPECT_TRUE(refusal.directoryKept);

  EXPECT_EQ(0, remove("unknown"));
  refusal = toolsfacade::lastRefusal();
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NOT_INSTALLED, refusal.code);
  EXPECT_FALSE(refusal.directoryKept);
}

TEST_F(ToolsFacadeTest, AnOrphanGoesOnlyOnceClaimed) {
  const std::string stray = root + "widget_stray/";
  ASSERT_EQ(0, mkdir(stray.c_str(), 0755));
  {
    toolsfacade::OrphanDirectory orphan(root, "stray", stray);
    EXPECT_FALSE(orphan.remove());
    EXPECT_TRUE(TempDir::isDirectory(stray));
    CaptureStdout quiet;
    ASSERT_TRUE(orphan.claim());
    EXPECT_TRUE(orphan.locked());
    EXPECT_TRUE(orphan.remove());
  }
  EXPECT_FALSE(TempDir::exists(stray));
  // The lock file went with the lock.
  EXPECT_TRUE(rootHoldsOnly({"tmp"}));
}

TEST_F(ToolsFacadeTest, AWidgetsDirectoryIsNoOrphan) {
  ASSERT_EQ(0, install(clock("clock.wgt")).status);
  toolsfacade::OrphanDirectory orphan(root, "clock", root + "widget_clock/");
  CaptureStdout quiet;
  EXPECT_FALSE(orphan.claim());
  EXPECT_TRUE(orphan.locked());
  EXPECT_FALSE(orphan.remove());
  EXPECT_TRUE(TempDir::exists(root + "widget_clock/index.html"));
}

TEST_F(ToolsFacadeTest, LeftoversAreReadOnlyFromTheJournalsOfDeadInstallations) {
  const std::string lock = root + ".widget_dead.lock";
  TempDir::writeFile(root + "tmp/fileAb3dE9", "PK");
  TempDir::writeFile(lock, "package " + root + "tmp/fileAb3dE9\nstorage " + root +
                               "widget_dead/\n");
  EXPECT_EQ(std::vector<std::string>{root + "tmp/fileAb3dE9"},
            toolsfacade::deadInstallationLeftovers(lock));
  EXPECT_FALSE(toolsfacade::installationRunning(root, "widget_dead"));

  // While an installation holds the lock, its journal is its own.
  const int fd = open(lock.c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(0, flock(fd, LOCK_EX));
  EXPECT_TRUE(toolsfacade::deadInstallationLeftovers(lock).empty());
  EXPECT_TRUE(toolsfacade::installationRunning(root, "widget_dead"));
  close(fd);

  EXPECT_TRUE(toolsfacade::deadInstallationLeftovers(root + ".widget_none.lock").empty());
}

TEST_F(ToolsFacadeTest, AnUnreadableRegistryIsSaidSo) {
  {
    CaptureStdout quiet;
    const toolsfacade::RegistryRows empty = toolsfacade::readRegistry();
    EXPECT_TRUE(empty.opened);
    EXPECT_TRUE(empty.read);
    EXPECT_TRUE(empty.rows.empty());
    EXPECT_EQ("", empty.error);
    ASSERT_EQ(0, install(clock("clock.wgt")).status);
    const toolsfacade::RegistryRows one = toolsfacade::readRegistry();
    ASSERT_EQ(1u, one.rows.size());
    EXPECT_EQ("clock", one.rows[0]->getName());
  }

  // Not a database at all.
  TempDir::writeFile(conf + "widget.db", std::string(4096, 'x'));
  CaptureStdout quiet;
  EXPECT_FALSE(toolsfacade::readRegistry().read);
}

TEST_F(ToolsFacadeTest, SignatureDocumentsAreThoseAtTheRootInTheOrderTheyAreChecked) {
  ZipBuilder zip;
  for (const char* name : {"signature2.xml", "docs/author-signature.xml", "index.html",
                           "signature10.xml", "author-signature.xml", "signature01.xml"})
    zip.addFile(name, "x");
  EXPECT_EQ(std::vector<std::string>(
                {"author-signature.xml", "signature10.xml", "signature2.xml"}),
            toolsfacade::signatureDocuments(writePackage("signed.wgt", zip)));
  ZipBuilder plain;
  plain.addFile("index.html", "x");
  EXPECT_TRUE(toolsfacade::signatureDocuments(writePackage("plain.wgt", plain)).empty());
  TempDir::writeFile(packages + "page.wgt", "<html/>");
  EXPECT_TRUE(toolsfacade::signatureDocuments(packages + "page.wgt").empty());

  // The same of a folder's own files: not of its subfolders, nor folders.
  const std::string folder = packages + "unpacked";
  ASSERT_EQ(0, mkdir(folder.c_str(), 0755));
  ASSERT_EQ(0, mkdir((folder + "/docs").c_str(), 0755));
  ASSERT_EQ(0, mkdir((folder + "/signature3.xml").c_str(), 0755));
  for (const char* name : {"signature2.xml", "docs/author-signature.xml", "index.html",
                           "signature10.xml", "author-signature.xml", "signature01.xml"})
    TempDir::writeFile(folder + "/" + name, "x");
  EXPECT_EQ(std::vector<std::string>(
                {"author-signature.xml", "signature10.xml", "signature2.xml"}),
            toolsfacade::signatureDocumentsInFolder(folder));
  EXPECT_TRUE(toolsfacade::signatureDocumentsInFolder(packages + "none").empty());
}

TEST_F(ToolsFacadeTest, AnUnpackedPackageIsJudgedAgainstTheAnchorsInstallationsUse) {
  const TestPki& pki = TestPki::get();
  const std::string anchors = dir.file("anchors");
  ASSERT_EQ(0, mkdir(anchors.c_str(), 0755));
  TempDir::writeFile(anchors + "/root.pem", pki.root);
  ScopedEnv anchorsVariable("WIDGETENGINE_TRUST_ANCHORS", anchors);

  const std::string folder = dir.file("clock");
  std::string reason;
  {
    CaptureStdout quiet;
    ASSERT_TRUE(toolsfacade::unpack(clock("clock.wgt").substr(7), folder, &reason)) << reason;
  }
  EXPECT_EQ("<p>clock</p>", TempDir::readFile(folder + "/index.html"));
  std::string written;
  ASSERT_TRUE(toolsfacade::signFolder(folder, pki.author.key, pki.author.chain, false,
                                      false, &written, &reason))
      << reason;
  const toolsfacade::SignatureReport report = toolsfacade::checkSignatures(folder);
  EXPECT_EQ(anchors, report.anchorsFolder);
  EXPECT_EQ(1u, report.anchors);
  EXPECT_TRUE(report.anchorProblems.empty());
  const nlohmann::json record = nlohmann::json::parse(report.record);
  EXPECT_EQ(true, record["signed"]);
  EXPECT_EQ(true, record["valid"]);
  EXPECT_EQ(pki.author.subject, record["author"]["subject"]);
  EXPECT_EQ(pki.rootSubject, record["author"]["anchor"]);

  TempDir::writeFile(folder + "/index.html", "<p>changed</p>");
  const nlohmann::json changed =
      nlohmann::json::parse(toolsfacade::checkSignatures(folder).record);
  EXPECT_EQ(nlohmann::json({"author-signature.xml: digest-mismatch: index.html"}),
            changed["failures"]);

  // What cannot be unpacked leaves nothing where it was to go.
  TempDir::writeFile(packages + "page.wgt", "<html/>");
  CaptureStdout quiet;
  char before[4096];
  ASSERT_NE(nullptr, getcwd(before, sizeof before));
  EXPECT_FALSE(toolsfacade::unpack(packages + "page.wgt", folder, &reason));
  EXPECT_NE("", reason);
  EXPECT_FALSE(TempDir::exists(folder));
  char after[4096];
  ASSERT_NE(nullptr, getcwd(after, sizeof after));
  EXPECT_STREQ(before, after);
}

}  // namespace
