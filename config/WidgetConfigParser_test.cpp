// SPDX-License-Identifier: Apache-2.0
#include "config/WidgetConfigParser.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <gtest/gtest.h>
#include <libxml/xmlerror.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include <widgetengine/WidgetEngineExtensions.h>

#include "testing/TestWidget.h"
#include "config/WidgetConfig.h"
#include "testing/CaptureStdout.h"
#include "testing/ConfigRecord.h"
#include "testing/ConfigXml.h"
#include "testing/Listener.h"
#include "testing/OutputChecks.h"

namespace {

const char kNotParsed[] = "Document not parsed successfully\n";
const char kNoSchema[] =
    "Could not find Relax NG file. Please set WIDGET_VALIDATOR directory "
    "path.\n";
const char kInvalid[] = "Widget configuration document is invalid\n";
const char kWrongRoot[] = "Document of the wrong type, root node != widget\n";

const std::string kPng("\x89PNG\r\n\x1a\n\0\0", 10);
const std::string kGif("GIF89a\x01\x02", 8);

// A schema that accepts any well-formed document.
const char kAnythingSchema[] =
    "<grammar xmlns=\"http://relaxng.org/ns/structure/1.0\">\n"
    "  <start><ref name=\"any\"/></start>\n"
    "  <define name=\"any\">\n"
    "    <element><anyName/><zeroOrMore><choice>\n"
    "      <attribute><anyName/></attribute><text/><ref name=\"any\"/>\n"
    "    </choice></zeroOrMore></element>\n"
    "  </define>\n"
    "</grammar>\n";

class WidgetConfigParserTest : public ::testing::Test {
 protected:
  WidgetConfigParserTest() : config(widget.get()) {}

  // Writes config.xml into the widget and parses it; the output is kept.
  int parse(const std::string& xml,
            const std::string& schema = WIDGETENGINE_TEST_SCHEMA_PATH) {
    widget.write("config.xml", xml);
    return parseFile(widget.path("config.xml"), schema);
  }

  int parseFile(const std::string& path,
                const std::string& schema = WIDGETENGINE_TEST_SCHEMA_PATH) {
    CaptureStdout capture;
    WidgetConfigParser parser(path, &config, schema);
    const int result = parser.parse();
    out = capture.text();
    return result;
  }

  // Passes when parsing xml fails (-1) having printed exactly message.
  ::testing::AssertionResult rejects(
      const std::string& xml, const std::string& message,
      const std::string& schema = WIDGETENGINE_TEST_SCHEMA_PATH) {
    const int result = parse(xml, schema);
    return returnedAndPrinted("parse()", result, -1, out, message);
  }

  TestWidget widget;
  WidgetConfig config;
  std::string out;
};

}  // namespace

// ---- Failures: one message, -1, record untouched.

TEST_F(WidgetConfigParserTest, MissingSchemaIsReportedWhateverTheEnvironment) {
  TempDir elsewhere;
  TempDir::writeFile(elsewhere.file("WidgetConfig.rng"), kAnythingSchema);
  ScopedEnv validator("WIDGET_VALIDATOR", elsewhere.path() + "/");
  EXPECT_TRUE(rejects(configXml("<name>Clock</name>", "id=\"urn:x\""),
                      kNoSchema, elsewhere.file("missing.rng")));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, SchemaThatIsNotRelaxNgIsReportedAsMissing) {
  TempDir elsewhere;
  TempDir::writeFile(elsewhere.file("bad.rng"), "<notagrammar/>");
  EXPECT_TRUE(rejects(configXml("<name>Clock</name>"), kNoSchema,
                      elsewhere.file("bad.rng")));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, BuiltInSchemaPathIsTheDefault) {
  EXPECT_STREQ(WIDGETENGINE_TEST_SCHEMA_PATH, WidgetConfigParser::kSchemaPath);
  widget.write("config.xml", configXml("<name>Clock</name>"));
  CaptureStdout capture;
  WidgetConfigParser parser(widget.path("config.xml"), &config);
  EXPECT_EQ(0, parser.parse());
  EXPECT_EQ("Parsing name...\n", capture.text());
}

TEST_F(WidgetConfigParserTest, MissingDocumentIsNotParsed) {
  EXPECT_EQ(-1, parseFile(widget.path("absent.xml")));
  EXPECT_EQ(kNotParsed, out);
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, DocumentBeyondTheSizeLimitIsNotParsed) {
  const std::string head =
      "<widget xmlns=\"http://www.w3.org/ns/widgets\"><name>Clock</name>";
  const std::string tail = "</widget>";
  const size_t limit = WidgetConfigParser::kLargestDocument;
  // Exactly at the limit: parsed as any other document.
  std::string fits = head + std::string(limit - head.size() - tail.size(), ' ') + tail;
  ASSERT_EQ(limit, fits.size());
  EXPECT_EQ(0, parse(fits)) << out;
  // One byte more: refused, whatever it holds.
  std::string beyond = head + std::string(limit - head.size() - tail.size() + 1, ' ') + tail;
  EXPECT_TRUE(rejects(beyond, kNotParsed));
}

TEST_F(WidgetConfigParserTest, GigabyteDocumentIsRefusedWithoutReadingIt) {
  // A sparse file: a gigabyte that costs nothing to make, and would cost
  // seconds and gigabytes to parse.
  const std::string path = widget.path("config.xml");
  widget.write("config.xml", "<widget xmlns=\"http://www.w3.org/ns/widgets\">");
  ASSERT_EQ(0, truncate(path.c_str(), 1ll << 30));
  EXPECT_EQ(-1, parseFile(path));
  EXPECT_EQ(kNotParsed, out);
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, TextThatIsNotXmlIsNotParsed) {
  EXPECT_TRUE(rejects("this is not xml", kNotParsed));
  EXPECT_TRUE(
      rejects("<widget xmlns=\"http://www.w3.org/ns/widgets\">"
              "<name>Clock</widget>",
              kNotParsed));
  EXPECT_TRUE(rejects("", kNotParsed));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, NotParsedComesBeforeTheSchemaCheck) {
  TempDir elsewhere;
  EXPECT_TRUE(rejects("<widget", kNotParsed, elsewhere.file("missing.rng")));
}

