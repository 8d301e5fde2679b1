// SPDX-License-Identifier: Apache-2.0
#include "host/WidgetData.h"

#include <cstdlib>
#include <iostream>

#include <widgetengine/WidgetEngineExtensions.h>

WebKitWebsiteDataManager* WidgetData::managerFor(const std::string& name) {
  char* data = widgetengine_web_data_folder(name.c_str(), WIDGETENGINE_WEB_DATA);
  char* cache =
      data ? widgetengine_web_data_folder(name.c_str(), WIDGETENGINE_WEB_CACHE)
           : nullptr;
  WebKitWebsiteDataManager* manager = nullptr;
  if (data != nullptr && cache != nullptr) {
    manager = webkit_website_data_manager_new("base-data-directory", data,
                                              "base-cache-directory", cache,
                                              nullptr);
    // WebKit keeps cookies in memory unless told where to store them.
    const std::string cookies = std::string(data) + kCookieFile;
    webkit_cookie_manager_set_persistent_storage(
        webkit_website_data_manager_get_cookie_manager(manager),
        cookies.c_str(), WEBKIT_COOKIE_PERSISTENT_STORAGE_SQLITE);
  } else {
    std::cerr << "widget-browser: the web data of " << name
              << " is kept for this window only" << std::endl;
    manager = webkit_website_data_manager_new_ephemeral();
  }
  free(data);
  free(cache);
  return manager;
}
