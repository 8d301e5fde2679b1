// SPDX-License-Identifier: Apache-2.0
#include "host/BrowserWindow.h"

#include <cairo.h>

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <utility>

#include <widgetengine/WidgetsData.h>

#include "host/RefusalLines.h"
#include "host/WidgetData.h"

namespace {

std::string viewUri(WebKitWebView* view) {
  const char* uri = webkit_web_view_get_uri(view);
  return uri ? uri : "";
}

struct LoadLater {
  WebKitWebView* view;
  std::string uri;
};

gboolean loadLater(gpointer data) {
  std::unique_ptr<LoadLater> load(static_cast<LoadLater*>(data));
  webkit_web_view_load_uri(load->view, load->uri.c_str());
  return G_SOURCE_REMOVE;
}

}  // namespace

BrowserWindow::BrowserWindow(WebWidgetEngineDelegate* engine,
                             BrowserOptions options)
    : engine_(engine),
      options_(std::move(options)),
      mapper_(options_.mapping ? engine : nullptr, options_.language),
      scheme_(mapper_) {}

// The view is made once the window knows what it shows: a widget's pages
// keep their data in its installation's folders, which WebKit takes only
// when the context is made.
void BrowserWindow::build(WebKitWebsiteDataManager* data) {
  context_ = data != nullptr
                 ? webkit_web_context_new_with_website_data_manager(data)
                 : webkit_web_context_new();
  scheme_.registerWith(context_);
  // Widgets fetch their own files with fetch and XHR: same-origin requests
  // of the scheme must be allowed, as they are for http.
  WebKitSecurityManager* security =
      webkit_web_context_get_security_manager(context_);
  webkit_security_manager_register_uri_scheme_as_cors_enabled(
      security, WidgetScheme::kScheme);
  g_signal_connect(context_, "initialize-web-extensions",
                   G_CALLBACK(onInitializeExtensions), this);
  // Nothing a page asks for is saved to the user's disk.
  g_signal_connect(context_, "download-started",
                   G_CALLBACK(+[](WebKitWebContext*, WebKitDownload* download,
                                  gpointer) {
                     WebKitURIRequest* request =
                         webkit_download_get_request(download);
                     const char* uri =
                         request ? webkit_uri_request_get_uri(request) : "";
                     RefusalLines::say("refused to download", uri ? uri : "");
                     webkit_download_cancel(download);
                   }),
                   nullptr);
  // Timed repeats must fetch every resource again, as a first visit does,
  // or the memory cache would hide what the mapping costs.
  if (options_.automation.repeat > 0)
    webkit_web_context_set_cache_model(context_,
                                       WEBKIT_CACHE_MODEL_DOCUMENT_VIEWER);

  view_ = WEBKIT_WEB_VIEW(webkit_web_view_new_with_context(context_));
  // A file:// page reads no other file with fetch or XHR (WebKit's default,
  // said here because widgets were once shown that way): a widget reads its
  // own files through widget://, and plain pages read none.
  WebKitSettings* settings = webkit_web_view_get_settings(view_);
  webkit_settings_set_allow_file_access_from_file_urls(settings, FALSE);
  webkit_settings_set_allow_universal_access_from_file_urls(settings, FALSE);
  // Peer connections reach any address, and no Content-Security-Policy
  // governs them (WebKit's default, said here all the same).
  webkit_settings_set_enable_webrtc(settings, FALSE);

  g_signal_connect(view_, "decide-policy", G_CALLBACK(onDecidePolicy), this);
  g_signal_connect(view_, "load-changed", G_CALLBACK(onLoadChanged), this);
  g_signal_connect(view_, "load-failed", G_CALLBACK(onLoadFailed), this);
  g_signal_connect(view_, "notify::title", G_CALLBACK(onTitleChanged), this);
  // Nobody answers a dialog in a run that ends by itself.
  requests_ = std::make_unique<PageRequests>(
      view_, scheme_,
      options_.exitAfterLoad || !options_.screenshot.empty() ||
          options_.automation.repeat > 0);
  PageDriver::Window* driven = this;
  driver_ = std::make_unique<PageDriver>(driven, view_, options_.automation);
  if (firstFrameFrom_) driver_->measureFirstFrameFrom(*firstFrameFrom_);

  window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_default_size(GTK_WINDOW(window_), options_.width,
                              options_.height);
  gtk_window_set_title(GTK_WINDOW(window_), "widget-browser");
  gtk_container_add(GTK_CONTAINER(window_), GTK_WIDGET(view_));
  g_signal_connect(window_, "destroy", G_CALLBACK(onDestroy), this);
  gtk_widget_show_all(window_);

  if (options_.exitAfterLoad || !options_.screenshot.empty() ||
      options_.automation.repeat > 0)
    timeout_ = g_timeout_add_seconds(options_.loadTimeoutSeconds, onTimeout, this);
}