TEST_F(WidgetConfigParserTest, WidgetOutsideTheNamespaceIsInvalid) {
  EXPECT_TRUE(
      rejects("<widget id=\"urn:x\"><name>Clock</name></widget>", kInvalid));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, WidgetsRootIsInvalidForTheRealSchema) {
  EXPECT_TRUE(
      rejects("<widgets xmlns=\"http://www.w3.org/ns/widgets\" "
              "id=\"urn:x\"><name>Clock</name></widgets>",
              kInvalid));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, WidgetsRootIsTheWrongTypeWhenTheSchemaAcceptsIt) {
  TempDir elsewhere;
  TempDir::writeFile(elsewhere.file("any.rng"), kAnythingSchema);
  EXPECT_TRUE(
      rejects("<widgets xmlns=\"http://www.w3.org/ns/widgets\" "
              "id=\"urn:x\"><name>Clock</name></widgets>",
              kWrongRoot, elsewhere.file("any.rng")));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, RootIsComparedByLocalName) {
  TempDir elsewhere;
  TempDir::writeFile(elsewhere.file("any.rng"), kAnythingSchema);
  EXPECT_EQ(0, parse("<w:widget xmlns:w=\"urn:other\" id=\"urn:x\"/>",
                     elsewhere.file("any.rng")));
  EXPECT_EQ("Parsing id...\nEmpty widget configuration\n", out);
  EXPECT_EQ("urn:x", *config.getId());
}

// ---- The walk.

TEST_F(WidgetConfigParserTest, FullDocumentTracesEveryStepInOrder) {
  widget.write("index.html", "<html/>");
  widget.write("icon.png", kPng);
  const std::string xml = configXml(
      "\n  <!-- a clock -->\n"
      "  <name short=\"Clk\">Clock</name>\n"
      "  <description>Shows the time</description>\n"
      "  <license href=\"http://mit.example/\">MIT</license>\n"
      "  <icon src=\"icon.png\" width=\"64\" height=\"32\"/>\n"
      "  <author href=\"http://ann.example/\" email=\"ann@example.org\">"
      "Ann</author>\n"
      "  <preference name=\"zone\" value=\"UTC\" readonly=\"true\"/>\n"
      "  <content src=\"index.html\" encoding=\"ISO-8859-1\"/>\n"
      "  <feature name=\"feature:gps\" required=\"false\">\n"
      "    <param name=\"accuracy\" value=\"high\"/>\n"
      "  </feature>\n",
      "id=\"urn:clock\" version=\"1.2\" height=\"480\" width=\"320\" "
      "viewmodes=\"fullscreen\" xml:lang=\"en\"");
  ASSERT_EQ(0, parse(xml));
  EXPECT_EQ(
      "Parsing id...\n"
      "Parsing version...\n"
      "Parsing height...\n"
      "Parsing width...\n"
      "Parsing viewmodes...\n"
      "Parsing name...\n"
      "Parsing description...\n"
      "Parsing license...\n"
      "Parsing icon...\n"
      "Parsing author...\n"
      "Parsing preference...\n"
      "Parsing content...\n"
      "Parsing feature...\n",
      out);

  EXPECT_EQ("urn:clock", *config.getId());
  EXPECT_EQ("1.2", *config.getVersion());
  EXPECT_EQ(480, *config.getHeight());
  EXPECT_EQ(320, *config.getWidth());
  EXPECT_EQ("Clock", config.getNames().at("en"));
  EXPECT_EQ("Clk", config.getShortNames().at("en"));
  EXPECT_EQ("Shows the time", config.getDescriptions().at("en"));
  EXPECT_EQ("MIT", config.getLicenses().at("en"));
  EXPECT_EQ("http://mit.example/", config.getLicenseHrefs().at("en"));
  ASSERT_EQ(1u, config.getIcons().size());
  EXPECT_EQ("icon.png", config.getIcons()[0].getSrc());
  EXPECT_EQ(64u, *config.getIcons()[0].getWidth());
  EXPECT_EQ(32u, *config.getIcons()[0].getHeight());
  EXPECT_EQ("Ann", *config.getAuthor());
  EXPECT_EQ("http://ann.example/", *config.getAuthorHref());
  EXPECT_EQ("ann@example.org", *config.getAuthorEmail());
  ASSERT_EQ(1u, config.getPreferences().size());
  EXPECT_EQ("zone", config.getPreferences()[0].getName());
  EXPECT_EQ("UTC", config.getPreferences()[0].getValue());
  EXPECT_TRUE(config.getPreferences()[0].isReadonly());
  EXPECT_EQ("index.html", *config.getStartFile());
  EXPECT_EQ("ISO-8859-1", *config.getContentEncoding());
  EXPECT_EQ("text/html", *config.getContentType());
  ASSERT_EQ(1u, config.getFeatures().size());
  EXPECT_EQ("feature:gps", config.getFeatures()[0].getName());
  EXPECT_FALSE(config.getFeatures()[0].isRequired());
  EXPECT_EQ("high", config.getFeatures()[0].getParams().at("accuracy"));
  EXPECT_TRUE(config.getViewModes().empty());
}

TEST_F(WidgetConfigParserTest, RootAttributesAreTracedInFixedOrder) {
  ASSERT_EQ(0, parse(configXml("<name>n</name>",
                               "viewmodes=\"mini\" width=\"1\" height=\"2\" "
                               "version=\"3\" id=\"urn:y\"")));
  EXPECT_EQ(
      "Parsing id...\nParsing version...\nParsing height...\n"
      "Parsing width...\nParsing viewmodes...\nParsing name...\n",
      out);
}

TEST_F(WidgetConfigParserTest, ChildElementsAreTracedInDocumentOrder) {
  ASSERT_EQ(0, parse(configXml("<feature name=\"f:a\"/><author>A</author>"
                               "<name>N</name><content src=\"x.html\"/>"
                               "<author>B</author>")));
  EXPECT_EQ(
      "Parsing feature...\nParsing author...\nParsing name...\n"
      "Parsing content...\nParsing author...\n",
      out);
  EXPECT_EQ("A", *config.getAuthor());
}

