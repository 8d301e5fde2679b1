// SPDX-License-Identifier: Apache-2.0
#include "engine/WidgetEngineDelegate.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"
#include "testing/CaptureStdout.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"
#include "testing/WorkingDirectory.h"

namespace {

const char kTrace[] = "[V:UserAgentLocales] Computed locales : ";

size_t countOf(const std::string& text, const std::string& piece) {
  size_t n = 0;
  for (size_t at = text.find(piece); at != std::string::npos;
       at = text.find(piece, at + 1)) {
    ++n;
  }
  return n;
}

// Takes a strdup'ed answer and frees it.
std::string take(char* answer) {
  if (!answer) return "(null)";
  std::string text(answer);
  free(answer);
  return text;
}

// A registry and a widget root of the test's own, with widgets registered
// directly and their files on disk.
class DelegateTest : public ::testing::Test {
 protected:
  DelegateTest()
      : registryEnv_("YRA_DATA_PATH", registry_.path() + "/"),
        rootEnv_("WIDGET_PATH", widgets_.path() + "/") {}

  std::string dir(const std::string& name) const {
    return widgets_.path() + "/widget_" + name + "/";
  }
  std::string sourceURL(const std::string& name) const {
    return "http://127.0.0.1:9/" + name + ".wgt";
  }
  std::string launchURL(const std::string& name) const {
    return "file://" + dir(name) + "index.html";
  }

  // index.html, style.css, locales/fr/index.html, locales/de/index.html.
  void addWidget(const std::string& name) {
    const std::string d = dir(name);
    const std::vector<std::string> files = {"index.html", "style.css",
                                            "locales/fr/index.html",
                                            "locales/de/index.html"};
    mkdir(d.c_str(), 0755);
    mkdir((d + "locales").c_str(), 0755);
    mkdir((d + "locales/fr").c_str(), 0755);
    mkdir((d + "locales/de").c_str(), 0755);
    for (const std::string& file : files) TempDir::writeFile(d + file, file);

    SqlLite3 db;
    ASSERT_TRUE(db.isOpen());
    WidgetsData widget(0, sourceURL(name), name, launchURL(name), d, 300, 200,
                       "1.0", name, name, "windowed", "icon.png", "Author",
                       "a@example.org", "http://example.org/");
    widget.setFiles(files);
    const int id = db.insertWidget(&widget);
    ASSERT_GT(id, 0);
    db.insertLocalizedItems(id, "name",
                            {{"default", "Clock"}, {"fr", "Horloge"},
                             {"de", "Uhr"}});
    db.insertLocalizedItems(id, "description", {{"default", "Tells time"}});
  }

  WorkingDirectory start_;  // a failed installation moves the process
  TempDir registry_;
  TempDir widgets_;
  ScopedEnv registryEnv_;
  ScopedEnv rootEnv_;
};

}  // namespace

TEST_F(DelegateTest, FactoryHandleHoldsTheOnlyReference) {
  RefPtr<WebWidgetEngineDelegate> engine = WidgetEngineDelegate::createInstance();
  ASSERT_TRUE(engine);
  EXPECT_EQ(1u, engine->refCount());
  EXPECT_NE(nullptr, dynamic_cast<WidgetEngineDelegate*>(engine.get()));
}

TEST_F(DelegateTest, InstalledURLAnswersANewCopyOfTheStoredLaunchURL) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  char* first = engine->receiveWidget(sourceURL("clock").c_str(), nullptr);
  char* second = engine->receiveWidget(sourceURL("clock").c_str(), nullptr);
  out.text();
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first, second);
  EXPECT_EQ(launchURL("clock"), take(first));
  EXPECT_EQ(launchURL("clock"), take(second));
}

TEST_F(DelegateTest, FailedInstallAnswersNull) {
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  EXPECT_EQ(nullptr, engine->receiveWidget("", nullptr));
  EXPECT_EQ(nullptr, engine->receiveWidget("gopher://127.0.0.1/w.wgt", nullptr));
  EXPECT_EQ(nullptr,
            engine->receiveWidget(("file://" + widgets_.path() + "/none.wgt").c_str(),
                                  nullptr));
  EXPECT_EQ(nullptr, engine->receiveWidget("x'y.wgt", nullptr));
  EXPECT_EQ(nullptr,
            engine->receiveWidget(("http://127.0.0.1:9/" + std::string(4000, 'a') +
                                   ".wgt").c_str(),
                                  nullptr));
  EXPECT_EQ(nullptr, engine->receiveWidget(nullptr, nullptr));
}

