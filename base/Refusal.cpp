// SPDX-License-Identifier: Apache-2.0
#include "base/Refusal.h"

#include <widgetengine/WidgetEngineExtensions.h>

namespace {

struct LastRefusal {
  int code = WIDGETENGINE_REFUSAL_NONE;
  std::string reason;
  std::string statement;
  bool directoryKept = false;
};

LastRefusal& last() {
  thread_local LastRefusal refusal;
  return refusal;
}

}  // namespace

namespace refusal {

void begin() { clear(); }

void note(int code, const std::string& reason) {
  LastRefusal& refusal = last();
  if (refusal.code != WIDGETENGINE_REFUSAL_NONE) return;
  refusal.code = code;
  refusal.reason = reason;
}

bool noted() { return last().code != WIDGETENGINE_REFUSAL_NONE; }

void clear() { last() = LastRefusal(); }

int code() { return last().code; }

const std::string& reason() { return last().reason; }

void state(const std::string& line) { last().statement = line; }

const std::string& statement() { return last().statement; }

void noteDirectoryKept() { last().directoryKept = true; }

bool directoryKept() { return last().directoryKept; }

}  // namespace refusal

extern "C" int widgetengine_last_refusal(const char** reason) {
  if (reason != nullptr) *reason = refusal::reason().c_str();
  return refusal::code();
}
