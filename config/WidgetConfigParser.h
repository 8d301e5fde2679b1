// WidgetConfigParser reads a widget's config.xml with libxml2, validates it
// against the engine's RELAX NG schema and walks it into a WidgetConfig. It
// never loads external entities or DTDs and never touches the network.
#ifndef WIDGETENGINE_WIDGETCONFIGPARSER_H_
#define WIDGETENGINE_WIDGETCONFIGPARSER_H_

#include <cstdint>
#include <string>

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

  static int32_t toNumber(const std::string& text);

 private:
  std::string path;
  WidgetConfig* config;
  std::string schemaPath;
  xmlDoc* doc;
  xmlNode* node;
};

#endif  // WIDGETENGINE_WIDGETCONFIGPARSER_H_
