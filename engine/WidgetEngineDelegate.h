// SPDX-License-Identifier: Apache-2.0
// WidgetEngineDelegate is libwidgetengine's one exported class: the browser's
// widget engine. A browser includes this header, obtains the engine with
// createInstance() and calls the six operations of WebWidgetEngineDelegate on
// its own thread; each runs one job synchronously and returns.
#ifndef WIDGETENGINE_WIDGETENGINEDELEGATE_H_
#define WIDGETENGINE_WIDGETENGINEDELEGATE_H_

#include <memory>
#include <string>
#include <vector>

#include <widgetengine/Export.h>
#include <widgetengine/RefPtr.h>
#include <widgetengine/WebFrame.h>
#include <widgetengine/WebWidgetEngineDelegate.h>
#include <widgetengine/WidgetsData.h>

class SqlLite3;
class UserAgentLocales;

class WIDGETENGINE_EXPORT WidgetEngineDelegate : public WebWidgetEngineDelegate {
 public:
  // A new engine behind the host's handle, which holds the only reference.
  static RefPtr<WebWidgetEngineDelegate> createInstance();

  // Opens the registry (widget.db); a failure shows in every later answer.
  WidgetEngineDelegate();
  ~WidgetEngineDelegate() override;

  WidgetEngineDelegate(const WidgetEngineDelegate&) = delete;
  WidgetEngineDelegate& operator=(const WidgetEngineDelegate&) = delete;

  char* receiveWidget(const char* url, WebFrame* frame) override;
  int deleteWidget(const char* name, WebFrame* frame) override;
  WidgetsData* getInfo(const char* name, WebFrame* frame,
                       const char* language) override;
  std::vector<WidgetsData*> getAll(WebFrame* frame) override;
  char* mapResource(const char* url, const char* language) override;
  int isWidget(const char* url) override;

  // Recomputes the locale list only when language differs from the string
  // it was last computed from.
  void buildUserAgentLocalesIfNeeded(const std::string& language);

 private:
  std::unique_ptr<UserAgentLocales> userAgentLocales;
  std::unique_ptr<SqlLite3> database;
};

#endif  // WIDGETENGINE_WIDGETENGINEDELEGATE_H_
