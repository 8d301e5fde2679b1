// SPDX-License-Identifier: Apache-2.0
#include "testing/ConfigRecord.h"

#include <gtest/gtest.h>

void expectAsConstructed(const WidgetConfig& config) {
  ASSERT_NE(nullptr, config.getContentEncoding());
  EXPECT_EQ("UTF-8", *config.getContentEncoding());
  ASSERT_NE(nullptr, config.getContentType());
  EXPECT_EQ("text/html", *config.getContentType());
  EXPECT_EQ(nullptr, config.getAuthorEmail());
  EXPECT_EQ(nullptr, config.getAuthorHref());
  EXPECT_EQ(nullptr, config.getAuthor());
  EXPECT_EQ(nullptr, config.getConfigPath());
  EXPECT_EQ(nullptr, config.getId());
  EXPECT_EQ(nullptr, config.getSpareText());
  EXPECT_EQ(nullptr, config.getVersion());
  EXPECT_EQ(nullptr, config.getStartFile());
  EXPECT_EQ(nullptr, config.getWidth());
  EXPECT_EQ(nullptr, config.getHeight());
  EXPECT_TRUE(config.getNames().empty());
  EXPECT_TRUE(config.getShortNames().empty());
  EXPECT_TRUE(config.getDescriptions().empty());
  EXPECT_TRUE(config.getLicenses().empty());
  EXPECT_TRUE(config.getLicenseHrefs().empty());
  EXPECT_TRUE(config.getFeatures().empty());
  EXPECT_TRUE(config.getIcons().empty());
  EXPECT_TRUE(config.getPreferences().empty());
  EXPECT_TRUE(config.getViewModes().empty());
  EXPECT_TRUE(config.getSpareList().empty());
}
