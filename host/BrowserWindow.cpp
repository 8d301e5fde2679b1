// SPDX-License-Identifier: Apache-2.0
#include "host/BrowserWindow.h"

#include <cairo.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <utility>

#include <nlohmann/json.hpp>

#include <widgetengine/WidgetsData.h>

#include "host/RefusalLines.h"

namespace {

// What a script run by evaluate_javascript answered, as a boolean: false
// when it failed or answered nothing.
bool scriptAnswer(GObject* source, GAsyncResult* result) {
  JSCValue* value = webkit_web_view_evaluate_javascript_finish(
      WEBKIT_WEB_VIEW(source), result, nullptr);
  const bool answer = value && jsc_value_to_boolean(value);
  if (value) g_object_unref(value);
  return answer;
}

// How long a click on a link may take to start its load before the test
// steps take it as refused.
const guint kClickSettleMs = 1500;

// What the tests read back from a loaded page. Image sizes are the decoded
// files' own, so they tell which copy of a picture was fetched even though
// the element keeps the address written in the page.
const char kFactsScript[] = R"JS(
(() => {
  const h1 = document.querySelector('h1');
  return JSON.stringify({
    url: location.href,
    documentTitle: document.title,
    lang: document.documentElement ? document.documentElement.lang : '',
    text: document.body ? document.body.innerText : '',
    h1Color: h1 ? getComputedStyle(h1).color : '',
    images: Array.from(document.images).map(i => ({
      src: i.src, width: i.naturalWidth, height: i.naturalHeight})),
    links: Array.from(document.links).map(a => a.href),
  });
})()
)JS";

std::string viewUri(WebKitWebView* view) {
  const char* uri = webkit_web_view_get_uri(view);
  return uri ? uri : "";
}

double millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now() - start)
      .count();
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
      scheme_(mapper_) {
  context_ = webkit_web_context_new();
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
  if (options_.repeat > 0)
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
          options_.repeat > 0);

  window_ = gtk_window_new(GTK_WINDOW_TOPLEVEL);
  gtk_window_set_default_size(GTK_WINDOW(window_), options_.width,
                              options_.height);
  gtk_window_set_title(GTK_WINDOW(window_), "widget-browser");
  gtk_container_add(GTK_CONTAINER(window_), GTK_WIDGET(view_));
  g_signal_connect(window_, "destroy", G_CALLBACK(onDestroy), this);
  gtk_widget_show_all(window_);

  if (options_.exitAfterLoad || !options_.screenshot.empty() ||
      options_.repeat > 0)
    timeout_ = g_timeout_add_seconds(options_.loadTimeoutSeconds, onTimeout, this);
}

