// SPDX-License-Identifier: Apache-2.0
#include "config/XmlText.h"

#include <gtest/gtest.h>
#include <libxml/globals.h>
#include <libxml/parser.h>

#include <string>
#include <vector>

#include "testing/ConfigXml.h"

namespace {

void countError(void* context, xmlErrorPtr) { ++*static_cast<int*>(context); }

// A document that does not parse, for making libxml2 report.
void readBrokenDocument() {
  const std::string broken = "<a><b></a>";
  xmlFreeDoc(xmlReadMemory(broken.data(), static_cast<int>(broken.size()),
                           "broken.xml", nullptr, XML_PARSE_NONET));
}

}  // namespace

TEST(XmlTextTest, ElementsAreMatchedByLocalNameAndKind) {
  xmltext::DocPtr doc = readXml(
      "<w:widget xmlns:w=\"urn:w\"><name>x</name><!--name-->text</w:widget>");
  ASSERT_TRUE(doc);
  xmlNode* root = xmlDocGetRootElement(doc.get());
  EXPECT_TRUE(xmltext::isElement(root, "widget"));
  EXPECT_FALSE(xmltext::isElement(root, "w:widget"));
  std::vector<std::string> names;
  for (xmlNode* child = root->children; child; child = child->next) {
    if (xmltext::isElement(child, "name")) names.push_back("name");
    // libxml2 names text nodes "text" and comments "comment".
    if (xmltext::isElement(child, "text")) names.push_back("text");
    if (xmltext::isElement(child, "comment")) names.push_back("comment");
  }
  EXPECT_EQ(std::vector<std::string>{"name"}, names);
}

TEST(XmlTextTest, AttributesAreReadAsWrittenAndLangFindsXmlLang) {
  xmltext::DocPtr doc =
      readXml("<widget xml:lang=\"fr\" value=\"  a \t b  \" empty=\"\"/>");
  ASSERT_TRUE(doc);
  xmlNode* root = xmlDocGetRootElement(doc.get());
  EXPECT_TRUE(xmltext::hasAttribute(root, "lang"));
  EXPECT_EQ("fr", xmltext::getRawAttribute(root, "lang"));
  // Attribute value normalization turns the tab into a blank.
  EXPECT_EQ("  a   b  ", xmltext::getRawAttribute(root, "value"));
  EXPECT_TRUE(xmltext::hasAttribute(root, "empty"));
  EXPECT_EQ("", xmltext::getRawAttribute(root, "empty"));
  EXPECT_FALSE(xmltext::hasAttribute(root, "missing"));
  EXPECT_EQ("", xmltext::getRawAttribute(root, "missing"));
}

TEST(XmlTextTest, RouteSendsReportsToItsHandlerAndPutsTheOldOneBack) {
  int outer = 0;
  int inner = 0;
  xmltext::ErrorRoute outerRoute(countError, &outer);
  {
    xmltext::ErrorRoute innerRoute(countError, &inner);
    readBrokenDocument();
  }
  EXPECT_GT(inner, 0);
  EXPECT_EQ(0, outer);
  EXPECT_EQ(&outer, xmlStructuredErrorContext);
  readBrokenDocument();
  EXPECT_GT(outer, 0);
}

TEST(XmlTextTest, QuietRouteForgetsTheLastErrorAndRestoresGenericReports) {
  const xmlGenericErrorFunc generic = xmlGenericError;
  void* const genericContext = xmlGenericErrorContext;
  int seen = 0;
  {
    xmltext::ErrorRoute quiet(countError, &seen, xmltext::ErrorRoute::kQuiet);
    EXPECT_NE(generic, xmlGenericError);
    readBrokenDocument();
    EXPECT_NE(nullptr, xmlGetLastError());
  }
  EXPECT_GT(seen, 0);
  EXPECT_EQ(nullptr, xmlGetLastError());
  EXPECT_EQ(generic, xmlGenericError);
  EXPECT_EQ(genericContext, xmlGenericErrorContext);
}
