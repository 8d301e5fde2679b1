// SPDX-License-Identifier: Apache-2.0
#include "config/WidgetConfig.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/TestWidget.h"
#include "testing/CaptureStdout.h"
#include "testing/ConfigRecord.h"

namespace {

const std::string kGif("GIF89a\x01\x02", 8);
const std::string kPng("\x89PNG\r\n\x1a\n\0\0", 10);
const std::string kJpeg("\xff\xd8\xff\xe0\0\x10JFIF", 10);

class WidgetConfigTest : public ::testing::Test {
 protected:
  WidgetConfigTest() : config(widget.get()) {}

  TestWidget widget;
  WidgetConfig config;
};

}  // namespace

TEST_F(WidgetConfigTest, FreshRecordHasOnlyEncodingAndType) {
  EXPECT_EQ(widget.get(), config.getInstaller());
  expectAsConstructed(config);
}

TEST_F(WidgetConfigTest, PlainSettersStoreAndReplace) {
  config.setAuthor("Ann");
  config.setAuthorEmail("ann@example.org");
  config.setConfigPath("/w/config.xml");
  config.setSpareText("spare");
  config.setVersion("1.0");
  config.setContentEncoding("ISO-8859-1");
  const std::string* version = config.getVersion();
  config.setVersion("2.0");
  EXPECT_EQ(version, config.getVersion());
  EXPECT_EQ("2.0", *config.getVersion());
  EXPECT_EQ("Ann", *config.getAuthor());
  EXPECT_EQ("ann@example.org", *config.getAuthorEmail());
  EXPECT_EQ("/w/config.xml", *config.getConfigPath());
  EXPECT_EQ("spare", *config.getSpareText());
  EXPECT_EQ("ISO-8859-1", *config.getContentEncoding());
  config.setAuthorEmail("");
  EXPECT_EQ("", *config.getAuthorEmail());
}

TEST_F(WidgetConfigTest, FirstNameForALanguageIsKept) {
  config.setName("en", "Clock");
  config.setName("en", "Other clock");
  config.setName("fr", "Horloge");
  EXPECT_EQ(2u, config.getNames().size());
  EXPECT_EQ("Clock", config.getNames().at("en"));
  EXPECT_EQ("Horloge", config.getNames().at("fr"));
}

TEST_F(WidgetConfigTest, FirstShortNameForALanguageIsKept) {
  config.setShortName("default", "Clk");
  config.setShortName("default", "C");
  EXPECT_EQ("Clk", config.getShortNames().at("default"));
}

TEST_F(WidgetConfigTest, FirstDescriptionLicenseAndHrefAreKept) {
  config.setDescription("en", "first");
  config.setDescription("en", "second");
  config.setLicense("en", "MIT");
  config.setLicense("en", "GPL");
  config.setLicenseHref("en", "http://a/");
  config.setLicenseHref("en", "http://b/");
  EXPECT_EQ("first", config.getDescriptions().at("en"));
  EXPECT_EQ("MIT", config.getLicenses().at("en"));
  EXPECT_EQ("http://a/", config.getLicenseHrefs().at("en"));
}

TEST_F(WidgetConfigTest, LanguageKeysSortInByteOrder) {
  config.setName("fr", "b");
  config.setName("default", "a");
  config.setName("EN", "c");
  std::string keys;
  for (const auto& entry : config.getNames()) keys += entry.first + ",";
  EXPECT_EQ("EN,default,fr,", keys);
}

TEST_F(WidgetConfigTest, NonPositiveWidthIsIgnored) {
  config.setWidth(0);
  EXPECT_EQ(nullptr, config.getWidth());
  config.setWidth(-5);
  EXPECT_EQ(nullptr, config.getWidth());
  config.setWidth(10);
  config.setWidth(20);
  ASSERT_NE(nullptr, config.getWidth());
  EXPECT_EQ(20, *config.getWidth());
  config.setWidth(-1);
  EXPECT_EQ(20, *config.getWidth());
}