TEST_F(WidgetConfigParserTest, RootWithoutChildrenIsAnEmptyConfiguration) {
  ASSERT_EQ(0, parse(configXml("", "id=\"urn:x\"")));
  EXPECT_EQ("Parsing id...\nEmpty widget configuration\n", out);
  EXPECT_EQ("urn:x", *config.getId());
}

TEST_F(WidgetConfigParserTest, RootWithOnlyWhiteSpaceIsNotEmpty) {
  ASSERT_EQ(0, parse(configXml("\n  \n")));
  EXPECT_EQ("", out);
}

TEST_F(WidgetConfigParserTest, ViewModesAreOnlyTraced) {
  ASSERT_EQ(0, parse(configXml("<name>n</name>", "viewmodes=\"fullscreen\"")));
  EXPECT_EQ("Parsing viewmodes...\nParsing name...\n", out);
  EXPECT_TRUE(config.getViewModes().empty());
}

TEST_F(WidgetConfigParserTest, InvalidIdIsDroppedSilently) {
  ASSERT_EQ(0, parse(configXml("<name>n</name>", "id=\"1abc:x\"")));
  EXPECT_EQ("Parsing id...\nParsing name...\n", out);
  EXPECT_EQ(nullptr, config.getId());
}

TEST_F(WidgetConfigParserTest, RootLanguageAppliesToNames) {
  ASSERT_EQ(0, parse(configXml("<name>Horloge</name>", "xml:lang=\"fr\"")));
  ASSERT_EQ(1u, config.getNames().size());
  EXPECT_EQ("Horloge", config.getNames().at("fr"));
}

TEST_F(WidgetConfigParserTest, NoLanguageAnywhereGivesDefault) {
  ASSERT_EQ(0, parse(configXml("<name short=\"C\">Clock</name>"
                               "<description>D</description>"
                               "<license href=\"http://l/\">L</license>")));
  EXPECT_EQ("Clock", config.getNames().at("default"));
  EXPECT_EQ("C", config.getShortNames().at("default"));
  EXPECT_EQ("D", config.getDescriptions().at("default"));
  EXPECT_EQ("L", config.getLicenses().at("default"));
  EXPECT_EQ("http://l/", config.getLicenseHrefs().at("default"));
}

TEST_F(WidgetConfigParserTest, EmptyElementLanguageGivesDefault) {
  ASSERT_EQ(0, parse(configXml("<name xml:lang=\"\">Clock</name>"
                               "<name xml:lang=\" de \">Uhr</name>",
                               "xml:lang=\"fr\"")));
  EXPECT_EQ(2u, config.getNames().size());
  EXPECT_EQ("Clock", config.getNames().at("default"));
  EXPECT_EQ("Uhr", config.getNames().at("de"));
}

TEST_F(WidgetConfigParserTest, EmptyRootLanguageGivesDefault) {
  ASSERT_EQ(0, parse(configXml("<name>Clock</name>", "xml:lang=\"\"")));
  EXPECT_EQ("Clock", config.getNames().at("default"));
}

TEST_F(WidgetConfigParserTest, FirstNamePerLanguageWins) {
  ASSERT_EQ(0, parse(configXml("<name short=\"A\">First</name>"
                               "<name short=\"B\">Second</name>"
                               "<name xml:lang=\"fr\">Premier</name>")));
  EXPECT_EQ("Parsing name...\nParsing name...\nParsing name...\n", out);
  EXPECT_EQ("First", config.getNames().at("default"));
  EXPECT_EQ("A", config.getShortNames().at("default"));
  EXPECT_EQ("Premier", config.getNames().at("fr"));
}

TEST_F(WidgetConfigParserTest, ElementTextIsCollapsed) {
  ASSERT_EQ(0, parse(configXml("<name>\n  The \t big\n\n clock  </name>"
                               "<description><![CDATA[ a  b ]]></description>"
                               "<author>  Ann   Smith </author>")));
  EXPECT_EQ("The big clock", config.getNames().at("default"));
  EXPECT_EQ("a b", config.getDescriptions().at("default"));
  EXPECT_EQ("Ann Smith", *config.getAuthor());
}

TEST_F(WidgetConfigParserTest, ElementTextSkipsMarkupInside) {
  ASSERT_EQ(0, parse(configXml("<description>before <span>inside</span> "
                               "after</description>")));
  // Only the element's own text nodes are joined; markup inside is skipped.
  EXPECT_EQ("before after", config.getDescriptions().at("default"));
}

TEST_F(WidgetConfigParserTest, AttributeWhiteSpaceIsNormalised) {
  ASSERT_EQ(0, parse(configXml("<name short=\"  Big   clock  \">n</name>",
                               "version=\" 1&#9;&#9; 2&#10;\"")));
  EXPECT_EQ("Big clock", config.getShortNames().at("default"));
  // A tab that starts a run is kept as a tab.
  EXPECT_EQ("1\t2", *config.getVersion());
}

TEST_F(WidgetConfigParserTest, PaddedHeightIsRead) {
  ASSERT_EQ(0, parse(configXml("<name>n</name>", "height=\"  480 \"")));
  ASSERT_NE(nullptr, config.getHeight());
  EXPECT_EQ(480, *config.getHeight());
}

TEST_F(WidgetConfigParserTest, ZeroHeightLeavesItAbsent) {
  ASSERT_EQ(0, parse(configXml("<name>n</name>", "height=\"0\" width=\"-5\"")));
  EXPECT_EQ("Parsing height...\nParsing width...\nParsing name...\n", out);
  EXPECT_EQ(nullptr, config.getHeight());
  EXPECT_EQ(nullptr, config.getWidth());
}

TEST_F(WidgetConfigParserTest, SizesStopAtTheFirstNonDigit) {
  ASSERT_EQ(
      0, parse(configXml("<name>n</name>", "height=\"1 2\" width=\"120px\"")));
  EXPECT_EQ(12, *config.getHeight());
  EXPECT_EQ(120, *config.getWidth());
}

TEST_F(WidgetConfigParserTest, WrappedNegativeSizeLeavesItAbsent) {
  // 4294967295 wraps to -1 in 32 bits, which is not a size.
  ASSERT_EQ(0, parse(configXml("<name>n</name>", "width=\"4294967295\"")));
  EXPECT_EQ(nullptr, config.getWidth());
}