BrowserWindow::~BrowserWindow() {
  if (timeout_ != 0) g_source_remove(timeout_);
  if (window_ != nullptr) {
    g_signal_handlers_disconnect_by_data(window_, this);
    g_signal_handlers_disconnect_by_data(view_, this);
    gtk_widget_destroy(window_);
  }
  if (context_ == nullptr) return;
  g_signal_handlers_disconnect_by_data(context_, this);
  g_object_unref(context_);
}

void BrowserWindow::onInitializeExtensions(WebKitWebContext* context,
                                           gpointer self) {
  auto* window = static_cast<BrowserWindow*>(self);
  webkit_web_context_set_web_extensions_directory(
      context, window->options_.extensionDir.c_str());
  // The window is bound to its widget before anything loads, so every web
  // process starts knowing what it confines.
  webkit_web_context_set_web_extensions_initialization_user_data(
      context,
      g_variant_new("(ss)", window->scheme_.authority().c_str(),
                    window->scheme_.policy().serialize().c_str()));
}

void BrowserWindow::open(const std::string& url) {
  std::string address = url;
  if (context_ == nullptr) {
    if (!bindToWidget(url, &address)) {
      build(nullptr);
    } else {
      WebKitWebsiteDataManager* data = WidgetData::managerFor(widgetName_);
      build(data);
      g_object_unref(data);
      updateTitle();
      if (!network_.confine(context_, webkit_web_view_get_settings(view_),
                            scheme_.policy(), options_.gate)) {
        finish(1);
        return;
      }
    }
  }
  url_ = address;
  driver_->loadRequested();
  webkit_web_view_load_uri(view_, address.c_str());
}

// Finds the installed widget that url opens (its launch address, a file:// or
// widget:// address of one of its files), binds the scheme to it and gives
// the widget:// address to load; false for any other address.
bool BrowserWindow::bindToWidget(const std::string& url, std::string* address) {
  const std::string authority = AccessPolicy::widgetAuthority(url);
  if (authority.empty() && url.compare(0, 7, "file://") != 0) return false;
  // The engine stores plain paths, which WebKit escapes; but a widget
  // directory may hold a "%" of its own, so the address is tried both ways.
  const std::string forms[] = {url, ResourceMapper::engineAddress(url)};
  std::string launch;
  for (const std::string& form : forms)
    if (launch.empty() && engine_->isWidget(form.c_str()) == 1) launch = form;
  std::string name, storage, rest;
  for (WidgetsData* widget : engine_->getAll(nullptr)) {
    std::string dir = widget->getStoragePath();
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    const std::string prefix =
        ResourceMapper::collapseSlashes("file://" + dir + "/");
    for (const std::string& form : forms) {
      const std::string file = ResourceMapper::collapseSlashes(form);
      bool match = false;
      if (!authority.empty())
        match = WidgetScheme::authorityFor(widget->getName()) == authority;
      else if (!launch.empty())
        match = widget->getLaunchURL() == launch && form == launch;
      else
        match = file.compare(0, prefix.size(), prefix) == 0;
      if (match && name.empty()) {
        name = widget->getName();
        storage = dir;
        if (authority.empty())
          rest = file.substr(std::min(prefix.size(), file.size()));
      }
    }
    delete widget;
  }
  if (name.empty()) return false;
  widgetName_ = name;
  scheme_.bind(name, storage);
  if (authority.empty()) {
    // The query and fragment of the address stay as they were.
    const size_t tail = rest.find_first_of("?#");
    *address =
        scheme_.addressOf("file://" + storage + "/" + rest.substr(0, tail));
    if (tail != std::string::npos) *address += rest.substr(tail);
  }
  WidgetsData* info =
      engine_->getInfo(name.c_str(), nullptr, options_.language.c_str());
  if (info != nullptr) {
    widgetTitle_ = info->getWidgetName();
    delete info;
  }
  return true;
}

void BrowserWindow::showRefusal(const std::string& url,
                                const std::string& engineLines) {
  if (context_ == nullptr) build(nullptr);
  refusal_ = true;
  driver_->loadRequested();
  char* where = g_markup_escape_text(url.c_str(), -1);
  char* why = g_markup_escape_text(engineLines.c_str(), -1);
  std::string html =
      "<!DOCTYPE html><html><head><meta charset=\"UTF-8\">"
      "<title>Widget refused</title></head><body>"
      "<h1>The widget was not installed</h1><p>Package: <code>";
  html += where;
  html += "</code></p><p>The widget engine said:</p><pre id=\"reason\">";
  html += why;
  html += "</pre></body></html>";
  g_free(where);
  g_free(why);
  webkit_web_view_load_html(view_, html.c_str(), nullptr);
}

