// SPDX-License-Identifier: Apache-2.0
#include "config/DocumentGuards.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <string>

#include "config/XmlText.h"
#include "testing/ConfigXml.h"
#include "testing/TempDir.h"

namespace {

std::string manyAttributes(int count) {
  std::string attributes;
  for (int i = 0; i < count; ++i)
    attributes += " a" + std::to_string(i) + "=\"v\"";
  return attributes;
}

std::string manyChildren(int count) {
  std::string children;
  for (int i = 0; i < count; ++i) children += "<c/>";
  return children;
}

}  // namespace

TEST(DocumentGuardsTest, FilesAreRefusedForSizeAndForOverlongTags) {
  TempDir dir;
  const std::string path = dir.file("config.xml");
  const std::string plain = configXml("<name>Clock</name>");
  TempDir::writeFile(path, plain);
  EXPECT_FALSE(documentGuards::refusesFile(path, 1u << 20));
  EXPECT_TRUE(documentGuards::refusesFile(path, plain.size() - 1));
  EXPECT_FALSE(documentGuards::refusesFile(path, plain.size()));

  TempDir::writeFile(path, configXml("<name" + manyAttributes(256) + "/>"));
  EXPECT_FALSE(documentGuards::refusesFile(path, 1u << 20));
  TempDir::writeFile(path, configXml("<name" + manyAttributes(257) + "/>"));
  EXPECT_TRUE(documentGuards::refusesFile(path, 1u << 20));
  // Marks inside quotes, comments and CDATA are not attributes.
  TempDir::writeFile(
      path, configXml("<name a=\"" + std::string(1000, '=') + "\"/><!--" +
                      std::string(1000, '=') + "--><![CDATA[" +
                      std::string(1000, '=') + "]]>"));
  EXPECT_FALSE(documentGuards::refusesFile(path, 1u << 20));
  // A file that cannot be read is left to libxml2.
  EXPECT_FALSE(documentGuards::refusesFile(dir.file("missing.xml"), 1u << 20));
}

TEST(DocumentGuardsTest, EntitiesMustExpandWithinBounds) {
  xmltext::DocPtr plain = readXml(configXml("<name>Clock</name>"));
  ASSERT_TRUE(plain);
  EXPECT_TRUE(documentGuards::expandsWithinBounds(
      plain.get(), xmlDocGetRootElement(plain.get())));

  // One 100 kB entity referenced 200 times: 20 MB of text from a document
  // of some 100 kB, more than the bounds allow (libxml2 itself refuses
  // deeper nestings of entities at once).
  std::string references;
  for (int i = 0; i < 200; ++i) references += "&big;";
  xmltext::DocPtr blowup =
      readXml("<?xml version=\"1.0\"?><!DOCTYPE widget [<!ENTITY big \"" +
           std::string(100000, 'x') + "\">]><widget>" + references +
           "</widget>");
  ASSERT_TRUE(blowup);
  EXPECT_FALSE(documentGuards::expandsWithinBounds(
      blowup.get(), xmlDocGetRootElement(blowup.get())));

  xmltext::DocPtr small = readXml(
      "<?xml version=\"1.0\"?><!DOCTYPE widget [<!ENTITY e \"clock\">]>"
      "<widget a=\"&e;\">&e;</widget>");
  ASSERT_TRUE(small);
  EXPECT_TRUE(documentGuards::expandsWithinBounds(
      small.get(), xmlDocGetRootElement(small.get())));
}

TEST(DocumentGuardsTest, TreesBeyondAnyRealDocumentAreTooLargeToValidate) {
  // The root counts as one element.
  xmltext::DocPtr most = readXml("<widget>" + manyChildren(9999) + "</widget>");
  ASSERT_TRUE(most);
  EXPECT_FALSE(
      documentGuards::isTooLargeToValidate(xmlDocGetRootElement(most.get())));
  xmltext::DocPtr over = readXml("<widget>" + manyChildren(10000) + "</widget>");
  ASSERT_TRUE(over);
  EXPECT_TRUE(
      documentGuards::isTooLargeToValidate(xmlDocGetRootElement(over.get())));

  xmltext::DocPtr wide = readXml("<widget" + manyAttributes(257) + "/>");
  ASSERT_TRUE(wide);
  EXPECT_TRUE(
      documentGuards::isTooLargeToValidate(xmlDocGetRootElement(wide.get())));
}
