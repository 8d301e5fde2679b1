// SPDX-License-Identifier: Apache-2.0
// BrowserWindow is widget-browser's one window: a WebKit view that shows
// either one widget, served from the widget:// scheme and kept on it, or
// plain pages; it asks the engine which localized copy of a document to load
// and shows a refused package's reason as a page.
#ifndef WIDGETENGINE_HOST_BROWSERWINDOW_H_
#define WIDGETENGINE_HOST_BROWSERWINDOW_H_

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>

#include <widgetengine/WebWidgetEngineDelegate.h>

#include "host/PageRequests.h"
#include "host/ResourceMapper.h"
#include "host/WidgetNetwork.h"
#include "host/WidgetScheme.h"
#include "host/automation/PageDriver.h"

struct BrowserOptions {
  std::string language;        // the reader's accept-language string
  std::string screenshot;      // PNG written once the page has loaded
  bool exitAfterLoad = false;
  int width = 800;
  int height = 600;
  bool mapping = true;         // off only to measure what mapping costs
  bool gate = true;            // off only to measure what the gate costs
  std::string extensionDir;    // where the web-process part lives
  // Test and benchmark hooks, set from the environment by main().
  PageDriverOptions automation;
  // Long enough for a cold web process on a loaded machine; a page that has
  // not loaded by then is reported instead of waited for forever.
  int loadTimeoutSeconds = 90;
};

class BrowserWindow : private PageDriver::Window {
 public:
  // engine stays the caller's; it must outlive the window.
  BrowserWindow(WebWidgetEngineDelegate* engine, BrowserOptions options);
  ~BrowserWindow();

  BrowserWindow(const BrowserWindow&) = delete;
  BrowserWindow& operator=(const BrowserWindow&) = delete;

  // Opens url. A launch address, any file:// address inside an installed
  // widget's directory and a widget:// address of one bind the window to
  // that widget for its life; any other address is a plain page.
  void open(const std::string& url);
  // A page that says the package at url was refused, with the engine's lines.
  void showRefusal(const std::string& url, const std::string& engineLines);

  // Runs until the window closes (or the page has loaded, with
  // exitAfterLoad); the process's exit status.
  int run();

  // Once the first page has loaded and a frame of it has been rendered,
  // prints the milliseconds since start (a benchmark's hook).
  void measureFirstFrameFrom(std::chrono::steady_clock::time_point start) {
    firstFrameFrom_ = start;
  }

 private:
  static gboolean onDecidePolicy(WebKitWebView*, WebKitPolicyDecision*,
                                 WebKitPolicyDecisionType, gpointer self);
  static void onLoadChanged(WebKitWebView*, WebKitLoadEvent, gpointer self);
  static gboolean onLoadFailed(WebKitWebView*, WebKitLoadEvent, gchar* uri,
                               GError*, gpointer self);
  static void onTitleChanged(GObject*, GParamSpec*, gpointer self);
  static void onInitializeExtensions(WebKitWebContext*, gpointer self);
  static void onDestroy(GtkWidget*, gpointer self);
  static void onSnapshot(GObject*, GAsyncResult*, gpointer self);
  static gboolean onTimeout(gpointer self);

  void build(WebKitWebsiteDataManager* data);
  bool bindToWidget(const std::string& url, std::string* address);
  void refuseNavigation(WebKitPolicyDecision* decision, const std::string& url,
                        const char* why, bool loadStarted);
  void keepWidgetShown(const std::string& committed);
  void finish(int status);
  void updateTitle();

  // PageDriver::Window
  void reload() override;
  bool finished() const override { return finished_; }
  std::string title() const override;
  bool refused() const override { return refusal_; }
  bool loadFailed() const override { return loadFailed_; }
  void pageDone() override;

  WebWidgetEngineDelegate* engine_;
  BrowserOptions options_;
  ResourceMapper mapper_;
  WebKitWebContext* context_ = nullptr;
  GtkWidget* window_ = nullptr;
  WebKitWebView* view_ = nullptr;

  std::string url_;              // what open() was asked for
  std::string redirectedTo_;     // the localized document being loaded
  WidgetScheme scheme_;
  WidgetNetwork network_;        // the widget's only way out
  std::string widgetName_;       // the widget shown, once bound
  std::string widgetTitle_;      // the localized name of the widget shown
  bool redirectPending_ = false;  // an ignored navigation is replaced
  bool navigationRefused_ = false;  // a started load was refused
  bool refusal_ = false;
  bool loadFailed_ = false;
  std::string failure_;
  bool finished_ = false;
  int status_ = 0;
  guint timeout_ = 0;
  std::string widgetShown_;      // the widget's document shown last
  std::unique_ptr<PageRequests> requests_;  // dialogs and permissions
  std::unique_ptr<PageDriver> driver_;
  std::optional<std::chrono::steady_clock::time_point> firstFrameFrom_;
};

#endif  // WIDGETENGINE_HOST_BROWSERWINDOW_H_
