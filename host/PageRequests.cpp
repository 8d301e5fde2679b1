// SPDX-License-Identifier: Apache-2.0
#include "host/PageRequests.h"

#include <cstring>
#include <string>

#include "host/RefusalLines.h"

namespace {

std::string pageOf(WebKitWebView* view) {
  const char* uri = webkit_web_view_get_uri(view);
  return uri ? uri : "";
}

// What a permission request is for, in the words of its refusal line.
const char* permissionName(WebKitPermissionRequest* request) {
  if (WEBKIT_IS_GEOLOCATION_PERMISSION_REQUEST(request)) return "location";
  if (WEBKIT_IS_NOTIFICATION_PERMISSION_REQUEST(request))
    return "notifications";
  if (WEBKIT_IS_USER_MEDIA_PERMISSION_REQUEST(request)) {
    auto* media = WEBKIT_USER_MEDIA_PERMISSION_REQUEST(request);
    if (webkit_user_media_permission_is_for_display_device(media))
      return "screen capture";
    const bool audio = webkit_user_media_permission_is_for_audio_device(media);
    const bool video = webkit_user_media_permission_is_for_video_device(media);
    if (audio && video) return "camera and microphone";
    return video ? "camera" : "microphone";
  }
  if (WEBKIT_IS_POINTER_LOCK_PERMISSION_REQUEST(request)) return "pointer lock";
  if (WEBKIT_IS_DEVICE_INFO_PERMISSION_REQUEST(request)) return "device list";
  if (WEBKIT_IS_CLIPBOARD_PERMISSION_REQUEST(request)) return "clipboard";
  if (WEBKIT_IS_MEDIA_KEY_SYSTEM_PERMISSION_REQUEST(request))
    return "encrypted media";
  return "a permission";
}

}  // namespace

PageRequests::PageRequests(WebKitWebView* view, const WidgetScheme& scheme,
                           bool unattended)
    : scheme_(scheme), unattended_(unattended) {
  g_signal_connect(view, "script-dialog", G_CALLBACK(onScriptDialog), this);
  g_signal_connect(view, "print", G_CALLBACK(onPrint), this);
  g_signal_connect(view, "run-file-chooser", G_CALLBACK(onFileChooser), this);
  g_signal_connect(view, "permission-request", G_CALLBACK(onPermission), this);
  g_signal_connect(view, "query-permission-state",
                   G_CALLBACK(onPermissionState), this);
  g_signal_connect(view, "enter-fullscreen", G_CALLBACK(onFullscreen), this);
  g_signal_connect(view, "authenticate", G_CALLBACK(onAuthenticate), this);
  g_signal_connect(view, "user-message-received", G_CALLBACK(onMessage), this);
  g_signal_connect(view, "load-changed", G_CALLBACK(onLoadChanged), this);
}

// alert is dismissed, confirm answers false, prompt null (no text is set),
// and a page that asks before it is left is left: the window's navigations
// are the browser's to decide (BrowserWindow::onDecidePolicy).
gboolean PageRequests::onScriptDialog(WebKitWebView*, WebKitScriptDialog* dialog,
                                      gpointer self) {
  auto* requests = static_cast<PageRequests*>(self);
  if (!requests->widget() && !requests->unattended_) return FALSE;
  switch (webkit_script_dialog_get_dialog_type(dialog)) {
    case WEBKIT_SCRIPT_DIALOG_CONFIRM:
      webkit_script_dialog_confirm_set_confirmed(dialog, FALSE);
      break;
    case WEBKIT_SCRIPT_DIALOG_BEFORE_UNLOAD_CONFIRM:
      webkit_script_dialog_confirm_set_confirmed(dialog, TRUE);
      break;
    default:
      break;
  }
  return TRUE;
}

// WebKit's own print dialog is modal: it would stop the program until
// someone answers it.
gboolean PageRequests::onPrint(WebKitWebView* view, WebKitPrintOperation*,
                               gpointer self) {
  auto* requests = static_cast<PageRequests*>(self);
  if (!requests->widget() && !requests->unattended_) return FALSE;
  RefusalLines::say("refused to print", pageOf(view),
                    requests->widget() ? "a widget does not print"
                                       : "nobody is there to answer");
  return TRUE;
}

