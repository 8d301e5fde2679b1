// SPDX-License-Identifier: Apache-2.0
// Tests of the configuration document grammar (config/WidgetConfig.rng) on
// its own, through libxml2's RELAX NG validator: small documents that each
// prove one rule, and the real widget documents of the shared corpus.

#include <gtest/gtest.h>
#include <libxml/parser.h>
#include <libxml/relaxng.h>
#include <libxml/tree.h>
#include <libxml/xmlerror.h>
#include <zip.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace {

const char kWidgetsNamespace[] = "http://www.w3.org/ns/widgets";

// Collects libxml2's structured errors as "line N: message" strings.
void collectError(void* userData, xmlErrorPtr error) {
  auto* messages = static_cast<std::vector<std::string>*>(userData);
  std::string message = error->message != nullptr ? error->message : "";
  while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
    message.pop_back();
  messages->push_back("line " + std::to_string(error->line) + ": " + message);
}

std::string join(const std::vector<std::string>& parts, const char* separator) {
  std::string joined;
  for (const std::string& part : parts) {
    if (!joined.empty()) joined += separator;
    joined += part;
  }
  return joined;
}

struct DocFree {
  void operator()(xmlDocPtr doc) const { xmlFreeDoc(doc); }
};
using DocPtr = std::unique_ptr<xmlDoc, DocFree>;

// Refuses every external entity and DTD, whatever the document asks for.
xmlParserInputPtr refuseExternalEntity(const char*, const char*, xmlParserCtxtPtr) {
  return nullptr;
}

// A document read from memory as a namespace-aware XML reader sees it: the
// internal entities of the document's own DTD subset are expanded (a
// namespace may be declared through one), while nothing outside the document
// is ever loaded and nothing is printed. `namespaceWellFormed` is false when
// the text is not XML or breaks the namespace rules (`doc` may then be null).
struct ReadDocument {
  DocPtr doc;
  bool namespaceWellFormed = false;
};

