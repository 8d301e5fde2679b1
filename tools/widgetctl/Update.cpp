// SPDX-License-Identifier: Apache-2.0
#include "tools/widgetctl/Update.h"

#include <stdlib.h>
#include <widgetengine/WidgetEngineDelegate.h>
#include <widgetengine/WidgetEngineExtensions.h>

#include <algorithm>
#include <iostream>
#include <memory>
#include <nlohmann/json.hpp>

#include "engine/ToolsFacade.h"
#include "tools/widgetctl/Commands.h"
#include "tools/widgetctl/EngineLines.h"
#include "tools/widgetctl/ProgressLine.h"
#include "tools/widgetctl/Reply.h"

namespace widgetctl {

using nlohmann::json;

const char kUpdateHelp[] =
    "Usage: widgetctl update [--lang LIST] NAME...\n"
    "       widgetctl update --all [--jitter SECONDS]\n"
    "       widgetctl update NAME --from URL|PATH\n"
    "       widgetctl update --check [--all] [--jitter SECONDS] [NAME...]\n"
    "\n"
    "Asks the update description that each widget's config.xml names\n"
    "(<update-description href>) for the version on offer and, when it\n"
    "differs from the installed one, replaces the widget in place with the\n"
    "package the description gives: the widget keeps its name, directory and\n"
    "launch URL, and a refused or interrupted update leaves it as it was.\n"
    "Prints one line per widget: \"NAME: updated OLD -> NEW\", \"NAME VERSION:\n"
    "up to date\" or \"NAME VERSION: no update description\"; a widget that\n"
    "could not be checked or updated ends with a line on standard error that\n"
    "says why. --all updates every widget whose description offers another\n"
    "version; a widget named without a description is a failure. --from\n"
    "updates the one widget NAME from that package, without a description.\n"
    "\n"
    "--check only asks, for the named widgets or every one: \"NAME OLD -> NEW:\n"
    "DETAILS\" (the description's details in the first language of LIST that\n"
    "it has), \"NAME VERSION: up to date\" or \"NAME VERSION: no update\n"
    "description\". An unchanged description costs the server a 304.\n"
    "\n"
    "--jitter SECONDS first waits a random time up to SECONDS (0 to 86400)\n"
    "before asking every widget, so that a fleet started by one clock spreads\n"
    "its requests (WIDGETENGINE_UPDATE_JITTER, for this run).\n"
    "\n"
    "Exit status 0 when every widget could be checked (and, without --check,\n"
    "is up to date or was updated), whether or not updates were on offer; 1\n"
    "when a named widget is not installed or a check or an update failed; 3\n"
    "when the registry cannot be used or a folder another user could write is\n"
    "refused.\n";

namespace {

const long kLongestJitterSeconds = 86400;

// The engine's answer, or a discarded value when it gave none.
json answerOf(char* text) {
  EngineString owned(text);
  if (!owned) return json(json::value_t::discarded);
  return json::parse(owned.get(), nullptr, false);
}

std::string text(const json& object, const char* key) {
  const auto found = object.find(key);
  return found != object.end() && found->is_string() ? found->get<std::string>()
                                                      : std::string();
}

// Details are a document's text: one line of it, blanks folded.
std::string oneLine(const std::string& details) {
  std::string line;
  bool blank = false;
  for (char c : details) {
    if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
      blank = !line.empty();
      continue;
    }
    if (blank) line += ' ';
    blank = false;
    line += c;
  }
  return line;
}

// "clock 1.0", or "clock" for a widget without a version.
std::string label(const std::string& name, const std::string& version) {
  return version.empty() ? name : name + " " + version;
}

std::string shownVersion(const std::string& version) {
  return version.empty() ? "(no version)" : version;
}

std::string notInstalled(const std::string& name) {
  return "no widget called " + name +
         " is installed (\"widgetctl list\" lists them)";
}

// The entry of an update of a widget that is not installed; src is the
// package it was to come from, or null.
json notInstalledEntry(const std::string& name, const json& src) {
  return {{"name", name},
          {"result", "not installed"},
          {"from", nullptr},
          {"to", nullptr},
          {"src", src},
          {"refusal", WIDGETENGINE_REFUSAL_NOT_INSTALLED},
          {"reason", "no widget is called " + name},
          {"check", nullptr}};
}

// The registry, a root or a folder that cannot be used is the environment's
// failure; anything else is the engine's no.
int exitForRefusal(int code) {
  return code == WIDGETENGINE_REFUSAL_REGISTRY || code == WIDGETENGINE_REFUSAL_UNTRUSTED
             ? kEnvironment
             : kNo;
}

// The run's answer: a line per widget on standard output, a line per failure
// on standard error as it happens, and the worst exit status.
class UpdateRun {
 public:
  UpdateRun(bool checkOnly, const std::string& language)
      : checkOnly_(checkOnly), language_(language) {
    gDocument["widgets"] = json::array();
  }