gboolean PageRequests::onFileChooser(WebKitWebView* view,
                                     WebKitFileChooserRequest* request,
                                     gpointer self) {
  auto* requests = static_cast<PageRequests*>(self);
  if (!requests->widget() && !requests->unattended_) return FALSE;
  RefusalLines::say("refused a file chooser to", pageOf(view),
                    requests->widget() ? "a widget reads none of the user's files"
                                       : "nobody is there to answer");
  webkit_file_chooser_request_cancel(request);
  return TRUE;
}

// WebKit denies what nobody answers; a widget is told so with a line.
gboolean PageRequests::onPermission(WebKitWebView* view,
                                    WebKitPermissionRequest* request,
                                    gpointer self) {
  auto* requests = static_cast<PageRequests*>(self);
  if (!requests->widget()) return FALSE;
  RefusalLines::say(std::string("refused ") + permissionName(request) + " to",
                    pageOf(view), "a widget is granted no permission");
  webkit_permission_request_deny(request);
  return TRUE;
}

// A widget that asks whether it may is told it may not, rather than that
// it could ask; WebKit then makes no request of it (Notification's
// requestPermission() among them), so the refusal is said here.
gboolean PageRequests::onPermissionState(WebKitWebView* view,
                                         WebKitPermissionStateQuery* query,
                                         gpointer self) {
  auto* requests = static_cast<PageRequests*>(self);
  if (!requests->widget()) return FALSE;
  const char* name = webkit_permission_state_query_get_name(query);
  RefusalLines::say(std::string("refused ") + (name ? name : "a permission") +
                        " to",
                    pageOf(view), "a widget is granted no permission");
  webkit_permission_state_query_finish(query, WEBKIT_PERMISSION_STATE_DENIED);
  return TRUE;
}

// The window is bound to its widget before its first load starts. Refusing
// enter-fullscreen keeps the window as it is, but WebKit still shows the
// element full size inside it and tells the page it was granted: a widget's
// view has no full screen at all.
void PageRequests::onLoadChanged(WebKitWebView* view, WebKitLoadEvent event,
                                 gpointer self) {
  auto* requests = static_cast<PageRequests*>(self);
  if (event != WEBKIT_LOAD_STARTED || requests->widgetSettings_ ||
      !requests->widget())
    return;
  requests->widgetSettings_ = true;
  webkit_settings_set_enable_fullscreen(webkit_web_view_get_settings(view),
                                        FALSE);
}

// A widget stays in its window.
gboolean PageRequests::onFullscreen(WebKitWebView* view, gpointer self) {
  auto* requests = static_cast<PageRequests*>(self);
  if (!requests->widget()) return FALSE;
  RefusalLines::say("refused full screen to", pageOf(view),
                    "a widget stays in its window");
  return TRUE;
}

// A granted origin that asks for credentials would show a dialog in the
// widget's window that looks like the browser's own.
gboolean PageRequests::onAuthenticate(WebKitWebView* view,
                                      WebKitAuthenticationRequest* request,
                                      gpointer self) {
  auto* requests = static_cast<PageRequests*>(self);
  if (!requests->widget() && !requests->unattended_) return FALSE;
  RefusalLines::say("refused to ask for credentials for", pageOf(view),
                    requests->widget() ? "a widget gets none of the user's"
                                       : "nobody is there to answer");
  webkit_authentication_request_cancel(request);
  return TRUE;
}

gboolean PageRequests::onMessage(WebKitWebView*, WebKitUserMessage* message,
                                 gpointer) {
  const char* name = webkit_user_message_get_name(message);
  if (name == nullptr || strcmp(name, RefusalLines::kMessage) != 0)
    return FALSE;
  GVariant* line = webkit_user_message_get_parameters(message);
  if (line != nullptr && g_variant_is_of_type(line, G_VARIANT_TYPE_STRING))
    RefusalLines::write(g_variant_get_string(line, nullptr));
  return TRUE;
}
