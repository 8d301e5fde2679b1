// SPDX-License-Identifier: Apache-2.0
#include "base/Progress.h"

#include <widgetengine/WidgetEngineExtensions.h>

#include <atomic>
#include <mutex>

namespace {

std::atomic<bool> installed{false};
std::mutex callbackMutex;
widgetengine_progress_callback callbackFunction = nullptr;
void* callbackData = nullptr;

}  // namespace

namespace progress {

bool wanted() { return installed.load(std::memory_order_acquire); }

void report(int stage, uint64_t done, uint64_t total) {
  if (!wanted()) return;
  widgetengine_progress_callback callback;
  void* data;
  {
    std::lock_guard<std::mutex> hold(callbackMutex);
    callback = callbackFunction;
    data = callbackData;
  }
  if (callback != nullptr) callback(stage, done, total, data);
}

}  // namespace progress

extern "C" void widgetengine_set_progress_callback(
    widgetengine_progress_callback callback, void* userData) {
  std::lock_guard<std::mutex> hold(callbackMutex);
  callbackFunction = callback;
  callbackData = userData;
  installed.store(callback != nullptr, std::memory_order_release);
}