TEST_F(WidgetConfigParserTest, IconSizeThatIsNotANumberIsNotGiven) {
  widget.write("icon.png", kPng);
  ASSERT_EQ(0, parse(configXml("<icon src=\"icon.png\" width=\"abc\" "
                               "height=\"0\"/>")));
  ASSERT_EQ(1u, config.getIcons().size());
  EXPECT_EQ(nullptr, config.getIcons()[0].getWidth());
  EXPECT_EQ(nullptr, config.getIcons()[0].getHeight());
}

TEST_F(WidgetConfigParserTest, IconsAreCheckedAndDeduplicated) {
  widget.write("icon.png", kGif);
  widget.write("icon.gif", kGif);
  ASSERT_EQ(0, parse(configXml("<icon/>"
                               "<icon src=\"icon.png\"/>"
                               "<icon src=\" icon.gif \" width=\"16\"/>"
                               "<icon src=\"icon.gif\" width=\"32\"/>"
                               "<icon src=\"logo.xyz\"/>")));
  EXPECT_EQ(
      "Parsing icon...\nParsing icon...\nParsing icon...\nParsing icon...\n"
      "Parsing icon...\n",
      out);
  ASSERT_EQ(2u, config.getIcons().size());
  EXPECT_EQ("icon.gif", config.getIcons()[0].getSrc());
  EXPECT_EQ(16u, *config.getIcons()[0].getWidth());
  EXPECT_EQ("logo.xyz", config.getIcons()[1].getSrc());
}

TEST_F(WidgetConfigParserTest, FirstAuthorWinsAndHrefMustBeAnIri) {
  ASSERT_EQ(0, parse(configXml("<author href=\"ann.example\" "
                               "email=\" not an address \">Ann</author>"
                               "<author href=\"http://bob/\" email=\"b@b\">"
                               "Bob</author>")));
  EXPECT_EQ("Parsing author...\nParsing author...\n", out);
  EXPECT_EQ("Ann", *config.getAuthor());
  EXPECT_EQ(nullptr, config.getAuthorHref());
  EXPECT_EQ("not an address", *config.getAuthorEmail());
}

TEST_F(WidgetConfigParserTest, PreferenceValueKeepsItsBlanks) {
  ASSERT_EQ(0, parse(configXml("<preference name=\" zone \" "
                               "value=\" UTC \"/>")));
  ASSERT_EQ(1u, config.getPreferences().size());
  EXPECT_EQ("zone", config.getPreferences()[0].getName());
  EXPECT_EQ(" UTC ", config.getPreferences()[0].getValue());
  EXPECT_FALSE(config.getPreferences()[0].isReadonly());
}

TEST_F(WidgetConfigParserTest, PreferencesNeedNameAndValue) {
  ASSERT_EQ(0, parse(configXml(
                   "<preference name=\"a\"/>"
                   "<preference value=\"b\"/>"
                   "<preference name=\"  \" value=\"c\"/>"
                   "<preference name=\"d\" value=\"\" readonly=\" true \"/>"
                   "<preference name=\"d\" value=\"e\" readonly=\"TRUE\"/>")));
  EXPECT_EQ(5u * std::string("Parsing preference...\n").size(), out.size());
  ASSERT_EQ(2u, config.getPreferences().size());
  EXPECT_EQ("d", config.getPreferences()[0].getName());
  EXPECT_EQ("", config.getPreferences()[0].getValue());
  EXPECT_TRUE(config.getPreferences()[0].isReadonly());
  EXPECT_EQ("e", config.getPreferences()[1].getValue());
  EXPECT_FALSE(config.getPreferences()[1].isReadonly());
}

TEST_F(WidgetConfigParserTest, FirstAcceptedContentWins) {
  widget.write("a.html", "<html/>");
  widget.write("b.html", "<html/>");
  ASSERT_EQ(0, parse(configXml("<content src=\"a.html\" encoding=\"A\"/>"
                               "<content src=\"b.html\" encoding=\"B\"/>")));
  EXPECT_EQ("Parsing content...\nParsing content...\n", out);
  EXPECT_EQ("a.html", *config.getStartFile());
  EXPECT_EQ("A", *config.getContentEncoding());
}

TEST_F(WidgetConfigParserTest, RejectedContentLetsTheNextOneIn) {
  widget.write("b.html", "<html/>");
  ASSERT_EQ(0, parse(configXml("<content src=\"missing.html\" encoding=\"A\"/>"
                               "<content src=\"b.html\" encoding=\"B\"/>")));
  EXPECT_EQ("Parsing content...\nParsing content...\n", out);
  EXPECT_EQ("b.html", *config.getStartFile());
  EXPECT_EQ("B", *config.getContentEncoding());
}

TEST_F(WidgetConfigParserTest, ContentWithTypeNeedsOnlyAnExistingFile) {
  widget.write("main.page", "<html/>");
  ASSERT_EQ(0, parse(configXml("<content src=\"main.page\" "
                               "type=\"text/plain\"/>")));
  EXPECT_EQ("main.page", *config.getStartFile());
  EXPECT_EQ("text/html", *config.getContentType());
}

TEST_F(WidgetConfigParserTest, ContentWithoutTypeNeedsAKnownExtension) {
  widget.write("main.page", "<html/>");
  ASSERT_EQ(0, parse(configXml("<content encoding=\"X\"/>"
                               "<content src=\"main.page\" encoding=\"Y\"/>")));
  EXPECT_EQ("Parsing content...\nParsing content...\n", out);
  EXPECT_EQ(nullptr, config.getStartFile());
  EXPECT_EQ("UTF-8", *config.getContentEncoding());
}

TEST_F(WidgetConfigParserTest, ContentCannotLeaveTheWidget) {
  TempDir::writeFile(widget.root().file("outside.html"), "<html/>");
  ASSERT_EQ(0, parse(configXml("<content src=\"../outside.html\"/>")));
  EXPECT_EQ(nullptr, config.getStartFile());
}