  // Checks, and unless checking only updates, every installed widget.
  bool runAll();
  // The same for the widget called name.
  void runOne(const std::string& name);
  // Updates the widget called name from the package at url.
  void runFrom(const std::string& name, const std::string& url);

  int finish();

 private:
  // What one answer of the engine's checks says, and what follows from it;
  // named is false for a widget that --all reached.
  void handle(const json& answer, bool named);
  void update(const std::string& name, const std::string& url,
              const std::string& installed, const std::string& offered,
              const json& check);
  // The installed version of name, through the engine as a browser asks;
  // false when no widget has the name.
  bool installedVersion(const std::string& name, std::string* version);

  void say(const std::string& line) {
    if (!gJson) std::cout << line << '\n';
  }
  void fail(int exit, const std::string& reason) {
    std::cout.flush();
    std::cerr << kProgram << ": " << reason << std::endl;
    failures_.push_back(reason);
    status_ = std::max(status_, exit);
  }
  void record(json entry) { gDocument["widgets"].push_back(std::move(entry)); }

  const bool checkOnly_;
  const std::string language_;
  RefPtr<WebWidgetEngineDelegate> engine_;
  std::vector<std::string> failures_;
  int status_ = kOk;
};

bool UpdateRun::runAll() {
  std::vector<std::string> lines;
  json answers;
  {
    EngineLines capture(&lines);
    answers = answerOf(widgetengine_check_updates(language_.c_str()));
  }
  passOn(lines);
  if (!answers.is_array()) return false;
  for (const json& answer : answers) {
    if (answer.is_object()) handle(answer, false);
  }
  return true;
}

void UpdateRun::runOne(const std::string& name) {
  std::vector<std::string> lines;
  json answer;
  {
    EngineLines capture(&lines);
    answer = answerOf(widgetengine_check_update(name.c_str(), language_.c_str()));
  }
  passOn(lines);
  if (answer.is_object()) {
    handle(answer, true);
    return;
  }
  if (checkOnly_) {
    // In the engine's shape, so that a script reads every widget alike.
    record({{"name", name},
            {"installed", nullptr},
            {"updateDescription", nullptr},
            {"checked", false},
            {"refusal", WIDGETENGINE_REFUSAL_NOT_INSTALLED},
            {"reason", "no widget is called " + name}});
  } else {
    record(notInstalledEntry(name, nullptr));
  }
  fail(kNo, notInstalled(name));
}

void UpdateRun::handle(const json& answer, bool named) {
  const std::string name = text(answer, "name");
  const std::string installed = text(answer, "installed");
  const bool described = answer.contains("updateDescription") &&
                         !answer["updateDescription"].is_null();
  const bool checked = answer.value("checked", false);
  const bool available = checked && answer.value("available", false);
  const std::string offered = text(answer, "version");

  if (checkOnly_) {
    record(answer);
    if (!described) {
      say(label(name, installed) + ": no update description");
    } else if (!checked) {
      fail(exitForRefusal(answer.value("refusal", 0)),
           "could not check " + name + ": " + text(answer, "reason"));
    } else if (available) {
      const std::string details = oneLine(text(answer, "details"));
      say(name + " " + shownVersion(installed) + " -> " + shownVersion(offered) +
          (details.empty() ? "" : ": " + details));
    } else {
      say(label(name, installed) + ": up to date");
    }
    return;
  }

  json entry = {{"name", name},       {"from", installed}, {"to", nullptr},
                {"src", nullptr},     {"refusal", nullptr}, {"reason", nullptr},
                {"check", answer}};
  if (!described) {
    entry["result"] = "no update description";
    if (named) {
      const std::string why = "its config.xml names no update description";
      entry["reason"] = why;
      record(entry);
      fail(kNo, "could not update " + name + ": " + why +
                    " (\"widgetctl update " + name + " --from URL\" takes a package)");
    } else {
      record(entry);
      say(label(name, installed) + ": no update description");
    }
  } else if (!checked) {
    entry["result"] = "check failed";
    entry["refusal"] = answer.value("refusal", 0);
    entry["reason"] = text(answer, "reason");
    record(entry);
    fail(exitForRefusal(answer.value("refusal", 0)),
         "could not check " + name + ": " + text(answer, "reason"));
  } else if (!available) {
    entry["result"] = "up to date";
    entry["to"] = installed;
    record(entry);
    say(label(name, installed) + ": up to date");
  } else {
    update(name, text(answer, "src"), installed, offered, answer);
  }
}

void UpdateRun::runFrom(const std::string& name, const std::string& url) {
  std::string installed;
  if (!installedVersion(name, &installed)) {
    record(notInstalledEntry(name, url));
    fail(kNo, notInstalled(name));
    return;
  }
  update(name, url, installed, std::string(), nullptr);
}

void UpdateRun::update(const std::string& name, const std::string& url,
                       const std::string& installed, const std::string& offered,
                       const json& check) {
  std::vector<std::string> lines;
  int code;
  std::string reason;
  {
    EngineLines capture(&lines);
    ProgressLine progress(gProgress);
    code = widgetengine_update_widget(name.c_str(), url.c_str());
    const char* why = nullptr;
    widgetengine_last_refusal(&why);
    reason = why ? why : "";
  }
  passOn(lines);
  json entry = {{"name", name}, {"from", installed}, {"to", nullptr},
                {"src", url},   {"refusal", nullptr}, {"reason", nullptr},
                {"check", check}};
  if (code == WIDGETENGINE_REFUSAL_NONE) {
    // The package's config.xml, not the description, says what it is.
    std::string now;
    if (!installedVersion(name, &now)) now = offered;
    entry["result"] = "updated";
    entry["to"] = now;
    record(entry);
    say(name + ": updated " + shownVersion(installed) + " -> " + shownVersion(now));
    return;
  }
  entry["result"] = "refused";
  entry["refusal"] = code;
  entry["reason"] = reason;
  record(entry);
  const std::string what =
      offered.empty() ? " from " + url : " to " + shownVersion(offered);
  fail(exitForRefusal(code), "could not update " + name + what + ": " + reason);
}

bool UpdateRun::installedVersion(const std::string& name, std::string* version) {
  std::vector<std::string> lines;
  std::unique_ptr<WidgetsData> widget;
  {
    EngineLines capture(&lines);
    if (!engine_) engine_ = WidgetEngineDelegate::createInstance();
    if (engine_) widget.reset(engine_->getInfo(name.c_str(), nullptr, ""));
  }
  passOn(lines);
  if (!widget) return false;
  *version = widget->getVersion();
  return true;
}

int UpdateRun::finish() {
  if (gJson && !failures_.empty()) {
    std::string joined;
    for (const std::string& reason : failures_)
      joined += (joined.empty() ? "" : "; ") + reason;
    gDocument["error"] = joined;
  }
  // Each failure has had its line already.
  return widgetctl::finish(status_);
}

bool validJitter(const std::string& text) {
  if (text.empty() || text.size() > 5) return false;
  for (char c : text)
    if (c < '0' || c > '9') return false;
  return strtol(text.c_str(), nullptr, 10) <= kLongestJitterSeconds;
}

}  // namespace

