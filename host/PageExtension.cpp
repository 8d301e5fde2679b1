// SPDX-License-Identifier: Apache-2.0
// The part of widget-browser that WebKit loads into each web process. It owns
// an engine of its own there and rewrites the address of every sub-resource
// request (stylesheets, scripts, images, fonts, frames, fetch and XHR) to the
// localized copy the engine names for the reader's language.
//
// Why here: sub-resource loads never reach the UI process one by one; the
// web page's send-request signal is the one place that sees each of them
// before it leaves, and it may change the address in place. Documents of the
// main frame are mapped by the UI process at its response decision instead
// (BrowserWindow.cpp): rewriting the main document here stalls its load.
// Documents of frames are mapped here, like any other sub-resource.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <memory>
#include <string>

#include <webkit2/webkit-web-extension.h>

#include <widgetengine/WidgetEngineDelegate.h>

#include "host/ResourceMapper.h"

namespace {

// Web processes are separate programs, each initialised once and living
// until WebKit ends them, so one engine per process is enough.
RefPtr<WebWidgetEngineDelegate>* engine = nullptr;
ResourceMapper* mapper = nullptr;

gboolean onSendRequest(WebKitWebPage* page, WebKitURIRequest* request,
                       WebKitURIResponse*, gpointer) {
  const char* uri = webkit_uri_request_get_uri(request);
  if (uri == nullptr || mapper == nullptr) return FALSE;
  // The page's address is already the one being loaded when its document is
  // requested: that one request belongs to the UI process.
  const char* pageUri = webkit_web_page_get_uri(page);
  if (pageUri != nullptr && strcmp(pageUri, uri) == 0) return FALSE;
  const std::string mapped = mapper->map(ResourceMapper::engineAddress(uri));
  if (!mapped.empty()) webkit_uri_request_set_uri(request, mapped.c_str());
  return FALSE;  // let the (possibly rewritten) request go
}

void onPageCreated(WebKitWebExtension*, WebKitWebPage* page, gpointer) {
  g_signal_connect(page, "send-request", G_CALLBACK(onSendRequest), nullptr);
}

}  // namespace

// The browser hands over (language, YRA_DATA_PATH, WIDGET_PATH, mapping on):
// the web process inherits the environment today, but a browser that
// launches it differently must still give its engine the same registry.
extern "C" G_MODULE_EXPORT void webkit_web_extension_initialize_with_user_data(
    WebKitWebExtension* extension, const GVariant* constData) {
  GVariant* data = const_cast<GVariant*>(constData);
  if (data == nullptr || !g_variant_is_of_type(data, G_VARIANT_TYPE("(sssb)")))
    return;
  const char* language = nullptr;
  const char* dataPath = nullptr;
  const char* widgetPath = nullptr;
  gboolean mapping = TRUE;
  g_variant_get(data, "(&s&s&sb)", &language, &dataPath, &widgetPath, &mapping);
  // The engine's lines from this process share the browser's output; line
  // buffering keeps them in order with the browser's own and not held back
  // until WebKit ends the process.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  if (*dataPath) setenv("YRA_DATA_PATH", dataPath, 1);
  if (*widgetPath) setenv("WIDGET_PATH", widgetPath, 1);
  if (mapping) {
    engine = new RefPtr<WebWidgetEngineDelegate>(
        WidgetEngineDelegate::createInstance());
    mapper = new ResourceMapper(engine->get(), language);
  }
  g_signal_connect(extension, "page-created", G_CALLBACK(onPageCreated),
                   nullptr);
}