TEST_F(WidgetConfigParserTest, OnlyExactFalseMakesAFeatureOptional) {
  ASSERT_EQ(0, parse(configXml("<feature name=\"f:a\" required=\"False\"/>"
                               "<feature name=\"f:b\" required=\" false \"/>"
                               "<feature name=\"f:c\"/>"
                               "<feature required=\"false\"/>"
                               "<feature name=\"f:a\" required=\"no\"/>")));
  EXPECT_EQ(5u * std::string("Parsing feature...\n").size(), out.size());
  ASSERT_EQ(4u, config.getFeatures().size());
  EXPECT_TRUE(config.getFeatures()[0].isRequired());
  EXPECT_FALSE(config.getFeatures()[1].isRequired());
  EXPECT_TRUE(config.getFeatures()[2].isRequired());
  EXPECT_EQ("f:a", config.getFeatures()[3].getName());
  EXPECT_TRUE(config.getFeatures()[3].isRequired());
}

TEST_F(WidgetConfigParserTest, FeatureParamsNeedNameAndValue) {
  ASSERT_EQ(0, parse(configXml(
                   "<feature name=\"f:a\">"
                   "<param name=\"k\" value=\"1\"/>"
                   "<param name=\" k \" value=\" 2 \"/>"
                   "<param name=\"empty\" value=\"  \"/>"
                   "<param name=\"novalue\"/>"
                   "<param value=\"noname\"/>"
                   "<x:param xmlns:x=\"urn:ext\" name=\"ext\" value=\"v\"/>"
                   "</feature>")));
  ASSERT_EQ(1u, config.getFeatures().size());
  const auto& params = config.getFeatures()[0].getParams();
  EXPECT_EQ("2", params.at("k"));
  EXPECT_EQ(0u, params.count("empty"));
  EXPECT_EQ(0u, params.count("novalue"));
  // Namespaces are not looked at.
  EXPECT_EQ("v", params.at("ext"));
  EXPECT_EQ(2u, params.size());
}

TEST_F(WidgetConfigParserTest, UnknownAndForeignElementsAreSkipped) {
  ASSERT_EQ(0, parse(configXml(
                   "<access origin=\"*\"/><!-- note --><?name pi?>"
                   "<ext:thing xmlns:ext=\"urn:ext\">text</ext:thing>"
                   "<ext:name xmlns:ext=\"urn:ext\">Foreign</ext:name>")));
  // An element named "name" is read whatever its namespace.
  EXPECT_EQ("Parsing name...\n", out);
  EXPECT_EQ("Foreign", config.getNames().at("default"));
}

TEST(WidgetConfigParserNumberTest, ReadsDigitsSkippingWhiteSpace) {
  EXPECT_EQ(0, WidgetConfigParser::toNumber(""));
  EXPECT_EQ(480, WidgetConfigParser::toNumber("  480 "));
  EXPECT_EQ(12, WidgetConfigParser::toNumber("1 2"));
  EXPECT_EQ(123, WidgetConfigParser::toNumber("\t1\n2\v\f\r3"));
  EXPECT_EQ(120, WidgetConfigParser::toNumber("120px"));
  EXPECT_EQ(0, WidgetConfigParser::toNumber("-5"));
  EXPECT_EQ(0, WidgetConfigParser::toNumber("abc"));
  EXPECT_EQ(1, WidgetConfigParser::toNumber("1.9"));
  EXPECT_EQ(7, WidgetConfigParser::toNumber(std::string("7\0" "8", 3)));
}

TEST(WidgetConfigParserNumberTest, WrapsAt32Bits) {
  EXPECT_EQ(2147483647, WidgetConfigParser::toNumber("2147483647"));
  EXPECT_EQ(INT32_MIN, WidgetConfigParser::toNumber("2147483648"));
  EXPECT_EQ(-1, WidgetConfigParser::toNumber("4294967295"));
  EXPECT_EQ(0, WidgetConfigParser::toNumber("4294967296"));
  EXPECT_EQ(1, WidgetConfigParser::toNumber("4294967297"));
  EXPECT_EQ(1215752191,
            WidgetConfigParser::toNumber("99999999999"));
  WidgetConfigParser::toNumber(std::string(100000, '9'));
}

// ---- Hostile and oversized input: each ends at once with one clear result.

namespace {

std::string billionLaughs(const std::string& use) {
  std::string dtd = "<!ENTITY lol \"lol\">\n";
  for (int i = 1; i <= 9; ++i) {
    std::string previous = i == 1 ? "lol" : "lol" + std::to_string(i - 1);
    std::string body;
    for (int j = 0; j < 10; ++j) body += "&" + previous + ";";
    dtd += "<!ENTITY lol" + std::to_string(i) + " \"" + body + "\">\n";
  }
  return "<?xml version=\"1.0\"?>\n<!DOCTYPE widget [\n" + dtd + "]>\n" +
         widgetElement(use);
}

// One 100 kB entity referenced 10,000 times: a 1 MB document that would
// expand to a gigabyte.
std::string quadraticBlowup(bool inAttribute) {
  std::string references;
  for (int i = 0; i < 10000; ++i) references += "&big;";
  return "<?xml version=\"1.0\"?>\n<!DOCTYPE widget [<!ENTITY big \"" +
         std::string(100000, 'x') + "\">]>\n" +
         (inAttribute ? widgetElement("<name>n</name>", "version=\"" +
                                                        references + "\"")
                        : widgetElement("<name>" + references + "</name>"));
}

void countingGenericError(void* context, const char*, ...) {
  ++*static_cast<int*>(context);
}
void countingStructuredError(void* context, xmlErrorPtr) {
  ++*static_cast<int*>(context);
}

}  // namespace

TEST_F(WidgetConfigParserTest, BinaryGarbageIsNotParsed) {
  std::string garbage;
  uint32_t state = 12345;
  for (int i = 0; i < 65536; ++i) {
    state = state * 1103515245u + 12345u;
    garbage.push_back(static_cast<char>(state >> 24));
  }
  EXPECT_TRUE(rejects(garbage, kNotParsed));
  EXPECT_TRUE(rejects(std::string("<widget\0\xff\xfe", 10), kNotParsed));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, AlmostAMegabyteOfElementsIsParsed) {
  std::string body;
  const std::string text(2000, 'x');
  int count = 0;
  while (body.size() < (1000u << 10)) {
    body += "<description xml:lang=\"l" + std::to_string(count++) + "\">" +
            text + "</description>\n";
  }
  ASSERT_EQ(0, parse(configXml(body)));
  EXPECT_EQ(static_cast<size_t>(count), config.getDescriptions().size());
  EXPECT_EQ(count * std::string("Parsing description...\n").size(),
            out.size());
}