std::string updateUsageError(const UpdateOptions& options,
                             const std::vector<std::string>& names) {
  if (options.hasFrom && options.check) return "--from does not go with --check";
  if (options.hasFrom && (options.all || names.size() != 1))
    return "--from takes exactly one widget name";
  if (options.all && !names.empty()) return "give widget names or --all, not both";
  if (!options.check && !options.all && names.empty())
    return "update needs widget names or --all";
  if (options.hasJitter && !options.all && !(options.check && names.empty()))
    return "--jitter is for checks of every widget (--all)";
  if (options.hasJitter && !validJitter(options.jitter))
    return "--jitter takes a whole number of seconds, 0 to 86400";
  return std::string();
}

int runUpdate(const UpdateOptions& options, const std::vector<std::string>& names,
              const std::string& language) {
  // A check's answers are data for scripts, as list's are.
  if (options.check) gEngineToStderr = true;
  std::string reason;
  if (!registryUsable(&reason)) return finish(kEnvironment, reason);

  UpdateRun run(options.check, language);
  if (options.hasFrom) {
    std::string url = options.from;
    if (!isAddress(url)) {
      std::string error;
      url = fileURL(options.from, &error);
      if (url.empty()) return finish(kNo, error);
    }
    run.runFrom(names[0], url);
  } else if (names.empty()) {
    if (options.hasJitter &&
        setenv("WIDGETENGINE_UPDATE_JITTER", options.jitter.c_str(), 1) != 0) {
      return finish(kEnvironment, "cannot set WIDGETENGINE_UPDATE_JITTER");
    }
    if (!run.runAll()) {
      return finish(kEnvironment, "the registry " + toolsfacade::registryPath() +
                                      " could not be read");
    }
  } else {
    for (const std::string& name : names) run.runOne(name);
  }
  return run.finish();
}

}  // namespace widgetctl