TEST_F(WidgetConfigTest, NonPositiveHeightIsIgnored) {
  config.setHeight(0);
  config.setHeight(-5);
  EXPECT_EQ(nullptr, config.getHeight());
  config.setHeight(480);
  ASSERT_NE(nullptr, config.getHeight());
  EXPECT_EQ(480, *config.getHeight());
}

TEST_F(WidgetConfigTest, IdIsStoredOnlyWhenItIsAnIri) {
  config.setId("1abc:x");
  EXPECT_EQ(nullptr, config.getId());
  config.setId(":x");
  EXPECT_EQ(nullptr, config.getId());
  config.setId("abc");
  EXPECT_EQ(nullptr, config.getId());
  config.setId("urn:x");
  ASSERT_NE(nullptr, config.getId());
  EXPECT_EQ("urn:x", *config.getId());
  config.setId("a+b-c.d:");
  EXPECT_EQ("a+b-c.d:", *config.getId());
  config.setId("abc");
  EXPECT_EQ("a+b-c.d:", *config.getId());
}

TEST_F(WidgetConfigTest, AuthorHrefIsStoredOnlyWhenItIsAnIri) {
  config.setAuthorHref("example.org");
  EXPECT_EQ(nullptr, config.getAuthorHref());
  config.setAuthorHref("http://example.org/");
  ASSERT_NE(nullptr, config.getAuthorHref());
  EXPECT_EQ("http://example.org/", *config.getAuthorHref());
}

TEST(WidgetConfigIriTest, SchemeRules) {
  EXPECT_TRUE(WidgetConfig::isValidIRI("urn:x"));
  EXPECT_TRUE(WidgetConfig::isValidIRI("a+b-c.d:"));
  EXPECT_TRUE(WidgetConfig::isValidIRI("H2:anything at all: even this"));
  EXPECT_TRUE(WidgetConfig::isValidIRI("x:"));
  EXPECT_FALSE(WidgetConfig::isValidIRI("1abc:x"));
  EXPECT_FALSE(WidgetConfig::isValidIRI(":x"));
  EXPECT_FALSE(WidgetConfig::isValidIRI("abc"));
  EXPECT_FALSE(WidgetConfig::isValidIRI(""));
  EXPECT_FALSE(WidgetConfig::isValidIRI("a b:c"));
  EXPECT_FALSE(WidgetConfig::isValidIRI("a_b:c"));
  EXPECT_FALSE(WidgetConfig::isValidIRI("+a:c"));
  EXPECT_FALSE(WidgetConfig::isValidIRI("\xc3\xa9t\xc3\xa9:x"));
}

TEST_F(WidgetConfigTest, FeaturesAndPreferencesKeepDuplicates) {
  WidgetFeatureInfo feature("feature:a", true);
  feature.setParam("k", "1");
  feature.setParam("k", "2");
  EXPECT_EQ(1, config.addFeature(feature));
  EXPECT_EQ(1, config.addFeature(feature));
  EXPECT_EQ(1, config.addPreference(WidgetPreferenceInfo("p", "v", false)));
  EXPECT_EQ(1, config.addPreference(WidgetPreferenceInfo("p", "w", true)));
  ASSERT_EQ(2u, config.getFeatures().size());
  EXPECT_EQ("2", config.getFeatures()[0].getParams().at("k"));
  ASSERT_EQ(2u, config.getPreferences().size());
  EXPECT_EQ("w", config.getPreferences()[1].getValue());
  EXPECT_TRUE(config.getPreferences()[1].isReadonly());
}