TEST_F(WidgetConfigParserTest, AMegabyteOfTinyElementsIsRefusedAtOnce) {
  // Far more elements than any real document: validating them would take
  // minutes, so the document is refused as invalid before that.
  std::string body;
  while (body.size() < (1000u << 10)) body += "<x:e/>";
  EXPECT_TRUE(rejects(
      configXml("<name>n</name><x:ext xmlns:x=\"urn:x\">" + body + "</x:ext>"),
      kInvalid));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, TenThousandElementsAreStillValidated) {
  std::string body;
  for (int i = 0; i < 9990; ++i) body += "<x:e/>";
  EXPECT_EQ(0, parse(configXml("<name>n</name><x:ext xmlns:x=\"urn:x\">" +
                               body + "</x:ext>")));
  EXPECT_EQ("Parsing name...\n", out);
}

TEST_F(WidgetConfigParserTest, AlmostAMegabyteOfTextEndsWithOneResult) {
  const int result = parse(configXml(
      "<description>" + std::string(1000u << 10, 'x') + "</description>"));
  if (result == 0) {
    EXPECT_EQ("Parsing description...\n", out);
    EXPECT_EQ(1000u << 10, config.getDescriptions().at("default").size());
  } else {
    EXPECT_EQ(kNotParsed, out);
    expectAsConstructed(config);
  }
}

TEST_F(WidgetConfigParserTest, TenThousandNestedElementsAreNotParsed) {
  std::string open;
  std::string close;
  for (int i = 0; i < 10000; ++i) {
    open += "<d>";
    close += "</d>";
  }
  EXPECT_TRUE(rejects(configXml("<name>n</name>" + open + close), kNotParsed));
  expectAsConstructed(config);
}

namespace {

// n attributes named a0, a1, ... with empty values.
std::string manyAttributes(int n, const std::string& equals = "=",
                           const std::string& quote = "\"") {
  std::string attributes;
  for (int i = 0; i < n; ++i) {
    attributes += " a" + std::to_string(i) + equals + quote + quote;
  }
  return attributes;
}

// The document in UTF-16, little-endian, with its byte order mark.
std::string utf16le(const std::string& ascii) {
  std::string bytes("\xff\xfe", 2);
  for (char c : ascii) {
    bytes.push_back(c);
    bytes.push_back('\0');
  }
  return bytes;
}

}  // namespace

TEST_F(WidgetConfigParserTest, TwentyThousandAttributesOnOneElementAreNotParsed) {
  EXPECT_TRUE(rejects(configXml("<name>n</name>", manyAttributes(20000)),
                      kNotParsed));
  EXPECT_TRUE(rejects(
      configXml("<feature name=\"f:a\"><param" + manyAttributes(20000) +
                "/></feature>"),
      kNotParsed));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, ManyAttributesInUtf16AreNotParsed) {
  EXPECT_TRUE(rejects(utf16le("<?xml version=\"1.0\" encoding=\"UTF-16\"?>"
                              "<widget xmlns=\"http://www.w3.org/ns/widgets\"" +
                              manyAttributes(20000) + "/>"),
                      kNotParsed));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, AttributesSpelledByReferencesInAnEntityAreNotParsed) {
  EXPECT_TRUE(rejects(
      "<?xml version=\"1.0\"?>\n<!DOCTYPE widget [<!ENTITY e \"&#60;ext:x "
      "xmlns:ext='urn:x'" + manyAttributes(20000, "&#61;", "&#39;") +
          "/>\">]>\n" + widgetElement("<name>n</name>&e;"),
      kNotParsed));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, ThousandsOfAttributesOverManyElementsAreInvalid) {
  std::string body;
  for (int i = 0; i < 100; ++i) {
    body += "<x:e xmlns:x=\"urn:x\"" + manyAttributes(200) + "/>";
  }
  EXPECT_TRUE(rejects(configXml("<name>n</name>" + body), kInvalid));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, ElementWithTooManyAttributesIsInvalidAfterParsing) {
  // A document in UTF-7 hides its markup from any scan of the bytes; the
  // element's attributes are still counted once libxml2 has read it.
  std::string body = "<x:e xmlns:x=\"urn:x\"";
  for (int i = 0; i < 300; ++i) body += " a" + std::to_string(i) + "+AD0-\"\"";
  EXPECT_TRUE(rejects("<?xml version=\"1.0\" encoding=\"UTF-7\"?>\n" +
                          widgetElement("<name>n</name>" + body + "/>"),
                      kInvalid));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, EqualsSignsAndReferencesInValuesAndTextAreRead) {
  std::string marks;
  for (int i = 0; i < 1000; ++i) marks += "=&amp;";
  std::string attributes;
  for (int i = 0; i < 150; ++i) {
    attributes += " x:a" + std::to_string(i) + "=\"" + marks + "\"";
  }
  ASSERT_EQ(0, parse(configXml(
                   "<preference name=\"p\" value=\"" + marks + "\"/>"
                   "<description>" + marks + "</description>"
                   "<!-- " + marks + " --><![CDATA[" + marks + "]]>"
                   "<?pi " + marks + "?>"
                   "<name xmlns:x=\"urn:x\"" + attributes + ">n</name>",
                   "version=\"" + marks + "\"")));
  EXPECT_EQ("Parsing version...\nParsing preference...\n"
            "Parsing description...\nParsing name...\n",
            out);
  std::string text;
  for (int i = 0; i < 1000; ++i) text += "=&";
  EXPECT_EQ(text, config.getPreferences()[0].getValue());
  EXPECT_EQ(text, config.getDescriptions().at("default"));
}

TEST_F(WidgetConfigParserTest, BillionLaughsAreNotParsed) {
  EXPECT_EQ(-1, parse(billionLaughs("<name>&lol9;</name>")));
  EXPECT_EQ(kNotParsed, out);
  EXPECT_EQ(-1, parse(billionLaughs("<name short=\"&lol9;\">n</name>")));
  EXPECT_EQ(kNotParsed, out);
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, ManyReferencesToALargeEntityAreNotParsed) {
  EXPECT_TRUE(rejects(quadraticBlowup(true), kNotParsed));
  EXPECT_TRUE(rejects(quadraticBlowup(false), kNotParsed));
  expectAsConstructed(config);
}