TEST_F(DelegateTest, OtherSchemeIsNotMappedAndLeavesLocalesAlone) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  EXPECT_EQ(nullptr, engine->mapResource("http://host/index.html", "fr"));
  EXPECT_EQ(nullptr,
            engine->mapResource(("x" + launchURL("clock")).c_str(), "fr"));
  EXPECT_EQ(nullptr,
            engine->mapResource(("FILE://" + dir("clock") + "index.html").c_str(),
                                "fr"));
  EXPECT_EQ("", out.text());

  // The cache is still empty: the next file address computes it.
  CaptureStdout second;
  char* mapped = engine->mapResource(launchURL("clock").c_str(), "fr");
  EXPECT_EQ(std::string(kTrace) + "fr\n", second.text());
  EXPECT_EQ("file://" + dir("clock") + "/locales/fr/index.html", take(mapped));
}

TEST_F(DelegateTest, ResourceMapsToFirstLocaleThatHasACopy) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  EXPECT_EQ("file://" + dir("clock") + "/locales/fr/index.html",
            take(engine->mapResource(launchURL("clock").c_str(), "it,fr,de")));
  EXPECT_EQ("file://" + dir("clock") + "/locales/de/index.html?a=1",
            take(engine->mapResource((launchURL("clock") + "?a=1").c_str(),
                                     "de-AT")));
  // No localized copy, already localized, unknown file, no matching locale.
  EXPECT_EQ(nullptr, engine->mapResource(
                         ("file://" + dir("clock") + "style.css").c_str(), "fr"));
  EXPECT_EQ(nullptr,
            engine->mapResource(
                ("file://" + dir("clock") + "locales/fr/index.html").c_str(),
                "de"));
  EXPECT_EQ(nullptr, engine->mapResource(
                         ("file://" + dir("clock") + "other.html").c_str(), "fr"));
  EXPECT_EQ(nullptr, engine->mapResource(launchURL("clock").c_str(), "it"));
  EXPECT_EQ(nullptr, engine->mapResource(launchURL("clock").c_str(), ""));
}

TEST_F(DelegateTest, SameLanguageStringComputesLocalesOnce) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  WidgetsData* first = engine->getInfo("clock", nullptr, "fr-FR,de");
  WidgetsData* second = engine->getInfo("clock", nullptr, "fr-FR,de");
  const std::string text = out.text();
  EXPECT_EQ(1u, countOf(text, kTrace));
  EXPECT_NE(std::string::npos,
            text.find(std::string(kTrace) + "fr-fr,fr,de\n"));
  ASSERT_NE(nullptr, first);
  ASSERT_NE(nullptr, second);
  EXPECT_NE(first, second);
  EXPECT_EQ("Horloge", first->getWidgetName());
  EXPECT_EQ("Tells time", second->getDescription());
  delete first;
  delete second;
}

TEST_F(DelegateTest, ChangedCaseComputesLocalesAgain) {
  auto engine = WidgetEngineDelegate::createInstance();
  WidgetEngineDelegate* delegate =
      static_cast<WidgetEngineDelegate*>(engine.get());
  CaptureStdout out;
  delegate->buildUserAgentLocalesIfNeeded("en");
  delegate->buildUserAgentLocalesIfNeeded("en");
  delegate->buildUserAgentLocalesIfNeeded("EN");
  delegate->buildUserAgentLocalesIfNeeded("EN");
  delegate->buildUserAgentLocalesIfNeeded("");
  EXPECT_EQ(std::string(kTrace) + "en\n" + kTrace + "en\n" + kTrace + "\n",
            out.text());
}

TEST_F(DelegateTest, EmptyLanguageAtFirstComputesNothing) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  WidgetsData* info = engine->getInfo("clock", nullptr, "");
  EXPECT_EQ("Nothing to clean\n", out.text());
  ASSERT_NE(nullptr, info);
  EXPECT_EQ("Clock", info->getWidgetName());
  delete info;
}

TEST_F(DelegateTest, UnknownNameGivesNullInfo) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  EXPECT_EQ(nullptr, engine->getInfo("calendar", nullptr, "en"));
  EXPECT_EQ(nullptr, engine->getInfo("x' OR '1'='1", nullptr, "en"));
  EXPECT_EQ(std::string(kTrace) +
                "en\nNo widget with this name\nNothing to clean\n"
                "No widget with this name\nNothing to clean\n",
            out.text());
}

