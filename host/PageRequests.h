// SPDX-License-Identifier: Apache-2.0
// PageRequests answers what a page asks the browser for besides loads:
// script dialogs, printing, file choosers, permissions, full screen and
// credentials. A widget gets an answer at once and never a dialog: nothing
// it asks for may stop the program or wait for someone who is not there.
// Plain pages keep WebKit's own dialogs, unless nobody will answer them
// (a run that exits by itself). The web processes' refusal lines arrive
// here too, and are written with the browser's own.
#ifndef WIDGETENGINE_HOST_PAGEREQUESTS_H_
#define WIDGETENGINE_HOST_PAGEREQUESTS_H_

#include <webkit2/webkit2.h>

#include "host/WidgetScheme.h"

class PageRequests {
 public:
  // scheme says whether the view shows a widget; it must outlive the view's
  // signals, which are connected here. unattended: the run ends by itself.
  PageRequests(WebKitWebView* view, const WidgetScheme& scheme,
               bool unattended);

  PageRequests(const PageRequests&) = delete;
  PageRequests& operator=(const PageRequests&) = delete;

 private:
  static gboolean onScriptDialog(WebKitWebView*, WebKitScriptDialog*,
                                 gpointer self);
  static gboolean onPrint(WebKitWebView*, WebKitPrintOperation*, gpointer self);
  static gboolean onFileChooser(WebKitWebView*, WebKitFileChooserRequest*,
                                gpointer self);
  static gboolean onPermission(WebKitWebView*, WebKitPermissionRequest*,
                               gpointer self);
  static gboolean onPermissionState(WebKitWebView*, WebKitPermissionStateQuery*,
                                    gpointer self);
  static gboolean onFullscreen(WebKitWebView*, gpointer self);
  static gboolean onAuthenticate(WebKitWebView*, WebKitAuthenticationRequest*,
                                 gpointer self);
  static gboolean onMessage(WebKitWebView*, WebKitUserMessage*, gpointer self);
  static void onLoadChanged(WebKitWebView*, WebKitLoadEvent, gpointer self);

  bool widget() const { return scheme_.bound(); }

  const WidgetScheme& scheme_;
  const bool unattended_;
  bool widgetSettings_ = false;  // the view's settings are a widget's
};

#endif  // WIDGETENGINE_HOST_PAGEREQUESTS_H_
