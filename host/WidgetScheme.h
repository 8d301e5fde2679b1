// SPDX-License-Identifier: Apache-2.0
// WidgetScheme serves the one widget a browser window shows from a URI
// scheme of the browser's own, widget://<authority>/<path>, rooted at the
// widget's directory: every file a page of the widget loads is mapped to the
// reader's localized copy and read here, and nothing outside that directory
// (no other widget, no file:// address, no directory listing) is served.
// Each answer carries the Content-Security-Policy that confines the page to
// its own files and the origins its config.xml grants.
#ifndef WIDGETENGINE_HOST_WIDGETSCHEME_H_
#define WIDGETENGINE_HOST_WIDGETSCHEME_H_

#include <webkit2/webkit2.h>

#include <string>

#include "host/AccessPolicy.h"
#include "host/ResourceMapper.h"

class WidgetScheme {
 public:
  static const char kScheme[];  // "widget"

  // mapper stays the caller's and must outlive the scheme.
  explicit WidgetScheme(const ResourceMapper& mapper);

  WidgetScheme(const WidgetScheme&) = delete;
  WidgetScheme& operator=(const WidgetScheme&) = delete;

  // Makes context send every widget:// request here.
  void registerWith(WebKitWebContext* context);

  // From now on serves the widget of this name, installed in storagePath
  // (the engine's form of its directory), and nothing else.
  void bind(const std::string& name, const std::string& storagePath);
  bool bound() const { return !authority_.empty(); }
  const std::string& authority() const { return authority_; }
  const AccessPolicy& policy() const { return policy_; }
  std::string contentSecurityPolicy() const;

  // The authority of a widget's name, a valid host source of a
  // Content-Security-Policy and never another name's: the name itself when
  // it is a plain lower-case host name ("clock", "my-clock.v2"), else "x-"
  // and its bytes in hexadecimal ("My_Clock", "x-y", "a..b").
  static std::string authorityFor(const std::string& name);

  // The widget:// address of a file:// address (in the engine's form) inside
  // the bound widget's directory, or "".
  std::string addressOf(const std::string& fileAddress) const;
  // The engine's file:// address of a widget:// address of the bound
  // widget, without query or fragment, or "".
  std::string fileAddressOf(const std::string& url) const;

  // The file to serve for url: its real path, or "" and why not.
  std::string resolve(const std::string& url, std::string* why) const;

 private:
  static void onRequest(WebKitURISchemeRequest* request, gpointer self);
  void serve(WebKitURISchemeRequest* request) const;
  // The real path of a file inside the widget's directory, or "".
  std::string confined(const std::string& path, std::string* why) const;

  const ResourceMapper& mapper_;
  std::string authority_;
  std::string engineDir_;  // as the engine stores it, without the final "/"
  std::string realDir_;    // the same with every link resolved
  AccessPolicy policy_;
  std::string csp_;
};

#endif  // WIDGETENGINE_HOST_WIDGETSCHEME_H_