TEST_F(WidgetConfigParserTest, SmallInternalEntityInAnAttributeIsExpanded) {
  ASSERT_EQ(0, parse("<?xml version=\"1.0\"?>\n"
                     "<!DOCTYPE widget [<!ENTITY who \"clock\">]>\n" +
                     widgetElement("<name short=\"&who;&who;\">n</name>",
                               "id=\"urn:&who;\"")));
  EXPECT_EQ("urn:clock", *config.getId());
  EXPECT_EQ("clockclock", config.getShortNames().at("default"));
}

TEST_F(WidgetConfigParserTest, ExternalEntitiesAreNeverRead) {
  TempDir other;
  TempDir::writeFile(other.file("secret.txt"), "SECRET");
  const std::string declaration =
      "<?xml version=\"1.0\"?>\n<!DOCTYPE widget [<!ENTITY s SYSTEM \"file://" +
      other.file("secret.txt") + "\">]>\n";

  const int inText = parse(declaration + widgetElement("<name>&s;</name>"));
  EXPECT_EQ(std::string::npos, out.find("SECRET"));
  if (inText == 0) {
    EXPECT_EQ("Parsing name...\n", out);
  } else {
    EXPECT_EQ(kInvalid, out);
  }
  // XML forbids external entities in attribute values.
  EXPECT_EQ(-1, parse(declaration + widgetElement("<name>n</name>",
                                              "id=\"urn:&s;\"")));
  EXPECT_EQ(kNotParsed, out);
  for (const auto& name : config.getNames()) {
    EXPECT_EQ(std::string::npos, name.second.find("SECRET"));
  }
  EXPECT_EQ(nullptr, config.getId());
}

TEST_F(WidgetConfigParserTest, ExternalDtdIsNeverLoaded) {
  TempDir other;
  TempDir::writeFile(other.file("w.dtd"),
                     "<!ENTITY who \"SECRET\">\n"
                     "<!ATTLIST widget id CDATA \"urn:secret\">\n"
                     "<!ATTLIST name short CDATA \"SECRET\">\n");
  const std::string doctype = "<?xml version=\"1.0\"?>\n<!DOCTYPE widget "
                              "SYSTEM \"" + other.file("w.dtd") + "\">\n";
  ASSERT_EQ(0, parse(doctype + widgetElement("<name>Clock</name>")));
  EXPECT_EQ("Parsing name...\n", out);
  EXPECT_EQ(nullptr, config.getId());
  EXPECT_TRUE(config.getShortNames().empty());

  parse(doctype + widgetElement("<name>&who;</name>"));
  EXPECT_EQ(std::string::npos, out.find("SECRET"));
  EXPECT_NE("SECRET", config.getNames().at("default"));
}

TEST_F(WidgetConfigParserTest, NetworkIsNeverTouched) {
  Listener server;  // anyone who connects is seen, and answered nothing
  const std::string xml =
      "<?xml version=\"1.0\"?>\n<!DOCTYPE widget SYSTEM \"" +
      server.url("/w.dtd") + "\" [<!ENTITY remote SYSTEM \"" +
      server.url("/e.txt") + "\">]>\n" +
      widgetElement("<name>&remote;</name><description>d</description>");
  parse(xml);
  EXPECT_EQ(0, server.connections());
  EXPECT_TRUE(out == kInvalid || out == "Parsing name...\n"
                                         "Parsing description...\n")
      << out;

  // Nor is a document named by URL fetched.
  EXPECT_EQ(-1, parseFile(server.url("/config.xml")));
  EXPECT_EQ(kNotParsed, out);
  EXPECT_EQ(0, server.connections());
}

TEST_F(WidgetConfigParserTest, LibxmlReportsNothingOnStandardError) {
  TempDir elsewhere;
  CaptureStdout errors(2);
  parse("not xml");
  parse(billionLaughs("<name>&lol9;</name>"));
  parse("<widget><name>n</name></widget>");
  parse(configXml("<name>n</name>"), elsewhere.file("missing.rng"));
  parse("<?xml version=\"1.0\"?>\n<!DOCTYPE widget SYSTEM \"" +
        elsewhere.file("missing.dtd") + "\">\n" +
        widgetElement("<name>&undeclared;</name>"));
  parseFile(elsewhere.file("missing.xml"));
  EXPECT_EQ("", errors.text());
}

TEST_F(WidgetConfigParserTest, CallersErrorHandlersAreRestored) {
  int generic = 0;
  int structured = 0;
  xmlSetGenericErrorFunc(&generic, countingGenericError);
  xmlSetStructuredErrorFunc(&structured, countingStructuredError);

  EXPECT_EQ(-1, parse("not xml"));
  EXPECT_EQ(-1, parse("<widget><name>n</name></widget>"));
  EXPECT_EQ(0, parse(configXml("<name>n</name>")));
  EXPECT_EQ(0, generic + structured);

  EXPECT_EQ(reinterpret_cast<void*>(countingGenericError),
            reinterpret_cast<void*>(xmlGenericError));
  EXPECT_EQ(&generic, xmlGenericErrorContext);
  EXPECT_EQ(reinterpret_cast<void*>(countingStructuredError),
            reinterpret_cast<void*>(xmlStructuredError));
  EXPECT_EQ(&structured, xmlStructuredErrorContext);

  xmlSetGenericErrorFunc(nullptr, nullptr);
  xmlSetStructuredErrorFunc(nullptr, nullptr);
}

TEST_F(WidgetConfigParserTest, ParserCanRunAgainOnANewRecord) {
  ASSERT_EQ(0, parse(configXml("<name>One</name>")));
  WidgetConfig second(widget.get());
  CaptureStdout capture;
  WidgetConfigParser parser(widget.path("config.xml"), &second);
  EXPECT_EQ(0, parser.parse());
  EXPECT_EQ("One", second.getNames().at("default"));
}

// ---- Real documents written elsewhere.

