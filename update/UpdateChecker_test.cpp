// SPDX-License-Identifier: Apache-2.0
// Update checks of real installed widgets against a real HTTP server on
// 127.0.0.1 that answers as a cache would (ETag, Last-Modified, 304) and
// counts the bodies it sends.
#include "update/UpdateChecker.h"

#include <gtest/gtest.h>
#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"
#include "testing/CaptureStdout.h"
#include "testing/ConfigXml.h"
#include "testing/HttpServer.h"
#include "testing/ScopedEnv.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

// What UserAgentLocales makes of the simple lists these tests give: each
// tag in lower case, followed by its language alone.
std::vector<std::string> locales(const std::string& languages) {
  std::vector<std::string> list;
  std::istringstream tags(languages);
  for (std::string tag; std::getline(tags, tag, ',');) {
    for (char& c : tag) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    list.push_back(tag);
    const size_t dash = tag.find('-');
    if (dash != std::string::npos) list.push_back(tag.substr(0, dash));
  }
  return list;
}

const char kDescription[] = "/u/clock.xml";

std::string description(const std::string& version,
                        const std::string& body = "") {
  return "<update-info xmlns=\"http://www.w3.org/ns/widgets\" version=\"" +
         version + "\" src=\"clock-" + version + ".wgt\">" + body +
         "</update-info>";
}

HttpServer::Resource resource(const std::string& body, const std::string& etag,
                              const std::string& lastModified = "") {
  HttpServer::Resource r;
  r.body = body;
  r.etag = etag;
  r.lastModified = lastModified;
  return r;
}

class UpdateCheckerTest : public WidgetSandbox {
 protected:
  void SetUp() override {
    CaptureStdout quiet;
    engine = WidgetEngineDelegate::createInstance();
  }

  // Installs a widget called name, version 1.0, whose config.xml has
  // extra among its children.
  void install(const std::string& name, const std::string& extra) {
    ZipBuilder zip;
    zip.addFile("config.xml",
                configXml("<name>Clock</name>" + extra, "version=\"1.0\""));
    zip.addFile("index.html", "<p>clock</p>");
    const std::string file = name + ".wgt";
    server.serveFile("/w/" + file, writePackage(file, zip));
    CaptureStdout quiet;
    char* launch = engine->receiveWidget(server.url("/w/" + file).c_str(), nullptr);
    ASSERT_NE(nullptr, launch);
    free(launch);
  }

  void installClock() {
    install("clock", "<update-description href=\"" + server.url(kDescription) +
                         "\"/>");
  }

  // Checks the widget called name; the engine's lines are left in out.
  UpdateCheck check(const std::string& name, const std::string& languages = "") {
    CaptureStdout capture;
    SqlLite3 registry;
    UpdateCheck result;
    std::vector<WidgetsData*> rows = registry.selectWidgetsByName(name);
    if (rows.size() == 1) {
      UpdateChecker checker(&registry, languages, locales(languages));
      result = checker.check(*rows.front());
    }
    for (WidgetsData* row : rows) delete row;
    out = capture.text();
    return result;
  }

  HttpServer server;
  RefPtr<WebWidgetEngineDelegate> engine;
  std::string out;
};

}  // namespace

TEST_F(UpdateCheckerTest, UnchangedDescriptionCostsOneBody) {
  installClock();
  server.serveResource(kDescription, resource(description("2.0"), "\"v2\""));

  UpdateCheck first = check("clock");
  ASSERT_TRUE(first.outcome.ok()) << first.outcome.reason();
  EXPECT_EQ(server.url(kDescription), first.href);
  EXPECT_EQ("1.0", first.installedVersion);
  EXPECT_TRUE(first.available);
  EXPECT_FALSE(first.notModified);
  EXPECT_EQ("2.0", first.version);
  EXPECT_EQ(server.url("/u/clock-2.0.wgt"), first.src);
  EXPECT_EQ(std::string::npos,
            server.lastRequest(kDescription).find("If-None-Match"));

  for (int round = 0; round < 3; ++round) {
    UpdateCheck again = check("clock");
    ASSERT_TRUE(again.outcome.ok()) << again.outcome.reason();
    EXPECT_TRUE(again.notModified);
    EXPECT_TRUE(again.available);
    EXPECT_EQ("2.0", again.version);
    EXPECT_EQ(first.src, again.src);
    EXPECT_NE(std::string::npos,
              server.lastRequest(kDescription).find("If-None-Match: \"v2\"\r\n"));
  }
  EXPECT_EQ(4, server.requestCount(kDescription));
  EXPECT_EQ(1, server.bodiesSent(kDescription));
  EXPECT_EQ("", out);
}

