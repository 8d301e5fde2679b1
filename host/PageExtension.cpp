// SPDX-License-Identifier: Apache-2.0
// The part of widget-browser that WebKit loads into each web process. It
// sees every request a page makes before it leaves (documents, frames,
// stylesheets, scripts, images, fonts, media, fetch and XHR, and each
// redirect of them) and cancels those a widget may not make: anything but
// its own widget:// files and the origins its config.xml grants. The
// Content-Security-Policy that the browser serves with the widget's
// documents says the same to WebKit; this is the second lock, for what a
// policy does not cover.
//
// The localized copies are chosen by the browser when it serves the files
// (WidgetScheme.cpp), so nothing is rewritten here.
#include <webkit2/webkit-web-extension.h>

#include <string>

#include "host/AccessPolicy.h"
#include "host/RefusalLines.h"

namespace {

// A web process serves the pages of one browser window, which shows one
// widget for its whole life (or none): it is told which at its start.
std::string* shownWidget = nullptr;
AccessPolicy* policy = nullptr;

// The browser writes the line, with its own, under one limit; it is cut
// here, so that a flood does not cross over either.
void refuse(WebKitWebPage* page, const std::string& what,
            const std::string& address, const std::string& why = "") {
  char* valid = g_utf8_make_valid(
      RefusalLines::line(what, address, why).c_str(), -1);
  webkit_web_page_send_message_to_view(
      page,
      webkit_user_message_new(RefusalLines::kMessage,
                              g_variant_new_take_string(valid)),
      nullptr, nullptr, nullptr);
}

gboolean onSendRequest(WebKitWebPage* page, WebKitURIRequest* request,
                       WebKitURIResponse*, gpointer) {
  const char* uri = webkit_uri_request_get_uri(request);
  if (uri == nullptr || shownWidget == nullptr) return FALSE;
  const std::string why = policy->refusal(*shownWidget, uri, false);
  if (why.empty()) return FALSE;
  refuse(page, "refused", uri, why);
  return TRUE;  // cancels the request
}

// What WebKit refuses by itself, before any request is made (a file://
// address from a page of another scheme, a source that the page's
// Content-Security-Policy leaves out), it says only on the page's console:
// a widget's security messages are passed on, so that every refusal leaves
// a line.
void onConsoleMessage(WebKitWebPage* page, WebKitConsoleMessage* message,
                      gpointer) {
  if (shownWidget == nullptr || shownWidget->empty() ||
      webkit_console_message_get_source(message) !=
          WEBKIT_CONSOLE_MESSAGE_SOURCE_SECURITY)
    return;
  const char* text = webkit_console_message_get_text(message);
  refuse(page, "refused by WebKit:", text ? text : "");
}

void onPageCreated(WebKitWebExtension*, WebKitWebPage* page, gpointer) {
  g_signal_connect(page, "send-request", G_CALLBACK(onSendRequest), nullptr);
  G_GNUC_BEGIN_IGNORE_DEPRECATIONS
  g_signal_connect(page, "console-message-sent", G_CALLBACK(onConsoleMessage),
                   nullptr);
  G_GNUC_END_IGNORE_DEPRECATIONS
}

}  // namespace

// The browser hands over (authority of the widget shown or "", its policy
// as AccessPolicy::serialize writes it).
extern "C" G_MODULE_EXPORT void webkit_web_extension_initialize_with_user_data(
    WebKitWebExtension* extension, const GVariant* constData) {
  GVariant* data = const_cast<GVariant*>(constData);
  const char* authority = "";
  const char* grants = "";
  if (data != nullptr && g_variant_is_of_type(data, G_VARIANT_TYPE("(ss)")))
    g_variant_get(data, "(&s&s)", &authority, &grants);
  // Without its data the process still refuses every widget:// request.
  shownWidget = new std::string(authority);
  policy = new AccessPolicy(AccessPolicy::deserialize(grants));
  g_signal_connect(extension, "page-created", G_CALLBACK(onPageCreated),
                   nullptr);
}
