// SPDX-License-Identifier: Apache-2.0
// PageDriver drives widget-browser's window for the tests and benchmarks:
// after each load it takes the next step (a click, a wait, a move through
// the history), times repeated loads and the first rendered frame, and
// prints what the page shows as JSON. With none of these asked for, it hands
// each finished load straight back to the window.
#ifndef WIDGETENGINE_HOST_AUTOMATION_PAGEDRIVER_H_
#define WIDGETENGINE_HOST_AUTOMATION_PAGEDRIVER_H_

#include <gtk/gtk.h>
#include <webkit2/webkit2.h>

#include <chrono>
#include <string>
#include <vector>

struct PageDriverOptions {
  bool printFacts = false;     // print what the loaded page shows as JSON
  // After each load, the next of these steps: a CSS selector to click,
  // "wait:" and a selector to wait for, or "back" / "forward" through the
  // history.
  std::vector<std::string> steps;
  int repeat = 0;              // load the page this many more times, timed
};

class PageDriver {
 public:
  // What the driver needs of the window it drives.
  class Window {
   public:
    virtual ~Window() = default;
    // Loads the address first opened again, as a first visit would.
    virtual void reload() = 0;
    // The run is over; nothing more is started.
    virtual bool finished() const = 0;
    // The facts only the window knows.
    virtual std::string title() const = 0;
    virtual bool refused() const = 0;
    virtual bool loadFailed() const = 0;
    // The driver is done with this load: the window takes its screenshot or
    // exits when it was asked to.
    virtual void pageDone() = 0;
  };

  // window and view stay the caller's; they must outlive the driver.
  PageDriver(Window* window, WebKitWebView* view, PageDriverOptions options);

  PageDriver(const PageDriver&) = delete;
  PageDriver& operator=(const PageDriver&) = delete;

  // Once the first page has loaded and a frame of it has been rendered,
  // prints the milliseconds since start ("first-frame-ms: ...").
  void measureFirstFrameFrom(std::chrono::steady_clock::time_point start);

  // The window's calls: it asked for a load, WebKit started one, a load
  // finished (not one replaced or refused), a navigation that had not
  // started loading was refused.
  void loadRequested();
  void loadStarted();
  void loadFinished();
  void navigationRefused();

 private:
  static void onFacts(GObject*, GAsyncResult*, gpointer self);
  static void onFirstFrame(GObject*, GAsyncResult*, gpointer self);

  void next();
  void click(const std::string& selector);
  void waitFor(const std::string& selector);

  Window* window_;
  WebKitWebView* view_;
  PageDriverOptions options_;

  size_t stepsDone_ = 0;
  std::string waitingFor_;
  bool clickPending_ = false;    // a click's outcome is not known yet
  bool clickLoads_ = false;      // it asked for a navigation
  bool clickStarted_ = false;    // whose load has started
  bool clickRefused_ = false;    // a navigation was refused meanwhile
  bool factsPrinted_ = false;
  bool repeating_ = false;
  int loadsLeft_ = 0;
  std::vector<double> loadTimes_;
  std::chrono::steady_clock::time_point loadStart_;
  bool measureFirstFrame_ = false;
  bool firstFrameMeasured_ = false;
  std::chrono::steady_clock::time_point firstFrameStart_;
};

#endif  // WIDGETENGINE_HOST_AUTOMATION_PAGEDRIVER_H_
