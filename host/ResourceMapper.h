// SPDX-License-Identifier: Apache-2.0
// ResourceMapper asks the widget engine for the localized copy of a resource
// address and turns the engine's answer into an address the browser can load
// as it is. The browser window and the web-process extension share it.
#ifndef WIDGETENGINE_HOST_RESOURCEMAPPER_H_
#define WIDGETENGINE_HOST_RESOURCEMAPPER_H_

#include <string>

#include <widgetengine/RefPtr.h>
#include <widgetengine/WebWidgetEngineDelegate.h>

class ResourceMapper {
 public:
  // engine may be null (no mapping at all); language is the reader's
  // accept-language string, handed to the engine unchanged.
  ResourceMapper(WebWidgetEngineDelegate* engine, std::string language);

  // The address to load instead of url, or "" to keep url.
  std::string map(const std::string& url) const;

  // A file:// address from WebKit in the form the engine stores.
  static std::string engineAddress(const std::string& uri);

  // url with runs of "/" in its path collapsed to one.
  static std::string collapseSlashes(const std::string& url);

  const std::string& language() const { return language_; }

 private:
  WebWidgetEngineDelegate* engine_;
  std::string language_;
};

#endif  // WIDGETENGINE_HOST_RESOURCEMAPPER_H_