int BrowserWindow::run() {
  if (!finished_) gtk_main();
  return status_;
}

// Every navigation of the view, of the main frame and of frames, is decided
// here, in the UI process. A window that shows a widget stays on it: a
// document from anywhere but the widget's own files and the origins it was
// granted is refused before it is requested, and a granted origin is let
// into frames but not into the window (a navigation decision does not say
// which frame it is for; the response decision does). New windows are
// never opened.
//
// Documents of the main frame are mapped at the response decision: it is
// the one point where WebKit tells for certain that a load is the main
// frame's document and still lets the browser load another address instead
// (links, form posts, back/forward, reloads and load_uri all pass through
// it), so that the page's address is its localized copy's and the copy's
// relative links resolve as their author wrote them. Frames and
// sub-resources get their copies from the scheme (WidgetScheme.cpp).
gboolean BrowserWindow::onDecidePolicy(WebKitWebView* view,
                                       WebKitPolicyDecision* decision,
                                       WebKitPolicyDecisionType type,
                                       gpointer self) {
  auto* window = static_cast<BrowserWindow*>(self);
  if (type != WEBKIT_POLICY_DECISION_TYPE_RESPONSE) {
    WebKitNavigationAction* action =
        webkit_navigation_policy_decision_get_navigation_action(
            WEBKIT_NAVIGATION_POLICY_DECISION(decision));
    const char* uri = webkit_uri_request_get_uri(
        webkit_navigation_action_get_request(action));
    const std::string url = uri ? uri : "";
    if (type == WEBKIT_POLICY_DECISION_TYPE_NEW_WINDOW_ACTION) {
      window->refuseNavigation(decision, url, "no new window is opened",
                               false);
      return TRUE;
    }
    const std::string why = window->scheme_.policy().refusal(
        window->scheme_.authority(), url, true);
    if (why.empty()) return FALSE;
    window->refuseNavigation(decision, url, why.c_str(), false);
    return TRUE;
  }
  auto* response = WEBKIT_RESPONSE_POLICY_DECISION(decision);
  const bool main =
      webkit_response_policy_decision_is_main_frame_main_resource(response);
  if (!webkit_response_policy_decision_is_mime_type_supported(response)) {
    // WebKit would save what it cannot show to the user's disk.
    const char* uri = webkit_uri_request_get_uri(
        webkit_response_policy_decision_get_request(response));
    window->refuseNavigation(decision, uri ? uri : "",
                             "a document WebKit cannot show is not saved",
                             main);
    return TRUE;
  }
  if (!main) return FALSE;
  const char* requested = webkit_uri_request_get_uri(
      webkit_response_policy_decision_get_request(response));
  if (requested == nullptr || !window->scheme_.bound()) return FALSE;
  const std::string url = requested;
  if (AccessPolicy::widgetAuthority(url) != window->scheme_.authority()) {
    window->refuseNavigation(decision, url,
                             "a widget's window stays on the widget", true);
    return TRUE;
  }
  if (url == window->redirectedTo_) return FALSE;
  const std::string mapped = window->scheme_.addressOf(
      window->mapper_.map(window->scheme_.fileAddressOf(url)));
  if (mapped.empty() || mapped == url) return FALSE;
  window->redirectedTo_ = mapped;
  window->redirectPending_ = true;
  webkit_policy_decision_ignore(decision);
  // Starting a load from inside the decision of another is not allowed.
  g_idle_add(loadLater, new LoadLater{view, mapped});
  return TRUE;
}

// A refused navigation leaves one line on standard error.
void BrowserWindow::refuseNavigation(WebKitPolicyDecision* decision,
                                     const std::string& url, const char* why,
                                     bool loadStarted) {
  RefusalLines::say("refused to open", url, why);
  webkit_policy_decision_ignore(decision);
  if (loadStarted) {
    // The load that was started fails and finishes (onLoadFailed,
    // onLoadChanged), which goes on with the steps.
    navigationRefused_ = true;
    return;
  }
  driver_->navigationRefused();
}

// An empty document is let into frames, but a navigation decision does not
// say which frame it is for, and the window's own empty document has
// committed before the window hears of it: the window goes back to the
// widget's page it showed last.
void BrowserWindow::keepWidgetShown(const std::string& committed) {
  if (AccessPolicy::widgetAuthority(committed) == scheme_.authority()) {
    widgetShown_ = committed;
    return;
  }
  if (committed != "about:blank" && committed != "about:srcdoc") return;
  RefusalLines::say("refused to open", committed,
                    "a widget's window stays on the widget");
  if (widgetShown_.empty()) return;
  redirectedTo_ = widgetShown_;
  redirectPending_ = true;
  g_idle_add(loadLater, new LoadLater{view_, widgetShown_});
}

