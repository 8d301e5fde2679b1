// SPDX-License-Identifier: Apache-2.0
#include "engine/UserAgentLocales.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/CaptureStdout.h"

namespace {

using Locales = std::vector<std::string>;

// Computes the list for language and returns it with the printed output.
Locales computeFor(const std::string& language, std::string* output = nullptr) {
  CaptureStdout out;
  UserAgentLocales locales(language);
  const std::string text = out.text();
  if (output) *output = text;
  return locales.getLocales();
}

}  // namespace

TEST(UserAgentLocalesTest, TagIsFollowedByItsPrefixesAndTraced) {
  std::string output;
  EXPECT_EQ((Locales{"en-us", "en", "fr"}), computeFor("en-US,fr", &output));
  EXPECT_EQ("[V:UserAgentLocales] Computed locales : en-us,en,fr\n", output);
}

TEST(UserAgentLocalesTest, StarTokensAreSkipped) {
  EXPECT_EQ(Locales{}, computeFor("*"));
  EXPECT_EQ(Locales{"de"}, computeFor("*,de"));
  EXPECT_EQ(Locales{"de"}, computeFor("*-us,de"));
}

TEST(UserAgentLocalesTest, IrregularPrefixSkipsButLongerGrandfatheredTagIsKept) {
  EXPECT_EQ(Locales{}, computeFor("i-default"));
  EXPECT_EQ((Locales{"zh-min-nan", "zh-min", "zh"}), computeFor("zh-min-nan"));
}

TEST(UserAgentLocalesTest, InnerBlankSkipsButLeadingBlankIsKept) {
  EXPECT_EQ(Locales{}, computeFor("en us"));
  EXPECT_EQ(Locales{" en"}, computeFor(" en"));
  EXPECT_EQ((Locales{"fr", " en"}), computeFor("fr, en"));
  EXPECT_EQ(Locales{"fr"}, computeFor("fr,en\t"));
}

TEST(UserAgentLocalesTest, EmptyStringYieldsEmptyListAndBareTrace) {
  std::string output;
  EXPECT_EQ(Locales{}, computeFor("", &output));
  EXPECT_EQ("[V:UserAgentLocales] Computed locales : \n", output);
}

TEST(UserAgentLocalesTest, DefaultConstructorComputesNothingAndPrintsNothing) {
  CaptureStdout out;
  UserAgentLocales locales;
  EXPECT_EQ("", out.text());
  EXPECT_EQ(Locales{}, locales.getLocales());
  EXPECT_EQ("", locales.getLanguage());
}

TEST(UserAgentLocalesTest, LanguageIsKeptAsReceived) {
  CaptureStdout out;
  UserAgentLocales locales("EN-GB,De");
  EXPECT_EQ("EN-GB,De", locales.getLanguage());
  EXPECT_EQ((Locales{"en-gb", "en", "de"}), locales.getLocales());
  EXPECT_TRUE(locales.isComputedFrom("EN-GB,De"));
  EXPECT_FALSE(locales.isComputedFrom("en-gb,de"));
}

TEST(UserAgentLocalesTest, ComputeReplacesTheWholeList) {
  CaptureStdout out;
  UserAgentLocales locales("en-us");
  locales.compute("fr");
  EXPECT_EQ(Locales{"fr"}, locales.getLocales());
  EXPECT_EQ("fr", locales.getLanguage());
  EXPECT_EQ(
      "[V:UserAgentLocales] Computed locales : en-us,en\n"
      "[V:UserAgentLocales] Computed locales : fr\n",
      out.text());
}

TEST(UserAgentLocalesTest, StarTakesThePrecedingCharacterWithIt) {
  EXPECT_EQ(Locales{"en"}, computeFor("en-*"));
  EXPECT_EQ((Locales{"en-us", "en"}), computeFor("en-*-us"));
}

TEST(UserAgentLocalesTest, StarBroughtToTheFrontGoesAlone) {
  // "a**": the first star takes the "a" with it, which leaves a star with
  // nothing before it; that one goes alone.
  EXPECT_EQ((Locales{"", "de"}), computeFor("a**,de"));
  EXPECT_EQ((Locales{"x", "de"}), computeFor("a**x,de"));
  EXPECT_EQ(Locales{"fr"}, computeFor("**,fr"));
}

TEST(UserAgentLocalesTest, EveryPrefixIsAddedDownToTheFirstSubtag) {
  EXPECT_EQ((Locales{"en-us-x", "en-us", "en"}), computeFor("en-us-x"));
}

TEST(UserAgentLocalesTest, DuplicatesAndQualityValuesStay) {
  EXPECT_EQ((Locales{"en-us", "en", "en"}), computeFor("en-us,en"));
  EXPECT_EQ((Locales{"en-gb;q=0.8", "en"}), computeFor("en-GB;q=0.8"));
}

TEST(UserAgentLocalesTest, EmptyPiecesBetweenCommasAreKeptTrailingCommaIsNot) {
  EXPECT_EQ((Locales{"en", "", "fr"}), computeFor("en,,fr"));
  EXPECT_EQ((Locales{"en"}), computeFor("en,"));
}

