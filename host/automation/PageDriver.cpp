// SPDX-License-Identifier: Apache-2.0
#include "host/automation/PageDriver.h"

#include <cairo.h>

#include <cstdio>
#include <iostream>
#include <utility>

#include <nlohmann/json.hpp>

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

double millisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(
             std::chrono::steady_clock::now() - start)
      .count();
}

}  // namespace

PageDriver::PageDriver(Window* window, WebKitWebView* view,
                       PageDriverOptions options)
    : window_(window), view_(view), options_(std::move(options)) {}

void PageDriver::measureFirstFrameFrom(
    std::chrono::steady_clock::time_point start) {
  measureFirstFrame_ = true;
  firstFrameStart_ = start;
}

void PageDriver::loadRequested() {
  loadStart_ = std::chrono::steady_clock::now();
}

void PageDriver::loadStarted() { clickStarted_ = true; }

void PageDriver::loadFinished() {
  clickLoads_ = false;
  next();
}

// When a step clicked what asked for the refused navigation, the steps go
// on: no load will come back.
void PageDriver::navigationRefused() {
  if (clickPending_) {
    clickRefused_ = true;
  } else if (clickLoads_) {
    clickLoads_ = false;
    g_idle_add(
        [](gpointer self) {
          static_cast<PageDriver*>(self)->next();
          return G_SOURCE_REMOVE;
        },
        this);
  }
}

// After a load: the repeats, the first frame, the steps, the facts, then
// the window's own end. Each asynchronous step comes back here.
void PageDriver::next() {
  if (window_->finished()) return;
  if (loadsLeft_ == 0 && options_.repeat > 0 && loadTimes_.empty() &&
      !repeating_) {
    repeating_ = true;
    loadsLeft_ = options_.repeat;
  }
  if (repeating_) {
    loadTimes_.push_back(millisecondsSince(loadStart_));
    if (loadsLeft_-- > 0) {
      window_->reload();
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
                                 onFirstFrame, this);
    return;
  }
  if (stepsDone_ < options_.steps.size()) {
    const std::string& step = options_.steps[stepsDone_++];
    if (step == "back" || step == "forward") {
      const bool can = step == "back" ? webkit_web_view_can_go_back(view_)
                                      : webkit_web_view_can_go_forward(view_);
      if (!can) {
        next();
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
    click(step);
    return;
  }
  if (options_.printFacts && !factsPrinted_) {
    webkit_web_view_evaluate_javascript(view_, kFactsScript, -1, nullptr,
                                        nullptr, nullptr, onFacts, this);
    return;
  }
  window_->pageDone();
}

void PageDriver::click(const std::string& step) {
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
        auto* driver = static_cast<PageDriver*>(self);
        const bool clicked = scriptAnswer(source, result);
        driver->clickPending_ = false;
        // A click on a link starts a navigation whose finish comes back
        // to loadFinished(), unless it was refused; anything else goes on
        // now.
        if (!clicked || driver->clickRefused_) {
          driver->clickRefused_ = false;
          driver->next();
        } else {
          driver->clickLoads_ = true;
          driver->clickStarted_ = false;
          // WebKit refuses some navigations itself (a file:// address
          // from a page of another scheme) without asking: when no load
          // has started after a while, none will.
          g_timeout_add(
              kClickSettleMs,
              [](gpointer self) {
                auto* driver = static_cast<PageDriver*>(self);
                if (driver->clickLoads_ && !driver->clickStarted_) {
                  driver->clickLoads_ = false;
                  driver->next();
                }
                return G_SOURCE_REMOVE;
              },
              driver);
        }
      },
      this);
}

// Polls the page until an element matches selector (a page that does its
// work after the load says so by adding one), then goes on with the steps.
void PageDriver::waitFor(const std::string& selector) {
  gchar* escaped = g_strescape(selector.c_str(), nullptr);
  const std::string script =
      std::string("document.querySelector(\"") + escaped + "\") !== null";
  g_free(escaped);
  waitingFor_ = selector;
  webkit_web_view_evaluate_javascript(
      view_, script.c_str(), -1, nullptr, nullptr, nullptr,
      [](GObject* source, GAsyncResult* result, gpointer self) {
        auto* driver = static_cast<PageDriver*>(self);
        const bool found = scriptAnswer(source, result);
        if (found) {
          driver->next();
          return;
        }
        g_timeout_add(
            50,
            [](gpointer self) {
              auto* driver = static_cast<PageDriver*>(self);
              if (!driver->window_->finished())
                driver->waitFor(driver->waitingFor_);
              return G_SOURCE_REMOVE;
            },
            driver);
      },
      this);
}

void PageDriver::onFacts(GObject* source, GAsyncResult* result,
                         gpointer self) {
  auto* driver = static_cast<PageDriver*>(self);
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
  facts["windowTitle"] = driver->window_->title();
  facts["refused"] = driver->window_->refused();
  facts["loadFailed"] = driver->window_->loadFailed();
  std::cout << "widget-browser-facts: " << facts.dump() << std::endl;
  driver->factsPrinted_ = true;
  driver->window_->pageDone();
}

void PageDriver::onFirstFrame(GObject* source, GAsyncResult* result,
                              gpointer self) {
  auto* driver = static_cast<PageDriver*>(self);
  GError* error = nullptr;
  cairo_surface_t* surface = webkit_web_view_get_snapshot_finish(
      WEBKIT_WEB_VIEW(source), result, &error);
  driver->firstFrameMeasured_ = true;
  printf("first-frame-ms: %.3f\n", millisecondsSince(driver->firstFrameStart_));
  fflush(stdout);
  if (surface != nullptr) cairo_surface_destroy(surface);
  if (error != nullptr) g_error_free(error);
  driver->next();
}
