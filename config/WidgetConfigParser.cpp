#include "config/WidgetConfigParser.h"

// Placeholder until the parser lands.
const char* const WidgetConfigParser::kSchemaPath = WIDGETENGINE_SCHEMA_PATH;
WidgetConfigParser::WidgetConfigParser(const std::string& path,
                                       WidgetConfig* config,
                                       const std::string& schemaPath)
    : path(path), config(config), schemaPath(schemaPath), doc(nullptr),
      node(nullptr) {}
WidgetConfigParser::~WidgetConfigParser() {}
int WidgetConfigParser::parse() { return -1; }
