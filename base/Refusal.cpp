// SPDX-License-Identifier: Apache-2.0
#include "base/Refusal.h"

#include <widgetengine/WidgetEngineExtensions.h>

namespace {

Outcome& last() {
  thread_local Outcome outcome;
  return outcome;
}

}  // namespace

namespace refusal {

void begin() { last() = Outcome(); }

void note(int code, const std::string& reason) {
  if (last().ok()) last() = Outcome(code, reason);
}

bool noted() { return !last().ok(); }

Outcome settle(const Outcome& outcome) {
  if (outcome.ok()) {
    last() = Outcome();
  } else if (last().ok()) {
    last() = outcome;
  }
  return last();
}

int code() { return last().code(); }

const std::string& reason() { return last().reason(); }

}  // namespace refusal

extern "C" int widgetengine_last_refusal(const char** reason) {
  if (reason != nullptr) *reason = refusal::reason().c_str();
  return refusal::code();
}