TEST_F(UpdateCheckerTest, LastModifiedAloneMakesTheRequestConditional) {
  installClock();
  const char kDate[] = "Wed, 25 Nov 2026 08:00:00 GMT";
  server.serveResource(kDescription, resource(description("2.0"), "", kDate));
  ASSERT_TRUE(check("clock").outcome.ok());
  UpdateCheck again = check("clock");
  ASSERT_TRUE(again.outcome.ok()) << again.outcome.reason();
  EXPECT_TRUE(again.notModified);
  EXPECT_NE(std::string::npos, server.lastRequest(kDescription)
                                   .find(std::string("If-Modified-Since: ") + kDate));
  EXPECT_EQ(1, server.bodiesSent(kDescription));
}

TEST_F(UpdateCheckerTest, NewDocumentReplacesTheKeptOne) {
  installClock();
  server.serveResource(kDescription, resource(description("2.0"), "\"v2\""));
  ASSERT_EQ("2.0", check("clock").version);
  server.serveResource(kDescription, resource(description("3.0"), "\"v3\""));
  UpdateCheck third = check("clock");
  ASSERT_TRUE(third.outcome.ok()) << third.outcome.reason();
  EXPECT_FALSE(third.notModified);
  EXPECT_EQ("3.0", third.version);
  EXPECT_EQ("3.0", check("clock").version);
  EXPECT_EQ(2, server.bodiesSent(kDescription));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM updateChecks"));
}

TEST_F(UpdateCheckerTest, EqualVersionIsNoUpdate) {
  installClock();
  server.serveResource(kDescription, resource(description("1.0"), "\"v1\""));
  UpdateCheck result = check("clock");
  ASSERT_TRUE(result.outcome.ok()) << result.outcome.reason();
  EXPECT_FALSE(result.available);
  EXPECT_EQ("1.0", result.version);
}

TEST_F(UpdateCheckerTest, MalformedDescriptionIsRefusedWithALine) {
  installClock();
  server.serveResource(kDescription,
                       resource("<update-info version=\"2\"/>", "\"bad\""));
  UpdateCheck result = check("clock");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_DOWNLOAD, result.outcome.code());
  EXPECT_NE(std::string::npos, result.outcome.reason().find("malformed"));
  EXPECT_FALSE(result.available);
  EXPECT_EQ("Update check of clock failed: " + result.outcome.reason() + "\n", out);
  // Nothing was kept to answer a later 304 with.
  EXPECT_EQ(std::string::npos,
            server.lastRequest(kDescription).find("If-None-Match"));
  check("clock");
  EXPECT_EQ(std::string::npos,
            server.lastRequest(kDescription).find("If-None-Match"));
}

TEST_F(UpdateCheckerTest, DescriptionServedAsAnythingButXmlIsRefused) {
  installClock();
  HttpServer::Resource page = resource(description("2.0"), "\"v2\"");
  page.contentType = "text/html";
  server.serveResource(kDescription, page);
  UpdateCheck result = check("clock");
  EXPECT_FALSE(result.outcome.ok());
  EXPECT_NE(std::string::npos, result.outcome.reason().find("text/html"));
  page.contentType = "text/xml; charset=utf-8";
  server.serveResource(kDescription, page);
  EXPECT_TRUE(check("clock").outcome.ok());
}

