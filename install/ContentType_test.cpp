// SPDX-License-Identifier: Apache-2.0
#include "install/ContentType.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstdio>
#include <string>

#include "install/WidgetInstaller.h"
#include "testing/ScopedEnv.h"
#include "testing/TempDir.h"

namespace {

// The type sniffed from a file holding exactly these bytes.
std::string sniff(const std::string& bytes) {
  TempDir dir;
  const std::string path = dir.file("f");
  TempDir::writeFile(path, bytes);
  FILE* file = fopen(path.c_str(), "r");
  EXPECT_NE(nullptr, file);
  if (!file) return "";
  std::string type = ContentType::fromContent(file);
  fclose(file);
  return type;
}

const std::string kPng("\x89PNG\r\n\x1a\n", 8);

}  // namespace

TEST(ContentTypeTest, KnownExtensionsGiveTheirTypes) {
  EXPECT_EQ("text/html", ContentType::fromExtension("index.html"));
  EXPECT_EQ("text/html", ContentType::fromExtension("index.htm"));
  EXPECT_EQ("text/css", ContentType::fromExtension("style.css"));
  EXPECT_EQ("application/javascript", ContentType::fromExtension("a.js"));
  EXPECT_EQ("application/xml", ContentType::fromExtension("config.xml"));
  EXPECT_EQ("text/plain", ContentType::fromExtension("notes.txt"));
  EXPECT_EQ("audio/x-wav", ContentType::fromExtension("ring.wav"));
  EXPECT_EQ("application/xhtml+xml", ContentType::fromExtension("a.xhtml"));
  EXPECT_EQ("application/xhtml+xml", ContentType::fromExtension("a.xht"));
  EXPECT_EQ("image/gif", ContentType::fromExtension("i.gif"));
  EXPECT_EQ("image/png", ContentType::fromExtension("i.png"));
  EXPECT_EQ("image/vnd.microsoft.icon", ContentType::fromExtension("i.ico"));
  EXPECT_EQ("image/svg+xml", ContentType::fromExtension("i.svg"));
  EXPECT_EQ("image/jpeg", ContentType::fromExtension("i.jpg"));
  EXPECT_EQ("image/png", ContentType::fromExtension("dir.v2/icons/i.png"));
}

TEST(ContentTypeTest, ExtensionMatchIsCaseSensitiveAndExact) {
  EXPECT_EQ("unknown", ContentType::fromExtension("INDEX.HTML"));
  EXPECT_EQ("unknown", ContentType::fromExtension("photo.JPG"));
  EXPECT_EQ("unknown", ContentType::fromExtension("photo.jpeg"));
  EXPECT_EQ("unknown", ContentType::fromExtension("logo.bmp"));
}

TEST(ContentTypeTest, NameWithoutDotIsItsOwnExtension) {
  EXPECT_EQ("text/html", ContentType::fromExtension("html"));
  EXPECT_EQ("image/png", ContentType::fromExtension("png"));
  EXPECT_EQ("unknown", ContentType::fromExtension("README"));
  EXPECT_EQ("unknown", ContentType::fromExtension(""));
}

TEST(ContentTypeTest, OnlyTheLastExtensionCounts) {
  EXPECT_EQ("unknown", ContentType::fromExtension("archive.tar.gz"));
  EXPECT_EQ("text/html", ContentType::fromExtension("page.txt.html"));
}

TEST(ContentTypeTest, TrailingDotGivesEmptyExtension) {
  EXPECT_EQ("unknown", ContentType::fromExtension("index."));
  EXPECT_EQ("unknown", ContentType::fromExtension("."));
}

TEST(ContentTypeTest, SniffsTheFourImageFormats) {
  EXPECT_EQ("image/jpeg", sniff(std::string("\xff\xd8\xff\xe0\0\x10JF", 8)));
  EXPECT_EQ("image/vnd.microsoft.icon",
            sniff(std::string("\0\0\1\0\1\0\x10\x10", 8)));
  EXPECT_EQ("image/png", sniff(kPng + "rest of the file"));
  EXPECT_EQ("image/png", sniff(kPng));
}

TEST(ContentTypeTest, GifVersions87And89AreKnownAnd88IsNot) {
  EXPECT_EQ("image/gif", sniff("GIF87a\x01\x02"));
  EXPECT_EQ("image/gif", sniff("GIF89a\x01\x02"));
  EXPECT_EQ("unknown", sniff("GIF88a\x01\x02"));
  EXPECT_EQ("unknown", sniff("GIF89b\x01\x02"));
}

TEST(ContentTypeTest, SevenBytePngFragmentIsUnknown) {
  EXPECT_EQ("unknown", sniff(kPng.substr(0, 7)));
}

TEST(ContentTypeTest, ShortFilesAreNeverRecognised) {
  EXPECT_EQ("unknown", sniff(""));
  EXPECT_EQ("unknown", sniff("\xff\xd8"));
  EXPECT_EQ("unknown", sniff("GIF89a"));
}

TEST(ContentTypeTest, CursorHeaderIsNotAnIcon) {
  EXPECT_EQ("unknown", sniff(std::string("\0\0\2\0\1\0\x10\x10", 8)));
}

TEST(ContentTypeTest, SvgAndTextAreNotSniffed) {
  EXPECT_EQ("unknown", sniff("<svg xmlns=\"http://www.w3.org/2000/svg\"/>"));
  EXPECT_EQ("unknown", sniff("<!DOCTYPE html><html></html>"));
}

TEST(ContentTypeTest, SniffRewindsAFileAlreadyRead) {
  TempDir dir;
  TempDir::writeFile(dir.file("i.png"), kPng + "tail");
  FILE* file = fopen(dir.file("i.png").c_str(), "r");
  ASSERT_NE(nullptr, file);
  char skip[10];
  ASSERT_EQ(10u, fread(skip, 1, sizeof(skip), file));
  EXPECT_EQ("image/png", ContentType::fromContent(file));
  EXPECT_EQ("image/png", ContentType::fromContent(file));
  fclose(file);
}

TEST(ContentTypeTest, InstallerOpensFilesInsideItsStorageDirectory) {
  TempDir dir;
  ScopedEnv widgets("WIDGET_PATH", dir.path() + "/");
  ScopedEnv data("YRA_DATA_PATH", dir.path() + "/");
  WidgetInstaller installer("http://h/x/clock.wgt");
  ASSERT_EQ(dir.path() + "/widget_clock/", installer.getStoragePath());
  mkdir(dir.file("widget_clock").c_str(), 0755);
  TempDir::writeFile(dir.file("widget_clock/icon.gif"), "GIF89a\x01\x02");

  EXPECT_TRUE(installer.widgetFileExists("icon.gif"));
  EXPECT_FALSE(installer.widgetFileExists("missing.gif"));
  FILE* file = installer.openWidgetFile("icon.gif");
  ASSERT_NE(nullptr, file);
  EXPECT_EQ("image/gif", installer.getMimeTypeFromContent(file));
  fclose(file);
  EXPECT_EQ("image/gif", installer.getMimeTypeFromExtension("icon.gif"));
  EXPECT_EQ(nullptr, installer.openWidgetFile("missing.gif"));
}
