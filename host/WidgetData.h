// SPDX-License-Identifier: Apache-2.0
// WidgetData gives a widget's window the WebKit data manager of the
// widget's installation: local storage, IndexedDB, cookies, caches and
// everything else WebKit keeps for a site live in the installation's own
// folders, which the engine names and removes with the widget. Never a
// folder shared by name, so a later widget of the same name starts empty.
#ifndef WIDGETENGINE_HOST_WIDGETDATA_H_
#define WIDGETENGINE_HOST_WIDGETDATA_H_

#include <webkit2/webkit2.h>

#include <string>

class WidgetData {
 public:
  // A new data manager (the caller's reference) for the installed widget
  // called name. When its folders cannot be had (the engine said why), an
  // ephemeral one: the widget's data then lasts as long as the window,
  // and nothing is shared or kept.
  static WebKitWebsiteDataManager* managerFor(const std::string& name);

  // The cookie file inside an installation's data folder.
  static constexpr const char* kCookieFile = "cookies.sqlite";
};

#endif  // WIDGETENGINE_HOST_WIDGETDATA_H_
