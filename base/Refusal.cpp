// SPDX-License-Identifier: Apache-2.0
#include "base/Refusal.h"

#include <widgetengine/WidgetEngineExtensions.h>

namespace {

struct Record {
  Outcome outcome;
  std::string statement;
  bool directoryKept = false;
};

Record& last() {
  thread_local Record record;
  return record;
}

}  // namespace

namespace refusal {

void begin() { last() = Record(); }

void note(int code, const std::string& reason) {
  if (last().outcome.ok()) last().outcome = Outcome(code, reason);
}

bool noted() { return !last().outcome.ok(); }

// Only the outcome is settled: a removal that succeeds may still have kept
// the widget's directory, and says so.
Outcome settle(const Outcome& outcome) {
  Outcome& kept = last().outcome;
  if (outcome.ok()) {
    kept = Outcome();
  } else if (kept.ok()) {
    kept = outcome;
  }
  return kept;
}

int code() { return last().outcome.code(); }

const std::string& reason() { return last().outcome.reason(); }

void state(const std::string& line) { last().statement = line; }

const std::string& statement() { return last().statement; }

void noteDirectoryKept() { last().directoryKept = true; }

bool directoryKept() { return last().directoryKept; }

}  // namespace refusal

extern "C" int widgetengine_last_refusal(const char** reason) {
  if (reason != nullptr) *reason = refusal::reason().c_str();
  return refusal::code();
}