ReadDocument readDocument(const std::string& bytes, const std::string& url) {
  ReadDocument result;
  xmlParserCtxtPtr context = xmlNewParserCtxt();
  if (context == nullptr) return result;
  xmlExternalEntityLoader previousLoader = xmlGetExternalEntityLoader();
  xmlSetExternalEntityLoader(refuseExternalEntity);
  xmlDocPtr doc = xmlCtxtReadMemory(
      context, bytes.data(), static_cast<int>(bytes.size()), url.c_str(), nullptr,
      XML_PARSE_NOENT | XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  xmlSetExternalEntityLoader(previousLoader);
  result.doc.reset(doc);
  result.namespaceWellFormed = doc != nullptr && context->wellFormed && context->nsWellFormed;
  xmlFreeParserCtxt(context);
  return result;
}

bool hasWidgetRoot(xmlDocPtr doc) {
  xmlNodePtr root = xmlDocGetRootElement(doc);
  return root != nullptr && xmlStrcmp(root->name, BAD_CAST "widget") == 0 && root->ns != nullptr &&
         xmlStrcmp(root->ns->href, BAD_CAST kWidgetsNamespace) == 0;
}

// "{namespace}local" of the root element, for reports.
std::string rootName(xmlDocPtr doc) {
  xmlNodePtr root = xmlDocGetRootElement(doc);
  if (root == nullptr) return "(none)";
  std::string name = reinterpret_cast<const char*>(root->name);
  if (root->ns != nullptr && root->ns->href != nullptr)
    return "{" + std::string(reinterpret_cast<const char*>(root->ns->href)) + "}" + name;
  return name;
}

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Reads the top-level "config.xml" entry of a package. Returns false, with
// the reason, when the archive cannot be opened, has no such entry, or the
// entry cannot be read (encrypted, spanned, damaged).
bool readPackagedConfig(const std::string& package, std::string* bytes, std::string* reason) {
  int error = 0;
  zip_t* archive = zip_open(package.c_str(), ZIP_RDONLY, &error);
  if (archive == nullptr) {
    zip_error_t zipError;
    zip_error_init_with_code(&zipError, error);
    *reason = std::string("not a readable zip archive (") + zip_error_strerror(&zipError) + ")";
    zip_error_fini(&zipError);
    return false;
  }
  bool ok = false;
  zip_int64_t index = zip_name_locate(archive, "config.xml", 0);
  if (index < 0) {
    *reason = "no top-level config.xml entry";
  } else if (zip_file_t* file = zip_fopen_index(archive, static_cast<zip_uint64_t>(index), 0)) {
    char buffer[8192];
    zip_int64_t count;
    bytes->clear();
    while ((count = zip_fread(file, buffer, sizeof buffer)) > 0)
      bytes->append(buffer, static_cast<size_t>(count));
    if (count < 0)
      *reason = std::string("config.xml entry unreadable (") + zip_file_strerror(file) + ")";
    else
      ok = true;
    zip_fclose(file);
  } else {
    *reason = std::string("config.xml entry unreadable (") + zip_strerror(archive) + ")";
  }
  zip_discard(archive);
  return ok;
}

class WidgetConfigSchemaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::vector<std::string> messages;
    xmlRelaxNGParserCtxtPtr parser = xmlRelaxNGNewParserCtxt(WIDGETENGINE_TEST_SCHEMA_PATH);
    ASSERT_NE(parser, nullptr);
    xmlRelaxNGSetParserStructuredErrors(parser, collectError, &messages);
    schema_ = xmlRelaxNGParse(parser);
    xmlRelaxNGFreeParserCtxt(parser);
    ASSERT_NE(schema_, nullptr) << join(messages, "\n");
    EXPECT_TRUE(messages.empty()) << join(messages, "\n");
  }

  void TearDown() override {
    if (schema_ != nullptr) xmlRelaxNGFree(schema_);
  }

  // Validates a parsed document; on rejection `reasons` holds libxml2's.
  bool valid(xmlDocPtr doc, std::vector<std::string>* reasons) {
    xmlRelaxNGValidCtxtPtr validator = xmlRelaxNGNewValidCtxt(schema_);
    if (validator == nullptr) {
      reasons->push_back("cannot create a validation context");
      return false;
    }
    xmlRelaxNGSetValidStructuredErrors(validator, collectError, reasons);
    int result = xmlRelaxNGValidateDoc(validator, doc);
    xmlRelaxNGFreeValidCtxt(validator);
    if (result != 0 && reasons->empty()) reasons->push_back("rejected without a message");
    return result == 0;
  }

  ::testing::AssertionResult admitted(const std::string& text) {
    ReadDocument read = readDocument(text, "config.xml");
    if (!read.namespaceWellFormed)
      return ::testing::AssertionFailure() << "test document is not namespace-well-formed";
    std::vector<std::string> reasons;
    if (!valid(read.doc.get(), &reasons))
      return ::testing::AssertionFailure() << "rejected: " << join(reasons, "; ");
    return ::testing::AssertionSuccess();
  }

  // A rejected document must still be good XML, so that the rejection is the
  // grammar's doing.
  ::testing::AssertionResult rejected(const std::string& text) {
    ReadDocument read = readDocument(text, "config.xml");
    if (!read.namespaceWellFormed)
      return ::testing::AssertionFailure() << "test document is not namespace-well-formed";
    std::vector<std::string> reasons;
    if (valid(read.doc.get(), &reasons))
      return ::testing::AssertionFailure() << "admitted";
    return ::testing::AssertionSuccess() << join(reasons, "; ");
  }

  xmlRelaxNGPtr schema_ = nullptr;
};

// ---------------------------------------------------------------------------
// Documents the grammar admits.