namespace {

// The regular files below folder, at any depth, whose names end in
// config.xml; links are not followed.
void collectConfigFiles(const std::string& folder, std::vector<std::string>* paths) {
  for (const std::string& name : TempDir::listDirectory(folder)) {
    const std::string path = folder + "/" + name;
    struct stat status;
    if (lstat(path.c_str(), &status) != 0) continue;
    if (S_ISDIR(status.st_mode)) {
      collectConfigFiles(path, paths);
    } else if (S_ISREG(status.st_mode) && name.size() >= 10 &&
               name.compare(name.size() - 10, 10, "config.xml") == 0) {
      paths->push_back(path);
    }
  }
}

}  // namespace

TEST_F(WidgetConfigParserTest, CorpusDocumentsEachEndWithOneResult) {
  const std::string corpus = WIDGETENGINE_SOURCE_DIR "/../shared/corpus";
  if (!TempDir::exists(corpus)) GTEST_SKIP() << "no corpus at " << corpus;
  std::vector<std::string> paths;
  collectConfigFiles(corpus, &paths);
  ASSERT_FALSE(paths.empty());

  const std::string failures[] = {kNotParsed, kNoSchema, kInvalid, kWrongRoot,
                                  "Empty document\n"};
  int parsed = 0;
  for (const std::string& path : paths) {
    WidgetConfig record(widget.get());
    CaptureStdout capture;
    WidgetConfigParser parser(path, &record);
    const int result = parser.parse();
    const std::string text = capture.text();
    if (result == 0) {
      ++parsed;
      size_t start = 0;
      while (start < text.size()) {
        const size_t end = text.find('\n', start);
        ASSERT_NE(std::string::npos, end) << path;
        const std::string trace = text.substr(start, end - start);
        EXPECT_TRUE((trace.compare(0, 8, "Parsing ") == 0 &&
                     trace.size() > 11 &&
                     trace.compare(trace.size() - 3, 3, "...") == 0) ||
                    trace == "Empty widget configuration")
            << path << ": " << trace;
        start = end + 1;
      }
    } else {
      ASSERT_EQ(-1, result) << path;
      bool known = false;
      for (const std::string& failure : failures) known |= text == failure;
      EXPECT_TRUE(known) << path << ": " << text;
      EXPECT_NE(kNoSchema, text) << path;
    }
  }
  EXPECT_GT(parsed, 0);
}

TEST_F(WidgetConfigParserTest, UpdateDescriptionIsKeptWithoutALine) {
  ASSERT_EQ(0, parse(configXml(
                   "<update-description href=\" http://u.test/clock.xml \"/>"
                   "<name>n</name>")));
  EXPECT_EQ("Parsing name...\n", out);
  ASSERT_NE(nullptr, config.getUpdateDescription());
  EXPECT_EQ("http://u.test/clock.xml", *config.getUpdateDescription());
}

TEST_F(WidgetConfigParserTest, OnlyTheFirstUpdateDescriptionCounts) {
  ASSERT_EQ(0, parse(configXml("<update-description href=\"not an iri\"/>"
                               "<update-description href=\"http://u.test/\"/>")));
  EXPECT_EQ(nullptr, config.getUpdateDescription());
  ASSERT_EQ(0, parse(configXml("<update-description/>"
                               "<update-description href=\"http://u.test/\"/>")));
  EXPECT_EQ(nullptr, config.getUpdateDescription());
}

TEST_F(WidgetConfigParserTest, InstalledUpdateDescriptionIsReadQuietly) {
  widget.write("config.xml",
               configXml("<name>n</name><update-description "
                         "href=\"https://u.test/d.xml\"/>"));
  std::string href = "left over";
  CaptureStdout capture;
  const Outcome read =
      WidgetConfigParser::readUpdateDescription(widget.path("config.xml"), &href);
  EXPECT_EQ("", capture.text());
  EXPECT_TRUE(read.ok()) << read.reason();
  EXPECT_EQ("https://u.test/d.xml", href);

  widget.write("config.xml", configXml("<name>n</name>"));
  EXPECT_TRUE(WidgetConfigParser::readUpdateDescription(widget.path("config.xml"),
                                                        &href).ok());
  EXPECT_EQ("", href);
}

TEST_F(WidgetConfigParserTest, InstalledUpdateDescriptionRefusesWhatIsNoConfig) {
  std::string href;
  widget.write("other.xml", configXml("<update-description href=\"http://u.test/\"/>"));
  ASSERT_EQ(0, symlink("other.xml", widget.path("config.xml").c_str()));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NO_CONFIG,
            WidgetConfigParser::readUpdateDescription(widget.path("config.xml"),
                                                      &href).code());
  EXPECT_EQ("", href);
  unlink(widget.path("config.xml").c_str());
  widget.write("config.xml", "<widgets/>");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
            WidgetConfigParser::readUpdateDescription(widget.path("config.xml"),
                                                      &href).code());
  widget.write("config.xml", "not xml");
  EXPECT_EQ(WIDGETENGINE_REFUSAL_INVALID_CONFIG,
            WidgetConfigParser::readUpdateDescription(widget.path("config.xml"),
                                                      &href).code());
  EXPECT_EQ(WIDGETENGINE_REFUSAL_NO_CONFIG,
            WidgetConfigParser::readUpdateDescription(widget.path("none.xml"),
                                                      &href).code());
}

TEST_F(WidgetConfigParserTest, InstalledUpdateDescriptionIsNotReadFromAFolderOthersWrite) {
  widget.write("config.xml", configXml("<update-description href=\"http://u.test/\"/>"));
  std::string href;
  ASSERT_EQ(0, chmod(widget.storage().c_str(), 0777));
  const Outcome read =
      WidgetConfigParser::readUpdateDescription(widget.path("config.xml"), &href);
  chmod(widget.storage().c_str(), 0755);
  EXPECT_EQ(WIDGETENGINE_REFUSAL_UNTRUSTED, read.code());
  EXPECT_NE(std::string::npos, read.reason().find(widget.storage())) << read.reason();
  EXPECT_EQ("", href);
  ASSERT_EQ(0, chmod(widget.path("config.xml").c_str(), 0666));
  EXPECT_EQ(WIDGETENGINE_REFUSAL_UNTRUSTED,
            WidgetConfigParser::readUpdateDescription(widget.path("config.xml"),
                                                      &href).code());
}
