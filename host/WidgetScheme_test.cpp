// SPDX-License-Identifier: Apache-2.0
// What the widget:// scheme serves for an address, checked on real
// directories, with the real engine's mapping for the localized copies.
#include "host/WidgetScheme.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <widgetengine/WidgetEngineDelegate.h>

#include <map>
#include <string>
#include <vector>

#include "testing/TempDir.h"
#include "testing/WidgetSandbox.h"
#include "testing/ZipBuilder.h"

namespace {

class WidgetSchemeTest : public WidgetSandbox {
 protected:
  WidgetSchemeTest() : mapper_(nullptr, "fr"), scheme_(mapper_) {
    widget_ = dir.file("widget");
    for (const char* folder : {"", "/sub", "/locales", "/locales/fr"})
      mkdir((widget_ + folder).c_str(), 0755);
    TempDir::writeFile(widget_ + "/index.html", "<p>index</p>");
    TempDir::writeFile(widget_ + "/sub/a b%.txt", "spaced");
    TempDir::writeFile(widget_ + "/locales/fr/index.html", "<p>fr</p>");
    TempDir::writeFile(widget_ + "/config.xml",
                       "<widget xmlns=\"http://www.w3.org/ns/widgets\">"
                       "<access origin=\"http://127.0.0.1:8000\"/></widget>");
    TempDir::writeFile(dir.file("secret.txt"), "secret");
    mkdir(dir.file("other").c_str(), 0755);
    TempDir::writeFile(dir.file("other/index.html"), "other widget");
    scheme_.bind("clock", widget_ + "/");
  }

  std::string served(const std::string& url) {
    std::string why;
    const std::string path = scheme_.resolve(url, &why);
    return path.empty() ? "refused: " + why : TempDir::readFile(path);
  }

