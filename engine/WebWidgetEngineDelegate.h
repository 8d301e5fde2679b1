// SPDX-License-Identifier: Apache-2.0
// WebWidgetEngineDelegate is the host browser's abstract interface to a widget
// engine: install, delete, describe, list, map and recognise widgets. The
// host holds it through RefPtr<WebWidgetEngineDelegate>.
#ifndef WIDGETENGINE_WEBWIDGETENGINEDELEGATE_H_
#define WIDGETENGINE_WEBWIDGETENGINEDELEGATE_H_

#include <vector>

#include <widgetengine/Export.h>
#include <widgetengine/SharedObject.h>
#include <widgetengine/WebFrame.h>
#include <widgetengine/WidgetsData.h>

class WIDGETENGINE_EXPORT WebWidgetEngineDelegate
    : public SharedObject<WebWidgetEngineDelegate> {
 public:
  virtual ~WebWidgetEngineDelegate() {}

  // Installs the package at url; a strdup'ed launch URL, or null.
  virtual char* receiveWidget(const char* url, WebFrame* frame) = 0;
  // Removes the widget called name: 1 removed, 0 unknown, -1 failure.
  virtual int deleteWidget(const char* name, WebFrame* frame) = 0;
  // The widget called name, texts localized for language; the caller deletes it.
  virtual WidgetsData* getInfo(const char* name, WebFrame* frame,
                               const char* language) = 0;
  // Every installed widget; the caller deletes each record.
  virtual std::vector<WidgetsData*> getAll(WebFrame* frame) = 0;
  // A strdup'ed URL of the localized copy of a widget file, or null.
  virtual char* mapResource(const char* url, const char* language) = 0;
  // 1 when url is the launch URL of an installed widget, else 0.
  virtual int isWidget(const char* url) = 0;
};

#endif  // WIDGETENGINE_WEBWIDGETENGINEDELEGATE_H_