TEST_F(UpdateCheckerTest, RedirectIsRefusedAsDownloadsRefuseIt) {
  installClock();
  server.serveResource("/u/moved.xml", resource(description("2.0"), "\"v2\""));
  server.serveRedirect(kDescription, server.url("/u/moved.xml"), "moved");
  UpdateCheck result = check("clock");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_HTTP_STATUS, result.outcome.code());
  EXPECT_EQ("HTTP status 302 from " + server.url(kDescription),
            result.outcome.reason());
  EXPECT_EQ(0, server.requestCount("/u/moved.xml"));
}

TEST_F(UpdateCheckerTest, ErrorStatusAndNoServerAreRefused) {
  installClock();
  server.serve(kDescription, 500, "oops");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_HTTP_STATUS, check("clock").outcome.code());
  RefusingPort closed;
  install("other", "<update-description href=\"" + closed.url("/d.xml") + "\"/>");
  UpdateCheck result = check("other");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_DOWNLOAD, result.outcome.code());
  EXPECT_NE(std::string::npos, result.outcome.reason().find(closed.url("/d.xml")));
}

TEST_F(UpdateCheckerTest, SilentServerEndsTheCheck) {
  installClock();
  ScopedEnv stall("WIDGETENGINE_STALL_SECONDS", "1");
  server.serveStalled(kDescription, description("2.0"), 10);
  UpdateCheck result = check("clock");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_DOWNLOAD, result.outcome.code());
  EXPECT_FALSE(result.available);
}

TEST_F(UpdateCheckerTest, FileAddressIsNeverRead) {
  install("local", "<update-description href=\"file://" + packages +
                       "d.xml\"/>");
  UpdateCheck result = check("local");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_ADDRESS, result.outcome.code());
}

TEST_F(UpdateCheckerTest, DetailsAreInTheReadersLanguage) {
  installClock();
  server.serveResource(
      kDescription,
      resource(description("2.0", "<details>Faster.</details>"
                                  "<details xml:lang=\"pt-BR\">Mais rápido.</details>"
                                  "<details xml:lang=\"fr\">Plus vite.</details>"),
               "\"v2\""));
  EXPECT_EQ("Mais rápido.", check("clock", "pt-BR,fr").details);
  EXPECT_NE(std::string::npos, server.lastRequest(kDescription)
                                   .find("Accept-Language: pt-BR,fr\r\n"));
  // The kept document answers the 304 in every language.
  EXPECT_EQ("Plus vite.", check("clock", "fr-CA").details);
  EXPECT_EQ("Faster.", check("clock", "de").details);
  EXPECT_EQ(1, server.bodiesSent(kDescription));
}

TEST_F(UpdateCheckerTest, LanguagesThatWouldEndTheirLineAreNotSent) {
  installClock();
  server.serveResource(kDescription, resource(description("2.0"), "\"v2\""));
  ASSERT_TRUE(check("clock", "fr\r\nX-Added: 1").outcome.ok());
  const std::string request = server.lastRequest(kDescription);
  EXPECT_EQ(std::string::npos, request.find("X-Added")) << request;
  EXPECT_EQ(std::string::npos, request.find("Accept-Language")) << request;
}

TEST_F(UpdateCheckerTest, WidgetWithoutDescriptionAsksNothing) {
  install("plain", "");
  UpdateCheck result = check("plain");
  EXPECT_TRUE(result.outcome.ok());
  EXPECT_EQ("", result.href);
  EXPECT_FALSE(result.available);
  EXPECT_EQ(0, server.requestCount(kDescription));
  EXPECT_EQ("", out);
}

TEST_F(UpdateCheckerTest, KeptAnswersGoWithTheirWidgets) {
  installClock();
  server.serveResource(kDescription, resource(description("2.0"), "\"v2\""));
  ASSERT_TRUE(check("clock").outcome.ok());
  {
    CaptureStdout quiet;
    ASSERT_EQ(1, engine->deleteWidget("clock", nullptr));
  }
  install("other", "<update-description href=\"" + server.url(kDescription) +
                       "\"/>");
  ASSERT_TRUE(check("other").outcome.ok());
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM updateChecks"));
  EXPECT_EQ(1, count("SELECT COUNT(*) FROM updateChecks WHERE widgetID IN "
                     "(SELECT id FROM Widgets WHERE name='other')"));
}
