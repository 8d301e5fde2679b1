// SPDX-License-Identifier: Apache-2.0
#include "engine/AcceptLanguage.h"

#include <gtest/gtest.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <cstdlib>
#include <string>

#include "engine/UserAgentLocales.h"
#include "testing/CaptureStdout.h"

namespace {

std::string list(const std::string& header) {
  return AcceptLanguage::toLocaleList(header);
}

TEST(AcceptLanguageTest, PlainListsStayAsTheyAre) {
  EXPECT_EQ("fr-CA,fr,en", list("fr-CA,fr,en"));
  EXPECT_EQ("en-US", list("en-US"));
  EXPECT_EQ("", list(""));
}

TEST(AcceptLanguageTest, QualityValuesOrderTheTags) {
  EXPECT_EQ("en-US,de", list("en-US,de;q=0.8"));
  EXPECT_EQ("fr,en", list("en;q=0.9,fr;q=1.0"));
  EXPECT_EQ("da,en-gb,en", list("da, en-gb;q=0.8, en;q=0.7"));
  // Equal qualities keep the header's order.
  EXPECT_EQ("de,fr,it", list("de;q=0.5,fr;q=0.5,it;q=0.5"));
  EXPECT_EQ("a,b,c", list("c;q=0.001,b;q=0.01,a;q=0.1"));
  EXPECT_EQ("fr,de", list("de;Q=0.2,fr;q = 0.7"));
}

TEST(AcceptLanguageTest, BlanksStarsZeroQualityAndRepeatsGo) {
  EXPECT_EQ("en-US,de", list("en-US, de"));
  EXPECT_EQ("en-US,de", list("  en-US ,\tde\t"));
  EXPECT_EQ("de", list("*,de"));
  EXPECT_EQ("de", list("de, *;q=0.1"));
  EXPECT_EQ("fr", list("en;q=0,fr"));
  EXPECT_EQ("fr", list("en;q=0.000,fr"));
  EXPECT_EQ("en,fr", list("en,fr,EN;q=0.3,fr"));
  // A repeat of higher quality moves the tag up.
  EXPECT_EQ("en,fr", list("en;q=0.5,fr;q=0.8,en;q=0.9"));
  EXPECT_EQ("", list(",,, ,"));
}

TEST(AcceptLanguageTest, MalformedEntriesAreLeftOut) {
  EXPECT_EQ("fr", list("en;q=2,fr"));
  EXPECT_EQ("fr", list("en;q=abc,fr"));
  EXPECT_EQ("fr", list("en;q=0.12345,fr"));
  EXPECT_EQ("fr", list("en;level=1,fr"));
  EXPECT_EQ("fr", list("en us,fr"));
  EXPECT_EQ("fr", list("en;q=,fr"));
}

TEST(AcceptLanguageTest, TheEnginesParserReadsTheResultAsMeant) {
  UserAgentLocales locales;
  CaptureStdout quiet;
  locales.compute(list("en-US,de;q=0.8, fr;q=0.9"));
  EXPECT_EQ((std::vector<std::string>{"en-us", "en", "fr", "de"}), locales.getLocales());
}

TEST(AcceptLanguageTest, TheCFunctionAllocatesTheList) {
  char* text = widgetengine_accept_language("en-US, de;q=0.8");
  ASSERT_NE(nullptr, text);
  EXPECT_STREQ("en-US,de", text);
  free(text);
  text = widgetengine_accept_language(nullptr);
  ASSERT_NE(nullptr, text);
  EXPECT_STREQ("", text);
  free(text);
}

}  // namespace