void BrowserWindow::updateTitle() {
  if (window_ == nullptr) return;  // closed; the view goes with it
  if (!widgetTitle_.empty()) {
    gtk_window_set_title(GTK_WINDOW(window_), widgetTitle_.c_str());
    return;
  }
  const char* title = webkit_web_view_get_title(view_);
  gtk_window_set_title(GTK_WINDOW(window_),
                       title && *title ? title : "widget-browser");
}

void BrowserWindow::onTitleChanged(GObject*, GParamSpec*, gpointer self) {
  static_cast<BrowserWindow*>(self)->updateTitle();
}

void BrowserWindow::onLoadChanged(WebKitWebView* view, WebKitLoadEvent event,
                                  gpointer self) {
  auto* window = static_cast<BrowserWindow*>(self);
  if (event == WEBKIT_LOAD_STARTED) window->driver_->loadStarted();
  if (event == WEBKIT_LOAD_STARTED && window->redirectPending_ &&
      viewUri(view) == window->redirectedTo_)
    window->redirectPending_ = false;
  if (event == WEBKIT_LOAD_COMMITTED && window->scheme_.bound())
    window->keepWidgetShown(viewUri(view));
  if (event != WEBKIT_LOAD_FINISHED) return;
  // The finish of a navigation that was ignored for its localized copy.
  if (window->redirectPending_) return;
  window->navigationRefused_ = false;
  window->driver_->loadFinished();
}

gboolean BrowserWindow::onLoadFailed(WebKitWebView*, WebKitLoadEvent,
                                     gchar* uri, GError* error, gpointer self) {
  auto* window = static_cast<BrowserWindow*>(self);
  // Ignored on purpose: replaced by its localized copy, or refused.
  if (window->redirectPending_ || window->navigationRefused_) return TRUE;
  window->loadFailed_ = true;
  window->failure_ = std::string(uri ? uri : "") + ": " +
                     (error && error->message ? error->message : "load failed");
  std::cerr << "widget-browser: " << RefusalLines::cut(window->failure_)
            << std::endl;
  return FALSE;  // WebKit's own error page says the same in the view
}

void BrowserWindow::reload() {
  redirectedTo_.clear();
  open(url_);
}

std::string BrowserWindow::title() const {
  const char* title =
      window_ != nullptr ? gtk_window_get_title(GTK_WINDOW(window_)) : nullptr;
  return title ? title : "";
}

// What the driver hands back once it is done with a load: the screenshot,
// then the exit when one was asked for.
void BrowserWindow::pageDone() {
  const int status = refusal_ || loadFailed_ ? 1 : 0;
  if (!options_.screenshot.empty()) {
    webkit_web_view_get_snapshot(view_, WEBKIT_SNAPSHOT_REGION_VISIBLE,
                                 WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
                                 onSnapshot, this);
    return;
  }
  if (options_.exitAfterLoad) finish(status);
}

void BrowserWindow::onSnapshot(GObject* source, GAsyncResult* result,
                               gpointer self) {
  auto* window = static_cast<BrowserWindow*>(self);
  GError* error = nullptr;
  cairo_surface_t* surface = webkit_web_view_get_snapshot_finish(
      WEBKIT_WEB_VIEW(source), result, &error);
  int status = window->refusal_ || window->loadFailed_ ? 1 : 0;
  if (surface == nullptr) {
    std::cerr << "widget-browser: no snapshot: "
              << (error ? error->message : "unknown error") << std::endl;
    status = 1;
  } else {
    const cairo_status_t wrote = cairo_surface_write_to_png(
        surface, window->options_.screenshot.c_str());
    if (wrote != CAIRO_STATUS_SUCCESS) {
      std::cerr << "widget-browser: cannot write "
                << window->options_.screenshot << ": "
                << cairo_status_to_string(wrote) << std::endl;
      status = 1;
    }
    cairo_surface_destroy(surface);
  }
  if (error != nullptr) g_error_free(error);
  window->finish(status);
}

gboolean BrowserWindow::onTimeout(gpointer self) {
  auto* window = static_cast<BrowserWindow*>(self);
  window->timeout_ = 0;
  std::cerr << "widget-browser: the page did not finish loading in "
            << window->options_.loadTimeoutSeconds << " s" << std::endl;
  window->finish(3);
  return G_SOURCE_REMOVE;
}

void BrowserWindow::onDestroy(GtkWidget*, gpointer self) {
  auto* window = static_cast<BrowserWindow*>(self);
  window->window_ = nullptr;
  window->finish(window->status_);
}

void BrowserWindow::finish(int status) {
  if (finished_) return;
  finished_ = true;
  status_ = status;
  if (gtk_main_level() > 0) gtk_main_quit();
}