BrowserWindow::~BrowserWindow() {
  if (timeout_ != 0) g_source_remove(timeout_);
  if (window_ != nullptr) {
    g_signal_handlers_disconnect_by_data(window_, this);
    g_signal_handlers_disconnect_by_data(view_, this);
    gtk_widget_destroy(window_);
  }
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
  if (!scheme_.bound() && bindToWidget(url, &address)) {
    updateTitle();
    if (!network_.confine(context_, webkit_web_view_get_settings(view_),
                          scheme_.policy(), options_.gate)) {
      finish(1);
      return;
    }
  }
  url_ = address;
  loadStart_ = std::chrono::steady_clock::now();
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
  refusal_ = true;
  loadStart_ = std::chrono::steady_clock::now();
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

void BrowserWindow::measureFirstFrameFrom(
    std::chrono::steady_clock::time_point start) {
  measureFirstFrame_ = true;
  firstFrameStart_ = start;
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

// A refused navigation leaves one line on standard error. When a test step
// clicked what asked for it, the steps go on: no load will come back.
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
  if (clickPending_) {
    clickRefused_ = true;
  } else if (clickLoads_) {
    clickLoads_ = false;
    g_idle_add(
        [](gpointer self) {
          static_cast<BrowserWindow*>(self)->loadFinished();
          return G_SOURCE_REMOVE;
        },
        this);
  }
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
  if (event == WEBKIT_LOAD_STARTED) window->clickStarted_ = true;
  if (event == WEBKIT_LOAD_STARTED && window->redirectPending_ &&
      viewUri(view) == window->redirectedTo_)
    window->redirectPending_ = false;
  if (event == WEBKIT_LOAD_COMMITTED && window->scheme_.bound())
    window->keepWidgetShown(viewUri(view));
  if (event != WEBKIT_LOAD_FINISHED) return;
  // The finish of a navigation that was ignored for its localized copy.
  if (window->redirectPending_) return;
  window->navigationRefused_ = false;
  window->clickLoads_ = false;
  window->loadFinished();
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

// After a load: the test and benchmark hooks, then the screenshot, then the
// exit when one was asked for. Each asynchronous step comes back here.
void BrowserWindow::loadFinished() {
  if (finished_) return;
  if (loadsLeft_ == 0 && options_.repeat > 0 && loadTimes_.empty() &&
      !repeating_) {
    repeating_ = true;
    loadsLeft_ = options_.repeat;
  }
  if (repeating_) {
    loadTimes_.push_back(millisecondsSince(loadStart_));
    if (loadsLeft_-- > 0) {
      redirectedTo_.clear();
      open(url_);
      return;
    }
    repeating_ = false;
    // The first load warms the web process up; the others are the figures.
    for (size_t i = 1; i < loadTimes_.size(); ++i)
      printf("load-ms: %.3f\n", loadTimes_[i]);
    fflush(stdout);
  }
  if (measureFirstFrame_ && !firstFrameMeasured_) {
    // The snapshot is painted from the page as it is now, so when it
    // arrives a frame of the page has been rendered.
    webkit_web_view_get_snapshot(view_, WEBKIT_SNAPSHOT_REGION_VISIBLE,
                                 WEBKIT_SNAPSHOT_OPTIONS_NONE, nullptr,
                                 onSnapshot, this);
    return;
  }
  if (stepsDone_ < options_.steps.size()) {
    const std::string& step = options_.steps[stepsDone_++];
    if (step == "back" || step == "forward") {
      const bool can = step == "back" ? webkit_web_view_can_go_back(view_)
                                      : webkit_web_view_can_go_forward(view_);
      if (!can) {
        loadFinished();
        return;
      }
      if (step == "back")
        webkit_web_view_go_back(view_);
      else
        webkit_web_view_go_forward(view_);
      return;
    }
    if (step.compare(0, 5, "wait:") == 0) {
      waitFor(step.substr(5));
      return;
    }
    gchar* selector = g_strescape(step.c_str(), nullptr);
    const std::string script =
        std::string("(() => { const e = document.querySelector(\"") +
        selector + "\"); if (!e) return false; e.click(); return true; })()";
    g_free(selector);
    clickPending_ = true;
    clickRefused_ = false;
    webkit_web_view_evaluate_javascript(
        view_, script.c_str(), -1, nullptr, nullptr, nullptr,
        [](GObject* source, GAsyncResult* result, gpointer self) {
          auto* window = static_cast<BrowserWindow*>(self);
          const bool clicked = scriptAnswer(source, result);
          window->clickPending_ = false;
          // A click on a link starts a navigation whose finish comes back
          // to loadFinished(), unless it was refused; anything else goes on
          // now.
          if (!clicked || window->clickRefused_) {
            window->clickRefused_ = false;
            window->loadFinished();
          } else {
            window->clickLoads_ = true;
            window->clickStarted_ = false;
            // WebKit refuses some navigations itself (a file:// address
            // from a page of another scheme) without asking: when no load
            // has started after a while, none will.
            g_timeout_add(
                kClickSettleMs,
                [](gpointer self) {
                  auto* window = static_cast<BrowserWindow*>(self);
                  if (window->clickLoads_ && !window->clickStarted_) {
                    window->clickLoads_ = false;
                    window->loadFinished();
                  }
                  return G_SOURCE_REMOVE;
                },
                window);
          }
        },
        this);
    return;
  }
  if (options_.printFacts && !factsPrinted_) {
    webkit_web_view_evaluate_javascript(view_, kFactsScript, -1, nullptr,
                                        nullptr, nullptr, onFacts, this);
    return;
  }
  afterFacts();
}

// Polls the page until an element matches selector (a page that does its
// work after the load says so by adding one), then goes on with the steps.
void BrowserWindow::waitFor(const std::string& selector) {
  gchar* escaped = g_strescape(selector.c_str(), nullptr);
  const std::string script =
      std::string("document.querySelector(\"") + escaped + "\") !== null";
  g_free(escaped);
  waitingFor_ = selector;
  webkit_web_view_evaluate_javascript(
      view_, script.c_str(), -1, nullptr, nullptr, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer self) {
        auto* window = static_cast<BrowserWindow*>(self);
        const bool found = scriptAnswer(source, result);
        if (found) {
          window->loadFinished();
          return;
        }
        g_timeout_add(
            50,
            [](gpointer self) {
              auto* window = static_cast<BrowserWindow*>(self);
              if (!window->finished_) window->waitFor(window->waitingFor_);
              return G_SOURCE_REMOVE;
            },
            window);
      },
      this);
}

void BrowserWindow::onFacts(GObject* source, GAsyncResult* result,
                            gpointer self) {
  auto* window = static_cast<BrowserWindow*>(self);
  GError* error = nullptr;
  JSCValue* value = webkit_web_view_evaluate_javascript_finish(
      WEBKIT_WEB_VIEW(source), result, &error);
  nlohmann::json facts = nlohmann::json::object();
  if (value != nullptr && jsc_value_is_string(value)) {
    char* text = jsc_value_to_string(value);
    facts = nlohmann::json::parse(text, nullptr, false);
    g_free(text);
    if (facts.is_discarded()) facts = nlohmann::json::object();
  } else if (error != nullptr) {
    facts["scriptError"] = error->message;
  }
  if (value != nullptr) g_object_unref(value);
  if (error != nullptr) g_error_free(error);
  facts["windowTitle"] = gtk_window_get_title(GTK_WINDOW(window->window_));
  facts["refused"] = window->refusal_;
  facts["loadFailed"] = window->loadFailed_;
  std::cout << "widget-browser-facts: " << facts.dump() << std::endl;
  window->factsPrinted_ = true;
  window->afterFacts();
}

void BrowserWindow::afterFacts() {
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
  if (window->measureFirstFrame_ && !window->firstFrameMeasured_) {
    window->firstFrameMeasured_ = true;
    printf("first-frame-ms: %.3f\n",
           millisecondsSince(window->firstFrameStart_));
    fflush(stdout);
    if (surface != nullptr) cairo_surface_destroy(surface);
    if (error != nullptr) g_error_free(error);
    window->loadFinished();
    return;
  }
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