TEST_F(DelegateTest, LaunchURLMustMatchWhole) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  EXPECT_EQ(1, engine->isWidget(launchURL("clock").c_str()));
  EXPECT_EQ(0, engine->isWidget(("file://" + dir("clock") + "style.css").c_str()));
  EXPECT_EQ(0, engine->isWidget(("file://" + dir("clock")).c_str()));
  EXPECT_EQ(0, engine->isWidget((launchURL("clock") + "?x").c_str()));
  EXPECT_EQ(0, engine->isWidget((launchURL("clock") + "\" OR \"1\"=\"1").c_str()));
  EXPECT_EQ(0, engine->isWidget(""));
  EXPECT_EQ(0, engine->isWidget(nullptr));
  EXPECT_EQ("", out.text());
}

TEST_F(DelegateTest, ListHoldsEveryWidgetForTheCallerToDelete) {
  addWidget("clock");
  addWidget("calendar");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  std::vector<WidgetsData*> all = engine->getAll(nullptr);
  EXPECT_EQ("Nothing to clean\n", out.text());
  ASSERT_EQ(2u, all.size());
  EXPECT_EQ("clock", all[0]->getName());
  EXPECT_EQ("calendar", all[1]->getName());
  for (WidgetsData* record : all) delete record;
}

TEST_F(DelegateTest, DeletePassesTheUninstallerStatusThrough) {
  addWidget("clock");
  addWidget("calendar");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  EXPECT_EQ(1, engine->deleteWidget("clock", nullptr));
  EXPECT_EQ(0, engine->deleteWidget("clock", nullptr));
  EXPECT_EQ(0, engine->deleteWidget("x' OR '1'='1", nullptr));
  TempDir::removeTree(dir("calendar"));
  EXPECT_EQ(-1, engine->deleteWidget("calendar", nullptr));
  EXPECT_EQ(-1, engine->deleteWidget(nullptr, nullptr));
  out.text();
  EXPECT_EQ(0, engine->isWidget(launchURL("clock").c_str()));
  EXPECT_EQ(1, engine->isWidget(launchURL("calendar").c_str()));
}

TEST_F(DelegateTest, UnopenableRegistryAnswersFailureEverywhere) {
  ScopedEnv broken("YRA_DATA_PATH", registry_.path() + "/missing/dir/");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  EXPECT_EQ(0, engine->isWidget("file:///w/index.html"));
  EXPECT_EQ(nullptr, engine->mapResource("file:///w/index.html", "fr"));
  EXPECT_EQ(nullptr, engine->getInfo("clock", nullptr, "fr"));
  EXPECT_TRUE(engine->getAll(nullptr).empty());
  EXPECT_EQ(-1, engine->deleteWidget("clock", nullptr));
  EXPECT_EQ(nullptr, engine->receiveWidget("file:///w/clock.wgt", nullptr));
}

TEST_F(DelegateTest, NullArgumentsAnswerFailure) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  CaptureStdout out;
  EXPECT_EQ(nullptr, engine->getInfo(nullptr, nullptr, "en"));
  EXPECT_EQ(nullptr, engine->getInfo("clock", nullptr, nullptr));
  EXPECT_EQ(nullptr, engine->mapResource(nullptr, "en"));
  EXPECT_EQ(nullptr, engine->mapResource(launchURL("clock").c_str(), nullptr));
  EXPECT_EQ(nullptr, engine->receiveWidget(nullptr, nullptr));
  EXPECT_EQ(-1, engine->deleteWidget(nullptr, nullptr));
  EXPECT_EQ(0, engine->isWidget(nullptr));
  EXPECT_EQ("", out.text());
}

TEST_F(DelegateTest, RegistryRemovedBetweenCallsRemovesNothing) {
  addWidget("clock");
  auto engine = WidgetEngineDelegate::createInstance();
  ASSERT_EQ(0, unlink((registry_.path() + "/widget.db").c_str()));
  CaptureStdout out;
  EXPECT_TRUE(engine->getAll(nullptr).empty());
  EXPECT_EQ(nullptr, engine->getInfo("clock", nullptr, "fr"));
  EXPECT_EQ(0, engine->deleteWidget("clock", nullptr));
  out.text();
  struct stat status;
  EXPECT_EQ(0, lstat((dir("clock") + "index.html").c_str(), &status));
}
