// SPDX-License-Identifier: Apache-2.0
#include "registry/WidgetsData.h"

#include <gtest/gtest.h>

#include <memory>

TEST(WidgetsDataTest, DefaultRecordIsEmpty) {
  WidgetsData w;
  EXPECT_EQ(0, w.getId());
  EXPECT_EQ(0, w.getWidth());
  EXPECT_EQ(0, w.getHeight());
  EXPECT_EQ("", w.getSourceURL());
  EXPECT_EQ("", w.getWidgetShorName());
  EXPECT_EQ("", w.getLicenseHref());
  EXPECT_TRUE(w.getFiles().empty());
}

TEST(WidgetsDataTest, FifteenValueConstructorFillsTheColumnsOnly) {
  std::unique_ptr<WidgetsData> w(new WidgetsData(
      7, "src", "name", "launch", "dir/", 320, 240, "1.0", "Widget", "W",
      "windowed", "icon.png", "Ann", "ann@x", "href"));
  EXPECT_EQ(7, w->getId());
  EXPECT_EQ("src", w->getSourceURL());
  EXPECT_EQ("name", w->getName());
  EXPECT_EQ("launch", w->getLaunchURL());
  EXPECT_EQ("dir/", w->getStoragePath());
  EXPECT_EQ(320, w->getWidth());
  EXPECT_EQ(240, w->getHeight());
  EXPECT_EQ("1.0", w->getVersion());
  EXPECT_EQ("Widget", w->getWidgetName());
  EXPECT_EQ("W", w->getWidgetShorName());
  EXPECT_EQ("windowed", w->getViewMode());
  EXPECT_EQ("icon.png", w->getIcon());
  EXPECT_EQ("Ann", w->getAuthor());
  EXPECT_EQ("ann@x", w->getAuthorEmail());
  EXPECT_EQ("href", w->getAuthorHref());
  EXPECT_EQ("", w->getDescription());
  EXPECT_EQ("", w->getLicense());
  EXPECT_EQ("", w->getLicenseHref());
  EXPECT_TRUE(w->getFiles().empty());
}

TEST(WidgetsDataTest, EverySetterChangesItsField) {
  WidgetsData w;
  w.setId(1);
  w.setWidth(2);
  w.setHeight(3);
  w.setSourceURL("a");
  w.setName("b");
  w.setLaunchURL("c");
  w.setStoragePath("d");
  w.setVersion("e");
  w.setWidgetName("f");
  w.setWidgetShorName("g");
  w.setViewMode("h");
  w.setIcon("i");
  w.setAuthor("j");
  w.setAuthorEmail("k");
  w.setAuthorHref("l");
  w.setDescription("m");
  w.setLicense("n");
  w.setLicenseHref("o");
  w.setFiles({"p", "q"});
  EXPECT_EQ(1, w.getId());
  EXPECT_EQ(2, w.getWidth());
  EXPECT_EQ(3, w.getHeight());
  EXPECT_EQ("a", w.getSourceURL());
  EXPECT_EQ("b", w.getName());
  EXPECT_EQ("c", w.getLaunchURL());
  EXPECT_EQ("d", w.getStoragePath());
  EXPECT_EQ("e", w.getVersion());
  EXPECT_EQ("f", w.getWidgetName());
  EXPECT_EQ("g", w.getWidgetShorName());
  EXPECT_EQ("h", w.getViewMode());
  EXPECT_EQ("i", w.getIcon());
  EXPECT_EQ("j", w.getAuthor());
  EXPECT_EQ("k", w.getAuthorEmail());
  EXPECT_EQ("l", w.getAuthorHref());
  EXPECT_EQ("m", w.getDescription());
  EXPECT_EQ("n", w.getLicense());
  EXPECT_EQ("o", w.getLicenseHref());
  EXPECT_EQ((std::vector<std::string>{"p", "q"}), w.getFiles());
}
