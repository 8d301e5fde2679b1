#include "engine/WidgetEngineDelegate.h"

#include "registry/SqlLite3.h"

// Placeholder until the engine lands.
class UserAgentLocales {};

RefPtr<WebWidgetEngineDelegate> WidgetEngineDelegate::createInstance() {
  return RefPtr<WebWidgetEngineDelegate>(new WidgetEngineDelegate());
}
WidgetEngineDelegate::WidgetEngineDelegate() {}
WidgetEngineDelegate::~WidgetEngineDelegate() {}
char* WidgetEngineDelegate::receiveWidget(const char*, WebFrame*) { return nullptr; }
int WidgetEngineDelegate::deleteWidget(const char*, WebFrame*) { return -1; }
WidgetsData* WidgetEngineDelegate::getInfo(const char*, WebFrame*, const char*) {
  return nullptr;
}
std::vector<WidgetsData*> WidgetEngineDelegate::getAll(WebFrame*) { return {}; }
char* WidgetEngineDelegate::mapResource(const char*, const char*) { return nullptr; }
int WidgetEngineDelegate::isWidget(const char*) { return 0; }
void WidgetEngineDelegate::buildUserAgentLocalesIfNeeded(const std::string&) {}
