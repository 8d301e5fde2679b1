// SPDX-License-Identifier: Apache-2.0
#include "config/SchemaValidator.h"

#include <gtest/gtest.h>
#include <libxml/parser.h>

#include <string>
#include <vector>

#include "config/XmlText.h"
#include "testing/ConfigXml.h"
#include "testing/TempDir.h"

namespace {

// libxml2's complaints as "line: message", in the order they came.
void collect(void* context, xmlErrorPtr error) {
  auto* lines = static_cast<std::vector<std::string>*>(context);
  lines->push_back(std::to_string(error->line) + ": " +
                   (error->message ? error->message : ""));
}

}  // namespace

TEST(SchemaValidatorTest, ValidDocumentPassesWithoutComplaint) {
  SchemaValidator validator(WIDGETENGINE_TEST_SCHEMA_PATH);
  ASSERT_TRUE(validator.loaded());
  ASSERT_TRUE(validator.prepare());
  xmltext::DocPtr doc = readXml(configXml("<name>Clock</name>", "id=\"urn:x\""));
  ASSERT_TRUE(doc);
  std::vector<std::string> lines;
  EXPECT_EQ(0, validator.validate(doc.get(), collect, &lines));
  EXPECT_TRUE(lines.empty()) << lines.front();
}

TEST(SchemaValidatorTest, InvalidDocumentFailsAndEveryComplaintHasItsLine) {
  SchemaValidator validator(WIDGETENGINE_TEST_SCHEMA_PATH);
  ASSERT_TRUE(validator.loaded() && validator.prepare());
  // Not in the widgets namespace: the schema has no such root.
  xmltext::DocPtr doc = readXml("<?xml version=\"1.0\"?>\n\n<widget/>\n");
  ASSERT_TRUE(doc);
  std::vector<std::string> lines;
  EXPECT_NE(0, validator.validate(doc.get(), collect, &lines));
  ASSERT_FALSE(lines.empty());
  for (const std::string& line : lines) EXPECT_EQ(0u, line.find("3: ")) << line;
}

TEST(SchemaValidatorTest, OneValidatorHoldsSeveralDocuments) {
  SchemaValidator validator(WIDGETENGINE_TEST_SCHEMA_PATH);
  ASSERT_TRUE(validator.loaded() && validator.prepare());
  // prepare() again keeps the context it made.
  ASSERT_TRUE(validator.prepare());
  xmltext::DocPtr good = readXml(configXml("<name>Clock</name>"));
  xmltext::DocPtr bad = readXml("<widgets/>");
  std::vector<std::string> lines;
  EXPECT_EQ(0, validator.validate(good.get(), collect, &lines));
  EXPECT_NE(0, validator.validate(bad.get(), collect, &lines));
  EXPECT_EQ(0, validator.validate(good.get(), collect, &lines));
}

TEST(SchemaValidatorTest, MissingSchemaIsNotLoadedAndCannotBePrepared) {
  // Reading the schema file reports through the thread's handlers.
  xmltext::ErrorRoute quiet(xmltext::ignoreError, nullptr,
                            xmltext::ErrorRoute::kQuiet);
  TempDir dir;
  SchemaValidator validator(dir.file("missing.rng"));
  EXPECT_FALSE(validator.loaded());
  EXPECT_FALSE(validator.prepare());
}

TEST(SchemaValidatorTest, FileThatIsNotRelaxNgIsNotLoaded) {
  xmltext::ErrorRoute quiet(xmltext::ignoreError, nullptr,
                            xmltext::ErrorRoute::kQuiet);
  TempDir dir;
  TempDir::writeFile(dir.file("bad.rng"), "<notagrammar/>");
  EXPECT_FALSE(SchemaValidator(dir.file("bad.rng")).loaded());
  TempDir::writeFile(dir.file("broken.rng"), "<grammar");
  EXPECT_FALSE(SchemaValidator(dir.file("broken.rng")).loaded());
}