TEST(UserAgentLocalesTest, GrandfatheredAndOrdinaryTagsAreToldApart) {
  UserAgentLocales locales;
  const char* irregular[] = {
      "art-lojban", "i-ami",       "i-bnn",       "i-hak",     "i-klingon",
      "i-lux",      "i-navajo",    "i-pwn",       "i-tao",     "i-tay",
      "i-tsu",      "no-bok",      "no-nyn",      "sgn-be-fr", "sgn-be-nl",
      "sgn-ch-de",  "zh-guoyu",    "zh-hakka",    "zh-min",    "zh-xiang",
      "sgn-br",     "sgn-co",      "sgn-de",      "sgn-dk",    "sgn-es",
      "sgn-fr",     "sgn-gb",      "sgn-gr",      "sgn-ie",    "sgn-it",
      "sgn-jp",     "sgn-mx",      "sgn-ni",      "sgn-nl",    "sgn-no",
      "sgn-pt",     "sgn-se",      "sgn-us",      "sgn-za",    "zh-cmn",
      "zh-cmn-hans", "zh-cmn-hant", "zh-gan",     "zh-wuu",    "zh-yue",
  };
  for (const char* tag : irregular) {
    EXPECT_TRUE(locales.isIrregularTag(tag)) << tag;
  }
  EXPECT_TRUE(locales.isIrregularTag("i-anything"));
  EXPECT_FALSE(locales.isIrregularTag("en-gb-oed"));
  EXPECT_FALSE(locales.isIrregularTag("cel-gaulish"));
  EXPECT_FALSE(locales.isIrregularTag("sgn"));
  EXPECT_FALSE(locales.isIrregularTag("i"));
  EXPECT_FALSE(locales.isIrregularTag(""));
  EXPECT_EQ((Locales{"en-gb-oed", "en-gb", "en"}), computeFor("en-GB-oed"));
  EXPECT_EQ((Locales{"de"}), computeFor("ZH-Min,sgn-BE-FR,no-bok,de"));
}

TEST(UserAgentLocalesTest, InnerSpaceIgnoresTheFirstCharacter) {
  UserAgentLocales locales;
  EXPECT_FALSE(locales.hasInnerSpace(" en"));
  EXPECT_FALSE(locales.hasInnerSpace("\ten"));
  EXPECT_TRUE(locales.hasInnerSpace("e n"));
  EXPECT_TRUE(locales.hasInnerSpace("en\n"));
  EXPECT_FALSE(locales.hasInnerSpace(""));
}

TEST(UserAgentLocalesTest, SplitStringKeepsInnerEmptyPiecesAndAppends) {
  std::vector<std::string> out{"x"};
  UserAgentLocales::splitString("a,,b,", ',', out);
  EXPECT_EQ((std::vector<std::string>{"x", "a", "", "b"}), out);
  out.clear();
  UserAgentLocales::splitString("", ',', out);
  EXPECT_TRUE(out.empty());
  UserAgentLocales::splitString(",", ',', out);
  EXPECT_EQ(std::vector<std::string>{""}, out);
}

TEST(UserAgentLocalesTest, NonAsciiBytesAreLeftAsTheyAre) {
  EXPECT_EQ(Locales{"\xc3\x89n"}, computeFor("\xc3\x89N"));
}

namespace {

TEST(UserAgentLocalesBoundsTest, MegabyteStringsCostOnePass) {
  CaptureStdout quiet;
  // One tag of a megabyte of dashes would list a megabyte of prefixes of
  // up to a megabyte each; it is dropped.
  UserAgentLocales dashes(std::string(1 << 20, '-'));
  EXPECT_TRUE(dashes.getLocales().empty());
  // Stars are applied in one pass: "a*" pairs cancel, what is left is kept
  // only when it is short enough.
  std::string stars;
  for (int i = 0; i < (1 << 19); ++i) stars += "a*";
  UserAgentLocales cancelled(stars + "fr");
  EXPECT_EQ((std::vector<std::string>{"fr"}), cancelled.getLocales());
  UserAgentLocales onlyStars(std::string(1 << 20, '*'));
  EXPECT_TRUE(onlyStars.getLocales().empty());
  // Many tags: the first kMostTags kept ones count.
  std::string many;
  for (int i = 0; many.size() < (1u << 20); ++i) many += "l" + std::to_string(i) + "-x,";
  UserAgentLocales tags(many);
  ASSERT_EQ(2 * UserAgentLocales::kMostTags, tags.getLocales().size());
  EXPECT_EQ("l0-x", tags.getLocales()[0]);
  EXPECT_EQ("l31", tags.getLocales().back());
}

TEST(UserAgentLocalesBoundsTest, TagsUpToTheLimitAreKeptWithTheirPrefixes) {
  CaptureStdout quiet;
  std::string longest(UserAgentLocales::kLongestTag - 3, 'a');
  UserAgentLocales limit(longest + "-bb, " + longest + "-bbb");
  EXPECT_EQ((std::vector<std::string>{longest + "-bb", longest}), limit.getLocales());
}

}  // namespace