TEST_F(WidgetConfigTest, ViewModesAreExactAndAllIsNotExpanded) {
  EXPECT_EQ(0, config.addViewMode("Floating"));
  EXPECT_EQ(0, config.addViewMode("maximized"));
  EXPECT_TRUE(config.getViewModes().empty());
  EXPECT_EQ(1, config.addViewMode("all"));
  ASSERT_EQ(1u, config.getViewModes().size());
  EXPECT_EQ("all", config.getViewModes()[0]);
  EXPECT_EQ(1, config.addViewMode("application"));
  EXPECT_EQ(1, config.addViewMode("floating"));
  EXPECT_EQ(1, config.addViewMode("fullscreen"));
  EXPECT_EQ(1, config.addViewMode("mini"));
  EXPECT_EQ(5u, config.getViewModes().size());
}

TEST_F(WidgetConfigTest, IconWithUnknownExtensionNeedsNoFile) {
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("logo.xyz")));
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("logo.bmp")));
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("photo.jpeg")));
  ASSERT_EQ(3u, config.getIcons().size());
  EXPECT_EQ("logo.xyz", config.getIcons()[0].getSrc());
}

TEST_F(WidgetConfigTest, IconWhoseContentDisagreesIsRefused) {
  widget.write("icon.png", kGif);
  EXPECT_EQ(0, config.addIcon(WidgetIconInfo("icon.png")));
  widget.write("jpeg.png", kJpeg);
  EXPECT_EQ(0, config.addIcon(WidgetIconInfo("jpeg.png")));
  EXPECT_TRUE(config.getIcons().empty());
}

TEST_F(WidgetConfigTest, IconWhoseContentAgreesIsAdded) {
  widget.write("icon.png", kPng);
  widget.write("icon.gif", kGif);
  widget.write("photo.jpg", kJpeg);
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("icon.png", 64, 32)));
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("icon.gif")));
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("photo.jpg")));
  ASSERT_EQ(3u, config.getIcons().size());
  ASSERT_NE(nullptr, config.getIcons()[0].getWidth());
  EXPECT_EQ(64u, *config.getIcons()[0].getWidth());
  EXPECT_EQ(32u, *config.getIcons()[0].getHeight());
  EXPECT_EQ(nullptr, config.getIcons()[1].getWidth());
  EXPECT_EQ(nullptr, config.getIcons()[1].getHeight());
}

TEST_F(WidgetConfigTest, MissingIconWithKnownExtensionIsRefused) {
  EXPECT_EQ(0, config.addIcon(WidgetIconInfo("missing.png")));
  EXPECT_EQ(0, config.addIcon(WidgetIconInfo("missing.svg")));
  EXPECT_TRUE(config.getIcons().empty());
}

TEST_F(WidgetConfigTest, SvgIconNeedsOnlyToOpen) {
  widget.write("icon.svg", "not even svg");
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("icon.svg")));
  ASSERT_EQ(1u, config.getIcons().size());
}

TEST_F(WidgetConfigTest, SameIconSourceIsKeptOnce) {
  widget.write("icon.png", kPng);
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("icon.png")));
  EXPECT_EQ(0, config.addIcon(WidgetIconInfo("icon.png", 10, 10)));
  EXPECT_EQ(1, config.addIcon(WidgetIconInfo("logo.xyz")));
  EXPECT_EQ(0, config.addIcon(WidgetIconInfo("logo.xyz")));
  EXPECT_EQ(2u, config.getIcons().size());
  EXPECT_EQ(nullptr, config.getIcons()[0].getWidth());
}

TEST(WidgetIconInfoTest, AllBitsSetMeansSizeNotGiven) {
  WidgetIconInfo unset("a.png", 4294967295u, 0);
  EXPECT_EQ(nullptr, unset.getWidth());
  ASSERT_NE(nullptr, unset.getHeight());
  EXPECT_EQ(0u, *unset.getHeight());
  WidgetIconInfo bare("a.png");
  EXPECT_EQ(nullptr, bare.getWidth());
  EXPECT_EQ(nullptr, bare.getHeight());
}

TEST_F(WidgetConfigTest, StartFileMustExist) {
  EXPECT_EQ(0, config.setStartFile("index.html"));
  EXPECT_EQ(nullptr, config.getStartFile());
  widget.write("main.page", "<html/>");
  EXPECT_EQ(1, config.setStartFile("main.page"));
  ASSERT_NE(nullptr, config.getStartFile());
  EXPECT_EQ("main.page", *config.getStartFile());
}