  ResourceMapper mapper_;
  WidgetScheme scheme_;
  std::string widget_;
};

TEST_F(WidgetSchemeTest, ServesTheWidgetsOwnFiles) {
  EXPECT_TRUE(scheme_.bound());
  EXPECT_EQ("clock", scheme_.authority());
  EXPECT_EQ("<p>index</p>", served("widget://clock/index.html"));
  EXPECT_EQ("<p>index</p>", served("widget://clock/index.html?x=1#top"));
  EXPECT_EQ("<p>index</p>", served("widget://clock//index.html"));
  EXPECT_EQ("spaced", served("widget://clock/sub/a%20b%25.txt"));
  EXPECT_EQ("<p>fr</p>", served("widget://clock/locales/fr/index.html"));
}

TEST_F(WidgetSchemeTest, RefusesEverythingOutsideTheWidgetsDirectory) {
  const std::string climbs =
      "refused: a path that climbs out of the widget's directory";
  EXPECT_EQ(climbs, served("widget://clock/../secret.txt"));
  EXPECT_EQ(climbs, served("widget://clock/sub/../../secret.txt"));
  EXPECT_EQ(climbs, served("widget://clock/%2e%2e/secret.txt"));
  EXPECT_EQ(climbs, served("widget://clock/%2E%2E/secret.txt"));
  EXPECT_EQ(climbs, served("widget://clock/sub%2f..%2f..%2fsecret.txt"));
  EXPECT_EQ(climbs, served("widget://clock/..%5csecret.txt"));
  EXPECT_EQ(climbs, served("widget://clock/sub\\..\\..\\secret.txt"));
  EXPECT_EQ(climbs, served("widget://clock/index.html%00.png"));
  EXPECT_EQ("refused: another widget's files",
            served("widget://other/index.html"));
  EXPECT_EQ("refused: not a widget:// address",
            served("file://" + widget_ + "/index.html"));
  EXPECT_EQ("refused: a directory, not a file", served("widget://clock/"));
  EXPECT_EQ("refused: a directory, not a file", served("widget://clock"));
  EXPECT_EQ("refused: a directory, not a file", served("widget://clock/sub"));
  EXPECT_EQ("refused: a directory, not a file", served("widget://clock/sub/"));
  EXPECT_EQ("refused: no such file in the widget",
            served("widget://clock/missing.html"));
}

TEST_F(WidgetSchemeTest, LinksOutOfTheWidgetAreNotFollowed) {
  ASSERT_EQ(0, symlink(dir.file("secret.txt").c_str(),
                       (widget_ + "/link.txt").c_str()));
  ASSERT_EQ(0,
            symlink(dir.file("other").c_str(), (widget_ + "/other").c_str()));
  ASSERT_EQ(0, symlink("index.html", (widget_ + "/inside.html").c_str()));
  EXPECT_EQ("refused: a file outside the widget's directory",
            served("widget://clock/link.txt"));
  EXPECT_EQ("refused: a file outside the widget's directory",
            served("widget://clock/other/index.html"));
  EXPECT_EQ("<p>index</p>", served("widget://clock/inside.html"));
}

TEST_F(WidgetSchemeTest, NothingIsServedBeforeAWidgetIsBound) {
  ResourceMapper mapper(nullptr, "");
  WidgetScheme unbound(mapper);
  std::string why;
  EXPECT_EQ("", unbound.resolve("widget://clock/index.html", &why));
  EXPECT_EQ("no widget is shown in this window", why);
}

TEST_F(WidgetSchemeTest, AddressesBetweenFileAndWidgetForms) {
  EXPECT_EQ("widget://clock/sub/a%20b%25.txt",
            scheme_.addressOf("file://" + widget_ + "/sub/a b%.txt"));
  EXPECT_EQ("", scheme_.addressOf("file://" + dir.file("secret.txt")));
  EXPECT_EQ("file://" + widget_ + "/sub/a b%.txt",
            scheme_.fileAddressOf("widget://clock/sub/a%20b%25.txt?q"));
  EXPECT_EQ("", scheme_.fileAddressOf("widget://other/index.html"));
  EXPECT_EQ("", scheme_.fileAddressOf("widget://clock/../secret.txt"));
}

TEST_F(WidgetSchemeTest, AuthoritiesOfNames) {
  EXPECT_EQ("clock", WidgetScheme::authorityFor("clock"));
  EXPECT_EQ("sample-clock.v2", WidgetScheme::authorityFor("sample-clock.v2"));
  EXPECT_EQ("2024", WidgetScheme::authorityFor("2024"));
  EXPECT_EQ("a-b.c-d", WidgetScheme::authorityFor("a-b.c-d"));
  // Anything a Content-Security-Policy cannot name as a host as it is, and
  // the hexadecimal form's own prefix, is written in hexadecimal.
  EXPECT_EQ("x-615f62", WidgetScheme::authorityFor("a_b"));
  EXPECT_EQ("x-73616d706c652d636c6f636b2e76325f31",
            WidgetScheme::authorityFor("sample-clock.v2_1"));
  EXPECT_EQ("x-436c6f636b", WidgetScheme::authorityFor("Clock"));
  EXPECT_EQ("x-612062", WidgetScheme::authorityFor("a b"));
  EXPECT_EQ("x-782d31", WidgetScheme::authorityFor("x-1"));
  EXPECT_EQ("x-2e2e", WidgetScheme::authorityFor(".."));
  EXPECT_EQ("x-2e61", WidgetScheme::authorityFor(".a"));
  EXPECT_EQ("x-612e", WidgetScheme::authorityFor("a."));
  EXPECT_EQ("x-612e2e62", WidgetScheme::authorityFor("a..b"));
  EXPECT_EQ("x-2d61", WidgetScheme::authorityFor("-a"));
  EXPECT_EQ("x-612d", WidgetScheme::authorityFor("a-"));
  EXPECT_EQ("x-612d2e62", WidgetScheme::authorityFor("a-.b"));
  EXPECT_EQ("x-c3a9", WidgetScheme::authorityFor("\xc3\xa9"));
  EXPECT_EQ("x-", WidgetScheme::authorityFor(""));
}

// Every authority is a host source of a Content-Security-Policy: labels of
// [a-z0-9-] that begin and end with a letter or digit.
TEST_F(WidgetSchemeTest, EveryAuthorityIsAHostSource) {
  const std::vector<std::string> names = {
      "clock", "a_b", "A", "x-", "x-6162", "ab", "a.b", "-", ".", "a..b",
      "\x01", "%41", "a/b", "a:1", "*", "\xff\xfe", std::string(300, 'z')};
  for (const std::string& name : names) {
    const std::string authority = WidgetScheme::authorityFor(name);
    ASSERT_FALSE(authority.empty()) << name;
    size_t labelStart = 0;
    for (size_t i = 0; i <= authority.size(); ++i) {
      if (i == authority.size() || authority[i] == '.') {
        ASSERT_LT(labelStart, i) << authority;
        EXPECT_NE('-', authority[labelStart]) << authority;
        EXPECT_NE('-', authority[i - 1]) << authority;
        labelStart = i + 1;
      } else {
        const char c = authority[i];
        EXPECT_TRUE((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    c == '-')
            << authority;
      }
    }
  }
}

// No name takes another's authority, the hexadecimal forms included: a
// widget named "x-6162" is not "ab", nor a widget named by ab's hexadecimal
// form another that looks like it.
TEST_F(WidgetSchemeTest, NoTwoNamesShareAnAuthority) {
  const std::vector<std::string> names = {
      "ab", "x-6162", "a_b", "x-615f62", "A_B", "x-415f42", "Ab", "x-4162",
      "x-", "", "x", "x-x", "x-782d", "clock", "Clock", "x-436c6f636b",
      "a.b", "a-b", "a b", "x-612062"};
  std::map<std::string, std::string> seen;
  for (const std::string& name : names) {
    const auto added = seen.emplace(WidgetScheme::authorityFor(name), name);
    EXPECT_TRUE(added.second)
        << name << " and " << added.first->second << " share "
        << added.first->first;
  }
}

TEST_F(WidgetSchemeTest, PolicyComesFromTheWidgetsConfigDocument) {
  EXPECT_TRUE(scheme_.policy().allows("http://127.0.0.1:8000/x"));
  const std::string csp = scheme_.contentSecurityPolicy();
  EXPECT_NE(std::string::npos,
            csp.find("default-src 'self' widget://clock http://127.0.0.1:8000 "
                     "ws://127.0.0.1:8000;"))
      << csp;
  EXPECT_NE(std::string::npos, csp.find("object-src 'none'")) << csp;
  EXPECT_EQ(std::string::npos, csp.find("*")) << csp;
  EXPECT_EQ(std::string::npos, csp.find("file:")) << csp;
}

// With the engine's mapping, a file with a French copy is served from it,
// and a copy is confined like any other file.
TEST_F(WidgetSchemeTest, LocalizedCopiesComeFromTheEngine) {
  ZipBuilder zip;
  zip.addFile("config.xml",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
              "<widget xmlns=\"http://www.w3.org/ns/widgets\" "
              "id=\"http://example.org/mapped\" version=\"1.0\">\n"
              "  <name>Mapped</name>\n  <content src=\"index.html\"/>\n"
              "</widget>\n");
  zip.addFile("index.html", "default");
  zip.addFile("data.txt", "default data");
  zip.addFolder("locales/").addFolder("locales/fr/");
  zip.addFile("locales/fr/data.txt", "données");
  RefPtr<WebWidgetEngineDelegate> engine =
      WidgetEngineDelegate::createInstance();
  char* launch = engine->receiveWidget(
      ("file://" + writePackage("mapped.wgt", zip)).c_str(), nullptr);
  ASSERT_NE(nullptr, launch);
  free(launch);
  ResourceMapper french(engine.get(), "fr");
  WidgetScheme scheme(french);
  scheme.bind("mapped", root + "widget_mapped");
  std::string why;
  std::string path = scheme.resolve("widget://mapped/data.txt", &why);
  EXPECT_EQ("données", TempDir::readFile(path)) << why;
  path = scheme.resolve("widget://mapped/index.html", &why);
  EXPECT_EQ("default", TempDir::readFile(path)) << why;
}

}  // namespace
