// SPDX-License-Identifier: Apache-2.0
// WidgetConfigParser reads a widget's config.xml with libxml2, validates it
// against the engine's RELAX NG schema (SchemaValidator) and walks it into a
// WidgetConfig. It never loads external entities or DTDs and never touches
// the network; documents shaped to make libxml2 work without end are refused
// first (DocumentGuards).
//
//   WidgetConfigParser parser(path, &config);
//   if (parser.parse() == -1) ...  // one line on standard output says why
#ifndef WIDGETENGINE_WIDGETCONFIGPARSER_H_
#define WIDGETENGINE_WIDGETCONFIGPARSER_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/Outcome.h"

class WidgetConfig;
typedef struct _xmlDoc xmlDoc;
typedef struct _xmlNode xmlNode;

class WidgetConfigParser {
 public:
  // The schema path built into the library.
  static const char* const kSchemaPath;

  // schemaPath is fixed at build time; tests may point one parser elsewhere.
  WidgetConfigParser(const std::string& path, WidgetConfig* config,
                     const std::string& schemaPath = kSchemaPath);
  ~WidgetConfigParser();

  WidgetConfigParser(const WidgetConfigParser&) = delete;
  WidgetConfigParser& operator=(const WidgetConfigParser&) = delete;

  // 0 when the document was valid and walked into the record, -1 otherwise
  // (with one message on standard output, and the record untouched).
  int parse();
  // Why the last parse() failed; ok after a success.
  const Outcome& outcome() const { return outcome_; }

  // The number a width or height gives: digits read left to right, white
  // space skipped, anything else ending the number; 32-bit wrap.
  static int32_t toNumber(const std::string& text);
  // Configuration documents larger than this are refused as documents that
  // do not parse, without being read further. Real ones are a few kilobytes
  // (the largest seen, with forty languages of texts, under 100 KB); libxml2
  // holds several times a document's size while parsing it and the schema
  // check more, so a megabyte keeps a hostile package's cost to a few
  // megabytes and some milliseconds.
  static constexpr size_t kLargestDocument = 1u << 20;
  // The update description named by the installed config.xml at
  // configPath: the href of the root's first update-description element,
  // when it is a valid IRI; "" when there is none. The file is read as
  // parse() reads it (same bounds, no entities loaded), without the schema
  // check the installation already made and without a line of output, and
  // only when it and its folder are trusted (base/TrustedPath) and no link
  // another user made leads to them. A refusal when the file cannot be
  // trusted, read or parsed.
  static Outcome readUpdateDescription(const std::string& configPath,
                                       std::string* href);
  // True for a document far larger than any real one, which parse() refuses
  // as invalid without handing it to the validator.
  static bool isTooLargeToValidate(xmlNode* root);

 private:
  // parse() without keeping the outcome.
  Outcome read();
  // Fills the record from the root element held in node.
  void walk();
  void parseName(xmlNode* element, const std::string& defaultLanguage);
  void parseDescription(xmlNode* element, const std::string& defaultLanguage);
  void parseLicense(xmlNode* element, const std::string& defaultLanguage);
  void parseIcon(xmlNode* element);
  void parseAuthor(xmlNode* element);
  void parsePreference(xmlNode* element);
  void parseContent(xmlNode* element);
  void parseFeature(xmlNode* element);

  // The element's own xml:lang, else the document's; "default" when empty.
  std::string languageOf(xmlNode* element, const std::string& fallback);
  // The element's text; with collapse set, white space runs become one blank
  // and the ends are trimmed.
  std::string getText(xmlNode* element, int collapse);

  std::string path;
  WidgetConfig* config;
  std::string schemaPath;
  xmlDoc* doc;
  xmlNode* node;
  Outcome outcome_;
};

#endif  // WIDGETENGINE_WIDGETCONFIGPARSER_H_
