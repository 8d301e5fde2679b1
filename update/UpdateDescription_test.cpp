// SPDX-License-Identifier: Apache-2.0
#include "update/UpdateDescription.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include <widgetengine/WidgetEngineExtensions.h>

namespace {

const char kBase[] = "http://updates.test/widgets/clock.xml";

std::string info(const std::string& attributes, const std::string& body = "") {
  return "<?xml version=\"1.0\"?>\n<update-info xmlns=\"http://www.w3.org/ns/widgets\" " +
         attributes + ">" + body + "</update-info>\n";
}

// Passes when bytes are refused as a malformed description, with nothing
// kept of them.
::testing::AssertionResult refused(const std::string& bytes) {
  UpdateDescription description;
  const Outcome read = description.parse(bytes, kBase);
  if (read.ok()) return ::testing::AssertionFailure() << "accepted";
  if (read.reason().find("malformed") == std::string::npos)
    return ::testing::AssertionFailure() << "reason: " << read.reason();
  if (!description.version().empty() || !description.src().empty())
    return ::testing::AssertionFailure() << "kept " << description.version();
  return ::testing::AssertionSuccess();
}

}  // namespace

TEST(UpdateDescriptionTest, ReadsVersionSourceAndDetails) {
  UpdateDescription description;
  const Outcome read = description.parse(
      info("version=\" 2.0  beta \" src=\"http://cdn.test/clock-2.wgt\"",
           "<details>Faster.</details>"),
      kBase);
  ASSERT_TRUE(read.ok()) << read.reason();
  EXPECT_EQ("2.0 beta", description.version());
  EXPECT_EQ("http://cdn.test/clock-2.wgt", description.src());
  EXPECT_EQ("Faster.", description.details({}));
}

TEST(UpdateDescriptionTest, AnyOtherVersionIsAnUpdate) {
  UpdateDescription description;
  ASSERT_TRUE(description.parse(info("version=\"1.0\" src=\"a.wgt\""), kBase).ok());
  EXPECT_FALSE(description.differsFrom("1.0"));
  EXPECT_TRUE(description.differsFrom("1.1"));
  EXPECT_TRUE(description.differsFrom("1.0.0"));
  EXPECT_TRUE(description.differsFrom(""));
}

TEST(UpdateDescriptionTest, RelativeSourceIsResolvedAgainstTheDocument) {
  UpdateDescription description;
  ASSERT_TRUE(description.parse(info("version=\"2\" src=\"pkg/clock.wgt\""), kBase).ok());
  EXPECT_EQ("http://updates.test/widgets/pkg/clock.wgt", description.src());
  ASSERT_TRUE(description.parse(info("version=\"2\" src=\"/clock.wgt\""),
                                "https://u.test/a/b.xml").ok());
  EXPECT_EQ("https://u.test/clock.wgt", description.src());
}

TEST(UpdateDescriptionTest, WhatTheRulesCallInvalidIsRefused) {
  EXPECT_TRUE(refused(""));
  EXPECT_TRUE(refused("not xml at all"));
  EXPECT_TRUE(refused(info("version=\"2\" src=\"a.wgt\"") + "<trailing/>"));
  // The root in no namespace, in another, or of another name.
  EXPECT_TRUE(refused("<update-info version=\"2\" src=\"a.wgt\"/>"));
  EXPECT_TRUE(refused("<update-info xmlns=\"urn:other\" version=\"2\" src=\"a.wgt\"/>"));
  EXPECT_TRUE(refused("<widget xmlns=\"http://www.w3.org/ns/widgets\" "
                      "version=\"2\" src=\"a.wgt\"/>"));
  EXPECT_TRUE(refused(info("src=\"a.wgt\"")));
  EXPECT_TRUE(refused(info("version=\"  \" src=\"a.wgt\"")));
  EXPECT_TRUE(refused(info("version=\"2\"")));
  EXPECT_TRUE(refused(info("version=\"2\" src=\" \"")));
}

TEST(UpdateDescriptionTest, PackageComesOnlyFromTheWeb) {
  EXPECT_TRUE(refused(info("version=\"2\" src=\"file:///etc/passwd\"")));
  EXPECT_TRUE(refused(info("version=\"2\" src=\"ftp://cdn.test/a.wgt\"")));
  UpdateDescription description;
  ASSERT_TRUE(description.parse(info("version=\"2\" src=\"HTTPS://cdn.test/a.wgt\""),
                                kBase).ok());
}

TEST(UpdateDescriptionTest, EntitiesAndLargeDocumentsAreRefused) {
  EXPECT_TRUE(refused(std::string(UpdateDescription::kLargestDocument + 1, ' ') +
                      info("version=\"2\" src=\"a.wgt\"")));
  // An external entity is neither loaded nor expanded into the text.
  UpdateDescription description;
  const std::string withEntity =
      "<?xml version=\"1.0\"?>\n<!DOCTYPE u [<!ENTITY x SYSTEM "
      "\"file:///etc/hostname\">]>\n<update-info "
      "xmlns=\"http://www.w3.org/ns/widgets\" version=\"2\" src=\"a.wgt\">"
      "<details>&x;</details></update-info>";
  if (description.parse(withEntity, kBase).ok()) {
    EXPECT_EQ("", description.details({}));
  }
  // Entities that expand without bound.
  std::string bomb = "<?xml version=\"1.0\"?>\n<!DOCTYPE u [<!ENTITY a \"aaaaaaaaaa\">";
  std::string previous = "a";
  for (char name = 'b'; name <= 'j'; ++name) {
    bomb += std::string("<!ENTITY ") + name + " \"";
    for (int i = 0; i < 10; ++i) bomb += "&" + previous + ";";
    bomb += "\">";
    previous = std::string(1, name);
  }
  bomb += "]>\n" + info("version=\"2\" src=\"a.wgt\"", "<details>&j;</details>");
  EXPECT_TRUE(refused(bomb));
}

TEST(UpdateDescriptionTest, DetailsFollowTheReadersLanguages) {
  UpdateDescription description;
  ASSERT_TRUE(description
                  .parse(info("version=\"2\" src=\"a.wgt\"",
                              "<details xml:lang=\"fr\">Plus vite.</details>"
                              "<details>Faster.</details>"
                              "<details xml:lang=\"pt-BR\">Mais rápido.</details>"
                              "<details xml:lang=\"fr\">Second français.</details>"),
                         kBase)
                  .ok());
  EXPECT_EQ("Plus vite.", description.details({"fr-ca", "fr"}));
  EXPECT_EQ("Mais rápido.", description.details({"pt-br", "pt", "fr"}));
  EXPECT_EQ("Faster.", description.details({"de"}));
  EXPECT_EQ("Faster.", description.details({}));

  ASSERT_TRUE(description
                  .parse(info("version=\"2\" src=\"a.wgt\" xml:lang=\"de\"",
                              "<details>Schneller.</details>"
                              "<details xml:lang=\"en\">Faster.</details>"),
                         kBase)
                  .ok());
  // The root's language is the details' language.
  EXPECT_EQ("Schneller.", description.details({"de"}));
  EXPECT_EQ("Schneller.", description.details({"it"}));
  EXPECT_EQ("Faster.", description.details({"en"}));

  ASSERT_TRUE(description.parse(info("version=\"2\" src=\"a.wgt\""), kBase).ok());
  EXPECT_EQ("", description.details({"en"}));
}