TEST_F(WidgetConfigSchemaTest, AdmitsAnEmptyWidgetElement) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets"/>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsAWidgetRootWrittenWithAPrefix) {
  EXPECT_TRUE(admitted(R"(<?xml version="1.0" encoding="UTF-8"?>
<w:widget xmlns:w="http://www.w3.org/ns/widgets" id="urn:x">
  <w:name>Clock</w:name>
  <w:content src="index.html"/>
</w:widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsTheRootAttributesTheParserReads) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets"
    id="http://example.org/clock" version="1.0 beta" height="480" width="320"
    viewmodes="floating fullscreen" xml:lang="fr" dir="ltr" defaultlocale="fr"/>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsNameWithShortNameLanguageAndDirection) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <name short="Clock" xml:lang="en" dir="ltr">The Clock</name>
  <name short="Horloge" xml:lang="fr">L'horloge</name>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsDescriptionAndLicenseWithLanguageAndHref) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <description xml:lang="en" dir="ltr">Shows the time.</description>
  <license xml:lang="en" href="http://www.apache.org/licenses/LICENSE-2.0">Apache</license>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsIconWithSourceAndSizes) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <icon src="icons/big.png" width="128" height="128"/>
  <icon src="icons/small.svg"/>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsAuthorWithHrefAndEmail) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <author href="http://example.org/" email="a@example.org" xml:lang="en" dir="rtl">A. Author</author>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsPreferenceWithNameValueAndReadonly) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <preference name="city" value=" Paris " readonly="true"/>
  <preference name="unit" value="C"/>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsContentWithTypeAndEncoding) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <content src="main.xhtml" type="application/xhtml+xml" encoding="ISO-8859-1"/>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsFeatureWithRequiredAndParams) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <feature name="http://example.org/api/geo" required="false">
    <param name="accuracy" value="high"/>
    <param name="timeout" value="10"/>
  </feature>
  <feature name="feature:a9bb79c1"/>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsNestedSpansInsideTextElements) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <name>The <span dir="rtl" xml:lang="he">שעון <span dir="ltr">v2</span></span> clock</name>
  <description><span dir="lro">left</span> and text</description>
  <license><span>text</span></license>
  <author><span dir="rlo">name</span></author>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsAccessWithOriginAndSubdomains) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <access origin="http://example.org" subdomains="true"/>
  <access origin="*"/>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsParamOutsideFeature) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <param name="stray" value="1"/>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsElementsOfTheWidgetsNamespaceOutsideTheVocabulary) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <widgetname>Old</widgetname>
  <platform name="android"><config-file target="x"><asset type="qml"/></config-file></platform>
  <name>Clock<test>x</test></name>
  <feature name="f"><extra/></feature>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsElementsOfOtherNamespacesAtEveryLevel) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets"
    xmlns:tizen="http://tizen.org/ns/widgets" xmlns:x="urn:x">
  <tizen:application id="a.b" package="a" required_version="2.2"/>
  <tizen:content src="other.html"/>
  <name>Clock <x:em>now</x:em></name>
  <feature name="f"><x:option on="1"><x:deeper>text</x:deeper></x:option></feature>
  <icon src="i.png"><x:note/></icon>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsAttributesOfOtherNamespaces) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets"
    xmlns:rim="http://www.blackberry.com/ns/widgets" rim:userAgent="x">
  <author rim:copyright="2013">RIM</author>
  <feature name="f" rim:id="y"><param name="a" value="b" rim:z="1"/></feature>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsUnknownUnqualifiedAttributesOnVocabularyElements) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets" min-version="2.0" versionCode="7">
  <icon src="a.png" density="ldpi"/>
  <feature id="blackberry.app" version="1.0.0.0"/>
  <access network="true" localfs="true" uri="*"/>
  <name its="1">x</name>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsValuesThatAreNotWellTyped) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets"
    id="not an iri" height="120px" width="-5" viewmodes="everything">
  <icon src="" width="abc" height=""/>
  <feature name="f" required="False"/>
  <preference name="" value="" readonly="yes"/>
  <access origin="::" subdomains="maybe"/>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsEmptyTextElements) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <name/><description></description><license/><author/>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsRepeatedElementsInAnyOrder) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <content src="b.html"/><name>B</name><content src="a.html"/><name>A</name>
  <author>one</author><icon src="1.png"/><author>two</author><description>d</description>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsStrayTextBetweenElements) {
  // No-break spaces used as indentation, and an icon path given as text.
  EXPECT_TRUE(admitted("<widget xmlns=\"http://www.w3.org/ns/widgets\">\xC2\xA0\xC2\xA0"
                       "<name>x</name>stray<feature name=\"f\">text</feature>"
                       "<icon>img/icon.png</icon></widget>"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsVocabularyElementsWhereTheyAreNotRead) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets">
  <content src="index.html"><access origin="http://a.example"/></content>
  <description>d<access origin="http://b.example"/></description>
  <account><icon section="Account">icon1.png</icon></account>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsCommentsAndProcessingInstructions) {
  EXPECT_TRUE(admitted(R"(<?xml version="1.0"?>
<!-- before -->
<?app-hint keep?>
<widget xmlns="http://www.w3.org/ns/widgets"><!-- inside --><?pi?><name>x<!-- c --></name></widget>
<!-- after -->)"));
}

TEST_F(WidgetConfigSchemaTest, AdmitsTheAttributesDefinedInTheXmlNamespace) {
  EXPECT_TRUE(admitted(R"(<widget xmlns="http://www.w3.org/ns/widgets"
    xml:lang="en" xml:base="http://example.org/" xml:space="preserve" xml:id="w1">
  <name xml:space="default" xml:id="n1">x</name>
</widget>)"));
}

// ---------------------------------------------------------------------------
// Documents the grammar refuses.

TEST_F(WidgetConfigSchemaTest, RejectsARootWithAnotherLocalName) {
  EXPECT_TRUE(rejected(R"(<config xmlns="http://www.w3.org/ns/widgets"><name>x</name></config>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAWidgetRootInNoNamespace) {
  EXPECT_TRUE(rejected(R"(<widget id="urn:x"><name>x</name></widget>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAWidgetRootInAnotherNamespace) {
  EXPECT_TRUE(rejected(R"(<widget xmlns="http://bogus/namespace"><name>x</name></widget>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAWidgetsRoot) {
  EXPECT_TRUE(rejected(
      R"(<widgets xmlns="http://www.w3.org/ns/widgets"><widget><name>x</name></widget></widgets>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAVocabularyElementAsRoot) {
  EXPECT_TRUE(rejected(R"(<name xmlns="http://www.w3.org/ns/widgets">Clock</name>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsANamespaceThatOnlyResemblesTheWidgetsOne) {
  EXPECT_TRUE(rejected(R"(<widget xmlns="http://www.w3.org/ns/widgets/"/>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAWidgetElementBelowTheRoot) {
  EXPECT_TRUE(rejected(R"(<widget xmlns="http://www.w3.org/ns/widgets"><widget/></widget>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAWidgetElementNestedInsideAnExtension) {
  EXPECT_TRUE(rejected(R"(<widget xmlns="http://www.w3.org/ns/widgets" xmlns:x="urn:x">
  <x:outer><x:inner><widget/></x:inner></x:outer>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAnUnqualifiedElementUnderAPrefixedRoot) {
  EXPECT_TRUE(rejected(
      R"(<w:widget xmlns:w="http://www.w3.org/ns/widgets"><name>Clock</name></w:widget>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAnElementInNoNamespaceInsideAnExtension) {
  EXPECT_TRUE(rejected(R"(<widget xmlns="http://www.w3.org/ns/widgets" xmlns:x="urn:x">
  <x:outer><plain xmlns=""/></x:outer>
</widget>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAnAttributeQualifiedWithTheWidgetsNamespace) {
  EXPECT_TRUE(rejected(R"(<w:widget xmlns:w="http://www.w3.org/ns/widgets">
  <w:icon w:src="icon.png"/>
</w:widget>)"));
}

TEST_F(WidgetConfigSchemaTest, RejectsAnUndefinedAttributeOfTheXmlNamespace) {
  EXPECT_TRUE(rejected(R"(<widget xmlns="http://www.w3.org/ns/widgets" xml:language="en"/>)"));
}

// ---------------------------------------------------------------------------
// Real documents.

// Every configuration document of the corpus that is namespace-well-formed
// and has a widget root in the widgets namespace, loose (*.xml) or as the
// top-level config.xml of a package (*.wgt), must be admitted. Documents the
// installer could never read as widgets are counted and listed as skipped.
TEST_F(WidgetConfigSchemaTest, AdmitsEveryRealWidgetDocumentOfTheCorpus) {
  namespace fs = std::filesystem;
  const fs::path corpus = WIDGETENGINE_SOURCE_DIR "/../shared/corpus";
  std::error_code error;
  if (!fs::is_directory(corpus, error)) GTEST_SKIP() << "no corpus at " << corpus.string();

  std::vector<fs::path> files;
  for (fs::recursive_directory_iterator it(corpus, error), end; !error && it != end;
       it.increment(error)) {
    if (it->is_regular_file(error)) files.push_back(it->path());
  }
  ASSERT_FALSE(error) << error.message();
  std::sort(files.begin(), files.end());

  int admittedCount = 0;
  std::map<std::string, int> admittedByKind;
  std::map<std::string, std::vector<std::string>> skipped;  // reason -> documents
  std::vector<std::string> failures;
  for (const fs::path& file : files) {
    const std::string extension = file.extension().string();
    const std::string name = fs::relative(file, corpus).string();
    std::string bytes;
    std::string label = name;
    std::string kind = file.filename() == "config.xml" ? "loose config.xml" : "loose, other name";
    if (extension == ".xml") {
      bytes = readFile(file);
    } else if (extension == ".wgt") {
      label = name + "!config.xml";
      kind = "packaged";
      std::string reason;
      if (!readPackagedConfig(file.string(), &bytes, &reason)) {
        skipped["package without a readable top-level config.xml"].push_back(name + ": " + reason);
        continue;
      }
    } else {
      continue;
    }

    ReadDocument read = readDocument(bytes, label);
    if (!read.namespaceWellFormed) {
      skipped["not namespace-well-formed XML"].push_back(label);
      continue;
    }
    if (!hasWidgetRoot(read.doc.get())) {
      skipped["root is not the widgets widget element"].push_back(label + ": root " +
                                                                  rootName(read.doc.get()));
      continue;
    }
    std::vector<std::string> reasons;
    if (valid(read.doc.get(), &reasons)) {
      ++admittedCount;
      ++admittedByKind[kind];
    } else
      failures.push_back(label + ": " + join(reasons, "; "));
  }

  int skippedCount = 0;
  for (const auto& entry : skipped) skippedCount += static_cast<int>(entry.second.size());
  std::printf("corpus: %d documents admitted, %zu rejected, %d skipped\n", admittedCount,
              failures.size(), skippedCount);
  for (const auto& entry : admittedByKind)
    std::printf("admitted, %s: %d\n", entry.first.c_str(), entry.second);
  for (const auto& entry : skipped) {
    std::printf("skipped, %s: %zu\n", entry.first.c_str(), entry.second.size());
    for (const std::string& document : entry.second) std::printf("  %s\n", document.c_str());
  }
  std::fflush(stdout);

  EXPECT_GT(admittedCount, 0) << "no widget document found under " << corpus.string();
  EXPECT_TRUE(failures.empty()) << failures.size() << " admissible documents rejected:\n"
                                << join(failures, "\n");
}

}  // namespace