TEST_F(WidgetConfigTest, SniffedStartFileNeedsAKnownExtension) {
  widget.write("main.page", "<html/>");
  EXPECT_EQ(0, config.trySniffedStartFile("main.page"));
  EXPECT_EQ(0, config.trySniffedStartFile("index.html"));
  EXPECT_EQ(nullptr, config.getStartFile());
  // The content is not looked at: a page holding an image is accepted.
  widget.write("index.htm", kPng);
  EXPECT_EQ(1, config.trySniffedStartFile("index.htm"));
  EXPECT_EQ("index.htm", *config.getStartFile());
}

TEST_F(WidgetConfigTest, StartFileCannotLeaveTheWidget) {
  TempDir::writeFile(widget.root().file("outside.html"), "<html/>");
  EXPECT_EQ(0, config.setStartFile("../outside.html"));
  EXPECT_EQ(nullptr, config.getStartFile());
}

TEST_F(WidgetConfigTest, PrintOfAFreshRecord) {
  CaptureStdout out;
  config.print();
  EXPECT_EQ(
      "View modes: \n"
      "Icons: \n"
      "Preferences:\n"
      "Features:\n",
      out.text());
}

TEST_F(WidgetConfigTest, PrintShowsEveryItemInOrder) {
  widget.write("index.html", "<html/>");
  config.setId("urn:clock");
  config.setVersion("1.2");
  config.setHeight(480);
  config.setWidth(320);
  config.setStartFile("index.html");
  config.setShortName("default", "Clk");
  config.setName("default", "Clock");
  config.setName("fr", "Horloge");
  config.setDescription("en", "Shows the time");
  config.setAuthor("Ann");
  config.setAuthorHref("http://ann.example/");
  config.setAuthorEmail("ann@example.org");
  config.setLicense("default", "MIT");
  config.setLicenseHref("default", "http://mit/");
  config.addViewMode("fullscreen");
  config.addViewMode("mini");
  config.addIcon(WidgetIconInfo("a.bmp"));
  config.addIcon(WidgetIconInfo("b.xyz"));
  config.addPreference(WidgetPreferenceInfo("zone", " UTC ", false));
  WidgetFeatureInfo gps("feature:gps", true);
  gps.setParam("accuracy", "high");
  gps.setParam("rate", "5");
  config.addFeature(gps);
  config.addFeature(WidgetFeatureInfo("feature:beep", false));

  CaptureStdout out;
  config.print();
  EXPECT_EQ(
      "Id: urn:clock\n"
      "Version: 1.2\n"
      "Height: 480\n"
      "Width: 320\n"
      "Start file: index.html\n"
      "Short name: default(lang=Clk)\n"
      "Name : default(lang=Clock)\n"
      "Name : fr(lang=Horloge)\n"
      "Description : en(lang=Shows the time)\n"
      "Author: Ann\n"
      "\tHref: http://ann.example/\n"
      "\tEmail: ann@example.org\n"
      "Licence : default(lang=MIT)\n"
      "Licence Href : default(lang=http://mit/)\n"
      "View modes: fullscreen mini \n"
      "Icons: a.bmp b.xyz \n"
      "Preferences:\n"
      "\tzone:  UTC \n"
      "Features:\n"
      "\tfeature:gps: required\n"
      "\t\taccuracy: high\n"
      "\t\trate: 5\n"
      "\tfeature:beep: not required\n",
      out.text());
}

TEST_F(WidgetConfigTest, PrintShowsAuthorPartsOnlyWhenPresent) {
  config.setAuthorEmail("ann@example.org");
  CaptureStdout out;
  config.print();
  EXPECT_EQ(
      "\tEmail: ann@example.org\n"
      "View modes: \n"
      "Icons: \n"
      "Preferences:\n"
      "Features:\n",
      out.text());
}
