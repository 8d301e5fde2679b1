// SPDX-License-Identifier: Apache-2.0
// The extension calls that check installed widgets for updates
// (WidgetEngineExtensions.h): each opens the registry, checks with an
// UpdateChecker and hands the answers over as JSON.
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>
#include <widgetengine/WidgetEngineExtensions.h>

#include "base/Settings.h"
#include "engine/UserAgentLocales.h"
#include "registry/SqlLite3.h"
#include "registry/WidgetsData.h"
#include "update/UpdateChecker.h"

namespace {

nlohmann::json describe(const UpdateCheck& check) {
  nlohmann::json answer = {{"name", check.name},
                           {"installed", check.installedVersion}};
  answer["updateDescription"] =
      check.href.empty() ? nlohmann::json() : nlohmann::json(check.href);
  if (!check.outcome.ok()) {
    answer["checked"] = false;
    answer["refusal"] = check.outcome.code();
    answer["reason"] = check.outcome.reason();
  } else if (!check.href.empty()) {
    answer["checked"] = true;
    answer["notModified"] = check.notModified;
    answer["available"] = check.available;
    answer["version"] = check.version;
    answer["src"] = check.src;
    answer["details"] = check.details;
  }
  return answer;
}

// Texts come from widgets and servers: bytes that are not UTF-8 are
// replaced rather than refused.
char* release(const nlohmann::json& answer) {
  const std::string text =
      answer.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
  return strdup(text.c_str());
}

UpdateChecker checkerFor(SqlLite3* database, const char* languages) {
  const std::string given = languages ? languages : "";
  return UpdateChecker(database, given, UserAgentLocales(given).getLocales());
}

// Waits up to the jitter setting, a random time, so that devices whose
// checks one clock starts do not all ask at once.
void waitJitter() {
  const long jitter = settings::updateJitterSeconds();
  if (jitter <= 0) return;
  std::random_device seed;
  std::uniform_int_distribution<long> pick(0, jitter * 1000);
  std::this_thread::sleep_for(std::chrono::milliseconds(pick(seed)));
}

struct Rows {
  std::vector<WidgetsData*> widgets;
  ~Rows() {
    for (WidgetsData* widget : widgets) delete widget;
  }
};

}  // namespace

extern "C" char* widgetengine_check_update(const char* name,
                                           const char* languages) {
  if (name == nullptr) return nullptr;
  try {
    SqlLite3 database;
    if (!database.isOpen()) return nullptr;
    Rows rows;
    rows.widgets = database.selectWidgetsByName(name);
    if (rows.widgets.empty()) return nullptr;
    UpdateChecker checker = checkerFor(&database, languages);
    return release(describe(checker.check(*rows.widgets.front())));
  } catch (...) {
    // Memory ran out.
    return nullptr;
  }
}

extern "C" char* widgetengine_check_updates(const char* languages) {
  try {
    SqlLite3 database;
    if (!database.isOpen()) return nullptr;
    bool complete = false;
    Rows rows;
    rows.widgets = database.selectAllWidgets(&complete);
    if (!complete) return nullptr;
    if (!rows.widgets.empty()) waitJitter();
    UpdateChecker checker = checkerFor(&database, languages);
    nlohmann::json answers = nlohmann::json::array();
    for (const WidgetsData* widget : rows.widgets)
      answers.push_back(describe(checker.check(*widget)));
    return release(answers);
  } catch (...) {
    return nullptr;
  }
}
